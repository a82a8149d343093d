#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr int one_hour_ms = 3600000;
constexpr char lines_name[] = "Tarn_Cluster_Trans_File";  // the routine that both commands share reports as itself

struct File_Command {
  const char *name;
  int (*send)(int mode, const char *id, const char *source, const char *destination, const char *progress,
              char **reply);
  const char *op_code;
};

void PrintTo(const File_Command &command, std::ostream *out) {
  *out << command.name;
}

class File_Commands : public testing::TestWithParam<File_Command> {
 protected:
  ~File_Commands() override { free(reply_); }

  int send(int mode, const char *progress = nullptr) {
    return GetParam().send(mode, "QN12ab34", "/share/from.bin", "/share/to.bin", progress, &reply_);
  }

  std::string op_code() const { return GetParam().op_code; }

  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Both, File_Commands,
                         testing::Values(File_Command{"Tarn_Cluster_Send_File", Tarn_Cluster_Send_File, "5"},
                                         File_Command{"Tarn_Cluster_Recv_File", Tarn_Cluster_Recv_File, "6"}),
                         [](const auto &instance) { return std::string(instance.param.name); });

TEST_P(File_Commands, Mode_0_Speaks_As_The_Master_To_The_Slave_Of_The_Id) {
  EXPECT_EQ(send(0), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Cmd_Ex");
  EXPECT_EQ(calls[0].timeout_ms, one_hour_ms);
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", op_code()), Pair("slave_id", "\"QN12ab34\"")));
}

TEST_P(File_Commands, Mode_1_Speaks_As_A_Slave_To_The_Master_Of_The_Id) {
  EXPECT_EQ(send(1), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd_Ex");
  EXPECT_EQ(calls[0].timeout_ms, one_hour_ms);
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", op_code()), Pair("master_id", "\"QN12ab34\"")));
}

TEST_P(File_Commands, Mode_2_Speaks_As_A_Slave_And_Names_The_Slave) {
  EXPECT_EQ(send(2), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd_Ex");
  EXPECT_EQ(calls[0].timeout_ms, one_hour_ms);
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", op_code()), Pair("slave_id", "\"QN12ab34\"")));
}

TEST_P(File_Commands, The_Argument_Holds_Source_And_Destination_And_No_Progress_When_There_Is_None) {
  EXPECT_EQ(send(0), 0);
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_THAT(json_members(platform_.calls()[0].argument),
              ElementsAre(Pair("src_path", "\"/share/from.bin\""), Pair("dst_path", "\"/share/to.bin\"")));
}

TEST_P(File_Commands, The_Argument_Holds_The_Progress_Text_When_One_Is_Given) {
  for (const int mode : {0, 1, 2}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(send(mode, "/tmp/progress"), 0);
    EXPECT_THAT(json_members(platform_.calls().back().argument),
                ElementsAre(Pair("src_path", "\"/share/from.bin\""), Pair("dst_path", "\"/share/to.bin\""),
                            Pair("progress", "\"/tmp/progress\"")));
  }
}

TEST_P(File_Commands, An_Empty_Progress_Text_Is_Given_On) {
  EXPECT_EQ(send(0, ""), 0);
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_THAT(json_members(platform_.calls()[0].argument), testing::Contains(Pair("progress", "\"\"")));
}

TEST_P(File_Commands, The_Texts_Are_Serialised_With_Blanks_And_Escaped_Slashes) {
  EXPECT_EQ(send(0), 0);
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_EQ(platform_.calls()[0].command, "{ \"op_code\": " + op_code() + ", \"slave_id\": \"QN12ab34\" }");
  EXPECT_EQ(platform_.calls()[0].argument, R"({ "src_path": "\/share\/from.bin", "dst_path": "\/share\/to.bin" })");
}

TEST_P(File_Commands, Quotes_Backslashes_Newlines_And_Other_Alphabets_Survive_The_Way) {
  const std::string odd = "/share/a \"b\"\\c\nd\tä漢\x01";
  EXPECT_EQ(GetParam().send(0, odd.c_str(), odd.c_str(), odd.c_str(), odd.c_str(), &reply_), 0);
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_THAT(json_members(platform_.calls()[0].argument),
              ElementsAre(Pair("src_path", json_quoted(odd)), Pair("dst_path", json_quoted(odd)),
                          Pair("progress", json_quoted(odd))));
  EXPECT_THAT(json_members(platform_.calls()[0].command), testing::Contains(Pair("slave_id", json_quoted(odd))));
}

TEST_P(File_Commands, The_Platforms_Reply_Is_Handed_On) {
  platform_.answer(0, R"({"cluster_cmd_status": "0"})");
  EXPECT_EQ(send(1), 0);
  EXPECT_STREQ(reply_, R"({"cluster_cmd_status": "0"})");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(File_Commands, The_Reply_Is_Null_When_The_Platform_Sets_None) {
  char before[] = "left over";
  char *reply = before;
  EXPECT_EQ(GetParam().send(0, "a", "/b", "/c", nullptr, &reply), 0);
  EXPECT_EQ(reply, nullptr);

  reply = before;
  platform_.answer(-EHOSTUNREACH);
  EXPECT_EQ(GetParam().send(0, "a", "/b", "/c", nullptr, &reply), -EHOSTUNREACH);
  EXPECT_EQ(reply, nullptr);
}

TEST_P(File_Commands, The_Platforms_Code_Is_Logged_And_Returned_Unchanged) {
  for (const int code : {-EHOSTUNREACH, -ETIME, -1, 1, 200}) {
    for (const int mode : {0, 1, 2}) {
      SCOPED_TRACE(code);
      log_.clear();
      platform_.answer(code);
      EXPECT_EQ(send(mode), code);
      EXPECT_THAT(log_.lines(),
                  ElementsAre(error_line(lines_name, "Can't send cluster command! (" + std::to_string(code) + ")")));
    }
  }
}

TEST_P(File_Commands, Any_Other_Mode_Is_Refused_And_Nothing_Is_Sent) {
  for (const int mode : {3, -1, 100}) EXPECT_EQ(send(mode), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(File_Commands, A_Missing_Argument_Is_Refused_And_Nothing_Is_Sent) {
  const auto call = GetParam().send;
  for (const int mode : {0, 1, 2}) {
    EXPECT_EQ(call(mode, nullptr, "/a", "/b", "/p", &reply_), -EINVAL);
    EXPECT_EQ(call(mode, "id", nullptr, "/b", "/p", &reply_), -EINVAL);
    EXPECT_EQ(call(mode, "id", "/a", nullptr, "/p", &reply_), -EINVAL);
    EXPECT_EQ(call(mode, "id", "/a", "/b", "/p", nullptr), -EINVAL);
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(File_Commands, When_Memory_Ends_It_Is_Said_And_Nothing_Is_Sent) {
  int refused = 0;
  const int allocations = with_each_allocation_failing(
      [&] { return send(0, "/tmp/progress"); },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        // A text that outgrows its buffer is the one failure that the JSON library does not tell of.
        if (status == 0) {
          EXPECT_THAT(platform_.calls().back().command, Not(HasSubstr("null")));
          EXPECT_THAT(platform_.calls().back().argument, Not(HasSubstr("null")));
          return;
        }
        ++refused;
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_THAT(log_.lines(), ElementsAre(error_line(lines_name, "Can't create json object! (-12)")));
        log_.clear();
        EXPECT_EQ(reply_, nullptr);
      });
  EXPECT_GE(refused, 7);  // two objects and five members at the least
  EXPECT_THAT(platform_.calls(), SizeIs(allocations - refused + 1));
}

TEST_P(File_Commands, Nothing_Is_Logged_When_The_Gate_Is_Shut) {
  g_idLogLevel = 0;
  platform_.answer(-1);
  EXPECT_EQ(send(0), -1);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
