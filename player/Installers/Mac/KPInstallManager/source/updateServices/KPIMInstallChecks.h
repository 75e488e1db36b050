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

/// What an installer asks before it installs.
@interface KPIMVersionManager (InstallChecks)

/// CFBundleVersion of the running bundle, or nil.
+ (NSString*)versionOfKorvelPlayerToBeInstalled;

/// CFBundleShortVersionString of the installed player `kind`; nil when none is installed or its
/// property list does not tell.
+ (NSString*)versionOfPlayerOnSystemFor:(int)kind;

/// The same of the Pepper player.
+ (NSString*)versionOfKorvelPlayerOnSystem;

/// Runs all three checks, each of which logs why it failed. The sum of their results.
+ (unsigned int)performInstallChecks;

/// `kKPIMInstallChecksSystemTooOld` when the system is older than 10.6.0, else 0.
+ (unsigned int)checkMinimumSystemRequirements;

/// `kKPIMInstallChecksDowngrade` when a newer Pepper player is installed, else 0.
+ (unsigned int)checkDowngradeAttempt;

/// `kKPIMInstallChecksChannelSwitch` when a Pepper player from another build channel is installed,
/// one that must be uninstalled first; else 0.
+ (unsigned int)checkChannelSwitch;

/// 1, 0 or -1 as the version `tuple1` is newer than, equal to or older than `tuple2`. Versions are
/// integers with dots or commas between them, those that are missing count as 0. An integer is
/// what a component begins with, 0 when that is none, and at most what 32 bits hold.
+ (NSInteger)compareTuple1:(NSString*)tuple1 withTuple2:(NSString*)tuple2;

@end
