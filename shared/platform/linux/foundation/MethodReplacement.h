// Replacing methods of Foundation that do not behave as on macOS.
#pragma once

#import <Foundation/Foundation.h>

/// Replaces a method of Foundation. A variable of a namespace does so when the program is loaded,
/// before main and after the constructors of GNUstep's library.
///
/// A replaced class method can run before `+initialize`: GCC's runtime enters it in the table that
/// all classes share until they are initialized. An implementation that calls the former one must
/// therefore send `self` another message first.
class MethodReplacement {
 public:
  /// Replaces the method `selector` of the class named `className` by `implementation`: a class
  /// method if `kind` is '+', an instance method if it is '-'. `*former`, unless `former` is null,
  /// receives the former implementation.
  ///
  /// Ends the process with a message when the class has no such method: without the replacement the
  /// port would only seem to work. Sends no message itself, since the caller's own classes, strings
  /// and selectors may not be known to the runtime yet.
  template <typename Method>
  MethodReplacement(char kind, const char* className, const char* selector, Method* implementation,
                    Method** former = nullptr) {
    const IMP before = Replace(kind, className, selector, reinterpret_cast<IMP>(implementation));
    if (former != nullptr) {
      *former = reinterpret_cast<Method*>(before);
    }
  }

 private:
  static IMP Replace(char kind, const char* className, const char* selector, IMP implementation);
};
