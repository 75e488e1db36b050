#include "player/ControlPanel/Common/SMMultiMap.h"

#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using SASM::MultiMap;
using SASM::MultiMapPair;
using SASM::SimpleString;

static_assert(!std::is_copy_constructible<MultiMapPair>::value, "is a node of one list");
static_assert(!std::is_copy_assignable<MultiMapPair>::value, "is a node of one list");
static_assert(!std::is_copy_constructible<MultiMap>::value, "owns its pairs");
static_assert(!std::is_copy_assignable<MultiMap>::value, "owns its pairs");
static_assert(std::is_trivially_destructible<MultiMap>::value, "its owner releases the pairs");
static_assert(std::is_same<decltype(&MultiMap::insert),
                           MultiMap::iterator (MultiMap::*)(SimpleString, SimpleString)>::value,
              "takes values");
static_assert(std::is_same<decltype(&MultiMap::erase), uint64_t (MultiMap::*)(SimpleString)>::value,
              "takes a value, counts in 64 bits");

class MultiMapTest : public testing::Test {
 protected:
  MultiMapTest() { EXPECT_TRUE(mMap.Initialize()); }
  ~MultiMapTest() override {
    ExpectSoundLinks();
    EXPECT_TRUE(mMap.DeleteAllEntries());
  }

  MultiMap::iterator Insert(char const* key, char const* value) {
    return mMap.insert(SimpleString(key), SimpleString(value));
  }
  uint64_t Erase(char const* key) { return mMap.erase(SimpleString(key)); }
  MultiMapPair* FindFirst(char const* key) { return mMap.findFirst(SimpleString(key)).mPair; }

  /// The pairs as "key=value", in list order.
  std::vector<std::string> List() {
    std::vector<std::string> pairs;
    for (MultiMapPair const* pair = mMap.mFirst; pair != mMap.mEnd; pair = pair->next) {
      pairs.push_back(std::string(pair->key.mString) + "=" + pair->value.mString);
    }
    return pairs;
  }

  void ExpectSoundLinks() {
    EXPECT_EQ(mMap.mSentinel, mMap.mEnd);
    EXPECT_STREQ(mMap.mEnd->key.mString, "");
    EXPECT_STREQ(mMap.mEnd->value.mString, "");
    EXPECT_EQ(mMap.mEnd->next, nullptr);
    MultiMapPair const* previous = nullptr;
    for (MultiMapPair const* pair = mMap.mFirst; pair != mMap.mEnd; pair = pair->next) {
      EXPECT_EQ(pair->prev, previous);
      previous = pair;
    }
    EXPECT_EQ(mMap.mEnd->prev, previous);
  }

  MultiMap mMap;
};

using Pairs = std::vector<std::string>;

TEST(MultiMap, DeletingAllEntriesLeavesThePointers) {
  const auto pointers = [](MultiMap const& map) {
    return std::vector<uintptr_t>{reinterpret_cast<uintptr_t>(map.mSentinel),
                                  reinterpret_cast<uintptr_t>(map.mEnd),
                                  reinterpret_cast<uintptr_t>(map.mFirst)};
  };
  MultiMap map;
  map.Initialize();
  map.insert(SimpleString("a"), SimpleString("1"));
  map.insert(SimpleString("b"), SimpleString("2"));
  const std::vector<uintptr_t> before = pointers(map);
  EXPECT_TRUE(map.DeleteAllEntries());
  EXPECT_EQ(pointers(map), before);
}

TEST(MultiMapPair, FieldsStandInOrder) {
  EXPECT_EQ(offsetof(MultiMapPair, key), 0U);
  EXPECT_EQ(offsetof(MultiMapPair, value), 8U);
  EXPECT_EQ(offsetof(MultiMapPair, next), 16U);
  EXPECT_EQ(offsetof(MultiMapPair, prev), 24U);
  EXPECT_EQ(sizeof(MultiMapPair), 32U);
}

TEST(MultiMapPair, IsEmptyAndUnlinkedByDefault) {
  const MultiMapPair pair;
  EXPECT_STREQ(pair.key.mString, "");
  EXPECT_STREQ(pair.value.mString, "");
  EXPECT_EQ(pair.next, nullptr);
  EXPECT_EQ(pair.prev, nullptr);
}

TEST(MultiMapPair, HoldsCopiesOfKeyAndValue) {
  const SimpleString key("key");
  const SimpleString value("value");
  const MultiMapPair pair(key, value);
  EXPECT_STREQ(pair.key.mString, "key");
  EXPECT_NE(pair.key.mString, key.mString);
  EXPECT_STREQ(pair.value.mString, "value");
  EXPECT_NE(pair.value.mString, value.mString);
  EXPECT_EQ(pair.next, nullptr);
  EXPECT_EQ(pair.prev, nullptr);
}

TEST(MultiMap, FieldsStandInOrder) {
  EXPECT_EQ(offsetof(MultiMap, mSentinel), 0U);
  EXPECT_EQ(offsetof(MultiMap, mEnd), 8U);
  EXPECT_EQ(offsetof(MultiMap, mFirst), 16U);
  EXPECT_EQ(sizeof(MultiMap), 24U);
}

TEST(MultiMapIterator, FieldsStandInOrder) {
  EXPECT_EQ(offsetof(MultiMap::iterator, mPair), 0U);
  EXPECT_EQ(offsetof(MultiMap::iterator, mMap), 8U);
  EXPECT_EQ(sizeof(MultiMap::iterator), 16U);
}

TEST_F(MultiMapTest, InitializeMakesOnePairOfAllThree) {
  ASSERT_NE(mMap.mSentinel, nullptr);
  EXPECT_EQ(mMap.mEnd, mMap.mSentinel);
  EXPECT_EQ(mMap.mFirst, mMap.mSentinel);
  EXPECT_EQ(mMap.mSentinel->prev, nullptr);
}

TEST_F(MultiMapTest, EmptyMapAnswersWithTheEnd) {
  EXPECT_EQ(FindFirst("a"), mMap.mEnd);
  EXPECT_EQ(mMap.find(SimpleString("")).mPair, mMap.mEnd) << "not the sentinel's empty key";
  EXPECT_EQ(Erase("a"), 0U);
}

TEST_F(MultiMapTest, IteratorNamesItsMap) {
  EXPECT_EQ(Insert("a", "1").mMap, &mMap);
  EXPECT_EQ(mMap.findFirst(SimpleString("a")).mMap, &mMap);
  EXPECT_EQ(mMap.findNext(mMap.findFirst(SimpleString("a"))).mMap, &mMap);
  EXPECT_EQ(mMap.find(SimpleString("z")).mMap, &mMap);
}

TEST_F(MultiMapTest, SecondPairOfAKeyGoesToTheVeryEnd) {
  Insert("a", "1");
  Insert("b", "2");
  const MultiMap::iterator last = Insert("a", "3");
  EXPECT_EQ(List(), (Pairs{"a=1", "b=2", "a=3"}));
  EXPECT_EQ(last.mPair, mMap.mEnd->prev);

  MultiMap::iterator found = mMap.findFirst(SimpleString("a"));
  EXPECT_EQ(found.mPair, mMap.mFirst);
  found = mMap.findNext(found);
  EXPECT_EQ(found.mPair, last.mPair);
  found = mMap.findNext(found);
  EXPECT_EQ(found.mPair, mMap.mEnd);
  EXPECT_EQ(mMap.findNext(found).mPair, mMap.mEnd) << "the end has no next";
}

TEST_F(MultiMapTest, FindIsFindFirst) {
  Insert("b", "0");
  Insert("a", "1");
  Insert("a", "2");
  EXPECT_STREQ(mMap.find(SimpleString("a")).mPair->value.mString, "1");
}

TEST_F(MultiMapTest, ExactDuplicateIsNotStored) {
  const MultiMap::iterator first = Insert("a", "1");
  Insert("b", "2");
  EXPECT_EQ(Insert("a", "1").mPair, first.mPair);
  EXPECT_EQ(List(), (Pairs{"a=1", "b=2"}));
}

TEST_F(MultiMapTest, ExactDuplicateOfALaterPairIsNotStored) {
  Insert("a", "1");
  Insert("a", "2");
  const MultiMap::iterator third = Insert("a", "3");
  EXPECT_EQ(Insert("a", "3").mPair, third.mPair);
  EXPECT_EQ(List(), (Pairs{"a=1", "a=2", "a=3"}));
}

TEST_F(MultiMapTest, SameValueOfAnotherKeyIsStored) {
  Insert("a", "1");
  Insert("b", "1");
  EXPECT_EQ(List(), (Pairs{"a=1", "b=1"}));
}

TEST_F(MultiMapTest, KeysAndValuesCompareExactly) {
  Insert("A", "x");
  Insert("a", "x");
  Insert("a ", "x");
  Insert("a", "X");
  EXPECT_EQ(List(), (Pairs{"A=x", "a=x", "a =x", "a=X"}));
  EXPECT_EQ(Erase("a"), 2U);
  EXPECT_EQ(List(), (Pairs{"A=x", "a =x"}));
}

TEST_F(MultiMapTest, InsertCopiesItsArguments) {
  SimpleString key("a");
  SimpleString value("1");
  mMap.insert(key, value);
  key = SimpleString("b");
  value = SimpleString("2");
  EXPECT_EQ(List(), Pairs{"a=1"});
}

TEST_F(MultiMapTest, ErasesFirstOfThree) {
  Insert("a", "1");
  Insert("b", "2");
  Insert("c", "3");
  EXPECT_EQ(Erase("a"), 1U);
  EXPECT_EQ(List(), (Pairs{"b=2", "c=3"}));
  ExpectSoundLinks();
}

TEST_F(MultiMapTest, ErasesMiddleOfThree) {
  Insert("a", "1");
  Insert("b", "2");
  Insert("c", "3");
  EXPECT_EQ(Erase("b"), 1U);
  EXPECT_EQ(List(), (Pairs{"a=1", "c=3"}));
  ExpectSoundLinks();
}

TEST_F(MultiMapTest, ErasesLastOfThreeAndInsertsAgain) {
  Insert("a", "1");
  Insert("b", "2");
  Insert("c", "3");
  EXPECT_EQ(Erase("c"), 1U);
  EXPECT_EQ(List(), (Pairs{"a=1", "b=2"}));
  ExpectSoundLinks();
  Insert("c", "4");
  EXPECT_EQ(List(), (Pairs{"a=1", "b=2", "c=4"}));
}

TEST_F(MultiMapTest, ErasesEveryPairOfAKey) {
  Insert("a", "1");
  Insert("b", "2");
  Insert("a", "3");
  EXPECT_EQ(Erase("a"), 2U);
  EXPECT_EQ(List(), Pairs{"b=2"});
  EXPECT_EQ(mMap.mFirst->prev, nullptr);
  EXPECT_EQ(Erase("a"), 0U);
}

TEST_F(MultiMapTest, ErasesNeighboursOfOneKey) {
  Insert("b", "0");
  Insert("a", "1");
  Insert("a", "2");
  Insert("a", "3");
  Insert("c", "4");
  EXPECT_EQ(Erase("a"), 3U);
  EXPECT_EQ(List(), (Pairs{"b=0", "c=4"}));
}

TEST_F(MultiMapTest, EmptiedMapTakesPairsAgain) {
  Insert("a", "1");
  Insert("a", "2");
  EXPECT_EQ(Erase("a"), 2U);
  EXPECT_EQ(mMap.mFirst, mMap.mEnd);
  ExpectSoundLinks();

  const MultiMap::iterator again = Insert("a", "1");
  EXPECT_EQ(mMap.mFirst, again.mPair);
  EXPECT_EQ(again.mPair->prev, nullptr);
  EXPECT_EQ(again.mPair->next, mMap.mEnd);
  Insert("b", "2");
  EXPECT_EQ(List(), (Pairs{"a=1", "b=2"}));
}

TEST_F(MultiMapTest, ErasesByTheKeyOfAPairThatGoes) {
  Insert("a", "1");
  Insert("a", "2");
  EXPECT_EQ(mMap.erase(mMap.mFirst->key), 2U);
}

TEST_F(MultiMapTest, EmptyKeyIsAKey) {
  Insert("", "1");
  Insert("a", "");
  EXPECT_STREQ(FindFirst("")->value.mString, "1");
  EXPECT_STREQ(FindFirst("a")->value.mString, "");
}

TEST_F(MultiMapTest, ReferenceToAValueHoldsWhileOthersComeAndGo) {
  SimpleString const& value = Insert("b", "kept").mPair->value;
  for (int round = 0; round < 50; ++round) {
    Insert("a", std::to_string(round).c_str());
  }
  Erase("a");
  EXPECT_STREQ(value.mString, "kept");
}

}  // namespace
