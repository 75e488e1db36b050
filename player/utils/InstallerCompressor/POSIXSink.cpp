// Writes a decoded tree to the disk. Root writes into folders that a group may change, so the walk
// enters folder after folder and makes each entry in the folder that it has entered, by its name
// alone.
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"
#include "shared/platform/posix/FolderWalk.h"
#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Transfer.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr mode_t kFileMode = 0664;

// Sets the umask to 0 while it exists. New folders must have their full mode from the start: a
// folder without read permission could not be entered.
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

WrittenFile WriteWholeFile(const char* path, const unsigned char* bytes, size_t count) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW;
  const int descriptor = OpenRegularFile(path, kFlags, kFileMode, FileNames::kOne);
  if (descriptor < 0) {
    return {false, errno};
  }
  int error = WriteBytes(descriptor, bytes, count);
  if (Uninterrupted([&] { return fchmod(descriptor, kFileMode); }) != 0 && error == 0) {
    error = errno;
  }
  const int closeError = CloseWritten(descriptor);
  return {true, error != 0 ? error : closeError};
}

// The path of an entry, one name for each folder around it.
struct Trail {
  const Trail* around;
  const char* name;
};

// Each name takes a separator after it, or the NUL.
size_t PathCapacity(const Trail* trail) {
  size_t capacity = 0;
  for (; trail != nullptr; trail = trail->around) {
    capacity += strlen(trail->name) + 1;
  }
  return capacity;
}

void AppendPath(char* path, unsigned int capacity, const Trail* trail) {
  if (trail != nullptr) {
    AppendPath(path, capacity, trail->around);
    PlatformAppendPathLeaf(path, capacity, trail->name);
  }
}

// Returns the path as a new array; absent when memory runs out.
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

// An absent name counts as an empty one.
const char* NameOf(const fileChunk& node) { return node.name != nullptr ? node.name : ""; }

// Returns whether an entry of this name means the folder around it.
bool IsNameless(const char* name) { return *name == '\0' || strcmp(name, "/") == 0; }

// One component of a path, without the slash that a folder's name may end in.
class Leaf {
 public:
  // Sets `error` to 0 or, when the name cannot be one component, to an errno value.
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

// Writes one tree.
class Sink {
 public:
  Sink(const char* root, const char* path, SinkReport& report)
      : root_{nullptr, root}, top_{&root_, path}, report_(report) {}

  void Write(const fileChunk* list);

 private:
  bool GoToTop();
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
  // The name of the top, the folder that a nameless entry means: the root, or an item of the folder
  // that the walk is in.
  const char* topName_ = "";
  bool isTopTheRoot_ = false;
  bool isInTop_ = false;
  // An errno value once the walk has lost its folder, so that no more entries can be written.
  int lostError_ = 0;
};

void Sink::Write(const fileChunk* list) {
  const NoUmask noUmask;
  report_.entries = CountEntries(list);
  if (!GoToTop()) {
    lostError_ = errno;
  }
  for (const fileChunk* node = list; node != nullptr; node = node->next) {
    WriteTop(*node, {&top_, NameOf(*node)});
  }
}

// Goes to the folder that contains the top. Returns false with errno set on failure.
bool Sink::GoToTop() {
  if (*top_.name == '\0') {
    isTopTheRoot_ = true;
    topName_ = *root_.name != '\0' ? root_.name : ".";
    return true;
  }
  if (!walk_.Start(root_.name)) {
    return false;
  }
  topName_ = walk_.EnterFolderOf(top_.name);
  return topName_ != nullptr;
}

// Writes an entry of the list. Enters the top for the first entry that needs it; it is not left
// again.
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
  const WrittenFile written = WriteWholeFile(name, node.data, static_cast<unsigned int>(node.size));
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

// Enters a folder, which is made first if it is missing and `creates` is true. Reports the entry as
// failed when the folder cannot be entered.
bool Sink::EnterDirectory(const char* name, bool creates, const fileChunk& node,
                          const Trail& trail) {
  const bool isNew = creates && mkdir(name, kDirectoryMode) == 0;
  const int refusal = !creates || isNew || errno == EEXIST ? 0 : errno;
  const bool isEntered = isTopTheRoot_ && !isInTop_ ? walk_.Start(name) : walk_.Enter(name);
  if (!isEntered) {
    Fail(node, trail, refusal != 0 ? refusal : errno);
    return false;
  }
  // Another user may have replaced the new folder by one that belongs to a third user.
  if (isNew && walk_.Owner() == geteuid() &&
      Uninterrupted([] { return chmod(".", kDirectoryMode); }) != 0) {
    Report(1, trail, errno);
  }
  return true;
}

// Reports that the entry and everything below it have not been written.
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

// Appends `text` to `path`, an array of `capacity` bytes, unless it does not fit with its NUL.
void AppendIfItFits(char* path, unsigned int capacity, const char* text) {
  const size_t pathLength = strlen(path);
  const size_t textLength = strlen(text);
  if (pathLength + textLength < capacity) {
    memcpy(path + pathLength, text, textLength + 1);
  }
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
  // The mode is not set by the path, where another user may have put a link.
  const int descriptor =
      Uninterrupted([&] { return open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW); });
  if (descriptor >= 0) {
    struct stat status = {};
    if (fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid()) {
      (void)Uninterrupted([&] { return fchmod(descriptor, kDirectoryMode); });
    }
    close(descriptor);
  }
  return true;
}

bool PlatformWriteFile(const char* path, unsigned char* bytes, unsigned int count) {
  return path != nullptr && WriteWholeFile(path, bytes, count).isOpened;
}

void PlatformAppendPathLeaf(char* path, unsigned int capacity, const char* leaf) {
  if (path == nullptr || leaf == nullptr || *leaf == '\0') {
    return;
  }
  const size_t pathLength = strlen(path);
  const bool pathEndsInSlash = pathLength != 0 && path[pathLength - 1] == '/';
  const bool leafBeginsWithSlash = *leaf == '/';
  if (pathEndsInSlash && leafBeginsWithSlash) {
    AppendIfItFits(path, capacity, leaf + 1);
    return;
  }
  if (pathLength != 0 && !pathEndsInSlash && !leafBeginsWithSlash) {
    AppendIfItFits(path, capacity, "/");
  }
  AppendIfItFits(path, capacity, leaf);
}

unsigned long PlatformGetArbitraryTimeInMS() { return 0; }

bool PlatformWriteChunkToResources(const char*, fileChunk*, const char*) { return false; }
