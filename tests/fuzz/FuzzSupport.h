// What the fuzz targets of Objective-C code share.
#pragma once

#import <Foundation/Foundation.h>

#include <stddef.h>
#include <stdint.h>

/// Ends the process with the place of the call, as a crash, unless `holds`.
#define FUZZ_CHECK(holds) FuzzCheck((holds), #holds, __FILE__, __LINE__)
void FuzzCheck(bool holds, const char* text, const char* file, int line);

/// The bytes as text, made to fit: what is not UTF-8 is taken for Latin-1. Owned by the caller.
NSString* NewFuzzText(const uint8_t* data, size_t size);
