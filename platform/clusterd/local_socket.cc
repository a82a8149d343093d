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
  return 0;
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
    const auto program = std::make_shared<Descriptor>(fd);
    if (!is_own_user(fd)) {
      send_message(fd, reply_of(-EACCES), deadline_after(1));
    } else if (!threads_.submit([this, program] { serve(program->get()); })) {
      send_message(fd, reply_of(-EBUSY), deadline_after(1));
    }
  }
}

void Local_Socket::serve(int fd) {
  Message request;
  const int result = receive_message(fd, &request, deadline_after(kHandOverMs));
  if (result == -ECONNRESET) return;
  Message answer = reply_of(result == -EBADMSG ? -EINVAL : result);
  if (result == 0) answer = receiver_(request, fd);
  if (answer.value == -ECANCELED) return;
  answer.kind = Wire_Kind::reply;
  if (!fits(answer)) answer = reply_of(-EMSGSIZE);
  const int sent = send_message(fd, answer, deadline_after(kHandOverMs));
  if (sent != 0 && sent != -ECONNRESET) log_line("an answer could not be handed over (%d)", sent);
}

void Local_Socket::stop() {
  if (fd_) unlink(path_.c_str());
  fd_.reset();
  threads_.stop();
}

}  // namespace tarn::platform
