// The lock of a file, held for the life of a guard.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr int file_lock_wait_ms = 10000;

// As Get_File_Lock, and tells whose stale lock this call took away on the way: the id of a process that is gone, or 0.
int take_file_lock(const char *path, int timeout_ms, int *dead_owner);

class File_Lock {
 public:
  explicit File_Lock(const char *path)
      : path_(path), held_(take_file_lock(path, file_lock_wait_ms, &dead_owner_) == 1) {}
  ~File_Lock() {
    // A lock that was not taken is somebody else's.
    if (held_) Release_File_Lock(path_);
  }
  File_Lock(const File_Lock &) = delete;
  File_Lock &operator=(const File_Lock &) = delete;

  bool held() const { return held_; }
  int dead_owner() const { return dead_owner_; }

 private:
  const char *path_;
  int dead_owner_ = 0;
  bool held_;
};

}  // namespace tarn
