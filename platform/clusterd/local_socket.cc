#include "platform/clusterd/local_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

// How long a program may take to hand over its request, and to take its answer.
constexpr int kHandOverMs = 10000;

bool is_own_user(int fd) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == 0 || peer.uid == geteuid());
}

bool is_served(const sockaddr_un &address) {
  const Descriptor probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int result = connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
  return result == 0 || errno == EAGAIN;
}

void send_answer(int fd, Message &&answer) {
  answer.kind = Wire_Kind::reply;
  if (!fits(answer)) answer = reply_of(-EMSGSIZE);
  const int sent = send_message(fd, answer, deadline_after(kHandOverMs));
  if (sent != 0 && sent != -ECONNRESET) log_line("an answer could not be handed over (%d)", sent);
}

}  // namespace

int Local_Socket::start() {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) return -ENAMETOOLONG;
  memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
  const std::string folder = path_.substr(0, path_.rfind('/'));
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return -errno;
  if (chmod(folder.c_str(), 0700) != 0) return -errno;

  if (is_served(address)) return -EADDRINUSE;
  unlink(path_.c_str());  // left by a service that was killed
  Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) return -errno;
  const mode_t mask = umask(0177);
  const int result = bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0 ? 0 : -errno;
  umask(mask);
  if (result != 0) return result;
  if (listen(fd.get(), SOMAXCONN) != 0) return -errno;
  fd_ = std::move(fd);
  return loop_->watch(fd_.get(), [this] { accept_programs(); });
}

void Local_Socket::accept_programs() {
  for (;;) {
    const int fd = accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
    if (fd < 0) {
      // Out of descriptors: the programs stay in the queue until some are free.
      if (errno != EAGAIN) usleep(10000);
      return;
    }
    const auto program = std::make_shared<Program>(Program{Descriptor(fd), deadline_after(kHandOverMs), {}});
    if (!is_own_user(fd)) {
      send_message(fd, reply_of(-EACCES), deadline_after(1));
    } else if (arrival_at(fd) == Arrival::whole) {
      begin_request(program);
    } else if (silent_.size() >= kRequestsWaiting ||
               loop_->watch(fd, [this, program] { take_request(program); }) != 0) {
      send_message(fd, reply_of(-EBUSY), deadline_after(1));
    } else {
      silent_[fd] = program;
    }
  }
}

// The usual request is there as a whole, even as soon as its program is. What comes piece by piece is left to a thread.
void Local_Socket::take_request(const Shared_Program &program) {
  const int fd = program->socket.get();
  const Arrival arrival = arrival_at(fd);
  if (arrival == Arrival::nothing) return;
  loop_->forget(fd);
  silent_.erase(fd);
  if (arrival == Arrival::whole) return begin_request(program);
  submit(program, [this, program] { serve(program); });
}

void Local_Socket::begin_request(const Shared_Program &program) {
  if (!read_request(program)) return;
  if (first_(*program->request, [this, program](Message &&answer) { hand_over(program, std::move(answer)); })) return;
  submit(program, [this, program] { serve(program); });
}

// False when the program has its answer already, or is gone.
bool Local_Socket::read_request(const Shared_Program &program) {
  const int fd = program->socket.get();
  const int result = receive_message(fd, &program->request.emplace(), program->deadline);
  if (result != 0 && result != -ECONNRESET) send_answer(fd, reply_of(result == -EBADMSG ? -EINVAL : result));
  return result == 0;
}

void Local_Socket::drop_silent_programs() {
  for (auto entry = silent_.begin(); entry != silent_.end();) {
    const Shared_Program program = entry->second;
    const bool is_late = remaining_ms(program->deadline) == 0;
    if (!is_late && !is_stopping()) {
      ++entry;
      continue;
    }
    loop_->forget(entry->first);
    entry = silent_.erase(entry);
    hand_over(program, reply_of(is_late ? -ETIME : -ESHUTDOWN));
  }
}

void Local_Socket::submit(const Shared_Program &program, Worker_Pool::Task task) {
  if (!threads_.submit(std::move(task))) send_message(program->socket.get(), reply_of(-EBUSY), deadline_after(1));
}

void Local_Socket::serve(const Shared_Program &program) {
  if (!program->request && !read_request(program)) return;
  Message answer = receiver_(*program->request, program->socket.get());
  if (answer.value != -ECANCELED) send_answer(program->socket.get(), std::move(answer));
}

// A long answer is left to a thread: the program takes it as fast as it can.
void Local_Socket::hand_over(const Shared_Program &program, Message &&answer) {
  if (is_sent_at_once(answer)) return send_answer(program->socket.get(), std::move(answer));
  const auto shared = std::make_shared<Message>(std::move(answer));
  submit(program, [program, shared] { send_answer(program->socket.get(), std::move(*shared)); });
}

void Local_Socket::stop() {
  if (fd_) unlink(path_.c_str());
  fd_.reset();
  drop_silent_programs();
  threads_.stop();
}

}  // namespace tarn::platform
