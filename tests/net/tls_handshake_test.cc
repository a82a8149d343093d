// Handshakes of TLS sessions on connected sockets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/net/tls_peer.h"
#include "tests/support/certificates.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// What the two ends of a handshake differ in.
struct End {
  const char *label;
  int (*join)(const char *, const char *, const char *, Tls_Session *);
  const char *function;
  const char *verb;

  Log_Line failure(int result, int error) const {
    return error_line(function, "SSL " + std::string(verb) + " error! (" + std::to_string(result) + ", " +
                                    std::to_string(error) + ")");
  }
  int with(const std::string &certificate, Tls_Session *session, const std::string &password = "") const {
    return join(certificate.c_str(), password.c_str(), certificate_file("ca.pem").c_str(), session);
  }
};

std::ostream &operator<<(std::ostream &out, const End &end) {
  return out << end.label;
}

constexpr End client_end = {"Client", SSL_Connect_Socket, "SSL_Connect_Socket", "connect"};
constexpr End server_end = {"Server", SSL_Accept_Socket, "SSL_Accept_Socket", "accept"};

class Handshake : public Tls_Test, public testing::WithParamInterface<End> {
 protected:
  const End &end_ = GetParam();
  const bool peer_is_server_ = end_.join == SSL_Connect_Socket;

  // The library's end shakes hands with a bare peer; then look is called with both.
  void with_peer(Peer_Options options, const std::string &certificate,
                 const std::function<void(Tls_Session &, const Tls_Peer &)> &look) {
    Connection connection = local_connection();
    options.is_server = peer_is_server_;
    const Tls_Peer peer(std::move(connection.theirs), options);
    auto handshake = std::async(std::launch::async, [&peer] { return peer.shakes_hands(); });
    Tls_Session session{connection.ours.release(), nullptr, nullptr, nullptr};
    const int status = end_.with(certificate, &session);
    if (status != 0) shutdown(session.fd, SHUT_RDWR);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(handshake.get());
    look(session, peer);
    SSL_Socket_Destroy(&session, 1);
  }

  // The handshake fails with the status and one line; the caller's socket stays open and the record as it was.
  void expect_failure(int fd, int status, const testing::Matcher<std::vector<Log_Line>> &lines,
                      const std::string &certificate = certificate_file("plain.pem")) {
    const Log_Capture log;
    const Tls_Session before{fd, nullptr, reinterpret_cast<SSL *>(3), reinterpret_cast<SSL_CTX *>(5)};
    Tls_Session session = before;
    EXPECT_EQ(end_.with(certificate, &session), status);
    EXPECT_THAT(log.lines(), lines);
    EXPECT_TRUE(is_open(fd));
    EXPECT_EQ(memcmp(&session, &before, sizeof session), 0);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
};

INSTANTIATE_TEST_SUITE_P(Ends, Handshake, testing::Values(client_end, server_end),
                         [](const auto &test) { return test.param.label; });

TEST_P(Handshake, Fills_all_of_the_record) {
  const Log_Capture log;
  with_peer({}, certificate_file("plain.pem"), [&](Tls_Session &session, const Tls_Peer &) {
    ASSERT_NE(session.ssl, nullptr);
    EXPECT_TRUE(is_open(session.fd));
    EXPECT_EQ(SSL_get_SSL_CTX(session.ssl), session.ctx);
    EXPECT_EQ(SSL_get_rbio(session.ssl), session.bio);
    EXPECT_EQ(SSL_get_wbio(session.ssl), session.bio);
    EXPECT_EQ(SSL_get_fd(session.ssl), session.fd);
    EXPECT_EQ(BIO_get_shutdown(session.bio), BIO_NOCLOSE);
    EXPECT_EQ(SSL_is_server(session.ssl), end_.join == SSL_Accept_Socket);
    EXPECT_THAT(log.lines(), IsEmpty());
  });
}

TEST_P(Handshake, Speaks_every_version_that_the_peer_insists_on) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    with_peer({.lowest_version = version, .highest_version = version}, certificate_file("plain.pem"),
              [&](Tls_Session &session, const Tls_Peer &) { EXPECT_EQ(SSL_version(session.ssl), version); });
  }
}

TEST_P(Handshake, Shows_the_whole_certificate_chain) {
  with_peer({.asks_for_certificate = true}, certificate_file("chain.pem"), [](Tls_Session &, const Tls_Peer &peer) {
    EXPECT_EQ(SSL_get_verify_result(peer.ssl()), X509_V_OK) << "the intermediate authority was there";
    // A server's own view of its client's chain leaves the client's certificate out.
    EXPECT_EQ(sk_X509_num(SSL_get_peer_cert_chain(peer.ssl())), SSL_is_server(peer.ssl()) ? 1 : 2);
  });
}

TEST_P(Handshake, Does_not_verify_the_peer_but_knows_the_result) {
  const auto result_for = [this](const std::string &certificate) {
    long result = -1;
    with_peer({.certificate = certificate}, certificate_file("plain.pem"),
              [&](Tls_Session &session, const Tls_Peer &) { result = SSL_get_verify_result(session.ssl); });
    return result;
  };
  if (peer_is_server_) {
    EXPECT_EQ(result_for("plain.pem"), X509_V_OK);
    EXPECT_EQ(result_for("expired.pem"), X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_EQ(result_for("chain.pem"), X509_V_OK);
  } else {
    EXPECT_EQ(result_for(""), X509_V_OK) << "a client needs no certificate";
  }
}

TEST_P(Handshake, Uses_an_expired_certificate_of_its_own) {
  with_peer({.asks_for_certificate = true}, certificate_file("expired.pem"), [](Tls_Session &, const Tls_Peer &peer) {
    EXPECT_EQ(SSL_get_verify_result(peer.ssl()), X509_V_ERR_CERT_HAS_EXPIRED);
  });
}

TEST_P(Handshake, Refuses_missing_arguments_and_a_record_without_socket) {
  const std::string plain = certificate_file("plain.pem"), ca = certificate_file("ca.pem");
  const Connection connection = local_connection();
  Tls_Session session{connection.ours.get(), nullptr, nullptr, nullptr};
  EXPECT_EQ(end_.join(nullptr, "", ca.c_str(), &session), -EINVAL);
  EXPECT_EQ(end_.join(plain.c_str(), nullptr, ca.c_str(), &session), -EINVAL);
  EXPECT_EQ(end_.join(plain.c_str(), "", nullptr, &session), -EINVAL);
  EXPECT_EQ(end_.join(plain.c_str(), "", ca.c_str(), nullptr), -EINVAL);
  EXPECT_TRUE(is_open(session.fd));
  session.fd = -1;
  EXPECT_EQ(end_.join(plain.c_str(), "", ca.c_str(), &session), -EINVAL);
}

TEST_P(Handshake, Reports_why_there_is_no_context) {
  const Connection connection = local_connection();
  expect_failure(connection.ours.get(), -ENOENT,
                 ElementsAre(error_line("CTX_Initialize", "Can't read certificate file! (-2)"),
                             error_line(end_.function, "Can't Initialize_CTX error! (-2, 2)")),
                 certificate_file("missing.pem"));
}

TEST_P(Handshake, Reports_a_key_that_is_not_to_be_had) {
  const Connection connection = local_connection();
  const Log_Capture log(1);
  Tls_Session session{connection.ours.get(), nullptr, nullptr, nullptr};
  EXPECT_EQ(end_.with(certificate_file("encrypted.pem"), &session, "wrong"), -ENOENT);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_EQ(log.lines()[0], error_line("CTX_Initialize", "Can't read key file!"));
  EXPECT_EQ(log.lines()[1].function, end_.function);
  EXPECT_THAT(log.lines()[1].text, StartsWith("Can't Initialize_CTX error! (-2, "));
}

TEST_P(Handshake, With_garbage_is_a_protocol_error) {
  const Connection connection = local_connection();
  send_text(connection.theirs, "220 smtp.example ESMTP, and no TLS at all\r\n");
  expect_failure(connection.ours.get(), -EPROTO, ElementsAre(end_.failure(-1, 0)));
}

TEST_P(Handshake, With_a_garbled_record_of_tls_is_a_protocol_error) {
  const Connection connection = local_connection();
  send_text(connection.theirs, std::string("\x16\x03\x03\x00\x20", 5) + std::string(32, 'x'));
  expect_failure(connection.ours.get(), -EPROTO, ElementsAre(end_.failure(-1, 0)));
}

TEST_P(Handshake, With_a_peer_that_closes_at_once_is_a_protocol_error) {
  const Connection connection = tcp_connection();
  end_sending(connection.theirs);
  expect_failure(connection.ours.get(), -EPROTO, ElementsAre(testing::AnyOf(end_.failure(0, 0), end_.failure(-1, 0))));
}

TEST_P(Handshake, With_a_peer_that_resets_gives_the_errno) {
  Connection connection = tcp_connection();
  if (peer_is_server_) {
    auto reset_later = std::async(std::launch::async, [&connection] {
      receive_text(connection.theirs, 5);  // the client's hello is on its way
      reset(&connection.theirs);
    });
    expect_failure(connection.ours.get(), -ECONNRESET, ElementsAre(end_.failure(-1, ECONNRESET)));
  } else {
    reset(&connection.theirs);
    expect_failure(connection.ours.get(), -ECONNRESET, ElementsAre(end_.failure(-1, ECONNRESET)));
  }
}

TEST_P(Handshake, With_a_silent_peer_ends_with_the_time_out_of_the_socket) {
  const Connection connection = local_connection();
  set_time_out(connection.ours.get(), SO_RCVTIMEO, 50);
  expect_failure(connection.ours.get(), -EAGAIN, ElementsAre(end_.failure(-1, EAGAIN)));
}

TEST_P(Handshake, With_a_peer_that_stops_in_the_middle_ends_with_the_time_out_of_the_socket) {
  const Connection connection = local_connection();
  set_time_out(connection.ours.get(), SO_RCVTIMEO, 50);
  send_text(connection.theirs, std::string("\x16\x03\x03\x00\x7a\x02\x00", 7));
  expect_failure(connection.ours.get(), -EAGAIN, ElementsAre(end_.failure(-1, EAGAIN)));
}

TEST_P(Handshake, With_a_peer_that_answers_with_an_alert_is_a_protocol_error) {
  const Connection connection = local_connection();
  send_text(connection.theirs, std::string("\x15\x03\x03\x00\x02\x02\x46", 7));  // fatal: protocol version
  expect_failure(connection.ours.get(), -EPROTO, ElementsAre(end_.failure(-1, 0)));
}

TEST_P(Handshake, On_a_socket_that_is_none_gives_the_errno) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const Descriptor reader(pipe_ends[0]), writer(pipe_ends[1]);
  // A client's first step is to write, a server's to read.
  const int fd = peer_is_server_ ? reader.get() : writer.get();
  expect_failure(fd, -EBADF, ElementsAre(end_.failure(-1, EBADF)));
}

TEST_P(Handshake, A_stale_errno_is_no_reason_of_a_failure) {
  const Connection connection = local_connection();
  send_text(connection.theirs, "garbage that is longer than a record's head");
  errno = EPERM;
  expect_failure(connection.ours.get(), -EPROTO, ElementsAre(end_.failure(-1, 0)));
}

TEST_P(Handshake, A_failed_one_does_not_disturb_the_next) {
  for (int round = 0; round < 3; ++round) {
    const Connection connection = local_connection();
    send_text(connection.theirs, "garbage that is longer than a record's head");
    expect_failure(connection.ours.get(), -EPROTO, ElementsAre(end_.failure(-1, 0)));
    with_peer({}, certificate_file("plain.pem"), [](Tls_Session &session, const Tls_Peer &peer) {
      peer.send("x");
      char byte = 0;
      EXPECT_EQ(Exactly_SSL_Recv(&session, &byte, 1, 1000), 1);
    });
  }
}

TEST_P(Handshake, Comes_about_with_a_peer_that_sends_one_byte_at_a_time) {
  Connection near = tcp_connection(), far = local_connection();
  const auto carry_bytes = [](int from, int to) {
    char byte;
    while (recv(from, &byte, 1, 0) == 1 && ::send(to, &byte, 1, MSG_NOSIGNAL) == 1) {
    }
    shutdown(to, SHUT_WR);
  };
  auto towards_us = std::async(std::launch::async, [&] { carry_bytes(far.ours.get(), near.theirs.get()); });
  auto away = std::async(std::launch::async, [&] { carry_bytes(near.theirs.get(), far.ours.get()); });
  Joined joined(peer_is_server_ ? Wire::client : Wire::server, {std::move(near.ours), std::move(far.theirs)});
  const std::string text(2000, 'b');
  joined.peer_sends(text);
  std::string received(text.size(), '\0');
  EXPECT_EQ(Exactly_SSL_Recv(&joined.session, received.data(), static_cast<int>(text.size()), 60'000), 2000);
  EXPECT_EQ(received, text);
  SSL_Socket_Destroy(&joined.session, 0);
  joined.peer_closes();
  away.wait();
  towards_us.wait();
}

TEST_P(Handshake, Leaves_the_disposition_of_signals_alone) {
  signal(SIGPIPE, SIG_DFL);
  const Connection connection = tcp_connection();
  end_sending(connection.theirs);
  expect_failure(connection.ours.get(), -EPROTO, testing::_);
  struct sigaction action;
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST_F(Tls_Test, An_accepting_end_without_a_certificate_comes_to_no_terms) {
  const Log_Capture log;
  Connection connection = local_connection();
  const Tls_Peer peer(std::move(connection.theirs), {.is_server = false});
  auto handshake = std::async(std::launch::async, [&peer] { return peer.shakes_hands(); });
  Tls_Session session{connection.ours.get(), nullptr, nullptr, nullptr};
  EXPECT_EQ(server_end.with(certificate_file("key_only.pem"), &session), -EPROTO);
  EXPECT_FALSE(handshake.get());
  EXPECT_THAT(log.lines(), ElementsAre(server_end.failure(-1, 0)));
  EXPECT_EQ(session.ctx, nullptr);
}

}  // namespace
