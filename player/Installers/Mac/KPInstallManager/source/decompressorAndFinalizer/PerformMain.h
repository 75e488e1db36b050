// The finalizer's sequence of stages.
#pragma once

/// Finishes an installation: opens the install log, unpacks the payload, removes obsolete plug-in
/// files, reports the installation, completes an express install and opts out of analytics.
///
/// `argv[1]` is the install root, in UTF-8: "/" for the boot volume, otherwise the mount point of
/// the target volume. If it is missing or not UTF-8, the payload is unpacked on the boot volume.
/// Obsolete files are removed, and an express install is completed, only if the root is "/" and a
/// user is logged in at the console. The opt-out requires the argument "-disableAnalytics".
///
/// Returns the exit status: 0, or the result of the payload stage if that fails; the later stages
/// are then skipped. Failures of the later stages do not change the status.
int PerformMain(int argc, char** argv);
