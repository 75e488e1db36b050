#include "player/ControlPanel/Common/SMString.h"

#include <stdlib.h>
#include <string.h>

namespace SASM {

SimpleString::SimpleString(const char* text) : mString(CopyString(text)) {}

SimpleString::SimpleString(const SimpleString& other) : mString(CopyString(other.mString)) {}

SimpleString& SimpleString::operator=(const SimpleString& other) {
  if (this == &other) {
    return *this;
  }
  // Copied first: if memory runs out, this string keeps its text.
  char* copy = CopyString(other.mString);
  delete[] mString;
  mString = copy;
  return *this;
}

SimpleString::~SimpleString() { delete[] mString; }

char* SimpleString::CopyString(const char* text) {
  if (text == nullptr) {
    text = "";
  }
  const size_t byteCount = strlen(text) + 1;
  char* copy = new char[byteCount];
  memcpy(copy, text, byteCount);
  return copy;
}

size_t SimpleString::toLowercase() {
  constexpr char kCaseDistance = 'a' - 'A';
  size_t length = 0;
  for (; mString[length] != '\0'; ++length) {
    char& byte = mString[length];
    // Not tolower(3), which may change more than A to Z under some locales.
    if (byte >= 'A' && byte <= 'Z') {
      byte = static_cast<char>(byte + kCaseDistance);
    }
  }
  return length;
}

bool SimpleString::boolValue() const {
  SimpleString lowered(*this);
  lowered.toLowercase();
  const char* text = lowered.mString;

  const long number = strtol(text, nullptr, 10);
  if (strcmp(text, "true") == 0 || strcmp(text, "t") == 0 || strcmp(text, "yes") == 0) {
    return true;
  }
  return number != 0 || strcmp(text, "y") == 0;
}

}  // namespace SASM
