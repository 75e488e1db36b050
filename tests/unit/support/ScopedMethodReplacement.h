// Replaces a method of the platform for the length of a scope.
#pragma once

#import <Foundation/Foundation.h>

#include <objc/runtime.h>

#include <stdexcept>
#include <string>

class ScopedMethodReplacement {
 public:
  enum Kind { kInstanceMethod, kClassMethod };

  /// Replaces the implementation of `selector` in `cls`. A method that `cls` inherits is replaced
  /// in the superclass, and so for all of its subclasses. Throws when `cls` has no such method.
  ScopedMethodReplacement(Class cls, SEL selector, IMP implementation, Kind kind = kInstanceMethod)
      : method_(kind == kClassMethod ? class_getClassMethod(cls, selector)
                                     : class_getInstanceMethod(cls, selector)) {
    if (method_ == nullptr) {
      throw std::runtime_error(std::string("no such method: ") + sel_getName(selector));
    }
    original_ = method_setImplementation(method_, implementation);
  }
  ~ScopedMethodReplacement() { method_setImplementation(method_, original_); }
  ScopedMethodReplacement(const ScopedMethodReplacement&) = delete;
  ScopedMethodReplacement& operator=(const ScopedMethodReplacement&) = delete;

  /// The replaced implementation, to call through to.
  IMP original() const { return original_; }

 private:
  Method method_;
  IMP original_;
};
