// Downloads one URL and prints the messages to its delegate, one event per line:
//
//     download_client [--async] [--directory DIR --filename NAME] [--time-out SECONDS]
//                     [--cancel-at CHUNKS] [--log FILE] [--body FILE] URL
//
// The events are "progress N" for the Nth chunk, then "complete", "fail" or "cancelled". Then comes
// "body N" with the number of bytes in memory, or "body (absent)" when they cannot be read, and
// "path PATH" with the path of the file. --body writes the bytes to a file.
#import "player/Installers/Mac/KPInstallManager/source/updateServices/KPIMDownload.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "tests/unit/support/ScopedMethodReplacement.h"
#include "tests/unit/support/Text.h"

namespace {

struct Options {
  bool async;
  NSString* directory;
  NSString* filename;
  double timeOut;
  unsigned long long cancelAt;
  NSString* log;
  NSString* body;
  NSString* url;
};

Options ParseArguments(int argc, char** argv) {
  Options options = {};
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--async") {
      options.async = true;
      continue;
    }
    NSString* value = String(argv[i + 1 < argc ? ++i : i]);
    if (name == "--directory") {
      options.directory = value;
    } else if (name == "--filename") {
      options.filename = value;
    } else if (name == "--time-out") {
      options.timeOut = [value doubleValue];
    } else if (name == "--cancel-at") {
      options.cancelAt = strtoull([value UTF8String], nullptr, 10);
    } else if (name == "--log") {
      options.log = value;
    } else if (name == "--body") {
      options.body = value;
    } else {
      options.url = value;
    }
  }
  return options;
}

/// How long the program waits for messages of a cancelled download, which must not come, in
/// seconds.
constexpr NSTimeInterval kLinger = 0.2;

ScopedMethodReplacement* s_requestMethod;
double s_timeOut;

/// The given request with a shorter time-out, so that a test does not wait for a minute.
NSURLRequest* RequestWithOwnTimeOut(id self, SEL selector, NSURL* url,
                                    NSURLRequestCachePolicy policy, NSTimeInterval /*timeOut*/) {
  using Method = NSURLRequest* (*)(id, SEL, NSURL*, NSURLRequestCachePolicy, NSTimeInterval);
  return reinterpret_cast<Method>(s_requestMethod->original())(self, selector, url, policy,
                                                               s_timeOut);
}

}  // namespace

@interface PrintingReceiver : NSObject <KPIMDownloadProgressReceiver> {
 @public
  KPIMDownload* download;
  unsigned long long cancelAt;
  unsigned long chunks;
  bool hasEnded;
}
@end

@implementation PrintingReceiver

- (void)end:(const char*)event {
  puts(event);
  hasEnded = true;
}

- (void)downloadDidComplete {
  [self end:"complete"];
}

- (void)downloadDidFail {
  [self end:"fail"];
}

- (void)downloadDidProgress:(float)fraction {
  (void)fraction;
  ++chunks;
  printf("progress %lu\n", chunks);
  if (cancelAt != 0 && chunks >= cancelAt) {
    [self end:[download cancelDownload] ? "cancelled" : "not cancelled"];
  }
}

@end

int main(int argc, char** argv) {
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  setvbuf(stdout, nullptr, _IOLBF, 0);
  const Options options = ParseArguments(argc, argv);
  ScopedMethodReplacement request(
      [NSURLRequest class], @selector(requestWithURL:cachePolicy:timeoutInterval:),
      (IMP)RequestWithOwnTimeOut, ScopedMethodReplacement::kClassMethod);
  s_requestMethod = &request;
  s_timeOut = options.timeOut != 0 ? options.timeOut : 60;

  KPIMLogger* logger = [[KPIMLogger alloc] initWithPath:options.log];
  [logger setLoggingLevel:kLogLevelDetail];
  PrintingReceiver* receiver = [[PrintingReceiver alloc] init];
  KPIMDownload* download = [[KPIMDownload alloc] initWithURL:[NSURL URLWithString:options.url]
                                                downloadPath:options.directory
                                                    filename:options.filename
                                                      logger:logger
                                                    delegate:receiver
                                                 asyncModeOn:options.async];
  receiver->download = download;
  receiver->cancelAt = options.cancelAt;
  [download startDownload];
  while (options.async && !receiver->hasEnded &&
         [[NSRunLoop currentRunLoop] runMode:NSDefaultRunLoopMode
                                  beforeDate:[NSDate distantFuture]]) {
  }
  if (options.cancelAt != 0) {
    [[NSRunLoop currentRunLoop] runUntilDate:[NSDate dateWithTimeIntervalSinceNow:kLinger]];
  }

  NSData* body = [download downloadedData];
  printf("body %s\n", body != nil ? std::to_string([body length]).c_str() : "(absent)");
  printf("path %s\n", Text([download getDownloadPath]).c_str());
  if (options.body != nil) {
    [body writeToFile:options.body atomically:NO];
  }
  receiver->download = nil;
  [download release];
  [receiver release];
  [logger release];
  [pool release];
  return 0;
}
