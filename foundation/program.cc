#include "foundation/program.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace tarn {
namespace {

class Spawn_Actions {
 public:
  Spawn_Actions() { posix_spawn_file_actions_init(&actions_); }
  ~Spawn_Actions() { posix_spawn_file_actions_destroy(&actions_); }
  Spawn_Actions(const Spawn_Actions &) = delete;
  Spawn_Actions &operator=(const Spawn_Actions &) = delete;

  posix_spawn_file_actions_t *get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

// What a shell would report on its own, with nothing printed.
bool means_not_runnable(int failure) {
  return failure != EAGAIN && failure != ENOMEM;
}

}  // namespace

int Program::start(const char *const arguments[]) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return -errno;
  Descriptor read_end(ends[0]);
  const Descriptor write_end(ends[1]);

  Spawn_Actions actions;
  int failure = posix_spawn_file_actions_adddup2(actions.get(), write_end.get(), STDOUT_FILENO);
  if (failure == 0) {
    failure = posix_spawn(&pid_, arguments[0], actions.get(), nullptr, const_cast<char *const *>(arguments), environ);
  }
  if (failure != 0) {
    pid_ = -1;
    return means_not_runnable(failure) ? 0 : -failure;
  }
  output_.reset(fdopen(read_end.get(), "re"));
  if (output_ == nullptr) return -ENOMEM;
  read_end.release();
  return 0;
}

bool Program::read_line(char *buffer, int size) {
  return output_ != nullptr && fgets(buffer, size, output_.get()) != nullptr;
}

Program::~Program() {
  output_.reset();
  while (pid_ > 0 && waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) continue;
}

}  // namespace tarn
