// Runs the tests of one executable inside an autorelease pool.
#import <Foundation/Foundation.h>

#include <gmock/gmock.h>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const int result = RUN_ALL_TESTS();
  [pool release];
  return result;
}
