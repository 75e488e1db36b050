#include "tests/unit/KPInstallManager/RecordingLogger.h"

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"
#include "tests/unit/support/Text.h"

std::vector<std::string> g_events;
bool g_logCanBeOpened = true;

@implementation KP_DECOMP_KPIMLogger

- (id)init {
  return [super init];
}

- (id)initWithPath:(NSString*)path {
  self = [super init];
  g_events.push_back("log file " + Text(path));
  if (!g_logCanBeOpened) {
    [self release];
    return nil;
  }
  return self;
}

- (void)setLoggingLevel:(unsigned int)level {
  g_events.push_back("log level " + std::to_string(level));
}

- (void)setPrefix:(NSString*)prefix {
  g_events.push_back("log prefix " + Text(prefix));
}

- (void)logTimeStampedString:(NSString*)message withLoggingLevel:(unsigned int)level {
  g_events.push_back("[" + std::to_string(level) + "] " + Text(message));
}

- (void)logString:(NSString*)text withLoggingLevel:(unsigned int)level {
  g_events.push_back("raw " + std::to_string(level) + " " + Text(text));
}

- (void)stampNewSessionStart {
  g_events.push_back("session start");
}

- (void)stampCurrentSessionEnd {
  g_events.push_back("session end");
}

- (bool)assert:(bool)condition message:(NSString*)message {
  g_events.push_back("assert " + Text(message));
  return condition;
}

@end
