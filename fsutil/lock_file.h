// The lock of a file, held for the life of a guard.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr int file_lock_wait_ms = 10000;

// What is to be done about the owner of a stale lock who is gone: called with the protected file's path just before the
// lock is taken away, while nobody can hold it.
using Dead_Owner_Action = void (*)(const char *path, int pid);

// As Get_File_Lock; the action may be null.
int take_file_lock(const char *path, int timeout_ms, Dead_Owner_Action action);

class File_Lock {
 public:
  explicit File_Lock(const char *path, Dead_Owner_Action action = nullptr)
      : path_(path), held_(take_file_lock(path, file_lock_wait_ms, action) == 1) {}
  ~File_Lock() {
    // A lock that was not taken is somebody else's.
    if (held_) Release_File_Lock(path_);
  }
  File_Lock(const File_Lock &) = delete;
  File_Lock &operator=(const File_Lock &) = delete;

  bool held() const { return held_; }

 private:
  const char *path_;
  bool held_;
};

}  // namespace tarn
