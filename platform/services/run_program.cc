// Programs run by their argument list, never through a shell.
#include "tarncluster_util.h"

#include <errno.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// What a shell answers for a program that cannot be run, as a wait status.
constexpr int kCannotRun = 127 << 8;

// The program and the arguments behind it, ended by a null pointer; null when memory ends.
char **collect_arguments(const char *program, va_list arguments) {
  va_list counting;
  va_copy(counting, arguments);
  size_t count = 1;
  while (va_arg(counting, char *) != nullptr) ++count;
  va_end(counting);

  char **list = static_cast<char **>(calloc(count + 1, sizeof(char *)));
  if (list == nullptr) return nullptr;
  list[0] = const_cast<char *>(program);
  for (size_t i = 1; i < count; ++i) list[i] = va_arg(arguments, char *);
  return list;
}

int wait_for(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -errno;  // a caller that ignores SIGCHLD has no wait status to offer
  }
  return status;
}

}  // namespace

int pelk_exec(int, int, int, const char *program, ...) {
  if (program == nullptr) return -EINVAL;

  va_list arguments;
  va_start(arguments, program);
  char **list = collect_arguments(program, arguments);
  va_end(arguments);
  if (list == nullptr) return -ENOMEM;

  pid_t pid = 0;
  const int failure = posix_spawn(&pid, program, nullptr, nullptr, list, environ);
  free(list);
  return failure != 0 ? kCannotRun : wait_for(pid);
}
