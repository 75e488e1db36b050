#include "shared/platform/posix/EffectiveUser.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace {

constexpr gid_t kUnknownGroup = static_cast<gid_t>(-1);
// The unprivileged group of macOS; on Linux no group has this id.
constexpr gid_t kUnprivilegedGroup = static_cast<gid_t>(-2);

// initgroups(3) takes the group as an int on macOS and as a gid_t on Linux.
template <typename Group>
int InitializeGroups(int (*function)(const char*, Group), const char* name, gid_t group) {
  return function(name, static_cast<Group>(group));
}

// setgroups(2) takes the count as an int on macOS and as a size_t on Linux.
template <typename Count>
int SetGroups(int (*function)(Count, const gid_t*), int count, const gid_t* groups) {
  return function(static_cast<Count>(count), groups);
}

}  // namespace

EffectiveUser::EffectiveUser(const char* name, uid_t user, gid_t group)
    : savedUser_(geteuid()), savedGroup_(getegid()) {
  if (!SaveGroups()) {
    // Untested: it takes a failed allocation of some bytes.
    return;
  }
  isActive_ = Become(name, user, group == kUnknownGroup ? kUnprivilegedGroup : group);
  if (!isActive_) {
    Restore();
  }
}

EffectiveUser::~EffectiveUser() {
  const int error = errno;
  if (isActive_) {
    Restore();
  }
  delete[] savedGroups_;
  errno = error;
}

bool EffectiveUser::SaveGroups() {
  const int count = getgroups(0, nullptr);
  if (count < 0) {
    // Untested: a process can always read its groups.
    return false;
  }
  savedGroups_ = new (std::nothrow) gid_t[static_cast<size_t>(count) + 1];
  if (savedGroups_ == nullptr) {
    // Untested: it takes a failed allocation of some bytes.
    return false;
  }
  savedGroupCount_ = getgroups(count, savedGroups_);
  return savedGroupCount_ >= 0;
}

bool EffectiveUser::Become(const char* name, uid_t user, gid_t group) const {
  const bool isKnown = name != nullptr && getpwnam(name) != nullptr;
  const int result = isKnown ? InitializeGroups(initgroups, name, group) : setgroups(1, &group);
  return result == 0 && setegid(group) == 0 && seteuid(user) == 0;
}

// The real user id is root's all the time, so these calls do not fail.
void EffectiveUser::Restore() const {
  (void)seteuid(savedUser_);
  (void)setegid(savedGroup_);
  (void)SetGroups(setgroups, savedGroupCount_, savedGroups_);
}
