#include "tests/support/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

namespace tarn::test {
namespace {

void require(bool done, const char *what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

Descriptor new_socket(int family) {
  Descriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  require(static_cast<bool>(socket), "socket");
  return socket;
}

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool binds(int family, int port) {
  const Descriptor socket = new_socket(family);
  sockaddr_in6 address = {};  // of either family: all addresses
  address.sin6_family = static_cast<sa_family_t>(family);
  address.sin6_port = htons(static_cast<uint16_t>(port));
  const socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  return bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), length) == 0;
}

}  // namespace

int local_port_of(const Descriptor &socket) {
  sockaddr_in6 address;  // the port stands at the same place in both families
  socklen_t length = sizeof address;
  require(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &length) == 0, "getsockname");
  return ntohs(address.sin6_port);
}

int free_port() {
  for (;;) {
    const int port = local_port_of(listen_on_loopback(0));
    if (binds(AF_INET, port) && binds(AF_INET6, port)) return port;
  }
}

Descriptor listen_on_loopback(int port, int backlog) {
  Descriptor listener = new_socket(AF_INET);
  const sockaddr_in address = loopback(port);
  require(bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "bind");
  require(listen(listener.get(), backlog) == 0, "listen");
  return listener;
}

Descriptor accept_one(const Descriptor &listener) {
  pollfd entry = {listener.get(), POLLIN, 0};
  require(poll(&entry, 1, 20'000) == 1, "nobody connects");
  Descriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  require(static_cast<bool>(socket), "accept");
  return socket;
}

Connection tcp_connection() {
  const Descriptor listener = listen_on_loopback(0);
  Connection connection = {new_socket(AF_INET), Descriptor()};
  const sockaddr_in address = loopback(local_port_of(listener));
  require(connect(connection.ours.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "connect");
  connection.theirs = accept_one(listener);
  return connection;
}

Connection local_connection() {
  int fds[2];
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "socketpair");
  return {Descriptor(fds[0]), Descriptor(fds[1])};
}

void send_text(const Descriptor &socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    require(sent > 0, "send");
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string receive_text(const Descriptor &socket) {
  return receive_text(socket, std::string::npos);
}

std::string receive_text(const Descriptor &socket, size_t length) {
  std::string text;
  while (text.size() < length) {
    char block[65536];
    const ssize_t got = recv(socket.get(), block, std::min(sizeof block, length - text.size()), 0);
    if (got <= 0) break;
    text.append(block, static_cast<size_t>(got));
  }
  return text;
}

void send_slowly(const Descriptor &socket, std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    send_text(socket, text.substr(i, 1));
  }
}

void fill(const Descriptor &socket) {
  const std::string block(65536, 'f');
  while (send(socket.get(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
  }
  require(errno == EAGAIN, "fill");
}

void end_sending(const Descriptor &socket) {
  require(shutdown(socket.get(), SHUT_WR) == 0, "shutdown");
}

void reset(Descriptor *socket) {
  const linger at_once = {1, 0};
  require(setsockopt(socket->get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once) == 0, "linger");
  *socket = Descriptor();
}

}  // namespace tarn::test
