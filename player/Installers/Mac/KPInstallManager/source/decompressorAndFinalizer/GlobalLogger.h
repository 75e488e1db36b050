// The finalizer's one install log.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

/// The log that all stages write to. PerformMain sets it once and it lives until the process
/// ends. Nil before that, and for good when the log's file cannot be opened; messages to it then
/// do nothing.
extern KPIMLogger* g_logger;
