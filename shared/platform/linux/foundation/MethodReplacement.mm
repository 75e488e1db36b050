#import "shared/platform/linux/foundation/MethodReplacement.h"

#include <objc/runtime.h>
#include <cstdio>
#include <cstdlib>

IMP ReplaceMethod(const char* className, SEL selector, IMP implementation, bool onClass) {
  Class cls = objc_getClass(className);
  Method method =
      onClass ? class_getClassMethod(cls, selector) : class_getInstanceMethod(cls, selector);
  if (method == nullptr) {
    (void)fprintf(stderr, "host port: this GNUstep Base has no %c[%s %s]\n", onClass ? '+' : '-',
                  className, sel_getName(selector));
    abort();
  }
  return method_setImplementation(method, implementation);
}
