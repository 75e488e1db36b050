#import "shared/platform/linux/foundation/DefaultsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace {

/// Files of defaults are small; more than this is something else.
constexpr off_t kLongestFile = off_t{64} * 1024;

constexpr std::string_view kSpaces = " \t\n\v\f\r";

/// Each of them makes GNUstep's text parser call itself. All count, not only those still open: what
/// closes one may stand in a comment or in a string, where the parser does not see it.
constexpr std::string_view kOpeningBrackets = "({";
constexpr ptrdiff_t kMostBrackets = 512;

/// A dictionary, or a comment before it.
constexpr std::string_view kTextBeginnings = "{/";

constexpr std::string_view kXMLDeclaration = R"(<?xml version="1.0" encoding="UTF-8"?>)";
constexpr std::string_view kDocumentType = "!DOCTYPE plist PUBLIC ";
constexpr std::string_view kRootWithVersion = R"(plist version=")";
constexpr char kInternalSubset = '[';
constexpr size_t kDeepestElement = 64;

bool HasOnly(std::string_view text, std::string_view characters) {
  return text.find_first_not_of(characters) == std::string_view::npos;
}

/// Takes `prefix` off the start of `text`; false when it does not stand there.
bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (text->substr(0, prefix.size()) != prefix) {
    return false;
  }
  text->remove_prefix(prefix.size());
  return true;
}

bool TakeSuffix(std::string_view* text, char suffix) {
  if (text->empty() || text->back() != suffix) {
    return false;
  }
  text->remove_suffix(1);
  return true;
}

bool IsElementName(std::string_view name) {
  return !name.empty() && HasOnly(name, "abcdefghijklmnopqrstuvwxyz");
}

/// Whether `tag`, from between "<" and ">", is a document type or a tag of an element that
/// property lists have. Changes `depth`, the number of open elements, accordingly.
bool IsPlainTag(std::string_view tag, size_t* depth) {
  if (TakePrefix(&tag, kDocumentType)) {
    return tag.find(kInternalSubset) == std::string_view::npos;
  }
  if (TakePrefix(&tag, "/")) {
    return IsElementName(tag) && (*depth)-- > 0;
  }
  if (TakeSuffix(&tag, '/')) {
    return IsElementName(tag);
  }
  const bool isRoot = TakePrefix(&tag, kRootWithVersion) && TakeSuffix(&tag, '"');
  return (isRoot ? HasOnly(tag, "0123456789.") : IsElementName(tag)) && ++*depth <= kDeepestElement;
}

/// Whether `text` is XML of the plain kind that writers of property lists make. GNUstep's parser
/// takes more for XML than XML's rules allow, so what is not known to be plain is refused.
bool IsPlainXML(std::string_view text) {
  if (!TakePrefix(&text, kXMLDeclaration)) {
    return false;
  }
  size_t depth = 0;
  for (size_t start = text.find('<'); start != std::string_view::npos; start = text.find('<')) {
    text.remove_prefix(start + 1);
    const size_t length = text.find('>');
    if (length == std::string_view::npos || !IsPlainTag(text.substr(0, length), &depth)) {
      return false;
    }
    text.remove_prefix(length + 1);
  }
  return true;
}

bool IsPlainText(std::string_view text) {
  const size_t start = text.find_first_not_of(kSpaces);
  if (start == std::string_view::npos ||
      kTextBeginnings.find(text[start]) == std::string_view::npos) {
    return false;
  }
  const auto isBracket = [](char character) {
    return kOpeningBrackets.find(character) != std::string_view::npos;
  };
  return std::count_if(text.begin(), text.end(), isBracket) <= kMostBrackets;
}

/// The next `size` bytes of the file, or as many as there are, at `buffer`; their number.
size_t ReadAll(int descriptor, char* buffer, size_t size) {
  size_t length = 0;
  while (length < size) {
    const ssize_t count = read(descriptor, buffer + length, size - length);
    if (count == 0 || (count < 0 && errno != EINTR)) {
      break;
    }
    length += count < 0 ? 0 : static_cast<size_t>(count);
  }
  return length;
}

/// The bytes of the regular file at `path`; nil when there is none, it cannot be read, or it is
/// longer than a file of defaults ever is. A FIFO or a device in its place is not waited for.
NSData* BytesOfDefaultsFile(NSString* path) {
  const int descriptor =
      open([path fileSystemRepresentation], O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (descriptor < 0) {
    return nil;
  }
  NSMutableData* bytes = nil;
  struct stat status;
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
      status.st_size <= kLongestFile) {
    bytes = [NSMutableData dataWithLength:static_cast<NSUInteger>(status.st_size)];
    [bytes setLength:ReadAll(descriptor, static_cast<char*>([bytes mutableBytes]), [bytes length])];
  }
  close(descriptor);
  return bytes;
}

}  // namespace

NSDictionary* DictionaryOfDefaultsFile(NSString* path) {
  NSData* bytes = BytesOfDefaultsFile(path);
  const std::string_view text(static_cast<const char*>([bytes bytes]), [bytes length]);
  if (!IsPlainXML(text) && !IsPlainText(text)) {
    return nil;
  }
  @try {
    id dictionary = [NSPropertyListSerialization propertyListWithData:bytes
                                                              options:NSPropertyListImmutable
                                                               format:nullptr
                                                                error:nullptr];
    return [dictionary isKindOfClass:[NSDictionary class]] ? dictionary : nil;
  } @catch (NSException*) {
    return nil;  // The parser raises on some broken files.
  }
}
