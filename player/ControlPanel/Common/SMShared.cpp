#include "player/ControlPanel/Common/SMShared.h"

#include "player/ControlPanel/Common/SMString.h"

namespace SASM {

StringVector::~StringVector() {
  for (unsigned int index = 0; index < mCount; ++index) {
    // This calls the function of this class: a subclass that overrides it is already destroyed.
    deleteElement(mElements[index]);  // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall)
  }
}

void StringVector::deleteElement(void* element) { delete static_cast<SimpleString*>(element); }

void* StringVector::copyElement(const void* element) {
  return new SimpleString(*static_cast<const SimpleString*>(element));
}

}  // namespace SASM
