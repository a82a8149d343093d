#include "tests/support/held_lock.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

pid_t start_sleeper() {
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child > 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) pause();
}

}  // namespace

Held_Lock::Held_Lock(const std::string &base_name)
    : owner_(start_sleeper()),
      path_(owned_lock(base_name)),
      record_(lock_record(static_cast<int64_t>(Rough_Tick()), owner_)) {
  write_file(path_, record_);
}

Held_Lock::~Held_Lock() {
  unlink(path_.c_str());
  kill(owner_, SIGKILL);
  waitpid(owner_, nullptr, 0);
}

bool Held_Lock::is_untouched() const {
  return exists(path_) && read_file(path_) == record_;
}

}  // namespace tarn::test
