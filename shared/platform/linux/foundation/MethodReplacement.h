// Replacing methods of Foundation that do not behave as on macOS.
#pragma once

#import <Foundation/Foundation.h>

/// Makes `implementation` the one that instances of the class named `className` run for
/// `selector`, and returns the one that they ran before. For class methods, `onClass` is true.
///
/// A class method can then be the first that a class ever runs, before `+initialize`: GCC's runtime
/// enters the replacement in the table that classes without one yet share. An implementation that
/// calls the former one sends `self` some other message before.
///
/// Ends the process with a message when there is no such method: without the patch the port would
/// only seem to work. Called from `+load`.
IMP ReplaceMethod(const char* className, SEL selector, IMP implementation, bool onClass = false);
