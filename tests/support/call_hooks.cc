#include "tests/support/call_hooks.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

using tarn::test::System_Call;

thread_local System_Call awaited;
thread_local int countdown = 0;
thread_local std::function<int()> pending;

bool is_awaited(System_Call call) {
  if (awaited != System_Call::name_change) return call == awaited;
  return call == System_Call::rename || call == System_Call::link || call == System_Call::unlink;
}

// Whether the call goes on; errno tells why not.
bool proceeds(System_Call call) {
  if (countdown == 0 || !is_awaited(call) || --countdown > 0) return true;
  const std::function<int()> hook = std::exchange(pending, nullptr);
  const int error = hook();
  if (error != 0) errno = error;
  return error == 0;
}

template <typename... Arguments>
int run(System_Call call, long number, Arguments... arguments) {
  return proceeds(call) ? static_cast<int>(syscall(number, arguments...)) : -1;
}

}  // namespace

extern "C" {

int kill(pid_t pid, int signal) noexcept {
  return run(System_Call::kill, SYS_kill, pid, signal);
}

int rename(const char *from, const char *to) noexcept {
  return run(System_Call::rename, SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0U);
}

int renameat(int from_fd, const char *from, int to_fd, const char *to) noexcept {
  return run(System_Call::rename, SYS_renameat2, from_fd, from, to_fd, to, 0U);
}

int renameat2(int from_fd, const char *from, int to_fd, const char *to, unsigned int flags) noexcept {
  return run(System_Call::rename, SYS_renameat2, from_fd, from, to_fd, to, flags);
}

int link(const char *from, const char *to) noexcept {
  return run(System_Call::link, SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0);
}

int linkat(int from_fd, const char *from, int to_fd, const char *to, int flags) noexcept {
  return run(System_Call::link, SYS_linkat, from_fd, from, to_fd, to, flags);
}

int unlink(const char *path) noexcept {
  return run(System_Call::unlink, SYS_unlinkat, AT_FDCWD, path, 0);
}

int nanosleep(const timespec *time, timespec *rest) {
  return run(System_Call::nanosleep, SYS_clock_nanosleep, CLOCK_MONOTONIC, 0, time, rest);
}

}  // extern "C"

namespace tarn::test {

Before_Call::Before_Call(System_Call call, int nth, std::function<int()> hook) {
  awaited = call;
  pending = [happened = happened_, hook = std::move(hook)] {
    *happened = true;
    return hook();
  };
  countdown = nth;
}

Before_Call::~Before_Call() {
  countdown = 0;
  pending = nullptr;
}

}  // namespace tarn::test
