// TLS sessions with hosts, with the programs of OpenSSL, and their ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <future>
#include <string>
#include <utility>

#include "include/tarncluster_util.h"
#include "tests/net/tls_peer.h"
#include "tests/support/certificates.h"
#include "tests/support/log_capture.h"
#include "tests/support/program.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

// ----------------------------------------------------------------------------------------------------- hosts and ports

constexpr int port = 44330;

class Tls_Host : public Tls_Test {
 protected:
  // A server that does what it is told with the one connection that it gets.
  std::future<void> serve(const std::function<void(Descriptor)> &with_connection) {
    int fds[2] = {-1, -1};
    EXPECT_EQ(TCP_Socket_Listen("127.0.0.1", port, 5, fds, 1), 0);
    return std::async(std::launch::async, [listener = fds[0], with_connection] {
      const Descriptor owner(listener);
      with_connection(Descriptor(accept(listener, nullptr, nullptr)));
    });
  }

  int connect(const char *host, int to_port, int timeout_ms,
              const std::string &certificate = certificate_file("plain.pem")) {
    return SSL_Socket_Connect(host, to_port, timeout_ms, certificate.c_str(), "", certificate_file("ca.pem").c_str(),
                              &session_);
  }

  void expect_empty_record() const {
    const Tls_Session empty{-1, nullptr, nullptr, nullptr};
    EXPECT_EQ(session_.fd, -1);
    EXPECT_EQ(session_.bio, empty.bio);
    EXPECT_EQ(session_.ssl, empty.ssl);
    EXPECT_EQ(session_.ctx, empty.ctx);
  }

  Tls_Session session_{77, reinterpret_cast<BIO *>(3), reinterpret_cast<SSL *>(3), reinterpret_cast<SSL_CTX *>(3)};
};

TEST_F(Tls_Host, Is_connected_to_with_the_time_out_on_the_socket) {
  const Log_Capture log;
  auto server = serve([](Descriptor connection) {
    const Tls_Peer peer(std::move(connection));
    EXPECT_TRUE(peer.shakes_hands());
    EXPECT_EQ(peer.receive(5), "hello");
    peer.send("world");
  });
  ASSERT_EQ(connect("127.0.0.1", port, 61'500), 0);
  EXPECT_EQ(SSL_get_SSL_CTX(session_.ssl), session_.ctx);
  EXPECT_EQ(SSL_get_rbio(session_.ssl), session_.bio);
  EXPECT_EQ(SSL_get_fd(session_.ssl), session_.fd);
  timeval time{};
  socklen_t size = sizeof time;
  getsockopt(session_.fd, SOL_SOCKET, SO_RCVTIMEO, &time, &size);
  EXPECT_EQ(time.tv_sec * 1000 + time.tv_usec / 1000, 61'500);

  char text[6] = "";
  EXPECT_EQ(Exactly_SSL_Send(&session_, "hello", 5, 0), 5);
  EXPECT_EQ(Exactly_SSL_Recv(&session_, text, 5, 1000), 5);
  EXPECT_STREQ(text, "world");
  SSL_Socket_Destroy(&session_, 0);
  server.get();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Tls_Host, Missing_arguments_are_refused) {
  const std::string plain = certificate_file("plain.pem"), ca = certificate_file("ca.pem");
  EXPECT_EQ(connect(nullptr, port, 1000), -EINVAL);
  EXPECT_EQ(connect("127.0.0.1", -1, 1000), -EINVAL);
  EXPECT_EQ(SSL_Socket_Connect("127.0.0.1", port, 1000, plain.c_str(), "", ca.c_str(), nullptr), -EINVAL);
}

TEST_F(Tls_Host, Missing_certificate_arguments_are_refused) {
  // Where they are found missing, before or after the connection is made, is all the same: someone listens.
  auto server = serve([](Descriptor) {});
  const std::string plain = certificate_file("plain.pem"), ca = certificate_file("ca.pem");
  EXPECT_EQ(SSL_Socket_Connect("127.0.0.1", port, 1000, nullptr, "", ca.c_str(), &session_), -EINVAL);
  EXPECT_EQ(SSL_Socket_Connect("127.0.0.1", port, 1000, plain.c_str(), nullptr, ca.c_str(), &session_), -EINVAL);
  EXPECT_EQ(SSL_Socket_Connect("127.0.0.1", port, 1000, plain.c_str(), "", nullptr, &session_), -EINVAL);
  int fd = -1;
  EXPECT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", port, 1000, &fd), 0);
  close(fd);
  server.get();
}

TEST_F(Tls_Host, Port_0_is_refused_by_the_connection) {
  const Log_Capture log(1);
  EXPECT_EQ(connect("127.0.0.1", 0, 1000), -EINVAL);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("SSL_Socket_Connect", "Can't connect socket error! (-22)")));
  expect_empty_record();
}

TEST_F(Tls_Host, That_does_not_listen_is_reported) {
  const Log_Capture log;
  EXPECT_EQ(connect("127.0.0.1", port, 1000), -ECONNREFUSED);
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("TCP_Socket_Connect", "Can't connect socket error! (-111)"),
                                       error_line("SSL_Socket_Connect", "Can't connect socket error! (-111)")));
  expect_empty_record();
}

TEST_F(Tls_Host, That_does_not_speak_tls_is_reported_and_the_socket_closed) {
  const Log_Capture log;
  auto server = serve([](Descriptor connection) {
    send_text(connection, "220 smtp.example ESMTP, and no TLS at all\r\n");
    char byte;
    while (recv(connection.get(), &byte, 1, 0) == 1) {
    }  // until the other end closes
  });
  EXPECT_EQ(connect("127.0.0.1", port, 60'000), -EPROTO);
  EXPECT_EQ(ERR_peek_error(), 0U);
  server.get();
  EXPECT_THAT(log.lines(), ElementsAre(error_line("SSL_Socket_Connect", "SSL connect error! (-1, 0)")));
  expect_empty_record();
}

TEST_F(Tls_Host, That_accepts_and_stays_silent_is_given_up_after_the_time_out) {
  const Log_Capture log;
  std::promise<void> given_up;
  auto server = serve([&given_up](const Descriptor &) { given_up.get_future().wait(); });
  EXPECT_EQ(connect("127.0.0.1", port, 50), -EAGAIN);
  given_up.set_value();
  EXPECT_THAT(log.lines(), ElementsAre(error_line("SSL_Socket_Connect", "SSL connect error! (-1, 11)")));
  expect_empty_record();
}

TEST_F(Tls_Host, Is_let_go_of_when_there_is_no_context) {
  const Log_Capture log;
  auto server = serve([](const Descriptor &connection) { EXPECT_EQ(receive_text(connection, 1), ""); });
  EXPECT_EQ(connect("127.0.0.1", port, 1000, certificate_file("missing.pem")), -ENOENT);
  server.get();
  EXPECT_THAT(log.lines(), ElementsAre(error_line("CTX_Initialize", "Can't read certificate file! (-2)"),
                                       error_line("SSL_Socket_Connect", "Can't Initialize_CTX error! (-2, 2)")));
  expect_empty_record();
}

TEST_F(Tls_Host, A_record_of_a_failed_connection_may_be_destroyed) {
  EXPECT_EQ(connect("127.0.0.1", port, 1000), -ECONNREFUSED);
  SSL_Socket_Destroy(&session_, 0);
  expect_empty_record();
}

// ---------------------------------------------------------------------------------------------------- ends of sessions

// sessions

void expect_destroyed(Tls_Session &session, int no_shutdown) {
  const int fd = session.fd;
  SSL_Socket_Destroy(&session, no_shutdown);
  EXPECT_EQ(session.fd, -1);
  EXPECT_EQ(session.bio, nullptr);
  EXPECT_EQ(session.ssl, nullptr);
  EXPECT_EQ(session.ctx, nullptr);
  EXPECT_FALSE(is_open(fd));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

using Tls_End = Tls_Test;

TEST_F(Tls_End, Comes_with_a_close_alert) {
  for (const Wire wire : {Wire::client, Wire::server}) {
    Joined joined(wire);
    expect_destroyed(joined.session, 0);
    EXPECT_TRUE(joined.tls_peer().sees_close_alert());
  }
}

TEST_F(Tls_End, Comes_without_a_close_alert_when_told_so) {
  for (const Wire wire : {Wire::client, Wire::server}) {
    Joined joined(wire);
    expect_destroyed(joined.session, 1);
    EXPECT_FALSE(joined.tls_peer().sees_close_alert());
  }
}

TEST_F(Tls_End, Any_flag_but_0_means_no_alert) {
  Joined joined(Wire::client);
  expect_destroyed(joined.session, -2);
  EXPECT_FALSE(joined.tls_peer().sees_close_alert());
}

TEST_F(Tls_End, Does_not_wait_for_the_peers_alert) {
  Joined joined(Wire::client);
  expect_destroyed(joined.session, 0);  // the peer says nothing: a call that waited would hang
}

TEST_F(Tls_End, Of_no_record_is_harmless) {
  SSL_Socket_Destroy(nullptr, 0);
  SSL_Socket_Destroy(nullptr, 1);
}

TEST_F(Tls_End, Of_an_empty_record_is_harmless_and_so_is_a_second_one) {
  Joined joined(Wire::client);
  for (int i = 0; i < 3; ++i) expect_destroyed(joined.session, 0);
}

TEST_F(Tls_End, Of_a_plain_record_closes_the_socket) {
  Connection connection = local_connection();
  Tls_Session session{connection.ours.release(), nullptr, nullptr, nullptr};
  expect_destroyed(session, 0);
  EXPECT_EQ(receive_text(connection.theirs, 1), "");
}

// Counts what OpenSSL frees of the contexts that were marked.
class Context_Count {
 public:
  static void mark(SSL_CTX *ctx) { SSL_CTX_set_ex_data(ctx, index(), &freed_); }
  static int freed() { return std::exchange(freed_, 0); }

 private:
  static int index() {
    static const int number = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr,
                                                       [](void *, void *mark, CRYPTO_EX_DATA *, int, long, void *) {
                                                         if (mark != nullptr) ++freed_;
                                                       });
    return number;
  }
  inline static int freed_ = 0;
};

TEST_F(Tls_End, Of_a_record_with_a_context_only_frees_it_and_closes_the_socket) {
  Connection connection = local_connection();
  Tls_Session session{connection.ours.release(), nullptr, nullptr, nullptr};
  ASSERT_EQ(CTX_Initialize(certificate_file("plain.pem").c_str(), "", certificate_file("ca.pem").c_str(), &session.ctx),
            0);
  Context_Count::mark(session.ctx);
  expect_destroyed(session, 0);
  EXPECT_EQ(Context_Count::freed(), 1);
  EXPECT_EQ(receive_text(connection.theirs, 1), "");
}

TEST_F(Tls_End, Frees_the_context_with_the_session) {
  for (const int no_shutdown : {0, 1}) {
    Joined joined(Wire::server);
    Context_Count::mark(joined.session.ctx);
    expect_destroyed(joined.session, no_shutdown);
    EXPECT_EQ(Context_Count::freed(), 1);
  }
}

TEST_F(Tls_End, Of_a_session_whose_socket_was_taken_out_frees_the_rest) {
  Joined joined(Wire::client);
  const Descriptor taken_out(std::exchange(joined.session.fd, -1));
  expect_destroyed(joined.session, 0);
  EXPECT_TRUE(is_open(taken_out.get()));
  EXPECT_TRUE(joined.tls_peer().sees_close_alert());
}

TEST_F(Tls_End, With_a_peer_that_has_left_is_harmless) {
  Joined joined(Wire::client);
  joined.peer_closes();
  expect_destroyed(joined.session, 0);

  Joined by_tcp(Wire::server, tcp_connection());
  reset(&by_tcp.peer_socket());
  expect_destroyed(by_tcp.session, 0);
}

TEST_F(Tls_End, Of_a_broken_session_is_harmless) {
  Joined joined(Wire::client);
  send_text(joined.peer_socket(), "garbage behind the handshake");
  char byte;
  EXPECT_EQ(Exactly_SSL_Recv(&joined.session, &byte, 1, 1000), -EPROTO);
  expect_destroyed(joined.session, 0);
}

TEST_F(Tls_End, Of_a_session_in_the_middle_of_its_handshake_is_harmless) {
  Connection connection = local_connection();
  Tls_Session session{connection.ours.release(), nullptr, nullptr, nullptr};
  ASSERT_EQ(CTX_Initialize(certificate_file("plain.pem").c_str(), "", certificate_file("ca.pem").c_str(), &session.ctx),
            0);
  session.ssl = SSL_new(session.ctx);
  session.bio = BIO_new_socket(session.fd, BIO_NOCLOSE);
  SSL_set_bio(session.ssl, session.bio, session.bio);
  set_nonblocking(session.fd);
  EXPECT_EQ(SSL_connect(session.ssl), -1);
  ERR_clear_error();
  expect_destroyed(session, 0);
}

// ---------------------------------------------------------------------------------------------------------- real peers

class Real_Peer : public Tls_Test {
 protected:
  const std::string address_ = "127.0.0.1:" + std::to_string(port);

  // Accepts the one connection that a program makes, and answers its status.
  int accept_session(const std::string &certificate, Tls_Session *session) {
    const Descriptor connection_listener(std::exchange(listener_, -1));
    session->fd = accept(connection_listener.get(), nullptr, nullptr);
    return SSL_Accept_Socket(certificate.c_str(), "", certificate_file("ca.pem").c_str(), session);
  }

  void listen() {
    int fds[2] = {-1, -1};
    ASSERT_EQ(TCP_Socket_Listen("127.0.0.1", port, 5, fds, 1), 0);
    listener_ = fds[0];
  }

 private:
  int listener_ = -1;
};

TEST_F(Real_Peer, A_server_of_openssl_speaks_with_the_connecting_end) {
  for (const char *version : {"-tls1_2", "-tls1_3"}) {
    Program server{"openssl", "s_server",
                   "-accept", address_,
                   "-cert",   certificate_file("plain.pem"),
                   "-key",    certificate_file("plain.pem"),
                   version,   "-naccept",
                   "1"};
    ASSERT_TRUE(server.prints("ACCEPT")) << server.output();
    Tls_Session session;
    ASSERT_EQ(SSL_Socket_Connect("localhost", port, 10'000, certificate_file("plain.pem").c_str(), "",
                                 certificate_file("ca.pem").c_str(), &session),
              0);
    EXPECT_EQ(SSL_get_verify_result(session.ssl), X509_V_OK);
    EXPECT_EQ(Exactly_SSL_Send(&session, "from the library\n", 17, 0), 17);
    EXPECT_TRUE(server.prints("from the library\n")) << server.output();
    server.write("from openssl\n");
    char text[14] = "";
    EXPECT_EQ(Exactly_SSL_Peek(&session, text, 4, 10'000), 4);
    EXPECT_STREQ(text, "from");
    EXPECT_EQ(Exactly_SSL_Recv(&session, text, 13, 10'000), 13);
    EXPECT_STREQ(text, "from openssl\n");
    SSL_Socket_Destroy(&session, 0);
    EXPECT_TRUE(server.prints("DONE\n") || server.prints("CONNECTION CLOSED")) << server.output();
    EXPECT_EQ(server.wait(), 0);
  }
}

TEST_F(Real_Peer, A_client_of_openssl_speaks_with_the_accepting_end) {
  for (const char *version : {"-tls1_2", "-tls1_3"}) {
    listen();
    Program client{"openssl", "s_client", "-connect", address_, "-CAfile", certificate_file("ca.pem"), version};
    Tls_Session session{-1, nullptr, nullptr, nullptr};
    ASSERT_EQ(accept_session(certificate_file("chain.pem"), &session), 0);
    EXPECT_TRUE(client.prints("Verify return code: 0 (ok)")) << client.output();
    EXPECT_EQ(Exactly_SSL_Send(&session, "from the library\n", 17, 0), 17);
    EXPECT_TRUE(client.prints("from the library\n")) << client.output();
    client.write("from openssl\n");
    char text[14] = "";
    EXPECT_EQ(Exactly_SSL_Recv(&session, text, 13, 10'000), 13);
    EXPECT_STREQ(text, "from openssl\n");
    SSL_Socket_Destroy(&session, 0);
    EXPECT_TRUE(client.prints("closed")) << "the close alert came: " << client.output();
    EXPECT_EQ(client.wait(), 0);
  }
}

TEST_F(Real_Peer, A_client_of_openssl_is_shown_an_expired_certificate_as_it_is) {
  listen();
  Program client{"openssl", "s_client", "-connect", address_, "-CAfile", certificate_file("ca.pem")};
  Tls_Session session{-1, nullptr, nullptr, nullptr};
  ASSERT_EQ(accept_session(certificate_file("expired.pem"), &session), 0);
  EXPECT_TRUE(client.prints("Verify return code: 10 (certificate has expired)")) << client.output();
  SSL_Socket_Destroy(&session, 0);
  EXPECT_EQ(client.wait(), 0);
}

TEST_F(Real_Peer, A_client_of_openssl_that_insists_on_a_good_certificate_leaves) {
  const Log_Capture log;
  listen();
  Program client{"openssl",  "s_client",
                 "-connect", address_,
                 "-CAfile",  certificate_file("other_ca.pem"),
                 "-tls1_2",  "-verify_return_error"};
  Tls_Session session{-1, nullptr, nullptr, nullptr};
  EXPECT_EQ(accept_session(certificate_file("plain.pem"), &session), -EPROTO);
  close(session.fd);
  EXPECT_NE(client.wait(), 0);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("SSL_Accept_Socket", "SSL accept error! (-1, 0)")));
}

}  // namespace
