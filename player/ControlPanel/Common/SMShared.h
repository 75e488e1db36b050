// What the settings engine shares with its callers: the list of strings that it hands out.
#pragma once

#include "player/ControlPanel/Common/SMPointerVector.h"

namespace SASM {

/// A vector that owns `SimpleString`s on the heap. Readers walk `mElements` from 0 to
/// `mCount` - 1 and take each for a `SimpleString*`.
class StringVector : public SMImplementation::PointerVector {
 public:
  StringVector() = default;
  StringVector(const StringVector&) = delete;
  StringVector& operator=(const StringVector&) = delete;
  /// Hands every element, first to last, to `deleteElement`.
  ~StringVector() override;

  /// Releases a `SimpleString` that `copyElement` made; a null pointer is left alone.
  void deleteElement(void* element) override;
  /// A new copy of the `SimpleString` that `element` points to.
  void* copyElement(const void* element) override;
};

}  // namespace SASM
