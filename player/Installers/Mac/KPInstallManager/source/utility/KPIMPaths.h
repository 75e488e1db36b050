// Paths that more than one part of the install manager has to agree on.
#pragma once

#import <Foundation/Foundation.h>

/// The install log, below a home directory or the machine's root.
inline NSString* const kInstallLogFile = @"Library/Logs/KorvelPlayerInstallManager.log";

/// The plug-in bundle, below an install root. It stands for itself on the boot volume.
inline NSString* const kPluginBundlePath =
    @"/Library/Internet Plug-Ins/PepperKorvelPlayer/PepperKorvelPlayer.plugin";
