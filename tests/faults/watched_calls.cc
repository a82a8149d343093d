#include "tests/faults/watched_calls.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <exception>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace tarn::test {
namespace {

#if defined(__x86_64__)
constexpr unsigned this_machine = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned this_machine = AUDIT_ARCH_AARCH64;
#endif

struct Kernel_Call {
  int number;
  Call call;
  int path_argument;  // -1: the first argument is a descriptor
};

constexpr Kernel_Call kernel_calls[] = {
    {SYS_openat, Call::open, 1},     {SYS_openat2, Call::open, 1},    {SYS_read, Call::read, -1},
    {SYS_write, Call::write, -1},    {SYS_fsync, Call::sync, -1},     {SYS_fdatasync, Call::sync, -1},
    {SYS_close, Call::close, -1},    {SYS_renameat, Call::rename, 1}, {SYS_renameat2, Call::rename, 1},
    {SYS_unlinkat, Call::unlink, 1}, {SYS_linkat, Call::link, 1},     {SYS_fchmod, Call::chmod, -1},
    {SYS_fchmodat, Call::chmod, 1},  {SYS_mkdirat, Call::mkdir, 1},   {SYS_fstat, Call::stat, -1},
    {SYS_newfstatat, Call::stat, 1}, {SYS_statx, Call::stat, 1},      {SYS_fcntl, Call::fcntl, -1},
#if defined(__x86_64__)
    {SYS_open, Call::open, 0},       {SYS_creat, Call::open, 0},      {SYS_rename, Call::rename, 0},
    {SYS_unlink, Call::unlink, 0},   {SYS_rmdir, Call::unlink, 0},    {SYS_link, Call::link, 0},
    {SYS_chmod, Call::chmod, 0},     {SYS_mkdir, Call::mkdir, 0},     {SYS_stat, Call::stat, 0},
    {SYS_lstat, Call::stat, 0},
#endif
};

const Kernel_Call &kernel_call_of(int number) {
  for (const Kernel_Call &known : kernel_calls) {
    if (known.number == number) return known;
  }
  throw std::logic_error("a call that was not asked for");
}

[[noreturn]] void fail(const char *what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Asks this process about each of the watched calls that the calling thread makes from now on; the descriptor on which
// it asks. The questions end with the thread.
int watch_this_thread() {
  std::vector<sock_filter> program = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, this_machine, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const Kernel_Call &known : kernel_calls) {
    program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(known.number), 0, 1));
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

std::string path_of_descriptor(int fd) {
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  char path[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return length < 0 ? "" : std::string(path, static_cast<size_t>(length));
}

// The watched thread shares this one's memory and descriptors, so what it hands to the kernel can be looked at.
std::string path_of(const Kernel_Call &known, const seccomp_data &data) {
  const char *text = nullptr;
  if (known.path_argument >= 0) {
    const auto address = static_cast<uintptr_t>(data.args[known.path_argument]);
    memcpy(&text, &address, sizeof text);
  }
  return text != nullptr && text[0] != '\0' ? text : path_of_descriptor(static_cast<int>(data.args[0]));
}

class Watcher {
 public:
  Watcher(int listener, const std::atomic<bool> &counts, const std::optional<Failing_Call> &failing)
      : listener_(listener), counts_(counts), failing_(failing) {}

  // Answers the questions until the watched thread has ended.
  Watched_Run run() {
    for (;;) {
      pollfd waiting = {listener_, POLLIN, 0};
      if (poll(&waiting, 1, -1) < 0 && errno != EINTR) fail("poll");
      if ((waiting.revents & POLLIN) != 0) {
        answer();
      } else if (waiting.revents != 0) {
        return std::move(run_);
      }
    }
  }

 private:
  void answer() {
    seccomp_notif question = {};
    if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &question) != 0) {
      if (errno == ENOENT || errno == EINTR) return;  // the thread is gone
      fail("seccomp");
    }
    seccomp_notif_resp reply = {};
    reply.id = question.id;
    reply.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (counts_) decide(question.data, &reply);
    ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &reply);
  }

  void decide(const seccomp_data &data, seccomp_notif_resp *reply) {
    const Kernel_Call &known = kernel_call_of(data.nr);
    run_.calls.push_back({known.call, path_of(known, data)});
    if (!failing_ || known.call != failing_->call || ++seen_ != failing_->nth) return;
    run_.failed = run_.calls.back();
    reply->flags = 0;
    if (failing_->error == short_transfer) {
      reply->val = transfer_half(data);
    } else {
      reply->error = -failing_->error;
      if (known.call == Call::close) close(static_cast<int>(data.args[0]));
    }
  }

  static long transfer_half(const seccomp_data &data) {
    return syscall(data.nr, data.args[0], data.args[1], data.args[2] / 2);
  }

  const int listener_;
  const std::atomic<bool> &counts_;
  const std::optional<Failing_Call> &failing_;
  Watched_Run run_;
  int seen_ = 0;
};

}  // namespace

const char *name_of(Call call) {
  static constexpr const char *names[] = {"open",   "read", "write", "sync",  "close", "rename",
                                          "unlink", "link", "chmod", "mkdir", "stat",  "fcntl"};
  return names[static_cast<int>(call)];
}

std::ostream &operator<<(std::ostream &out, Call call) {
  return out << name_of(call);
}

Watched_Run run_watched(const std::function<void()> &body, const std::optional<Failing_Call> &failing) {
  std::promise<int> listener_made;
  std::atomic<bool> counts = false;
  std::exception_ptr trouble;
  std::thread watched([&] {
    const int listener = watch_this_thread();
    const int failure = errno;
    listener_made.set_value(listener < 0 ? -failure : listener);
    if (listener < 0) return;
    counts = true;
    try {
      body();
    } catch (...) {
      trouble = std::current_exception();
    }
    counts = false;
  });
  const int listener = listener_made.get_future().get();
  Watched_Run run;
  if (listener >= 0) run = Watcher(listener, counts, failing).run();
  watched.join();
  if (listener < 0) throw std::system_error(-listener, std::generic_category(), "cannot watch system calls");
  close(listener);
  if (trouble) std::rethrow_exception(trouble);
  return run;
}

}  // namespace tarn::test
