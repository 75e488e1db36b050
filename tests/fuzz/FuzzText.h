// Fuzz input for code that takes text objects.
#pragma once

#import <Foundation/Foundation.h>

#include "tests/fuzz/FuzzCheck.h"

/// The bytes as text, made to fit: what is not UTF-8 is taken for Latin-1. Owned by the caller.
NSString* NewFuzzText(const uint8_t* data, size_t size);
