#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMVersionManager.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#import "player/Installers/Mac/KPInstallManager/source/utility/KPIMCommonUtil.h"
#include "tests/unit/KPInstallManager/RecordingLogger.h"
#include "tests/unit/support/Text.h"

static bool s_loggedIn;

@implementation KP_DECOMP_KPIMCommonUtil

+ (bool)isUserLoggedIn {
  return s_loggedIn;
}

+ (unsigned int)getSystemOSVersion {
  return 0;
}

+ (NSString*)KorvelPlayerVersionBeingInstalled {
  return nil;
}

@end

namespace {

using testing::ElementsAre;

/// The events of a new process that asks for the logger twice: it is made once per process.
std::vector<std::string> LoggerEvents(bool loggedIn, bool canBeOpened) {
  int events[2];
  EXPECT_EQ(0, pipe(events));
  const pid_t child = fork();
  if (child == 0) {
    s_loggedIn = loggedIn;
    g_logCanBeOpened = canBeOpened;
    g_events.clear();
    KPIMLogger* logger = [KPIMVersionManager _logger];
    if ([KPIMVersionManager _logger] != logger) {
      g_events.push_back("another logger");
    }
    std::string text;
    for (const std::string& event : g_events) {
      text += event + "\n";
    }
    _exit(write(events[1], text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  close(events[1]);
  std::string text(4096, '\0');
  const ssize_t size = read(events[0], text.data(), text.size());
  close(events[0]);
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  std::vector<std::string> lines;
  std::istringstream stream(text.substr(0, static_cast<size_t>(size)));
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

TEST(KPIMVersionManagerLogger, IsTheRunningUsersWhenSomebodyIsLoggedIn) {
  EXPECT_THAT(LoggerEvents(true, true),
              ElementsAre("log file " + Text(NSHomeDirectory()) +
                              "/Library/Logs/KorvelPlayerInstallManager.log",
                          "log level 4", "log prefix  VM: "));
}

TEST(KPIMVersionManagerLogger, IsTheMachinesWhenNobodyIs) {
  EXPECT_THAT(LoggerEvents(false, true),
              ElementsAre("log file /Library/Logs/KorvelPlayerInstallManager.log", "log level 4",
                          "log prefix  VM: "));
}

TEST(KPIMVersionManagerLogger, IsTriedAgainWhenItCouldNotBeMade) {
  EXPECT_THAT(LoggerEvents(false, false),
              ElementsAre("log file /Library/Logs/KorvelPlayerInstallManager.log",
                          "log file /Library/Logs/KorvelPlayerInstallManager.log"));
}

}  // namespace
