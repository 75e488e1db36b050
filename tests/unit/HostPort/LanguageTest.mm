#import <Foundation/Foundation.h>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>

#import "shared/platform/mac/LanguageMapping.h"

#include "tests/unit/support/AskedElsewhere.h"

namespace {

/// While set, every other read is interrupted, and the others return a few bytes.
bool g_readsHaltingly;
constexpr size_t kHaltingReadSize = 7;

}  // namespace

/// Replaces the C library's function.
extern "C" ssize_t read(int descriptor, void* buffer, size_t size) {
  static bool s_isInterrupted;
  if (g_readsHaltingly) {
    s_isInterrupted = !s_isInterrupted;
    if (s_isInterrupted) {
      errno = EINTR;
      return -1;
    }
    size = std::min(size, kHaltingReadSize);
  }
  return syscall(SYS_read, descriptor, buffer, size);
}

namespace {

constexpr uid_t kAlice = 31001;

NSUserDefaults* Defaults() { return [NSUserDefaults standardUserDefaults]; }

/// The preferred languages, joined by commas; "absent" without a list.
std::string Languages() {
  NSArray* languages = [Defaults() stringArrayForKey:@"AppleLanguages"];
  return languages == nil ? "absent" : [[languages componentsJoinedByString:@","] UTF8String];
}

using Variables = std::initializer_list<std::pair<const char*, const char*>>;

void SetEnvironment(Variables variables) {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    unsetenv(name);
  }
  for (const auto& [name, value] : variables) {
    setenv(name, value, 1);
  }
}

/// Answers `question` with only these variables of the locale, and without the user defaults.
std::string AskedWith(Variables variables, const std::function<std::string()>& question) {
  return AskedElsewhere([variables, &question] {
    SetEnvironment(variables);
    [Defaults() setSearchList:[NSArray array]];
    return question();
  });
}

std::string LanguagesWith(Variables variables) { return AskedWith(variables, Languages); }

TEST(AppleLanguages, FollowTheLocale) {
  const std::pair<const char*, const char*> kLocales[] = {{"en_GB.UTF-8", "en-GB"},
                                                          {"fr_FR", "fr-FR"},
                                                          {"pt_PT.utf8", "pt-PT"},
                                                          {"de", "de"},
                                                          {"de_AT@euro", "de-AT"},
                                                          {"sr_RS.UTF-8@latin", "sr-RS"},
                                                          {"zh_CN.UTF-8", "zh-Hans-CN"},
                                                          {"zh_SG", "zh-Hans-SG"},
                                                          {"zh_TW.Big5", "zh-Hant-TW"},
                                                          {"zh_HK", "zh-Hant-HK"},
                                                          {"zh_MO", "zh-Hant-MO"},
                                                          {"zh", "zh-Hans"},
                                                          {"no_NO", "nb-NO"},
                                                          {"iw_IL", "he-IL"},
                                                          {"es_419", "es-419"},
                                                          {"fil_PH", "fil-PH"}};
  for (const auto& [locale, language] : kLocales) {
    EXPECT_EQ(language, LanguagesWith({{"LANG", locale}})) << locale;
  }
}

TEST(AppleLanguages, AreAbsentWithoutALocale) {
  for (const char* locale : {"C", "POSIX", "C.UTF-8", "", "french", "e", "en_GB_x", "1_2", "_",
                             "..", "\xff\xfe", "en GB"}) {
    EXPECT_EQ("absent", LanguagesWith({{"LANG", locale}})) << locale;
  }
  EXPECT_EQ("absent", LanguagesWith({}));
}

TEST(AppleLanguages, TakeTheFirstVariableThatIsSet) {
  EXPECT_EQ("de-DE",
            LanguagesWith({{"LC_ALL", "de_DE"}, {"LC_MESSAGES", "fr_FR"}, {"LANG", "it"}}));
  EXPECT_EQ("fr-FR", LanguagesWith({{"LC_ALL", ""}, {"LC_MESSAGES", "fr_FR"}, {"LANG", "it"}}));
  EXPECT_EQ("it", LanguagesWith({{"LANG", "it"}}));
  EXPECT_EQ("absent", LanguagesWith({{"LC_ALL", "C"}, {"LANG", "it"}}));
}

TEST(AppleLanguages, AreThirtyTwoAtMost) {
  std::string list;
  for (const char second : std::string("abcdefghijklmnopqrstuvwxyz")) {
    list += std::string("x") + second + ":y" + second + ":";
  }
  const std::string languages = LanguagesWith({{"LANGUAGE", list.c_str()}, {"LANG", "it"}});
  EXPECT_EQ(31, std::count(languages.begin(), languages.end(), ','));
}

TEST(AppleLanguages, TakeTheListBeforeTheLocale) {
  EXPECT_EQ("sv-SE,da,en-GB",
            LanguagesWith({{"LANGUAGE", "sv_SE:da::?:sv_SE"}, {"LANG", "en_GB"}}));
  EXPECT_EQ("sv", LanguagesWith({{"LANGUAGE", "sv"}}));
  EXPECT_EQ("sv", LanguagesWith({{"LANGUAGE", "sv"}, {"LANG", "C.UTF-8"}}));
  EXPECT_EQ("en-GB", LanguagesWith({{"LANGUAGE", ""}, {"LANG", "en_GB"}}));
  EXPECT_EQ("absent", LanguagesWith({{"LANGUAGE", "sv"}, {"LANG", "C"}}));
}

TEST(AppleLanguages, OfTheDefaultsComeFirst) {
  EXPECT_EQ("ja", AskedElsewhere([] {
              SetEnvironment({{"LANG", "en_GB"}});
              [Defaults() setVolatileDomain:[NSDictionary
                                                dictionaryWithObject:[NSArray arrayWithObject:@"ja"]
                                                              forKey:@"AppleLanguages"]
                                    forName:@"test"];
              NSMutableArray* searchList = [[[Defaults() searchList] mutableCopy] autorelease];
              [searchList insertObject:@"test" atIndex:0];
              [Defaults() setSearchList:searchList];
              return Languages();
            }));
}

/// The player's code for the user's language.
std::string PlayerLanguageWith(Variables variables) {
  return AskedWith(variables, ObtainMacOSLanguage);
}

TEST(AppleLanguages, BecomeThePlayersLanguage) {
  EXPECT_EQ("en_gb", PlayerLanguageWith({{"LANG", "en_GB.UTF-8"}}));
  EXPECT_EQ("zh-TW", PlayerLanguageWith({{"LANG", "zh_HK.UTF-8"}}));
  EXPECT_EQ("xu", PlayerLanguageWith({{"LANG", "C"}}));
  EXPECT_EQ("xu", PlayerLanguageWith({}));
}

TEST(AppleLanguages, OtherKeysAreLeftAlone) {
  EXPECT_EQ(nil, [Defaults() objectForKey:@"KPNoSuchKey"]);
  [Defaults() registerDefaults:[NSDictionary dictionaryWithObject:@"yes" forKey:@"KPTestKey"]];
  EXPECT_STREQ("yes", [[Defaults() stringForKey:@"KPTestKey"] UTF8String]);
}

/// A process that becomes the user alice, whose home and passwd entry are the test's own.
class AppleLanguagesOfAnotherUser : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can become another user";
    }
    char folder[] = "/tmp/LanguageTest.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    folder_ = folder;
    ASSERT_EQ(0, chmod(folder, 0755));
    defaults_ = folder_ + "/home/GNUstep/Defaults";
    std::filesystem::create_directories(defaults_);
  }

  void TearDown() override {
    if (!folder_.empty()) {
      std::filesystem::remove_all(folder_);
    }
  }

  static void WriteFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
  }

  void SaveDefaults(const std::string& domain, const std::string& text) const {
    WriteFile(defaults_ + "/" + domain + ".plist", text);
  }

  void SaveDefaultsOfRoot(const std::string& domain, const std::string& text) const {
    const std::string defaults = folder_ + "/root/GNUstep/Defaults";
    std::filesystem::create_directories(defaults);
    WriteFile(defaults + "/" + domain + ".plist", text);
  }

  /// The languages of root, of `user`, and of root again. The environment says Italian; `prepare`
  /// may change the defaults of root's process.
  std::string AroundASwitch(
      uid_t user = kAlice, const std::function<void()>& prepare = [] {}) const {
    const std::string passwd = folder_ + "/passwd";
    WriteFile(passwd, "root:x:0:0::" + folder_ + "/root:/bin/sh\n" + userName_ +
                          ":x:" + std::to_string(kAlice) + ":" + std::to_string(kAlice) +
                          "::" + folder_ + "/home:/bin/sh\n");
    return AskedElsewhere([&]() -> std::string {
      if (unshare(CLONE_NEWNS) != 0 ||
          mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount(passwd.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) != 0) {
        return "cannot mount";
      }
      SetEnvironment({{"LANG", "it"}});
      [NSUserDefaults resetStandardUserDefaults];  // They may hold the real root's.
      prepare();
      std::string answers = Languages();
      if (seteuid(user) != 0) {
        return "cannot switch";
      }
      g_readsHaltingly = readsHaltingly_;
      answers += " " + Languages();
      g_readsHaltingly = false;
      return seteuid(0) == 0 ? answers + " " + Languages() : "cannot switch back";
    });
  }

  std::string userName_ = "alice";
  bool readsHaltingly_ = false;
  std::string folder_;
  std::string defaults_;
};

TEST_F(AppleLanguagesOfAnotherUser, ComeFromTheEnvironmentWithoutDefaults) {
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, AreNotThoseOfTheFirst) {
  SaveDefaultsOfRoot("NSGlobalDomain", "{ AppleLanguages = (ja); }");
  EXPECT_EQ("ja it ja", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, ComeFromTheUsersOwnDefaults) {
  SaveDefaultsOfRoot("NSGlobalDomain", "{ AppleLanguages = (ja); }");
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = (fr, \"en-GB\"); }");
  EXPECT_EQ("ja fr,en-GB ja", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, ComeAfterTheArguments) {
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = (fr); }");
  EXPECT_EQ("ja ja ja", AroundASwitch(kAlice, [] {
              [Defaults() removeVolatileDomainForName:NSArgumentDomain];
              [Defaults() setVolatileDomain:[NSDictionary
                                                dictionaryWithObject:[NSArray arrayWithObject:@"ja"]
                                                              forKey:@"AppleLanguages"]
                                    forName:NSArgumentDomain];
            }));
}

TEST_F(AppleLanguagesOfAnotherUser, ComeFromTheProgramsDomainFirst) {
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = (fr); }");
  SaveDefaults("LanguageTest", "{ AppleLanguages = (sv); }");
  EXPECT_EQ("it sv it", AroundASwitch());
  SaveDefaults("LanguageTest", "{ Other = (sv); }");
  EXPECT_EQ("it fr it", AroundASwitch());
}

constexpr size_t kLongestFile = 64 * 1024;
const std::string kFrench = "{ AppleLanguages = (fr); }";
const std::string kXMLDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const std::string kFrenchXML =
    "<dict><key>AppleLanguages</key><array><string>fr</string></array></dict>";

std::string Repeated(size_t count, const std::string& text) {
  std::string repeated;
  for (size_t i = 0; i < count; ++i) {
    repeated += text;
  }
  return repeated;
}

/// A file as `defaults` writes it, with `elements` before the languages.
std::string XML(const std::string& elements) {
  return kXMLDeclaration +
         "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
         "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>" +
         elements + kFrenchXML.substr(strlen("<dict>")) + "\n</plist>";
}

std::string NestedXML(size_t depth) {
  return XML("<key>Other</key>" + Repeated(depth, "<array>") + Repeated(depth, "</array>"));
}

std::string NestedText(size_t brackets) {
  return "{ Other = " + Repeated(brackets, "(") + Repeated(brackets, ")") +
         "; AppleLanguages = (fr); }";
}

/// AppleLanguages in the format `format`.
std::string Serialized(NSPropertyListFormat format) {
  NSDictionary* domain = [NSDictionary dictionaryWithObject:[NSArray arrayWithObject:@"fr"]
                                                     forKey:@"AppleLanguages"];
  NSData* data = [NSPropertyListSerialization dataWithPropertyList:domain
                                                            format:format
                                                           options:0
                                                             error:nullptr];
  return {static_cast<const char*>([data bytes]), [data length]};
}

TEST_F(AppleLanguagesOfAnotherUser, ComeFromFilesOfEveryForm) {
  for (const std::string& text :
       {Serialized(NSPropertyListXMLFormat_v1_0), Serialized(NSPropertyListOpenStepFormat),
        Serialized(NSPropertyListGNUstepFormat), Serialized(NSPropertyListBinaryFormat_v1_0),
        XML(""), NestedXML(509), XML("<!-- </dict> -->"), kXMLDeclaration + kFrenchXML,
        NestedText(4094), "\n // Mine\n" + kFrench, "/* { */ " + kFrench,
        std::string(kLongestFile - kFrench.size(), ' ') + kFrench}) {
    SaveDefaults("NSGlobalDomain", text);
    EXPECT_EQ("it fr it", AroundASwitch()) << text.substr(0, 200);
  }
}

TEST_F(AppleLanguagesOfAnotherUser, IgnoreBrokenFiles) {
  for (const std::string& text :
       {std::string(), std::string("{ AppleLanguages = (fr"), std::string("(fr)"),
        std::string("<plist><dict><key>AppleLanguages</key>"), std::string("bplist00\xff\xff"),
        std::string(64, '\0'), kXMLDeclaration, XML("<"), XML("</"), XML("<>"), XML("</>"),
        XML("</dict></plist></plist>"), XML("<array>")}) {
    SaveDefaults("NSGlobalDomain", text);
    EXPECT_EQ("it it it", AroundASwitch()) << text.substr(0, 200);
  }
}

TEST_F(AppleLanguagesOfAnotherUser, IgnoreFilesThatAreTooLongOrTooDeep) {
  for (const std::string& text :
       {std::string(kLongestFile - kFrench.size() + 1, ' ') + kFrench,
        std::string(kLongestFile, '('), Repeated(32768, "{("), NestedText(4095), NestedXML(511),
        kXMLDeclaration + Repeated(9000, "<array>"),
        Serialized(NSPropertyListGNUstepBinaryFormat)}) {
    SaveDefaults("NSGlobalDomain", text);
    EXPECT_EQ("it it it", AroundASwitch()) << text.substr(0, 200);
  }
}

TEST_F(AppleLanguagesOfAnotherUser, ComeWithoutEntities) {
  for (const std::string& entity :
       {std::string("<!ENTITY a SYSTEM \"file:///etc/passwd\">"),
        "<!ENTITY b \"fr\"><!ENTITY a \"" + Repeated(5000, "&b;") + "\">"}) {
    SaveDefaults("NSGlobalDomain", kXMLDeclaration + "<!DOCTYPE plist [" + entity + "]>" +
                                       "<dict><key>AppleLanguages</key><array>" +
                                       "<string>sv&a;</string></array></dict>");
    EXPECT_EQ("it sv it", AroundASwitch()) << entity.substr(0, 100);
  }
}

TEST_F(AppleLanguagesOfAnotherUser, MayBeHiddenInAnotherEncoding) {
  // The check of XML does not see this nesting; only the limit of a file's length bounds it.
  SaveDefaults("NSGlobalDomain",
               "<?xml version=\"1.0\" encoding=\"UTF-7\"?>" + Repeated(4300, "+ADw-array+AD4-"));
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, AreReadWholly) {
  SaveDefaults("NSGlobalDomain", kFrench);
  readsHaltingly_ = true;
  EXPECT_EQ("it fr it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, AreNoListOfAnotherKind) {
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = fr; }");
  EXPECT_EQ("it absent it", AroundASwitch());
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = ({}, fr); }");
  EXPECT_EQ("it absent it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, DoNotWaitForAPipe) {
  ASSERT_EQ(0, mkfifo((defaults_ + "/NSGlobalDomain.plist").c_str(), 0666));
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, IgnoreAFolderInPlaceOfTheFile) {
  std::filesystem::create_directory(defaults_ + "/NSGlobalDomain.plist");
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, AreReadWithTheUsersRights) {
  SaveDefaults("NSGlobalDomain", "{ AppleLanguages = (fr); }");
  ASSERT_EQ(0, chmod((defaults_ + "/NSGlobalDomain.plist").c_str(), 0600));
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, WithoutAPasswdEntry) {
  EXPECT_EQ("it it it", AroundASwitch(kAlice + 1));
}

TEST_F(AppleLanguagesOfAnotherUser, WhoseNameIsNotUTF8) {
  SaveDefaults("NSGlobalDomain", kFrench);
  userName_ = "al\xff"
              "ce";
  EXPECT_EQ("it it it", AroundASwitch());
}

TEST_F(AppleLanguagesOfAnotherUser, WhoseNameIsNotASCII) {
  SaveDefaults("NSGlobalDomain", kFrench);
  userName_ = "\xd0\xb0\xd0\xbb";
  const bool isInTheEncoding = [[NSString stringWithUTF8String:userName_.c_str()]
      canBeConvertedToEncoding:[NSString defaultCStringEncoding]];
  EXPECT_EQ(isInTheEncoding ? "it fr it" : "it it it", AroundASwitch());
}

/// The test above, in a program whose Foundation knows ASCII only.
TEST_F(AppleLanguagesOfAnotherUser, WhoseNameIsNotInTheEncoding) {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(0, system(("GNUSTEP_STRING_ENCODING=NSASCIIStringEncoding '" + program +
                       "' --gtest_filter='*.WhoseNameIsNotASCII' >/dev/null")
                          .c_str()));
}

}  // namespace
