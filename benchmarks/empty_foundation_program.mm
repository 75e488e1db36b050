// What any program costs that uses Foundation.
#import <Foundation/Foundation.h>

int main() {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  const NSUInteger length = [[NSString stringWithFormat:@"%d", 1] length];
  [pool release];
  return length == 1 ? 0 : 1;
}
