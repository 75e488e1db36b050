// Signals that a failed write raises.
#pragma once

/// Keeps SIGPIPE (the reader of a pipe has left) and SIGXFSZ (a file exceeds the caller's limit)
/// from ending the process: the writes that raise them fail instead, as on a full disk. Programs
/// that are launched start with the default actions.
void SurviveFailedWrites();
