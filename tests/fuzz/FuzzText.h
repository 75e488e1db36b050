// Fuzz input for code that takes text objects.
#pragma once

#import <Foundation/Foundation.h>

#include "tests/fuzz/FuzzCheck.h"

/// The bytes as text; as Latin-1 if they are not UTF-8. Owned by the caller.
NSString* NewFuzzText(const uint8_t* data, size_t size);
