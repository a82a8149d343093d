// Commands between a master and a slave: real services, the real bus.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>

#include "tarncluster_util.h"
#include "tests/platform/member.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

class Commands : public testing::Test {
 protected:
  static void SetUpTestSuite() { members = new Pair_Of_Members; }
  static void TearDownTestSuite() { delete members; }
  static Outcome call_slave(const std::string &handler, const std::string &argument, int timeout_ms = 60000) {
    return members->master.master_command(handler_of_slave("S1", handler), argument, timeout_ms);
  }
  static Outcome call_master(const std::string &handler, const std::string &argument, int timeout_ms = 60000) {
    return members->slave.slave_command(handler_of_master(handler), argument, timeout_ms);
  }
  static Pair_Of_Members *members;
};
Pair_Of_Members *Commands::members = nullptr;

TEST_F(Commands, echo_from_master_to_slave) {
  const Outcome outcome = members->master.echo(0, "S1", "to the slave");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, R"({ "return": 0, "received": "to the slave" })");
}

TEST_F(Commands, echo_from_slave_to_master) {
  const Outcome outcome = members->slave.echo(1, "0", "to the master");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, R"({ "return": 0, "received": "to the master" })");
}

TEST_F(Commands, echo_from_slave_that_names_itself) {
  const Outcome outcome = members->slave.echo(2, "S1", "by my own id");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, R"({ "return": 0, "received": "by my own id" })");
}

TEST_F(Commands, handler_runs_on_the_member_that_is_addressed) {
  ASSERT_EQ(call_slave("Count_Cb", "/run/counted").reply, "counted");
  EXPECT_TRUE(exists(members->slave.path("/run/counted")));
  EXPECT_FALSE(exists(members->master.path("/run/counted")));
}

TEST_F(Commands, handler_runs_once_for_each_command) {
  for (int i = 0; i < 20; ++i) ASSERT_EQ(call_slave("Count_Cb", "/run/counted_20").reply, "counted");
  EXPECT_EQ(read_file(members->slave.path("/run/counted_20")), std::string(20, 'x'));
}

TEST_F(Commands, handler_gets_the_argument_text_byte_for_byte) {
  const std::string argument = "no JSON: \"quotes\" \\ \n \t \x01 \xff % $(x)";
  EXPECT_EQ(call_slave("Plain_Echo_Cb", argument).reply, argument);
  EXPECT_EQ(call_master("Plain_Echo_Cb", argument).reply, argument);
}

TEST_F(Commands, empty_argument_and_empty_reply) {
  const Outcome outcome = call_slave("Plain_Echo_Cb", "");
  EXPECT_EQ(outcome.code, 0);
  EXPECT_TRUE(outcome.has_reply);
  EXPECT_EQ(outcome.reply, "");
}

TEST_F(Commands, one_mebibyte_of_argument_and_reply) {
  std::string argument(1 << 20, 'a');
  argument.back() = 'z';
  EXPECT_EQ(call_slave("Plain_Echo_Cb", argument).reply, argument);
  EXPECT_EQ(call_master("Plain_Echo_Cb", argument).reply, argument);
}

TEST_F(Commands, text_too_long_for_the_bus_is_refused) {
  EXPECT_EQ(call_slave("Plain_Echo_Cb", std::string(9 << 20, 'a')).code, -EMSGSIZE);
  EXPECT_EQ(call_slave("Long_Answer_Cb", std::to_string(9 << 20)).code, -EMSGSIZE);
  EXPECT_EQ(call_slave("Long_Answer_Cb", std::to_string(8000000)).reply.size(), 8000000u);
}

TEST_F(Commands, handler_that_crashes_costs_its_command_only) {
  const Outcome outcome = call_slave("Crash_Cb", "{}");
  EXPECT_EQ(outcome.code, -EIO);
  EXPECT_FALSE(outcome.has_reply);
  EXPECT_EQ(call_slave("Exit_Cb", "{}").code, -EIO);
  EXPECT_EQ(call_slave("Plain_Echo_Cb", "still there").reply, "still there");
}

TEST_F(Commands, end_of_a_handler_is_seen_though_what_it_left_running_holds_its_descriptors) {
  Temporary_Folder folder;
  EXPECT_EQ(call_slave("Exit_With_Worker_Cb", folder / "id", 15000).code, -EIO);
  kill(atoi(read_file(folder / "id").c_str()), SIGKILL);
}

TEST_F(Commands, handler_that_gives_no_reply) {
  const Outcome outcome = call_slave("Nothing_Cb", "{}");
  EXPECT_EQ(outcome.code, -EPROTO);
  EXPECT_FALSE(outcome.has_reply);
}

TEST_F(Commands, handler_that_hangs_is_ended_with_its_children_at_the_time_out) {
  Temporary_Folder folder;
  const std::string ids = folder / "ids";
  EXPECT_EQ(call_slave("Hang_Cb", ids, 1500).code, -ETIME);
  pid_t handler = 0;
  pid_t child = 0;
  std::ifstream(ids) >> handler >> child;
  ASSERT_GT(handler, 0);
  ASSERT_GT(child, 0);
  EXPECT_TRUE(comes_true([&] { return kill(handler, 0) != 0 && kill(child, 0) != 0; }));
  EXPECT_EQ(call_slave("Plain_Echo_Cb", "still there").reply, "still there");
}

TEST_F(Commands, what_a_handler_leaves_running_does_not_hold_its_reply_and_lives_on) {
  Temporary_Folder folder;
  EXPECT_EQ(call_slave("Leave_Worker_Cb", folder / "done", 30000).reply, "left");
  EXPECT_TRUE(comes_true([&] { return exists(folder / "done"); }));
}

// Answers how many commands each process says to have carried out by then.
std::map<int, int> commands_by_process(int calls, const std::function<Outcome()> &call) {
  std::map<int, int> commands;
  for (int i = 0; i < calls; ++i) {
    int process = 0;
    int count = 0;
    const Outcome outcome = call();
    EXPECT_EQ(sscanf(outcome.reply.c_str(), "%d %d", &process, &count), 2) << outcome.code;
    EXPECT_GT(count, commands[process]);
    commands[process] = count;
  }
  return commands;
}

TEST_F(Commands, process_that_answered_takes_further_ones_but_not_for_ever) {
  const auto commands = commands_by_process(250, [] { return call_slave("Process_Cb", ""); });
  EXPECT_LT(commands.size(), 100U);
  for (const auto &[process, count] : commands) EXPECT_LE(count, 100);
}

TEST_F(Commands, process_of_a_handler_that_left_something_running_takes_no_further_one) {
  const int process = atoi(call_slave("Leave_Orphan_Cb", "").reply.c_str());
  ASSERT_GT(process, 0);
  EXPECT_THAT(commands_by_process(20, [] { return call_slave("Process_Cb", ""); }),
              Not(Contains(testing::Key(process))));
}

TEST_F(Commands, process_that_gave_no_reply_takes_no_further_one) {
  const auto before = commands_by_process(20, [] { return call_slave("Process_Cb", ""); });
  for (int i = 0; i < 20; ++i) call_slave("Nothing_Cb", "");
  const auto after = commands_by_process(20, [] { return call_slave("Process_Cb", ""); });
  for (const auto &[process, count] : before) EXPECT_THAT(after, Not(Contains(testing::Key(process))));
}

TEST_F(Commands, unknown_handler) {
  EXPECT_EQ(call_slave("No_Such_Handler_Cb", "{}").code, -ENOSYS);
  EXPECT_EQ(call_master("No_Such_Handler_Cb", "{}").code, -ENOSYS);
}

TEST_F(Commands, only_names_that_end_in_Cb_are_handlers) {
  for (const char *name : {"Plain_Echo", "Tarn_Cluster_Test", "system", "_cb", "Plain_Echo_Cb ", "Plain/Echo_Cb", ""}) {
    EXPECT_EQ(call_slave(name, "{}").code, -ENOSYS) << name;
  }
}

TEST_F(Commands, member_that_is_down_is_told_at_once) {
  const Outcome outcome = members->master.master_command(handler_of_slave("S2", "Plain_Echo_Cb"), "{}", 3600000);
  EXPECT_EQ(outcome.code, -EHOSTUNREACH);
  EXPECT_FALSE(outcome.has_reply);
}

TEST_F(Commands, id_that_is_no_id_is_refused) {
  for (const char *id : {"*", ">", "S1.x", "S1 ", "", "123456789", "S1\\u0000", "a/b", "\\n"}) {
    EXPECT_EQ(members->master.master_command(handler_of_slave(id, "Plain_Echo_Cb"), "{}").code, -EINVAL) << id;
  }
}

TEST_F(Commands, role_that_the_member_does_not_have) {
  EXPECT_EQ(members->master.slave_command(handler_of_master("Plain_Echo_Cb"), "{}").code, -EPERM);
  EXPECT_EQ(members->slave.master_command(handler_of_slave("S1", "Plain_Echo_Cb"), "{}").code, -EPERM);
  const auto control = [](char **reply) { return Cluster_Master_Ctrl_Cmd(R"({"op_code": 2})", "{}", reply); };
  EXPECT_EQ(members->slave.call(control).code, -EPERM);
}

TEST_F(Commands, slave_cannot_name_another_slave) {
  EXPECT_EQ(members->slave.slave_command(handler_of_slave("S2", "Plain_Echo_Cb"), "{}").code, -EPERM);
}

TEST_F(Commands, master_of_another_id_is_not_reached) {
  const std::string command = R"({"op_code": 1, "fname": "Plain_Echo_Cb", "master_id": "1"})";
  EXPECT_EQ(members->slave.slave_command(command, "{}").code, -EHOSTUNREACH);
}

TEST_F(Commands, slaves_are_added_and_removed_only_where_the_authority_is) {
  for (const int op_code : {2, 3}) {
    const std::string command = R"({"slave_id": "S1", "op_code": )" + std::to_string(op_code) + "}";
    const auto control = [&](char **reply) { return Cluster_Master_Ctrl_Cmd(command.c_str(), "{}", reply); };
    EXPECT_EQ(members->master.call(control).code, -ENOKEY) << op_code;
  }
}

TEST_F(Commands, address_of_a_slave_without_a_record_is_not_taken) {
  EXPECT_EQ(members->slave.slave_command(R"({"op_code": 4, "master_id": "0"})", "{}").code, -ENOANO);
}

TEST_F(Commands, unknown_operation) {
  for (const int op_code : {0, -1, 7, 2147483647}) {
    const std::string command = R"({"slave_id": "S1", "op_code": )" + std::to_string(op_code) + "}";
    EXPECT_EQ(members->master.master_command(command, "{}").code, -ENOSYS) << op_code;
  }
}

TEST_F(Commands, malformed_command_object) {
  std::string deep = R"({"op_code": 1, "slave_id": "S1", "fname": )";
  for (int i = 0; i < 100000; ++i) deep += "[";
  const std::string texts[] = {"",
                               "{",
                               "null",
                               "5",
                               "[1]",
                               "\"x\"",
                               "true",
                               "{}",
                               R"({"op_code": 1})",
                               R"({"op_code": "1", "slave_id": "S1", "fname": "Plain_Echo_Cb"})",
                               R"({"op_code": null, "slave_id": "S1", "fname": "Plain_Echo_Cb"})",
                               R"({"op_code": 1, "slave_id": 5, "fname": "Plain_Echo_Cb"})",
                               R"({"op_code": 1, "slave_id": "S1"})",
                               R"({"op_code": 1, "slave_id": "S1", "fname": ["Plain_Echo_Cb"]})",
                               R"({"op_code": 1, "slave_id": "S1", "master_id": "0", "fname": "Plain_Echo_Cb"})",
                               deep};
  for (const std::string &text : texts) {
    EXPECT_EQ(members->master.master_command(text, "{}").code, -EINVAL) << text.substr(0, 100);
  }
}

TEST_F(Commands, one_hundred_at_once_each_with_its_own_reply) {
  std::vector<Process> callers;
  for (int i = 0; i < 100; ++i) {
    const Member &from = i % 2 == 0 ? members->master : members->slave;
    callers.push_back(from.start_on_member([i] {
      const std::string text = "text " + std::to_string(i);
      char *reply = nullptr;
      const int code = i % 2 == 0 ? Tarn_Cluster_Test(0, "S1", text.c_str(), &reply)
                                  : Tarn_Cluster_Test(1, "0", text.c_str(), &reply);
      const std::string wanted = R"({ "return": 0, "received": ")" + text + "\" }";
      _exit(code == 0 && reply == wanted ? 0 : 1);
    }));
  }
  for (Process &caller : callers) EXPECT_EQ(caller.wait(), 0);
}

TEST_F(Commands, slow_commands_do_not_hold_up_others) {
  Temporary_Folder folder;
  std::vector<Process> slow;
  for (int i = 0; i < 20; ++i) {
    const std::string ids = folder / std::to_string(i);
    slow.push_back(members->master.start_on_member([ids] {
      char *reply = nullptr;
      const std::string command = handler_of_slave("S1", "Hang_Cb");
      _exit(Cluster_Master_Cmd_Ex(command.c_str(), ids.c_str(), 10000, &reply) == -ETIME ? 0 : 1);
    }));
  }
  ASSERT_TRUE(comes_true([&] { return names_in(folder.path()).size() == 20; }));
  EXPECT_EQ(call_slave("Plain_Echo_Cb", "quick").reply, "quick");
  for (Process &caller : slow) EXPECT_EQ(kill(caller.pid(), 0), 0) << "the slow ones were not running any more";
  for (Process &caller : slow) EXPECT_EQ(caller.wait(), 0);
}

TEST_F(Commands, member_that_is_stopped_costs_the_time_out) {
  members->slave.service().signal(SIGSTOP);
  const Outcome outcome = call_slave("Plain_Echo_Cb", "{}", 1000);
  members->slave.service().signal(SIGCONT);
  EXPECT_EQ(outcome.code, -ETIME);
  EXPECT_EQ(call_slave("Plain_Echo_Cb", "back").reply, "back");
}

TEST_F(Commands, own_service_that_is_stopped_costs_the_time_out) {
  members->master.service().signal(SIGSTOP);
  const Outcome outcome = call_slave("Plain_Echo_Cb", "{}", 500);
  members->master.service().signal(SIGCONT);
  EXPECT_EQ(outcome.code, -ETIME);
}

TEST_F(Commands, caller_may_fork_between_calls) {
  const std::string answer = members->master.on_member([] {
    const auto echo = [](const char *text) {
      char *reply = nullptr;
      if (Tarn_Cluster_Test(0, "S1", text, &reply) != 0) return std::string("failed");
      const std::string copy = reply;
      free(reply);
      return copy;
    };
    std::string all = echo("before");
    const pid_t child = fork();
    if (child == 0) _exit(echo("child").find("child") != std::string::npos ? 0 : 1);
    all += echo("parent");
    int status = 1;
    waitpid(child, &status, 0);
    return all + (status == 0 ? "child too" : "child failed");
  });
  EXPECT_THAT(answer, HasSubstr("\"before\""));
  EXPECT_THAT(answer, HasSubstr("\"parent\""));
  EXPECT_THAT(answer, HasSubstr("child too"));
}

TEST_F(Commands, calls_leave_no_descriptor_open) {
  const std::string answer = members->master.on_member([] {
    const int before = open_descriptors();
    for (const char *id : {"S1", "S2", "?"}) {
      char *reply = nullptr;
      Tarn_Cluster_Test(0, id, "text", &reply);
      free(reply);
    }
    return std::to_string(open_descriptors() - before);
  });
  EXPECT_EQ(answer, "0");
}

TEST_F(Commands, signals_during_a_call_do_not_break_it) {
  const std::string answer = members->master.on_member([] {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);  // without SA_RESTART: every wait is interrupted
    const itimerval often = {{0, 500}, {0, 500}};
    setitimer(ITIMER_REAL, &often, nullptr);
    const std::string command = handler_of_slave("S1", "Plain_Echo_Cb");
    const std::string argument(1 << 20, 'a');
    for (int i = 0; i < 20; ++i) {
      char *reply = nullptr;
      if (Cluster_Master_Cmd(command.c_str(), argument.c_str(), &reply) != 0 || argument != reply) return "failed";
      free(reply);
    }
    return "all answered";
  });
  EXPECT_EQ(answer, "all answered");
}

TEST_F(Commands, null_arguments_are_refused) {
  char *reply = nullptr;
  EXPECT_EQ(Cluster_Master_Cmd(nullptr, "{}", &reply), -EINVAL);
  EXPECT_EQ(Cluster_Master_Cmd("{}", nullptr, &reply), -EINVAL);
  EXPECT_EQ(Cluster_Master_Cmd("{}", "{}", nullptr), -EINVAL);
  EXPECT_EQ(Cluster_Slave_Cmd(nullptr, "{}", &reply), -EINVAL);
  EXPECT_EQ(Cluster_Master_Cmd_Ex(nullptr, "{}", 1, &reply), -EINVAL);
  EXPECT_EQ(Cluster_Slave_Cmd_Ex("{}", nullptr, 1, &reply), -EINVAL);
  EXPECT_EQ(Cluster_Master_Ctrl_Cmd("{}", "{}", nullptr), -EINVAL);
}

TEST_F(Commands, reply_is_none_after_a_failure) {
  char *reply = strdup("stale");
  char *const stale = reply;
  EXPECT_EQ(Cluster_Master_Cmd("{}", "{}", &reply), -ECONNREFUSED);  // no service in this root itself
  EXPECT_EQ(reply, nullptr);
  free(stale);
}

TEST(Slave_On_Master, both_roles_of_one_appliance_reach_each_other) {
  const Cluster cluster({});
  Member member(cluster, "0", "--slave-id M1");
  member.start_bus();
  member.start();
  EXPECT_EQ(member.echo(2, "M1", "to my master").reply, R"({ "return": 0, "received": "to my master" })");
  EXPECT_EQ(member.echo(1, "0", "to the master").reply, R"({ "return": 0, "received": "to the master" })");
  EXPECT_EQ(member.echo(0, "M1", "to my slave").reply, R"({ "return": 0, "received": "to my slave" })");

  Temporary_Folder folder;
  write_file(folder / "source", "content");
  EXPECT_EQ(member.send_file(2, "M1", folder / "source", folder / "sent").code, 0);
  EXPECT_EQ(read_file(folder / "sent"), "content");
  EXPECT_EQ(member.fetch_file(0, "M1", folder / "source", folder / "fetched").code, 0);
  EXPECT_EQ(read_file(folder / "fetched"), "content");
}

}  // namespace
}  // namespace tarn::test
