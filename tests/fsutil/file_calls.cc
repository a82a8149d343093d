#include "tests/fsutil/file_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <optional>
#include <type_traits>
#include <utility>

namespace {

using tarn::test::File_Call;
using tarn::test::On_File_Call;

constexpr size_t kinds = static_cast<size_t>(File_Call::utimensat) + 1;
thread_local On_File_Call::Hook hooks[kinds];
thread_local bool in_a_hook = false;
thread_local bool hide_types = false;

// What stands in for the call, with errno; nothing when the call goes on.
std::optional<int> substitute(File_Call call, const char *path) {
  const On_File_Call::Hook &hook = hooks[static_cast<size_t>(call)];
  if (in_a_hook || hook == nullptr) return {};
  const int before = errno;
  in_a_hook = true;
  const int answer = hook(path);
  in_a_hook = false;
  errno = answer > 0 ? answer : before;
  hide_types = answer == tarn::test::types_are_hidden;
  if (answer == 0 || answer == tarn::test::types_are_hidden) return {};
  return answer == tarn::test::answers_zero ? 0 : -1;
}

// The function that would be called if it were not defined here: a sanitizer's, or the C library's.
template <typename Result, typename... Parameters>
Result run_next(File_Call call, const char *path, const char *name, Result (*declared)(Parameters...),
                std::type_identity_t<Parameters>... arguments) {
  if (const auto result = substitute(call, path)) return static_cast<Result>(*result);
  return reinterpret_cast<decltype(declared)>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {

int openat(int fd, const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  if (const auto result = substitute(File_Call::openat, path)) return *result;
  static const auto real = reinterpret_cast<int (*)(int, const char *, int, mode_t)>(dlsym(RTLD_NEXT, "openat"));
  return real(fd, path, flags, mode);
}

int fstatat(int fd, const char *path, struct stat *status, int flags) noexcept {
  return run_next(File_Call::fstatat, path, "fstatat", fstatat, fd, path, status, flags);
}

ssize_t read(int fd, void *buffer, size_t size) {
  return run_next(File_Call::read, "", "read", read, fd, buffer, size);
}

ssize_t getdents64(int fd, void *buffer, size_t size) noexcept {
  hide_types = false;
  const ssize_t length = run_next(File_Call::getdents64, "", "getdents64", getdents64, fd, buffer, size);
  for (ssize_t position = 0; hide_types && position < length;) {
    auto *entry = reinterpret_cast<dirent64 *>(static_cast<char *>(buffer) + position);
    entry->d_type = DT_UNKNOWN;
    position += entry->d_reclen;
  }
  return length;
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
  return run_next(File_Call::lseek, "", "lseek", lseek, fd, offset, whence);
}

int ftruncate(int fd, off_t length) noexcept {
  return run_next(File_Call::ftruncate, "", "ftruncate", ftruncate, fd, length);
}

int mkdirat(int fd, const char *path, mode_t mode) noexcept {
  return run_next(File_Call::mkdirat, path, "mkdirat", mkdirat, fd, path, mode);
}

int symlinkat(const char *target, int fd, const char *path) noexcept {
  return run_next(File_Call::symlinkat, path, "symlinkat", symlinkat, target, fd, path);
}

ssize_t readlink(const char *path, char *buffer, size_t size) noexcept {
  return run_next(File_Call::readlink, path, "readlink", readlink, path, buffer, size);
}

ssize_t readlinkat(int fd, const char *path, char *buffer, size_t size) noexcept {
  return run_next(File_Call::readlinkat, path, "readlinkat", readlinkat, fd, path, buffer, size);
}

int unlinkat(int fd, const char *path, int flags) noexcept {
  return run_next(File_Call::unlinkat, path, "unlinkat", unlinkat, fd, path, flags);
}

int fchmod(int fd, mode_t mode) noexcept {
  return run_next(File_Call::fchmod, "", "fchmod", fchmod, fd, mode);
}

int fchmodat(int fd, const char *path, mode_t mode, int flags) noexcept {
  return run_next(File_Call::fchmodat, path, "fchmodat", fchmodat, fd, path, mode, flags);
}

int fchown(int fd, uid_t user, gid_t group) noexcept {
  return run_next(File_Call::fchown, "", "fchown", fchown, fd, user, group);
}

int fchownat(int fd, const char *path, uid_t user, gid_t group, int flags) noexcept {
  return run_next(File_Call::fchownat, path, "fchownat", fchownat, fd, path, user, group, flags);
}

int futimens(int fd, const timespec times[2]) noexcept {
  return run_next(File_Call::futimens, "", "futimens", futimens, fd, times);
}

int utimensat(int fd, const char *path, const timespec times[2], int flags) noexcept {
  return run_next(File_Call::utimensat, path, "utimensat", utimensat, fd, path, times, flags);
}

}  // extern "C"

namespace tarn::test {

On_File_Call::On_File_Call(File_Call call, Hook hook) : call_(call) {
  hooks[static_cast<size_t>(call)] = std::move(hook);
}

On_File_Call::~On_File_Call() {
  hooks[static_cast<size_t>(call_)] = nullptr;
}

}  // namespace tarn::test
