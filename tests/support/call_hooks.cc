#include "tests/support/call_hooks.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <optional>
#include <type_traits>
#include <utility>

namespace {

using tarn::test::Before_Call;
using tarn::test::System_Call;

thread_local System_Call awaited;
thread_local int countdown = 0;
thread_local std::function<int()> pending;

bool is_awaited(System_Call call) {
  if (awaited != System_Call::name_change) return call == awaited;
  return call == System_Call::rename || call == System_Call::link || call == System_Call::unlink;
}

// The hook runs without a hook of its own.
int run_hook() {
  const bool stays = countdown == Before_Call::every;
  countdown = 0;
  const std::function<int()> hook = std::exchange(pending, nullptr);
  const int answer = hook();
  if (stays) {
    pending = hook;
    countdown = Before_Call::every;
  }
  return answer;
}

// What stands in for the call, with errno; nothing when the call goes on.
std::optional<int> substitute(System_Call call) {
  if (countdown == 0 || !is_awaited(call) || (countdown > 0 && --countdown > 0)) return {};
  const int answer = run_hook();
  if (answer == 0) return {};
  if (answer == Before_Call::answers_zero) return 0;
  errno = answer;
  return -1;
}

template <typename... Arguments>
int run(System_Call call, long number, Arguments... arguments) {
  const auto result = substitute(call);
  return result ? *result : static_cast<int>(syscall(number, arguments...));
}

// The function that would be called if it were not defined here: a sanitizer's, which checks the buffers, or the C
// library's.
template <typename Result, typename... Parameters>
Result run_next(System_Call call, const char *name, Result (*declared)(Parameters...),
                std::type_identity_t<Parameters>... arguments) {
  if (const auto result = substitute(call)) return static_cast<Result>(*result);
  return reinterpret_cast<decltype(declared)>(dlsym(RTLD_NEXT, name))(arguments...);
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

int chmod(const char *path, mode_t mode) noexcept {
  return run(System_Call::chmod, SYS_fchmodat, AT_FDCWD, path, mode);
}

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void *const argument = va_arg(arguments, void *);  // any argument there is, a number too
  va_end(arguments);
  return run(System_Call::fcntl, SYS_fcntl, fd, command, argument);
}

int pipe2(int fds[2], int flags) noexcept {
  return run_next(System_Call::pipe2, "pipe2", pipe2, fds, flags);
}

int poll(pollfd *entries, nfds_t count, int timeout_ms) {
  return run_next(System_Call::poll, "poll", poll, entries, count, timeout_ms);
}

ssize_t write(int fd, const void *buffer, size_t length) {
  return run_next(System_Call::write, "write", write, fd, buffer, length);
}

int socket(int family, int type, int protocol) noexcept {
  return run_next(System_Call::socket, "socket", socket, family, type, protocol);
}

int setsockopt(int fd, int level, int name, const void *value, socklen_t length) noexcept {
  return run_next(System_Call::setsockopt, "setsockopt", setsockopt, fd, level, name, value, length);
}

int bind(int fd, const sockaddr *address, socklen_t length) noexcept {
  return run_next(System_Call::bind, "bind", bind, fd, address, length);
}

int listen(int fd, int backlog) noexcept {
  return run_next(System_Call::listen, "listen", listen, fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t length) {
  return run_next(System_Call::connect, "connect", connect, fd, address, length);
}

ssize_t send(int fd, const void *buffer, size_t length, int flags) {
  return run_next(System_Call::send, "send", send, fd, buffer, length, flags);
}

ssize_t recv(int fd, void *buffer, size_t length, int flags) {
  return run_next(System_Call::recv, "recv", recv, fd, buffer, length, flags);
}

ssize_t sendfile(int destination_fd, int source_fd, off_t *offset, size_t length) noexcept {
  return run_next(System_Call::sendfile, "sendfile", sendfile, destination_fd, source_fd, offset, length);
}

ssize_t splice(int from_fd, off64_t *from, int to_fd, off64_t *to, size_t length, unsigned int flags) {
  return run_next(System_Call::splice, "splice", splice, from_fd, from, to_fd, to, length, flags);
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
