// Property lists from files that nobody vouches for.
#pragma once

#import <Foundation/Foundation.h>

/// Whether GNUstep's parser can be given `data`: it believes the lengths that a binary list claims,
/// and nests its calls as deep as the list is nested. True says nothing about whether `data` is a
/// property list; false means that it is none, or too deep or large to be read: containers nested
/// more than 512 deep, or a binary list of more than a million values. (Format of binary lists:
/// CFBinaryPList.c in the sources of Core Foundation.)
bool IsSafePropertyList(NSData* data);
