// The finalizer's one install log.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

/// The log that all stages write to, from OpenInstallLog() until the process ends. Nil before that,
/// and when the log's file cannot be opened; messages to nil do nothing.
extern KPIMLogger* g_logger;

/// Opens the log of the console user NAME, /Users/NAME/Library/Logs/KorvelPlayerInstallManager.log
/// (the real home folder is not looked up). When no user is logged in at the console, opens the
/// machine's log, the same file below /Library/Logs. Sets `g_logger` to it, with the finalizer's
/// prefix and all levels written.
void OpenInstallLog();
