// The object that a command prints with --json.
#pragma once

#include <chrono>

#include "tools/kpim/JSON.h"
#include "tools/kpim/Tree.h"

namespace kpim {

/// Measures a command from its start and prints its result as one JSON object. The object has
/// "ok" first, then what the command adds to `members()`, and last "seconds", "warnings" and
/// "errors", which are all that has been reported, each an object with "about" and "text".
class Result {
 public:
  /// The members between "ok" and "seconds".
  JSONObject& members() { return members_; }

  /// Adds "entries" and "bytes".
  void AddTotals(const TreeTotals& totals);

  /// Seconds since the object was made.
  double Seconds() const;

  /// Prints the object, whose "ok" says whether the exit status `status` is kExitOK, and returns
  /// `status`.
  int Print(int status) const;

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  JSONObject members_;
};

}  // namespace kpim
