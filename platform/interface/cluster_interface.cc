// The five command functions: each is one conversation with the member's cluster service over its local socket. Nothing
// is kept between calls, so a caller may fork, or call from several threads, as it likes.
#include "tarncluster_util.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "platform/wire.h"

namespace tarn::platform {
namespace {

constexpr int64_t kNoDeadline = INT64_MAX;

class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket() {
    if (fd_ >= 0) close(fd_);
  }
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

int64_t now_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int64_t deadline_of(int timeout_ms) {
  return timeout_ms <= 0 ? kNoDeadline : now_ms() + timeout_ms + kCallerGraceMs;
}

int remaining_ms(int64_t deadline) {
  if (deadline == kNoDeadline) return -1;
  const int64_t left = deadline - now_ms();
  if (left <= 0) return 0;
  return left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
}

int wait_ready(int fd, short events, int64_t deadline) {
  for (;;) {
    pollfd entry = {fd, events, 0};
    const int ready = poll(&entry, 1, remaining_ms(deadline));
    if (ready > 0) return 0;
    if (ready == 0) return -ETIME;
    if (errno != EINTR) return -errno;
  }
}

// A full backlog answers EAGAIN, and nothing tells when there is room again: ask anew.
int connect_to_service(int fd, int64_t deadline) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof(kSocketPath) <= sizeof(address.sun_path));
  memcpy(address.sun_path, kSocketPath, sizeof(kSocketPath));

  while (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
    if (errno == ENOENT) return -ECONNREFUSED;  // never started or stopped: one code for "no service here"
    if (errno != EAGAIN && errno != EINTR) return -errno;
    if (remaining_ms(deadline) == 0) return -ETIME;
    const timespec pause = {0, 5000000};
    nanosleep(&pause, nullptr);
  }
  return 0;
}

int send_parts(int fd, iovec *parts, size_t count, int64_t deadline) {
  while (count > 0) {
    msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) return -errno;
      const int result = wait_ready(fd, POLLOUT, deadline);
      if (result != 0) return result;
      continue;
    }
    size_t left = static_cast<size_t>(sent);
    while (count > 0 && left >= parts->iov_len) {
      left -= parts->iov_len;
      ++parts;
      --count;
    }
    if (count > 0) {
      parts->iov_base = static_cast<char *>(parts->iov_base) + left;
      parts->iov_len -= left;
    }
  }
  return 0;
}

int receive_exactly(int fd, void *buffer, size_t size, int64_t deadline) {
  char *position = static_cast<char *>(buffer);
  while (size > 0) {
    const ssize_t received = recv(fd, position, size, 0);
    if (received == 0) return -ECONNRESET;
    if (received > 0) {
      position += received;
      size -= static_cast<size_t>(received);
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -errno;
    const int result = wait_ready(fd, POLLIN, deadline);
    if (result != 0) return result;
  }
  return 0;
}

int receive_reply(int fd, int64_t deadline, char **reply) {
  Wire_Header header;
  int result = receive_exactly(fd, &header, sizeof(header), deadline);
  if (result != 0) return result;
  if (!is_well_formed(header) || header.kind != Wire_Kind::reply) return -EPROTO;
  if (header.value != 0) return header.value;

  char *text = static_cast<char *>(malloc(static_cast<size_t>(header.text_length) + 1));
  if (text == nullptr) return -ENOMEM;
  result = receive_exactly(fd, text, header.text_length, deadline);
  if (result != 0) {
    free(text);
    return result;
  }
  text[header.text_length] = '\0';
  *reply = text;
  return 0;
}

int call(Wire_Kind kind, const char *command, const char *argument, int timeout_ms, char **reply) {
  if (command == nullptr || argument == nullptr || reply == nullptr) return -EINVAL;
  *reply = nullptr;
  const size_t command_length = strlen(command);
  const size_t argument_length = strlen(argument);
  if (command_length > kLargestBody || argument_length > kLargestBody - command_length) return -EMSGSIZE;

  const Socket socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket.get() < 0) return -errno;
  const int64_t deadline = deadline_of(timeout_ms);
  int result = connect_to_service(socket.get(), deadline);
  if (result != 0) return result;

  Wire_Header header = {};
  header.magic = kWireMagic;
  header.kind = kind;
  header.value = timeout_ms;
  header.text_length = static_cast<uint32_t>(command_length);
  header.more_length = static_cast<uint32_t>(argument_length);
  iovec parts[] = {{&header, sizeof(header)},
                   {const_cast<char *>(command), command_length},
                   {const_cast<char *>(argument), argument_length}};
  result = send_parts(socket.get(), parts, 3, deadline);
  // A service that refuses early closes its end; its reason is still to be read.
  if (result != 0 && result != -EPIPE && result != -ECONNRESET) return result;
  return receive_reply(socket.get(), deadline, reply);
}

}  // namespace
}  // namespace tarn::platform

using tarn::platform::call;
using tarn::platform::kDefaultTimeoutMs;
using tarn::platform::Wire_Kind;

int Cluster_Master_Cmd(const char *command, const char *argument, char **reply) {
  return call(Wire_Kind::master_command, command, argument, kDefaultTimeoutMs, reply);
}

int Cluster_Slave_Cmd(const char *command, const char *argument, char **reply) {
  return call(Wire_Kind::slave_command, command, argument, kDefaultTimeoutMs, reply);
}

int Cluster_Master_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  return call(Wire_Kind::master_command, command, argument, timeout_ms, reply);
}

int Cluster_Slave_Cmd_Ex(const char *command, const char *argument, int timeout_ms, char **reply) {
  return call(Wire_Kind::slave_command, command, argument, timeout_ms, reply);
}

int Cluster_Master_Ctrl_Cmd(const char *command, const char *argument, char **reply) {
  return call(Wire_Kind::master_control, command, argument, kDefaultTimeoutMs, reply);
}
