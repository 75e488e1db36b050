// Property lists from untrusted files.
#pragma once

#import <Foundation/Foundation.h>

/// Whether GNUstep can parse `data` without crashing: its parser believes the lengths that a binary
/// list claims, and nests its calls as deep as the list is nested. True does not mean that `data`
/// is a property list. False means that it is not one, that containers are nested more than 512
/// deep, or that a binary list has more than a million values. (The format of binary lists is
/// described in CFBinaryPList.c in the sources of Core Foundation.)
bool IsSafePropertyList(NSData* data);
