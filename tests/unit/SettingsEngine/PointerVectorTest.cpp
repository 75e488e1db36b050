#include "player/ControlPanel/Common/SMPointerVector.h"

#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <type_traits>
#include <vector>

#include "player/ControlPanel/Common/SMShared.h"
#include "player/ControlPanel/Common/SMString.h"

namespace {

using SASM::SimpleString;
using SASM::StringVector;
using SMImplementation::PointerVector;

static_assert(std::is_abstract<PointerVector>::value, "elements are the subclass's business");
static_assert(!std::is_copy_constructible<PointerVector>::value, "owns its array");
static_assert(!std::is_copy_assignable<PointerVector>::value, "owns its array");
static_assert(!std::is_copy_constructible<StringVector>::value, "owns its strings");
static_assert(!std::is_copy_assignable<StringVector>::value, "owns its strings");

/// A vector that copies an element by adding 1 to its address, and records its calls.
class RecordingVector : public PointerVector {
 public:
  void deleteElement(void* element) override { deleted.push_back(element); }
  void* copyElement(void const* element) override {
    copied.push_back(element);
    return static_cast<char*>(const_cast<void*>(element)) + 1;
  }

  std::vector<void const*> copied;
  std::vector<void const*> deleted;
};

char elements[64];

std::vector<void*> Held(PointerVector const& vector) {
  return std::vector<void*>(vector.mElements, vector.mElements + vector.mCount);
}

TEST(PointerVector, FieldsStandInOrderAfterTheVirtualTable) {
  const RecordingVector vector;
  char const* start = reinterpret_cast<char const*>(static_cast<PointerVector const*>(&vector));
  EXPECT_EQ(reinterpret_cast<char const*>(&vector.mElements) - start, 8);
  EXPECT_EQ(reinterpret_cast<char const*>(&vector.mCount) - start, 16);
  EXPECT_EQ(reinterpret_cast<char const*>(&vector.mCapacity) - start, 20);
  EXPECT_EQ(sizeof(PointerVector), 24U);
}

/// The slot of a virtual function. In the C++ ABI of both hosts (Itanium, x86-64) a pointer to
/// one holds its byte offset in the virtual table, plus one.
template <typename Member>
size_t SlotOf(Member member) {
  ptrdiff_t offset;
  memcpy(&offset, &member, sizeof offset);
  return static_cast<size_t>(offset - 1) / sizeof(void*);
}

TEST(PointerVector, TwoDestructorsThenDeleteThenCopyInTheVirtualTable) {
  EXPECT_EQ(SlotOf(&PointerVector::deleteElement), 2U);
  EXPECT_EQ(SlotOf(&PointerVector::copyElement), 3U);
  EXPECT_EQ(SlotOf(&StringVector::deleteElement), 2U);
  EXPECT_EQ(SlotOf(&StringVector::copyElement), 3U);
  EXPECT_TRUE(std::has_virtual_destructor<PointerVector>::value);
}

TEST(PointerVector, FourSlotsInTheVirtualTable) {
  // A function that a subclass adds takes the first slot after them.
  struct MoreOfTheBase : RecordingVector {
    virtual void added() {}
  };
  struct MoreOfStrings : StringVector {
    virtual void added() {}
  };
  EXPECT_EQ(SlotOf(&MoreOfTheBase::added), 4U);
  EXPECT_EQ(SlotOf(&MoreOfStrings::added), 4U);
}

TEST(PointerVector, StartsEmptyWithTenSlots) {
  const RecordingVector vector;
  EXPECT_EQ(vector.mCount, 0U);
  EXPECT_EQ(vector.mCapacity, 10U);
}

TEST(PointerVector, StoresTheSubclassesCopy) {
  RecordingVector vector;
  EXPECT_TRUE(vector.addElement(&elements[3]));
  EXPECT_EQ(vector.mCount, 1U);
  EXPECT_EQ(vector.copied, std::vector<void const*>{&elements[3]});
  EXPECT_EQ(vector.mElements[0], &elements[4]);
}

TEST(PointerVector, DoublesOnlyWhenFull) {
  RecordingVector vector;
  std::vector<void*> expected;
  for (unsigned int count = 1; count <= 41; ++count) {
    void** const array = vector.mElements;
    EXPECT_TRUE(vector.addElement(&elements[count]));
    expected.push_back(&elements[count + 1]);

    EXPECT_EQ(vector.mCount, count);
    EXPECT_EQ(vector.mCapacity, count <= 10 ? 10U : count <= 20 ? 20U : count <= 40 ? 40U : 80U);
    const bool grew = count == 11 || count == 21 || count == 41;
    EXPECT_EQ(vector.mElements != array, grew) << count;
    EXPECT_EQ(Held(vector), expected);
  }
  EXPECT_TRUE(vector.deleted.empty()) << "growing must not touch the elements";
}

std::string TextAt(StringVector const& vector, unsigned int index) {
  return static_cast<SimpleString const*>(vector.mElements[index])->mString;
}

TEST(StringVector, HoldsCopiesOfStrings) {
  StringVector vector;
  SimpleString string("first");
  EXPECT_TRUE(vector.addElement(&string));
  ASSERT_EQ(vector.mCount, 1U);
  EXPECT_NE(vector.mElements[0], &string);
  string = SimpleString("changed");
  EXPECT_EQ(TextAt(vector, 0), "first");
}

TEST(StringVector, KeepsTheOrderAcrossGrowth) {
  StringVector vector;
  for (int index = 0; index < 100; ++index) {
    const SimpleString string(std::to_string(index).c_str());
    vector.addElement(&string);
  }
  ASSERT_EQ(vector.mCount, 100U);
  EXPECT_EQ(vector.mCapacity, 160U);
  for (unsigned int index = 0; index < 100; ++index) {
    EXPECT_EQ(TextAt(vector, index), std::to_string(index));
  }
}

TEST(StringVector, CopyElementAllocatesAndDeleteElementReleases) {
  StringVector vector;
  const SimpleString string("text");
  void* copy = vector.copyElement(&string);
  EXPECT_NE(copy, &string);
  EXPECT_STREQ(static_cast<SimpleString*>(copy)->mString, "text");
  vector.deleteElement(copy);  // what it does not release, the leak check reports
  vector.deleteElement(nullptr);
  EXPECT_EQ(vector.mCount, 0U);
}

TEST(StringVector, GoesWithItsStringsThroughTheBase) {
  PointerVector* vector = new StringVector;
  for (int count = 0; count < 25; ++count) {
    const SimpleString string("text");
    vector->addElement(&string);
  }
  delete vector;  // what it does not release, the leak check reports
}

}  // namespace
