// What the running bus server lets whom do.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "platform/wire.h"
#include "tests/platform/bus_client.h"
#include "tests/platform/member.h"

namespace tarn::test {
namespace {

constexpr int kSoonMs = 30000;  // for what must arrive
constexpr int kQuietMs = 300;   // for what must not, after something sent later has arrived

class Bus_Permissions : public testing::Test {
 protected:
  void SetUp() override { master.start_bus(); }

  Client_Options as(const std::string &id) const {
    return {cluster.store() + "/ca.crt", cluster.certificates_of(id), 4222};
  }

  const Cluster cluster{{"S1", "S2"}};
  Member master{cluster, "0"};
};

TEST_F(Bus_Permissions, slave_speaks_to_the_master_in_its_own_name_only) {
  Bus_Client listener(as("0"));
  Bus_Client slave(as("S1"));
  ASSERT_TRUE(listener.is_connected() && slave.is_connected());
  const auto received = listener.subscribe("tarn.master.>");
  slave.publish("tarn.master.S2", "forged");
  slave.publish("tarn.master.0", "forged");
  slave.publish("tarn.master.S2.session", "forged");
  slave.publish("tarn.master.S1", "my own");
  slave.publish("tarn.master.S1.session", "my own piece");
  slave.flush();
  EXPECT_TRUE(received->receives("my own", kSoonMs)) << "something else came through";
  EXPECT_TRUE(received->receives("my own piece", kSoonMs));
  EXPECT_TRUE(received->receives_nothing(kQuietMs));
  EXPECT_TRUE(comes_true([&] { return slave.violations() > 0; }));
}

TEST_F(Bus_Permissions, slave_does_not_speak_to_slaves) {
  Bus_Client other(as("S2"));
  Bus_Client slave(as("S1"));
  Bus_Client true_master(as("0"));
  const auto received = other.subscribe("tarn.slave.S2");
  slave.publish("tarn.slave.S2", "forged");
  slave.publish("tarn.slave.S1", "forged");
  slave.flush();
  true_master.publish("tarn.slave.S2", "from the master");
  true_master.flush();
  EXPECT_TRUE(received->receives("from the master", kSoonMs)) << "something else came through";
  EXPECT_TRUE(received->receives_nothing(kQuietMs));
  EXPECT_TRUE(comes_true([&] { return slave.violations() > 0; }));
}

TEST_F(Bus_Permissions, slave_does_not_listen_to_what_is_for_others) {
  Bus_Client slave(as("S1"));
  Bus_Client true_master(as("0"));
  Bus_Client other(as("S2"));
  const auto own = slave.subscribe("tarn.slave.S1");
  const char *const foreign[] = {"tarn.slave.S2", "tarn.slave.*",    "tarn.master.S1", "tarn.master.>",
                                 "tarn.inbox.>",  "tarn.inbox.S2.>", "tarn.inbox.0.>", ">",
                                 "*.*.*"};
  std::vector<std::unique_ptr<Bus_Client::Subscription>> subscriptions;
  for (const char *subject : foreign) subscriptions.push_back(slave.subscribe(subject));
  true_master.publish("tarn.slave.S2", "not for S1");
  other.publish("tarn.master.S2", "not for S1");
  true_master.flush();
  other.flush();
  true_master.publish("tarn.slave.S1", "for S1");
  EXPECT_TRUE(own->receives("for S1", kSoonMs));
  for (const auto &subscription : subscriptions) EXPECT_TRUE(subscription->receives_nothing(kQuietMs / 3));
  EXPECT_TRUE(comes_true([&] { return slave.violations() > 0; }));
}

TEST_F(Bus_Permissions, reply_is_given_once_and_by_the_member_that_was_asked) {
  Bus_Client true_master(as("0"));
  Bus_Client slave(as("S1"));
  Bus_Client other(as("S2"));
  const auto replies = true_master.subscribe("tarn.inbox.0.1.*");
  const auto requests = slave.subscribe("tarn.slave.S1");
  other.publish("tarn.inbox.0.1.1", "forged before the request");
  other.flush();
  true_master.publish("tarn.slave.S1", "request", "tarn.inbox.0.1.1");
  ASSERT_TRUE(requests->receives("request", kSoonMs));
  other.publish("tarn.inbox.0.1.1", "forged after the request");
  other.flush();
  slave.publish(requests->reply_subject(), "reply");
  slave.publish(requests->reply_subject(), "second reply");
  slave.publish("tarn.inbox.0.1.2", "reply to another request");
  slave.flush();
  EXPECT_TRUE(replies->receives("reply", kSoonMs)) << "something else came through";
  EXPECT_TRUE(replies->receives_nothing(kQuietMs));
}

TEST_F(Bus_Permissions, nobody_connects_without_a_certificate) {
  EXPECT_FALSE(Bus_Client({cluster.store() + "/ca.crt", "", 4222}).is_connected());
  EXPECT_TRUE(Bus_Client(as("S1")).is_connected());
}

TEST_F(Bus_Permissions, nobody_connects_with_a_certificate_of_another_authority) {
  const Cluster stranger({"S1"});
  EXPECT_FALSE(Bus_Client({"", stranger.certificates_of("S1"), 4222}).is_connected());
  EXPECT_FALSE(Bus_Client({"", stranger.certificates_of("0"), 4222}).is_connected());
}

TEST_F(Bus_Permissions, clear_text_gets_nowhere) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(4222);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
  const std::string words = "CONNECT {\"verbose\":true}\r\nPING\r\n";
  ASSERT_EQ(send(fd, words.data(), words.size(), MSG_NOSIGNAL), static_cast<ssize_t>(words.size()));
  std::string received;
  char buffer[4096];
  ssize_t count;
  while ((count = recv(fd, buffer, sizeof(buffer), 0)) > 0) received.append(buffer, static_cast<size_t>(count));
  close(fd);  // the server has hung up
  EXPECT_NE(received.find("\"tls_required\":true"), std::string::npos);
  EXPECT_EQ(received.find("PONG"), std::string::npos);
  EXPECT_EQ(received.find("+OK"), std::string::npos);
}

TEST_F(Bus_Permissions, removed_slave_is_refused) {
  ASSERT_TRUE(Bus_Client(as("S2")).is_connected());
  const std::string copy = "/tmp/removed_slave/S2";
  ASSERT_EQ(system(("mkdir -p /tmp/removed_slave && cp -r " + cluster.certificates_of("S2") + " " + copy).c_str()), 0);
  ASSERT_EQ(run_cluster_script("remove " + cluster.store() + " S2"), 0);
  master.on_member([&] { return std::to_string(run_cluster_script("provision " + cluster.store() + " 0 /")); });
  master.bus().signal(SIGHUP);
  EXPECT_TRUE(comes_true([&] { return !Bus_Client({cluster.store() + "/ca.crt", copy, 4222}).is_connected(); }));
  EXPECT_TRUE(Bus_Client(as("S1")).is_connected());
}

TEST_F(Bus_Permissions, service_takes_no_other_member_for_the_bus_server) {
  const std::string folder = "/tmp/impostor";
  const std::string files = cluster.certificates_of("S2");
  ASSERT_EQ(system(("mkdir -p " + folder).c_str()), 0);
  write_file(folder + "/server.conf", "listen: \"127.0.0.1:4333\"\nlog_file: \"" + folder +
                                          "/log\"\ntls {\n cert_file: \"" + files + "/member.crt\"\n key_file: \"" +
                                          files + "/member.key\"\n}\n");
  Process impostor = master.start_on_member([&] {
    execlp("nats-server", "nats-server", "-c", (folder + "/server.conf").c_str(), nullptr);
    _exit(127);
  });
  ASSERT_TRUE(comes_true([&] {
    return exists(folder + "/log") && read_file(folder + "/log").find("Server is ready") != std::string::npos;
  }));
  Member slave(cluster, "S1");
  slave.on_member([] {
    write_file("/etc/config/tarn_cluster/bus/bus.conf", "[bus]\nurl = tls://127.0.0.1:4333\n");
    return "";
  });
  slave.start();
  EXPECT_TRUE(comes_true([&] { return read_file(folder + "/log").find("TLS handshake error") != std::string::npos; }));
  EXPECT_FALSE(slave.is_connected());
}

class Requests_From_The_Bus : public Bus_Permissions {
 protected:
  void SetUp() override {
    Bus_Permissions::SetUp();
    master.start();
    ASSERT_TRUE(master.comes_to_be_connected());
  }

  static std::string message(platform::Wire_Kind kind, const std::string &text, const std::string &more,
                             uint64_t number = 0) {
    platform::Wire_Header header = {};
    header.magic = platform::kWireMagic;
    header.kind = kind;
    header.value = 30000;
    header.text_length = static_cast<uint32_t>(text.size());
    header.more_length = static_cast<uint32_t>(more.size());
    header.number = number;
    return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + text + more;
  }

  static int code_of(const std::string &answer) {
    platform::Wire_Header header = {};
    if (answer.size() < sizeof(header)) return 1;
    memcpy(&header, answer.data(), sizeof(header));
    return header.value;
  }
};

TEST_F(Requests_From_The_Bus, garbage_is_answered_with_a_code_and_does_no_harm) {
  Bus_Client slave(as("S1"));
  std::string long_texts = message(platform::Wire_Kind::command, "{}", "{}");
  long_texts[12] = '\xff';
  long_texts[15] = '\x7f';
  const std::string garbage[] = {"",
                                 "x",
                                 std::string(32, '\0'),
                                 std::string(100000, '\xff'),
                                 long_texts,
                                 message(static_cast<platform::Wire_Kind>(99), "{}", "{}"),
                                 message(platform::Wire_Kind::reply, "{}", "{}"),
                                 message(platform::Wire_Kind::command, "{", "{}"),
                                 message(platform::Wire_Kind::command, "[]", "{}"),
                                 message(platform::Wire_Kind::put_file, "relative", ""),
                                 message(platform::Wire_Kind::get_file, std::string("/etc/hostname\0x", 15), "")};
  for (const std::string &bytes : garbage) EXPECT_EQ(code_of(slave.request("tarn.master.S1", bytes)), -EINVAL);
  const std::string command = handler_of_master("Plain_Echo_Cb");
  const std::string answer = slave.request("tarn.master.S1", message(platform::Wire_Kind::command, command, "fine"));
  EXPECT_EQ(code_of(answer), 0);
  EXPECT_EQ(answer.substr(sizeof(platform::Wire_Header)), "fine");
}

TEST_F(Requests_From_The_Bus, received_file_takes_its_name_only_when_length_and_digest_agree) {
  using platform::Wire_Kind;
  const std::string sha256_of_hello =
      "\x2c\xf2\x4d\xba\x5f\xb0\xa3\x0e\x26\xe8\x3b\x2a\xc5\xb9\xe2\x9e"
      "\x1b\x16\x1e\x5c\x1f\xa7\x42\x5e\x73\x04\x33\x62\x93\x8b\x98\x24";
  Temporary_Folder folder;
  Bus_Client slave(as("S1"));
  // Sends "hello" as a file of 5 bytes whose piece lies at the offset, and answers the codes of piece and finish.
  const auto deliver = [&](const std::string &target, uint64_t offset, uint64_t length, const std::string &digest) {
    std::string answer = slave.request("tarn.master.S1", message(Wire_Kind::put_file, folder / target, "", 5));
    EXPECT_EQ(code_of(answer), 0);
    const std::string session = "tarn.master.S1." + answer.substr(sizeof(platform::Wire_Header));
    const int code = code_of(slave.request(session, message(Wire_Kind::piece, "", "hello", offset)));
    return code != 0 ? code : code_of(slave.request(session, message(Wire_Kind::finish, digest, "", length)));
  };
  EXPECT_EQ(deliver("wrong_digest", 0, 5, std::string(32, '\0')), -EIO);
  EXPECT_EQ(deliver("no_digest", 0, 5, ""), -EIO);
  EXPECT_EQ(deliver("wrong_length", 0, 4, sha256_of_hello), -EIO);
  EXPECT_EQ(deliver("gap", 1, 5, sha256_of_hello), -EPROTO);
  EXPECT_TRUE(names_in(folder.path()).empty());
  EXPECT_EQ(deliver("whole", 0, 5, sha256_of_hello), 0);
  EXPECT_EQ(read_file(folder / "whole"), "hello");
}

TEST_F(Requests_From_The_Bus, master_refuses_a_slave_that_names_another) {
  Bus_Client slave(as("S1"));
  const auto code_for = [&](const std::string &id) {
    const std::string command = handler_of_slave(id, "Plain_Echo_Cb");
    return code_of(slave.request("tarn.master.S1", message(platform::Wire_Kind::command, command, "{}")));
  };
  EXPECT_EQ(code_for("S2"), -EPERM);
  EXPECT_EQ(code_for("S1"), 0);
}

}  // namespace
}  // namespace tarn::test
