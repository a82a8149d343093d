// tarncluster-handler: the process in which the members' command handlers are loaded, and from which the processes are
// forked that carry the commands out. A handler that crashes or hangs takes nothing else with it.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "platform/clusterd/handler_orders.h"
#include "platform/clusterd/io.h"
#include "platform/clusterd/log.h"
#include "tarncluster_util.h"

namespace tarn::platform {
namespace {

using Handler = char *(*)(const char *argument);

// A process ends after so many commands, and with it what their handlers may have left in its memory.
constexpr int kCommandsOfProcess = 100;

struct Running {
  uint64_t id;
  Descriptor socket;
};

// ------------------------------------------------------------------------------------------ the process of a command

// The library itself must define the function: dlsym would also find it in what the library is linked with.
Handler find_handler(const std::vector<void *> &libraries, const char *name) {
  for (void *library : libraries) {
    void *function = dlsym(library, name);
    Dl_info info;
    link_map *owner = nullptr;
    if (function != nullptr && dladdr1(function, &info, reinterpret_cast<void **>(&owner), RTLD_DL_LINKMAP) != 0 &&
        owner == static_cast<link_map *>(library)) {
      return reinterpret_cast<Handler>(function);
    }
  }
  return nullptr;
}

Message answer_command(const std::vector<void *> &libraries, const Message &request) {
  const Handler handler = find_handler(libraries, request.text.c_str());
  if (handler == nullptr) return reply_of(-ENOSYS);
  char *text = handler(request.more.c_str());
  if (text == nullptr) return reply_of(-EPROTO);
  const Message answer = reply_of(0, text);
  free(text);
  return fits(answer) ? answer : reply_of(-EMSGSIZE);
}

// Nothing of the host's stays open but the three standard streams and the command's socket.
int keep_only(int fd) {
  if (dup2(fd, kHandlerOrdersFd) < 0) return -errno;
  close_range(kHandlerOrdersFd + 1, ~0U, 0);
  return fcntl(kHandlerOrdersFd, F_SETFD, FD_CLOEXEC) == 0 ? 0 : -errno;
}

// As the subreaper it also has what its children left behind. Such a process takes no further command: what runs on
// must not end with the group of a command that is late.
bool has_children() {
  return waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

// True when the process can take a further one.
bool serve_one(const std::vector<void *> &libraries) {
  const Deadline no_deadline = deadline_after(0);
  Message request;
  if (receive_message(kHandlerOrdersFd, &request, no_deadline) != 0) return false;
  const Message answer = answer_command(libraries, request);
  return send_message(kHandlerOrdersFd, answer, no_deadline) == 0 && answer.value == 0 && !has_children();
}

[[noreturn]] void serve_commands(const std::vector<void *> &libraries, int fd) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  int left = keep_only(fd) == 0 ? kCommandsOfProcess : 0;
  while (left > 0 && serve_one(libraries)) {
    fflush(nullptr);
    if (--left > 0 && send_exactly(kHandlerOrdersFd, kReady, deadline_after(0)) != 0) break;
  }
  fflush(nullptr);
  _exit(0);
}

// ------------------------------------------------------------------------------------------------------------ the host

class Host {
 public:
  explicit Host(std::vector<void *> libraries) : libraries_(std::move(libraries)) {}

  // Returns when the service is gone.
  int serve();

 private:
  bool take_order();
  void start_process(uint64_t id, Descriptor socket);
  void end_command(uint64_t id);
  void reap_commands();
  void kill_all();

  const std::vector<void *> libraries_;
  std::map<pid_t, Running> running_;
};

int Host::serve() {
  sigset_t children;
  sigemptyset(&children);
  sigaddset(&children, SIGCHLD);
  sigprocmask(SIG_BLOCK, &children, nullptr);
  const Descriptor signals(signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals) return 1;

  for (;;) {
    pollfd entries[] = {{kHandlerOrdersFd, POLLIN, 0}, {signals.get(), POLLIN, 0}};
    if (poll(entries, 2, -1) < 0 && errno != EINTR) break;
    if (entries[1].revents != 0) {
      signalfd_siginfo ignored;
      while (read(signals.get(), &ignored, sizeof(ignored)) > 0) continue;
      reap_commands();
    }
    if (entries[0].revents != 0 && !take_order()) break;
  }
  kill_all();
  return 0;
}

// False when the service is gone.
bool Host::take_order() {
  Handler_Order order = {};
  iovec part = {&order, sizeof(order)};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t received = recvmsg(kHandlerOrdersFd, &message, MSG_CMSG_CLOEXEC);
  if (received < 0) return errno == EINTR || errno == EAGAIN;
  if (received != sizeof(order)) return false;

  Descriptor socket;
  const cmsghdr *rights = CMSG_FIRSTHDR(&message);
  if (rights != nullptr && rights->cmsg_type == SCM_RIGHTS) {
    int fd;
    memcpy(&fd, CMSG_DATA(rights), sizeof(fd));
    socket = Descriptor(fd);
  }
  if (order.kind == Handler_Order_Kind::run) start_process(order.id, std::move(socket));
  if (order.kind == Handler_Order_Kind::end) end_command(order.id);
  return true;
}

void Host::start_process(uint64_t id, Descriptor socket) {
  const pid_t pid = fork();
  if (pid == 0) serve_commands(libraries_, socket.get());
  if (pid < 0) {
    log_line("cannot start a process (%d)", errno);
    send_message(socket.get(), reply_of(-EAGAIN), deadline_after(1000));
    return;
  }
  setpgid(pid, pid);  // both sides do it: whichever comes first
  running_[pid] = {id, std::move(socket)};
}

// The process has not been waited for, so its number still means it and its group.
void Host::end_command(uint64_t id) {
  for (const auto &[pid, command] : running_) {
    if (command.id == id) kill(-pid, SIGKILL);
  }
}

void Host::reap_commands() {
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    const auto command = running_.find(pid);
    if (command == running_.end()) continue;  // what a handler left behind
    if (WIFSIGNALED(status)) log_line("a handler was ended by signal %d", WTERMSIG(status));
    // What the handler left running may hold the socket open; the service must see its end all the same.
    shutdown(command->second.socket.get(), SHUT_RDWR);
    running_.erase(command);
  }
}

void Host::kill_all() {
  for (const auto &[pid, command] : running_) kill(-pid, SIGKILL);
  while (!running_.empty()) {
    const pid_t pid = waitpid(-1, nullptr, 0);
    if (pid > 0) running_.erase(pid);
    if (pid < 0 && errno != EINTR) break;
  }
}

// The library's diagnostics go to standard output, which the service has made its own standard error.
void open_library_log() {
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  Simp_Log *log = nullptr;
  if (Simp_Log_Create(nullptr, &log, 24, 3, 0) == 0) g_ptslLog = log;
}

int run_host(int count, char **names) {
  // What handlers leave running becomes the host's child when its parent ends, and is waited for here.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  open_library_log();
  std::vector<void *> libraries;
  for (int i = 0; i < count; ++i) {
    void *library = dlopen(names[i], RTLD_NOW);
    if (library == nullptr) {
      log_line("cannot load %s: %s", names[i], dlerror());
    } else {
      libraries.push_back(library);
    }
  }
  return Host(std::move(libraries)).serve();
}

}  // namespace
}  // namespace tarn::platform

int main(int count, char **arguments) {
  int type = 0;
  socklen_t size = sizeof(type);
  if (getsockopt(tarn::platform::kHandlerOrdersFd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) {
    tarn::platform::log_line("this program is started by tarnclusterd");
    return 2;
  }
  fcntl(tarn::platform::kHandlerOrdersFd, F_SETFD, FD_CLOEXEC);
  return tarn::platform::run_host(count - 1, arguments + 1);
}
