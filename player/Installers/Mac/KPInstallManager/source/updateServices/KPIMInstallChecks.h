// Whether this version may be installed on this machine.
#pragma once

#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionManager.h"

/// Result of the install checks: a sum of these.
enum : unsigned int {
  kKPIMInstallChecksPassed = 0,
  kKPIMInstallChecksSystemTooOld = 1,
  kKPIMInstallChecksDowngrade = 2,
  kKPIMInstallChecksChannelSwitch = 4,
};

/// The oldest system that the player runs on, 10.6.0, packed as `getSystemOSVersion` packs it.
constexpr unsigned int kKPIMOldestSystem = 0xA0600;

/// The checks that an installer makes before it installs.
@interface KPIMVersionManager (InstallChecks)

/// Returns the CFBundleVersion of the running bundle, or nil.
+ (NSString*)versionOfKorvelPlayerToBeInstalled;

/// Returns the CFBundleShortVersionString of the installed player of the flavour `kind`; nil when
/// none is installed, and when its property list has no such string.
+ (NSString*)versionOfPlayerOnSystemFor:(int)kind;

/// The same for the Pepper player.
+ (NSString*)versionOfKorvelPlayerOnSystem;

/// Runs all three checks, each of which logs why it failed. Returns the sum of their results.
+ (unsigned int)performInstallChecks;

/// Returns `kKPIMInstallChecksSystemTooOld` when the system is older than 10.6.0, otherwise 0.
+ (unsigned int)checkMinimumSystemRequirements;

/// Returns `kKPIMInstallChecksDowngrade` when a newer Pepper player is installed, otherwise 0.
+ (unsigned int)checkDowngradeAttempt;

/// Returns `kKPIMInstallChecksChannelSwitch` when the installed Pepper player comes from another
/// build channel and must be uninstalled first, otherwise 0.
+ (unsigned int)checkChannelSwitch;

/// Returns 1, 0 or -1: the version `tuple1` is newer than, equal to or older than `tuple2`. A
/// version consists of components separated by dots or commas. The value of a component is the
/// integer at its beginning, limited to 32 bits; 0 if there is none or the component is missing.
+ (NSInteger)compareTuple1:(NSString*)tuple1 withTuple2:(NSString*)tuple2;

@end
