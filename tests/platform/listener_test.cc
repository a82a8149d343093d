// The TLS listener of an appliance that is in no cluster: what it refuses, and what hostile peers cost.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <thread>

#include "platform/wire.h"
#include "tarncluster_util.h"
#include "tests/platform/tls_client.h"

namespace tarn::test {
namespace {

using platform::Wire_Kind;

class Listener : public testing::Test {
 protected:
  Listener() { appliance.start(); }

  Tls_Answer ask(Wire_Kind kind, const std::string &text) {
    return Tls_Client(appliance.listener_port()).ask(kind, text);
  }

  // What a master would be told whose login says nothing.
  bool is_served() { return ask(Wire_Kind::login, "{}").code == -EINVAL; }

  size_t threads() { return names_in("/proc/" + std::to_string(appliance.service().pid()) + "/task").size(); }
  size_t descriptors() { return names_in("/proc/" + std::to_string(appliance.service().pid()) + "/fd").size(); }

  Member appliance{"appliance"};
};

int connect_plainly(int port, const char *from = "127.0.0.1") {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, from, &address.sin_addr);
  bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  address.sin_port = htons(static_cast<in_port_t>(port));
  return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 ? fd : -1;
}

// True when the other side ends the connection, whatever it says before.
bool is_ended_by_peer(int fd) {
  timeval patience = {60, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  char buffer[4096];
  ssize_t count;
  while ((count = recv(fd, buffer, sizeof(buffer), 0)) > 0) continue;
  const bool is_ended = count == 0 || errno != EAGAIN;
  close(fd);
  return is_ended;
}

TEST_F(Listener, refuses_what_it_does_not_know) {
  for (const uint32_t kind : {0u, 1u, 16u, 32u, 48u, 64u, 81u, 82u, 83u, 4000000000u})
    EXPECT_EQ(ask(static_cast<Wire_Kind>(kind), "{}").code, -ENOSYS) << kind;
}

TEST_F(Listener, refuses_what_is_no_message) {
  EXPECT_EQ(Tls_Client(appliance.listener_port()).ask_bytes("GET / HTTP/1.1\r\nHost: somebody.example\r\n\r\n").code,
            -EINVAL);
  EXPECT_EQ(Tls_Client(appliance.listener_port()).ask_bytes(std::string(32, '\0')).code, -EINVAL);
}

TEST_F(Listener, refuses_a_first_message_that_is_too_long) {
  EXPECT_EQ(ask(Wire_Kind::login, std::string(100000, 'x')).code, -EMSGSIZE);
}

TEST_F(Listener, serves_IPv6) {
  Tls_Client client(appliance.listener_port(), "::1");
  EXPECT_EQ(client.ask(Wire_Kind::hello, "").code, -ENOSYS);
}

TEST_F(Listener, certificate_is_for_root_only_and_is_made_once) {
  const std::string path = appliance.path("/etc/config/tarn_cluster/appliance.pem");
  EXPECT_EQ(mode_of(path), 0600u);
  const std::string certificate = read_file(path);
  appliance.service().end(SIGTERM);
  appliance.start();
  EXPECT_EQ(read_file(appliance.path("/etc/config/tarn_cluster/appliance.pem")), certificate);
  EXPECT_EQ(names_in(appliance.path("/etc/config/tarn_cluster")), std::vector<std::string>{"appliance.pem"});
}

TEST_F(Listener, silent_peer_is_dropped) {
  EXPECT_TRUE(is_ended_by_peer(connect_plainly(appliance.listener_port())));
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, garbage_instead_of_TLS_ends_the_connection) {
  const int fd = connect_plainly(appliance.listener_port());
  const std::string garbage(10000, '\xff');
  send(fd, garbage.data(), garbage.size(), MSG_NOSIGNAL);
  EXPECT_TRUE(is_ended_by_peer(fd));
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, peer_that_sends_a_byte_a_second_is_dropped) {
  const int fd = connect_plainly(appliance.listener_port());
  const unsigned char hello[] = {0x16, 0x03, 0x01, 0x02, 0x00, 0x01};
  bool is_dropped = false;
  for (int i = 0; i < 60 && !is_dropped; ++i) {
    is_dropped = send(fd, hello + std::min(i, 5), 1, MSG_NOSIGNAL) != 1;
    sleep(1);
  }
  EXPECT_TRUE(is_dropped);
  close(fd);
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, peer_that_stops_in_the_middle_of_a_message_is_dropped) {
  Tls_Client client(appliance.listener_port());
  client.send(message_bytes(Wire_Kind::login, std::string(1000, 'x')).substr(0, 100));
  EXPECT_FALSE(client.receive().has_value());
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, peer_that_leaves_in_the_middle_costs_no_processor_time) {
  for (int i = 0; i < 5; ++i) {
    Tls_Client client(appliance.listener_port());
    client.send(message_bytes(Wire_Kind::login, std::string(1000, 'x')).substr(0, 100));
  }
  EXPECT_TRUE(is_served());
  // A thread that asks a closed connection without end would be running whenever it is looked at.
  EXPECT_TRUE(comes_true([&] {
    const std::string tasks = "/proc/" + std::to_string(appliance.service().pid()) + "/task/";
    for (const std::string &task : names_in(tasks)) {
      const std::string stat = read_file(tasks + task + "/stat");
      if (stat[stat.rfind(')') + 2] == 'R') return false;
    }
    return true;
  }));
}

TEST_F(Listener, peer_that_never_reads_its_answer_holds_up_nobody) {
  Tls_Client client(appliance.listener_port());
  client.send(message_bytes(Wire_Kind::hello, ""));
  EXPECT_TRUE(is_served());
  EXPECT_TRUE(comes_true([&] { return is_served(); }));
}

TEST_F(Listener, thousands_of_connections_take_a_bounded_number_of_threads_and_descriptors) {
  ASSERT_TRUE(is_served());
  const size_t before = descriptors();
  std::vector<int> sockets;
  size_t most_threads = 0;
  size_t most_descriptors = 0;
  for (int i = 0; i < 3000; ++i) {
    const std::string from = "127.0." + std::to_string(i % 50 + 1) + "." + std::to_string(i % 200 + 1);
    const int fd = connect_plainly(appliance.listener_port(), from.c_str());
    if (fd < 0) continue;
    if (i % 3 == 0) {
      close(fd);
      continue;
    }
    if (i % 3 == 1) send(fd, "\x16", 1, MSG_NOSIGNAL);
    sockets.push_back(fd);
    if (sockets.size() > 500) {
      close(sockets.front());
      sockets.erase(sockets.begin());
    }
    if (i % 50 == 0) {
      most_threads = std::max(most_threads, threads());
      most_descriptors = std::max(most_descriptors, descriptors());
    }
  }
  EXPECT_LE(most_threads, 12u);
  EXPECT_LE(most_descriptors, before + 80);
  for (const int fd : sockets) close(fd);
  EXPECT_TRUE(comes_true([&] { return is_served(); }));
  EXPECT_TRUE(comes_true([&] { return descriptors() <= before + 1; }));
  const std::string log = appliance.log();
  EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 100);
}

TEST_F(Listener, one_address_does_not_keep_others_out) {
  std::vector<int> sockets;
  for (int i = 0; i < 200; ++i) sockets.push_back(connect_plainly(appliance.listener_port(), "127.0.0.9"));
  EXPECT_TRUE(is_served());
  for (const int fd : sockets) close(fd);
}

TEST_F(Listener, second_service_on_the_appliance_is_refused) {
  Process second = appliance.start_on_member([] {
    execl(TARN_BIN_DIR "/tarnclusterd", "tarnclusterd", "--listener-port", "61000", nullptr);
    _exit(127);
  });
  const int status = second.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, service_of_no_member_outlives_SIGHUP) {
  appliance.service().signal(SIGHUP);
  EXPECT_TRUE(is_served());
}

TEST_F(Listener, ends_at_SIGTERM_while_peers_are_connected) {
  std::vector<int> sockets;
  for (int i = 0; i < 10; ++i) {
    sockets.push_back(connect_plainly(appliance.listener_port()));
    send(sockets.back(), "\x16", 1, MSG_NOSIGNAL);
  }
  const int status = appliance.service().end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  for (const int fd : sockets) close(fd);
}

}  // namespace
}  // namespace tarn::test
