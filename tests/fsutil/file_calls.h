// Runs a piece of the test right before system calls on files: what another process might do at the worst moment, or an
// error that a healthy file system does not give.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace tarn::test {

enum class File_Call {
  openat,
  fstatat,
  read,
  getdents64,
  lseek,
  ftruncate,
  mkdirat,
  symlinkat,
  readlink,
  readlinkat,
  unlinkat,
  fchmod,
  fchmodat,
  fchown,
  fchownat,
  futimens,
  utimensat,
};

inline constexpr int answers_zero = -1;      // as a hook's answer: the call is not made and returns 0
inline constexpr int types_are_hidden = -2;  // of getdents64: the call is made and tells names without their types

// While it lives, each call of this kind by this thread runs the hook first, with the path it was given ("" when it
// works on a descriptor). When the hook answers a number above 0, the call is not made and fails with that errno. Calls
// that the hook makes itself are not hooked.
class On_File_Call {
 public:
  using Hook = std::function<int(const std::string &path)>;

  On_File_Call(File_Call call, Hook hook);
  ~On_File_Call();
  On_File_Call(const On_File_Call &) = delete;
  On_File_Call &operator=(const On_File_Call &) = delete;

 private:
  File_Call call_;
};

// The hook of a call that fails on one path, or on all.
inline On_File_Call::Hook fails_with(int error) {
  return [error](const std::string &) { return error; };
}
inline On_File_Call::Hook fails_on(const std::string &failing, int error) {
  return [failing, error](const std::string &path) { return path == failing ? error : 0; };
}
// Does something before the first call on a path.
inline On_File_Call::Hook once_on(const std::string &awaited, const std::function<void()> &action) {
  return [awaited, action, done = false](const std::string &path) mutable {
    if (path == awaited && !std::exchange(done, true)) action();
    return 0;
  };
}

}  // namespace tarn::test
