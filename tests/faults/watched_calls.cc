#include "tests/faults/watched_calls.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <exception>
#include <future>
#include <iterator>
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

// In place of the number of the argument that is a path.
constexpr int on_descriptor = -1;  // the first argument is a descriptor
constexpr int on_nothing = -2;

struct Kernel_Call {
  int number;
  Call call;
  int path_argument;
  int length_argument = -1;  // of what moves bytes, and can move half of them
};

constexpr Kernel_Call kernel_calls[] = {
    {SYS_openat, Call::open, 1},
    {SYS_openat2, Call::open, 1},
    {SYS_read, Call::read, on_descriptor, 2},
    {SYS_write, Call::write, on_descriptor, 2},
    {SYS_fsync, Call::sync, on_descriptor},
    {SYS_fdatasync, Call::sync, on_descriptor},
    {SYS_close, Call::close, on_descriptor},
    {SYS_renameat, Call::rename, 1},
    {SYS_renameat2, Call::rename, 1},
    {SYS_unlinkat, Call::unlink, 1},
    {SYS_linkat, Call::link, 1},
    {SYS_fchmod, Call::chmod, on_descriptor},
    {SYS_fchmodat, Call::chmod, 1},
    {SYS_mkdirat, Call::mkdir, 1},
    {SYS_fstat, Call::stat, on_descriptor},
    {SYS_newfstatat, Call::stat, 1},
    {SYS_statx, Call::stat, 1},
    {SYS_fcntl, Call::fcntl, on_descriptor},
    {SYS_readlinkat, Call::readlink, 1},
    {SYS_utimensat, Call::set_time, 1},
    {SYS_pipe2, Call::pipe, on_nothing},
    {SYS_splice, Call::splice, on_descriptor, 4},
    {SYS_sendfile, Call::sendfile, on_descriptor, 3},
    {SYS_ppoll, Call::poll, on_nothing},
    {SYS_pselect6, Call::poll, on_nothing},
    {SYS_socket, Call::socket, on_nothing},
    {SYS_socketpair, Call::socket, on_nothing},
    {SYS_bind, Call::bind, on_descriptor},
    {SYS_listen, Call::listen, on_descriptor},
    {SYS_connect, Call::connect, on_descriptor},
    {SYS_setsockopt, Call::set_option, on_descriptor},
    {SYS_sendto, Call::send, on_descriptor, 2},
    {SYS_sendmsg, Call::send, on_descriptor},
    {SYS_recvfrom, Call::receive, on_descriptor, 2},
    {SYS_recvmsg, Call::receive, on_descriptor},
    {SYS_ioctl, Call::ioctl, on_descriptor},
#if defined(__x86_64__)
    {SYS_open, Call::open, 0},
    {SYS_creat, Call::open, 0},
    {SYS_rename, Call::rename, 0},
    {SYS_unlink, Call::unlink, 0},
    {SYS_rmdir, Call::unlink, 0},
    {SYS_link, Call::link, 0},
    {SYS_chmod, Call::chmod, 0},
    {SYS_mkdir, Call::mkdir, 0},
    {SYS_stat, Call::stat, 0},
    {SYS_lstat, Call::stat, 0},
    {SYS_readlink, Call::readlink, 0},
    {SYS_pipe, Call::pipe, on_nothing},
    {SYS_poll, Call::poll, on_nothing},
    {SYS_select, Call::poll, on_nothing},
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
template <typename Value>
Value *handed_over(uint64_t argument) {
  const auto address = static_cast<uintptr_t>(argument);
  Value *value = nullptr;
  memcpy(&value, &address, sizeof value);
  return value;
}

// No kernel refuses that, and getaddrinfo ends the process when it is refused: an assertion counts on it.
bool gives_up_peer(const seccomp_data &data) {
  return handed_over<const sockaddr>(data.args[1])->sa_family == AF_UNSPEC;
}

std::string path_of(const Kernel_Call &known, const seccomp_data &data) {
  if (known.path_argument == on_nothing) return "";
  const char *text = known.path_argument >= 0 ? handed_over<const char>(data.args[known.path_argument]) : nullptr;
  return text != nullptr && text[0] != '\0' ? text : path_of_descriptor(static_cast<int>(data.args[0]));
}

class Watcher {
 public:
  Watcher(int listener, const std::atomic<pid_t> &counted, const std::optional<Failing_Call> &failing)
      : listener_(listener), counted_(counted), failing_(failing) {}

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
    // A program that the thread starts asks too, but its calls are its own.
    if (static_cast<pid_t>(question.pid) == counted_) decide(question.data, &reply);
    ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &reply);
  }

  void decide(const seccomp_data &data, seccomp_notif_resp *reply) {
    const Kernel_Call &known = kernel_call_of(data.nr);
    if (known.call == Call::connect && gives_up_peer(data)) return;
    run_.calls.push_back({known.call, path_of(known, data)});
    if (!failing_ || known.call != failing_->call) return;
    if (failing_->error == short_transfer && !can_be_halved(known, data)) return;
    if (++seen_ != failing_->nth) return;
    run_.failed = run_.calls.back();
    reply->flags = 0;
    if (failing_->error == short_transfer) {
      transfer_half(known, data, reply);
    } else {
      reply->error = -failing_->error;
      if (known.call == Call::close) close(static_cast<int>(data.args[0]));
    }
  }

  // Datagrams go whole or not at all. At a pipe's end a program may stand that waits for an answer of the watcher,
  // which must not wait for the program then.
  static bool can_be_halved(const Kernel_Call &known, const seccomp_data &data) {
    struct stat status = {};
    if (known.call == Call::read && fstat(static_cast<int>(data.args[0]), &status) == 0 && S_ISFIFO(status.st_mode)) {
      return false;
    }
    int type = SOCK_STREAM;
    socklen_t size = sizeof type;
    getsockopt(static_cast<int>(data.args[0]), SOL_SOCKET, SO_TYPE, &type, &size);
    return known.length_argument >= 0 && type == SOCK_STREAM;
  }

  static void transfer_half(const Kernel_Call &known, const seccomp_data &data, seccomp_notif_resp *reply) {
    auto arguments = std::to_array(data.args);
    arguments[static_cast<size_t>(known.length_argument)] /= 2;
    reply->val = syscall(data.nr, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
    if (reply->val < 0) reply->error = -errno;
  }

  const int listener_;
  const std::atomic<pid_t> &counted_;
  const std::optional<Failing_Call> &failing_;
  Watched_Run run_;
  int seen_ = 0;
};

}  // namespace

const char *name_of(Call call) {
  static constexpr const char *names[] = {
      "open",   "read", "write",  "sync",     "close",      "rename", "unlink",  "link",     "chmod",
      "mkdir",  "stat", "fcntl",  "readlink", "set time",   "pipe",   "splice",  "sendfile", "poll",
      "socket", "bind", "listen", "connect",  "set option", "send",   "receive", "ioctl"};
  static_assert(std::size(names) == std::size(all_calls));
  return names[static_cast<int>(call)];
}

std::ostream &operator<<(std::ostream &out, Call call) {
  return out << name_of(call);
}

Watched_Run run_watched(const std::function<void()> &body, const std::optional<Failing_Call> &failing) {
  std::promise<int> listener_made;
  std::atomic<pid_t> counted = 0;  // the thread, while its calls count
  std::exception_ptr trouble;
  std::thread watched([&] {
    const int listener = watch_this_thread();
    const int failure = errno;
    listener_made.set_value(listener < 0 ? -failure : listener);
    if (listener < 0) return;
    counted = gettid();
    try {
      body();
    } catch (...) {
      trouble = std::current_exception();
    }
    counted = 0;
  });
  const int listener = listener_made.get_future().get();
  Watched_Run run;
  if (listener >= 0) run = Watcher(listener, counted, failing).run();
  watched.join();
  if (listener < 0) throw std::system_error(-listener, std::generic_category(), "cannot watch system calls");
  close(listener);
  if (trouble) std::rethrow_exception(trouble);
  return run;
}

}  // namespace tarn::test
