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
/// A look-up walks the list from its start and copies every key that it compares. A pair, and a
/// reference to its strings, stays valid until the pair is erased.
class MultiMap {
 public:
  /// A place in a map's list.
  struct iterator {
    /// The pair; the map's `mEnd` when nothing was found.
    MultiMapPair* mPair;
    MultiMap* mMap;
  };

  /// Makes a map that cannot be used yet. Call `Initialize` once before anything else, and
  /// `DeleteAllEntries` once before the map is destroyed: its destructor releases nothing.
  MultiMap() = default;
  MultiMap(const MultiMap&) = delete;
  MultiMap& operator=(const MultiMap&) = delete;

  /// Makes the map empty and ready for use. Returns true, always.
  bool Initialize();

  /// Appends a pair at the end of the whole list, even if the key exists already, and returns its
  /// place. If a pair of this key and this value exists, stores nothing and returns the place of
  /// that pair.
  iterator insert(SimpleString key, SimpleString value);

  /// Removes and releases every pair with this key and returns their number.
  uint64_t erase(SimpleString key);

  /// The same as `findFirst`.
  iterator find(const SimpleString& key);

  /// Returns the first pair with this key, or the end marker.
  iterator findFirst(const SimpleString& key);

  /// Returns the next pair after `previous` with the same key, or the end marker.
  iterator findNext(iterator previous);

  /// Releases every pair and then the end marker. Call it once: the pointers keep their values, and
  /// the map must not be used afterwards. Returns true, always.
  bool DeleteAllEntries();

  /// The pair that ends the list. Its key and value stay empty: its value is the result of a
  /// look-up that finds nothing.
  MultiMapPair* mSentinel = nullptr;
  /// The end marker, the same pair. Its `prev` is the last real pair.
  MultiMapPair* mEnd = nullptr;
  /// The first real pair; the end marker in an empty map.
  MultiMapPair* mFirst = nullptr;
};

}  // namespace SASM
