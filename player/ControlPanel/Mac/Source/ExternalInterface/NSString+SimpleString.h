// From the settings engine's string to the platform's.
#pragma once

#import <Foundation/Foundation.h>

#include "player/ControlPanel/Common/SMString.h"

@interface NSString (SimpleString)

/// The text of `string` read as UTF-8, autoreleased. A settings file may hold any bytes: text
/// that is not UTF-8 is read as ISO Latin-1 instead, one character for each byte. Never nil; a
/// null pointer gives the empty string.
+ (NSString*)stringWithSimpleString:(const SASM::SimpleString*)string;

@end
