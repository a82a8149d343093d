// Exact receiving and peeking over TLS sessions and over the plain sockets that pass for them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <utility>

#include "include/tarncluster_util.h"
#include "tests/net/tls_peer.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;

INSTANTIATE_TEST_SUITE_P(Wires, Transfer, testing::Values(Wire::plain, Wire::client, Wire::server), name_of_wire);

INSTANTIATE_TEST_SUITE_P(Wires, Broken_Session, testing::Values(Wire::client, Wire::server), name_of_wire);

// A receive buffer with much room on both sides that nobody may write to.
class Guarded_Buffer {
 public:
  explicit Guarded_Buffer(size_t size) : size_(size), bytes_(guard + size + guard, mark) {}
  char *data() { return bytes_.data() + guard; }
  std::string text() const { return bytes_.substr(guard, size_); }
  std::string text(size_t length) const { return bytes_.substr(guard, length); }
  bool guards_are_untouched() const {
    const std::string untouched(guard, mark);
    return bytes_.starts_with(untouched) && bytes_.ends_with(untouched);
  }

 private:
  static constexpr size_t guard = 20'000;
  static constexpr char mark = '#';
  const size_t size_;
  std::string bytes_;
};

// A clock that goes on by 10 ms at each look of the code under test, and does something at a chosen look. Look 0 is the
// start of a call, each later one is a look at the deadline.
class Ticking_Clock {
 public:
  explicit Ticking_Clock(int64_t tick = 10) {
    clock_.on_read([this, tick] {
      const auto step = steps_.find(looks_);
      if (step != steps_.end()) step->second();
      ++looks_;
      clock_.advance(tick);
    });
  }

  void at_look(int number, std::function<void()> step) { steps_[number] = std::move(step); }
  int looks_at_the_deadline() const { return looks_ - 1; }

 private:
  Virtual_Clock clock_{1'700'000'000'000};
  int looks_ = 0;
  std::map<int, std::function<void()>> steps_;
};

// --------------------------------------------------------------------------------------------------- exact receiving

// Both names of the same loop.
struct Receiver {
  const char *name;
  int (*call)(Tls_Session *, void *, int, int, int *);
  bool tells_count;

  Log_Line failure(const std::string &text) const { return error_line(name, text); }
  Log_Line time_out(const std::string &text) const { return failure(name + ("() timeout! " + text)); }
};

constexpr Receiver receivers[] = {
    {"Exactly_SSL_Recv",
     [](Tls_Session *session, void *buffer, int length, int timeout_ms, int *) {
       return Exactly_SSL_Recv(session, buffer, length, timeout_ms);
     },
     false},
    {"Exactly_SSL_Recv_Ex", Exactly_SSL_Recv_Ex, true},
};

TEST_P(Transfer, Receives_exactly_what_was_asked_for_and_leaves_the_rest) {
  for (const Receiver &receiver : receivers) {
    const Log_Capture log;
    const auto joined = join();
    joined->peer_sends("hello, world");
    Guarded_Buffer buffer(5);
    int count = 99;
    EXPECT_EQ(receiver.call(&joined->session, buffer.data(), 5, 1000, &count), 5);
    EXPECT_EQ(buffer.text(), "hello");
    EXPECT_TRUE(buffer.guards_are_untouched());
    EXPECT_EQ(count, receiver.tells_count ? 5 : 99);
    EXPECT_EQ(rest(&joined->session), ", world");
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

TEST_P(Transfer, Receives_a_message_that_comes_in_pieces) {
  const auto joined = join();
  std::string sent;
  for (int i = 1; i <= 30; ++i) {
    const std::string piece = letters(static_cast<size_t>(i));
    joined->peer_sends(piece);
    sent += piece;
  }
  Guarded_Buffer buffer(sent.size());
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer.data(), static_cast<int>(sent.size()), -1),
            static_cast<int>(sent.size()));
  EXPECT_EQ(buffer.text(), sent);
}

TEST_P(Transfer, Receiving_nothing_is_done_at_once) {
  const Log_Capture log;
  const auto joined = join();
  char buffer[1] = {'#'};
  for (const int length : {0, -1, INT_MIN}) {
    int count = 99;
    EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer, length, -1), 0);
    EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer, length, -1, &count), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, length, -1), 0);
  }
  EXPECT_EQ(buffer[0], '#');
  EXPECT_THAT(log.lines(), IsEmpty());
}

// The other side of the wire depends on the rule of the next tests: it answers each time-out with one byte more.
TEST_P(Transfer, Each_time_out_before_the_deadline_lowers_the_count_by_one) {
  for (const Receiver &receiver : receivers) {
    for (const int time_outs : {1, 2, 7}) {
      const auto joined = join_impatiently();
      Ticking_Clock clock;
      const std::string sent = letters(static_cast<size_t>(time_outs + 10));
      clock.at_look(time_outs, [&] { joined->peer_sends(sent + "next"); });
      Guarded_Buffer buffer(10);
      int count = 99;
      EXPECT_EQ(receiver.call(&joined->session, buffer.data(), 10, 1000, &count), 10);
      EXPECT_EQ(buffer.text(), sent.substr(static_cast<size_t>(time_outs)));
      EXPECT_TRUE(buffer.guards_are_untouched());
      EXPECT_EQ(clock.looks_at_the_deadline(), time_outs);
      EXPECT_EQ(rest(&joined->session), "next");
    }
  }
}

TEST_P(Transfer, A_time_out_in_the_middle_of_a_message_overwrites_its_last_byte) {
  const auto joined = join_impatiently();
  joined->peer_sends("abcdef");
  Ticking_Clock clock;
  clock.at_look(2, [&] { joined->peer_sends("0123456789"); });
  Guarded_Buffer buffer(10);
  int count = 0;
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer.data(), 10, 1000, &count), 10);
  EXPECT_EQ(buffer.text(), "abcd012345");
  EXPECT_TRUE(buffer.guards_are_untouched());
  EXPECT_EQ(rest(&joined->session), "6789");
}

TEST_P(Transfer, More_time_outs_than_bytes_drop_what_would_lie_before_the_buffer) {
  const auto joined = join_impatiently();
  joined->peer_sends("ab");
  Ticking_Clock clock;
  clock.at_look(5, [&] { joined->peer_sends("0"); });        // lies at -3
  clock.at_look(6, [&] { joined->peer_sends("1234567"); });  // begins at -3 again, after a time-out at -2
  Guarded_Buffer buffer(4);
  int count = 0;
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer.data(), 4, 1000, &count), 4);
  EXPECT_EQ(buffer.text(), "4567");
  EXPECT_TRUE(buffer.guards_are_untouched());
}

TEST_P(Transfer, Thousands_of_time_outs_take_as_many_bytes_more) {
  constexpr int time_outs = 9000;
  const auto joined = join_impatiently();
  const std::string sent = letters(time_outs + 5);
  Ticking_Clock clock;
  clock.at_look(time_outs, [&] { joined->peer_sends(sent + "next"); });
  Guarded_Buffer buffer(5);
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer.data(), 5, -1), 5);
  EXPECT_EQ(buffer.text(), sent.substr(time_outs));
  EXPECT_TRUE(buffer.guards_are_untouched());
  EXPECT_EQ(rest(&joined->session), "next");
}

TEST_P(Transfer, A_silent_peer_is_given_up_behind_the_deadline) {
  for (const Receiver &receiver : receivers) {
    const Log_Capture log;
    const auto joined = join_impatiently();
    Ticking_Clock clock;
    Guarded_Buffer buffer(10);
    int count = 99;
    EXPECT_EQ(receiver.call(&joined->session, buffer.data(), 10, 50, &count), -ETIME);
    EXPECT_EQ(errno, ETIME);
    // 50 ms are not more than 50 ms: the sixth time-out, at 60 ms, is the first behind the deadline and not counted.
    EXPECT_THAT(log.lines(), ElementsAre(receiver.time_out("Want 10 bytes, got -5 bytes! (11, 60)")));
    EXPECT_EQ(count, receiver.tells_count ? -5 : 99);
    EXPECT_EQ(buffer.text(), "##########");
    EXPECT_TRUE(buffer.guards_are_untouched());
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST_P(Transfer, A_deadline_of_0_is_passed_by_any_time) {
  const auto joined = join_impatiently();
  Ticking_Clock clock(1);
  char byte;
  int count = 99;
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, &byte, 1, 0, &count), -ETIME);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(clock.looks_at_the_deadline(), 1);
}

TEST_P(Transfer, The_time_out_of_a_blocking_socket_counts_the_same) {
  const auto joined = join();
  set_time_out(joined->session.fd, SO_RCVTIMEO, 10);
  Ticking_Clock clock;
  clock.at_look(3, [&] { joined->peer_sends("0123456789"); });
  Guarded_Buffer buffer(5);
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer.data(), 5, 1000), 5);
  EXPECT_EQ(buffer.text(), "34567");
  EXPECT_TRUE(buffer.guards_are_untouched());
  EXPECT_EQ(rest(&joined->session), "89");
}

TEST_P(Transfer, A_negative_deadline_never_comes) {
  const auto joined = join_impatiently();
  Ticking_Clock clock(1'000'000'000'000);
  clock.at_look(100, [&] { joined->peer_sends(std::string(105, 'x')); });
  Guarded_Buffer buffer(5);
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer.data(), 5, -1), 5);
  EXPECT_EQ(buffer.text(), "xxxxx");
}

TEST_P(Transfer, The_end_of_the_stream_is_nothing_received_until_the_deadline) {
  for (const Receiver &receiver : receivers) {
    for (const bool says_goodbye : {false, true}) {
      if (says_goodbye && !is_tls_) continue;
      const Log_Capture log;
      const auto joined = join();
      joined->peer_sends("abc");
      if (says_goodbye) joined->tls_peer().say_goodbye();
      joined->peer_closes();
      Ticking_Clock clock;
      Guarded_Buffer buffer(10);
      int count = 99;
      errno = EAGAIN;  // of an earlier call
      EXPECT_EQ(receiver.call(&joined->session, buffer.data(), 10, 70, &count), -ETIME);
      EXPECT_EQ(errno, ETIME);
      EXPECT_THAT(log.lines(), ElementsAre(receiver.time_out("Want 10 bytes, got 3 bytes! (0, 80)")));
      EXPECT_EQ(count, receiver.tells_count ? 3 : 99);
      EXPECT_EQ(buffer.text(3), "abc");
      EXPECT_TRUE(buffer.guards_are_untouched());
      EXPECT_EQ(ERR_peek_error(), 0U);
    }
  }
}

TEST_P(Transfer, A_reset_ends_receiving_at_once_with_the_count_so_far) {
  for (const Receiver &receiver : receivers) {
    const Log_Capture log;
    const auto joined = join(tcp_connection());
    joined->peer_sends("abc");
    reset(&joined->peer_socket());
    char buffer[10];
    int count = 99;
    EXPECT_EQ(receiver.call(&joined->session, buffer, 10, -1, &count), -ECONNRESET);
    EXPECT_THAT(log.lines(), ElementsAre(receiver.failure("Can't receive error (-104, 104)!")));
    EXPECT_EQ(count, receiver.tells_count ? 3 : 99);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST_F(Tls_Test, A_socket_that_is_none_ends_each_transfer_with_its_errno) {
  const Log_Capture log;
  Tls_Session session{-1, nullptr, nullptr, nullptr};
  char buffer[10] = "";
  int count = 99;
  EXPECT_EQ(Exactly_SSL_Recv(&session, buffer, 10, -1), -EBADF);
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&session, buffer, 10, -1, &count), -EBADF);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(Exactly_SSL_Peek(&session, buffer, 10, -1), -EBADF);
  EXPECT_EQ(Exactly_SSL_Send(&session, buffer, 10, 0), -EBADF);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Recv", "Can't receive error (-9, 9)!"),
                                       error_line("Exactly_SSL_Recv_Ex", "Can't receive error (-9, 9)!"),
                                       error_line("Exactly_SSL_Peek", "Can't receive error (-9, 9)!"),
                                       error_line("Exactly_SSL_Send", "Can't send error! (-9, 9)")));
}

TEST_P(Transfer, The_whole_range_of_lengths_survives_time_outs) {
  const auto joined = join_impatiently();
  Ticking_Clock clock;
  clock.at_look(3, [&] {
    joined->peer_sends("0123456789");
    joined->peer_closes();
  });
  Guarded_Buffer buffer(100);
  int count = 0;
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer.data(), INT_MAX, 100, &count), -ETIME);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(buffer.text(8), "3456789#");
}

TEST_P(Transfer, The_count_stops_at_its_lower_end) {
  const auto joined = join_impatiently();
  Ticking_Clock clock;
  Guarded_Buffer buffer(10);
  int count = 0;
  // The count lives in the caller's variable: that spares the time for two thousand million time-outs.
  clock.at_look(1, [&] { count = INT_MIN + 1; });
  EXPECT_EQ(Exactly_SSL_Recv_Ex(&joined->session, buffer.data(), 10, 50, &count), -ETIME);
  EXPECT_EQ(count, INT_MIN);
  EXPECT_TRUE(buffer.guards_are_untouched());
}

TEST_P(Transfer, A_million_bytes_go_and_come) {
  constexpr int million = 1'000'000;
  const std::string line = letters(million - 1) + "\n";
  const auto joined = join();
  auto echo = std::async(std::launch::async, [&] {
    const std::string text = joined->peer_receives(million);
    joined->peer_sends(text);
  });
  EXPECT_EQ(Exactly_SSL_Send(&joined->session, line.data(), million, 0), million);
  std::string received(million, '\0');
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, received.data(), million, 60'000), million);
  echo.get();
  EXPECT_TRUE(received == line);
}

TEST_P(Transfer, Comes_whole_from_a_peer_that_sends_one_byte_at_a_time) {
  const auto joined = join(tcp_connection());
  auto sender = std::async(std::launch::async, [&] {
    for (char byte = 'a'; byte <= 'z'; ++byte) joined->peer_sends(std::string(1, byte));
  });
  Guarded_Buffer buffer(26);
  EXPECT_EQ(Exactly_SSL_Recv(&joined->session, buffer.data(), 26, 60'000), 26);
  EXPECT_EQ(buffer.text(), letters(26));
  sender.get();
}

TEST_F(Tls_Test, Tickets_behind_the_handshake_are_not_received) {
  Joined joined(Wire::client, local_connection(), {.tickets = 2});
  joined.peer_sends("hello");
  char buffer[6] = "";
  EXPECT_EQ(Exactly_SSL_Recv(&joined.session, buffer, 5, 1000), 5);
  EXPECT_STREQ(buffer, "hello");
}

// ------------------------------------------------------------------------------------------------------ exact peeking

TEST_P(Transfer, A_peek_shows_exactly_what_was_asked_for_and_takes_nothing) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_sends("hello, world");
  for (int i = 0; i < 3; ++i) {
    Guarded_Buffer buffer(5);
    EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer.data(), 5, 0), 5);
    EXPECT_EQ(buffer.text(), "hello");
    EXPECT_TRUE(buffer.guards_are_untouched());
  }
  EXPECT_EQ(rest(&joined->session), "hello, world");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Transfer, A_peek_asks_again_until_the_deadline_while_part_is_there) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_sends("abc");
  Ticking_Clock clock;
  char buffer[5];
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, 50), -ETIME);
  EXPECT_EQ(errno, ETIME);
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Exactly_SSL_Peek", "Exactly_Peek() timeout! Want 5 bytes, got 3 bytes!")));
  EXPECT_GE(clock.looks_at_the_deadline(), 6) << "50 ms are not more than 50 ms";
  EXPECT_EQ(rest(&joined->session), "abc");
}

TEST_P(Transfer, A_peek_at_the_end_of_the_stream_is_given_up_behind_the_deadline) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_closes();
  Ticking_Clock clock;
  char buffer[5];
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, 50), -ETIME);
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Exactly_SSL_Peek", "Exactly_Peek() timeout! Want 5 bytes, got 0 bytes!")));
}

TEST_P(Transfer, A_peek_with_nothing_there_ends_with_the_time_out_of_the_socket) {
  const Log_Capture log;
  const auto joined = join_impatiently();
  char buffer[5];
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, -1), -EAGAIN);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Peek", "Can't receive error (-11, 11)!")));
}

TEST_P(Transfer, A_peek_of_a_reset_connection_gives_its_errno) {
  const auto joined = join(tcp_connection());
  reset(&joined->peer_socket());
  char buffer[5];
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, -1), -ECONNRESET);
}

TEST_P(Transfer, A_peek_sees_a_message_of_two_pieces_on_a_plain_socket_only) {
  const Log_Capture log;
  const auto joined = join();
  joined->peer_sends("abc");
  Ticking_Clock clock;
  clock.at_look(2, [&] { joined->peer_sends("de"); });
  char buffer[6] = "";
  if (is_tls_) {
    EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, 100), -ETIME);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("Exactly_SSL_Peek", "Exactly_Peek() timeout! Want 5 bytes, got 3 bytes!")));
  } else {
    EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer, 5, -1), 5) << "without a deadline";
    EXPECT_STREQ(buffer, "abcde");
  }
}

TEST_P(Transfer, A_peek_sees_more_than_a_record_on_a_plain_socket_only) {
  const auto joined = join();
  const std::string message = letters(16385);
  joined->peer_sends(message);
  Ticking_Clock clock;
  std::string buffer(message.size(), '\0');
  const int length = static_cast<int>(message.size());
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer.data(), length, 1000), is_tls_ ? -ETIME : length);
  EXPECT_EQ(Exactly_SSL_Peek(&joined->session, buffer.data(), 16384, 1000), 16384);
}

// ----------------------------------------------------------------------------------------------------- broken sessions

TEST_P(Broken_Session, Ends_receiving_with_a_protocol_error_whatever_errno_was) {
  for (const Receiver &receiver : receivers) {
    const Log_Capture log;
    Joined joined(GetParam());
    joined.peer_sends("abc");
    send_text(joined.peer_socket(), "garbage in place of a record");
    char buffer[10];
    int count = 99;
    errno = EAGAIN;  // would make the session look like a slow one, for ever
    EXPECT_EQ(receiver.call(&joined.session, buffer, 10, -1, &count), -EPROTO);
    EXPECT_THAT(log.lines(), ElementsAre(receiver.failure("Can't receive error (-71, 0)!")));
    EXPECT_EQ(count, receiver.tells_count ? 3 : 99);
    ERR_clear_error();
  }
}

TEST_P(Broken_Session, Ends_peeking_with_a_protocol_error_whatever_errno_was) {
  const Log_Capture log;
  Joined joined(GetParam());
  send_text(joined.peer_socket(), "garbage in place of a record");
  char buffer[10];
  errno = EAGAIN;
  EXPECT_EQ(Exactly_SSL_Peek(&joined.session, buffer, 10, -1), -EPROTO);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Exactly_SSL_Peek", "Can't receive error (-71, 0)!")));
  ERR_clear_error();
}

}  // namespace
