#include "shared/platform/posix/Removal.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "shared/platform/posix/FolderWalk.h"
#include "shared/platform/posix/Uninterrupted.h"

namespace {

// More levels than a payload can have, and few enough for the stack.
constexpr unsigned int kMaximumDepth = 1024;

constexpr uid_t kRoot = 0;

bool IsDots(const char* name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

// The names of a folder's items, each with its NUL, one after the other. All names are read before
// the first item is removed: readdir(3) does not define which names it returns from a folder that
// changes.
class FolderNames {
 public:
  FolderNames() = default;
  ~FolderNames() { free(names_); }
  FolderNames(const FolderNames&) = delete;
  FolderNames& operator=(const FolderNames&) = delete;

  // Reads the names in the working directory. Returns 0, or an errno value when some are missing.
  int Read();

  const char* First() const { return names_; }
  const char* End() const { return names_ + length_; }

 private:
  bool Append(const char* name);

  char* names_ = nullptr;
  size_t length_ = 0;
  size_t capacity_ = 0;
};

int FolderNames::Read() {
  DIR* const folder = Uninterrupted([] { return opendir("."); });
  if (folder == nullptr) {
    return errno;
  }
  int error = 0;
  errno = 0;
  while (const dirent* const entry = readdir(folder)) {
    if (!IsDots(entry->d_name) && !Append(entry->d_name)) {
      // Untested: it takes a failed allocation.
      error = ENOMEM;
      break;
    }
    errno = 0;
  }
  if (error == 0) {
    error = errno;
  }
  closedir(folder);
  return error;
}

bool FolderNames::Append(const char* name) {
  const size_t size = strlen(name) + 1;
  if (length_ + size > capacity_) {
    const size_t capacity = (length_ + size) * 2;
    auto* const names = static_cast<char*>(realloc(names_, capacity));
    if (names == nullptr) {
      // Untested: it takes a failed allocation.
      return false;
    }
    names_ = names;
    capacity_ = capacity;
  }
  memcpy(names_ + length_, name, size);
  length_ += size;
  return true;
}

class TreeRemoval {
 public:
  explicit TreeRemoval(FolderWalk& walk) : walk_(walk), result_() {}

  // Each of these removes the item `name` of the folder that the walk is in, and counts it if it
  // stays. `depth` is the number of folders between that folder and the item to be removed.
  void Remove(const char* name, unsigned int depth);
  void RemoveFile(const char* name, unsigned int depth);
  void RemoveFolder(const char* name, unsigned int depth);
  void Refuse(int error);
  const RemovalResult& Result() const { return result_; }

  // Sets the owner of the root. If it is not root, folders of third users are not entered.
  void TrustOwner(uid_t owner) { owner_ = owner; }
  bool IsTrusted(uid_t owner) const { return owner_ == kRoot || owner == owner_ || owner == kRoot; }

 private:
  void RemoveBy(int (*function)(const char*), const char* name, unsigned int depth);
  void Empty(const char* name, unsigned int depth);
  int EmptyHere(const FolderIdentity& parent, unsigned int depth);

  FolderWalk& walk_;
  RemovalResult result_;
  uid_t owner_ = kRoot;
  // True once the walk could not return to the parent folder: nothing more may be removed.
  bool isLost_ = false;
};

void TreeRemoval::Refuse(int error) {
  if (error == ENOENT) {
    return;
  }
  if (result_.refused == 0) {
    result_.error = error;
  }
  ++result_.refused;
}

// Clears the flags of the item `name`; of a link itself, not of its target. Returns whether it
// could. A file with another name elsewhere keeps its flags, because that name may belong to
// another user.
//
// Another user may replace the item before the flags are cleared, but only by an item that this
// user can move there. That cannot be an item that a third user has locked: a locked item can be
// neither renamed nor linked.
bool Unlock(const char* name) {
  struct stat status = {};
  if (lstat(name, &status) != 0 || (!S_ISDIR(status.st_mode) && status.st_nlink != 1)) {
    return false;
  }
  return Uninterrupted([&] { return lchflags(name, 0); }) == 0;
}

// Calls `function` with `name`. If that fails because the item is locked, or its folder, which is
// to be removed too, clears the lock and calls `function` again.
void TreeRemoval::RemoveBy(int (*function)(const char*), const char* name, unsigned int depth) {
  const auto remove = [&] { return function(name); };
  if (Uninterrupted(remove) == 0) {
    return;
  }
  const int error = errno;
  if (error == EPERM) {
    const bool isItemUnlocked = Unlock(name);
    const bool isFolderUnlocked = depth > 0 && Unlock(".");
    if ((isItemUnlocked || isFolderUnlocked) && Uninterrupted(remove) == 0) {
      return;
    }
  }
  Refuse(error);
}

void TreeRemoval::RemoveFile(const char* name, unsigned int depth) {
  RemoveBy(unlink, name, depth);
}

void TreeRemoval::RemoveFolder(const char* name, unsigned int depth) {
  RemoveBy(rmdir, name, depth);
}

void TreeRemoval::Remove(const char* name, unsigned int depth) {
  struct stat status = {};
  if (lstat(name, &status) != 0) {
    Refuse(errno);
    return;
  }
  if (!S_ISDIR(status.st_mode)) {
    RemoveFile(name, depth);
    return;
  }
  const unsigned long refusedBefore = result_.refused;
  Empty(name, depth);
  // If an item in the folder stays, that item is counted already, and the folder is not tried.
  if (result_.refused == refusedBefore && !isLost_) {
    RemoveFolder(name, depth);
  }
}

void TreeRemoval::Empty(const char* name, unsigned int depth) {
  if (depth == kMaximumDepth) {
    Refuse(ELOOP);
    return;
  }
  const FolderIdentity parent = walk_.Here();
  if (!walk_.Enter(name)) {
    Refuse(errno);
    return;
  }
  const int error = EmptyHere(parent, depth);
  if (error != 0) {
    Refuse(error);
  }
  if (!isLost_ && !walk_.Return(parent)) {
    isLost_ = true;
    Refuse(errno);
  }
}

// Removes everything in the folder that the walk is in. Returns 0, or an errno value when the
// folder cannot be listed or must not be emptied.
int TreeRemoval::EmptyHere(const FolderIdentity& parent, unsigned int depth) {
  if (!IsTrusted(walk_.Owner())) {
    return EPERM;
  }
  if (walk_.Here().device != parent.device) {
    return EBUSY;
  }
  FolderNames names;
  const int error = names.Read();
  for (const char* item = names.First(); item != names.End() && !isLost_;
       item += strlen(item) + 1) {
    Remove(item, depth + 1);
  }
  return error;
}

// Goes to the folder that holds the item at `path` below `root`. Returns the item's name, or null
// with errno set, to ENOENT where there cannot be such an item.
const char* GoToItem(FolderWalk& walk, TreeRemoval& removal, const char* root, const char* path) {
  if (!walk.Start(root)) {
    return nullptr;
  }
  removal.TrustOwner(walk.Owner());
  const char* const name = walk.EnterFolderOf(path);
  if (name == nullptr) {
    errno = errno == ENOTDIR ? ENOENT : errno;
    return nullptr;
  }
  if (!removal.IsTrusted(walk.Owner())) {
    errno = EPERM;
    return nullptr;
  }
  return name;
}

template <typename Remover>
RemovalResult RemoveItem(const char* root, const char* path, Remover remove) {
  FolderWalk walk;
  TreeRemoval removal(walk);
  const char* const name = GoToItem(walk, removal, root, path);
  if (name != nullptr) {
    remove(removal, name);
  } else {
    removal.Refuse(errno);
  }
  return removal.Result();
}

}  // namespace

RemovalResult RemoveTree(const char* root, const char* path) {
  return RemoveItem(root, path,
                    [](TreeRemoval& removal, const char* name) { removal.Remove(name, 0); });
}

RemovalResult RemoveFileOrEmptyFolder(const char* root, const char* path) {
  return RemoveItem(root, path, [](TreeRemoval& removal, const char* name) {
    struct stat status = {};
    if (lstat(name, &status) != 0) {
      removal.Refuse(errno);
    } else if (S_ISDIR(status.st_mode)) {
      removal.RemoveFolder(name, 0);
    } else {
      removal.RemoveFile(name, 0);
    }
  });
}
