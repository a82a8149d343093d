// The cluster service itself: its socket, its start and end, and the bus that comes and goes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "platform/wire.h"
#include "tarncluster_util.h"
#include "tests/platform/member.h"
#include "tests/support/child_process.h"
#include "tests/support/sockets.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;

class Service : public testing::Test {
 protected:
  void start_pair() {
    master.start_bus();
    master.start();
    slave.start();
    ASSERT_TRUE(master.comes_to_be_connected());
    ASSERT_TRUE(slave.comes_to_be_connected());
  }
  Outcome echo() const { return master.echo(0, "S1", "text"); }

  const Cluster cluster{{"S1"}};
  Member master{cluster, "0"};
  Member slave{cluster, "S1"};
};

int connect_to_service() {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, platform::kSocketPath);
  return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0 ? fd : -1;
}

// Sends the bytes to the member's service and answers the code of what it says.
int code_for_bytes(const Member &member, const std::string &bytes) {
  const std::string answer = member.on_member([&] {
    const int fd = connect_to_service();
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    platform::Wire_Header header = {};
    const ssize_t count = recv(fd, &header, sizeof(header), MSG_WAITALL);
    return std::to_string(count == sizeof(header) ? header.value : 1);
  });
  return atoi(answer.c_str());
}

std::string request_bytes(uint32_t kind, const std::string &text) {
  platform::Wire_Header header = {};
  header.magic = platform::kWireMagic;
  header.kind = static_cast<platform::Wire_Kind>(kind);
  header.text_length = static_cast<uint32_t>(text.size());
  return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + text;
}

TEST_F(Service, garbage_at_the_socket_is_answered_with_a_code_and_does_no_harm) {
  start_pair();
  EXPECT_EQ(code_for_bytes(master, "GET / HTTP/1.1\r\nHost: somebody\r\n\r\n"), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, std::string(100000, '\xff')), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, std::string(32, '\0')), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, request_bytes(1, "{ malformed")), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, request_bytes(2, "5")), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, request_bytes(3, "[]")), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, request_bytes(77, R"({"op_code": 1, "slave_id": "S1", "fname": "x_Cb"})")), -EINVAL);
  EXPECT_EQ(code_for_bytes(master, ""), 1) << "nothing asked, nothing answered";
  EXPECT_EQ(code_for_bytes(master, request_bytes(1, "{}").substr(0, 33)), 1) << "half a request";
  EXPECT_EQ(echo().code, 0);
}

TEST_F(Service, program_that_says_nothing_holds_up_nobody) {
  start_pair();
  std::vector<Process> silent;
  for (int i = 0; i < 50; ++i) {
    silent.push_back(master.start_on_member([] {
      connect_to_service();
      pause();
    }));
  }
  EXPECT_EQ(echo().code, 0);
}

TEST_F(Service, socket_is_for_root_only) {
  start_pair();
  EXPECT_EQ(mode_of(master.path("/run/tarncluster")), 0700u);
  EXPECT_EQ(mode_of(master.path(platform::kSocketPath)), 0600u);
  const Outcome outcome = master.call([](char **reply) {
    become_nobody();
    return Cluster_Master_Cmd(handler_of_slave("S1", "Plain_Echo_Cb").c_str(), "{}", reply);
  });
  EXPECT_EQ(outcome.code, -EACCES);
}

TEST_F(Service, user_that_gets_hold_of_the_socket_is_refused_all_the_same) {
  start_pair();
  const Outcome outcome = master.call([](char **reply) {
    chmod("/run/tarncluster", 0777);
    chmod(platform::kSocketPath, 0777);
    become_nobody();
    return Cluster_Master_Cmd(handler_of_slave("S1", "Plain_Echo_Cb").c_str(), "{}", reply);
  });
  EXPECT_EQ(outcome.code, -EACCES);
}

TEST_F(Service, that_does_not_run_is_told) {
  EXPECT_EQ(echo().code, -ECONNREFUSED);
}

TEST_F(Service, that_was_killed_is_told_and_may_be_started_again) {
  start_pair();
  master.service().end(SIGKILL);
  EXPECT_EQ(echo().code, -ECONNREFUSED);
  master.start();
  ASSERT_TRUE(master.comes_to_be_connected());
  EXPECT_EQ(echo().code, 0);
}

TEST_F(Service, ends_cleanly_at_SIGTERM) {
  start_pair();
  const std::string run = master.path("/run/tarncluster");
  ASSERT_TRUE(exists(run + "/command.sock"));
  const int status = master.service().end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(master.on_member(
                [] { return exists(platform::kSocketPath) || exists("/run/tarncluster/connected") ? "left" : "gone"; }),
            "gone");
}

TEST_F(Service, ends_its_handlers_and_their_children_with_itself) {
  start_pair();
  Temporary_Folder folder;
  const std::string ids = folder / "ids";
  Process caller = master.start_on_member([&] {
    char *reply = nullptr;
    _exit(Cluster_Master_Cmd_Ex(handler_of_slave("S1", "Hang_Cb").c_str(), ids.c_str(), 600000, &reply) != 0 ? 0 : 1);
  });
  pid_t handler = 0;
  pid_t child = 0;
  ASSERT_TRUE(comes_true([&] { return static_cast<bool>(std::ifstream(ids) >> handler >> child); }));
  const int status = slave.service().end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(comes_true([&] { return kill(handler, 0) != 0 && kill(child, 0) != 0; }));
}

TEST_F(Service, that_is_killed_takes_its_handlers_along) {
  start_pair();
  Temporary_Folder folder;
  const std::string ids = folder / "ids";
  Process caller = master.start_on_member([&] {
    char *reply = nullptr;
    Cluster_Master_Cmd_Ex(handler_of_slave("S1", "Hang_Cb").c_str(), ids.c_str(), 600000, &reply);
  });
  pid_t handler = 0;
  pid_t child = 0;
  ASSERT_TRUE(comes_true([&] { return static_cast<bool>(std::ifstream(ids) >> handler >> child); }));
  slave.service().end(SIGKILL);
  EXPECT_TRUE(comes_true([&] { return kill(handler, 0) != 0 && kill(child, 0) != 0; }));
}

// The children of a process, by /proc.
std::vector<pid_t> children_of(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  std::vector<pid_t> children;
  for (pid_t child; file >> child;) children.push_back(child);
  return children;
}

TEST_F(Service, handler_host_that_is_killed_is_replaced) {
  start_pair();
  const std::vector<pid_t> host = children_of(slave.service().pid());
  ASSERT_EQ(host.size(), 1u);
  kill(host[0], SIGKILL);
  EXPECT_TRUE(comes_true([&] { return echo().code == 0; }));
}

TEST_F(Service, many_commands_leave_no_process_and_no_descriptor) {
  start_pair();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(echo().code, 0);
  const std::string descriptors = "/proc/" + std::to_string(slave.service().pid()) + "/fd";
  const size_t before = names_in(descriptors).size();
  const std::vector<pid_t> host = children_of(slave.service().pid());
  ASSERT_EQ(host.size(), 1u);
  const std::string descriptors_of_host = "/proc/" + std::to_string(host[0]) + "/fd";
  const size_t before_of_host = names_in(descriptors_of_host).size();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(echo().code, 0);
  EXPECT_LE(names_in(descriptors).size(), before + 2);
  EXPECT_TRUE(comes_true([&] { return children_of(host[0]).empty(); })) << "processes or zombies are left";
  EXPECT_LE(names_in(descriptors_of_host).size(), before_of_host);
}

TEST_F(Service, second_one_on_a_member_is_refused) {
  start_pair();
  Process second = master.start_on_member([] {
    execl(TARN_BIN_DIR "/tarnclusterd", "tarnclusterd", nullptr);
    _exit(127);
  });
  const int status = second.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
  EXPECT_EQ(echo().code, 0);
}

TEST_F(Service, with_an_id_that_is_none_does_not_start) {
  for (const char *id : {"0", "123456789", "a.b", "*", ""}) {
    const std::string answer = slave.on_member([id] {
      write_file("/mnt/tarncluster/config/tarn_cluster_s.conf", std::string("[global]\nMSKey = ") + id + "\n");
      return std::to_string(system(TARN_BIN_DIR "/tarnclusterd 2>/dev/null"));
    });
    EXPECT_EQ(answer, std::to_string(1 << 8)) << id;
  }
}

TEST_F(Service, that_starts_before_the_bus_connects_when_it_comes) {
  master.start();
  slave.start();
  EXPECT_EQ(echo().code, -ENOTCONN);
  master.start_bus();
  EXPECT_TRUE(master.comes_to_be_connected());
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(echo().code, 0);
}

// Its first bytes, and then nothing more: the client waits for the TLS handshake.
Descriptor accept_and_fall_silent(const Descriptor &listener) {
  Descriptor peer = accept_one(listener);
  send_text(peer, "INFO {\"server_id\":\"A\",\"version\":\"2.9.10\",\"proto\":1,\"tls_required\":true}\r\n");
  return peer;
}

TEST_F(Service, serves_programs_while_the_bus_is_silent_and_gives_it_up) {
  const Descriptor listener = listen_on_loopback(4222);
  master.start();
  const Descriptor first = accept_and_fall_silent(listener);
  EXPECT_EQ(echo().code, -ENOTCONN);
  EXPECT_TRUE(accept_one(listener)) << "the next attempt";
}

TEST_F(Service, ends_while_the_bus_is_silent) {
  const Descriptor listener = listen_on_loopback(4222);
  master.start();
  const Descriptor peer = accept_and_fall_silent(listener);
  master.service().signal(SIGTERM);
  EXPECT_EQ(master.service().wait(), 0);
}

TEST_F(Service, reconnects_when_the_bus_was_killed) {
  start_pair();
  master.bus().end(SIGKILL);
  EXPECT_TRUE(comes_true([&] { return !master.is_connected(); }));
  EXPECT_EQ(echo().code, -ENOTCONN);
  master.start_bus();
  EXPECT_TRUE(master.comes_to_be_connected());
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(echo().code, 0);
}

TEST_F(Service, command_that_failed_for_want_of_the_bus_is_not_done_later) {
  start_pair();
  ASSERT_EQ(master.master_command(handler_of_slave("S1", "Count_Cb"), "/run/counted").code, 0);
  master.bus().end(SIGKILL);
  EXPECT_NE(master.master_command(handler_of_slave("S1", "Count_Cb"), "/run/counted", 1000).code, 0);
  master.start_bus();
  ASSERT_TRUE(master.comes_to_be_connected());
  ASSERT_TRUE(slave.comes_to_be_connected());
  ASSERT_EQ(master.master_command(handler_of_slave("S1", "Count_Cb"), "/run/counted").code, 0);
  EXPECT_EQ(read_file(slave.path("/run/counted")), "xx");
}

TEST_F(Service, bus_that_dies_during_a_command_is_told) {
  start_pair();
  Temporary_Folder folder;
  const std::string ids = folder / "ids";
  Process caller = master.start_on_member([&] {
    char *reply = nullptr;
    const int code = Cluster_Master_Cmd_Ex(handler_of_slave("S1", "Hang_Cb").c_str(), ids.c_str(), 600000, &reply);
    _exit(code == -ECONNRESET ? 0 : 1);
  });
  ASSERT_TRUE(comes_true([&] { return exists(ids); }));
  master.bus().end(SIGKILL);
  EXPECT_EQ(caller.wait(), 0);
}

TEST_F(Service, that_the_bus_refused_is_let_in_once_it_is_in_the_list) {
  master.start_bus();
  master.start();
  ASSERT_TRUE(master.comes_to_be_connected());
  ASSERT_EQ(run_cluster_script("add " + cluster.store() + " S9"), 0);  // the server does not know of it yet
  Member late(cluster, "S9");
  late.start();
  EXPECT_TRUE(comes_true([&] { return late.log().find("cannot reach the bus: ") != std::string::npos; }));
  EXPECT_FALSE(late.is_connected());
  master.on_member([&] { return std::to_string(run_cluster_script("provision " + cluster.store() + " 0 /")); });
  master.bus().signal(SIGHUP);
  EXPECT_TRUE(late.comes_to_be_connected());
  EXPECT_EQ(master.echo(0, "S9", "text").code, 0);
}

}  // namespace
}  // namespace tarn::test
