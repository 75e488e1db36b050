// Runs the tests of one executable inside an autorelease pool.
#import <Foundation/Foundation.h>

#include <gmock/gmock.h>

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

// On its first use the main bundle keeps two objects of Foundation's own for good. No suppression
// can name them: Foundation is built without frame pointers, and the stacks end in it.
void UseMainBundleOnce() {
#if __has_feature(address_sanitizer)
  const __lsan::ScopedDisabler notCountedAsLeaks;
#endif
  [[NSBundle mainBundle] infoDictionary];
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  UseMainBundleOnce();
  const int result = RUN_ALL_TESTS();
  [pool release];
  return result;
}
