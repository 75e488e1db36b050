// The finalizer's sequence of stages.
#pragma once

/// Finishes an installation: opens the install log, unpacks the payload, removes obsolete plug-in
/// files, reports the installation, completes an express install and opts out of analytics. Some
/// stages run only under a condition.
///
/// `argv[1]` is the install root, in UTF-8: "/" for the boot volume, otherwise the mount point of
/// the target volume. If it is missing or not UTF-8, the payload is unpacked at its default paths,
/// and the stages that belong to the boot volume only are skipped.
///
/// Returns the exit status: 0, or the result of the payload stage if that fails; no later stage
/// runs then. Failures of the other stages do not change the status.
int PerformMain(int argc, char** argv);
