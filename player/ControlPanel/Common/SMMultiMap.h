// The settings of one file, in the order in which they are written back.
#pragma once

#include <stdint.h>

#include "player/ControlPanel/Common/SMString.h"

namespace SASM {

/// One key and its value: a node of the map's list.
struct MultiMapPair {
  MultiMapPair() = default;
  MultiMapPair(const SimpleString& pairKey, const SimpleString& pairValue);
  MultiMapPair(const MultiMapPair&) = delete;
  MultiMapPair& operator=(const MultiMapPair&) = delete;

  SimpleString key;
  SimpleString value;
  /// The following pair; the map's end marker after the last.
  MultiMapPair* next = nullptr;
  /// The preceding pair; null before the first.
  MultiMapPair* prev = nullptr;
};

/// A list of pairs in insertion order. A key may occur several times, a pair of one key and one
/// value only once. Keys and values compare byte by byte.
///
/// There is no index: a look-up walks the list and copies every key that it compares. A pair,
/// and a reference to its strings, stays valid until the pair is erased.
class MultiMap {
 public:
  /// A place in a map's list.
  struct iterator {
    /// The pair; the map's `mEnd` when nothing was found.
    MultiMapPair* mPair;
    MultiMap* mMap;
  };

  /// Unusable until `Initialize` is called, once. Whoever calls that owes the map one
  /// `DeleteAllEntries` before it goes: it has no destructor of its own.
  MultiMap() = default;
  MultiMap(const MultiMap&) = delete;
  MultiMap& operator=(const MultiMap&) = delete;

  /// Makes an empty map. Always true.
  bool Initialize();

  /// Appends a pair at the end of the whole list, also when the key occurs already, and returns
  /// its place. If the very same pair exists, nothing is stored and its place is returned.
  iterator insert(SimpleString key, SimpleString value);

  /// Removes and releases every pair with this key and returns their number.
  uint64_t erase(SimpleString key);

  /// The same as `findFirst`.
  iterator find(const SimpleString& key);

  /// The first pair with this key, or the end marker.
  iterator findFirst(const SimpleString& key);

  /// The next pair after `previous` with the same key, or the end marker.
  iterator findNext(iterator previous);

  /// Releases every pair and then the end marker. To be called once: the pointers keep their
  /// values, and the map must not be touched afterwards. Always true.
  bool DeleteAllEntries();

  /// The pair that ends the list. Its key and value stay empty: a failed look-up of a value is
  /// answered with its value.
  MultiMapPair* mSentinel = nullptr;
  /// The end marker, the same pair. Its `prev` is the last real pair.
  MultiMapPair* mEnd = nullptr;
  /// The first real pair; the end marker in an empty map.
  MultiMapPair* mFirst = nullptr;
};

}  // namespace SASM
