// Fakes of the process table, the authorization, launch jobs and the clock. A test sets their
// results, and they record their calls.
#pragma once

#import <Foundation/Foundation.h>

#include <Security/Authorization.h>
#include <ServiceManagement/ServiceManagement.h>
#include <sys/types.h>
#include <time.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

struct FakePlatform {
  /// The list of processes at each call of proc_listpids() with a buffer; the last stays.
  std::vector<std::vector<pid_t>> tables;
  /// The result of proc_listpids() without a buffer; -1 for the size of the list.
  int announcedSize = -1;
  /// Executables of the processes; any other has none that can be read.
  std::map<pid_t, std::string> paths;
  std::vector<int> bufferSizes;
  std::vector<uint32_t> pathCapacities;
  std::vector<pid_t> askedPaths;
  size_t listings = 0;

  OSStatus createStatus = errAuthorizationSuccess;
  OSStatus executeStatus = errAuthorizationSuccess;
  bool submitResult = true;
  bool removeResult = false;
  /// The output of the tool of AuthorizationExecuteWithPrivileges().
  std::string printed;
  /// Returns a pipe with its output instead, unless the function is empty.
  std::function<FILE*()> openPipe;
  /// Called when a job has been submitted.
  std::function<void()> onSubmit;
  /// Called when a job is removed.
  std::function<void()> onRemove;
  /// Called at each look at the processes, with their number so far.
  std::function<void(size_t)> onPoll;

  /// The functions called, in order, with the arguments that matter.
  std::vector<std::string> calls;
  /// The job of the last SMJobSubmit(); retained.
  NSDictionary* job = nil;
  std::vector<std::string> toolArguments;
  std::string toolPath;

  /// Times that time() returns, one after the other; the last stays. Empty for the real clock.
  std::vector<time_t> times;
  size_t timesTold = 0;
};

/// The object that the functions use. ResetFakePlatform() replaces it with a new one.
extern FakePlatform* fakePlatform;
void ResetFakePlatform();
/// The object that AuthorizationCreate() returns.
extern const AuthorizationRef kFakeAuthorization;
