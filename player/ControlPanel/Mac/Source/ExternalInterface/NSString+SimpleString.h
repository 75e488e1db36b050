// From the settings engine's string to the platform's.
#pragma once

#import <Foundation/Foundation.h>

#include "player/ControlPanel/Common/SMString.h"

@interface NSString (SimpleString)

/// Returns the text of `string` read as UTF-8, autoreleased, or the empty string for a null
/// pointer; never nil. A settings file may hold any bytes: text that is not UTF-8 is read as ISO
/// Latin-1 instead, one character for each byte.
+ (NSString*)stringWithSimpleString:(const SASM::SimpleString*)string;

@end
