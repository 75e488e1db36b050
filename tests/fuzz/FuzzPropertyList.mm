// Property lists of any bytes: the check before GNUstep's parsers, and the parsers after it.
#include "shared/platform/linux/foundation/DefaultsFile.h"
#include "shared/platform/linux/foundation/PropertyListCheck.h"
#include "tests/fuzz/FuzzText.h"

// GNUstep's parsers leak what they have read of a damaged list. LeakSanitizer asks this function,
// so the target needs no option when it is run by hand.
extern "C" int __lsan_is_turned_off() { return 1; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSData* bytes = [NSData dataWithBytes:data length:size];
  id list = [NSPropertyListSerialization propertyListWithData:bytes
                                                      options:NSPropertyListImmutable
                                                       format:nullptr
                                                        error:nullptr];
  FUZZ_CHECK(list == nil || IsSafePropertyList(bytes));

  static const std::string& path = *new std::string(FuzzFolder() + "/defaults");
  WriteFuzzFile(path, data, size);
  NSDictionary* defaults = DictionaryOfDefaultsFile([NSString stringWithUTF8String:path.c_str()]);
  FUZZ_CHECK(defaults == nil || [defaults isKindOfClass:[NSDictionary class]]);
  [pool release];
  return 0;
}
