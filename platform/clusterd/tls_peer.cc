#include "platform/clusterd/tls_peer.h"

#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace tarn::platform {

namespace {

constexpr size_t kNoBody = SIZE_MAX;

// How long the texts behind a header are, kNoBody for what is no header.
size_t body_length(const std::string &bytes) {
  Wire_Header header;
  memcpy(&header, bytes.data(), sizeof(header));
  return is_well_formed(header) ? size_t{header.text_length} + header.more_length : kNoBody;
}

std::string text_of_address(const sockaddr_storage &address, socklen_t size) {
  char text[NI_MAXHOST];
  if (getnameinfo(reinterpret_cast<const sockaddr *>(&address), size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) !=
      0)
    return {};
  const std::string host(text);
  return host.starts_with("::ffff:") ? host.substr(7) : host;
}

}  // namespace

std::string address_of_peer(int fd) {
  sockaddr_storage address = {};
  socklen_t size = sizeof(address);
  return getpeername(fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 ? text_of_address(address, size) : "";
}

int Tls_Peer::accept(Descriptor socket, const std::string &certificate, const std::string &authority,
                     Deadline deadline) {
  return shake_hands(std::move(socket), true, certificate, authority, deadline);
}

int Tls_Peer::connect(const std::string &host, int port, const std::string &certificate, const std::string &authority,
                      Deadline deadline) {
  int fd = -1;
  const int result = TCP_Socket_Connect(nullptr, host.c_str(), port, std::max(remaining_ms(deadline), 1), &fd);
  if (result == -EINPROGRESS || result == -ETIMEDOUT) return -ETIME;
  if (result != 0) return -EHOSTUNREACH;
  return shake_hands(Descriptor(fd), false, certificate, authority, deadline);
}

int Tls_Peer::shake_hands(Descriptor socket, bool is_server, const std::string &certificate,
                          const std::string &authority, Deadline deadline) {
  // Several threads may be here at once: the library's contexts share nothing with OpenSSL 1.1 and later.
  close();
  socket_ = std::move(socket);
  set_deadline(deadline);
  Tls_Session session = {socket_.get(), nullptr, nullptr, nullptr};
  const auto function = is_server ? SSL_Accept_Socket : SSL_Connect_Socket;
  const int result = function(certificate.c_str(), "", authority.c_str(), &session);
  // The socket is this object's to close, since the watch must let go of it first.
  session.fd = -1;
  if (result == 0) {
    session_ = session;
    session_.fd = socket_.get();
    return 0;
  }
  const int failure = remaining_ms(deadline) == 0 ? -ETIME : result;
  close();
  return failure;
}

void Tls_Peer::set_deadline(Deadline deadline) {
  deadline_ = deadline;
  if (socket_) watch_->set(socket_.get(), deadline);
}

int Tls_Peer::end_of_session() const {
  if (is_stopping()) return -ESHUTDOWN;
  return remaining_ms(deadline_) == 0 ? -ETIME : -ECONNRESET;
}

// Not Exactly_SSL_Recv, which goes on asking a peer that is gone until its time-out.
int Tls_Peer::receive_bytes(char *buffer, size_t size) {
  while (size > 0) {
    const int received = SSL_Recv(&session_, buffer, static_cast<int>(std::min<size_t>(size, INT_MAX)), 0);
    if (received <= 0) return end_of_session();
    buffer += received;
    size -= static_cast<size_t>(received);
  }
  return 0;
}

int Tls_Peer::receive(Message *message, size_t limit) {
  if (!is_open()) return -ECONNRESET;
  std::string bytes(sizeof(Wire_Header), '\0');
  int result = receive_bytes(bytes.data(), bytes.size());
  if (result != 0) return result;
  const size_t body = body_length(bytes);
  if (body == kNoBody) return -EBADMSG;
  if (body > limit) return -EMSGSIZE;
  bytes.resize(sizeof(Wire_Header) + body);
  result = receive_bytes(bytes.data() + sizeof(Wire_Header), body);
  if (result != 0) return result;
  return decode(bytes, message) ? 0 : -EBADMSG;
}

int Tls_Peer::send(const Message &message) {
  if (!is_open()) return -ECONNRESET;
  if (!fits(message)) return -EMSGSIZE;
  const std::string bytes = encode(message);
  const int sent = Exactly_SSL_Send(&session_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  return sent == static_cast<int>(bytes.size()) ? 0 : end_of_session();
}

std::string Tls_Peer::address() const {
  return socket_ ? address_of_peer(socket_.get()) : "";
}

void Tls_Peer::close() {
  if (session_.ssl != nullptr) {
    session_.fd = -1;
    SSL_Socket_Destroy(&session_, 0);
  }
  if (socket_) watch_->clear(socket_.get());
  socket_.reset();
}

}  // namespace tarn::platform
