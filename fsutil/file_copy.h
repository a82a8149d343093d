// Copying single files, links and folders, for the exported functions and for the walk over a tree.
#pragma once

#include <sys/stat.h>

#include "fsutil/abort_flag.h"
#include "include/tarncluster_util.h"

namespace tarn {

// A name in an open folder, and how the log shows it.
struct Place {
  int dir_fd;
  const char *name;
  int shown_fd;
  const char *shown;

  Place(int fd, const char *given) : Place(fd, given, fd, given) {}
  Place(int fd, const char *given, int fd_in_log, const char *path_in_log)
      : dir_fd(fd), name(given), shown_fd(fd_in_log), shown(path_in_log) {}
};

// What copies share. In a tree, a link that somebody put at a file's place is not followed.
struct Copy_Job {
  char *buffer;  // copy_buffer_size bytes
  const Abort_Flag &abort;
  uint64_t *counter;
  bool in_tree;
};

// The status of the source is given when it is known.
int copy_file(const Place &source, const Place &destination, const struct stat *status, const Copy_Job &job);
int copy_symlink(const Place &source, const Place &destination, const struct stat *status);
int copy_folder(const Place &source, const Place &destination, const struct stat *status);

// Modification time, for Set_File_Modified_Time_At, which keeps 32 bits.
int set_modified_time(int dir_fd, const char *path, const timespec &modified);

inline bool is_same_file(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace tarn
