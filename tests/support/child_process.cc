#include "tests/support/child_process.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <system_error>

namespace tarn::test {
namespace {

constexpr uid_t nobody = 65534;

void require(bool done, const std::string &what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

int run_and_tell(const std::function<void()> &body) {
  try {
    body();
  } catch (const std::exception &exception) {
    fprintf(stderr, "in a child: %s\n", exception.what());
    return 1;
  }
  return testing::Test::HasFailure() ? 1 : 0;
}

void leave_the_mounts_of_the_others() {
  require(unshare(CLONE_NEWNS) == 0, "unshare");
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
}

}  // namespace

bool on_a_throw_away_root() {
  std::ifstream mounts("/proc/self/mounts");
  for (std::string line; std::getline(mounts, line);) {
    if (line.starts_with("tarn-appliance / ")) return true;
  }
  return false;
}

int in_child(const std::function<void()> &body) {
  fflush(nullptr);
  const pid_t child = fork();
  require(child >= 0, "fork");
  if (child == 0) {
    alarm(60);
    const int result = run_and_tell(body);
    fflush(nullptr);
    _exit(result);
  }
  int status = -1;
  require(waitpid(child, &status, 0) == child, "waitpid");
  return status;
}

void become_nobody() {
  require(setgroups(0, nullptr) == 0 && setgid(nobody) == 0 && setuid(nobody) == 0, "become nobody");
}

As_Nobody::As_Nobody() {
  // The real user counts too when a process asks to signal another; the saved one is the way back.
  require(setgroups(0, nullptr) == 0 && setresuid(nobody, nobody, 0) == 0, "become nobody");
}

As_Nobody::~As_Nobody() {
  if (setresuid(0, 0, 0) != 0) abort();
}

void mount_tmpfs(const std::string &path, const std::string &options) {
  leave_the_mounts_of_the_others();
  require(mount("none", path.c_str(), "tmpfs", 0, options.c_str()) == 0, "tmpfs on " + path);
}

void make_read_only(const std::string &path) {
  require(mount("none", path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0, "read-only " + path);
}

}  // namespace tarn::test
