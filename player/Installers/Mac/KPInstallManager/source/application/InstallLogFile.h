// Opening the install log, which may lie in a folder of an ordinary user.
#pragma once

#import <Foundation/Foundation.h>

/// Opens the log at `path` for appending and returns a descriptor that the caller closes, or -1. A
/// missing log is created with mode 0666 less the umask, a missing folder is not. Only a regular
/// file with one name is a log: a link in its place is not followed, a hard link to another file, a
/// FIFO or a device is refused, and nothing is waited for.
///
/// When root runs this and a user is at the console, the log is first opened with that user's
/// effective ids and groups. So the user cannot have root write what the user may not write, and
/// the created log is the user's. Where the user lacks permission, because an earlier run
/// has left a log of root's or the folder is root's, root goes down from "/" without following any
/// link, and opens or creates the log if folder and file belong to root or to that user. Without a
/// user at the console root does the same, and both must be root's.
int OpenInstallLogFile(NSString* path);
