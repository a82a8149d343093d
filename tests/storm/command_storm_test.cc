// A thousand commands at once between a master and a slave, left alone and with trouble in the middle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tarncluster_util.h"
#include "tests/platform/member.h"
#include "tests/storm/storm.h"

namespace tarn::test {
namespace {

constexpr int kProcesses = 8;
constexpr int kCommandsOfEach = 125;
constexpr int kTimeoutMs = 4000;
// Generous beyond the grace of service and interface library: it is to find what hangs, not what is slow.
constexpr int kGraceMs = 15000;

struct Score {
  std::atomic<int> answered = 0;
  std::atomic<int> failed = 0;  // with one of the codes that trouble may have
  std::atomic<int> strange_codes = 0;
  std::atomic<int> last_strange_code = 0;
  std::atomic<int> wrong_replies = 0;
  std::atomic<int> late = 0;
  std::atomic<bool> is_over = false;
  int ended() const { return answered + failed + strange_codes; }
};

bool is_one_of(int code, const std::vector<int> &codes) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

// What a process has that must not grow: descriptors, and children.
struct Possessions {
  int descriptors = 0;
  int children = 0;
  bool operator==(const Possessions &) const = default;
};

std::vector<pid_t> children_of(pid_t parent) {
  std::vector<pid_t> children;
  for (const std::string &thread : names_in("/proc/" + std::to_string(parent) + "/task")) {
    std::ifstream list("/proc/" + std::to_string(parent) + "/task/" + thread + "/children");
    for (pid_t child; list >> child;) children.push_back(child);
  }
  return children;
}

pid_t handler_host_of(const Member &member) {
  const std::vector<pid_t> children = children_of(member.service().pid());
  return children.empty() ? 0 : children.front();
}

Possessions possessions_of(pid_t process) {
  const std::string folder = "/proc/" + std::to_string(process) + "/fd";
  return {static_cast<int>(names_in(folder).size()), static_cast<int>(children_of(process).size())};
}

class Command_Storm : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    members = new Pair_Of_Members;
    for (int i = 0; i < 50; ++i) echo_both_ways();
    // Handler processes wait for further commands for a while.
    ASSERT_TRUE(comes_true([] {
      return children_of(handler_host_of(members->master)).empty() &&
             children_of(handler_host_of(members->slave)).empty();
    }));
    usleep(300000);
    for (const Member *member : both()) {
      idle.push_back(possessions_of(member->service().pid()));
      idle_hosts.push_back(possessions_of(handler_host_of(*member)));
    }
  }
  static void TearDownTestSuite() { delete members; }

  static std::vector<const Member *> both() { return {&members->master, &members->slave}; }
  static void echo_both_ways() {
    ASSERT_EQ(members->master.echo(0, "S1", "down").reply, R"({ "return": 0, "received": "down" })");
    ASSERT_EQ(members->slave.echo(1, "0", "up").reply, R"({ "return": 0, "received": "up" })");
  }
  // Every caller is on the master and the slave in turn; each of its threads gives so many commands one after another.
  static void call(int process, int commands_of_each, const std::vector<int> &codes_of_trouble, Score *score);
  static void give_command(int process, const std::string &text, const std::vector<int> &codes, Score *score);
  static std::vector<Process> start_callers(int commands_of_each, const std::vector<int> &codes, Score *score);
  static void join(std::vector<Process> *callers) {
    for (Process &caller : *callers) EXPECT_EQ(caller.wait(), 0);
  }
  static void expect_fair_ends(const Score &score, int commands);
  static void expect_normal_service();

  static Pair_Of_Members *members;
  static std::vector<Possessions> idle;
  static std::vector<Possessions> idle_hosts;
};
Pair_Of_Members *Command_Storm::members = nullptr;
std::vector<Possessions> Command_Storm::idle;
std::vector<Possessions> Command_Storm::idle_hosts;

void Command_Storm::give_command(int process, const std::string &text, const std::vector<int> &codes, Score *score) {
  const auto start = std::chrono::steady_clock::now();
  const std::string argument = R"({"Test": ")" + text + "\"}";
  const int timeout_ms = codes.empty() ? 120000 : kTimeoutMs;
  char *reply = nullptr;
  const int code = process % 2 == 0 ? Cluster_Master_Cmd_Ex(handler_of_slave("S1", "Tarn_Cluster_Test_Cb").c_str(),
                                                            argument.c_str(), timeout_ms, &reply)
                                    : Cluster_Slave_Cmd_Ex(handler_of_master("Tarn_Cluster_Test_Cb").c_str(),
                                                           argument.c_str(), timeout_ms, &reply);
  if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(timeout_ms + kGraceMs)) ++score->late;
  if (code == 0) {
    ++score->answered;
    const std::string expected = R"({ "return": 0, "received": ")" + text + "\" }";
    if (reply == nullptr || reply != expected) ++score->wrong_replies;
  } else if (is_one_of(code, codes)) {
    ++score->failed;
    if (reply != nullptr) ++score->wrong_replies;
  } else {
    ++score->strange_codes;
    score->last_strange_code = code;
  }
  free(reply);
}

void Command_Storm::call(int process, int commands_of_each, const std::vector<int> &codes, Score *score) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kCommandsOfEach; ++i) {
    threads.emplace_back([=] {
      for (int j = 0; j < commands_of_each; ++j) {
        give_command(process, std::to_string(process) + " " + std::to_string(i) + " " + std::to_string(j), codes,
                     score);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

std::vector<Process> Command_Storm::start_callers(int commands_of_each, const std::vector<int> &codes, Score *score) {
  std::vector<Process> callers;
  for (int i = 0; i < kProcesses; ++i) {
    const Member &from = i % 2 == 0 ? members->master : members->slave;
    callers.push_back(from.start_on_member([&, i] { call(i, commands_of_each, codes, score); }));
  }
  return callers;
}

void Command_Storm::expect_fair_ends(const Score &score, int commands) {
  printf("storm: %d answered, %d failed\n", score.answered.load(), score.failed.load());
  EXPECT_EQ(score.ended(), commands);
  EXPECT_EQ(score.wrong_replies, 0);
  EXPECT_EQ(score.strange_codes, 0) << "the last one was " << score.last_strange_code;
  EXPECT_EQ(score.late, 0);
  EXPECT_GT(score.answered, 0);
}

void Command_Storm::expect_normal_service() {
  ASSERT_TRUE(members->master.comes_to_be_connected() && members->slave.comes_to_be_connected());
  // A command that ended at its time-out may still take the place of another for a moment.
  ASSERT_TRUE(comes_true([] { return members->master.echo(0, "S1", "x").code == 0; }));
  ASSERT_TRUE(comes_true([] { return members->slave.echo(1, "0", "x").code == 0; }));
  echo_both_ways();
  for (size_t i = 0; i < 2; ++i) {
    const Member &member = *both()[i];
    const pid_t service = member.service().pid();
    const bool is_idle = comes_true([&] {
      const pid_t host = handler_host_of(member);
      return possessions_of(service) == idle[i] && host != 0 && possessions_of(host) == idle_hosts[i];
    });
    const Possessions now = possessions_of(service);
    const Possessions host = possessions_of(handler_host_of(member));
    EXPECT_TRUE(is_idle) << "member " << i << ": service " << now.descriptors << " descriptors, " << now.children
                         << " children, idle " << idle[i].descriptors << ", " << idle[i].children << "; host "
                         << host.descriptors << ", " << host.children << ", idle " << idle_hosts[i].descriptors << ", "
                         << idle_hosts[i].children;
    EXPECT_EQ(names_in(member.path("/var/lib/tarncluster/partial")), std::vector<std::string>());
  }
}

TEST_F(Command_Storm, thousand_commands_at_once_get_each_its_own_reply) {
  const Shared<Score> score;
  const int rounds = scaled(1);
  std::vector<Process> callers = start_callers(rounds, {}, &*score);
  join(&callers);
  expect_fair_ends(*score, kProcesses * kCommandsOfEach * rounds);
  EXPECT_EQ(score->failed, 0);
  expect_normal_service();
}

// Files that are on their way meanwhile are there whole, or not at all.
void send_files(const std::string &source, const std::string &destination, Score *score) {
  const std::string content = read_file(source);
  for (int i = 0; !score->is_over; ++i) {
    const std::string target = destination + "/" + std::to_string(i);
    char *reply = nullptr;
    if (Tarn_Cluster_Send_File(0, "S1", source.c_str(), target.c_str(), nullptr, &reply) == 0) {
      if (read_file(target) != content) ++score->wrong_replies;
    } else {
      ++score->failed;
    }
    free(reply);
    if (exists(target)) unlink(target.c_str());
    usleep(10000);
  }
}

TEST_F(Command_Storm, bus_that_is_killed_and_restarted_costs_commands_but_confuses_none) {
  Temporary_Folder folder;
  std::filesystem::create_directory(folder / "there");
  write_file(folder / "source", std::string(16 << 20, 's'));
  Dice dice(5);
  for (int round = 0; round < scaled(1); ++round) {
    const Shared<Score> score;
    const Shared<Score> files;
    Process sender = members->master.start_on_member([&] { send_files(folder / "source", folder / "there", &*files); });
    std::vector<Process> callers = start_callers(3, {-ECONNRESET, -ENOTCONN, -EHOSTUNREACH, -ETIME}, &*score);
    EXPECT_TRUE(comes_true([&] { return score->answered > 200; }));
    usleep(static_cast<useconds_t>(dice.below(100000)));
    members->master.bus().end(SIGKILL);
    usleep(static_cast<useconds_t>(dice.below(300000)));
    members->master.start_bus();
    join(&callers);
    expect_fair_ends(*score, kProcesses * kCommandsOfEach * 3);
    EXPECT_GT(score->failed, 0) << "the bus's death was not felt";
    files->is_over = true;
    EXPECT_EQ(sender.wait(), 0);
    EXPECT_EQ(files->wrong_replies, 0);
    EXPECT_TRUE(comes_true([&] { return names_in(folder / "there").empty(); }));
    expect_normal_service();
  }
}

TEST_F(Command_Storm, handler_host_that_is_killed_costs_commands_but_confuses_none) {
  const Shared<Score> score;
  Dice dice(6);
  const int rounds = scaled(3);
  std::vector<Process> callers = start_callers(rounds, {-EIO, -EAGAIN, -ETIME}, &*score);
  for (int kills = 0; score->ended() < kProcesses * kCommandsOfEach * rounds * 2 / 3;) {
    usleep(static_cast<useconds_t>(dice.below(100000)));
    const pid_t host = handler_host_of(*both()[static_cast<size_t>(dice.below(2))]);
    if (host != 0 && score->answered > 100 && kills < scaled(10)) kills += kill(host, SIGKILL) == 0;
  }
  join(&callers);
  expect_fair_ends(*score, kProcesses * kCommandsOfEach * rounds);
  EXPECT_GT(score->failed, 0) << "the host's death was not felt";
  expect_normal_service();
}

TEST_F(Command_Storm, service_of_the_slave_that_is_stopped_costs_time_outs_but_confuses_none) {
  Dice dice(7);
  for (int round = 0; round < scaled(1); ++round) {
    const Shared<Score> score;
    const int rounds = 5;  // enough to be under way still when the service is stopped
    std::vector<Process> callers = start_callers(rounds, {-ETIME}, &*score);
    EXPECT_TRUE(comes_true([&] { return score->answered > 100; }));
    members->slave.service().signal(SIGSTOP);
    // Longer than the other service waits, which is a second more than the time-out, and not as long as the bus takes
    // to give the connection up.
    usleep(static_cast<useconds_t>(kTimeoutMs * 1000 + 1200000 + dice.below(400000)));
    members->slave.service().signal(SIGCONT);
    join(&callers);
    expect_fair_ends(*score, kProcesses * kCommandsOfEach * rounds);
    EXPECT_GT(score->failed, 0) << "the service was never missed";
    expect_normal_service();
  }
}

}  // namespace
}  // namespace tarn::test
