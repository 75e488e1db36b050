// The object that a command prints with --json.
#pragma once

#include <chrono>

#include "tools/kpim/JSON.h"
#include "tools/kpim/Tree.h"

namespace kpim {

/// Measures a command from its start and prints its result as one JSON object. The object has "ok"
/// first, then the members that the command adds to `members()`, and last "seconds", "warnings" and
/// "errors". The latter two contain all reported messages, each an object with "about" and "text".
class Result {
 public:
  /// Returns the members between "ok" and "seconds", for the command to add to.
  JSONObject& members() { return members_; }

  /// Adds "entries" and "bytes".
  void AddTotals(const TreeTotals& totals);

  /// Returns the seconds since the object was made.
  double Seconds() const;

  /// Prints the object, in which "ok" is true if the exit status `status` is kExitOK. Returns
  /// `status`.
  int Print(int status) const;

 private:
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  JSONObject members_;
};

}  // namespace kpim
