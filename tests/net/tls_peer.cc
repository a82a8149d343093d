#include "tests/net/tls_peer.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tests/support/certificates.h"

namespace tarn::test {
namespace {

constexpr unsigned int patience_s = 120;  // for one test

void require(bool done, const std::string &what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

// The peer shares the thread, and so the queue of errors, with the library under test.
class Own_Errors {
 public:
  Own_Errors() { ERR_set_mark(); }
  ~Own_Errors() { ERR_pop_to_mark(); }
  Own_Errors(const Own_Errors &) = delete;
  Own_Errors &operator=(const Own_Errors &) = delete;
};

SSL_CTX *context_for(const Peer_Options &options) {
  SSL_CTX *context = SSL_CTX_new(options.is_server ? TLS_server_method() : TLS_client_method());
  if (!options.certificate.empty()) {
    const std::string file = certificate_file(options.certificate);
    if (SSL_CTX_use_certificate_chain_file(context, file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context, file.c_str(), SSL_FILETYPE_PEM) != 1) {
      throw std::runtime_error("the peer cannot use " + file);
    }
  }
  SSL_CTX_load_verify_locations(context, certificate_file("ca.pem").c_str(), nullptr);
  if (options.asks_for_certificate) {
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, [](int, X509_STORE_CTX *) { return 1; });
  }
  SSL_CTX_set_min_proto_version(context, options.lowest_version);
  SSL_CTX_set_max_proto_version(context, options.highest_version);
  SSL_CTX_set_num_tickets(context, static_cast<size_t>(options.tickets));
  return context;
}

}  // namespace

Tls_Peer::Tls_Peer(Descriptor socket, const Peer_Options &options)
    : socket_(std::move(socket)), context_(context_for(options)), ssl_(SSL_new(context_)) {
  SSL_set_fd(ssl_, socket_.get());
  if (options.is_server) {
    SSL_set_accept_state(ssl_);
  } else {
    SSL_set_connect_state(ssl_);
  }
}

Tls_Peer::~Tls_Peer() {
  const Own_Errors own;
  SSL_free(ssl_);
  SSL_CTX_free(context_);
}

bool Tls_Peer::shakes_hands() const {
  const Own_Errors own;
  return SSL_do_handshake(ssl_) == 1;
}

void Tls_Peer::send(const std::string &text) const {
  const Own_Errors own;
  ASSERT_EQ(SSL_write(ssl_, text.data(), static_cast<int>(text.size())), static_cast<int>(text.size()));
}

std::string Tls_Peer::receive(size_t length) const {
  const Own_Errors own;
  std::string text(length, '\0');
  size_t received = 0;
  for (int count = 1; received < length && count > 0;) {
    count = SSL_read(ssl_, text.data() + received, static_cast<int>(length - received));
    if (count > 0) received += static_cast<size_t>(count);
  }
  text.resize(received);
  return text;
}

void Tls_Peer::say_goodbye() const {
  const Own_Errors own;
  SSL_shutdown(ssl_);
}

bool Tls_Peer::sees_close_alert() const {
  const Own_Errors own;
  char byte;
  while (SSL_read(ssl_, &byte, 1) > 0) {
  }
  return (SSL_get_shutdown(ssl_) & SSL_RECEIVED_SHUTDOWN) != 0;
}

void Tls_Peer::swallow_tickets() const {
  const Own_Errors own;
  const int flags = fcntl(socket_.get(), F_GETFL);
  char byte;
  fcntl(socket_.get(), F_SETFL, flags | O_NONBLOCK);
  SSL_peek(ssl_, &byte, 1);
  fcntl(socket_.get(), F_SETFL, flags);
}

void set_nonblocking(int fd) {
  require(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK) == 0, "O_NONBLOCK");
}

void set_time_out(int fd, int option, int milliseconds) {
  const timeval time{milliseconds / 1000, milliseconds % 1000 * 1000};
  require(setsockopt(fd, SOL_SOCKET, option, &time, sizeof time) == 0, "time-out");
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

Joined::Joined(Wire wire, Connection connection, const Peer_Options &options) {
  session.fd = connection.ours.release();
  if (wire == Wire::plain) {
    plain_ = std::move(connection.theirs);
    return;
  }
  Peer_Options role = options;
  role.is_server = wire == Wire::client;
  tls_ = std::make_unique<Tls_Peer>(std::move(connection.theirs), role);
  auto handshake = std::async(std::launch::async, [this] { return tls_->shakes_hands(); });
  const auto join = wire == Wire::client ? SSL_Connect_Socket : SSL_Accept_Socket;
  const int status = join(certificate_file("plain.pem").c_str(), "", certificate_file("ca.pem").c_str(), &session);
  if (status != 0) shutdown(session.fd, SHUT_RDWR);  // lets the peer go
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(handshake.get());
  if (wire == Wire::server) tls_->swallow_tickets();
}

Joined::~Joined() {
  SSL_Socket_Destroy(&session, 1);
}

void Joined::peer_sends(const std::string &text) const {
  is_tls() ? tls_->send(text) : send_text(plain_, text);
}

std::string Joined::peer_receives(size_t length) const {
  return is_tls() ? tls_->receive(length) : receive_text(plain_, length);
}

void Joined::peer_closes() {
  peer_socket() = Descriptor();
}

Tls_Test::Tls_Test() {
  alarm(patience_s);
  signal(SIGPIPE, SIG_IGN);  // as every program does that speaks TLS with peers that may leave
}

Tls_Test::~Tls_Test() {
  EXPECT_EQ(ERR_peek_error(), 0U) << "OpenSSL errors are left for the next session";
  ERR_clear_error();
  alarm(0);
}

std::string Transfer::rest(Tls_Session *session) {
  set_nonblocking(session->fd);
  char buffer[1000];
  const int count = SSL_Recv(session, buffer, sizeof buffer, 0);
  ERR_clear_error();
  return count > 0 ? std::string(buffer, static_cast<size_t>(count)) : "";
}

std::string letters(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

}  // namespace tarn::test
