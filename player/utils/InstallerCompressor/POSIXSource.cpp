#include "player/utils/InstallerCompressor/POSIXInstallerCompressor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "shared/platform/posix/RegularFile.h"
#include "shared/platform/posix/Transfer.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

constexpr char kFolderSettingsName[] = ".DS_Store";
constexpr char kScrubCharacter = 'X';

// The directories that are being read, innermost first.
struct DirectoryBeingRead {
  dev_t device;
  ino_t file;
  const DirectoryBeingRead* enclosing;
};

// The caller's functions, which filter entries and receive faults.
struct SourceCaller {
  SourceFilter* filter;
  SourceFaultHandler* handler;
  void* context;

  bool Wants(const char* path) const { return !filter || filter(path, context); }

  void Report(const char* path, int error) const {
    if (handler) {
      handler(path, error, context);
    }
  }
  fileChunk* LeaveOut(const char* path, int error) const {
    Report(path, error);
    return nullptr;
  }
};

constexpr SourceCaller kNoFunctions = {nullptr, nullptr, nullptr};

fileChunk* CreateSource(const char* path, const DirectoryBeingRead* enclosing,
                        const SourceCaller& caller);

bool IsBeingRead(const struct stat& directory, const DirectoryBeingRead* innermost) {
  for (const DirectoryBeingRead* entry = innermost; entry; entry = entry->enclosing) {
    if (entry->device == directory.st_dev && entry->file == directory.st_ino) {
      return true;
    }
  }
  return false;
}

// Returns a node with its own copy of the name; absent when memory runs out.
fileChunk* CreateNode(const char* name) {
  auto* node = new (std::nothrow) fileChunk;
  if (!node || !name) {
    return node;
  }
  const size_t size = strlen(name) + 1;
  node->name = new (std::nothrow) char[size];
  if (node->name) {
    memcpy(node->name, name, size);
  } else {
    DeleteFileChunks(node);
  }
  return node;
}

// Returns the text after the last '/' that is not the final character, or the whole path without
// one.
const char* PathLeaf(const char* path) {
  size_t start = strlen(path);
  if (start != 0) {
    --start;
  }
  while (start != 0 && path[start - 1] != '/') {
    --start;
  }
  return path + start;
}

// Opens a regular file. Returns -1 with errno set on failure.
int OpenSource(const char* path, struct stat& status) {
  if (path == nullptr) {
    errno = ENOENT;
    return -1;
  }
  return OpenRegularFile(path, O_RDONLY, 0, FileNames::kAny, &status);
}

// Reads `size` bytes into a new array; bytes that the file does not have are zero. Absent when
// memory runs out.
unsigned char* ReadNewArray(int descriptor, unsigned long size, const char* path,
                            const SourceCaller& caller) {
  auto* const bytes = new (std::nothrow) unsigned char[size];
  if (bytes == nullptr) {
    return nullptr;
  }
  size_t filled = 0;
  const int error = ReadBytes(descriptor, bytes, size, filled);
  if (filled != size) {
    caller.Report(path, error);
    memset(bytes + filled, 0, size - filled);
  }
  return bytes;
}

fileChunk* CreateFileSource(const char* path, const char* name, const SourceCaller& caller) {
  struct stat status = {};
  const int descriptor = OpenSource(path, status);
  if (descriptor < 0) {
    return caller.LeaveOut(path, errno);
  }
  const auto size = static_cast<unsigned long>(status.st_size);
  fileChunk* node = CreateNode(name);
  if (node) {
    node->size = static_cast<unsigned int>(size);
    node->data = ReadNewArray(descriptor, node->size, path, caller);
    if (!node->data) {
      DeleteFileChunks(node);
    }
  }
  close(descriptor);
  if (!node) {
    return caller.LeaveOut(path, ENOMEM);
  }
  if (node->size != size) {
    caller.Report(path, EFBIG);
  }
  return node;
}

// Overwrites memory that is about to be freed. The empty assembly statement keeps the compiler from
// removing the stores.
void Scrub(char* memory, size_t size) {
  memset(memory, kScrubCharacter, size);
  asm volatile("" : : "r"(memory) : "memory");
}

fileChunk* CreateChildSource(const char* parentPath, const char* name,
                             const DirectoryBeingRead* enclosing, const SourceCaller& caller) {
  const size_t parentLength = strlen(parentPath);
  const size_t capacity = parentLength + strlen(name) + 2;
  char* const path = new (std::nothrow) char[capacity];
  if (!path) {
    return caller.LeaveOut(parentPath, ENOMEM);
  }
  memcpy(path, parentPath, parentLength + 1);
  PlatformAppendPathLeaf(path, static_cast<unsigned int>(capacity), name);
  fileChunk* const child = caller.Wants(path) ? CreateSource(path, enclosing, caller) : nullptr;
  Scrub(path, capacity);
  delete[] path;
  return child;
}

fileChunk* CreateChildSources(DIR* directory, const char* path, const DirectoryBeingRead* enclosing,
                              const SourceCaller& caller) {
  fileChunk* head = nullptr;
  fileChunk** link = &head;
  errno = 0;
  while (const dirent* const entry = readdir(directory)) {
    if (PlatformFilenameAllowed(entry->d_name)) {
      *link = CreateChildSource(path, entry->d_name, enclosing, caller);
      if (*link) {
        link = &(*link)->next;
      }
    }
    errno = 0;
  }
  if (errno != 0) {
    caller.Report(path, errno);
  }
  return head;
}

fileChunk* CreateDirectorySource(DIR* directory, const char* path,
                                 const DirectoryBeingRead* enclosing, const SourceCaller& caller) {
  struct stat status = {};
  if (fstat(dirfd(directory), &status) != 0) {
    return caller.LeaveOut(path, errno);
  }
  if (IsBeingRead(status, enclosing)) {
    return caller.LeaveOut(path, ELOOP);
  }
  fileChunk* const node = CreateNode(PathLeaf(path));
  if (!node) {
    return caller.LeaveOut(path, ENOMEM);
  }
  const DirectoryBeingRead self = {status.st_dev, status.st_ino, enclosing};
  node->isDirectory = true;
  node->children = CreateChildSources(directory, path, &self, caller);
  return node;
}

fileChunk* CreateSource(const char* path, const DirectoryBeingRead* enclosing,
                        const SourceCaller& caller) {
  DIR* const directory = Uninterrupted([&] { return opendir(path); });
  if (!directory) {
    return CreateFileSource(path, PathLeaf(path), caller);
  }
  fileChunk* const node = CreateDirectorySource(directory, path, enclosing, caller);
  closedir(directory);
  return node;
}

}  // namespace

fileChunk* PlatformCreateSourceFromPath(const char* path) {
  return PlatformCreateSourceFromPath(path, nullptr, nullptr, nullptr);
}

fileChunk* PlatformCreateSourceFromPath(const char* path, SourceFilter* filter,
                                        SourceFaultHandler* handler, void* context) {
  return path ? CreateSource(path, nullptr, {filter, handler, context}) : nullptr;
}

fileChunk* PlatformCreateSourceFromFile(const char* path, const char* name) {
  return CreateFileSource(path, name, kNoFunctions);
}

fileChunk* PlatformCreateSourceFromDescriptor(int descriptor, int& error) {
  struct stat status = {};
  if (fstat(descriptor, &status) != 0) {
    error = errno;
    return nullptr;
  }
  if (static_cast<unsigned long>(status.st_size) > kMaximumBlobLength) {
    error = EFBIG;
    return nullptr;
  }
  fileChunk* node = CreateNode(nullptr);
  if (node != nullptr) {
    node->size = static_cast<unsigned long>(status.st_size);
    node->data = new (std::nothrow) unsigned char[node->size];
  }
  if (node == nullptr || node->data == nullptr) {
    DeleteFileChunks(node);
    error = ENOMEM;
    return nullptr;
  }
  size_t filled = 0;
  error = ReadBytes(descriptor, node->data, node->size, filled);
  if (filled != node->size) {
    DeleteFileChunks(node);
  }
  return node;
}

int PlatformCreateSourceFromFile(const char* path, void*& data, unsigned long& length) {
  struct stat status = {};
  const int descriptor = OpenSource(path, status);
  if (descriptor < 0) {
    return 0;
  }
  const auto size = static_cast<unsigned long>(status.st_size);
  unsigned char* const bytes = ReadNewArray(descriptor, size, path, kNoFunctions);
  close(descriptor);
  if (!bytes) {
    return 0;
  }

  data = bytes;
  length = size;
  return 0;
}

bool PlatformGetFileSize(const char* path, unsigned long& size) {
  struct stat status = {};
  const bool found = path && stat(path, &status) == 0;
  size = found ? static_cast<unsigned long>(status.st_size) : 0;
  return found;
}

bool PlatformFilenameAllowed(const char* name) {
  return name && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
         strcmp(name, kFolderSettingsName) != 0;
}
