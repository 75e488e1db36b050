// The comparison of versions: three texts, one per line, of any content.
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMVersionManager.h"
#include "tests/fuzz/FuzzText.h"

namespace {

NSInteger Compare(NSString* a, NSString* b) {
  const NSInteger result = [KPIMVersionManager compareTuple1:a withTuple2:b];
  FUZZ_CHECK(result == 1 || result == 0 || result == -1);
  return result;
}

/// Comparing is a total order, in which commas are dots and zeros at the end nothing.
void Check(NSString* a, NSString* b, NSString* c) {
  FUZZ_CHECK(Compare(a, a) == 0);
  FUZZ_CHECK(Compare(a, b) == -Compare(b, a));
  if (Compare(a, b) >= 0 && Compare(b, c) >= 0) {
    FUZZ_CHECK(Compare(a, c) >= 0);
  }
  FUZZ_CHECK(Compare(a, [a stringByReplacingOccurrencesOfString:@"." withString:@","]) == 0);
  FUZZ_CHECK(Compare(a, [a stringByAppendingString:@".0.0"]) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSString* text = NewFuzzText(data, size);
  NSArray* lines = [text componentsSeparatedByString:@"\n"];
  const NSUInteger count = [lines count];
  // Fewer lines than three leave a tuple absent.
  Check([lines objectAtIndex:0], count > 1 ? [lines objectAtIndex:1] : nil,
        count > 2 ? [lines objectAtIndex:2] : nil);
  [text release];
  [pool release];
  return 0;
}
