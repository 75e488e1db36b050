// Replacing methods of Foundation that do not behave as on macOS.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces the method `selector` of the class named `className` by `implementation`: an instance
/// method, or a class method if `onClass` is true. Returns the former implementation. Call it from
/// `+load`.
///
/// A replaced class method can run before `+initialize`: GCC's runtime enters it in the table that
/// all classes share until they are initialized. An implementation that calls the former one must
/// therefore send `self` another message first.
///
/// Ends the process with a message when the class has no such method: without the replacement the
/// port would only seem to work.
IMP ReplaceMethod(const char* className, SEL selector, IMP implementation, bool onClass = false);
