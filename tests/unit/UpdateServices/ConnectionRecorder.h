// Replaces the network for the tested code.
#pragma once

#import <Foundation/Foundation.h>

#include "tests/unit/support/ScopedMethodReplacement.h"

/// An autoreleased response with an HTTP status. Foundation makes one from 10.7 on only.
NSHTTPURLResponse* HTTPResponse(NSURL* url, NSInteger status);

/// While it exists, no request leaves the process: requests are kept for the test, and connections
/// are fakes that call no delegate. Only one may exist at a time.
class ConnectionRecorder {
 public:
  ConnectionRecorder();
  ~ConnectionRecorder();

  /// The last request, of either kind; nil before the first.
  NSURLRequest* request() const;
  /// How many requests of either kind were made.
  int requests() const;
  /// The delegate of the last connection.
  id delegate() const;
  /// The last connection, which is not retained; it answers `cancel`.
  id connection() const;
  /// How many connections were cancelled, and how many are in memory.
  int cancelled() const;
  int connections() const;
  /// Whether the last synchronous request asked for its response or error.
  bool askedForMore() const;

  /// Sets the body that synchronous requests return; nil at first.
  void SetReply(NSData* reply);
  /// From now on a synchronous request is kept and then raises.
  void MakeRequestsRaise();
  /// From now on connections retain their delegate until they are cancelled, as the platform's do.
  void MakeConnectionsRetainDelegates();

 private:
  ScopedMethodReplacement connect_;
  ScopedMethodReplacement send_;
};
