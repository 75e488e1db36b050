#import "shared/platform/linux/foundation/MethodReplacement.h"

#include <objc/runtime.h>
#include <cstdio>
#include <cstdlib>

IMP MethodReplacement::Replace(char kind, const char* className, const char* selector,
                               IMP implementation) {
  const auto find = kind == '+' ? class_getClassMethod : class_getInstanceMethod;
  Method method = find(objc_getClass(className), sel_registerName(selector));
  if (method == nullptr) {
    (void)fprintf(stderr, "host port: this GNUstep Base has no %c[%s %s]\n", kind, className,
                  selector);
    abort();
  }
  return method_setImplementation(method, implementation);
}
