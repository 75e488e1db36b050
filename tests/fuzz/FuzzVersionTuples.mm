// The comparison of versions: three texts, one per line, of any content.
#include <stdlib.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMInstallChecks.h"
#include "tests/fuzz/FuzzText.h"

namespace {

NSInteger Compare(NSString* a, NSString* b) {
  const NSInteger result = [KPIMVersionManager compareTuple1:a withTuple2:b];
  FUZZ_CHECK(result == 1 || result == 0 || result == -1);
  return result;
}

/// The integers of a version; absent when a component begins with a byte that is a blank or not
/// ASCII, which only Foundation can judge.
std::optional<std::vector<long>> IntegersOf(NSString* tuple) {
  NSData* bytes = [tuple dataUsingEncoding:NSUTF8StringEncoding];
  std::string text(static_cast<const char*>([bytes bytes]), [bytes length]);
  std::replace(text.begin(), text.end(), ',', '.');
  std::vector<long> integers;
  std::istringstream components(text + '.');
  for (std::string component; std::getline(components, component, '.');) {
    const char first = component.empty() ? '0' : component.front();
    if (first <= ' ' || first > '~') {
      return std::nullopt;
    }
    const long integer = strtol(component.c_str(), nullptr, 10);
    integers.push_back(std::clamp(integer, -0x80000000L, 0x7FFFFFFFL));
  }
  return integers;
}

/// Checks the comparison number by number, with 0 for numbers that are missing.
void CheckNumbers(NSString* a, NSString* b) {
  std::optional<std::vector<long>> left = IntegersOf(a);
  std::optional<std::vector<long>> right = IntegersOf(b);
  if (left && right) {
    left->resize(std::max(left->size(), right->size()));
    right->resize(left->size());
    FUZZ_CHECK(Compare(a, b) == (*left == *right ? 0 : *left > *right ? 1 : -1));
  }
}

/// Checks that the comparison is a total order in which commas equal dots and trailing zeros do not
/// count.
void Check(NSString* a, NSString* b, NSString* c) {
  CheckNumbers(a, b);
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
