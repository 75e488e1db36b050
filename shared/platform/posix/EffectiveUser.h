// Acting with the rights of another user.
#pragma once

#include <sys/types.h>

/// Gives the process, which runs as root, the effective user id, group id and supplementary groups
/// of another user while the object exists. Only files that this user may open can be opened then,
/// and new files belong to the user. The ids apply to the whole process: no other thread may rely
/// on them.
class EffectiveUser {
 public:
  /// Takes the ids `user` and `group`, and the supplementary groups of the user `name` from the
  /// system's databases; only `group` if `name` is null or has no passwd entry. If `group` is
  /// unknown, (gid_t)-1, the group of the user nobody, (gid_t)-2, is used.
  EffectiveUser(const char* name, uid_t user, gid_t group);
  /// Restores the previous ids and groups. Does not change errno.
  ~EffectiveUser();
  EffectiveUser(const EffectiveUser&) = delete;
  EffectiveUser& operator=(const EffectiveUser&) = delete;

  /// Returns false when the process may not act as that user; its ids are then unchanged.
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
