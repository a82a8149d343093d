// What the cluster service sees of a message that is on its way to it.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "platform/clusterd/io.h"

namespace tarn::platform {
namespace {

class Arrival_Of_A_Message : public testing::Test {
 protected:
  void SetUp() override {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    ours = Descriptor(pair[0]);
    theirs = Descriptor(pair[1]);
    message.text = "text";
    message.more = std::string(1000, 'm');
    bytes = encode(message);
  }
  void send_part(size_t from, size_t length) {
    ASSERT_EQ(send_exactly(theirs.get(), std::string_view(bytes).substr(from, length), deadline_after(0)), 0);
  }

  Descriptor ours;
  Descriptor theirs;
  Message message;
  std::string bytes;
};

TEST_F(Arrival_Of_A_Message, nothing_yet) {
  EXPECT_EQ(arrival_at(ours.get()), Arrival::nothing);
}

TEST_F(Arrival_Of_A_Message, is_in_part_until_its_last_byte_and_is_left_where_it_is) {
  constexpr size_t kHeader = sizeof(Wire_Header);
  size_t sent = 0;
  for (const size_t next : {size_t{1}, kHeader - 1, kHeader, kHeader + 4, bytes.size() - 1}) {
    send_part(sent, next - sent);
    sent = next;
    EXPECT_EQ(arrival_at(ours.get()), Arrival::part) << next;
  }
  send_part(sent, 1);
  EXPECT_EQ(arrival_at(ours.get()), Arrival::whole);
  Message received;
  EXPECT_EQ(receive_message(ours.get(), &received, deadline_after(0)), 0);
  EXPECT_EQ(received.text, message.text);
  EXPECT_EQ(received.more, message.more);
  EXPECT_EQ(arrival_at(ours.get()), Arrival::nothing);
}

TEST_F(Arrival_Of_A_Message, end_of_the_stream_needs_no_further_wait) {
  theirs.reset();
  EXPECT_EQ(arrival_at(ours.get()), Arrival::whole);
  EXPECT_EQ(receive_message(ours.get(), &message, deadline_after(0)), -ECONNRESET);
}

TEST_F(Arrival_Of_A_Message, malformed_header_needs_no_further_wait) {
  bytes[0] = 'X';
  send_part(0, sizeof(Wire_Header));
  EXPECT_EQ(arrival_at(ours.get()), Arrival::whole);
  EXPECT_EQ(receive_message(ours.get(), &message, deadline_after(0)), -EBADMSG);
}

TEST_F(Arrival_Of_A_Message, what_is_sent_at_once_fits_into_the_socket) {
  message.text.clear();
  message.more = std::string(kSentAtOnce - sizeof(Wire_Header), 'm');
  ASSERT_TRUE(is_sent_at_once(message));
  EXPECT_EQ(send_message(theirs.get(), message, Clock::now()), 0);
  message.more += 'm';
  EXPECT_FALSE(is_sent_at_once(message));
}

}  // namespace
}  // namespace tarn::platform
