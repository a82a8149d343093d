// The other end of a TLS session, in the test's own hands: bare OpenSSL calls on the peer's socket.
#pragma once

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/sockets.h"

namespace tarn::test {

struct Peer_Options {
  bool is_server = true;
  std::string certificate = "plain.pem";  // see certificate_file(); empty: none
  int lowest_version = 0;                 // for example TLS1_2_VERSION; 0: any
  int highest_version = 0;
  bool asks_for_certificate = false;
  int tickets = 0;  // that a server sends after a handshake of TLS 1.3
};

// Nothing that it does is left in the thread's queue of OpenSSL errors.
class Tls_Peer {
 public:
  explicit Tls_Peer(Descriptor socket, const Peer_Options &options = {});
  ~Tls_Peer();  // without a close alert
  Tls_Peer(const Tls_Peer &) = delete;
  Tls_Peer &operator=(const Tls_Peer &) = delete;

  bool shakes_hands() const;
  void send(const std::string &text) const;  // one record for each 16384 bytes
  std::string receive(size_t length) const;  // what came of it before the end
  void say_goodbye() const;                  // sends a close alert
  bool sees_close_alert() const;             // reads on to the end of the stream; whether an alert was there
  void swallow_tickets() const;
  SSL *ssl() const { return ssl_; }
  Descriptor &socket() { return socket_; }

 private:
  Descriptor socket_;
  SSL_CTX *context_;
  SSL *ssl_;
};

void set_nonblocking(int fd);
void set_time_out(int fd, int option, int milliseconds);  // SO_RCVTIMEO, SO_SNDTIMEO
bool is_open(int fd);

// What the library's end of a connection is.
enum class Wire { plain, client, server };

// A session of the library and its peer. What the peer sends on a local connection is there at once.
class Joined {
 public:
  explicit Joined(Wire wire, Connection connection = local_connection(), const Peer_Options &options = {});
  ~Joined();
  Joined(const Joined &) = delete;
  Joined &operator=(const Joined &) = delete;

  Tls_Session session{-1, nullptr, nullptr, nullptr};
  bool is_tls() const { return tls_ != nullptr; }
  void peer_sends(const std::string &text) const;
  std::string peer_receives(size_t length) const;
  void peer_closes();  // without a close alert
  const Tls_Peer &tls_peer() const { return *tls_; }
  Descriptor &peer_socket() { return tls_ ? tls_->socket() : plain_; }

 private:
  Descriptor plain_;
  std::unique_ptr<Tls_Peer> tls_;
};

// Each test leaves no descriptor and no OpenSSL error behind, and ends when it hangs.
class Tls_Test : public Descriptor_Count {
 protected:
  Tls_Test();
  ~Tls_Test() override;
};

// A test of what goes over a wire, whatever the wire is.
class Transfer : public Tls_Test, public testing::WithParamInterface<Wire> {
 protected:
  const Wire wire_ = GetParam();
  const bool is_tls_ = wire_ != Wire::plain;

  std::unique_ptr<Joined> join(Connection connection = local_connection()) const {
    return std::make_unique<Joined>(wire_, std::move(connection));
  }

  // A session whose receive calls answer EAGAIN at once when nothing is there.
  std::unique_ptr<Joined> join_impatiently() const {
    auto joined = join();
    set_nonblocking(joined->session.fd);
    return joined;
  }

  // What is left for the next receiver, as far as it is there.
  static std::string rest(Tls_Session *session);
};

class Broken_Session : public Tls_Test, public testing::WithParamInterface<Wire> {};

inline std::string name_of_wire(const testing::TestParamInfo<Wire> &test) {
  return test.param == Wire::plain ? "Plain" : test.param == Wire::client ? "Client" : "Server";
}

std::string letters(size_t length);  // "abc...zabc..."

}  // namespace tarn::test
