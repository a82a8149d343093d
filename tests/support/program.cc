#include "tests/support/program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

namespace tarn::test {
namespace {

constexpr int patience_ms = 60'000;

void require(int error, const std::string &what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

void close_end(int &end) {
  if (end >= 0) close(std::exchange(end, -1));
}

// Starts a program on these ends of pipes. A test may ignore SIGPIPE: programs are to find it as usual.
pid_t spawn(const std::vector<std::string> &words, int input, int output) {
  std::vector<char *> arguments;
  for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  sigset_t usual;
  sigemptyset(&usual);
  sigaddset(&usual, SIGPIPE);

  posix_spawn_file_actions_t ends;
  posix_spawn_file_actions_init(&ends);
  posix_spawn_file_actions_adddup2(&ends, input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&ends, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&ends, output, STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigdefault(&attributes, &usual);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int error = posix_spawnp(&pid, arguments[0], &ends, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&ends);
  require(error, words[0]);
  return pid;
}

}  // namespace

Program::Program(std::initializer_list<std::string> words) {
  int to[2], from[2];
  if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) require(errno, "pipe");
  input_ = to[1];
  output_end_ = from[0];
  pid_ = spawn(words, to[0], from[1]);
  close(to[0]);
  close(from[1]);
}

Program::~Program() {
  close_end(input_);
  close_end(output_end_);
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Program::write(const std::string &text) const {
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = ::write(input_, text.data() + done, text.size() - done);
    if (count < 0) require(errno, "write to a program");
    done += static_cast<size_t>(count);
  }
}

void Program::end_input() {
  close_end(input_);
}

bool Program::read_more() {
  pollfd end{output_end_, POLLIN, 0};
  if (poll(&end, 1, patience_ms) != 1) return false;
  char buffer[4096];
  const ssize_t count = read(output_end_, buffer, sizeof buffer);
  if (count <= 0) return false;
  output_.append(buffer, static_cast<size_t>(count));
  return true;
}

bool Program::prints(const std::string &text) {
  while (output_.find(text) == std::string::npos) {
    if (!read_more()) return false;
  }
  return true;
}

int Program::wait() {
  while (read_more()) {
  }
  for (int waited_ms = 0; waited_ms < patience_ms; waited_ms += 10) {
    int status = -1;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    usleep(10'000);
  }
  return -1;
}

}  // namespace tarn::test
