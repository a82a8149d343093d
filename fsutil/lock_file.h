// The lock of a file, held for the life of a guard.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr int file_lock_wait_ms = 10000;

class File_Lock {
 public:
  explicit File_Lock(const char *path) : path_(path), held_(Get_File_Lock(path, file_lock_wait_ms) == 1) {}
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
