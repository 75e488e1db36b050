// Opening the install log, which may be in a folder of an ordinary user.
#pragma once

#import <Foundation/Foundation.h>

/// Opens the log at `path` for appending and returns a descriptor that the caller closes, or -1. A
/// missing log is created, with mode 0666 less the umask; a missing folder is not. Only a regular
/// file with one name is accepted: a link in the last component is not followed, and a hard link to
/// another file, a FIFO or a device is refused. Links in the folders before it are followed, except
/// where root opens the log as described below. The call never waits for the other end of a FIFO.
///
/// When root runs this and a user is at the console, the log is first opened with that user's
/// effective ids and groups. So the user cannot make root write to a file that the user may not
/// write, and a new log belongs to the user. If the user lacks permission, because an earlier run
/// has left a log that belongs to root or because the folder belongs to root, root goes down from
/// "/" without following any link, and opens or creates the log if folder and file belong to root
/// or to that user. Without a user at the console root does the same, and both must belong to root.
int OpenInstallLogFile(NSString* path);
