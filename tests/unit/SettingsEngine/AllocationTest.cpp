// What the settings engine allocates and releases, and in which order. The allocation functions
// of this whole executable are replaced to watch it.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "player/ControlPanel/Common/SMConfigFileManager.h"
#include "player/ControlPanel/Common/SMMultiMap.h"
#include "player/ControlPanel/Common/SMPointerVector.h"
#include "player/ControlPanel/Common/SMShared.h"
#include "player/ControlPanel/Common/SMString.h"
#include "tests/unit/support/TemporaryFolder.h"

namespace {

/// The allocations and releases while it is there. It allocates nothing itself.
struct Watch {
  static constexpr int kCapacity = 64;

  Watch() { sCurrent = this; }
  ~Watch() { Stop(); }
  Watch(Watch const&) = delete;
  Watch& operator=(Watch const&) = delete;
  static void Stop() { sCurrent = nullptr; }

  int allocationCount = 0;
  size_t sizes[kCapacity];
  int releaseCount = 0;
  void const* released[kCapacity];
  /// How many allocations came before each release.
  int allocationsBefore[kCapacity];
  /// Makes every allocation throw.
  bool isOutOfMemory = false;
  /// Allocations that succeed before every one throws; none does while it is negative.
  int allocationsLeft = -1;
  /// Arrays and objects that are allocated and not released.
  int held = 0;

  static Watch* sCurrent;
};
Watch* Watch::sCurrent = nullptr;

void* Allocate(size_t size) {
  Watch* watch = Watch::sCurrent;
  if (watch != nullptr && (watch->isOutOfMemory || watch->allocationsLeft == 0)) {
    throw std::bad_alloc();
  }
  if (watch != nullptr) {
    ++watch->held;
    watch->allocationsLeft -= watch->allocationsLeft > 0 ? 1 : 0;
  }
  if (watch != nullptr && watch->allocationCount < Watch::kCapacity) {
    watch->sizes[watch->allocationCount++] = size;
  }
  void* bytes = malloc(size == 0 ? 1 : size);
  if (bytes == nullptr) {
    abort();
  }
  return bytes;
}

void Release(void* bytes) {
  Watch* watch = Watch::sCurrent;
  if (bytes != nullptr && watch != nullptr) {
    --watch->held;
  }
  if (bytes != nullptr && watch != nullptr && watch->releaseCount < Watch::kCapacity) {
    watch->allocationsBefore[watch->releaseCount] = watch->allocationCount;
    watch->released[watch->releaseCount++] = bytes;
  }
  free(bytes);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* bytes) noexcept { Release(bytes); }
void operator delete[](void* bytes) noexcept { Release(bytes); }
void operator delete(void* bytes, size_t) noexcept { Release(bytes); }
void operator delete[](void* bytes, size_t) noexcept { Release(bytes); }

namespace {

using SASM::ConfigFileManager;
using SASM::MultiMap;
using SASM::SimpleString;
using SASM::StringVector;
using SMImplementation::PointerVector;

TEST(Allocation, CopyStringTakesTheLengthPlusOne) {
  Watch watch;
  char* copy = SimpleString::CopyString("12345");
  char* empty = SimpleString::CopyString(nullptr);
  Watch::Stop();
  ASSERT_EQ(watch.allocationCount, 2);
  EXPECT_EQ(watch.sizes[0], 6U);
  EXPECT_EQ(watch.sizes[1], 1U);
  delete[] copy;
  delete[] empty;
}

TEST(Allocation, SelfAssignmentTakesAndReleasesNothing) {
  SimpleString string("same");
  SimpleString const& itself = string;
  Watch watch;
  string = itself;
  Watch::Stop();
  EXPECT_EQ(watch.allocationCount, 0);
  EXPECT_EQ(watch.releaseCount, 0);
}

TEST(Allocation, AssignmentReleasesTheOldArrayOnceItHasTheNew) {
  SimpleString string("old");
  const SimpleString longer("longer");
  void const* array = string.mString;
  Watch watch;
  string = longer;
  Watch::Stop();
  ASSERT_EQ(watch.allocationCount, 1);
  EXPECT_EQ(watch.sizes[0], sizeof "longer");
  ASSERT_EQ(watch.releaseCount, 1);
  EXPECT_EQ(watch.released[0], array);
  EXPECT_EQ(watch.allocationsBefore[0], 1);
}

TEST(Allocation, AssignmentWithoutMemoryChangesNothing) {
  SimpleString string("old");
  const SimpleString longer("longer");
  bool hasThrown = false;
  Watch watch;
  watch.isOutOfMemory = true;
  try {
    string = longer;
  } catch (std::bad_alloc const&) {
    hasThrown = true;
  }
  Watch::Stop();
  EXPECT_TRUE(hasThrown);
  EXPECT_STREQ(string.mString, "old");
}

/// Elements without an owner.
class PlainVector : public PointerVector {
 public:
  void deleteElement(void* element) override { delete static_cast<SimpleString*>(element); }
  void* copyElement(void const* element) override { return const_cast<void*>(element); }
};

TEST(Allocation, PointerVectorReleasesItsArrayAndNoElement) {
  SimpleString element("text");
  PointerVector* vector = new PlainVector;
  vector->addElement(&element);
  vector->addElement(&element);
  void const* array = vector->mElements;
  Watch watch;
  delete vector;
  Watch::Stop();
  ASSERT_EQ(watch.releaseCount, 2);
  EXPECT_EQ(watch.released[0], array);
  EXPECT_EQ(watch.released[1], vector);
}

TEST(Allocation, GrowthReleasesTheOldArrayOnly) {
  SimpleString element("text");
  PlainVector vector;
  for (int count = 0; count < 10; ++count) {
    vector.addElement(&element);
  }
  void const* array = vector.mElements;
  Watch watch;
  vector.addElement(&element);
  vector.addElement(&element);
  Watch::Stop();
  ASSERT_EQ(watch.allocationCount, 1);
  EXPECT_EQ(watch.sizes[0], 20 * sizeof(void*));
  ASSERT_EQ(watch.releaseCount, 1);
  EXPECT_EQ(watch.released[0], array);
}

TEST(Allocation, StringVectorReleasesFirstToLastAndThenTheArray) {
  constexpr int kCount = 12;
  StringVector* vector = new StringVector;
  void const* expected[2 * kCount + 2];
  for (int index = 0; index < kCount; ++index) {
    const SimpleString string("text");
    vector->addElement(&string);
    expected[2 * index] = static_cast<SimpleString*>(vector->mElements[index])->mString;
    expected[2 * index + 1] = vector->mElements[index];
  }
  expected[2 * kCount] = vector->mElements;
  expected[2 * kCount + 1] = vector;

  Watch watch;
  delete vector;
  Watch::Stop();
  ASSERT_EQ(watch.releaseCount, 2 * kCount + 2);
  for (int index = 0; index < 2 * kCount + 2; ++index) {
    EXPECT_EQ(watch.released[index], expected[index]) << index;
  }
}

TEST(Allocation, EmptyStringVectorReleasesItsArrayOnly) {
  StringVector* vector = new StringVector;
  void const* array = vector->mElements;
  Watch watch;
  delete vector;
  Watch::Stop();
  ASSERT_EQ(watch.releaseCount, 2);
  EXPECT_EQ(watch.released[0], array);
  EXPECT_EQ(watch.released[1], vector);
}

TEST(Allocation, PairReleasesItsValueBeforeItsKey) {
  auto* pair = new SASM::MultiMapPair(SimpleString("key"), SimpleString("value"));
  void const* key = pair->key.mString;
  void const* value = pair->value.mString;
  Watch watch;
  delete pair;
  Watch::Stop();
  ASSERT_EQ(watch.releaseCount, 3);
  EXPECT_EQ(watch.released[0], value);
  EXPECT_EQ(watch.released[1], key);
}

TEST(Allocation, LookUpCopiesEachKeyThatItComparesAndReleasesTheCopy) {
  MultiMap map;
  map.Initialize();
  map.insert(SimpleString("one"), SimpleString("1"));
  map.insert(SimpleString("three"), SimpleString("3"));
  const SimpleString missing("missing");
  Watch watch;
  const MultiMap::iterator found = map.findFirst(missing);
  Watch::Stop();
  EXPECT_EQ(found.mPair, map.mEnd);
  ASSERT_EQ(watch.allocationCount, 2);
  EXPECT_EQ(watch.sizes[0], sizeof "one");
  EXPECT_EQ(watch.sizes[1], sizeof "three");
  EXPECT_EQ(watch.releaseCount, 2);
  map.DeleteAllEntries();
}

TEST(Allocation, EraseReleasesEveryPairThatGoes) {
  MultiMap map;
  map.Initialize();
  MultiMap::iterator const erased[] = {map.insert(SimpleString("a"), SimpleString("1")),
                                       map.insert(SimpleString("a"), SimpleString("2"))};
  map.insert(SimpleString("b"), SimpleString("3"));
  void const* expected[6];
  for (int index = 0; index < 2; ++index) {
    expected[3 * index] = erased[index].mPair->value.mString;
    expected[3 * index + 1] = erased[index].mPair->key.mString;
    expected[3 * index + 2] = erased[index].mPair;
  }

  Watch watch;
  map.erase(SimpleString("a"));
  Watch::Stop();
  EXPECT_EQ(watch.releaseCount, watch.allocationCount + 6) << "copies of keys, and the two pairs";
  void const** const end = watch.released + watch.releaseCount;
  for (void const* bytes : expected) {
    EXPECT_NE(std::find(watch.released, end, bytes), end);
  }
  map.DeleteAllEntries();
}

TEST(Allocation, MapReleasesItsPairsAndThenTheEndMarker) {
  MultiMap* map = new MultiMap;
  EXPECT_TRUE(map->Initialize());
  void const* first = map->insert(SimpleString("a"), SimpleString("1")).mPair;
  void const* second = map->insert(SimpleString("b"), SimpleString("2")).mPair;
  void const* marker = map->mEnd;

  Watch watch;
  const bool isDone = map->DeleteAllEntries();
  delete map;
  Watch::Stop();
  EXPECT_TRUE(isDone);
  ASSERT_EQ(watch.releaseCount, 10);
  EXPECT_EQ(watch.released[2], first);
  EXPECT_EQ(watch.released[5], second);
  EXPECT_EQ(watch.released[8], marker);
  EXPECT_EQ(watch.released[9], map);
}

TEST(Allocation, ConfigFileManagerReleasesItsPathThenItsSettingsThenItself) {
  auto* manager = new ConfigFileManager(SimpleString("/nonexistent/rks.cfg"));
  manager->UpdateSetting(SimpleString("a"), SimpleString("1"));
  MultiMap const& settings = manager->mSettings;
  void const* expected[] = {manager->mPath.mString,
                            settings.mFirst->value.mString,
                            settings.mFirst->key.mString,
                            settings.mFirst,
                            settings.mSentinel->value.mString,
                            settings.mSentinel->key.mString,
                            settings.mSentinel,
                            manager};
  Watch watch;
  delete manager;
  Watch::Stop();
  ASSERT_EQ(watch.releaseCount, 8);
  for (int index = 0; index < 8; ++index) {
    EXPECT_EQ(watch.released[index], expected[index]) << index;
  }
}

/// The arrays of at least 512 bytes that reading one line of `length` bytes without a setting
/// takes.
std::vector<size_t> LargeArraysOfALine(size_t length) {
  const TemporaryFolder folder;
  const std::string path = folder / "rks.cfg";
  WriteWholeFile(path, std::string(length, 'x'));
  const SimpleString enginePath(path.c_str());
  Watch watch;
  const ConfigFileManager manager(enginePath);
  Watch::Stop();
  std::vector<size_t> large;
  std::copy_if(watch.sizes, watch.sizes + watch.allocationCount, std::back_inserter(large),
               [](size_t size) { return size >= 512; });
  return large;
}

TEST(Allocation, LineBufferStartsAt1024BytesAndDoubles) {
  // One byte beyond the capacity keeps a text behind the terminator of a line that fills it.
  using Sizes = std::vector<size_t>;
  EXPECT_EQ(LargeArraysOfALine(1023), (Sizes{1025}));
  EXPECT_EQ(LargeArraysOfALine(1024), (Sizes{1025, 2049}));
  EXPECT_EQ(LargeArraysOfALine(2047), (Sizes{1025, 2049}));
  EXPECT_EQ(LargeArraysOfALine(5000), (Sizes{1025, 2049, 4097, 8193}));
}

TEST(Allocation, ReadWithoutMemoryKeepsNothingAndLosesNothing) {
  const TemporaryFolder folder;
  const std::string path = folder / "rks.cfg";
  const std::string content = "a=1\nlong=" + std::string(3000, 'x') + "\nb=\n";
  WriteWholeFile(path, content);
  const SimpleString enginePath(path.c_str());
  bool hasThrown = true;
  int allowed = 0;
  for (; hasThrown; ++allowed) {
    hasThrown = false;
    Watch watch;
    watch.allocationsLeft = allowed;
    try {
      const ConfigFileManager manager(enginePath);
    } catch (const std::bad_alloc&) {
      hasThrown = true;
    }
    Watch::Stop();
    EXPECT_EQ(watch.held, 0) << "after " << allowed << " allocations";
  }
  EXPECT_GT(allowed, 20);
  EXPECT_EQ(ReadWholeFile(path), content);
}

TEST(Allocation, SettingsOfAReloadWithoutMemoryAreNotWritten) {
  const TemporaryFolder folder;
  const std::string path = folder / "rks.cfg";
  WriteWholeFile(path, "a=1\n");
  ConfigFileManager manager(SimpleString(path.c_str()));
  const std::string content = "a=2\nb=" + std::string(3000, 'x') + "\n";
  WriteWholeFile(path, content);
  bool hasThrown = false;
  {
    Watch watch;
    watch.allocationsLeft = 12;
    try {
      manager.ReloadSettingsFile();
    } catch (const std::bad_alloc&) {
      hasThrown = true;
    }
  }
  EXPECT_TRUE(hasThrown);
  EXPECT_FALSE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(path), content);
  EXPECT_TRUE(manager.ReloadSettingsFile());
  EXPECT_TRUE(manager.UpdateSettingsFile());
  EXPECT_EQ(ReadWholeFile(path), content);
}

TEST(Allocation, WriteNeedsNoMemoryOfTheEngine) {
  const TemporaryFolder folder;
  const std::string path = folder / "rks.cfg";
  WriteWholeFile(path, "a = 1\n");
  ConfigFileManager manager(SimpleString(path.c_str()));
  Watch watch;
  watch.isOutOfMemory = true;
  EXPECT_TRUE(manager.UpdateSettingsFile());
  Watch::Stop();
  EXPECT_EQ(ReadWholeFile(path), "a=1\n");
}

}  // namespace
