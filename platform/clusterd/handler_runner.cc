#include "platform/clusterd/handler_runner.h"

#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

#include "platform/clusterd/handler_orders.h"
#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

// Only functions that are meant as handlers can be called from another member.
bool is_handler_name(std::string_view name) {
  const auto may_stand_in_name = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  };
  return name.ends_with("_Cb") && name.size() <= 128 && std::all_of(name.begin(), name.end(), may_stand_in_name);
}

// 0, or why no handler is to be asked.
int check_order(const std::string &name, const std::string &argument) {
  if (!is_handler_name(name)) return -ENOSYS;
  return argument.find('\0') == std::string::npos ? 0 : -EINVAL;  // a handler would see the text cut there
}

Message order_of(const std::string &name, const std::string &argument) {
  Message order;
  order.kind = Wire_Kind::run_handler;
  order.text = name;
  order.more = argument;
  return order;
}

// Sends one order, with a descriptor when fd is not negative.
int send_order(int orders_fd, const Handler_Order &order, int fd) {
  iovec part = {const_cast<Handler_Order *>(&order), sizeof(order)};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  if (fd >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(rights), &fd, sizeof(int));
  }
  while (sendmsg(orders_fd, &message, MSG_NOSIGNAL) < 0) {
    if (errno != EINTR) return -errno;
  }
  return 0;
}

}  // namespace

int Handler_Runner::start() {
  const std::scoped_lock lock(mutex_);
  if (orders_) return 0;
  if (is_stopping()) return -ESHUTDOWN;

  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -errno;
  Descriptor ours(pair[0]);
  const Descriptor theirs(pair[1]);
  const int result = spawn_host(theirs.get());
  if (result != 0) {
    log_line("cannot start %s (%d)", program_.c_str(), result);
    return result;
  }
  orders_ = std::move(ours);
  return 0;
}

void Handler_Runner::rest() {
  const std::scoped_lock lock(mutex_);
  // Each ends when it sees its socket closed.
  if (Clock::now() - last_command_ > kIdleLife) in_waiting_.clear();
}

int Handler_Runner::spawn_host(int orders_fd) {
  std::vector<char *> arguments = {const_cast<char *>(program_.c_str())};
  for (const std::string &library : libraries_) arguments.push_back(const_cast<char *>(library.c_str()));
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, orders_fd, kHandlerOrdersFd);
  posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
  // The bus client's sockets are not close-on-exec; a host that is started anew would keep the connection open.
  posix_spawn_file_actions_addclosefrom_np(&actions, kHandlerOrdersFd + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  sigset_t ignored_here;
  sigemptyset(&ignored_here);
  for (const int signal : {SIGPIPE, SIGXFSZ}) sigaddset(&ignored_here, signal);
  posix_spawnattr_setsigdefault(&attributes, &ignored_here);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  const int failure = posix_spawn(&host_, program_.c_str(), &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return -failure;
}

void Handler_Runner::reap() {
  const std::scoped_lock lock(mutex_);
  int status = 0;
  if (host_ <= 0 || waitpid(host_, &status, WNOHANG) != host_) return;
  log_line("the handler host ended (status %d)", status);
  host_ = 0;
  orders_.reset();
  in_waiting_.clear();  // they ended with it
}

void Handler_Runner::stop() {
  const std::scoped_lock lock(mutex_);
  orders_.reset();  // the host kills what runs or waits, and ends
  in_waiting_.clear();
  if (host_ > 0) {
    while (waitpid(host_, nullptr, 0) < 0 && errno == EINTR) continue;
  }
  host_ = 0;
}

int Handler_Runner::fork_process(Process *process) {
  if (!orders_) return -EPIPE;
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return -errno;
  process->socket = Descriptor(pair[0]);
  const Descriptor theirs(pair[1]);
  process->id = next_id_++;
  return send_order(orders_.get(), {Handler_Order_Kind::run, 0, process->id}, theirs.get());
}

// One that is not ready yet is left where it is.
bool Handler_Runner::take_waiting_process(Process *process) {
  last_command_ = Clock::now();
  for (auto entry = in_waiting_.begin(); entry != in_waiting_.end();) {
    char ready;
    const ssize_t received = recv(entry->socket.get(), &ready, sizeof(ready), MSG_DONTWAIT);
    if (received < 0 && (errno == EAGAIN || errno == EINTR)) {
      ++entry;
      continue;
    }
    if (received > 0) *process = std::move(*entry);
    entry = in_waiting_.erase(entry);  // taken, or gone
    if (received > 0) return true;
  }
  return false;
}

// One that waits already, or a new one.
int Handler_Runner::take_process(Process *process) {
  const std::scoped_lock lock(mutex_);
  if (take_waiting_process(process)) return 0;
  return fork_process(process) == 0 ? 0 : -EAGAIN;
}

// It says itself whether it can take a further command; the one used last comes first, for its memory is the warmest.
void Handler_Runner::keep_process(Running *running) {
  const std::scoped_lock lock(mutex_);
  if (orders_ && in_waiting_.size() < kInWaiting)
    in_waiting_.insert(in_waiting_.begin(), {running->id_, std::move(running->socket_)});
}

void Handler_Runner::send_end(uint64_t id) {
  const std::scoped_lock lock(mutex_);
  if (orders_) send_order(orders_.get(), {Handler_Order_Kind::end, 0, id}, -1);
}

bool Handler_Runner::begin(const std::string &name, const std::string &argument, Running *running) {
  const Message command = order_of(name, argument);
  if (check_order(name, argument) != 0 || !is_sent_at_once(command) || !free_handlers_.try_acquire()) return false;
  running->slot_.reset(&free_handlers_);
  Process process;
  {
    const std::scoped_lock lock(mutex_);
    if (!take_waiting_process(&process)) return false;
  }
  running->id_ = process.id;
  running->socket_ = std::move(process.socket);
  running->name_ = name;
  // A process that is gone is told of by finish(), for its socket has something to say as well.
  send_message(running->socket(), command, deadline_after(0));
  return true;
}

int Handler_Runner::finish(Running *running, Deadline deadline, std::string *reply) {
  Message answer;
  const int result = receive_message(running->socket(), &answer, deadline);
  if (result != 0) return conclude(*running, result);
  if (answer.value != 0) return answer.value;
  *reply = std::move(answer.text);
  keep_process(running);
  return 0;
}

int Handler_Runner::conclude(const Running &running, int result) {
  if (result == -ETIME || result == -ESHUTDOWN) send_end(running.id_);
  if (result == -ETIME) log_line("handler %s ended at its time-out", running.name_.c_str());
  if (result != -ECONNRESET && result != -EBADMSG) return result;
  log_line("handler %s ended without an answer", running.name_.c_str());
  return -EIO;
}

int Handler_Runner::run(const std::string &name, const std::string &argument, Deadline deadline, std::string *reply) {
  int result = check_order(name, argument);
  if (result != 0) return result;
  if (!free_handlers_.try_acquire_until(deadline)) return -ETIME;
  Running running;
  running.slot_.reset(&free_handlers_);

  result = start();
  if (result != 0) return result;
  Process process;
  result = take_process(&process);
  if (result != 0) return result;
  running.id_ = process.id;
  running.socket_ = std::move(process.socket);
  running.name_ = name;
  result = send_message(running.socket(), order_of(name, argument), deadline);
  return result == 0 ? finish(&running, deadline, reply) : conclude(running, result);
}

}  // namespace tarn::platform
