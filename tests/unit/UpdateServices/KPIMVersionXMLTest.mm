#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionXML.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/Text.h"

namespace {

const std::string kExample =
    "<XML><update version=\"32.0.0.270\"><description><meta>message \"A new version is "
    "available.\";size 400 300;autoUpdateMode 1;</meta></description></update></XML>";

/// The example with its first `from` replaced by `to`; every test text is a variation of it.
std::string With(const std::string& from, const std::string& to) {
  std::string text = kExample;
  const size_t position = text.find(from);
  EXPECT_NE(std::string::npos, position) << from;
  return text.replace(position, from.size(), to);
}

std::string Without(const std::string& part) { return With(part, ""); }

class KPIMVersionXMLTest : public testing::Test {
 protected:
  ~KPIMVersionXMLTest() override { [pool_ release]; }

  KPIMVersionXML Scan(const std::string& text) { return ScanVersionXML(String(text)); }
  std::string Version(const std::string& text) { return Text(Scan(text).version); }
  std::string Mode(const std::string& text) { return Text(Scan(text).autoUpdateMode); }
  std::string Message(const std::string& text) { return Text(Scan(text).message); }
  /// "WIDTH x HEIGHT", or "(absent)".
  std::string Size(const std::string& text) {
    const KPIMVersionXML description = Scan(text);
    if (!description.hasDialogSize) {
      return "(absent)";
    }
    return std::to_string(description.dialogWidth) + " x " +
           std::to_string(description.dialogHeight);
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
};

TEST_F(KPIMVersionXMLTest, Example) {
  EXPECT_EQ("32.0.0.270", Version(kExample));
  EXPECT_EQ("A new version is available.", Message(kExample));
  EXPECT_EQ("1", Mode(kExample));
  EXPECT_EQ("400.000000 x 300.000000", Size(kExample));
}

TEST_F(KPIMVersionXMLTest, NoTextAndEmptyText) {
  for (NSString *text in [NSArray arrayWithObjects:@"", [NSNull null], nil]) {
    const KPIMVersionXML description = ScanVersionXML([text isEqual:[NSNull null]] ? nil : text);
    EXPECT_EQ(nil, description.version);
    EXPECT_EQ(nil, description.autoUpdateMode);
    EXPECT_EQ(nil, description.message);
    EXPECT_FALSE(description.hasDialogSize);
  }
}

// ---- Version

TEST_F(KPIMVersionXMLTest, VersionNeedsBothMarkers) {
  EXPECT_EQ("(absent)", Version(Without("<XML><update version=\"")));
  EXPECT_EQ("(absent)", Version(Without("\"><description>")));
  EXPECT_EQ("(absent)", Version(With("<XML><update", "<xml><update"))) << "case counts";
  EXPECT_EQ("(absent)", Version(With("<XML><update", "<XML> <update")));
}

TEST_F(KPIMVersionXMLTest, EmptyVersionIsNone) {
  EXPECT_EQ("(absent)", Version(Without("32.0.0.270")));
}

TEST_F(KPIMVersionXMLTest, OneCharacterIsAVersion) {
  EXPECT_EQ("3", Version(With("32.0.0.270", "3")));
}

TEST_F(KPIMVersionXMLTest, EndBeforeStartIsNoVersion) {
  EXPECT_EQ("(absent)", Version("\"><description>" + kExample));
  EXPECT_EQ("(absent)", Version("x\"><description> <XML><update version=\"32.0"));
  // The markers overlap in their quotation mark.
  EXPECT_EQ("(absent)", Version("<XML><update version=\"><description>"));
}

TEST_F(KPIMVersionXMLTest, FirstMarkersCount) {
  EXPECT_EQ("32.0.0.270", Version(kExample + With("32.0.0.270", "33")));
  EXPECT_EQ("a<XML><update version=\"b", Version(With("32.0.0.270", "a<XML><update version=\"b")));
}

TEST_F(KPIMVersionXMLTest, FailedVersionLeavesTheRest) {
  const std::string text = "\"><description>" + kExample;
  EXPECT_EQ("A new version is available.", Message(text));
  EXPECT_EQ("1", Mode(text));
  EXPECT_EQ("400.000000 x 300.000000", Size(text));
}

// ---- Auto-update mode

TEST_F(KPIMVersionXMLTest, ModeNeedsItsMarker) {
  EXPECT_EQ("(absent)", Mode(Without("autoUpdateMode ")));
  EXPECT_EQ("(absent)", Mode(With("autoUpdateMode ", "autoUpdateMode"))) << "with its space";
  EXPECT_EQ("(absent)", Mode(With("autoUpdateMode ", "autoupdatemode ")));
}

TEST_F(KPIMVersionXMLTest, ModeWithoutEndIsZero) {
  EXPECT_EQ("0", Mode(With("1;</meta>", "1</meta>")));
  EXPECT_EQ("0", Mode("autoUpdateMode "));
}

TEST_F(KPIMVersionXMLTest, ModeIsAnyText) {
  EXPECT_EQ("", Mode(With("autoUpdateMode 1;", "autoUpdateMode ;")));
  EXPECT_EQ("two words", Mode(With("autoUpdateMode 1;", "autoUpdateMode two words;;")));
}

TEST_F(KPIMVersionXMLTest, ModeInTheMessageIsFoundFirst) {
  const std::string text = With("A new version", "autoUpdateMode 7; A new version");
  EXPECT_EQ("7", Mode(text));
  EXPECT_EQ("autoUpdateMode 7; A new version is available.", Message(text));
  EXPECT_EQ("A new version is available.\"", Mode(With("A new", "autoUpdateMode A new")))
      << "up to the first semicolon";
}

// ---- Dialog size

TEST_F(KPIMVersionXMLTest, SizeNeedsBothMarkers) {
  EXPECT_EQ("(absent)", Size(Without(";size ")));
  EXPECT_EQ("(absent)", Size(Without(";autoUpdateMode")));
  EXPECT_EQ("(absent)", Size(";autoUpdateMode 1;" + Without(";autoUpdateMode")))
      << "the second must follow the first";
}

TEST_F(KPIMVersionXMLTest, SizeOfOnePieceIsNone) {
  EXPECT_EQ("(absent)", Size(";size 400;autoUpdateMode1;"));
  EXPECT_EQ("(absent)", Size(";size ;autoUpdateMode"));
}

TEST_F(KPIMVersionXMLTest, SizeOfNoAndOneNumber) {
  // The piece after the missing number is taken for it.
  EXPECT_EQ("0.000000 x 1.000000", Size(With(";size 400 300", ";size ")));
  EXPECT_EQ("400.000000 x 1.000000", Size(With(";size 400 300", ";size 400")));
  EXPECT_EQ("400.000000 x 0.000000", Size(";size 400 ;autoUpdateMode"));
}

TEST_F(KPIMVersionXMLTest, SizeTakesTheFirstTwoPieces) {
  EXPECT_EQ("400.000000 x 300.000000", Size(With("400 300", "400 300 200")));
  EXPECT_EQ("400.000000 x 0.000000", Size(With("400 300", "400  300"))) << "an empty piece counts";
  EXPECT_EQ("0.000000 x 400.000000", Size(With("400 300", " 400 300")));
}

TEST_F(KPIMVersionXMLTest, SizeIsOfLeadingNumbers) {
  EXPECT_EQ("400.500000 x -3.250000", Size(With("400 300", "400.5pt -3.25")));
  EXPECT_EQ("0.000000 x 0.000000", Size(With("400 300", "wide high")));
}

// ---- Message

TEST_F(KPIMVersionXMLTest, MessageNeedsBothMarkers) {
  EXPECT_EQ("(absent)", Message(Without("<meta>message \"")));
  EXPECT_EQ("(absent)", Message(With("\";size", "\"; size")));
  EXPECT_EQ("(absent)", Message("\";size <meta>message \"")) << "the end must follow the start";
}

TEST_F(KPIMVersionXMLTest, MessageIsAnyText) {
  EXPECT_EQ("", Message(Without("A new version is available.")));
  EXPECT_EQ("<b>\"Grüße\"</b>;\n日本",
            Message(With("A new version is available.", "<b>\"Grüße\"</b>;\n日本")));
}

TEST_F(KPIMVersionXMLTest, MessageEndsAtTheFirstEnd) {
  EXPECT_EQ("A", Message(With("A new", "A\";size new")));
}

// ---- Hostile texts

TEST_F(KPIMVersionXMLTest, EveryBeginningAndEndOfTheExample) {
  for (size_t length = 0; length <= kExample.size(); ++length) {
    Scan(kExample.substr(0, length));
    Scan(kExample.substr(length));
  }
}

TEST_F(KPIMVersionXMLTest, CombiningCharactersDoNotHideAMarker) {
  EXPECT_EQ("\xCC\x81", Mode("autoUpdateMode \xCC\x81;"));
}

TEST_F(KPIMVersionXMLTest, TenMegabytesOfAnything) {
  const size_t size = 10 * 1000 * 1000;
  for (const std::string& piece : {std::string(" "), std::string("<XML><update version=é")}) {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    std::string filling;
    while (filling.size() < size) {
      filling += piece;
    }
    EXPECT_EQ("(absent)", Version(filling)) << piece;
    EXPECT_EQ(filling, Message(With("A new version is available.", filling))) << piece;
    EXPECT_EQ("1", Mode(filling + kExample)) << piece;
    Size(";size " + filling + ";autoUpdateMode");
    [pool release];
  }
}

TEST_F(KPIMVersionXMLTest, NoStringIsLost) {
  NSString* version = nil;
  {
    NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
    version = [Scan(kExample).version retain];
    [pool release];
  }
  EXPECT_EQ(1u, [version retainCount]);
  [version release];
}

}  // namespace
