#include "player/ControlPanel/Common/SMMultiMap.h"

#include <string.h>

namespace SASM {

namespace {

bool IsEqual(const SimpleString& left, const SimpleString& right) {
  return strcmp(left.mString, right.mString) == 0;
}

bool HasKey(const MultiMapPair* pair, const SimpleString& key) {
  // Each key is copied before it is compared: the list is meant for the few lines of a settings
  // file.
  const SimpleString storedKey(pair->key);  // NOLINT(performance-unnecessary-copy-initialization)
  return IsEqual(storedKey, key);
}

}  // namespace

MultiMapPair::MultiMapPair(const SimpleString& pairKey, const SimpleString& pairValue)
    : MultiMapPair() {
  key = pairKey;
  value = pairValue;
}

bool MultiMap::Initialize() {
  mSentinel = new MultiMapPair;
  mEnd = mSentinel;
  mFirst = mEnd;
  return true;
}

// Takes its arguments by value, as its callers expect; the copies are not needed here.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
MultiMap::iterator MultiMap::insert(SimpleString key, SimpleString value) {
  for (iterator found = findFirst(key); found.mPair != mEnd; found = findNext(found)) {
    if (IsEqual(found.mPair->value, value)) {
      return found;
    }
  }

  MultiMapPair* pair = new MultiMapPair(key, value);
  pair->next = mEnd;
  pair->prev = mEnd->prev;
  if (mFirst == mEnd) {
    mFirst = pair;
  } else {
    pair->prev->next = pair;
  }
  mEnd->prev = pair;
  return {pair, this};
}

// Takes the key by value: the argument may be the key of a pair that is removed.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
uint64_t MultiMap::erase(SimpleString key) {
  uint64_t count = 0;
  MultiMapPair* pair = mFirst;
  while (pair != mEnd) {
    MultiMapPair* following = pair->next;
    if (HasKey(pair, key)) {
      if (pair->prev == nullptr) {
        mFirst = following;
      } else {
        pair->prev->next = following;
      }
      following->prev = pair->prev;
      delete pair;
      ++count;
    }
    pair = following;
  }
  return count;
}

MultiMap::iterator MultiMap::find(const SimpleString& key) { return findFirst(key); }

MultiMap::iterator MultiMap::findFirst(const SimpleString& key) {
  MultiMapPair* pair = mFirst;
  while (pair != mEnd && !HasKey(pair, key)) {
    pair = pair->next;
  }
  return {pair, this};
}

MultiMap::iterator MultiMap::findNext(iterator previous) {
  if (previous.mPair == mEnd) {
    return previous;
  }
  MultiMapPair* pair = previous.mPair->next;
  while (pair != mEnd && !HasKey(pair, previous.mPair->key)) {
    pair = pair->next;
  }
  return {pair, this};
}

bool MultiMap::DeleteAllEntries() {
  MultiMapPair* pair = mFirst;
  while (pair != mEnd) {
    MultiMapPair* following = pair->next;
    delete pair;
    pair = following;
  }
  delete mSentinel;
  return true;
}

}  // namespace SASM
