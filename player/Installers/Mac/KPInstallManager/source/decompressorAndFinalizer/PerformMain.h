// The finalizer's sequence of stages.
#pragma once

/// Finishes an installation: opens the install log, unpacks the payload, removes obsolete
/// plug-in files, reports the installation, completes an express install and opts out of
/// analytics, each under its own condition.
///
/// `argv[1]` is the install root, in UTF-8: "/" for the boot volume, otherwise the mount point of
/// the target volume. Without it, or when it is not UTF-8, the install root is absent: the
/// payload's default paths are used, and what happens on the boot volume only is left out.
///
/// Returns the exit status: 0, or the payload stage's own when that fails, in which case no later
/// stage runs. Failures of the other stages do not count.
int PerformMain(int argc, char** argv);
