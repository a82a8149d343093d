#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

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
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr char add_name[] = "Tarn_Cluster_Add_Slave";
constexpr char remove_name[] = "Tarn_Cluster_Remove_Slave";
constexpr char update_name[] = "Tarn_Cluster_Update_Network_Info";

class Membership : public testing::Test {
 protected:
  ~Membership() override { free(reply_); }

  int add(int port = 1, const char *user = "u", const char *password = nullptr) {
    give_back();
    return Tarn_Cluster_Add_Slave("10.77.0.2", port, user, password, &reply_);
  }
  int remove(const char *id = "QNslave1") {
    give_back();
    return Tarn_Cluster_Remove_Slave(id, &reply_);
  }
  int update() {
    give_back();
    return Tarn_Cluster_Update_Network_Info("0", &reply_);
  }

  // Something else than what the call sets it to.
  void give_back() {
    free(reply_);
    reply_ = nullptr;
  }

  auto sent_argument() { return json_members(platform_.calls().back().argument); }

  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

TEST_F(Membership, Adding_Tells_The_Masters_Service_Address_Port_User_And_Password_In_This_Order) {
  EXPECT_EQ(add(4711, "root", "pass word"), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Ctrl_Cmd");
  EXPECT_THAT(json_members(calls[0].command), ElementsAre(Pair("op_code", "2")));
  EXPECT_THAT(json_members(calls[0].argument),
              ElementsAre(Pair("Address", "\"10.77.0.2\""), Pair("Port", "4711"), Pair("User", "\"root\""),
                          Pair("Password", "\"pass word\"")));
}

TEST_F(Membership, Adding_With_Port_0_Or_Below_Takes_The_Services_Port) {
  for (const int port : {0, -1, -62695}) {
    EXPECT_EQ(add(port), 0);
    EXPECT_THAT(sent_argument(), Contains(Pair("Port", "62695")));
  }
  for (const int port : {1, 62695, 65535, 70000}) {
    EXPECT_EQ(add(port), 0);
    EXPECT_THAT(sent_argument(), Contains(Pair("Port", std::to_string(port))));
  }
}

TEST_F(Membership, Adding_Without_User_Takes_Admin_But_An_Empty_User_Is_Sent_As_It_Is) {
  EXPECT_EQ(add(1, nullptr), 0);
  EXPECT_THAT(sent_argument(), Contains(Pair("User", "\"admin\"")));
  EXPECT_EQ(add(1, ""), 0);
  EXPECT_THAT(sent_argument(), Contains(Pair("User", "\"\"")));
}

TEST_F(Membership, Adding_Without_Password_Has_No_Such_Key_But_An_Empty_One_Is_Sent) {
  EXPECT_EQ(add(1, "u", nullptr), 0);
  EXPECT_THAT(sent_argument(), ElementsAre(Pair("Address", "\"10.77.0.2\""), Pair("Port", "1"), Pair("User", "\"u\"")));
  EXPECT_EQ(add(1, "u", ""), 0);
  EXPECT_THAT(sent_argument(), Contains(Pair("Password", "\"\"")));
}

TEST_F(Membership, Adding_Logs_The_Reply_And_Hands_It_Over) {
  platform_.answer(0, R"({"return": 0, "slave_id": "QNslave1"})");
  EXPECT_EQ(add(), 0);
  EXPECT_STREQ(reply_, R"({"return": 0, "slave_id": "QNslave1"})");
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line(add_name, "result: \n{\"return\": 0, \"slave_id\": \"QNslave1\"}")));
}

TEST_F(Membership, Adding_Without_A_Reply_Logs_An_Empty_One_And_Hands_Over_None) {
  char before[] = "left over";
  char *reply = before;
  EXPECT_EQ(Tarn_Cluster_Add_Slave("a", 1, "u", "p", &reply), 0);
  EXPECT_EQ(reply, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line(add_name, "result: \n")));
}

TEST_F(Membership, A_Reply_Too_Long_For_The_Log_Is_Handed_Over_All_The_Same) {
  const std::string large(100'000, 'x');
  platform_.answer(0, large.c_str());
  EXPECT_EQ(add(), 0);
  EXPECT_EQ(reply_, large);
  EXPECT_EQ(log_.text().find('x'), std::string::npos);
}

TEST_F(Membership, The_Password_Is_In_No_Line_Of_The_Log) {
  for (const int code : {0, -EACCES}) {
    platform_.answer(code, "{}");
    EXPECT_EQ(add(1, "u", "seCret\"%s"), code);
  }
  EXPECT_THAT(log_.text(), Not(HasSubstr("seCret")));
}

TEST_F(Membership, Adding_Returns_The_Platforms_Code_Unchanged_And_Logs_No_Result) {
  for (const int code : {-EHOSTUNREACH, -1, 1, 200}) {
    log_.clear();
    platform_.answer(code, "{}");
    EXPECT_EQ(add(), code);
    EXPECT_STREQ(reply_, "{}");
    EXPECT_THAT(log_.lines(),
                ElementsAre(error_line(add_name, "Can't send cluster command! (" + std::to_string(code) + ")")));
  }
}

TEST_F(Membership, Adding_Refuses_A_Missing_Address_Or_Reply) {
  EXPECT_EQ(Tarn_Cluster_Add_Slave(nullptr, 1, "u", "p", &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Add_Slave("a", 1, "u", "p", nullptr), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------------ removal

TEST_F(Membership, Removing_Names_The_Slave_In_Command_And_Argument) {
  Appliance::set_members({{"QNslave1"}, {"QNslave2"}});
  const auto before = Appliance::all_files();
  platform_.answer(0, "{}");
  EXPECT_EQ(remove("QNslave2"), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Ctrl_Cmd");
  EXPECT_THAT(json_members(calls[0].command), ElementsAre(Pair("op_code", "3"), Pair("slave_id", "\"QNslave2\"")));
  EXPECT_THAT(json_members(calls[0].argument), ElementsAre(Pair("slave_id", "\"QNslave2\"")));
  EXPECT_STREQ(reply_, "{}");
  EXPECT_THAT(lines_of(log_, remove_name), IsEmpty());
  EXPECT_EQ(Appliance::all_files(), before) << "the records are the service's to delete";
}

TEST_F(Membership, Removing_A_Stranger_Is_Noted_And_Nothing_Is_Sent) {
  Appliance::set_members({{"QNslave1"}});
  for (const char *id : {"QNslave2", "QNslave", ""}) {
    log_.clear();
    EXPECT_EQ(remove(id), -ENOANO);
    EXPECT_THAT(lines_of(log_, remove_name),
                ElementsAre(debug_line(remove_name, "Remove a slave which doesn't exist.")));
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Membership, Removing_Without_A_File_Of_Members_Fails_As_The_Look_Up_Does) {
  EXPECT_EQ(remove(), -ENOENT);
  EXPECT_THAT(lines_of(log_, remove_name),
              ElementsAre(error_line(remove_name, "Can't read service config file! (-2)")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

// A success logged as an error: those who search the logs know it so.
TEST_F(Membership, A_Look_Up_That_Finds_No_Record_Ends_The_Removal_With_0_And_An_Error_Line) {
  Appliance::set_members({{"QNslave1"}});
  const Get_Answer nothing(0);
  EXPECT_EQ(remove(), 0);
  EXPECT_THAT(lines_of(log_, remove_name), ElementsAre(error_line(remove_name, "Can't read service config file! (0)")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Membership, Removing_Returns_The_Platforms_Code_Unchanged) {
  Appliance::set_members({{"QNslave1"}});
  for (const int code : {-EHOSTUNREACH, 1}) {
    log_.clear();
    platform_.answer(code);
    EXPECT_EQ(remove(), code);
    EXPECT_EQ(reply_, nullptr);
    EXPECT_THAT(lines_of(log_, remove_name),
                ElementsAre(error_line(remove_name, "Can't send cluster command! (" + std::to_string(code) + ")")));
  }
}

TEST_F(Membership, Removing_Refuses_A_Missing_Id_Or_Reply) {
  Appliance::set_members({{"QNslave1"}});
  EXPECT_EQ(Tarn_Cluster_Remove_Slave(nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Remove_Slave("QNslave1", nullptr), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// -------------------------------------------------------------------------------------------------------- network info

TEST_F(Membership, Updating_The_Network_Info_Names_The_Master_In_Command_And_Argument) {
  platform_.answer(0, "{}");
  EXPECT_EQ(update(), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd");
  EXPECT_FALSE(calls[0].timeout_ms.has_value());
  EXPECT_THAT(json_members(calls[0].command), ElementsAre(Pair("op_code", "4"), Pair("master_id", "\"0\"")));
  EXPECT_THAT(json_members(calls[0].argument), ElementsAre(Pair("master_id", "\"0\"")));
  EXPECT_STREQ(reply_, "{}");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Membership, Updating_The_Network_Info_Returns_The_Platforms_Code_Unchanged) {
  for (const int code : {-ETIME, 7}) {
    log_.clear();
    platform_.answer(code);
    EXPECT_EQ(update(), code);
    EXPECT_THAT(log_.lines(),
                ElementsAre(error_line(update_name, "Can't send cluster command! (" + std::to_string(code) + ")")));
  }
}

TEST_F(Membership, Updating_The_Network_Info_Refuses_A_Missing_Id_Or_Reply) {
  EXPECT_EQ(Tarn_Cluster_Update_Network_Info(nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Update_Network_Info("0", nullptr), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------------- levels

TEST_F(Membership, Errors_Are_Written_From_Level_1_On_And_The_Rest_From_Level_3_On) {
  Appliance::set_members({{"QNslave1"}});
  for (const int level : {0, 1, 2, 3}) {
    const Log_Capture log(level);
    platform_.answer(0, "{}");
    EXPECT_EQ(add(), 0);
    EXPECT_EQ(remove("stranger"), -ENOANO);
    EXPECT_THAT(log.lines(), level >= 3 ? Not(IsEmpty()) : testing::Matcher<std::vector<Log_Line>>(IsEmpty()));
    platform_.answer(-1);
    EXPECT_EQ(update(), -1);
    EXPECT_THAT(lines_of(log, update_name), SizeIs(level >= 1 ? 1 : 0));
  }
}

// ------------------------------------------------------------------------------------------------------------- memory

class Membership_Without_Memory : public Membership {
 protected:
  // How often a failing allocation was said to keep the command from being made.
  template <typename Call>
  int count_refusals(const char *function, Call call) {
    int refused = 0;
    with_each_allocation_failing(call, [&](int status, int nth) {
      SCOPED_TRACE(nth);
      const bool said =
          lines_of(log_, function) == std::vector{error_line(function, "Can't create json object! (-12)")};
      log_.clear();
      // A look-up for which memory ends between two sections ends there, too, and knows no more members.
      EXPECT_THAT(status, testing::AnyOf(0, -ENOMEM, -ENOANO));
      if (!said) return;
      EXPECT_EQ(status, -ENOMEM);
      ++refused;
    });
    for (const Platform_Call &sent : platform_.calls()) {
      EXPECT_THAT(sent.command, Not(HasSubstr("null")));
      EXPECT_THAT(sent.argument, Not(HasSubstr("null")));
    }
    return refused;
  }
};

TEST_F(Membership_Without_Memory, No_Sender_Sends_Half_A_Command) {
  Appliance::set_members({{"QNslave1"}});
  EXPECT_GE(count_refusals(add_name, [&] { return add(1, "u", "p"); }),
            7);  // two objects and five members at the least
  EXPECT_GE(count_refusals(remove_name, [&] { return remove(); }), 5);
  EXPECT_GE(count_refusals(update_name, [&] { return update(); }), 5);
}

}  // namespace
}  // namespace tarn::test
