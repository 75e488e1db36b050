#include "player/ControlPanel/Common/SMPointerVector.h"

#include <string.h>

namespace SMImplementation {

namespace {

constexpr unsigned int kInitialCapacity = 10;

}  // namespace

PointerVector::PointerVector()
    : mElements(new void*[kInitialCapacity]), mCount(0), mCapacity(kInitialCapacity) {}

PointerVector::~PointerVector() { delete[] mElements; }

bool PointerVector::addElement(const void* element) {
  if (mCount == mCapacity) {
    const unsigned int doubled = 2 * mCapacity;
    void** grown = new void*[doubled];
    memcpy(grown, mElements, mCount * sizeof(void*));
    delete[] mElements;
    mElements = grown;
    mCapacity = doubled;
  }
  mElements[mCount] = copyElement(element);
  ++mCount;
  return true;
}

}  // namespace SMImplementation
