// TLS: buffers both ways, and handshakes.
#include <benchmark/benchmark.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "bench/support/stream_peer.h"
#include "bench/support/turns.h"
#include "include/tarncluster_util.h"
#include "tests/support/certificates.h"

namespace tarn::bench {
namespace {

constexpr int no_timeout = -1;
constexpr int length = static_cast<int>(piece);

using Context = std::unique_ptr<SSL_CTX, Give_Back<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Give_Back<SSL_free>>;

enum class Side { client, server };

struct Files {
  std::string certificate = test::certificate_file("plain.pem");
  std::string authorities = test::certificate_file("ca.pem");
};

const Files &files() {
  static const Files made = [] {
    signal(SIGPIPE, SIG_IGN);  // as every program does that speaks TLS with peers that may leave
    return Files();
  }();
  return made;
}

// All that the library does for a context, by bare calls.
Context make_context() {
  Context context(SSL_CTX_new(TLS_method()));
  if (context == nullptr || SSL_CTX_use_certificate_chain_file(context.get(), files().certificate.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), files().certificate.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_load_verify_locations(context.get(), files().authorities.c_str(), nullptr) != 1) {
    return nullptr;
  }
  return context;
}

Session shake_hands(SSL_CTX *context, int fd, Side side) {
  Session session(SSL_new(context));
  BIO *bio = BIO_new_socket(fd, BIO_NOCLOSE);
  SSL_set_bio(session.get(), bio, bio);
  const int result = side == Side::client ? SSL_connect(session.get()) : SSL_accept(session.get());
  return result == 1 ? std::move(session) : nullptr;
}

// The peers' contexts, one for the program.
SSL_CTX *peer_context() {
  static const Context made = make_context();
  return made.get();
}

// ------------------------------------------------------------------------------------------------------------ buffers

void take_all_secured(int fd) {
  const Session session = shake_hands(peer_context(), fd, Side::server);
  std::vector<char> buffer(piece);
  while (session != nullptr && SSL_read(session.get(), buffer.data(), length) > 0) continue;
}

void give_on_secured(int fd) {
  const Session session = shake_hands(peer_context(), fd, Side::server);
  std::vector<char> buffer(piece, 'x');
  while (session != nullptr && SSL_write(session.get(), buffer.data(), length) > 0) continue;
}

using Mover = bool (*)(Tls_Session *session, char *buffer);

bool send_ours(Tls_Session *session, char *buffer) {
  return Exactly_SSL_Send(session, buffer, piece, 0) == length;
}
bool send_bare(Tls_Session *session, char *buffer) {
  return SSL_write(session->ssl, buffer, length) == length;
}
bool recv_ours(Tls_Session *session, char *buffer) {
  return Exactly_SSL_Recv(session, buffer, length, no_timeout) == length;
}
bool recv_bare(Tls_Session *session, char *buffer) {
  for (int received = 0; received < length;) {
    const int result = SSL_read(session->ssl, buffer + received, length - received);
    if (result <= 0) return false;
    received += result;
  }
  return true;
}

void move_buffers(benchmark::State &state, Wire wire, const Stream_Peer::Work &work, Mover ours, Mover bare) {
  const std::string &certificate = files().certificate, &authorities = files().authorities;
  peer_context();
  const Stream_Peer peer(wire, work);
  Tls_Session session = {dup(peer.fd()), nullptr, nullptr, nullptr};
  if (SSL_Connect_Socket(certificate.c_str(), "", authorities.c_str(), &session) != 0) {
    state.SkipWithError("no session");
  }
  std::vector<char> buffer(piece, 'x');
  const auto by = [&](Mover move) {
    return [&, move] {
      for (size_t moved = 0; moved < volume; moved += piece) {
        if (!move(&session, buffer.data())) return false;
      }
      return true;
    };
  };
  take_turns(state, {{"ours", by(ours)}, {"bare", by(bare)}});
  SSL_Socket_Destroy(&session, 1);
}

// --------------------------------------------------------------------------------------------------------- handshakes

// Shakes hands with whoever it is sent, by its descriptor, until it is told -1.
class Partner {
 public:
  explicit Partner(Side side) : orders_(test::local_connection()), thread_([this, side] { run(side); }) {}
  ~Partner() {
    meet(-1);
    thread_.join();
  }
  Partner(const Partner &) = delete;
  Partner &operator=(const Partner &) = delete;

  void meet(int fd) const { (void)!write(orders_.ours.get(), &fd, sizeof fd); }

 private:
  void run(Side side) const {
    for (int fd; read(orders_.theirs.get(), &fd, sizeof fd) == sizeof fd && fd >= 0;) {
      const Descriptor socket(fd);
      const Session session = shake_hands(peer_context(), fd, side);
    }
  }

  test::Connection orders_;
  std::thread thread_;
};

bool handshake_ours(int fd, Side side) {
  Tls_Session session = {fd, nullptr, nullptr, nullptr};
  const auto join = side == Side::client ? SSL_Connect_Socket : SSL_Accept_Socket;
  const bool good = join(files().certificate.c_str(), "", files().authorities.c_str(), &session) == 0;
  SSL_Socket_Destroy(&session, 0);
  return good;
}

bool handshake_bare(int fd, Side side) {
  const Descriptor socket(fd);
  const Context context = make_context();
  const Session session = shake_hands(context.get(), fd, side);
  if (session != nullptr) SSL_shutdown(session.get());
  return session != nullptr;
}

void shake_many_hands(benchmark::State &state, Side side) {
  files(), peer_context();
  const Partner partner(side == Side::client ? Side::server : Side::client);
  const auto by = [&](bool (*handshake)(int fd, Side side)) {
    return [&, handshake] {
      test::Connection connection = test::local_connection();
      partner.meet(connection.theirs.release());
      return handshake(connection.ours.release(), side);
    };
  };
  take_turns(state, {{"ours", by(handshake_ours)}, {"bare", by(handshake_bare)}});
}

[[maybe_unused]] const bool registered = [] {
  register_over_both("tls_send",
                     [](auto &state, Wire wire) { move_buffers(state, wire, take_all_secured, send_ours, send_bare); });
  register_over_both("tls_recv",
                     [](auto &state, Wire wire) { move_buffers(state, wire, give_on_secured, recv_ours, recv_bare); });
  return true;
}();

BENCHMARK_CAPTURE(shake_many_hands, connect, Side::client)->Iterations(turns)->UseRealTime();
BENCHMARK_CAPTURE(shake_many_hands, accept, Side::server)->Iterations(turns)->UseRealTime();

}  // namespace
}  // namespace tarn::bench
