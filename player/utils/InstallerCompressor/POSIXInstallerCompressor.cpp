#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace {

constexpr mode_t kDirectoryMode = 0775;
constexpr mode_t kFileMode = 0664;

constexpr char kFolderSettingsName[] = ".DS_Store";
constexpr char kScrubCharacter = 'X';

constexpr unsigned long kLow32Bits = 0xFFFFFFFF;

// The most bytes that one read or write is asked for: macOS refuses more than INT_MAX.
constexpr size_t kGreatestTransfer = 1UL << 30;

// Paths of this length need no second allocation.
constexpr size_t kUsualPathCapacity = 1024;

// Opens, again when a signal has interrupted it.
int OpenUninterrupted(char const* path, int flags) {
  for (;;) {
    const int descriptor = open(path, flags, kFileMode);
    if (descriptor >= 0 || errno != EINTR) return descriptor;
  }
}

// Opens a regular file, created with the mode of files if the flags say so; -1 when it cannot be
// opened or is something else. Without O_NONBLOCK the opening of a FIFO would wait for its other
// end, without O_NOCTTY that of a terminal could make it the process's own. errno tells why.
int OpenRegularFile(char const* path, int flags, struct stat& status) {
  const int descriptor = path ? OpenUninterrupted(path, flags | O_NONBLOCK | O_NOCTTY) : -1;
  if (descriptor < 0) return -1;
  const bool known = fstat(descriptor, &status) == 0;
  if (known && S_ISREG(status.st_mode)) return descriptor;
  const int error = known ? ENOTSUP : errno;
  close(descriptor);
  errno = error;
  return -1;
}

// ---- Source

// The directories that are being read, innermost first.
struct DirectoryBeingRead {
  dev_t device;
  ino_t file;
  const DirectoryBeingRead* enclosing;
};

// Who is told of what a source lacks.
struct FaultReceiver {
  SourceFaultHandler* handler;
  void* context;

  void Report(char const* path, int error) const {
    if (handler) handler(path, error, context);
  }
  fileChunk* LeaveOut(char const* path, int error) const {
    Report(path, error);
    return nullptr;
  }
};

constexpr FaultReceiver kNobody = {nullptr, nullptr};

fileChunk* CreateSource(char const* path, const DirectoryBeingRead* enclosing,
                        const FaultReceiver& faults);

bool IsBeingRead(const struct stat& directory, const DirectoryBeingRead* innermost) {
  for (const DirectoryBeingRead* entry = innermost; entry; entry = entry->enclosing) {
    if (entry->device == directory.st_dev && entry->file == directory.st_ino) return true;
  }
  return false;
}

// A node with its own copy of the name; absent when there is no memory.
fileChunk* CreateNode(char const* name) {
  auto* node = new (std::nothrow) fileChunk;
  if (!node || !name) return node;
  const size_t size = strlen(name) + 1;
  node->name = new (std::nothrow) char[size];
  if (node->name) {
    memcpy(node->name, name, size);
  } else {
    DeleteFileChunks(node);
  }
  return node;
}

// The text after the last '/' that is not the final character; all of it without such a one.
char const* PathLeaf(char const* path) {
  size_t start = strlen(path);
  if (start != 0) --start;
  while (start != 0 && path[start - 1] != '/') --start;
  return path + start;
}

// Reads `size` bytes into a new array; what the file has no more of is zero. Absent when there
// is no memory.
unsigned char* ReadBytes(int descriptor, unsigned long size, char const* path,
                         const FaultReceiver& faults) {
  auto* const bytes = new (std::nothrow) unsigned char[size];
  if (!bytes) return nullptr;
  unsigned long filled = 0;
  while (filled != size) {
    const ssize_t count =
        read(descriptor, bytes + filled, std::min(size - filled, kGreatestTransfer));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      faults.Report(path, count < 0 ? errno : kFileBecameShorter);
      memset(bytes + filled, 0, size - filled);
      break;
    }
    filled += static_cast<unsigned long>(count);
  }
  return bytes;
}

fileChunk* CreateFileSource(char const* path, char const* name, const FaultReceiver& faults) {
  struct stat status = {};
  const int descriptor = OpenRegularFile(path, O_RDONLY, status);
  if (descriptor < 0) return faults.LeaveOut(path, errno);
  const auto size = static_cast<unsigned long>(status.st_size);
  fileChunk* node = CreateNode(name);
  if (node) {
    node->size = size & kLow32Bits;
    node->data = ReadBytes(descriptor, node->size, path, faults);
    if (!node->data) DeleteFileChunks(node);
  }
  close(descriptor);
  if (!node) return faults.LeaveOut(path, ENOMEM);
  if (node->size != size) faults.Report(path, EFBIG);
  return node;
}

// Overwrites memory that is about to be freed. To the compiler the empty assembly reads it all,
// so the stores are not dead.
void Scrub(char* memory, size_t size) {
  memset(memory, kScrubCharacter, size);
  asm volatile("" : : "r"(memory) : "memory");
}

fileChunk* CreateChildSource(char const* parentPath, char const* name,
                             const DirectoryBeingRead* enclosing, const FaultReceiver& faults) {
  const size_t parentLength = strlen(parentPath);
  const size_t capacity = parentLength + strlen(name) + 2;
  char* const path = new (std::nothrow) char[capacity];
  if (!path) return faults.LeaveOut(parentPath, ENOMEM);
  memcpy(path, parentPath, parentLength + 1);
  PlatformAppendPathLeaf(path, static_cast<unsigned int>(capacity), name);
  fileChunk* const child = CreateSource(path, enclosing, faults);
  Scrub(path, capacity);
  delete[] path;
  return child;
}

fileChunk* CreateChildSources(DIR* directory, char const* path, const DirectoryBeingRead* enclosing,
                              const FaultReceiver& faults) {
  fileChunk* head = nullptr;
  fileChunk** link = &head;
  errno = 0;
  while (const dirent* const entry = readdir(directory)) {
    if (PlatformFilenameAllowed(entry->d_name)) {
      *link = CreateChildSource(path, entry->d_name, enclosing, faults);
      if (*link) link = &(*link)->next;
    }
    errno = 0;
  }
  if (errno != 0) faults.Report(path, errno);
  return head;
}

fileChunk* CreateDirectorySource(DIR* directory, char const* path,
                                 const DirectoryBeingRead* enclosing, const FaultReceiver& faults) {
  struct stat status = {};
  if (fstat(dirfd(directory), &status) != 0) return faults.LeaveOut(path, errno);
  if (IsBeingRead(status, enclosing)) return faults.LeaveOut(path, ELOOP);
  fileChunk* const node = CreateNode(PathLeaf(path));
  if (!node) return faults.LeaveOut(path, ENOMEM);
  const DirectoryBeingRead self = {status.st_dev, status.st_ino, enclosing};
  node->isDirectory = true;
  node->children = CreateChildSources(directory, path, &self, faults);
  return node;
}

fileChunk* CreateSource(char const* path, const DirectoryBeingRead* enclosing,
                        const FaultReceiver& faults) {
  DIR* const directory = opendir(path);
  if (!directory) return CreateFileSource(path, PathLeaf(path), faults);
  fileChunk* const node = CreateDirectorySource(directory, path, enclosing, faults);
  closedir(directory);
  return node;
}

// ---- Sink

// One path that a walk extends by a leaf and cuts back again; it grows as needed.
class WalkPath {
 public:
  explicit WalkPath(char const* start) {
    const size_t length = strlen(start);
    if (Reserve(length + 1)) memcpy(text_, start, length + 1);
  }
  ~WalkPath() { delete[] text_; }
  WalkPath(const WalkPath&) = delete;
  WalkPath& operator=(const WalkPath&) = delete;

  // Absent when there was no memory for the path to begin with.
  char const* Text() const { return text_; }
  size_t Length() const { return strlen(text_); }
  void CutTo(size_t length) { text_[length] = '\0'; }

  // False, with the path as it was, when there is no memory for the longer one.
  bool AppendLeaf(char const* leaf) {
    if (!leaf) return true;
    if (!Reserve(Length() + strlen(leaf) + 2)) return false;
    PlatformAppendPathLeaf(text_, static_cast<unsigned int>(capacity_), leaf);
    return true;
  }

 private:
  bool Reserve(size_t needed) {
    if (needed <= capacity_) return true;
    const size_t capacity = needed < kUsualPathCapacity ? kUsualPathCapacity : needed * 2;
    char* const text = new (std::nothrow) char[capacity];
    if (!text) return false;
    if (text_) memcpy(text, text_, capacity_);
    delete[] text_;
    text_ = text;
    capacity_ = capacity;
    return true;
  }

  char* text_ = nullptr;
  size_t capacity_ = 0;
};

bool IsLink(char const* path) {
  struct stat status = {};
  return lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

void WriteList(WalkPath& path, fileChunk* list) {
  const size_t parentLength = path.Length();
  for (fileChunk* node = list; node; node = node->next) {
    if (!path.AppendLeaf(node->name)) continue;
    if (node->isDirectory) {
      const bool isCreated = PlatformCreateDirectory(path.Text());
      // A link that was left behind may lead anywhere. Only the caller's own path may be one.
      const bool isBelow = path.Length() != parentLength;
      if (isCreated || !isBelow || !IsLink(path.Text())) WriteList(path, node->children);
    } else {
      PlatformWriteFile(path.Text(), node->data,
                        static_cast<unsigned int>(node->size & kLow32Bits));
    }
    path.CutTo(parentLength);
  }
}

void WriteBytes(int descriptor, unsigned char const* bytes, size_t count) {
  while (count != 0) {
    const ssize_t written = write(descriptor, bytes, std::min(count, kGreatestTransfer));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes += written;
    count -= static_cast<size_t>(written);
  }
}

}  // namespace

fileChunk* PlatformCreateSourceFromPath(char const* path) {
  return PlatformCreateSourceFromPath(path, nullptr, nullptr);
}

fileChunk* PlatformCreateSourceFromPath(char const* path, SourceFaultHandler* handler,
                                        void* context) {
  return path ? CreateSource(path, nullptr, {handler, context}) : nullptr;
}

fileChunk* PlatformCreateSourceFromFile(char const* path, char const* name) {
  return CreateFileSource(path, name, kNobody);
}

int PlatformCreateSourceFromFile(char const* path, void*& data, unsigned long& length) {
  struct stat status = {};
  const int descriptor = OpenRegularFile(path, O_RDONLY, status);
  if (descriptor < 0) return 0;
  const auto size = static_cast<unsigned long>(status.st_size);
  unsigned char* const bytes = ReadBytes(descriptor, size, path, kNobody);
  close(descriptor);
  if (!bytes) return 0;

  data = bytes;
  length = size;
  return 0;
}

bool PlatformGetFileSize(char const* path, unsigned long& size) {
  struct stat status = {};
  const bool found = path && stat(path, &status) == 0;
  size = found ? static_cast<unsigned long>(status.st_size) : 0;
  return found;
}

bool PlatformFilenameAllowed(char const* name) {
  return name && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
         strcmp(name, kFolderSettingsName) != 0;
}

bool PlatformWriteFileFromChunk(char const* parentPath, fileChunk* list) {
  if (!parentPath) return true;
  WalkPath path(parentPath);
  if (path.Text()) WriteList(path, list);
  return true;
}

bool PlatformCreateDirectory(char const* path) {
  if (!path || mkdir(path, kDirectoryMode) != 0) return false;
  chmod(path, kDirectoryMode);
  return true;
}

bool PlatformWriteFile(char const* path, unsigned char* bytes, unsigned int count) {
  struct stat status = {};
  const int descriptor = OpenRegularFile(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, status);
  if (descriptor < 0) return false;
  WriteBytes(descriptor, bytes, count);
  fchmod(descriptor, kFileMode);
  close(descriptor);
  return true;
}

void PlatformAppendPathLeaf(char* path, unsigned int capacity, char const* leaf) {
  if (!path || !leaf) return;
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
  if (pathLength + leafLength < capacity) memcpy(path + pathLength, leaf, leafLength + 1);
}

unsigned long PlatformGetArbitraryTimeInMS() { return 0; }

bool PlatformWriteChunkToResources(char const*, fileChunk*, char const*) { return false; }
