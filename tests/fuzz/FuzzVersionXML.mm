// The scanner of version descriptions: any reply of the server, against a second reading of it.
#include <math.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionXML.h"
#include "tests/fuzz/FuzzText.h"

namespace {

using Characters = std::u16string;
using Value = std::optional<Characters>;

struct Expected {
  Value version;
  Value mode;
  Value message;
  Value width;
  Value height;
};

Characters CharactersOf(NSString* text) {
  Characters characters([text length], u'\0');
  [text getCharacters:reinterpret_cast<unichar*>(characters.data())
                range:NSMakeRange(0, characters.size())];
  return characters;
}

Value After(const Value& text, const Characters& marker) {
  const size_t found = text ? text->find(marker) : Characters::npos;
  return found != Characters::npos ? Value(text->substr(found + marker.size())) : std::nullopt;
}

Value Before(const Value& text, const Characters& marker) {
  const size_t found = text ? text->find(marker) : Characters::npos;
  return found != Characters::npos ? Value(text->substr(0, found)) : std::nullopt;
}

/// The expected result: each piece between the first markers of its kind, wherever they are in the
/// text.
Expected Expect(const Characters& text) {
  Expected expected;
  // The first end of a version counts: the version begins before it and is not empty.
  const Value untilEnd = Before(text, u"\"><description>");
  expected.version = After(untilEnd, u"<XML><update version=\"");
  if (expected.version == u"") {
    expected.version.reset();
  }

  const Value mode = After(text, u"autoUpdateMode ");
  if (mode) {
    expected.mode = Before(mode, u";").value_or(u"0");
  }

  expected.message = Before(After(text, u"<meta>message \""), u"\";size");

  const Value size = After(text, u";size ");
  const Value afterWidth = After(size, u" ");
  if (After(size, u";autoUpdateMode") && afterWidth) {
    expected.width = Before(size, u" ");
    expected.height = Before(afterWidth, u" ").value_or(*afterWidth);
  }
  return expected;
}

void CheckText(NSString* text, const Value& expected) {
  FUZZ_CHECK((text != nil) == expected.has_value());
  FUZZ_CHECK(text == nil || CharactersOf(text) == *expected);
}

/// The number at the start of a piece: computed here for up to six digits at its end or before a
/// ";", otherwise by Foundation.
float NumberOf(const Characters& piece) {
  const size_t digits = std::min(piece.find_first_not_of(u"0123456789"), piece.size());
  if (0 < digits && digits < 7 && (digits == piece.size() || piece[digits] == u';')) {
    float number = 0;
    for (size_t i = 0; i < digits; ++i) {
      number = number * 10 + static_cast<float>(piece[i] - u'0');
    }
    return number;
  }
  return [[NSString stringWithCharacters:reinterpret_cast<const unichar*>(piece.data())
                                  length:piece.size()] floatValue];
}

void CheckNumber(float number, const Value& piece) {
  const float expected = piece ? NumberOf(*piece) : 0;
  FUZZ_CHECK(number == expected || (isnan(number) && isnan(expected)));
}

void Check(const KPIMVersionXML& description, const Expected& expected) {
  CheckText(description.version, expected.version);
  CheckText(description.autoUpdateMode, expected.mode);
  CheckText(description.message, expected.message);
  FUZZ_CHECK(description.hasDialogSize == expected.width.has_value());
  CheckNumber(description.dialogWidth, expected.width);
  CheckNumber(description.dialogHeight, expected.height);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSString* text = NewFuzzText(data, size);
  Check(ScanVersionXML(text), Expect(CharactersOf(text)));
  [text release];
  [pool release];
  return 0;
}
