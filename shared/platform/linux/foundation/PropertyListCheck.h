// Property lists from untrusted files.
#pragma once

#import <Foundation/Foundation.h>

/// Returns whether GNUstep can parse `data` without crashing. GNUstep's parser trusts the lengths
/// in a binary list, and recurses once for each level of nesting. True does not mean that `data` is
/// a property list. Returns false for malformed binary lists and XML; for more than 512 levels of a
/// binary list or of XML; for a binary list with more than a million values or more than 64 MiB of
/// repeated content; for text with more than 4096 opening brackets; for XML that begins with white
/// space, a byte order mark or "<!"; and for GNUstep's own serialization. (The format of binary
/// lists is described in CFBinaryPList.c in the sources of Core Foundation.)
bool IsSafePropertyList(NSData* data);
