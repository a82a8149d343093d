// Single transfers and exact sending over TLS sessions and over the plain sockets that pass for them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/net/tls_peer.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

INSTANTIATE_TEST_SUITE_P(Wires, Transfer, testing::Values(Wire::plain, Wire::client, Wire::server), name_of_wire);

INSTANTIATE_TEST_SUITE_P(Wires, Broken_Session, testing::Values(Wire::client, Wire::server), name_of_wire);

// ------------------------------------------------------------------------------------------------- single transfers

TEST_P(Transfer, Single_calls_send_and_receive_what_is_there) {
  const auto joined = join();
  EXPECT_EQ(SSL_Send(&joined->session, "hello", 5, 0), 5);
  EXPECT_EQ(joined->peer_receives(5), "hello");
  joined->peer_sends("world");
  char buffer[100];
  EXPECT_EQ(SSL_Recv(&joined->session, buffer, sizeof buffer, 0), 5);
  EXPECT_EQ(std::string_view(buffer, 5), "world");
}

TEST_P(Transfer, A_single_receive_peeks_when_told_so) {
  const auto joined = join();
  joined->peer_sends("hello");
  char buffer[100];
  EXPECT_EQ(SSL_Recv(&joined->session, buffer, 2, MSG_PEEK), 2);
  EXPECT_EQ(SSL_Recv(&joined->session, buffer, sizeof buffer, MSG_PEEK | MSG_DONTWAIT), 5);
  EXPECT_EQ(SSL_Recv(&joined->session, buffer, sizeof buffer, 0), 5);
  EXPECT_EQ(std::string_view(buffer, 5), "hello");
  EXPECT_EQ(rest(&joined->session), "");
}

TEST_P(Transfer, Other_flags_count_on_a_plain_socket_only) {
  const auto joined = join();
  char buffer[100];
  if (is_tls_) {
    joined->peer_sends("hello");
    EXPECT_EQ(SSL_Recv(&joined->session, buffer, sizeof buffer, MSG_OOB), 5);
    EXPECT_EQ(SSL_Send(&joined->session, "hello", 5, MSG_OOB), 5);
    EXPECT_EQ(joined->peer_receives(5), "hello");
  } else {
    EXPECT_EQ(SSL_Recv(&joined->session, buffer, sizeof buffer, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    fill(Descriptor(dup(joined->session.fd)));
    EXPECT_EQ(SSL_Send(&joined->session, "hello", 5, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
  }
}

TEST_P(Transfer, A_single_receive_without_anything_there_gives_errno_and_the_end_gives_0) {
  const auto joined = join_impatiently();
  char byte;
  EXPECT_EQ(SSL_Recv(&joined->session, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
  joined->peer_closes();
  EXPECT_EQ(SSL_Recv(&joined->session, &byte, 1, 0), 0);
  EXPECT_EQ(SSL_Recv(&joined->session, &byte, 1, 0), 0) << "each time, with or without a close alert";
  ERR_clear_error();
}

TEST_P(Transfer, Missing_arguments_are_refused) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_sends("x");
  char buffer[1];
  int count = 0;
  EXPECT_EQ(SSL_Recv(nullptr, buffer, 1, 0), -EINVAL);
  EXPECT_EQ(SSL_Recv(&joined->session, nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(SSL_Send(nullptr, buffer, 1, 0), -EINVAL);
  EXPECT_EQ(SSL_Send(&joined->session, nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(SSL_Recv(&joined->session, buffer, -1, 0), -EINVAL);
  EXPECT_EQ(SSL_Send(&joined->session, buffer, -1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Peek(nullptr, buffer, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Recv(nullptr, buffer, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Recv_Ex(nullptr, buffer, 1, 0, &count), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, nullptr, 1, 0, &count), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer, 1, 0, nullptr), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Send(nullptr, buffer, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, nullptr, 1, 0), -EINVAL);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(rest(&joined->session), "x") << "nothing was done";
}

// ----------------------------------------------------------------------------------------------------- exact sending

TEST_P(Transfer, Sends_all_of_a_buffer_without_a_word) {
  const Log_Capture log;
  const auto joined = join();
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, "hello", 5, 0), 5);
  EXPECT_EQ(joined->peer_receives(5), "hello");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Transfer, Sending_nothing_does_nothing) {
  const auto joined = join();
  joined->peer_closes();
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, "", 0, 0), 0);
}

TEST_P(Transfer, Refuses_a_length_that_its_result_cannot_tell) {
  const Log_Capture log;
  const auto joined = join_impatiently();
  const char byte = 'x';
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, &byte, size_t{INT_MAX} + 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, &byte, SIZE_MAX, 0), -EINVAL);
  joined->peer_closes();
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Transfer, A_send_time_out_of_the_socket_is_a_time_out) {
  const Log_Capture log(1);
  const auto joined = join();
  set_time_out(joined->session.fd, SO_SNDTIMEO, 50);
  const std::string much(8'000'000, 'x');
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, much.data(), much.size(), 0), -ETIME);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Send", "Can't send error! (-62, 11)")));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(Tls_Test, A_short_write_is_noted_and_the_rest_tried) {
  const Joined joined(Wire::plain);
  Tls_Session session = joined.session;
  set_nonblocking(session.fd);
  const std::string much = letters(8'000'000);
  const Log_Capture log;
  EXPECT_EQ(Exactly_SSL_Send(&session, much.data(), much.size(), 0), -ETIME);
  const std::vector<Log_Line> lines = log.lines();
  ASSERT_GE(lines.size(), 2U);
  size_t sent = 0;
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    int asked = 0, written = 0;
    ASSERT_EQ(sscanf(lines[i].text.c_str(), "Not exactly send: %d, %d! Send again!", &asked, &written), 2);
    EXPECT_EQ(lines[i], debug_line("Exactly_SSL_Send", "Not exactly send: " + std::to_string(asked) + ", " +
                                                           std::to_string(written) + "! Send again!"));
    EXPECT_EQ(asked, static_cast<int>(much.size() - sent));
    sent += static_cast<size_t>(written);
  }
  EXPECT_EQ(lines.back(), error_line("Exactly_SSL_Send", "Can't send error! (-62, 11)"));
  EXPECT_EQ(joined.peer_receives(sent), much.substr(0, sent));
  EXPECT_EQ(recv(session.fd, nullptr, 0, MSG_DONTWAIT), -1);
}

TEST_F(Tls_Test, After_a_short_write_each_piece_goes_on_where_the_last_one_ended) {
  Joined joined(Wire::plain);
  set_nonblocking(joined.session.fd);
  set_nonblocking(joined.peer_socket().get());
  const std::string much = letters(8'000'000);
  std::string received;
  const Log_Capture log;
  Virtual_Clock clock(1'700'000'000'000);
  // The log looks at the clock for each line: after each short write the peer makes room.
  clock.on_read([&] { received += receive_text(joined.peer_socket()); });
  EXPECT_EQ(Exactly_SSL_Send(&joined.session, much.data(), much.size(), 0), 8'000'000);
  clock.on_read(nullptr);
  received += receive_text(joined.peer_socket());
  EXPECT_TRUE(received == much);
  EXPECT_THAT(log.lines(), Not(IsEmpty()));
}

TEST_P(Transfer, A_peer_that_left_ends_sending) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_closes();
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, "hello", 5, MSG_NOSIGNAL), -EPIPE);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Send", "Can't send error! (-32, 32)")));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(Tls_Test, A_plain_socket_gets_the_callers_flags_and_no_others) {
  const auto send_to_nobody = [](int flags) {
    return in_child([flags] {
      signal(SIGPIPE, SIG_DFL);
      Joined joined(Wire::plain);
      joined.peer_closes();
      EXPECT_EQ(Exactly_SSL_Send(&joined.session, "hello", 5, flags), -EPIPE);
    });
  };
  EXPECT_EQ(send_to_nobody(MSG_NOSIGNAL), 0);
  const int status = send_to_nobody(0);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE) << "the signal is the caller's";
}

// ----------------------------------------------------------------------------------------------------- broken sessions

// Who asks OpenSSL what a result means is not misled by what went wrong before.
TEST_P(Broken_Session, Stale_errors_do_not_explain_the_result_of_a_single_call) {
  Joined joined(GetParam());
  set_nonblocking(joined.session.fd);
  char byte;
  ERR_put_error(ERR_LIB_USER, 0, ERR_R_INTERNAL_ERROR, __FILE__, __LINE__);
  const int received = SSL_Recv(&joined.session, &byte, 1, 0);
  EXPECT_EQ(SSL_get_error(joined.session.ssl, received), SSL_ERROR_WANT_READ);
  fill(Descriptor(dup(joined.session.fd)));
  ERR_put_error(ERR_LIB_USER, 0, ERR_R_INTERNAL_ERROR, __FILE__, __LINE__);
  const int sent = SSL_Send(&joined.session, "x", 1, 0);
  EXPECT_EQ(SSL_get_error(joined.session.ssl, sent), SSL_ERROR_WANT_WRITE);
}

TEST_P(Broken_Session, Without_its_context_is_a_plain_socket) {
  Joined joined(GetParam());
  SSL_CTX *const ctx = std::exchange(joined.session.ctx, nullptr);
  EXPECT_EQ(Exactly_SSL_Send(&joined.session, "clear", 5, MSG_NOSIGNAL), 5);
  EXPECT_EQ(receive_text(joined.peer_socket(), 5), "clear");
  send_text(joined.peer_socket(), "clear");
  char buffer[6] = "";
  EXPECT_EQ(Exactly_SSL_Recv(&joined.session, buffer, 5, 0), 5);
  EXPECT_STREQ(buffer, "clear");
  joined.session.ctx = ctx;
}

TEST_P(Broken_Session, Ends_sending_with_a_protocol_error_whatever_errno_was) {
  const Log_Capture log;
  Joined joined(GetParam());
  SSL_shutdown(joined.session.ssl);
  errno = EAGAIN;
  EXPECT_EQ(Exactly_SSL_Send(&joined.session, "hello", 5, 0), -EPROTO);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Send", "Can't send error! (-71, 0)")));
  ERR_clear_error();
}

TEST_P(Broken_Session, That_writes_nothing_of_something_is_a_peer_that_left) {
  const Log_Capture log;
  Joined joined(GetParam());
  BIO_METHOD *const method = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "writes nothing");
  BIO_meth_set_write(method, [](BIO *, const char *, int) { return 0; });
  BIO_meth_set_ctrl(method, [](BIO *, int command, long, void *) { return command == BIO_CTRL_FLUSH ? 1L : 0L; });
  BIO *const idle = BIO_new(method);
  BIO_set_init(idle, 1);
  SSL_set0_wbio(joined.session.ssl, idle);
  EXPECT_EQ(Exactly_SSL_Send(&joined.session, "hello", 5, 0), -EPIPE);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Send", "Can't send error! (-32, 0)")));
  SSL_Socket_Destroy(&joined.session, 1);
  BIO_meth_free(method);
}

// A server of TLS 1.3 sends tickets behind the handshake, which are no message.

}  // namespace
