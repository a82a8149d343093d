#include "include/tarncluster_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "foundation/owners.h"
#include "foundation/report.h"
#include "net/resolved.h"

namespace tarn {
namespace {

constexpr int default_timeout_ms = 120000;
constexpr int local_backlog = 128;
constexpr int greatest_backlog = 128;
constexpr int poll_limit = 16;

constexpr char connect_name[] = "TCP_Socket_Connect";
constexpr char listen_name[] = "TCP_Socket_Listen";

timeval timeval_of(int timeout_ms) {
  return {.tv_sec = timeout_ms / 1000, .tv_usec = timeout_ms % 1000 * 1000L};
}

template <typename Value>
int set_option(const Descriptor &socket, int level, int name, const Value &value) {
  return setsockopt(socket.get(), level, name, &value, sizeof value) == 0 ? 0 : -errno;
}

// The text of a port, as getaddrinfo takes it.
struct Service {
  char text[12];
  explicit Service(int port) { snprintf(text, sizeof text, "%d", port); }
};

Descriptor socket_for(const addrinfo &address) {
  return Descriptor(socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol));
}

// ------------------------------------------------------------------------------------------------------ TCP, client

// A link-local host is reached through one interface only; the resolver knows none unless the host's text names it.
void choose_scope(const char *host, const addrinfo &address) {
  if (address.ai_family != AF_INET6) return;
  if (strcmp(host, "::1") == 0 || strncasecmp(host, "::ffff:", 7) == 0 || strchr(host, '%') != nullptr) return;
  auto *remote = reinterpret_cast<sockaddr_in6 *>(address.ai_addr);
  unsigned int scope_id = 0;
  if (IPv6_Get_Scope_Id(remote->sin6_addr.s6_addr, &scope_id) == 0) remote->sin6_scope_id = scope_id;
}

int set_client_options(const Descriptor &socket, int timeout_ms) {
  const timeval timeout = timeval_of(timeout_ms);
  int status = set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  if (status != 0) {
    TARN_ERROR_AS(connect_name, "Can't set TCP socket nodelay error! (%d)", status);
    return status;
  }
  status = set_option(socket, SOL_SOCKET, SO_RCVTIMEO, timeout);
  if (status != 0) {
    TARN_ERROR_AS(connect_name, "Can't set TCP recv timeout error: %d", status);
    return status;
  }
  status = set_option(socket, SOL_SOCKET, SO_SNDTIMEO, timeout);
  if (status != 0) TARN_ERROR_AS(connect_name, "Can't set TCP send timeout error: %d", status);
  return status;
}

// Always an IPv4 address: one that is none, and one for an IPv6 host, fail in the kernel.
int bind_local_address(const Descriptor &socket, const char *text) {
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = inet_addr(text);
  if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&local), sizeof local) == 0) return 0;
  const int failure = -errno;
  TARN_DEBUG_AS(connect_name, "Can't bind socket error! (%d)", failure);
  return failure;
}

int connect_socket(const Descriptor &socket, const addrinfo &address) {
  if (connect(socket.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
  const int failure = -errno;
  TARN_DEBUG_AS(connect_name, "Can't connect socket error! (%d)", failure);
  return failure;
}

// ------------------------------------------------------------------------------------------------------ TCP, server

int bind_listener(const Descriptor &socket, const addrinfo &address) {
  int status = set_option(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  if (status != 0) {
    TARN_ERROR_AS(listen_name, "Can't set socket reuse address! (%d)", status);
    return status;
  }
  if (address.ai_family == AF_INET6) status = set_option(socket, IPPROTO_IPV6, IPV6_V6ONLY, 1);
  if (status != 0) {
    TARN_ERROR_AS(listen_name, "Can't set socket IPv6 only! (%d)", status);
    return status;
  }
  status = set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  if (status != 0) {
    TARN_ERROR_AS(listen_name, "Can't set TCP socket nodelay! (%d)", status);
    return status;
  }
  if (bind(socket.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
  status = -errno;
  TARN_ERROR_AS(listen_name, "Can't bind socket! (%d)", status);
  return status;
}

int open_listener(const addrinfo &address, Descriptor *listener) {
  Descriptor socket = socket_for(address);
  if (!socket) {
    const int failure = -errno;
    TARN_DEBUG_AS(listen_name, "Can't create socket! (%d)", failure);
    return failure;
  }
  const int status = bind_listener(socket, address);
  if (status == 0) *listener = std::move(socket);
  return status;
}

// The caller's array, ended by -1 after every step. Closes what is in it unless it is kept.
class Listeners {
 public:
  explicit Listeners(int *fds) : fds_(fds) {}
  Listeners(const Listeners &) = delete;
  Listeners &operator=(const Listeners &) = delete;
  ~Listeners() {
    if (kept_) return;
    for (int *fd = fds_; *fd != -1; ++fd) Descriptor(std::exchange(*fd, -1));
  }

  int count() const { return count_; }
  void add(Descriptor listener) {
    fds_[count_++] = listener.release();
    fds_[count_] = -1;
  }
  void keep() { kept_ = true; }

 private:
  int *fds_;
  int count_ = 0;
  bool kept_ = false;
};

int listen_on(const addrinfo *addresses, int backlog, int capacity, Listeners *listeners) {
  int remembered = 0;
  for (const addrinfo *address = addresses; address != nullptr; address = address->ai_next) {
    if (listeners->count() >= capacity) {
      TARN_ERROR_AS(listen_name, "Insufficient array buffer for socket! (%d)", -ENOMEM);
      return -ENOMEM;
    }
    Descriptor listener;
    const int status = open_listener(*address, &listener);
    if (status != 0) {
      remembered = status;
      continue;
    }
    if (listen(listener.get(), backlog) != 0) {
      const int failure = -errno;
      TARN_ERROR_AS(listen_name, "Can't listen socket! (%d)", failure);
      return failure;
    }
    listeners->add(std::move(listener));
  }
  return listeners->count() > 0 ? 0 : remembered;
}

// ---------------------------------------------------------------------------------------------------- local domain

// A path that does not fit would name another file when it is cut; an empty one would be bound in the abstract
// namespace.
int local_address(const char *path, sockaddr_un *address) {
  const size_t length = strlen(path);
  if (length == 0) return -EINVAL;
  if (length >= sizeof address->sun_path) return -ENAMETOOLONG;
  *address = {};
  address->sun_family = AF_UNIX;
  memcpy(address->sun_path, path, length);
  return 0;
}

int listen_locally(const Descriptor &socket, const sockaddr_un &address) {
  constexpr char name[] = "Domain_Socket_Listen";
  if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(name, "Bind domain socket error!(%d)", failure);
    return failure;
  }
  if (chmod(address.sun_path, 0666) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(name, "Can't chmod for %s!(%d)", address.sun_path, failure);
  }
  if (listen(socket.get(), local_backlog) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(name, "Listen domain error!(%d)", failure);
  return failure;
}

// ------------------------------------------------------------------------------------------------------- readiness

// poll instead of select, which cannot take descriptors of 1024 and above; its answers are those of select.
int wait_for(int fd, short events, int timeout_ms) {
  if (timeout_ms < 0) return -EINVAL;
  if (fd < 0) return -EBADF;
  pollfd entry = {.fd = fd, .events = events, .revents = 0};
  const int ready = poll(&entry, 1, timeout_ms);
  if (ready < 0) return -errno;
  return (entry.revents & POLLNVAL) != 0 ? -EBADF : ready;
}

}  // namespace
}  // namespace tarn

int TCP_Socket_Connect(const char *local_address, const char *host, int port, int timeout_ms, int *fd) {
  if (fd == nullptr || host == nullptr || port <= 0) return -EINVAL;

  *fd = -1;
  tarn::Address_List addresses;
  int status = tarn::resolve(__func__, host, tarn::Service(port).text, AI_ALL, &addresses);
  if (status != 0) return status;
  tarn::choose_scope(host, *addresses);

  tarn::Descriptor socket = tarn::socket_for(*addresses);
  if (!socket) {
    const int failure = -errno;
    TARN_DEBUG("Can't create socket error! (%d)", failure);
    return failure;
  }
  status = tarn::set_client_options(socket, timeout_ms > 0 ? timeout_ms : tarn::default_timeout_ms);
  if (status == 0 && local_address != nullptr) status = tarn::bind_local_address(socket, local_address);
  if (status == 0) status = tarn::connect_socket(socket, *addresses);
  if (status == 0) *fd = socket.release();
  return status;
}

int TCP_Socket_Listen(const char *host, int port, int backlog, int *fds, int capacity) {
  if (backlog < 1 || backlog > tarn::greatest_backlog || port <= 0 || fds == nullptr) return -EINVAL;

  int nowhere = -1;
  int *const array = capacity < 0 ? &nowhere : fds;
  array[0] = -1;
  tarn::Address_List addresses;
  int status = tarn::resolve(__func__, host, tarn::Service(port).text, AI_PASSIVE, &addresses);
  if (status != 0) return status;

  tarn::Listeners listeners(array);
  status = tarn::listen_on(addresses.get(), backlog, capacity, &listeners);
  if (status == 0) listeners.keep();
  return status;
}

int Domain_Sock_Set_Nonblocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0) {
    const int failure = -errno;
    TARN_ERROR("Get fcntl error!(%d)", failure);
    return failure;
  }
  if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR("Set fcntl error!(%d)", failure);
  return failure;
}

int Domain_Socket_Listen(const char *path, int *fd, int nonblocking) {
  if (path == nullptr || fd == nullptr || nonblocking < 0) return -EINVAL;

  *fd = -1;
  sockaddr_un address;
  int status = tarn::local_address(path, &address);
  if (status != 0) return status;
  Druvo_Really_Unlink(path);

  tarn::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    const int failure = -errno;
    TARN_ERROR("Create socket error!(%d)", failure);
    return failure;
  }
  status = tarn::listen_locally(socket, address);
  if (status != 0) return status;
  if (nonblocking != 0) {
    status = Domain_Sock_Set_Nonblocking(socket.get());
    if (status != 0) TARN_ERROR("Can't set domain socket non-blocking! (%d)", status);
  }
  *fd = socket.release();
  return 0;
}

int Domain_Socket_Connect(const char *path, int *fd, int timeout_ms) {
  if (path == nullptr || fd == nullptr) return -EINVAL;
  sockaddr_un address;
  int status = tarn::local_address(path, &address);
  if (status != 0) return status;

  tarn::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) {
    const int failure = -errno;
    TARN_ERROR("Create domain socket error!(%d)", failure);
    return failure;
  }
  const timeval timeout = tarn::timeval_of(timeout_ms);
  status = tarn::set_option(socket, SOL_SOCKET, SO_RCVTIMEO, timeout);
  if (status != 0) {
    TARN_ERROR("Set domain socket recv timeout error!(%d)", status);
    socket.release();  // stays open, as callers know it
    return status;
  }
  status = tarn::set_option(socket, SOL_SOCKET, SO_SNDTIMEO, timeout);
  if (status != 0) {
    TARN_ERROR("Set domain socket send timeout error!(%d)", status);
    socket.release();
    return status;
  }
  if (connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    const int failure = -errno;
    TARN_ERROR("Connect domain socket error!(%d)", failure);
    return failure;
  }
  *fd = socket.release();
  return 0;
}

int Is_Socket_Ready_To_Recv(int fd, int timeout_ms) {
  return tarn::wait_for(fd, POLLIN | POLLRDNORM | POLLRDBAND, timeout_ms);
}

int Is_Socket_Ready_To_Send(int fd, int timeout_ms) {
  return tarn::wait_for(fd, POLLOUT | POLLWRNORM | POLLWRBAND, timeout_ms);
}

int Is_FD_Ready_To_Read(int fd, int timeout_ms) {
  return Is_Socket_Ready_To_Recv(fd, timeout_ms);
}

int Is_Any_Socket_Ready(const int *fds, int count, int timeout_ms, int *ready_fd, int *index) {
  if (count < 1 || count > tarn::poll_limit || fds == nullptr || ready_fd == nullptr || timeout_ms < 0) return -EINVAL;

  pollfd entries[tarn::poll_limit] = {};
  for (int i = 0; i < count; ++i) entries[i] = {.fd = fds[i], .events = POLLIN | POLLRDNORM, .revents = 0};
  const int ready = poll(entries, static_cast<nfds_t>(count), timeout_ms);
  if (ready < 0) return -errno;
  for (int i = 0; i < count && ready > 0; ++i) {
    if (entries[i].revents == 0) continue;
    *ready_fd = fds[i];
    if (index != nullptr) *index = i;
    return 1;
  }
  return 0;
}
