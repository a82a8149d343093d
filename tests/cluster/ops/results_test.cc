#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string mebibyte(1 << 20, 'x');

// ----------------------------------------------------------------------------------------------------- command status

class Command_Status : public testing::Test {
 protected:
  int parse(const std::string &reply) { return Parse_Cluster_Cmd_Status(reply.c_str(), &status_); }

  Log_Capture log_;
  int status_ = 4711;
};

TEST_F(Command_Status, A_Decimal_Number_In_A_String_Is_The_Status) {
  struct Case {
    const char *value;
    int status;
  };
  // The text is read as strtol reads it in base 10: what is no number is 0.
  for (const Case &c : {Case{"0", 0},
                        {"5", 5},
                        {"-62", -62},
                        {"007", 7},
                        {"2147483647", 2147483647},
                        {"-2147483648", -2147483647 - 1},
                        {"12x", 12},
                        {" 3", 3},
                        {"0x10", 0},
                        {"", 0},
                        {"abc", 0}}) {
    SCOPED_TRACE(c.value);
    status_ = 4711;
    EXPECT_EQ(parse("{\"cluster_cmd_status\": \"" + std::string(c.value) + "\"}"), 0);
    EXPECT_EQ(status_, c.status);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Command_Status, Other_Members_And_Text_Behind_The_Object_Do_Not_Matter) {
  EXPECT_EQ(parse("{\"a\": [null, {\"cluster_cmd_status\": \"1\"}], \"b\": " + json_nested(20) + ", \"c\": \"" +
                  mebibyte + "\", \"cluster_cmd_status\": \"-5\"} and so on"),
            0);
  EXPECT_EQ(status_, -5);
}

TEST_F(Command_Status, A_Missing_Argument_Is_Refused) {
  EXPECT_EQ(Parse_Cluster_Cmd_Status(nullptr, &status_), -EINVAL);
  EXPECT_EQ(Parse_Cluster_Cmd_Status("{\"cluster_cmd_status\": \"0\"}", nullptr), -EINVAL);
  EXPECT_EQ(status_, 4711);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Command_Status, A_Reply_That_Is_No_JSON_Is_Said_And_Refused) {
  const std::string replies[] = {"",
                                 "nonsense",
                                 "{",
                                 "{\"cluster_cmd_status\": \"0\"",
                                 "{\"cluster_cmd_status\"}",
                                 "null",
                                 "{\"a\": " + json_nested(40) + ", \"cluster_cmd_status\": \"0\"}",
                                 json_nested(100000),
                                 std::string(1 << 20, '['),
                                 mebibyte};
  for (const std::string &reply : replies) {
    SCOPED_TRACE(reply.substr(0, 50));
    log_.clear();
    EXPECT_EQ(parse(reply), -ENOMEM);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Parse_Cluster_Cmd_Status", "Can't create json object! (-12)")));
  }
  EXPECT_EQ(status_, 4711);
}

TEST_F(Command_Status, A_Reply_Without_The_Status_Is_Said_And_Refused) {
  for (const char *reply :
       {"{}", "{\"return\": 0}", "{\"Cluster_Cmd_Status\": \"0\"}", "{\"cluster_cmd_status\": null}",
        "{\"cluster_cmd_status\": {}}", "{\"cluster_cmd_status\": {\"cluster_cmd_status\": \"0\"}}",
        "{\"cluster_cmd_status\": [\"0\"]}", "{\"cluster_cmd_status\": 0}", "{\"cluster_cmd_status\": true}", "[1]",
        "[]", "[{\"cluster_cmd_status\": \"0\"}]", "5", "5.5", "\"x\"", "true"}) {
    SCOPED_TRACE(reply);
    log_.clear();
    EXPECT_EQ(parse(reply), -EINVAL);
    EXPECT_THAT(log_.lines(),
                ElementsAre(error_line("Parse_Cluster_Cmd_Status", "Can't get cluster command status! (-22)")));
  }
  EXPECT_EQ(status_, 4711);
}

TEST_F(Command_Status, When_Memory_Ends_It_Is_Refused) {
  const std::string reply = "{\"cluster_cmd_status\": \"7\"}";
  int refused = 0;
  with_each_parse_allocation_failing(
      reply,
      [&] {
        status_ = 4711;
        return parse(reply);
      },
      [&](int result, Parsed parsed, int nth) {
        SCOPED_TRACE(nth);
        if (parsed == Parsed::none) {
          ++refused;
          EXPECT_EQ(result, -ENOMEM);
          EXPECT_EQ(status_, 4711);
          EXPECT_THAT(log_.lines(),
                      ElementsAre(error_line("Parse_Cluster_Cmd_Status", "Can't create json object! (-12)")));
        } else if (parsed == Parsed::whole) {
          EXPECT_EQ(result, 0);
          EXPECT_EQ(status_, 7);
        }
        log_.clear();
      });
  EXPECT_GE(refused, 3);
  EXPECT_EQ(status_, 7);
}

// -------------------------------------------------------------------------------------------------------- result path

class Result_Path : public testing::Test {
 protected:
  ~Result_Path() override { forget(); }

  int parse(const std::string &reply, int mode = 0, const char *id = "A") {
    return Parse_Result_Path(reply.c_str(), mode, id, &path_);
  }

  void forget() {
    free(path_);
    path_ = nullptr;
  }

  Log_Capture log_;
  char *path_ = nullptr;
};

Log_Line path_error(const std::string &text) {
  return error_line("Parse_Result_Path", text);
}
Log_Line path_debug(const std::string &text) {
  return debug_line("Parse_Result_Path", text);
}

TEST_F(Result_Path, Mode_0_Finds_The_Member_By_Its_Slave_Id) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "B", "result_path": "/b"}, {"slave_id": "A", "result_path": "/a"}]})"), 0);
  EXPECT_STREQ(path_, "/a");
}

TEST_F(Result_Path, Any_Other_Mode_Finds_The_Member_By_Its_Master_Id) {
  for (const int mode : {1, 2, 7, -1}) {
    SCOPED_TRACE(mode);
    forget();
    EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "master_id": "B", "result_path": "/b"},
                              {"slave_id": "B", "master_id": "A", "result_path": "/a"}]})",
                    mode),
              0);
    EXPECT_STREQ(path_, "/a");
  }
}

TEST_F(Result_Path, Ids_Are_Compared_Exactly) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "a", "result_path": "/1"}, {"slave_id": "AB", "result_path": "/2"},
                            {"slave_id": "", "result_path": "/3"}, {"slave_id": " A", "result_path": "/4"}]})"),
            0);
  EXPECT_EQ(path_, nullptr);
}

TEST_F(Result_Path, The_Array_And_Its_Elements_Are_Told_At_Debug_Level) {
  EXPECT_EQ(parse(R"({"none": 1, "r": [{"slave_id": "A", "result_path": "\/a"},{"slave_id":"B"}], "s": []})"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(path_debug("Array Length: 2"),
                                        path_debug(R"(value[0]: { "slave_id": "A", "result_path": "\/a" })"),
                                        path_debug(R"(value[1]: { "slave_id": "B" })"), path_debug("Array Length: 0")));
}

TEST_F(Result_Path, The_Last_Match_Wins_Within_An_Array) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "result_path": "/first"}, {"slave_id": "A", "result_path": "/second"},
                            {"slave_id": "B", "result_path": "/third"}]})"),
            0);
  EXPECT_STREQ(path_, "/second");
}

TEST_F(Result_Path, The_Last_Match_Wins_Among_Arrays) {
  EXPECT_EQ(parse(R"({"a": [{"slave_id": "A", "result_path": "/first"}], "b": "A", "c": [],
                      "d": [{"slave_id": "A", "result_path": "/second"}]})"),
            0);
  EXPECT_STREQ(path_, "/second");
}

TEST_F(Result_Path, Every_Backslash_Is_Dropped) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "result_path": "\\/tmp\\/x\\\\y\\.result\\"}]})"), 0);
  EXPECT_STREQ(path_, "/tmp/xy.result");
}

TEST_F(Result_Path, A_Path_Of_Backslashes_Only_Comes_Back_Empty) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "result_path": "\\\\\\"}]})"), 0);
  EXPECT_STREQ(path_, "");
}

TEST_F(Result_Path, Nothing_Found_Is_A_Success_That_Leaves_The_Path_Alone) {
  char before[] = "before";
  for (const char *reply : {"{}", R"({"r": []})", R"({"r": [{"slave_id": "B", "result_path": "/b"}]})",
                            R"({"r": {"slave_id": "A", "result_path": "/b"}})",
                            R"({"slave_id": "A", "result_path": "/b", "x": null, "y": 1, "z": "A"})"}) {
    SCOPED_TRACE(reply);
    char *path = before;
    EXPECT_EQ(Parse_Result_Path(reply, 0, "A", &path), 0);
    EXPECT_EQ(path, before);
  }
}

TEST_F(Result_Path, A_Missing_Argument_Is_Refused) {
  const char *reply = R"({"r": [{"slave_id": "A", "result_path": "/a"}]})";
  EXPECT_EQ(Parse_Result_Path(nullptr, 0, "A", &path_), -EINVAL);
  EXPECT_EQ(Parse_Result_Path(reply, 0, nullptr, &path_), -EINVAL);
  EXPECT_EQ(Parse_Result_Path(reply, 0, "A", nullptr), -EINVAL);
  EXPECT_EQ(path_, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Result_Path, A_Reply_That_Is_No_JSON_Is_Said_And_Refused) {
  const std::string replies[] = {"",
                                 "nonsense",
                                 "{",
                                 "null",
                                 R"({"r": [{"slave_id": "A", "result_path": "/a"})",
                                 "{\"r\": " + json_nested(40) + "}",
                                 json_nested(100000),
                                 mebibyte};
  for (const std::string &reply : replies) {
    SCOPED_TRACE(reply.substr(0, 50));
    log_.clear();
    EXPECT_EQ(parse(reply), -ENOMEM);
    EXPECT_THAT(log_.lines(), ElementsAre(path_error("Can't create json object! (-12)")));
    EXPECT_EQ(path_, nullptr);
  }
}

TEST_F(Result_Path, JSON_That_Is_No_Object_Holds_No_Path) {
  for (const char *reply : {"[1]", "[]", R"([{"slave_id": "A", "result_path": "/a"}])", "5", "5.5", "\"x\"", "true"}) {
    SCOPED_TRACE(reply);
    parse(reply);
    EXPECT_EQ(path_, nullptr);
  }
}

TEST_F(Result_Path, An_Element_Without_The_Id_Ends_The_Search) {
  for (const char *element :
       {"{}", R"({"master_id": "A", "result_path": "/a"})", R"({"slave_id": null, "result_path": "/a"})",
        R"({"slave_id": {"slave_id": "A"}, "result_path": "/a"})", R"({"slave_id": ["A"], "result_path": "/a"})",
        R"({"slave_id": 5, "result_path": "/a"})", "null", "5", "\"A\"", "true", "[]",
        R"([{"slave_id": "A", "result_path": "/a"}])"}) {
    SCOPED_TRACE(element);
    log_.clear();
    EXPECT_EQ(parse("{\"r\": [" + std::string(element) + R"(, {"slave_id": "A", "result_path": "/a"}]})"), -ENOENT);
    EXPECT_THAT(log_.lines(), Contains(path_error("Can't get cluster id! (-2)")).Times(1));
    EXPECT_EQ(path_, nullptr);
  }
}

TEST_F(Result_Path, A_Null_Element_Is_Told_As_Null) {
  EXPECT_EQ(parse(R"({"r": [null]})"), -ENOENT);
  EXPECT_THAT(log_.lines(), ElementsAre(path_debug("Array Length: 1"), path_debug("value[0]: null"),
                                        path_error("Can't get cluster id! (-2)")));
}

TEST_F(Result_Path, A_Match_Without_The_Path_Ends_The_Search) {
  for (const char *element :
       {R"({"slave_id": "A"})", R"({"slave_id": "A", "result_path": null})",
        R"({"slave_id": "A", "result_path": {"result_path": "/a"}})", R"({"slave_id": "A", "result_path": ["/a"]})",
        R"({"slave_id": "A", "result_path": 5})"}) {
    SCOPED_TRACE(element);
    log_.clear();
    EXPECT_EQ(parse("{\"r\": [" + std::string(element) + R"(, {"slave_id": "A", "result_path": "/a"}]})"), -ENOENT);
    EXPECT_THAT(log_.lines(), Contains(path_error("Can't get result! (-2)")).Times(1));
    EXPECT_EQ(path_, nullptr);
  }
}

TEST_F(Result_Path, Another_Member_Without_A_Path_Does_Not_Matter) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "B"}, {"slave_id": "A", "result_path": "/a"}]})"), 0);
  EXPECT_STREQ(path_, "/a");
}

TEST_F(Result_Path, A_Failure_Keeps_The_Path_Of_An_Earlier_Match) {
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "result_path": "/a"}, {}]})"), -ENOENT);
  EXPECT_STREQ(path_, "/a");
  forget();
  EXPECT_EQ(parse(R"({"r": [{"slave_id": "A", "result_path": "/a"}, {"slave_id": "A"}]})"), -ENOENT);
  EXPECT_STREQ(path_, "/a");
}

TEST_F(Result_Path, Texts_Of_A_Mebibyte_Are_Survived) {
  EXPECT_EQ(parse("{\"r\": [{\"slave_id\": \"" + mebibyte + "\", \"result_path\": \"/b\"}, {\"slave_id\": \"A\", " +
                  "\"result_path\": \"" + mebibyte + "\"}]}"),
            0);
  ASSERT_NE(path_, nullptr);
  EXPECT_EQ(path_, mebibyte);
}

TEST_F(Result_Path, When_Memory_Ends_It_Is_Refused) {
  const std::string reply =
      R"({"r": [{"slave_id": "A", "result_path": "/1"}, {"slave_id": "A", "result_path": "/2"}]})";
  int refused = 0, without_copy = 0;
  with_each_parse_allocation_failing(
      reply, [&] { return parse(reply); },
      [&](int result, Parsed parsed, int nth) {
        SCOPED_TRACE(nth);
        std::vector<std::string> errors;
        for (const Log_Line &line : log_.lines()) {
          if (line.level == "error") errors.push_back(line.text);
        }
        log_.clear();
        if (parsed == Parsed::none) {
          ++refused;
          EXPECT_EQ(result, -ENOMEM);
          EXPECT_THAT(errors, ElementsAre("Can't create json object! (-12)"));
          EXPECT_EQ(path_, nullptr);
        } else if (parsed == Parsed::whole && result == 0) {  // no more than a debug line had no memory
          EXPECT_THAT(errors, IsEmpty());
          EXPECT_STREQ(path_, "/2");
        } else if (parsed == Parsed::whole) {
          ++without_copy;
          EXPECT_EQ(result, -ENOMEM);
          EXPECT_THAT(errors, ElementsAre("Can't allocate memory for remove escape function!"));
        }
        forget();
      });
  EXPECT_GE(refused, 3);
  EXPECT_EQ(without_copy, 2);
  EXPECT_STREQ(path_, "/2");
}

// ------------------------------------------------------------------------------------------------------------ waiting

class Polling : public testing::Test {
 protected:
  Polling() : descriptors_(open_descriptors()) {}

  ~Polling() override {
    EXPECT_EQ(open_descriptors(), descriptors_);
    Set_Abort(&g_bAbort);
    g_bAbort = 0;
  }

  // Runs the step on another thread while the test waits.
  template <typename Step>
  [[nodiscard]] std::jthread meanwhile(Step step) {
    return std::jthread([step] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      step();
    });
  }

  Temporary_Folder folder_;
  Log_Capture log_;
  int descriptors_;
};

TEST_F(Polling, A_Path_That_Exists_Is_Not_Waited_For) {
  for (const int timeout_s : {-1, 0, 1, 60}) EXPECT_EQ(Polling_Result(folder_.path().c_str(), timeout_s), 0);
}

TEST_F(Polling, The_Longest_Time_Out_Does_Not_Overflow) {
  for (const int timeout_s : {2147483, 2147484, 2147483647}) {
    EXPECT_EQ(Polling_Result(folder_.path().c_str(), timeout_s), 0);
  }
}

TEST_F(Polling, A_Lookup_That_Fails_Otherwise_Ends_The_Wait_As_If_The_Path_Were_There) {
  write_file(folder_ / "plain", "x");
  ASSERT_EQ(symlink("loop", (folder_ / "loop").c_str()), 0);
  EXPECT_EQ(Polling_Result((folder_ / "plain/below").c_str(), 60), 0);          // ENOTDIR
  EXPECT_EQ(Polling_Result((folder_ / "loop").c_str(), -1), 0);                 // ELOOP
  EXPECT_EQ(Polling_Result((folder_ / std::string(300, 'n')).c_str(), -1), 0);  // ENAMETOOLONG
}

TEST_F(Polling, A_Missing_Path_Is_Refused) {
  int value = 4711;
  EXPECT_EQ(Polling_Result(nullptr, 1), -EINVAL);
  EXPECT_EQ(Polling_Int_Result(nullptr, &value), -EINVAL);
  EXPECT_EQ(Polling_Int_Result(folder_.path().c_str(), nullptr), -EINVAL);
  EXPECT_EQ(value, 4711);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Polling, A_Flag_That_Is_Set_On_Entry_Is_The_Result) {
  int flag = 7, value = 4711;
  Set_Abort(&flag);
  write_file(folder_ / "result", "1234");
  EXPECT_EQ(Polling_Result((folder_ / "missing").c_str(), 1), 7);
  EXPECT_EQ(Polling_Result((folder_ / "missing").c_str(), -1), 7);
  EXPECT_EQ(Polling_Result((folder_ / "result").c_str(), 1), 7);
  EXPECT_EQ(Polling_Int_Result((folder_ / "result").c_str(), &value), 7);
  EXPECT_EQ(value, 4711);
  flag = -3;
  EXPECT_EQ(Polling_Result((folder_ / "result").c_str(), 1), -3);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Polling, The_Librarys_Own_Flag_Stops_Waits_Too) {
  g_bAbort = 1;
  EXPECT_EQ(Polling_Result((folder_ / "missing").c_str(), -1), 1);
}

TEST_F(Polling, Without_A_Flag_Nothing_Is_Aborted) {
  Set_Abort(nullptr);
  EXPECT_EQ(Polling_Result(folder_.path().c_str(), 1), 0);
}

// The waits below take a second or two each, so they run side by side.
TEST_F(Polling, A_Path_That_Never_Appears_Ends_In_The_Time_Out_And_One_That_Appears_Does_Not) {
  ASSERT_EQ(symlink("nowhere", (folder_ / "dangling").c_str()), 0);
  int dangling = 0, appearing = 1, unlimited = 1, value = 0, value_result = 1;
  {
    const std::jthread a([&] { dangling = Polling_Result((folder_ / "dangling").c_str(), 1); });
    const std::jthread b([&] { appearing = Polling_Result((folder_ / "late").c_str(), 60); });
    const std::jthread c([&] { unlimited = Polling_Result((folder_ / "late").c_str(), 0); });
    const std::jthread d([&] { value_result = Polling_Int_Result((folder_ / "late").c_str(), &value); });
    EXPECT_EQ(Polling_Result((folder_ / "missing").c_str(), 1), -ETIME);
    write_file(folder_ / "late.new", "-987");
    ASSERT_EQ(rename((folder_ / "late.new").c_str(), (folder_ / "late").c_str()), 0);
  }
  EXPECT_EQ(dangling, -ETIME);
  EXPECT_EQ(appearing, 0);
  EXPECT_EQ(unlimited, 0);
  EXPECT_EQ(value_result, 0);
  EXPECT_EQ(value, -987);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Polling, A_Flag_That_Is_Set_During_The_Wait_Ends_It) {
  int flag = 0, limited = 0, value = 4711, value_result = 0;
  Set_Abort(&flag);
  const std::jthread owner = meanwhile([&flag] { __atomic_store_n(&flag, 9, __ATOMIC_SEQ_CST); });
  {
    const std::jthread a([&] { limited = Polling_Result((folder_ / "missing").c_str(), 60); });
    const std::jthread b([&] { value_result = Polling_Int_Result((folder_ / "missing").c_str(), &value); });
    EXPECT_EQ(Polling_Result((folder_ / "missing").c_str(), -1), -ENOENT);
  }
  EXPECT_EQ(limited, -ENOENT);
  EXPECT_EQ(value_result, -ENOENT);
  EXPECT_EQ(value, 4711);
}

TEST_F(Polling, The_Flag_May_Be_Taken_Away_During_The_Wait) {
  int flag = 0;
  Set_Abort(&flag);
  const std::jthread owner = meanwhile([this] {
    __atomic_store_n(&g_pbAbort, static_cast<int *>(nullptr), __ATOMIC_SEQ_CST);
    write_file(folder_ / "late", "");
  });
  EXPECT_EQ(Polling_Result((folder_ / "late").c_str(), -1), 0);
}

// --------------------------------------------------------------------------------------------------- number in a file

TEST_F(Polling, The_First_Four_Bytes_Of_A_Result_File_Are_The_Number) {
  struct Case {
    const char *text;
    int value;
  };
  for (const Case &c : {Case{"1234", 1234},
                        {"12345", 1234},
                        {"-123", -123},
                        {"-1234567", -123},
                        {"0000", 0},
                        {"0017", 17},
                        {"  42", 42},
                        {"12\n3", 12},
                        {"abcd", 0},
                        {"0x1f", 0}}) {
    SCOPED_TRACE(c.text);
    write_file(folder_ / "result", c.text);
    int value = 4711;
    EXPECT_EQ(Polling_Int_Result((folder_ / "result").c_str(), &value), 0);
    EXPECT_EQ(value, c.value);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// Callers depend on it: a short number, such as the 0 of a success, fails to be read.
TEST_F(Polling, A_Result_File_Of_Less_Than_Four_Bytes_Is_A_Failure) {
  const std::string path = folder_ / "result";
  for (const std::string text : {"12", "0", "-62", ""}) {
    SCOPED_TRACE(text);
    write_file(path, text);
    log_.clear();
    int value = 4711;
    errno = ENOSPC;  // what an earlier call left behind must not become the result
    EXPECT_EQ(Polling_Int_Result(path.c_str(), &value), -EIO);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Polling_Int_Result",
                                                     "Can't read result file " + path + "! (-5) (" + text + ")")));
    EXPECT_EQ(value, 4711);
  }
}

TEST_F(Polling, A_Result_That_Cannot_Be_Read_Is_Said_With_The_Errno) {
  int value = 4711;
  EXPECT_EQ(Polling_Int_Result(folder_.path().c_str(), &value), -EISDIR);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Polling_Int_Result", "Can't read result file " + folder_.path() + "! (-21) ()")));
  EXPECT_EQ(value, 4711);
}

TEST_F(Polling, A_Result_That_Cannot_Be_Opened_Is_Said_With_The_Errno) {
  write_file(folder_ / "plain", "x");
  const std::string path = folder_ / "plain/below";
  int value = 4711;
  EXPECT_EQ(Polling_Int_Result(path.c_str(), &value), -ENOTDIR);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Polling_Int_Result", "Can't open result file " + path + "! (-20)")));
  EXPECT_EQ(value, 4711);
}

TEST_F(Polling, When_Memory_Ends_The_Number_Is_Right_Or_Refused) {
  write_file(folder_ / "result", "1234");
  const std::string path = folder_ / "result";
  int value = 0;
  with_each_allocation_failing([&] { return Polling_Int_Result(path.c_str(), &value); },
                               [&](int status, int) { EXPECT_TRUE(status == -ENOMEM || value == 1234); });
  EXPECT_EQ(value, 1234);
}

}  // namespace
}  // namespace tarn::test
