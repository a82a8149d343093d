#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/command.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_disk.h"
#include "tests/support/sockets.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t untouched = 777;
constexpr int closed_fd = 900;  // no test opens as many
constexpr char guard = '#';     // behind and before buffers
constexpr int64_t more_than_32_bits = int64_t{1} << 33;

// Bytes that show when a piece of them is lost, doubled or out of place.
std::string pattern(size_t length) {
  std::string bytes(length, '\0');
  for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

std::string text_of(int64_t number) {
  return std::to_string(number);
}

void set_time_out(const Descriptor &socket, int option, int milliseconds) {
  const timeval time = {milliseconds / 1000, milliseconds % 1000 * 1000};
  ASSERT_EQ(setsockopt(socket.get(), SOL_SOCKET, option, &time, sizeof time), 0);
}

// As a signal number; nothing when the child was not killed.
std::optional<int> killed_by(int wait_status) {
  if (!WIFSIGNALED(wait_status)) return {};
  return WTERMSIG(wait_status);
}

class Transfer : public Descriptor_Count {
 protected:
  Descriptor new_file(const std::string &name, int flags = O_RDWR) {
    return Descriptor(open((folder / name).c_str(), flags | O_CREAT | O_CLOEXEC, 0600));
  }

  // A file with content, open for reading at its start.
  Descriptor file_with(const std::string &content) {
    write_file(source_path, content);
    return Descriptor(open(source_path.c_str(), O_RDONLY | O_CLOEXEC));
  }

  const Temporary_Folder folder;
  const std::string source_path = folder / "source";
  Connection connection = local_connection();
  Log_Capture log;
};

struct Connection_Kind {
  const char *label;
  Connection (*make)();
};

// A transfer over every kind of connection.
class Transfer_Over : public Transfer, public testing::WithParamInterface<Connection_Kind> {
 protected:
  Transfer_Over() { connection = GetParam().make(); }
};

const auto connection_kinds =
    testing::Values(Connection_Kind{"Tcp", tcp_connection}, Connection_Kind{"Local", local_connection});
constexpr auto label_of = [](const auto &info) { return std::string(info.param.label); };

off_t position_of(const Descriptor &file) {
  return lseek(file.get(), 0, SEEK_CUR);
}

// --------------------------------------------------------------------------------------------------- Exactly_Recv

class Exact_Receive : public Transfer_Over {
 protected:
  // Receives into the middle of a buffer, and sees that nothing around it is touched.
  int receive(int length, int timeout_ms) {
    const size_t room = static_cast<size_t>(std::max(length, 0));
    std::string buffer(room + 16, guard);
    errno = 0;
    const int result = Exactly_Recv(connection.ours.get(), buffer.data() + 8, length, timeout_ms);
    error = errno;
    EXPECT_EQ(buffer.substr(0, 8), std::string(8, guard));
    EXPECT_EQ(buffer.substr(8 + room), std::string(8, guard));
    received = buffer.substr(8, room);
    return result;
  }

  static Log_Line failure(int status) {
    return error_line("Exactly_Recv", "Can't receive error (" + text_of(status) + ", " + text_of(-status) + ")!");
  }
  static Log_Line time_out(int wanted, int got) {
    return error_line("Exactly_Recv", "Exactly_SSL_Recv() timeout! Want " + text_of(wanted) + " bytes, got " +
                                          text_of(got) + " bytes! (0)");
  }

  std::string received;
  int error = 0;
};

INSTANTIATE_TEST_SUITE_P(Over, Exact_Receive, connection_kinds, label_of);

TEST_P(Exact_Receive, Takes_its_bytes_and_leaves_the_rest_in_the_socket) {
  send_text(connection.theirs, "hello, world");

  EXPECT_EQ(receive(5, 20'000), 5);

  EXPECT_EQ(received, "hello");
  EXPECT_EQ(receive_text(connection.ours, 7), ", world");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Exact_Receive, Puts_megabytes_together) {
  const std::string sent = pattern(3'000'000);
  auto peer = std::async(std::launch::async, [&] { send_text(connection.theirs, sent); });

  EXPECT_EQ(receive(3'000'000, 20'000), 3'000'000);

  EXPECT_TRUE(received == sent);
}

TEST_P(Exact_Receive, Puts_single_bytes_together_however_long_they_take) {
  auto peer = std::async(std::launch::async, [&] { send_slowly(connection.theirs, "slow"); });

  EXPECT_EQ(receive(4, 1), 4) << "only the peer's end makes it look at the clock";

  EXPECT_EQ(received, "slow");
}

TEST_P(Exact_Receive, Of_nothing_does_not_touch_the_socket) {
  send_text(connection.theirs, "x");
  int calls = 0;
  const Before_Call counting(System_Call::recv, Before_Call::every, [&] {
    ++calls;
    return 0;
  });

  EXPECT_EQ(receive(0, 20'000), 0);
  EXPECT_EQ(receive(-1, 20'000), 0);
  EXPECT_EQ(receive(INT_MIN, -1), 0);
  char byte;
  EXPECT_EQ(Exactly_Recv(closed_fd, &byte, 0, 0), 0);

  EXPECT_EQ(calls, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Exact_Receive, Refuses_a_missing_buffer) {
  send_text(connection.theirs, "x");

  EXPECT_EQ(Exactly_Recv(connection.ours.get(), nullptr, 1, 20'000), -EINVAL);

  EXPECT_EQ(receive_text(connection.ours, 1), "x");
}

TEST_P(Exact_Receive, From_a_closed_peer_ends_when_more_than_the_time_out_has_passed) {
  connection.theirs = Descriptor();
  Virtual_Clock clock(1'700'000'000'000);
  int readings = 0;
  clock.on_read([&] {
    ++readings;
    if (readings == 50) clock.advance(5000);  // all of the time-out, and no more
    if (readings == 100) clock.advance(1);
  });

  EXPECT_EQ(receive(10, 5000), -ETIME);

  EXPECT_EQ(error, ETIME);
  EXPECT_GT(readings, 100);
  EXPECT_THAT(log.lines(), ElementsAre(time_out(10, 0)));
}

TEST_P(Exact_Receive, From_a_closed_peer_with_time_out_0_ends_when_a_millisecond_has_passed) {
  connection.theirs = Descriptor();
  Virtual_Clock clock(1'700'000'000'000);
  int readings = 0;
  clock.on_read([&] {
    if (++readings == 50) clock.advance(1);
  });

  EXPECT_EQ(receive(10, 0), -ETIME);

  EXPECT_GT(readings, 50);
}

TEST_P(Exact_Receive, From_a_peer_that_closes_in_the_middle_tells_how_much_came) {
  send_text(connection.theirs, "half");
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(10, 20), -ETIME);

  EXPECT_EQ(error, ETIME);
  EXPECT_EQ(received.substr(0, 4), "half");
  EXPECT_THAT(log.lines(), ElementsAre(time_out(10, 4)));
}

TEST_P(Exact_Receive, Takes_all_that_a_closed_peer_had_sent) {
  send_text(connection.theirs, "all of it");
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(9, 0), 9);

  EXPECT_EQ(received, "all of it");
}

TEST_P(Exact_Receive, Sets_ETIME_without_a_log_too) {
  g_ptslLog = nullptr;
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(10, 0), -ETIME);

  EXPECT_EQ(error, ETIME);
}

class Exact_Receive_Without_Limit : public Transfer, public testing::WithParamInterface<int> {};

TEST_P(Exact_Receive_Without_Limit, From_a_closed_peer_never_times_out) {
  connection.theirs = Descriptor();
  Virtual_Clock clock(1'700'000'000'000);
  clock.on_read([&] { clock.advance(86'400'000); });
  const Before_Call end_of_patience(System_Call::recv, 10'000, [] { return EIO; });
  char buffer[10];

  EXPECT_EQ(Exactly_Recv(connection.ours.get(), buffer, 10, GetParam()), -EIO);

  EXPECT_TRUE(end_of_patience.happened());
}

INSTANTIATE_TEST_SUITE_P(Negative, Exact_Receive_Without_Limit, testing::Values(-1, -5000, INT_MIN));

TEST_P(Exact_Receive, From_a_peer_that_stops_in_the_middle_ends_with_the_sockets_own_time_out) {
  send_text(connection.theirs, "half");
  set_time_out(connection.ours, SO_RCVTIMEO, 50);

  EXPECT_EQ(receive(10, -1), -EAGAIN);

  EXPECT_EQ(received.substr(0, 4), "half");
  EXPECT_THAT(log.lines(), ElementsAre(failure(-EAGAIN)));
}

TEST_P(Exact_Receive, Does_not_wait_on_a_nonblocking_socket) {
  ASSERT_EQ(Domain_Sock_Set_Nonblocking(connection.ours.get()), 0);

  EXPECT_EQ(receive(1, 20'000), -EAGAIN);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EAGAIN)));
}

TEST_P(Exact_Receive, Ends_with_a_signal) {
  const Before_Call interrupted(System_Call::recv, 1, [] { return EINTR; });

  EXPECT_EQ(receive(1, 20'000), -EINTR);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EINTR)));
}

TEST_P(Exact_Receive, Ends_with_a_reset) {
  connection = tcp_connection();
  reset(&connection.theirs);

  EXPECT_EQ(receive(1, -1), -ECONNRESET);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-ECONNRESET)));
}

TEST_P(Exact_Receive, Fails_for_a_closed_descriptor_and_for_what_is_no_socket) {
  const Descriptor file = file_with("text");
  char byte;

  EXPECT_EQ(Exactly_Recv(closed_fd, &byte, 1, 20'000), -EBADF);
  EXPECT_EQ(Exactly_Recv(-1, &byte, 1, 20'000), -EBADF);
  EXPECT_EQ(Exactly_Recv(file.get(), &byte, 1, 20'000), -ENOTSOCK);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EBADF), failure(-EBADF), failure(-ENOTSOCK)));
}

// --------------------------------------------------------------------------------------------------- Exactly_Send

class Exact_Send : public Transfer_Over {
 protected:
  int send(const std::string &text, int flags = MSG_NOSIGNAL) {
    return Exactly_Send(connection.ours.get(), text.data(), text.size(), flags);
  }

  static Log_Line failure(int status) {
    return error_line("Exactly_Send", "Can't send error! (" + text_of(status) + ")");
  }
};

INSTANTIATE_TEST_SUITE_P(Over, Exact_Send, connection_kinds, label_of);

TEST_P(Exact_Send, Sends_megabytes_to_a_peer_that_reads_them_by_and_by) {
  const std::string sent = pattern(5'000'000);
  auto peer = std::async(std::launch::async, [&] { return receive_text(connection.theirs); });

  EXPECT_EQ(send(sent), 5'000'000);

  end_sending(connection.ours);
  EXPECT_TRUE(peer.get() == sent);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Exact_Send, Sends_the_rest_after_a_part) {
  ASSERT_EQ(Domain_Sock_Set_Nonblocking(connection.ours.get()), 0);
  const std::string sent = pattern(20'000'000);
  std::string seen;
  // The peer reads what was sent before each next call: no call finds the socket full, and none can send all.
  int calls = 0;
  const Before_Call reading(System_Call::send, Before_Call::every, [&] {
    char block[65536];
    for (ssize_t got; (got = recv(connection.theirs.get(), block, sizeof block, MSG_DONTWAIT)) > 0;) {
      seen.append(block, static_cast<size_t>(got));
    }
    ++calls;
    return 0;
  });

  EXPECT_EQ(send(sent), 20'000'000);

  end_sending(connection.ours);
  EXPECT_TRUE(seen + receive_text(connection.theirs) == sent);
  EXPECT_GT(calls, 1);
}

TEST_P(Exact_Send, Of_nothing_does_not_touch_the_socket) {
  int calls = 0;
  const Before_Call counting(System_Call::send, Before_Call::every, [&] {
    ++calls;
    return 0;
  });

  EXPECT_EQ(send(""), 0);
  EXPECT_EQ(Exactly_Send(closed_fd, "x", 0, 0), 0);

  EXPECT_EQ(calls, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(Exact_Send, Refuses_a_missing_buffer_and_what_an_int_cannot_count) {
  EXPECT_EQ(Exactly_Send(connection.ours.get(), nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_Send(connection.ours.get(), "x", size_t{INT_MAX} + 1, 0), -EINVAL);
  EXPECT_EQ(Exactly_Send(connection.ours.get(), "x", SIZE_MAX, 0), -EINVAL);
  EXPECT_THAT(log.lines(), IsEmpty());

  end_sending(connection.ours);
  EXPECT_EQ(receive_text(connection.theirs), "");
}

TEST_P(Exact_Send, Takes_as_much_as_an_int_can_count) {
  const Before_Call failing(System_Call::send, 1, [] { return EIO; });

  EXPECT_EQ(Exactly_Send(connection.ours.get(), "x", INT_MAX, 0), -EIO) << "it was tried";
}

TEST_P(Exact_Send, Goes_on_after_a_call_that_sent_nothing) {
  const Before_Call idle(System_Call::send, 1, [] { return Before_Call::answers_zero; });

  EXPECT_EQ(send("hello"), 5);

  EXPECT_TRUE(idle.happened());
  EXPECT_EQ(receive_text(connection.theirs, 5), "hello");
}

TEST_P(Exact_Send, Does_not_wait_with_MSG_DONTWAIT) {
  fill(connection.ours);

  EXPECT_EQ(send("x", MSG_DONTWAIT), -EAGAIN);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EAGAIN)));
}

TEST_P(Exact_Send, Sends_out_of_band_with_MSG_OOB) {
  connection = tcp_connection();

  ASSERT_EQ(send("!", MSG_OOB), 1);

  char byte = 0;
  for (int tries = 0; tries < 2000 && recv(connection.theirs.get(), &byte, 1, MSG_OOB) != 1; ++tries) Sleep_MSec(10);
  EXPECT_EQ(byte, '!');
}

TEST_P(Exact_Send, To_a_peer_that_never_reads_ends_with_the_sockets_own_time_out) {
  set_time_out(connection.ours, SO_SNDTIMEO, 50);

  EXPECT_EQ(send(std::string(20'000'000, 'x')), -EAGAIN);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EAGAIN)));
}

TEST_P(Exact_Send, To_a_peer_that_left_fails_with_MSG_NOSIGNAL) {
  end_sending(connection.ours);

  EXPECT_EQ(send("x", MSG_NOSIGNAL), -EPIPE);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EPIPE)));
}

TEST_P(Exact_Send, To_a_peer_that_left_raises_SIGPIPE_without_MSG_NOSIGNAL) {
  end_sending(connection.ours);

  EXPECT_EQ(killed_by(in_child([&] { send("x", 0); })), SIGPIPE) << "the caller's flags are passed on as they are";
}

TEST_P(Exact_Send, Ends_with_a_reset) {
  connection = tcp_connection();
  reset(&connection.theirs);
  char byte;
  recv(connection.ours.get(), &byte, 1, MSG_PEEK);  // takes the reset; from now on there is no connection

  EXPECT_EQ(send("x"), -EPIPE);
}

TEST_P(Exact_Send, Ends_with_a_signal) {
  const Before_Call interrupted(System_Call::send, 1, [] { return EINTR; });

  EXPECT_EQ(send("x"), -EINTR);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EINTR)));
}

TEST_P(Exact_Send, Fails_for_a_closed_descriptor) {
  EXPECT_EQ(Exactly_Send(closed_fd, "x", 1, 0), -EBADF);
  EXPECT_EQ(Exactly_Send(-1, "x", 1, 0), -EBADF);

  EXPECT_THAT(log.lines(), ElementsAre(failure(-EBADF), failure(-EBADF)));
}

// ------------------------------------------------------------------------------------------------- File_Send_Bulk

class Bulk_Send : public Transfer {
 protected:
  int send(const Descriptor &source, int64_t length, int64_t *offset = nullptr) {
    return send_to(connection.ours, source, length, offset);
  }

  int send_to(const Descriptor &destination, const Descriptor &source, int64_t length, int64_t *offset = nullptr) {
    sent = untouched;
    errno = EIO;  // of an earlier call
    return File_Send_Bulk(source.get(), destination.get(), length, offset, &sent);
  }

  Log_Line failure(const std::string &path, int status, int last, int64_t total, int64_t length,
                   int64_t offset = 0) const {
    return error_line("File_Send_Bulk", "Can't sendfile error! (" + path + ", " + text_of(status) + ", " +
                                            text_of(last) + "," + text_of(total) + "/" + text_of(length) + ", " +
                                            text_of(offset) + ")");
  }

  int64_t sent = untouched;
};

TEST_F(Bulk_Send, Sends_a_file_to_a_socket) {
  const std::string content = pattern(3'000'000);
  const Descriptor source = file_with(content);
  auto peer = std::async(std::launch::async, [&] { return receive_text(connection.theirs); });

  EXPECT_EQ(send(source, 3'000'000), 0);

  EXPECT_EQ(sent, 3'000'000);
  end_sending(connection.ours);
  EXPECT_TRUE(peer.get() == content);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Send, Sends_a_file_to_a_file) {
  const Descriptor source = file_with(pattern(100'000));
  const Descriptor copy = new_file("copy");

  EXPECT_EQ(send_to(copy, source, 100'000), 0);

  EXPECT_EQ(read_file(folder / "copy"), pattern(100'000));
}

TEST_F(Bulk_Send, Starts_at_the_files_own_position_and_moves_it) {
  const Descriptor source = file_with("0123456789");
  lseek(source.get(), 3, SEEK_SET);

  EXPECT_EQ(send(source, 4), 0);

  EXPECT_EQ(sent, 4);
  EXPECT_EQ(receive_text(connection.theirs, 4), "3456");
  EXPECT_EQ(position_of(source), 7);
}

TEST_F(Bulk_Send, Starts_at_the_offset_and_moves_it_and_not_the_files_position) {
  const Descriptor source = file_with("0123456789");
  int64_t offset = 5;

  EXPECT_EQ(send(source, 4, &offset), 0);

  EXPECT_EQ(receive_text(connection.theirs, 4), "5678");
  EXPECT_EQ(offset, 9);
  EXPECT_EQ(position_of(source), 0);
}

TEST_F(Bulk_Send, Succeeds_with_what_there_was_when_the_file_ends_early) {
  const Descriptor source = file_with("four");

  EXPECT_EQ(send(source, 10), 0);

  EXPECT_EQ(sent, 4);
  EXPECT_EQ(receive_text(connection.theirs, 4), "four");
  EXPECT_THAT(log.lines(), ElementsAre(failure(source_path, 0, 0, 4, 10)));
}

TEST_F(Bulk_Send, Reports_the_offset_that_it_came_to) {
  const Descriptor source = file_with("0123456789");
  int64_t offset = 7;

  EXPECT_EQ(send(source, more_than_32_bits, &offset), 0);

  EXPECT_EQ(sent, 3);
  EXPECT_THAT(log.lines(), ElementsAre(failure(source_path, 0, 0, 3, more_than_32_bits, 10)));
}

TEST_F(Bulk_Send, Of_nothing_touches_nothing) {
  const Descriptor source = file_with("text");
  int calls = 0;
  const Before_Call counting(System_Call::sendfile, Before_Call::every, [&] {
    ++calls;
    return 0;
  });

  EXPECT_EQ(send(source, 0), 0);

  EXPECT_EQ(sent, 0);
  EXPECT_EQ(calls, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Send, Refuses_negative_descriptors_and_lengths) {
  const Descriptor source = file_with("text");
  const int source_fd = source.get(), socket_fd = connection.ours.get();

  for (const auto &[from, to, length] : {std::tuple{-1, socket_fd, int64_t{4}},
                                         {source_fd, -1, 4},
                                         {source_fd, socket_fd, -1},
                                         {source_fd, socket_fd, INT64_MIN}}) {
    sent = untouched;
    EXPECT_EQ(File_Send_Bulk(from, to, length, nullptr, &sent), -EINVAL);
    EXPECT_EQ(sent, 0);
  }

  EXPECT_EQ(position_of(source), 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Send, Needs_no_counter) {
  const Descriptor source = file_with("text");

  EXPECT_EQ(File_Send_Bulk(source.get(), connection.ours.get(), 4, nullptr, nullptr), 0);
  EXPECT_EQ(File_Send_Bulk(source.get(), closed_fd, 4, nullptr, nullptr), -EBADF);
  EXPECT_EQ(File_Send_Bulk(-1, closed_fd, 4, nullptr, nullptr), -EINVAL);

  EXPECT_EQ(receive_text(connection.theirs, 4), "text");
}

TEST_F(Bulk_Send, Counts_what_was_sent_before_a_failure) {
  const Descriptor source = file_with(pattern(20'000'000));
  ASSERT_EQ(Domain_Sock_Set_Nonblocking(connection.ours.get()), 0);
  int64_t offset = 1000;

  EXPECT_EQ(send(source, 19'000'000, &offset), -EAGAIN);

  EXPECT_GT(sent, 0);
  EXPECT_EQ(offset, 1000 + sent);
  EXPECT_THAT(log.lines(), ElementsAre(failure(source_path, -EAGAIN, -1, sent, 19'000'000, offset)));
  end_sending(connection.ours);
  EXPECT_TRUE(receive_text(connection.theirs) == pattern(20'000'000).substr(1000, static_cast<size_t>(sent)));
}

TEST_F(Bulk_Send, To_a_peer_that_never_reads_ends_with_the_sockets_own_time_out) {
  const Descriptor source = file_with(std::string(20'000'000, 'x'));
  connection = tcp_connection();
  set_time_out(connection.ours, SO_SNDTIMEO, 50);

  EXPECT_EQ(send(source, 20'000'000), -EAGAIN);

  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 20'000'000);
}

TEST_F(Bulk_Send, Goes_on_beyond_what_one_call_of_the_kernel_moves) {
  const Descriptor source = new_file("sparse");
  const int64_t length = (int64_t{1} << 31) + 5000;
  ASSERT_EQ(ftruncate(source.get(), length), 0);
  const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  int calls = 0;
  const Before_Call counting(System_Call::sendfile, Before_Call::every, [&] {
    ++calls;
    return 0;
  });

  EXPECT_EQ(send_to(nowhere, source, length), 0);

  EXPECT_EQ(sent, length);
  EXPECT_EQ(calls, 2);
}

TEST_F(Bulk_Send, Fails_for_a_closed_source_whose_path_nobody_knows) {
  EXPECT_EQ(File_Send_Bulk(closed_fd, connection.ours.get(), 4, nullptr, &sent), -EBADF);

  EXPECT_EQ(sent, 0);
  EXPECT_THAT(log.lines(), ElementsAre(failure("(null)", -EBADF, -1, 0, 4)));
}

TEST_F(Bulk_Send, Fails_for_a_destination_that_cannot_be_written) {
  const Descriptor source = file_with("text");
  const Descriptor unwritable(open(source_path.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor appending = new_file("appending", O_WRONLY | O_APPEND);

  EXPECT_EQ(send_to(unwritable, source, 4), -EBADF);
  EXPECT_EQ(send_to(appending, source, 4), -EINVAL) << "the kernel does not append";

  EXPECT_THAT(log.lines(),
              ElementsAre(failure(source_path, -EBADF, -1, 0, 4), failure(source_path, -EINVAL, -1, 0, 4)));
}

TEST_F(Bulk_Send, Ends_with_a_signal) {
  const Descriptor source = file_with("text");
  const Before_Call interrupted(System_Call::sendfile, 1, [] { return EINTR; });

  EXPECT_EQ(send(source, 4), -EINTR);

  EXPECT_EQ(sent, 0);
}

TEST_F(Bulk_Send, To_a_peer_that_left_raises_SIGPIPE_unless_it_is_ignored) {
  const Descriptor source = file_with("text");
  connection.theirs = Descriptor();

  EXPECT_EQ(killed_by(in_child([&] { send(source, 4); })), SIGPIPE);
  EXPECT_EQ(in_child([&] {
              signal(SIGPIPE, SIG_IGN);
              EXPECT_EQ(send(source, 4), -EPIPE);
            }),
            0);
}

// ------------------------------------------------------------------------------------------------ File_Write_Bulk

class Bulk_Write : public Transfer {
 protected:
  int write(const Descriptor &file, const std::string &text) {
    written = untouched;
    errno = EIO;  // of an earlier call
    return File_Write_Bulk(file.get(), text.data(), static_cast<int64_t>(text.size()), &written);
  }

  static Log_Line failure(const std::string &path, int status, int last, int64_t total, int64_t length) {
    return error_line("File_Write_Bulk", "Can't write file error! (" + path + ", " + text_of(status) + ", " +
                                             text_of(last) + "," + text_of(total) + "/" + text_of(length) + ")");
  }

  const std::string file_path = folder / "file";
  int64_t written = untouched;
};

TEST_F(Bulk_Write, Writes_at_the_files_position) {
  const Descriptor file = new_file("file");
  const std::string text = pattern(1'000'000);

  EXPECT_EQ(write(file, "head"), 0);
  EXPECT_EQ(written, 4);
  EXPECT_EQ(write(file, text), 0);
  EXPECT_EQ(written, 1'000'000);

  EXPECT_TRUE(read_file(file_path) == "head" + text);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Write, Writes_the_rest_after_a_part) {
  const std::string text = pattern(3'000'000);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const Descriptor reading(ends[0]), writing(ends[1]);
  std::string seen;
  const auto read_all = [&] {
    char block[65536];
    for (ssize_t got; (got = read(reading.get(), block, sizeof block)) > 0;) {
      seen.append(block, static_cast<size_t>(got));
    }
    return 0;
  };
  const Before_Call emptying(System_Call::write, Before_Call::every, read_all);  // a pipe holds 64 KiB

  EXPECT_EQ(write(writing, text), 0);

  EXPECT_EQ(written, 3'000'000);
  read_all();
  EXPECT_TRUE(seen == text);
}

TEST_F(Bulk_Write, Of_nothing_touches_nothing) {
  const Descriptor unwritable = file_with("text");

  EXPECT_EQ(write(unwritable, ""), 0);

  EXPECT_EQ(written, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Write, Refuses_a_missing_buffer_negative_descriptors_and_lengths) {
  const Descriptor file = new_file("file");

  for (const auto &[fd, buffer, length] : {std::tuple{file.get(), static_cast<const char *>(nullptr), int64_t{4}},
                                           {file.get(), nullptr, 0},
                                           {-1, "text", 4},
                                           {file.get(), "text", -1},
                                           {file.get(), "text", INT64_MIN}}) {
    written = untouched;
    EXPECT_EQ(File_Write_Bulk(fd, buffer, length, &written), -EINVAL);
    EXPECT_EQ(written, 0);
  }

  EXPECT_EQ(read_file(file_path), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Bulk_Write, Needs_no_counter) {
  const Descriptor file = new_file("file");

  EXPECT_EQ(File_Write_Bulk(file.get(), "text", 4, nullptr), 0);
  EXPECT_EQ(File_Write_Bulk(closed_fd, "text", 4, nullptr), -EBADF);
  EXPECT_EQ(File_Write_Bulk(-1, "text", 4, nullptr), -EINVAL);

  EXPECT_EQ(read_file(file_path), "text");
}

TEST_F(Bulk_Write, Counts_what_fits_on_a_full_disk) {
  const Small_Disk disk;
  const Descriptor file(open((disk / "file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));

  EXPECT_EQ(write(file, pattern(100'000)), -ENOSPC);

  EXPECT_EQ(written, 65536);
  EXPECT_TRUE(read_file(disk / "file") == pattern(100'000).substr(0, 65536));
  EXPECT_THAT(log.lines(), ElementsAre(failure(disk / "file", -ENOSPC, -1, 65536, 100'000)));
}

TEST_F(Bulk_Write, Succeeds_with_what_was_written_when_a_call_writes_nothing) {
  const Descriptor file = new_file("file");
  const Before_Call idle(System_Call::write, 1, [] { return Before_Call::answers_zero; });

  EXPECT_EQ(write(file, "text"), 0) << "no failure of an earlier call is told";

  EXPECT_EQ(written, 0);
  EXPECT_THAT(log.lines(), ElementsAre(failure(file_path, 0, 0, 0, 4)));
}

TEST_F(Bulk_Write, Does_not_wait_for_a_full_pipe) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const Descriptor reading(ends[0]), writing(ends[1]);

  EXPECT_EQ(write(writing, std::string(100'000, 'x')), -EAGAIN);

  EXPECT_EQ(written, 65536);
  const std::string pipe_path = Fullpath(writing.get());
  EXPECT_THAT(log.lines(), ElementsAre(failure(pipe_path, -EAGAIN, -1, 65536, 100'000)));
}

TEST_F(Bulk_Write, Fails_for_descriptors_that_cannot_be_written) {
  const Descriptor unwritable = file_with("text");

  EXPECT_EQ(write(unwritable, "more"), -EBADF);
  EXPECT_EQ(File_Write_Bulk(closed_fd, "more", 4, &written), -EBADF);

  EXPECT_EQ(written, 0);
  EXPECT_THAT(log.lines(), ElementsAre(failure(source_path, -EBADF, -1, 0, 4), failure("(null)", -EBADF, -1, 0, 4)));
}

TEST_F(Bulk_Write, Ends_with_a_signal) {
  const Descriptor file = new_file("file");
  const Before_Call interrupted(System_Call::write, 1, [] { return EINTR; });

  EXPECT_EQ(write(file, "text"), -EINTR);

  EXPECT_EQ(written, 0);
}

TEST_F(Bulk_Write, To_a_peer_that_left_raises_SIGPIPE_unless_it_is_ignored) {
  connection.theirs = Descriptor();

  EXPECT_EQ(killed_by(in_child([&] { write(connection.ours, "text"); })), SIGPIPE);
  EXPECT_EQ(in_child([&] {
              signal(SIGPIPE, SIG_IGN);
              EXPECT_EQ(write(connection.ours, "text"), -EPIPE);
            }),
            0);
}

// ------------------------------------------------------------------------------------------------------ Recv_File

class File_Receive : public Transfer_Over {
 protected:
  int receive(int64_t length, int64_t *offset = nullptr) { return receive_into(file, length, offset); }

  int receive_into(const Descriptor &destination, int64_t length, int64_t *offset = nullptr) {
    received = untouched;
    errno = EIO;  // of an earlier call
    return Recv_File(connection.ours.get(), destination.get(), offset, length, &received);
  }

  std::string socket_text() const { return text_of(connection.ours.get()); }
  Log_Line not_ready(const std::string &socket, int status) const {
    return error_line("Recv_File", "Can't check the socket is ready " + socket + " error! (" + text_of(status) + ")");
  }
  Log_Line not_taken(int64_t chunk, int status) const {
    return error_line("Recv_File", "Can't splice the socket " + socket_text() + " error! (" + text_of(chunk) + ", " +
                                       text_of(status) + ", " + text_of(status) + ")");
  }
  static Log_Line not_stored(const Descriptor &destination, int64_t expected, int status) {
    return error_line("Recv_File", "Can't splice the destination file " + text_of(destination.get()) + " error! (" +
                                       text_of(expected) + ", " + text_of(status) + ", " + text_of(status) + ")");
  }

  const std::string file_path = folder / "file";
  const Descriptor file = new_file("file");
  int64_t received = untouched;
};

INSTANTIATE_TEST_SUITE_P(Over, File_Receive, connection_kinds, label_of);

TEST_P(File_Receive, Stores_its_bytes_and_leaves_the_rest_in_the_socket) {
  const std::string sent = pattern(30'000);
  send_text(connection.theirs, sent);

  EXPECT_EQ(receive(20'000), 0);

  EXPECT_EQ(received, 20'000);
  EXPECT_TRUE(read_file(file_path) == sent.substr(0, 20'000));
  EXPECT_TRUE(receive_text(connection.ours, 10'000) == sent.substr(20'000));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(File_Receive, Stores_megabytes) {
  const std::string sent = pattern(5'000'000);
  auto peer = std::async(std::launch::async, [&] { send_text(connection.theirs, sent); });

  EXPECT_EQ(receive(5'000'000), 0);

  EXPECT_EQ(received, 5'000'000);
  EXPECT_TRUE(read_file(file_path) == sent);
}

TEST_P(File_Receive, Moves_at_most_8192_bytes_a_step) {
  send_text(connection.theirs, pattern(20'000));
  int steps = 0;
  std::vector<int64_t> sizes;
  const Before_Call counting(System_Call::splice, Before_Call::every, [&] {
    // Before each second call the bytes of a step are in the pipe, and no longer in the socket.
    if (++steps % 2 == 1) sizes.push_back(position_of(file));
    return 0;
  });

  EXPECT_EQ(receive(20'000), 0);

  EXPECT_EQ(steps, 6);
  EXPECT_THAT(sizes, ElementsAre(0, 8192, 16384));
}

TEST_P(File_Receive, Starts_at_the_files_own_position_and_moves_it) {
  write_file(file_path, "0123456789");
  lseek(file.get(), 3, SEEK_SET);
  send_text(connection.theirs, "abc");

  EXPECT_EQ(receive(3), 0);

  EXPECT_EQ(read_file(file_path), "012abc6789");
  EXPECT_EQ(position_of(file), 6);
}

TEST_P(File_Receive, Starts_at_the_offset_and_moves_it_and_not_the_files_position) {
  int64_t offset = 5;
  send_text(connection.theirs, pattern(20'000));

  EXPECT_EQ(receive(20'000, &offset), 0);

  EXPECT_TRUE(read_file(file_path) == std::string(5, '\0') + pattern(20'000));
  EXPECT_EQ(offset, 20'005);
  EXPECT_EQ(position_of(file), 0);
}

TEST_P(File_Receive, Puts_single_bytes_together) {
  auto peer = std::async(std::launch::async, [&] { send_slowly(connection.theirs, "slowly"); });

  EXPECT_EQ(receive(6), 0);

  EXPECT_EQ(received, 6);
  EXPECT_EQ(read_file(file_path), "slowly");
}

TEST_P(File_Receive, Waits_longer_than_a_second_for_a_silent_peer) {
  auto peer = std::async(std::launch::async, [&] {
    Sleep_MSec(1200);
    send_text(connection.theirs, "late");
  });

  EXPECT_EQ(receive(4), 0);

  EXPECT_EQ(read_file(file_path), "late");
}

TEST_P(File_Receive, Asks_the_socket_even_when_it_does_not_seem_ready) {
  send_text(connection.theirs, pattern(20'000));
  int waits = 0;
  const Before_Call never_ready(System_Call::poll, Before_Call::every,
                                [&] { return ++waits < 100 ? Before_Call::answers_zero : EIO; });

  EXPECT_EQ(receive(20'000), 0);

  EXPECT_EQ(received, 20'000);
}

// A peer that sends before the fourth wait; the waits before see nothing.
void send_after_some_waits(int *waits, const Descriptor &peer, int *answer) {
  *answer = ++*waits < 4 ? Before_Call::answers_zero : 0;
  if (*waits == 4) send_text(peer, "late");
}

TEST_P(File_Receive, Asks_a_nonblocking_socket_again) {
  ASSERT_EQ(Domain_Sock_Set_Nonblocking(connection.ours.get()), 0);
  int waits = 0;
  const Before_Call waiting(System_Call::poll, Before_Call::every, [&] {
    int answer;
    send_after_some_waits(&waits, connection.theirs, &answer);
    return answer;
  });

  EXPECT_EQ(receive(4), 0);

  EXPECT_GE(waits, 4);
  EXPECT_EQ(read_file(file_path), "late");
}

TEST_P(File_Receive, Asks_a_socket_with_a_time_out_again) {
  set_time_out(connection.ours, SO_RCVTIMEO, 20);
  int waits = 0;
  const Before_Call waiting(System_Call::poll, Before_Call::every, [&] {
    int answer;
    send_after_some_waits(&waits, connection.theirs, &answer);
    return answer;
  });

  EXPECT_EQ(receive(4), 0);

  EXPECT_GE(waits, 4);
  EXPECT_EQ(read_file(file_path), "late");
}

TEST_P(File_Receive, Asks_again_after_a_step_without_bytes_from_a_peer_that_is_there) {
  send_text(connection.theirs, "text");
  const Before_Call idle(System_Call::splice, 1, [] { return Before_Call::answers_zero; });

  EXPECT_EQ(receive(4), 0);

  EXPECT_TRUE(idle.happened());
  EXPECT_EQ(read_file(file_path), "text");
}

TEST_P(File_Receive, Leaves_the_callers_socket_blocking) {
  send_text(connection.theirs, "text");

  EXPECT_EQ(receive(4), 0);

  EXPECT_EQ(fcntl(connection.ours.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(File_Receive, Ends_when_the_peer_closed_before_the_first_byte) {
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(more_than_32_bits), -EPIPE);

  EXPECT_EQ(received, 0);
  EXPECT_THAT(log.lines(), ElementsAre(not_taken(8192, -EPIPE)));
}

TEST_P(File_Receive, Ends_when_the_peer_closed_in_the_middle_and_counts_what_came) {
  send_text(connection.theirs, pattern(15'000));
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(20'000), -EPIPE);

  EXPECT_EQ(received, 15'000);
  EXPECT_TRUE(read_file(file_path) == pattern(15'000));
  EXPECT_THAT(log.lines(), ElementsAre(not_taken(5000, -EPIPE)));
}

TEST_P(File_Receive, Ends_when_the_peer_closes_after_some_silence) {
  auto peer = std::async(std::launch::async, [&] {
    send_text(connection.theirs, "half");
    Sleep_MSec(50);
    end_sending(connection.theirs);
  });

  EXPECT_EQ(receive(10), -EPIPE);

  EXPECT_EQ(received, 4);
}

TEST_P(File_Receive, Takes_all_that_a_closed_peer_had_sent) {
  send_text(connection.theirs, pattern(20'000));
  connection.theirs = Descriptor();

  EXPECT_EQ(receive(20'000), 0);

  EXPECT_TRUE(read_file(file_path) == pattern(20'000));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(File_Receive, Ends_with_a_reset_and_counts_what_came) {
  connection = tcp_connection();
  send_text(connection.theirs, "half");
  const Before_Call resetting(System_Call::poll, 2, [&] {
    reset(&connection.theirs);
    return 0;
  });

  EXPECT_EQ(receive(10), -ECONNRESET);

  EXPECT_EQ(received, 4);
  EXPECT_THAT(log.lines(), ElementsAre(not_taken(6, -ECONNRESET)));
}

TEST_P(File_Receive, Of_nothing_succeeds) {
  send_text(connection.theirs, "text");
  int calls = 0;
  const Before_Call counting(System_Call::splice, Before_Call::every, [&] {
    ++calls;
    return 0;
  });

  EXPECT_EQ(receive(0), 0);

  EXPECT_EQ(received, 0);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(receive_text(connection.ours, 4), "text");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(File_Receive, Fails_without_a_pipe_whatever_the_length) {
  send_text(connection.theirs, "text");
  for (const int64_t length : {0, 4}) {
    log.clear();
    const Before_Call failing(System_Call::pipe2, 1, [] { return EMFILE; });

    EXPECT_EQ(receive(length), -EMFILE);

    EXPECT_EQ(received, 0);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("Recv_File", "Can't create a pipe error! (-24)")));
  }
  EXPECT_EQ(receive_text(connection.ours, 4), "text");
}

TEST_P(File_Receive, Refuses_negative_descriptors_and_lengths) {
  const int socket_fd = connection.ours.get();

  for (const auto &[from, to, length] : {std::tuple{-1, file.get(), int64_t{4}},
                                         {socket_fd, -1, 4},
                                         {socket_fd, file.get(), -1},
                                         {socket_fd, file.get(), INT64_MIN}}) {
    received = untouched;
    EXPECT_EQ(Recv_File(from, to, nullptr, length, &received), -EINVAL);
    EXPECT_EQ(received, 0);
  }

  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(File_Receive, Needs_no_counter) {
  send_text(connection.theirs, "text");

  EXPECT_EQ(Recv_File(connection.ours.get(), file.get(), nullptr, 4, nullptr), 0);
  EXPECT_EQ(Recv_File(closed_fd, file.get(), nullptr, 4, nullptr), -EBADF);
  EXPECT_EQ(Recv_File(-1, file.get(), nullptr, 4, nullptr), -EINVAL);

  EXPECT_EQ(read_file(file_path), "text");
}

TEST_P(File_Receive, Fails_for_a_closed_socket) {
  EXPECT_EQ(Recv_File(closed_fd, file.get(), nullptr, 4, &received), -EBADF);

  EXPECT_EQ(received, 0);
  EXPECT_THAT(log.lines(), ElementsAre(not_ready(text_of(closed_fd), -EBADF)));
}

TEST_P(File_Receive, Ends_with_a_signal_during_the_wait_and_counts_what_came) {
  send_text(connection.theirs, "half");
  const Before_Call interrupted(System_Call::poll, 2, [] { return EINTR; });

  EXPECT_EQ(receive(10), -EINTR);

  EXPECT_EQ(received, 4);
  EXPECT_THAT(log.lines(), ElementsAre(not_ready(socket_text(), -EINTR)));
}

TEST_P(File_Receive, Fails_for_a_socket_without_a_connection) {
  connection.ours = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));

  EXPECT_EQ(receive(10'000), -ENOTCONN);

  EXPECT_EQ(received, 0);
  EXPECT_THAT(log.lines(), ElementsAre(not_taken(8192, -ENOTCONN)));
}

TEST_P(File_Receive, Fails_for_a_destination_that_appends) {
  const Descriptor appending = new_file("file", O_WRONLY | O_APPEND);
  send_text(connection.theirs, "text");

  EXPECT_EQ(receive_into(appending, 4), -EINVAL);

  EXPECT_EQ(received, 0);
  EXPECT_EQ(read_file(file_path), "");
  EXPECT_THAT(log.lines(), ElementsAre(not_stored(appending, 4, -EINVAL)));
}

TEST_P(File_Receive, Fails_for_a_destination_that_cannot_be_written) {
  const Descriptor unwritable = file_with("");
  send_text(connection.theirs, "text");

  EXPECT_EQ(receive_into(unwritable, 4), -EBADF);
  EXPECT_EQ(received, 0);
  EXPECT_THAT(log.lines(), ElementsAre(not_stored(unwritable, 4, -EBADF)));
}

// Leaves this many bytes on the disk.
void leave_room(Small_Disk *disk, size_t bytes) {
  write_file(*disk / "other", std::string(65536 - bytes, 'o'));
}

TEST_P(File_Receive, Fails_on_a_full_disk_and_counts_what_fitted) {
  Small_Disk disk;
  leave_room(&disk, 8192);
  const Descriptor destination(open((disk / "file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  send_text(connection.theirs, pattern(20'000));

  EXPECT_EQ(receive_into(destination, 20'000), -ENOSPC);

  EXPECT_EQ(received, 8192);
  EXPECT_THAT(log.lines(), ElementsAre(not_stored(destination, 8192, -ENOSPC)));
}

TEST_P(File_Receive, Stops_without_a_failure_where_a_step_fits_in_part_and_does_not_count_it) {
  Small_Disk disk;
  leave_room(&disk, 8192 + 4096);
  const Descriptor destination(open((disk / "file").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  send_text(connection.theirs, pattern(20'000));

  EXPECT_EQ(receive_into(destination, 20'000), 0) << "the kernel names no reason";

  EXPECT_EQ(received, 8192) << "callers take the count for whole steps";
  EXPECT_TRUE(read_file(disk / "file") == pattern(8192 + 4096));
  EXPECT_THAT(log.lines(), ElementsAre(not_stored(destination, 8192, 0)));
}

TEST_P(File_Receive, Counts_whole_steps_before_a_failing_one) {
  send_text(connection.theirs, pattern(20'000));
  const Before_Call failing(System_Call::splice, 4, [] { return EIO; });

  EXPECT_EQ(receive(20'000), -EIO);

  EXPECT_EQ(received, 8192);
  EXPECT_THAT(log.lines(), ElementsAre(not_stored(file, 8192, -EIO)));
}

// ------------------------------------------------------------------------------------------------ programs as peers

class Transfer_With_A_Program : public Transfer {
 protected:
  // The first connection that comes.
  void accept() { connection.ours = accept_one(listener); }

  std::string request_head() {
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
      char byte;
      if (Exactly_Recv(connection.ours.get(), &byte, 1, 20'000) != 1) break;
      head += byte;
    }
    return head;
  }

  void answer(const std::string &text) {
    EXPECT_EQ(Exactly_Send(connection.ours.get(), text.data(), text.size(), MSG_NOSIGNAL), std::ssize(text));
  }

  static std::future<Command_Result> start(const std::string &command) {
    return std::async(std::launch::async, [=] { return run_command(command); });
  }

  const Descriptor listener = listen_on_loopback(0);
  const std::string address = "127.0.0.1:" + text_of(local_port_of(listener));
  const std::string curl = "curl --silent --show-error --noproxy '*' ";
};

TEST_F(Transfer_With_A_Program, Curl_downloads_a_file) {
  const std::string content = pattern(3'000'000);
  const Descriptor source = file_with(content);
  auto program = start(curl + "http://" + address + "/");
  accept();

  EXPECT_TRUE(request_head().starts_with("GET / HTTP/1.1\r\n"));
  answer("HTTP/1.0 200 OK\r\nContent-Length: 3000000\r\n\r\n");
  int64_t sent = 0;
  EXPECT_EQ(File_Send_Bulk(source.get(), connection.ours.get(), 3'000'000, nullptr, &sent), 0);

  const Command_Result result = program.get();
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.output == content);
}

TEST_F(Transfer_With_A_Program, Curl_uploads_a_file) {
  write_file(source_path, pattern(3'000'000));
  const Descriptor file = new_file("file");
  auto program = start(curl + "--header Expect: --upload-file " + source_path + " http://" + address + "/");
  accept();

  EXPECT_NE(request_head().find("Content-Length: 3000000\r\n"), std::string::npos);
  int64_t received = 0;
  EXPECT_EQ(Recv_File(connection.ours.get(), file.get(), nullptr, 3'000'000, &received), 0);
  answer("HTTP/1.0 200 OK\r\nContent-Length: 6\r\n\r\nstored");

  EXPECT_EQ(program.get(), (Command_Result{0, "stored"}));
  EXPECT_TRUE(read_file(folder / "file") == pattern(3'000'000));
}

TEST_F(Transfer_With_A_Program, Socat_sends_a_file_and_ends) {
  write_file(source_path, pattern(1'000'000));
  const Descriptor file = new_file("file");
  auto program = start("socat -u FILE:" + source_path + " TCP:" + address);
  accept();
  int64_t received = 0;

  EXPECT_EQ(Recv_File(connection.ours.get(), file.get(), nullptr, 1'000'001, &received), -EPIPE);

  EXPECT_EQ(received, 1'000'000);
  EXPECT_TRUE(read_file(folder / "file") == pattern(1'000'000));
  EXPECT_EQ(program.get().status, 0);
}

TEST_F(Transfer_With_A_Program, Socat_echoes) {
  auto program = start("socat TCP:" + address + " PIPE");
  accept();
  const std::string text = pattern(30'000);
  std::string back(text.size(), '\0');

  answer(text);
  EXPECT_EQ(Exactly_Recv(connection.ours.get(), back.data(), 30'000, 20'000), 30'000);

  EXPECT_TRUE(back == text);
  connection.ours = Descriptor();
  EXPECT_EQ(program.get().status, 0);
}

}  // namespace
