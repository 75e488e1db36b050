// Paths that several parts of the install manager use.
#pragma once

#import <Foundation/Foundation.h>

/// The install log, relative to a home directory or to /.
inline NSString* const kInstallLogFile = @"Library/Logs/KorvelPlayerInstallManager.log";

/// The plug-in bundle, relative to an install root. On the boot volume this is the full path.
inline NSString* const kPluginBundlePath =
    @"/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin";
