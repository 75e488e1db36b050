// The growable array under the settings engine's lists.
#pragma once

namespace SMImplementation {

/// A growable array of untyped elements. The subclass copies and releases elements, and releases
/// all of them in its destructor.
class PointerVector {
 public:
  /// Makes an empty vector with room for 10 elements.
  PointerVector();
  PointerVector(const PointerVector&) = delete;
  PointerVector& operator=(const PointerVector&) = delete;
  /// Frees the array, not the elements.
  virtual ~PointerVector();

  /// Releases one element of the vector.
  virtual void deleteElement(void* element) = 0;
  /// Returns a copy of `element` for the vector to hold.
  virtual void* copyElement(const void* element) = 0;

  /// Appends a copy of `element`, made by `copyElement`; a full array is doubled first. Returns
  /// true, always.
  bool addElement(const void* element);

  /// Slots 0 to `mCount` - 1 hold elements; the others are not set.
  void** mElements;
  /// Elements in use.
  unsigned int mCount;
  /// Slots in the array.
  unsigned int mCapacity;
};

}  // namespace SMImplementation
