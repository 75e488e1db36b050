// Locking the payload blob, so that only one finalizer at a time unpacks it.
#pragma once

/// Result of locking the blob.
enum class BlobLockResult {
  /// It is locked.
  kLocked,
  /// It does not exist. Another process may have removed it during the wait.
  kMissing,
  /// It cannot be opened for reading or is not a regular file.
  kUnreadable,
  /// It is open, but could not be locked.
  kNotLocked,
};

/// An advisory lock (flock(2)) on the payload blob, released by the destructor.
///
/// Any user who may read the blob can lock it and keep it locked, so the wait has a limit; after
/// that the caller continues without the lock.
class BlobLock {
 public:
  /// Number of attempts to lock the blob, and the pause between two of them, in microseconds:
  /// together one minute.
  static constexpr unsigned int kAttempts = 1201;
  static constexpr unsigned int kPause = 50000;

  BlobLock() = default;
  ~BlobLock();
  BlobLock(const BlobLock&) = delete;
  BlobLock& operator=(const BlobLock&) = delete;

  /// Opens the blob at `path` and locks it. While another process holds the lock, waits for up to a
  /// minute; each attempt opens the file that is at `path` then. A link to a regular file is
  /// followed. Call it once per object.
  BlobLockResult Take(const char* path);

  /// Returns the descriptor of the open blob, with the position at its start; -1 unless Take()
  /// returned kLocked or kNotLocked. This object closes it.
  int Descriptor() const { return descriptor_; }

  /// Why the blob could not be opened or locked: an errno value, EWOULDBLOCK when another process
  /// has held the lock for too long.
  int Error() const { return error_; }

 private:
  BlobLockResult Try(const char* path);
  void Close();

  int descriptor_ = -1;
  int error_ = 0;
};
