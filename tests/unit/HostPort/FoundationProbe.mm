// Uses Foundation as every program of the product does at its start, and prints the results. Only
// Foundation would write to standard error: the test requires it to be empty.
#import <Foundation/Foundation.h>

#include <cstdio>
#include <cstring>

namespace {

/// Removes the last argument if it is "--taken", as parsers of arguments do.
void TakeArgument(int& argc, char** argv) {
  if (argc > 1 && strcmp(argv[argc - 1], "--taken") == 0) {
    argv[--argc] = nullptr;
  }
}

}  // namespace

int main(int argc, char** argv) {
  TakeArgument(argc, argv);
  NSAutoreleasePool* pool = [[NSAutoreleasePool alloc] init];
  NSString* home = [[[NSProcessInfo processInfo] environment] objectForKey:@"HOME"];
  printf("HOME=%s\n", home != nil ? [home UTF8String] : "(absent)");

  NSDateFormatter* formatter = [[[NSDateFormatter alloc] init] autorelease];
  [formatter setLocale:[[[NSLocale alloc] initWithLocaleIdentifier:@"en_US_POSIX"] autorelease]];
  [formatter setDateFormat:@"Z"];
  printf("offset %s\n", [[formatter stringFromDate:[NSDate date]] UTF8String]);

  NSUserDefaults* defaults = [NSUserDefaults standardUserDefaults];
  NSArray* languages = [defaults stringArrayForKey:@"AppleLanguages"];
  if (languages != nil) {
    printf("languages %s\n", [[languages componentsJoinedByString:@","] UTF8String]);
  }
  // Foundation does this by itself every half a minute.
  [defaults synchronize];
  [[NSBundle mainBundle] infoDictionary];
  if (argc > 1 && strcmp(argv[1], "--connect") == 0) {
    // Fails without a network: the URL names no host.
    NSURLRequest* request = [NSURLRequest requestWithURL:[NSURL URLWithString:@"http:///"]];
    NSData* body = [NSURLConnection sendSynchronousRequest:request
                                         returningResponse:nullptr
                                                     error:nullptr];
    puts(body != nil ? "loaded" : "not loaded");
  } else if (argc > 1) {
    NSURL* url = [NSURL fileURLWithPath:[NSString stringWithUTF8String:argv[1]]];
    NSString* text = [NSString stringWithContentsOfURL:url
                                              encoding:NSUTF8StringEncoding
                                                 error:nullptr];
    printf("read %s\n", text != nil ? [text UTF8String] : "(absent)");
    NSArray* arguments = [[NSProcessInfo processInfo] arguments];
    for (NSUInteger i = 2; i < [arguments count]; ++i) {
      printf("argument %s\n", [[arguments objectAtIndex:i] UTF8String]);
    }
  }
  [pool release];
  return 0;
}
