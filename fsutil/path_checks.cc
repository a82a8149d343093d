#include "fsutil/path_checks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace tarn {
namespace {

// One buffer for the process: callers keep the pointer and expect the next call to change the text behind it.
char full_path[PATH_MAX];

int status_of(int result) {
  return result == 0 ? 0 : -errno;
}

}  // namespace
}  // namespace tarn

int Get_Filename(const char *path, const char **name) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  const char *slash = strrchr(path, '/');
  *name = slash != nullptr ? slash + 1 : path;
  return 0;
}

int Get_FD_Path(int fd, char *buffer, int size) {
  if (buffer == nullptr || size < 0 || fd < 0) return -EINVAL;

  char link[40];
  snprintf(link, sizeof link, "/proc/%d/fd/%d", getpid(), fd);
  const ssize_t length = readlink(link, buffer, static_cast<size_t>(size));
  if (length >= 0) return static_cast<int>(length);
  return errno == ENOENT ? -EINVAL : -errno;
}

const char *Fullpath(int fd) {
  const int length = Get_FD_Path(fd, tarn::full_path, sizeof tarn::full_path - 1);
  if (length < 0) return nullptr;
  tarn::full_path[length] = '\0';
  return tarn::full_path;
}

int Set_File_Time_At(int dir_fd, const char *path, const struct timespec *times, int flags) {
  if (!tarn::is_folder_descriptor(dir_fd) || path == nullptr || times == nullptr) return -EINVAL;
  return tarn::status_of(utimensat(dir_fd, path, times, flags));
}

int Set_File_Modified_Time_At(int dir_fd, const char *path, unsigned int nanoseconds, unsigned int seconds, int flags) {
  const timespec moment = {.tv_sec = seconds, .tv_nsec = nanoseconds};
  const timespec times[] = {moment, moment};
  return Set_File_Time_At(dir_fd, path, times, flags);
}

int Is_Folder(const char *path) {
  if (path == nullptr) return -EINVAL;
  struct stat status;
  if (stat(path, &status) != 0) return -errno;
  return S_ISDIR(status.st_mode) ? 1 : 0;
}

int Check_Folder_At(int dir_fd, const char *path, unsigned int *flag) {
  if (!tarn::is_folder_descriptor(dir_fd) || path == nullptr || flag == nullptr) return -EINVAL;
  struct stat status;
  if (fstatat(dir_fd, path, &status, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  *flag = S_ISDIR(status.st_mode) ? 1 : 0;
  return 0;
}

int Check_Folder(const char *path, unsigned int *flag) {
  return Check_Folder_At(AT_FDCWD, path, flag);
}

int Check_File_At(int dir_fd, const char *path) {
  if (!tarn::is_folder_descriptor(dir_fd) || path == nullptr) return -EINVAL;
  struct stat status;
  if (fstatat(dir_fd, path, &status, AT_SYMLINK_NOFOLLOW) == 0) return 1;
  return errno == ENOENT ? 0 : -errno;
}

int Check_File(const char *path) {
  return Check_File_At(AT_FDCWD, path);
}

int Get_File_Size(const char *path, uint64_t *size) {
  if (path == nullptr || size == nullptr) return -EINVAL;
  struct stat status;
  if (stat(path, &status) != 0) return -errno;
  *size = static_cast<uint64_t>(status.st_size);
  return 0;
}
