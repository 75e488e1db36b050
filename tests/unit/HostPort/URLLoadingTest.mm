// The port's URL loading without a network: a URL without a host fails by itself.
#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#import "shared/platform/linux/foundation/url/TransferOptions.h"

/// Notes the callbacks of a connection.
@interface FailureReceiver : NSObject {
 @public
  std::vector<NSInteger> codes;
  std::vector<std::string> modes;
}
@end

@implementation FailureReceiver

- (void)connection:(NSURLConnection*)connection didFailWithError:(NSError*)error {
  (void)connection;
  codes.push_back([error code]);
  modes.emplace_back([[[NSRunLoop currentRunLoop] currentMode] UTF8String]);
}

@end

namespace {

// Only a failing test waits this long.
constexpr NSTimeInterval kLongest = 60;

class URLLoadingTest : public testing::Test {
 protected:
  ~URLLoadingTest() override {
    [connection_ release];
    [receiver_ release];
    [pool_ release];
  }

  NSAutoreleasePool* pool_ = [[NSAutoreleasePool alloc] init];
  FailureReceiver* receiver_ = [[FailureReceiver alloc] init];
  NSURLConnection* connection_ = nil;
};

TEST_F(URLLoadingTest, CallsItsClientInTheDefaultModeOnly) {
  NSURLRequest* request = [NSURLRequest requestWithURL:[NSURL URLWithString:@"http:///file"]];
  connection_ = [[NSURLConnection alloc] initWithRequest:request delegate:receiver_];
  EXPECT_TRUE(receiver_->codes.empty()) << "not before the run loop runs";
  NSRunLoop* loop = [NSRunLoop currentRunLoop];
  for (NSString *mode in
       [NSArray arrayWithObjects:@"KPOwnMode", NSConnectionReplyMode, NSRunLoopCommonModes,
                                 @"NSModalPanelRunLoopMode", @"NSEventTrackingRunLoopMode", nil]) {
    [loop runMode:mode beforeDate:[NSDate date]];
    EXPECT_TRUE(receiver_->codes.empty()) << [mode UTF8String];
  }
  // The failure is already known, and is delivered in the first turn.
  [loop runMode:NSDefaultRunLoopMode beforeDate:[NSDate dateWithTimeIntervalSinceNow:kLongest]];
  EXPECT_EQ(std::vector<NSInteger>{NSURLErrorBadURL}, receiver_->codes);
  EXPECT_EQ(std::vector<std::string>{[NSDefaultRunLoopMode UTF8String]}, receiver_->modes);
}

TEST_F(URLLoadingTest, ATimeoutIsAMinuteUnlessTheRequestSetsOne) {
  NSMutableURLRequest* request =
      [NSMutableURLRequest requestWithURL:[NSURL URLWithString:@"http://host/"]];
  EXPECT_EQ(60, TimeoutOf(request));
  for (const NSTimeInterval none : {0.0, -1.0}) {
    [request setTimeoutInterval:none];
    EXPECT_EQ(60, TimeoutOf(request)) << none;
  }
  [request setTimeoutInterval:0.5];
  EXPECT_EQ(0.5, TimeoutOf(request));
}

TEST_F(URLLoadingTest, HasNoCookieStorage) {
  EXPECT_EQ(nil, [NSHTTPCookieStorage sharedHTTPCookieStorage]);
}

}  // namespace
