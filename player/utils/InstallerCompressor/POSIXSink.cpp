// From a decoded tree to the disk. Root writes into folders that a group may change, so the walk
// goes down through descriptors, and each entry is made in the very folder that was entered.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "shared/platform/posix/FolderWalk.h"
#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr mode_t kFileMode = 0664;

// The most bytes that one write is asked for: macOS refuses more than INT_MAX.
constexpr size_t kGreatestTransfer = 1UL << 30;

// New folders and files have their whole mode from the start: one without read permission could
// not be entered.
class NoUmask {
 public:
  NoUmask() : previous_(umask(0)) {}
  ~NoUmask() { umask(previous_); }
  NoUmask(const NoUmask&) = delete;
  NoUmask& operator=(const NoUmask&) = delete;

 private:
  mode_t previous_;
};

struct WrittenFile {
  bool isOpened;
  int error;  // 0 when all of it has been written
};

int WriteBytes(int descriptor, const unsigned char* bytes, size_t count) {
  while (count != 0) {
    const ssize_t written =
        Uninterrupted([&] { return write(descriptor, bytes, std::min(count, kGreatestTransfer)); });
    if (written <= 0) {
      return written < 0 ? errno : EIO;
    }
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return 0;
}

WrittenFile WriteWholeFile(const char* path, const unsigned char* bytes, size_t count) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW;
  const int descriptor = OpenRegularFile(path, kFlags, kFileMode, FileNames::kOne);
  if (descriptor < 0) {
    return {false, errno};
  }
  int error = WriteBytes(descriptor, bytes, count);
  if (fchmod(descriptor, kFileMode) != 0 && error == 0) {
    error = errno;
  }
  // An interrupted close has closed the file all the same.
  if (close(descriptor) != 0 && errno != EINTR && error == 0) {
    error = errno;
  }
  return {true, error};
}

// An entry below others: the parts of its path.
struct Trail {
  const Trail* around;
  const char* name;
};

size_t PathCapacity(const Trail* trail) {
  size_t capacity = 0;
  for (; trail != nullptr; trail = trail->around) {
    capacity += strlen(trail->name) + 1;
  }
  return capacity + 1;
}

void AppendPath(char* path, unsigned int capacity, const Trail* trail) {
  if (trail != nullptr) {
    AppendPath(path, capacity, trail->around);
    PlatformAppendPathLeaf(path, capacity, trail->name);
  }
}

// The path as a new array; absent when there is no memory.
char* NewPath(const Trail& trail) {
  const size_t capacity = PathCapacity(&trail);
  char* const path = new (std::nothrow) char[capacity];
  if (path != nullptr) {
    *path = '\0';
    AppendPath(path, static_cast<unsigned int>(capacity), &trail);
  }
  return path;
}

unsigned long CountEntries(const fileChunk* list) {
  unsigned long count = 0;
  for (; list != nullptr; list = list->next) {
    count += 1 + CountEntries(list->children);
  }
  return count;
}

// An absent name is as an empty one.
const char* NameOf(const fileChunk& node) { return node.name != nullptr ? node.name : ""; }

// Whether an entry stands for the folder around it.
bool IsNameless(const char* name) { return *name == '\0' || strcmp(name, "/") == 0; }

// One component of a path, without the slash that a folder's name may end in.
class Leaf {
 public:
  // `error` becomes 0, or the errno value that says why the name is not one component.
  Leaf(const char* name, int& error) {
    size_t length = strlen(name);
    endsInSlash_ = name[length - 1] == '/';
    length -= endsInSlash_ ? 1 : 0;
    error = length > NAME_MAX ? ENAMETOOLONG : 0;
    if (error == 0) {
      memcpy(text_, name, length);
      text_[length] = '\0';
      const bool isDots = strcmp(text_, ".") == 0 || strcmp(text_, "..") == 0;
      error = isDots || strchr(text_, '/') != nullptr ? EINVAL : 0;
    }
  }

  const char* Text() const { return text_; }
  bool EndsInSlash() const { return endsInSlash_; }

 private:
  char text_[NAME_MAX + 1];
  bool endsInSlash_;
};

// One walk over a tree, from the folder that it is written to.
class Sink {
 public:
  Sink(const char* root, const char* path, SinkReport& report)
      : root_{nullptr, root}, top_{&root_, path}, report_(report) {}

  void Write(const fileChunk* list);

 private:
  bool GoToTop(char* path);
  void WriteTop(const fileChunk& node, const Trail& trail);
  void WriteEntry(const fileChunk& node, const Trail& trail);
  void WriteChildren(const fileChunk& node, const Trail& trail);
  void WriteFile(const char* name, const fileChunk& node, const Trail& trail);
  void WriteDirectory(const char* name, const fileChunk& node, const Trail& trail);
  bool EnterDirectory(const char* name, bool creates, const fileChunk& node, const Trail& trail);
  void Fail(const fileChunk& node, const Trail& trail, int error);
  void Report(unsigned long entries, const Trail& trail, int error);

  const Trail root_;
  const Trail top_;
  SinkReport& report_;
  FolderWalk walk_;
  // What a nameless entry stands for: the root, or a name in the folder that the walk is in.
  const char* topName_ = "";
  bool isTopTheRoot_ = false;
  bool isInTop_ = false;
  // Why nothing more can be written, an errno value: the walk is not where it has to be.
  int lostError_ = 0;
};

void Sink::Write(const fileChunk* list) {
  const NoUmask noUmask;
  report_.entries = CountEntries(list);
  char* const path = strdup(top_.name);
  if (path == nullptr || !GoToTop(path)) {
    lostError_ = errno;
  }
  for (const fileChunk* node = list; node != nullptr; node = node->next) {
    WriteTop(*node, {&top_, NameOf(*node)});
  }
  free(path);
}

// Goes to the folder that holds the top, whose path below the root is `path`, and cuts that path
// in two.
bool Sink::GoToTop(char* path) {
  if (*path == '\0') {
    isTopTheRoot_ = true;
    topName_ = *root_.name != '\0' ? root_.name : ".";
    return true;
  }
  char* const slash = strrchr(path, '/');
  topName_ = slash != nullptr ? slash + 1 : path;
  if (!walk_.Start(root_.name)) {
    return false;
  }
  if (slash == nullptr) {
    return true;
  }
  *slash = '\0';
  return walk_.EnterEach(path);
}

// The top is entered for the first entry that needs it, and not left again.
void Sink::WriteTop(const fileChunk& node, const Trail& trail) {
  if (lostError_ == 0 && !isInTop_) {
    const bool standsForTop = IsNameless(trail.name);
    if (standsForTop && !node.isDirectory) {
      WriteFile(topName_, node, trail);
      return;
    }
    if (!EnterDirectory(topName_, standsForTop, node, trail)) {
      return;
    }
    isInTop_ = true;
  }
  WriteEntry(node, trail);
}

void Sink::WriteEntry(const fileChunk& node, const Trail& trail) {
  if (lostError_ != 0) {
    Fail(node, trail, lostError_);
    return;
  }
  if (IsNameless(trail.name)) {
    if (node.isDirectory) {
      WriteChildren(node, trail);
    } else {
      Fail(node, trail, EISDIR);
    }
    return;
  }
  int error = 0;
  const Leaf leaf(trail.name, error);
  if (error != 0) {
    Fail(node, trail, error);
  } else if (node.isDirectory) {
    WriteDirectory(leaf.Text(), node, trail);
  } else if (leaf.EndsInSlash()) {
    Fail(node, trail, EISDIR);
  } else {
    WriteFile(leaf.Text(), node, trail);
  }
}

void Sink::WriteChildren(const fileChunk& node, const Trail& trail) {
  for (const fileChunk* child = node.children; child != nullptr; child = child->next) {
    WriteEntry(*child, {&trail, NameOf(*child)});
  }
}

void Sink::WriteFile(const char* name, const fileChunk& node, const Trail& trail) {
  const WrittenFile written = WriteWholeFile(name, node.data, node.size & kMaximumSize);
  if (written.error != 0) {
    Report(1, trail, written.error);
  }
}

void Sink::WriteDirectory(const char* name, const fileChunk& node, const Trail& trail) {
  const FolderIdentity parent = walk_.Here();
  if (!EnterDirectory(name, true, node, trail)) {
    return;
  }
  WriteChildren(node, trail);
  if (lostError_ == 0 && !walk_.Return(parent)) {
    lostError_ = errno;
  }
}

// Goes into a folder, which is made where there is none. Fails the entry when it cannot be entered.
bool Sink::EnterDirectory(const char* name, bool creates, const fileChunk& node,
                          const Trail& trail) {
  const bool isNew = creates && mkdir(name, kDirectoryMode) == 0;
  const int refusal = !creates || isNew || errno == EEXIST ? 0 : errno;
  const bool isEntered = isTopTheRoot_ && !isInTop_ ? walk_.Start(name) : walk_.Enter(name);
  if (!isEntered) {
    Fail(node, trail, refusal != 0 ? refusal : errno);
    return false;
  }
  // Another user may have put a third user's folder in the place of the new one.
  if (isNew && walk_.Owner() == geteuid() && chmod(".", kDirectoryMode) != 0) {
    Report(1, trail, errno);
  }
  return true;
}

// The entry has not been written, nor has anything below it.
void Sink::Fail(const fileChunk& node, const Trail& trail, int error) {
  Report(1 + CountEntries(node.children), trail, error);
}

void Sink::Report(unsigned long entries, const Trail& trail, int error) {
  if (report_.failed == 0) {
    report_.path = NewPath(trail);
    report_.error = error;
  }
  report_.failed += entries;
}

}  // namespace

bool PlatformWriteFileFromChunk(const char* parentPath, fileChunk* list) {
  if (parentPath != nullptr) {
    SinkReport report;
    PlatformWriteFileFromChunk(parentPath, "", list, report);
  }
  return true;
}

bool PlatformWriteFileFromChunk(const char* root, const char* path, fileChunk* list,
                                SinkReport& report) {
  Sink(root, path, report).Write(list);
  return true;
}

bool PlatformCreateDirectory(const char* path) {
  const NoUmask noUmask;
  if (path == nullptr || mkdir(path, kDirectoryMode) != 0) {
    return false;
  }
  // Not by its path: another user may have put a link there.
  const int descriptor =
      Uninterrupted([&] { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW); });
  if (descriptor >= 0) {
    struct stat status = {};
    if (fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid()) {
      (void)fchmod(descriptor, kDirectoryMode);
    }
    close(descriptor);
  }
  return true;
}

bool PlatformWriteFile(const char* path, unsigned char* bytes, unsigned int count) {
  return path != nullptr && WriteWholeFile(path, bytes, count).isOpened;
}

void PlatformAppendPathLeaf(char* path, unsigned int capacity, const char* leaf) {
  if (path == nullptr || leaf == nullptr) {
    return;
  }
  size_t pathLength = strlen(path);
  const bool pathEndsInSlash = pathLength != 0 && path[pathLength - 1] == '/';
  const bool leafBeginsWithSlash = *leaf == '/';
  if (pathLength != 0 && !pathEndsInSlash && *leaf != '\0' && !leafBeginsWithSlash) {
    if (pathLength + 1 < capacity) {
      path[pathLength++] = '/';
      path[pathLength] = '\0';
    }
  } else if (pathEndsInSlash && leafBeginsWithSlash) {
    ++leaf;
  }
  const size_t leafLength = strlen(leaf);
  if (pathLength + leafLength < capacity) {
    memcpy(path + pathLength, leaf, leafLength + 1);
  }
}

unsigned long PlatformGetArbitraryTimeInMS() { return 0; }

bool PlatformWriteChunkToResources(const char*, fileChunk*, const char*) { return false; }
