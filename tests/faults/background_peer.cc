#include "tests/faults/background_peer.h"

#include <sys/socket.h>

#include <csignal>
#include <stdexcept>
#include <utility>

#include "tests/net/tls_peer.h"

namespace tarn::test {

Background_Peer::Background_Peer(Kind kind, Descriptor socket) : socket_(std::move(socket)) {
  signal(SIGPIPE, SIG_IGN);  // as every program does that speaks TLS with peers that may leave
  thread_ = std::thread([this, kind] { run(kind); });
}

Background_Peer::~Background_Peer() {
  if (socket_) shutdown(socket_.get(), SHUT_RDWR);  // nobody may have come
  if (thread_.joinable()) thread_.join();
}

void Background_Peer::run(Kind kind) {
  Descriptor connection;
  if (kind == Kind::listening_server) {
    connection = Descriptor(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  } else {
    connection = std::move(socket_);
  }
  if (!connection) return;
  Peer_Options options;
  options.is_server = kind != Kind::client;
  options.tickets = 2;  // as is usual
  tls_ = std::make_unique<Tls_Peer>(std::move(connection), options);
  done_ = tls_->shakes_hands();
}

void Background_Peer::finish_handshake() {
  thread_.join();
  if (!done_) throw std::runtime_error("no handshake with the peer");
}

void Background_Peer::send(const std::string &text) {
  tls_->send(text);
}

std::string Background_Peer::received() {
  if (thread_.joinable()) return "";
  set_nonblocking(tls_->socket().get());
  received_ += tls_->receive(4096);
  return received_;
}

}  // namespace tarn::test
