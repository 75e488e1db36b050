// The list of strings that the settings engine returns.
#pragma once

#include "player/ControlPanel/Common/SMPointerVector.h"

namespace SASM {

/// A vector that owns `SimpleString`s on the heap. Each of the elements from 0 to `mCount` - 1 is a
/// `SimpleString*`.
class StringVector : public SMImplementation::PointerVector {
 public:
  StringVector() = default;
  StringVector(const StringVector&) = delete;
  StringVector& operator=(const StringVector&) = delete;
  /// Passes every element, first to last, to `deleteElement`.
  ~StringVector() override;

  /// Releases a `SimpleString` that `copyElement` made; ignores a null pointer.
  void deleteElement(void* element) override;
  /// Returns a new copy of the `SimpleString` that `element` points to.
  void* copyElement(const void* element) override;
};

}  // namespace SASM
