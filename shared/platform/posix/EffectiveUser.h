// Acting with the rights of another user.
#pragma once

#include <sys/types.h>

/// While the object exists, the process, which runs as root, has the effective user id, group id
/// and supplementary groups of another user. It can then open only what that user may open, and
/// files that it creates belong to that user. The ids are those of all threads, so no other thread
/// may depend on root's.
class EffectiveUser {
 public:
  /// Sets the effective ids to `user` and `group`, and the supplementary groups to those of the
  /// user `name` in the system's databases, or to `group` alone if `name` is null or has no passwd
  /// entry. If `group` is (gid_t)-1, unknown, (gid_t)-2 is used, the unprivileged group of macOS.
  EffectiveUser(const char* name, uid_t user, gid_t group);
  /// Restores the previous ids and groups. Does not change errno.
  ~EffectiveUser();
  EffectiveUser(const EffectiveUser&) = delete;
  EffectiveUser& operator=(const EffectiveUser&) = delete;

  /// Returns false when the ids could not be set; they are then unchanged.
  bool IsActive() const { return isActive_; }

 private:
  bool SaveGroups();
  bool Become(const char* name, uid_t user, gid_t group) const;
  void Restore() const;

  const uid_t savedUser_;
  const gid_t savedGroup_;
  gid_t* savedGroups_ = nullptr;
  int savedGroupCount_ = 0;
  bool isActive_ = false;
};
