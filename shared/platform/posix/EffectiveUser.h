// Acting with the rights of another user.
#pragma once

#include <sys/types.h>

/// Gives the process, which runs as root, the effective user id, group id and supplementary groups
/// of another user while the object exists. What is opened or created meanwhile is what that user
/// may open, and belongs to the user. The ids are the whole process's: no other thread may rely on
/// them.
class EffectiveUser {
 public:
  /// The user is called `name`, whose groups the system's databases list; a name without a passwd
  /// entry, or a null one, has `group` alone. An unknown group, (gid_t)-1, stands for nobody's.
  EffectiveUser(const char* name, uid_t user, gid_t group);
  /// Restores the ids and groups from before. Leaves errno as it is.
  ~EffectiveUser();
  EffectiveUser(const EffectiveUser&) = delete;
  EffectiveUser& operator=(const EffectiveUser&) = delete;

  /// False when the process may not act as that user; its ids are then what they were.
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
