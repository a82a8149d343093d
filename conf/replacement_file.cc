#include "conf/replacement_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/report.h"

namespace tarn {
namespace {

// What a process left that died while it replaced the file.
void remove_left_behind(const char *path, int dead_owner) {
  Temporary_File left_behind;
  if (left_behind.set_name(path) == 0) Druvo_Really_Unlink(left_behind.name());
  if (left_behind.set_name(path, dead_owner) == 0) Druvo_Really_Unlink(left_behind.name());
}

}  // namespace

Kept_Mode kept_mode(const char *path) {
  struct stat status;
  if (lstat(path, &status) != 0) return {};
  if (S_ISLNK(status.st_mode) && stat(path, &status) != 0) return {};
  return {true, status.st_mode & 07777};
}

int restore_mode(const char *function, const char *path, const Kept_Mode &mode) {
  if (!mode.known || chmod(path, mode.bits) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't chmod to %s! (%d)", path, failure);
  return failure;
}

Temporary_File::~Temporary_File() {
  if (exists_) Druvo_Really_Unlink(name_);
}

int Temporary_File::set_name(const char *path, int number) {
  const int length = number < 0 ? snprintf(name_, sizeof name_, "%s.tmp", path)
                                : snprintf(name_, sizeof name_, "%s.tmp.%d", path, number);
  return length < 0 || static_cast<size_t>(length) >= sizeof name_ ? -ENAMETOOLONG : 0;
}

Stream Temporary_File::open(const Kept_Mode &mode) {
  if (Druvo_Really_Unlink(name_) != 0 && errno != ENOENT) return nullptr;
  const mode_t bits = mode.known ? mode.bits & 0666 : 0666;
  Descriptor file(::open(name_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, bits));
  if (!file) return nullptr;
  exists_ = true;
  Stream stream(fdopen(file.get(), "w"));
  if (stream) file.release();
  return stream;
}

int Temporary_File::rename_to(const char *path) {
  if (rename(name_, path) != 0) return -errno;
  exists_ = false;
  return 0;
}

Replacement_Lock::Replacement_Lock(const char *path) : File_Lock(path, remove_left_behind) {}

int finish_stream(Stream stream) {
  FILE *file = stream.release();
  int trouble = ferror(file) != 0 ? (errno != 0 ? errno : EIO) : 0;
  if (fflush(file) != 0 && trouble == 0) trouble = errno;
  // A pipe or a device cannot be synchronised, which is no trouble.
  if (trouble == 0 && fdatasync(fileno(file)) != 0 && errno != EINVAL) trouble = errno;
  if (fclose(file) != 0 && trouble == 0) trouble = errno;
  return -trouble;
}

}  // namespace tarn
