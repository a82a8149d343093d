// The master's commands to its running slaves: what the share list's handler, the slave information's handler and the
// bind address's sender do alike.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/appliance.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/cluster/ops/record_answers.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

// Whose share list, whose information, whose new address: it is on the list of members and never told itself.
const std::string subject = "QNabout1";

const std::string share_argument =
    R"({"slave_id":"QNabout1","share_list":[{"share_name":"s","invalid users":"","read list":"r","write list":"","path":"/p"}]})";
const std::string info_argument =
    R"({"slave_id":"QNabout1","Type":1,"WebPort":1,"SslWebPort":1,"UsrCnt":1,"Quota":1,"Address":"10.77.9.1",)"
    R"("MSKey":"QNabout1","SID":"s","HostName":"h","Model":"m","Firmware":"f"})";

struct Caller {
  const char *title;
  const char *function;                        // that reports
  const char *handler;                         // on the slaves
  const char *noun;                            // "... for broadcast NOUN! (-12)"
  const char *action;                          // "Broadcast ACTION to slave ..."
  std::string argument;                        // that the slaves get; empty: made by the caller itself
  char *(*own_handler)(const char *argument);  // null: the sender of the bind address
};

const Caller callers[] = {
    {"Share_List", "Tarn_Cluster_Send_Share_List_Cb", "Tarn_Cluster_Send_Share_List_Cb", "share list",
     "send share list", share_argument, Tarn_Cluster_Send_Share_List_Cb},
    // It is the share list's handler that the slaves are told to run: slaves of every age take it so.
    {"Slave_Info", "Tarn_Cluster_Send_Slave_Info_Cb", "Tarn_Cluster_Send_Share_List_Cb", "slave info",
     "send slave info", info_argument, Tarn_Cluster_Send_Slave_Info_Cb},
    {"Bind_Address", "Tarn_Cluster_Update_Bind_Addr", "Tarn_Cluster_Update_Bind_Addr_Cb", "update bind", "update bind",
     "", nullptr},
};

void PrintTo(const Caller &caller, std::ostream *out) {
  *out << caller.title;
}

std::string title_of(const testing::TestParamInfo<Caller> &tested) {
  return tested.param.title;
}

class Broadcast : public testing::TestWithParam<Caller> {
 protected:
  Broadcast() {
    Appliance::be_master();
    Appliance::set_id(subject);
    set_members({});
    write_file(master_file, "[QNabout1]\nAddress = 10.77.9.1\n");
    platform_.answer(0, R"({ "return": 0 })");
  }

  // Behind the subject's own record.
  static void set_members(std::vector<Member> members) {
    members.insert(members.begin(), {subject});
    Appliance::set_members(members);
  }

  // Has the broadcast made: the code that it results in, or the handler's answer.
  struct Outcome {
    int code = 0;
    Owned_Text answer;
  };
  Outcome run() {
    if (GetParam().own_handler == nullptr) return {change_master_address(), nullptr};
    return {0, Owned_Text(GetParam().own_handler(GetParam().argument.c_str()))};
  }

  int broadcast() {
    const Outcome outcome = run();
    return outcome.answer != nullptr ? std::stoi(json_members(outcome.answer.get()).at(0).second) : outcome.code;
  }

  // Between two addresses, since an unchanged one is not passed on.
  int change_master_address() {
    char address[64];
    int size = sizeof address;
    Get_Conf_File_String_Value(master_file.c_str(), subject.c_str(), "Address", address, &size);
    const std::string &next = address == own_address ? other_own_address : own_address;
    char *reply = nullptr;
    const int status = Tarn_Cluster_Update_Bind_Addr(subject.c_str(), next.c_str(), &reply);
    const Owned_Text given_back(reply);
    return status;
  }

  std::vector<std::string> told() const {
    std::vector<std::string> slaves;
    for (const Platform_Call &call : platform_.calls()) slaves.push_back(json_members(call.command).at(2).second);
    return slaves;
  }

  std::vector<Log_Line> lines() const {
    std::vector<Log_Line> found;
    for (Log_Line &line : lines_of(log_, GetParam().function)) {
      const bool is_of_the_walk = line.text.starts_with("Array Length") || line.text.starts_with("value[");
      if (!is_of_the_walk) found.push_back(std::move(line));
    }
    return found;
  }

  static Log_Line sent_line(const std::string &slave, int result) {
    return debug_line(GetParam().function, std::string("Broadcast ") + GetParam().action + " to slave " + slave +
                                               ", result: " + std::to_string(result));
  }
  static Log_Line refused_line(int code) {
    return error_line(GetParam().function, "Can't send cluster command! (" + std::to_string(code) + ")");
  }
  static Log_Line no_memory_line() {
    return error_line(GetParam().function,
                      std::string("Can't allocate memory for broadcast ") + GetParam().noun + "! (-12)");
  }
  static Log_Line unread_line(int status) {
    return error_line(
        GetParam().function,
        "Can't read Tarn service file /mnt/tarncluster/config/tarn_service_s.conf! (" + std::to_string(status) + ")");
  }

  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
};

INSTANTIATE_TEST_SUITE_P(Of, Broadcast, testing::ValuesIn(callers), title_of);

TEST_P(Broadcast, Each_Running_Slave_Is_Told_In_The_Files_Order_And_Its_Answer_Logged) {
  set_members({{"QNslave2"}, {"QNslave1"}, {"s"}});
  platform_.answer_for("QNslave1", 0, R"({"return": -22})");
  platform_.answer_for("s", 0, R"({"return": 7, "other": [1]})");
  EXPECT_EQ(broadcast(), 0) << "what slaves answer is only logged";
  EXPECT_THAT(told(), ElementsAre("\"QNslave2\"", "\"QNslave1\"", "\"s\""));
  EXPECT_THAT(lines(), ElementsAre(sent_line("QNslave2", 0), sent_line("QNslave1", -22), sent_line("s", 7)));
}

TEST_P(Broadcast, The_Command_Names_The_Handler_And_The_Slave_And_Carries_The_Very_Argument) {
  set_members({{"QNslave1"}, {"QNslave2"}});
  EXPECT_EQ(broadcast(), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(2));
  for (const Platform_Call &call : calls) {
    EXPECT_EQ(call.function, "Cluster_Master_Cmd");
    if (!GetParam().argument.empty()) {
      EXPECT_EQ(call.argument, GetParam().argument);
    }
  }
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", "1"), Pair("fname", json_quoted(GetParam().handler)),
                          Pair("slave_id", "\"QNslave1\"")));
}

TEST_P(Broadcast, The_Member_That_It_Is_About_Is_Not_Told) {
  set_members({{"QNslave1"}, {subject}});
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), ElementsAre("\"QNslave1\""));
}

// The name must be the same, not begin the same.
TEST_P(Broadcast, Members_Whose_Names_Resemble_Are_Told) {
  set_members({{"QNabout"}, {"qnabout1"}, {"Nabout1"}});
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), SizeIs(3));
}

// A member's address counts as local when one of this appliance's begins with it; clusters choose their addresses so.
TEST_P(Broadcast, A_Member_At_An_Address_Of_This_Appliance_Is_Not_Told) {
  set_members({{"local1", own_address},
               {"local2", other_own_address},
               {"local3", "127.0.0.1"},
               {"prefix", "10.77.0.2"},
               {"far1", "10.77.0.26"},
               {"far2", "10.77.0.250"}});
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), ElementsAre("\"far1\"", "\"far2\""));
}

TEST_P(Broadcast, A_Member_Without_An_Address_Is_Not_Told) {
  set_members({{"QNempty", ""}, {"QNslave1"}});
  write_file(slaves_file, read_file(slaves_file) + "[QNnone]\nStatus = 1\nPID = " + std::to_string(getpid()) + "\n");
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), ElementsAre("\"QNslave1\""));
}

// Whether it can be reached is for the platform to find out.
TEST_P(Broadcast, A_Member_Whose_Address_Is_No_Address_Is_Told) {
  set_members({{"QNslave1", "no address"}});
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), SizeIs(1));
}

TEST_P(Broadcast, A_Member_Of_Status_0_Is_Not_Told_And_One_Of_Any_Other_Status_Is) {
  set_members({{"QNzero", "10.77.9.9", 0}, {"QNone", "10.77.9.9", 1}, {"QNminus", "10.77.9.9", -1}});
  write_file(slaves_file, read_file(slaves_file) + "[QNnone]\nAddress = 10.77.9.9\nPID = " + std::to_string(getpid()));
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), ElementsAre("\"QNone\"", "\"QNminus\""));
}

TEST_P(Broadcast, A_Member_Without_A_Living_Process_Is_Not_Told) {
  set_members({{"QNdead", "10.77.9.9", 1, dead_pid()},
               {"QNzero", "10.77.9.9", 1, 0},
               {"QNgroup", "10.77.9.9", 1, -getpgrp()},
               {"QNslave1"}});
  write_file(slaves_file, read_file(slaves_file) + "[QNnone]\nAddress = 10.77.9.9\nStatus = 1\n");
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), ElementsAre("\"QNslave1\""));
}

TEST_P(Broadcast, The_Last_Slaves_Code_Counts) {
  set_members({{"QNslave1"}, {"QNslave2"}});
  platform_.answer_for("QNslave1", -113);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), SizeIs(2)) << "the others are told all the same";
  EXPECT_THAT(lines(), ElementsAre(refused_line(-113), sent_line("QNslave2", 0)));

  log_.clear();
  platform_.answer_for("QNslave1", 0);
  platform_.answer_for("QNslave2", 5);
  EXPECT_EQ(broadcast(), 5);
  EXPECT_THAT(lines(), ElementsAre(refused_line(5)));
}

TEST_P(Broadcast, A_Slave_That_Answers_Nothing_Was_Told) {
  set_members({{"QNslave1"}, {"QNslave2"}});
  platform_.answer_for("QNslave1", 0);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(lines(), ElementsAre(sent_line("QNslave2", 0)));

  log_.clear();
  platform_.answer(0);
  platform_.answer_for("QNslave2", 0);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_P(Broadcast, An_Answer_Beside_A_Failure_Is_Logged_And_The_Failure_Counts) {
  set_members({{"QNslave1"}});
  platform_.answer(-110, R"({"return": 3})");
  EXPECT_EQ(broadcast(), -110);
  EXPECT_THAT(lines(), ElementsAre(refused_line(-110), sent_line("QNslave1", 3)));
}

TEST_P(Broadcast, An_Answer_That_Is_No_JSON_Is_A_Failure_And_The_Others_Are_Told) {
  set_members({{"QNslave1"}, {"QNslave2"}});
  for (const char *answer : {"", "nonsense", "{", "null"}) {
    SCOPED_TRACE(answer);
    log_.clear();
    platform_.answer_for("QNslave1", 0, answer);
    platform_.answer_for("QNslave2", 0, R"({"return": 0})");
    EXPECT_EQ(broadcast(), 0) << "the last one counts";
    EXPECT_THAT(lines(), ElementsAre(no_memory_line(), sent_line("QNslave2", 0)));
  }
  log_.clear();
  platform_.answer_for("QNslave2", 0, "{");
  EXPECT_EQ(broadcast(), -ENOMEM);
  EXPECT_THAT(lines(), ElementsAre(no_memory_line(), no_memory_line()));
}

TEST_P(Broadcast, An_Answer_Without_A_Code_Counts_As_0) {
  set_members({{"QNslave1"}});
  for (const char *answer :
       {"{}", R"({"Return": 5})", R"({"return": null})", "[5]", "5", "\"x\"", R"({"return": []})"}) {
    SCOPED_TRACE(answer);
    log_.clear();
    platform_.answer(0, answer);
    EXPECT_EQ(broadcast(), 0);
    EXPECT_THAT(lines(), ElementsAre(sent_line("QNslave1", 0)));
  }
}

TEST_P(Broadcast, With_No_Slave_To_Tell_It_Has_Worked) {
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_P(Broadcast, A_Failure_To_Read_The_Members_Is_Said_And_Is_The_Code) {
  set_members({{"QNslave1"}});
  write_file(slaves_file, "[no keys]\n\n" + read_file(slaves_file));
  EXPECT_EQ(broadcast(), -EINVAL);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(lines(), ElementsAre(unread_line(-22)));
}

TEST_P(Broadcast, A_Read_That_Finds_No_Section_Is_The_Code_Without_A_Word) {
  set_members({{"QNslave1"}});
  const Read_Answer none(-ENOANO);
  EXPECT_EQ(broadcast(), -ENOANO);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_P(Broadcast, No_Members_At_All_Are_Said_And_0) {
  const Read_Answer none(0);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(lines(), ElementsAre(unread_line(0)));
}

TEST_P(Broadcast, A_Failure_Before_It_Does_Not_Hide_Behind_No_Slaves) {
  if (GetParam().own_handler == nullptr) GTEST_SKIP() << "there, an earlier failure ends it";
  std::filesystem::remove_all(share_folder);
  if (GetParam().noun == std::string("slave info")) {
    Appliance::set_members({{"QNother1", "10.77.9.9", 0}});
    const std::string leaving = R"({"slave_id": "QNabout1", "MSKey": "NULL"})";
    EXPECT_EQ(answer_of(GetParam().own_handler, leaving), answers(-ENOANO));
  } else {
    EXPECT_EQ(broadcast(), -ENOENT);
  }
}

TEST_P(Broadcast, No_Lock_Is_Held_And_All_Is_Stored_While_The_Slaves_Are_Told) {
  set_members({{"QNslave1"}});
  int looks = 0;
  std::vector<std::string> locks, files;
  platform_.during_commands([&] {
    ++looks;
    locks = names_in("/var/lock");
    files = Appliance::all_files();
  });
  EXPECT_EQ(broadcast(), 0);
  EXPECT_EQ(looks, 1);
  EXPECT_THAT(locks, Each(Not(HasSubstr("_"))));
  EXPECT_EQ(files, Appliance::all_files());
}

TEST_P(Broadcast, Slaves_Are_Told_One_After_Another_Each_With_Its_Own_Answer_Alone) {
  std::vector<Member> members;
  for (int i = 0; i < 200; ++i) members.push_back({"s" + std::to_string(i)});
  set_members(members);
  // The odd ones answer nothing: what the one before answered must be gone.
  for (int i = 0; i < 200; ++i)
    platform_.answer_for(members[i].name.c_str(), 0, i % 2 == 0 ? "{\"return\": 0}" : nullptr);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), SizeIs(200));
  EXPECT_THAT(lines(), SizeIs(100));
}

// Whatever fails for want of memory on the way, every command that does go out is whole.
TEST_P(Broadcast, When_Memory_Ends_No_Slave_Gets_Half_A_Command) {
  set_members({{"QNslave1"}, {"QNslave2"}});
  int without_command = 0;
  for (int nth = 1;; ++nth) {
    SCOPED_TRACE(nth);
    if (!GetParam().argument.empty() && !parses_whole_or_tells(GetParam().argument, nth)) continue;
    // The answers are parsed as well, by a parser that cannot be saved everywhere: so there are none.
    platform_.answer(0);
    {
      Allocation_Failure failure(nth);
      run();
    }
    const auto found = lines();
    log_.clear();
    without_command += std::count(found.begin(), found.end(), no_memory_line()) > 0;
    if (!allocation_failed()) break;
  }
  EXPECT_GE(without_command, 3);
  for (const Platform_Call &call : platform_.calls()) {
    EXPECT_THAT(json_members(call.command), SizeIs(3));
    EXPECT_FALSE(json_members(call.argument).empty());
  }
}

// ------------------------------------------------------------------------------------------------------ elsewhere

class Not_On_The_Master : public Broadcast {};

INSTANTIATE_TEST_SUITE_P(Of, Not_On_The_Master, testing::ValuesIn(callers, callers + 2), title_of);

TEST_P(Not_On_The_Master, Nobody_Is_Told_And_The_Members_Are_Not_Read) {
  std::filesystem::remove("/var/zopel/tarn_cluster_m.enable");
  Appliance::be_slave();
  set_members({{"QNslave1"}});
  const Read_Answer unread(-EIO);
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_P(Not_On_The_Master, A_Master_That_Is_A_Slave_As_Well_Tells_The_Others) {
  Appliance::be_slave();
  set_members({{"QNslave1"}});
  EXPECT_EQ(broadcast(), 0);
  EXPECT_THAT(told(), SizeIs(1));
}

}  // namespace
}  // namespace tarn::test
