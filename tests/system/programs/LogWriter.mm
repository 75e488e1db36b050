// Writes lines through the install log, for the tests of several writers of one file.
//
//   log_writer FILE PREFIX COUNT
//
// Each of the COUNT lines is PREFIX, its number from 0 on, and a tail that is longer in every line
// than in the one before, up to a hundred bytes. Exit status 1 when there is no log.
#import <Foundation/Foundation.h>

#include <cstdio>
#include <cstdlib>

#import "player/Installers/Mac/KPInstallManager/source/application/KPIMLogger.h"

namespace {

constexpr int kLongestTail = 100;

}  // namespace

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  if (argc != 4) {
    (void)fprintf(stderr, "usage: log_writer FILE PREFIX COUNT\n");
    return 2;
  }
  KPIMLogger* logger = [[KPIMLogger alloc] initWithPath:[NSString stringWithUTF8String:argv[1]]];
  [logger setLoggingLevel:kLogLevelDetail];
  [logger setPrefix:[NSString stringWithUTF8String:argv[2]]];
  const int count = atoi(argv[3]);
  for (int i = 0; i < count; ++i) {
    NSAutoreleasePool* linePool = [[NSAutoreleasePool alloc] init];
    NSString* tail = [@"" stringByPaddingToLength:static_cast<NSUInteger>(i % kLongestTail)
                                       withString:@"x"
                                  startingAtIndex:0];
    [logger logTimeStampedString:[NSString stringWithFormat:@"%d %@", i, tail]
                withLoggingLevel:kLogLevelInformation];
    [linePool release];
  }
  const int status = logger != nil ? 0 : 1;
  [logger release];
  [pool release];
  return status;
}
