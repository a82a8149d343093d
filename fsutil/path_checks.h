// What the rooms above need of paths beyond the exported functions.
#pragma once

#include <fcntl.h>

#include "include/tarncluster_util.h"

namespace tarn {

// What the _At functions take for a folder: a descriptor, or the working directory.
inline bool is_folder_descriptor(int dir_fd) {
  return dir_fd >= 0 || dir_fd == AT_FDCWD;
}

// Fullpath for the log, which must not be handed a null pointer.
inline const char *shown_path(int fd) {
  const char *path = Fullpath(fd);
  return path != nullptr ? path : "(null)";
}

}  // namespace tarn
