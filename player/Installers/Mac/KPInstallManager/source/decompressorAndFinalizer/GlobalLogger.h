// The finalizer's one install log.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

/// The log that all stages write to, from OpenInstallLog() until the process ends. Nil before that,
/// and when the log's file cannot be opened; messages to nil do nothing.
extern KPIMLogger* g_logger;

/// Opens the log of the console user, in the home folder that belongs to the name by convention
/// (/Users/NAME), or the machine's log when no user is logged in at the console. Sets `g_logger` to
/// it, with the finalizer's prefix and all levels written.
void OpenInstallLog();
