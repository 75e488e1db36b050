// The scanner of version descriptions: any reply of the server.
#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMVersionXML.h"

#include "tests/fuzz/FuzzText.h"

namespace {

bool Has(NSString* text, NSString* part) {
  return [text rangeOfString:part options:NSLiteralSearch].length != 0;
}

/// `part` is nil, empty, or somewhere in `text`.
bool IsPartOf(NSString* part, NSString* text) { return [part length] == 0 || Has(text, part); }

void Check(NSString* text, const KPIMVersionXML& description) {
  FUZZ_CHECK(description.version == nil || [description.version length] != 0);
  FUZZ_CHECK(IsPartOf(description.version, text));
  FUZZ_CHECK(!Has(description.version, @"\"><description>"));

  FUZZ_CHECK((description.autoUpdateMode != nil) == Has(text, @"autoUpdateMode "));
  FUZZ_CHECK(!Has(description.autoUpdateMode, @";"));
  FUZZ_CHECK([description.autoUpdateMode isEqualToString:@"0"] ||
             IsPartOf(description.autoUpdateMode, text));

  FUZZ_CHECK(IsPartOf(description.message, text));
  FUZZ_CHECK(!Has(description.message, @"\";size"));
  FUZZ_CHECK(description.message == nil || Has(text, @"<meta>message \""));

  FUZZ_CHECK(!description.hasDialogSize || Has(text, @";size "));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSString* text = NewFuzzText(data, size);
  Check(text, ScanVersionXML(text));
  [text release];
  [pool release];
  return 0;
}
