#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class System_Log : public testing::Test {
 protected:
  // The arguments that /sbin/log_tool was run with at last.
  std::vector<std::string> last_arguments() {
    return platform_.runs().empty() ? std::vector<std::string>() : platform_.runs().back().arguments;
  }

  Platform_Doubles platform_;
  Log_Capture log_;
};

TEST_F(System_Log, Runs_The_Log_Tool_With_An_Argument_List) {
  EXPECT_EQ(System_Log_Append(1, "admin", "Slave %s joined as %d.", "QN1", 7), 0);
  EXPECT_THAT(platform_.runs(),
              ElementsAre(Program_Run{
                  {0, 0, 0}, "/sbin/log_tool", {"-a", "Slave QN1 joined as 7.", "-t", "1", "-u", "admin"}}));
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(System_Log, The_Types_0_1_And_2_Are_Given_On_In_Decimal) {
  for (int type = 0; type <= 2; ++type) {
    EXPECT_EQ(System_Log_Append(type, "u", "m"), 0);
    EXPECT_THAT(last_arguments(), ElementsAre("-a", "m", "-t", std::to_string(type), "-u", "u"));
  }
}

TEST_F(System_Log, Any_Other_Type_Is_Refused_And_Nothing_Run) {
  for (const int type : {3, 4, -1, INT_MIN, INT_MAX}) EXPECT_EQ(System_Log_Append(type, "u", "m"), -EINVAL);
  EXPECT_THAT(platform_.runs(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(System_Log, A_Missing_User_Or_Format_Is_Refused_And_Nothing_Run) {
  const char *none = nullptr;
  EXPECT_EQ(System_Log_Append(0, none, "m"), -EINVAL);
  EXPECT_EQ(System_Log_Append(0, "u", none, 1), -EINVAL);
  EXPECT_THAT(platform_.runs(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(System_Log, Quotes_Dollars_And_Backslashes_Are_Escaped_In_The_Message) {
  EXPECT_EQ(System_Log_Append(0, "u", "%s", R"(a"b$c\d""$$\\)"), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[1], R"(a\"b\$c\\d\"\"\$\$\\\\)");
}

TEST_F(System_Log, Quotes_Dollars_And_Backslashes_Are_Escaped_In_The_User) {
  EXPECT_EQ(System_Log_Append(0, R"("$\)", "m"), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[5], R"(\"\$\\)");
}

TEST_F(System_Log, Every_Other_Character_Passes_As_It_Is) {
  std::string others;
  for (int c = 1; c < 256; ++c) {
    if (c != '"' && c != '$' && c != '\\') others += static_cast<char>(c);
  }
  EXPECT_EQ(System_Log_Append(0, others.c_str(), "%s", others.c_str()), 0);
  EXPECT_THAT(last_arguments(), ElementsAre("-a", others, "-t", "0", "-u", others));
}

TEST_F(System_Log, A_Message_Of_Several_Lines_Is_One_Argument) {
  EXPECT_EQ(System_Log_Append(0, "u", "first\nsecond; rm -rf `x`"), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[1], "first\nsecond; rm -rf `x`");
}

TEST_F(System_Log, The_User_Is_No_Format) {
  EXPECT_EQ(System_Log_Append(0, "%s%n%d", "m"), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[5], "%s%n%d");
}

TEST_F(System_Log, An_Empty_Message_And_An_Empty_User_Are_Sent) {
  EXPECT_EQ(System_Log_Append(0, "", "%s", ""), 0);
  EXPECT_THAT(last_arguments(), ElementsAre("-a", "", "-t", "0", "-u", ""));
}

TEST_F(System_Log, A_Message_Of_1023_Characters_Is_Sent_Whole) {
  const std::string message(1023, 'x');
  EXPECT_EQ(System_Log_Append(0, "u", "%s", message.c_str()), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[1], message);
}

TEST_F(System_Log, A_Message_Of_1023_Characters_That_All_Need_An_Escape_Is_Sent_Whole) {
  EXPECT_EQ(System_Log_Append(0, "u", "%s", std::string(1023, '"').c_str()), 0);
  std::string escaped;
  for (int i = 0; i < 1023; ++i) escaped += "\\\"";
  ASSERT_THAT(last_arguments(), SizeIs(6));
  EXPECT_EQ(last_arguments()[1], escaped);
}

TEST_F(System_Log, A_Longer_Message_Is_Refused_And_Said_At_Debug_Level_With_Its_Format) {
  for (const size_t length : {1024, 1025, 5000, 100000}) {
    SCOPED_TRACE(length);
    log_.clear();
    const std::string message(length, 'x');
    errno = ENOENT;  // what an earlier call left behind must not become the result
    EXPECT_EQ(System_Log_Append(0, "u", "%s", message.c_str()), -EOVERFLOW);
    EXPECT_THAT(log_.lines(),
                ElementsAre(debug_line("System_Log_Append", "Can't generate the system log message ! (-75, %s)")));
  }
  EXPECT_THAT(platform_.runs(), IsEmpty());
}

TEST_F(System_Log, A_Message_That_Cannot_Be_Formatted_Is_Refused_With_The_Errno) {
  EXPECT_EQ(System_Log_Append(0, "u", "%ls", L"\u6f22"), -EILSEQ);  // the C locale has no such character
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("System_Log_Append", "Can't generate the system log message ! (-84, %ls)")));
  EXPECT_THAT(platform_.runs(), IsEmpty());
}

TEST_F(System_Log, A_User_Of_Any_Length_Is_Escaped_Whole) {
  const std::string user(100000, '$');
  EXPECT_EQ(System_Log_Append(2, user.c_str(), "m"), 0);
  ASSERT_THAT(last_arguments(), SizeIs(6));
  ASSERT_EQ(last_arguments()[5].size(), 200000U);
  EXPECT_EQ(last_arguments()[5].substr(0, 4), "\\$\\$");
  EXPECT_EQ(last_arguments()[5].substr(199996), "\\$\\$");
}

TEST_F(System_Log, The_Result_Is_The_Wait_Status_Shifted_By_8) {
  struct Case {
    int wait_status, result;
  };
  // A tool that a signal ended (9) counts as success; a failed run (-1) stays negative.
  for (const Case &c : {Case{0, 0}, {0x0100, 1}, {0xff00, 255}, {9, 0}, {-1, -1}, {-256, -1}, {-1280, -5}}) {
    SCOPED_TRACE(c.wait_status);
    platform_.exit_with(c.wait_status);
    EXPECT_EQ(System_Log_Append(0, "u", "m"), c.result);
  }
}

TEST_F(System_Log, When_Memory_Ends_Nothing_Is_Run) {
  platform_.exit_with(0x0700);
  const int allocations = with_each_allocation_failing([] { return System_Log_Append(0, "us\"er", "mess$age"); },
                                                       [](int status, int) { EXPECT_EQ(status, -ENOMEM); });
  EXPECT_GE(allocations, 1);
  ASSERT_THAT(platform_.runs(), SizeIs(1));  // of the last turn, which had its memory
  EXPECT_THAT(last_arguments(), ElementsAre("-a", "mess\\$age", "-t", "0", "-u", "us\\\"er"));
}

}  // namespace
}  // namespace tarn::test
