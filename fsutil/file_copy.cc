#include "fsutil/file_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "foundation/owners.h"
#include "foundation/report.h"
#include "fsutil/bulk_transfer.h"
#include "fsutil/path_checks.h"

namespace tarn {
namespace {

constexpr char copy_file_name[] = "Copy_File_At";
constexpr char copy_link_name[] = "Copy_Symlink_At";
constexpr char copy_folder_name[] = "Copy_Folder_At";

constexpr mode_t file_mode_bits = 0777;  // set-id bits are not copied
constexpr mode_t folder_mode_bits = 07777;

bool are_place_arguments(int source_fd, const char *source, int destination_fd, const char *destination) {
  return is_folder_descriptor(source_fd) && source != nullptr && is_folder_descriptor(destination_fd) &&
         destination != nullptr;
}

// The status of a place, unless it is known.
int look_at(const Place &place, const struct stat *known, struct stat *status) {
  if (known != nullptr) {
    *status = *known;
    return 0;
  }
  return fstatat(place.dir_fd, place.name, status, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : -errno;
}

// Never waits for a FIFO's other end, and sees when something else has taken the name since it was looked at: another
// file is copied as what it is, for programs replace theirs by renaming. A link that was named by the caller is
// followed.
int open_source(const Place &source, struct stat *status, Descriptor *opened) {
  const bool is_link = S_ISLNK(status->st_mode);
  const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC | (is_link ? 0 : O_NOFOLLOW);
  Descriptor file(openat(source.dir_fd, source.name, flags));
  int failure = file ? 0 : -errno;
  struct stat now;
  if (failure == 0 && fstat(file.get(), &now) != 0) failure = -errno;
  if (failure == 0 && !is_link && !is_same_file(now, *status)) {
    if (!S_ISREG(now.st_mode)) failure = -ESTALE;
    *status = now;
  }
  if (failure == 0) *opened = std::move(file);
  if (failure != 0) {
    TARN_ERROR_AS(copy_file_name, "Can't open the source file %s error! (%d, %d)", source.shown, failure, -failure);
  }
  return failure;
}

// A file that is there is emptied only when it turns out to be another than the source. It is still made when the name
// is that of a link which leads nowhere.
int open_existing(const Place &destination, int flags, mode_t mode, int source_fd, Descriptor *opened) {
  Descriptor file(openat(destination.dir_fd, destination.name, flags | O_NONBLOCK, mode));
  if (!file) return -errno;
  struct stat source;
  struct stat found;
  if (fstat(source_fd, &source) != 0 || fstat(file.get(), &found) != 0) return -errno;
  if (is_same_file(source, found)) return -EINVAL;
  if (found.st_size > 0 && ftruncate(file.get(), 0) != 0) return -errno;
  *opened = std::move(file);
  return 0;
}

int open_destination(const Place &destination, mode_t mode, bool in_tree, int source_fd, Descriptor *opened) {
  const int flags = O_WRONLY | O_CREAT | O_NOATIME | O_CLOEXEC | (in_tree ? O_NOFOLLOW : 0);
  Descriptor file(openat(destination.dir_fd, destination.name, flags | O_EXCL, mode));
  int failure = file ? 0 : -errno;
  if (failure == 0) *opened = std::move(file);
  if (failure == -EEXIST) failure = open_existing(destination, flags, mode, source_fd, opened);
  if (failure != 0) {
    TARN_ERROR_AS(copy_file_name, "Can't open the destination file %s error! (%d)", destination.shown, failure);
  }
  return failure;
}

int set_attributes(int fd, const struct stat &status) {
  if (fchmod(fd, status.st_mode & file_mode_bits) != 0) return -errno;
  if (fchown(fd, status.st_uid, status.st_gid) != 0) return -errno;
  const timespec times[] = {status.st_mtim, status.st_mtim};
  return futimens(fd, times) == 0 ? 0 : -errno;
}

int copy_content(const Place &source, const Place &destination, const struct stat *known, const Copy_Job &job) {
  struct stat status;
  int result = look_at(source, known, &status);
  if (result != 0) {
    TARN_ERROR_AS(copy_file_name, "Can't stat the source file %s error! (%d)", source.shown, result);
    return result;
  }
  Descriptor in;
  result = open_source(source, &status, &in);
  if (result != 0) return result;
  Descriptor out;
  result = open_destination(destination, status.st_mode & file_mode_bits, job.in_tree, in.get(), &out);
  if (result == 0) result = copy_data(in.get(), out.get(), status.st_size, job.buffer, job.abort, job.counter);
  return result == 0 ? set_attributes(out.get(), status) : result;
}

// Whether one name is the other's, or a link to it.
bool is_same_place(const Place &source, const Place &destination) {
  for (const int flags : {0, AT_SYMLINK_NOFOLLOW}) {
    struct stat a;
    struct stat b;
    if (fstatat(source.dir_fd, source.name, &a, flags) == 0 &&
        fstatat(destination.dir_fd, destination.name, &b, flags) == 0 && is_same_file(a, b)) {
      return true;
    }
  }
  return false;
}

int make_link(const Place &destination, const char *target) {
  if (symlinkat(target, destination.dir_fd, destination.name) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(copy_link_name, "symlinkat(%s, %d, %s) error! (%d)", target, destination.shown_fd, destination.shown,
                failure);
  return failure;
}

int set_link_attributes(const Place &destination, const struct stat &status) {
  const int timed = set_modified_time(destination.dir_fd, destination.name, status.st_mtim);
  if (timed != 0) {
    TARN_ERROR_AS(copy_link_name, "Can't utimensat(%d, %s) error! (%d)", destination.shown_fd, destination.shown,
                  timed);
  }
  if (fchownat(destination.dir_fd, destination.name, status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(copy_link_name, "Can't fchownat(%d, %s, %d, %d) error! (%d)", destination.shown_fd, destination.shown,
                static_cast<int>(status.st_uid), static_cast<int>(status.st_gid), failure);
  return failure;
}

// Mode and owner are best effort; the time is the result.
int set_folder_attributes(const Place &destination, const struct stat &status) {
  const mode_t mode = status.st_mode & folder_mode_bits;
  // Not behind a link that somebody has put at the new folder's place.
  if (fchmodat(destination.dir_fd, destination.name, mode, AT_SYMLINK_NOFOLLOW) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(copy_folder_name, "Can't fchmodat the folder (%d, %s, %o) error! (%d)", destination.shown_fd,
                  destination.shown, mode, failure);
  }
  if (fchownat(destination.dir_fd, destination.name, status.st_uid, status.st_gid, AT_SYMLINK_NOFOLLOW) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(copy_folder_name, "Can't fchownat the folder (%d, %s, %d, %d) error! (%d)", destination.shown_fd,
                  destination.shown, static_cast<int>(status.st_uid), static_cast<int>(status.st_gid), failure);
  }
  const int timed = set_modified_time(destination.dir_fd, destination.name, status.st_mtim);
  if (timed != 0) {
    TARN_ERROR_AS(copy_folder_name, "Can't chtime the folder (%d, %s) error! (%d)", destination.shown_fd,
                  destination.shown, timed);
  }
  return timed;
}

}  // namespace

int set_modified_time(int dir_fd, const char *path, const timespec &modified) {
  return Set_File_Modified_Time_At(dir_fd, path, static_cast<unsigned int>(modified.tv_nsec),
                                   static_cast<unsigned int>(modified.tv_sec), AT_SYMLINK_NOFOLLOW);
}

int copy_file(const Place &source, const Place &destination, const struct stat *status, const Copy_Job &job) {
  const int result = copy_content(source, destination, status, job);
  // Nothing half-written stays; but the source itself is not removed, whatever has failed.
  if ((result < 0 || job.abort.is_set()) && !is_same_place(source, destination)) {
    unlinkat(destination.dir_fd, destination.name, 0);
  }
  return result;
}

int copy_symlink(const Place &source, const Place &destination, const struct stat *known) {
  struct stat status;
  const int looked = look_at(source, known, &status);
  if (looked != 0) {
    TARN_DEBUG_AS(copy_link_name, "Can't stat a symbolic link (%d,%s) error! (%d)", source.shown_fd, source.shown,
                  looked);
    return looked;
  }
  char target[PATH_MAX];
  const ssize_t length = readlinkat(source.dir_fd, source.name, target, sizeof target - 1);
  if (length < 0) {
    const int failure = -errno;
    TARN_DEBUG_AS(copy_link_name, "Can't read a symbolic link (%d,%s) error! (%d)", source.shown_fd, source.shown,
                  failure);
    return failure;
  }
  target[length] = '\0';
  const int made = make_link(destination, target);
  return made == 0 ? set_link_attributes(destination, status) : made;
}

int copy_folder(const Place &source, const Place &destination, const struct stat *known) {
  struct stat status;
  const int looked = look_at(source, known, &status);
  if (looked != 0) {
    TARN_DEBUG_AS(copy_folder_name, "Can't stat a folder (%d,%s) error! (%d)", source.shown_fd, source.shown, looked);
    return looked;
  }
  const mode_t mode = status.st_mode & folder_mode_bits;
  if (mkdirat(destination.dir_fd, destination.name, mode) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(copy_folder_name, "Can't mkdirat the folder (%d, %s, %o) error! (%d)", destination.shown_fd,
                  destination.shown, mode, failure);
    return failure;
  }
  return set_folder_attributes(destination, status);
}

}  // namespace tarn

int Copy_File_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination,
                 unsigned int *abort_flag, uint64_t *counter) {
  if (!tarn::are_place_arguments(source_dir_fd, source, destination_dir_fd, destination) || abort_flag == nullptr) {
    return -EINVAL;
  }
  const tarn::Abort_Flag abort(abort_flag);
  char buffer[tarn::copy_buffer_size];
  return tarn::copy_file({source_dir_fd, source}, {destination_dir_fd, destination}, nullptr,
                         {buffer, abort, counter, false});
}

int Copy_File(const char *source, const char *destination, unsigned int *abort_flag, uint64_t *counter) {
  return Copy_File_At(AT_FDCWD, source, AT_FDCWD, destination, abort_flag, counter);
}

int Copy_Symlink_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination) {
  if (!tarn::are_place_arguments(source_dir_fd, source, destination_dir_fd, destination)) return -EINVAL;
  return tarn::copy_symlink({source_dir_fd, source}, {destination_dir_fd, destination}, nullptr);
}

int Copy_Symlink(const char *source, const char *destination) {
  return Copy_Symlink_At(AT_FDCWD, source, AT_FDCWD, destination);
}

int Copy_Folder_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination) {
  if (!tarn::are_place_arguments(source_dir_fd, source, destination_dir_fd, destination)) return -EINVAL;
  return tarn::copy_folder({source_dir_fd, source}, {destination_dir_fd, destination}, nullptr);
}

int Copy_Folder(const char *source, const char *destination) {
  return Copy_Folder_At(AT_FDCWD, source, AT_FDCWD, destination);
}

int Remove_File_At(int dir_fd, const char *name) {
  if (!tarn::is_folder_descriptor(dir_fd) || name == nullptr) return -EINVAL;
  return unlinkat(dir_fd, name, 0) == 0 ? 0 : -errno;
}

int Remove_File(const char *name) {
  return Remove_File_At(AT_FDCWD, name);
}
