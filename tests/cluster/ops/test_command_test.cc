#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr char identity_file[] = "/mnt/tarncluster/config/tarn_cluster_s.conf";

class Test_Command : public testing::Test {
 protected:
  Test_Command() { write_file(identity_file, "[global]\nMSKey = QNself01\n"); }
  ~Test_Command() override {
    free(reply_);
    std::filesystem::remove(identity_file);
  }

  int send(int mode, const char *text = "hello") { return Tarn_Cluster_Test(mode, "QNpeer02", text, &reply_); }

  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

TEST_F(Test_Command, Mode_0_Speaks_As_The_Master_To_The_Slave_Of_The_Id) {
  EXPECT_EQ(send(0), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Cmd");
  EXPECT_THAT(
      json_members(calls[0].command),
      ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Test_Cb\""), Pair("slave_id", "\"QNpeer02\"")));
}

TEST_F(Test_Command, Mode_1_Speaks_As_A_Slave_To_The_Master_Of_The_Id) {
  EXPECT_EQ(send(1), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd");
  EXPECT_THAT(
      json_members(calls[0].command),
      ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Test_Cb\""), Pair("master_id", "\"QNpeer02\"")));
}

TEST_F(Test_Command, Mode_2_Speaks_As_A_Slave_And_Names_The_Slave) {
  EXPECT_EQ(send(2), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd");
  EXPECT_THAT(
      json_members(calls[0].command),
      ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Test_Cb\""), Pair("slave_id", "\"QNpeer02\"")));
}

TEST_F(Test_Command, The_Argument_Holds_The_Own_Id_And_The_Text) {
  for (const int mode : {0, 1, 2}) {
    EXPECT_EQ(send(mode), 0);
    EXPECT_THAT(json_members(platform_.calls().back().argument),
                ElementsAre(Pair("slave_id", "\"QNself01\""), Pair("Test", "\"hello\"")));
  }
}

TEST_F(Test_Command, An_Empty_Text_And_An_Odd_One_Are_Sent) {
  for (const std::string text : {"", "\"\\\n\t/ä漢"}) {
    EXPECT_EQ(send(0, text.c_str()), 0);
    EXPECT_THAT(json_members(platform_.calls().back().argument),
                ElementsAre(Pair("slave_id", "\"QNself01\""), Pair("Test", json_quoted(text))));
  }
}

TEST_F(Test_Command, The_Platforms_Reply_Is_Handed_On) {
  platform_.answer(0, R"({"return": 0, "received": "hello"})");
  EXPECT_EQ(send(1), 0);
  EXPECT_STREQ(reply_, R"({"return": 0, "received": "hello"})");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Test_Command, The_Reply_Is_Null_When_The_Platform_Sets_None) {
  char before[] = "left over";
  char *reply = before;
  EXPECT_EQ(Tarn_Cluster_Test(0, "a", "b", &reply), 0);
  EXPECT_EQ(reply, nullptr);
}

TEST_F(Test_Command, The_Platforms_Code_Is_Logged_And_Returned_Unchanged) {
  for (const int code : {-EHOSTUNREACH, -1, 1, 200}) {
    for (const int mode : {0, 1, 2}) {
      log_.clear();
      platform_.answer(code);
      EXPECT_EQ(send(mode), code);
      EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Test",
                                                       "Can't send cluster command! (" + std::to_string(code) + ")")));
    }
  }
}

TEST_F(Test_Command, Any_Other_Mode_Is_Refused_Without_Reading_The_Own_Id) {
  std::filesystem::remove(identity_file);
  for (const int mode : {3, -1, 100}) {
    EXPECT_EQ(send(mode), -EINVAL);
    EXPECT_EQ(Tarn_Cluster_Test(mode, nullptr, nullptr, nullptr), -EINVAL);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Test_Command, A_Missing_Argument_Is_Refused_And_Nothing_Is_Sent) {
  for (const int mode : {0, 1, 2}) {
    EXPECT_EQ(Tarn_Cluster_Test(mode, nullptr, "t", &reply_), -EINVAL);
    EXPECT_EQ(Tarn_Cluster_Test(mode, "id", nullptr, &reply_), -EINVAL);
    EXPECT_EQ(Tarn_Cluster_Test(mode, "id", "t", nullptr), -EINVAL);
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// What the identity file holds (none: there is none), and what sending then results in.
struct Identity_Case {
  const char *text;
  int status;
};

class Test_Command_Identity : public Test_Command, public testing::WithParamInterface<Identity_Case> {};

INSTANTIATE_TEST_SUITE_P(Bad, Test_Command_Identity,
                         testing::Values(Identity_Case{nullptr, -ENOENT}, Identity_Case{"", -ENOANO},
                                         Identity_Case{"MSKey = QN1\n", -ENOANO},
                                         Identity_Case{"[other]\nMSKey = QN1\n", -ENOANO},
                                         Identity_Case{"[global]\nKey = QN1\n", -ENODATA},
                                         Identity_Case{"[global]\nMSKey = ninechars\n", -EOVERFLOW}));

TEST_P(Test_Command_Identity, A_Failure_To_Read_The_Own_Id_Is_Said_And_Returned) {
  std::filesystem::remove(identity_file);
  if (GetParam().text != nullptr) write_file(identity_file, GetParam().text);
  EXPECT_EQ(send(0), GetParam().status);
  EXPECT_THAT(log_.lines(), testing::Contains(error_line("Tarn_Cluster_Test",
                                                         "Can't read the slave id from config file "
                                                         "/mnt/tarncluster/config/tarn_cluster_s.conf! (" +
                                                             std::to_string(GetParam().status) + ")")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Test_Command, When_Memory_Ends_It_Is_Said_And_Nothing_Is_Sent) {
  int refused = 0, read_failures = 0;
  const int allocations = with_each_allocation_failing(
      [&] { return send(1); },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        if (status == 0) {  // a text that outgrows its buffer: the JSON library does not tell
          EXPECT_THAT(platform_.calls().back().command, Not(HasSubstr("null")));
          EXPECT_THAT(platform_.calls().back().argument, Not(HasSubstr("null")));
          return;
        }
        ++refused;
        EXPECT_EQ(status, -ENOMEM);
        const auto lines = log_.lines();
        log_.clear();
        ASSERT_THAT(lines, Not(IsEmpty()));
        if (lines.back() == error_line("Tarn_Cluster_Test",
                                       "Can't read the slave id from config file "
                                       "/mnt/tarncluster/config/tarn_cluster_s.conf! (-12)")) {
          ++read_failures;
        } else {
          EXPECT_EQ(lines.back(), error_line("Tarn_Cluster_Test", "Can't create json object! (-12)"));
        }
      });
  EXPECT_GE(read_failures, 1);
  EXPECT_GE(refused - read_failures, 7);  // two objects and five members at the least
  EXPECT_THAT(platform_.calls(), SizeIs(allocations - refused + 1));
}

// ---------------------------------------------------------------------------------------------------------- handler

struct Freed {
  void operator()(char *text) const { free(text); }
};
using Owned_Text = std::unique_ptr<char, Freed>;

class Test_Handler : public testing::Test {
 protected:
  static Owned_Text handle(const std::string &argument) { return Owned_Text(Tarn_Cluster_Test_Cb(argument.c_str())); }

  Platform_Doubles platform_;
  Log_Capture log_;
};

TEST_F(Test_Handler, The_Text_Is_Echoed_Behind_A_Return_Of_0) {
  const Owned_Text reply = handle(R"({ "slave_id": "QN1", "Test": "hello" })");
  EXPECT_STREQ(reply.get(), R"({ "return": 0, "received": "hello" })");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Test_Handler, The_Reply_Is_A_Heap_Block_Of_Just_Its_Size) {
  const Owned_Text reply = handle(R"({"Test": "a text of some length, so that the blocks differ"})");
  ASSERT_NE(reply, nullptr);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(malloc_usable_size(reply.get()), strlen(reply.get()) + 1);
#else
  EXPECT_LE(malloc_usable_size(reply.get()), strlen(reply.get()) + 1 + 24);  // the allocator's rounding
#endif
}

TEST_F(Test_Handler, An_Empty_Text_Is_Echoed) {
  EXPECT_STREQ(handle(R"({"Test": ""})").get(), R"({ "return": 0, "received": "" })");
}

TEST_F(Test_Handler, Quotes_Newlines_Slashes_And_Other_Alphabets_Are_Echoed) {
  const std::string odd = "a\"b\\c\nd/ä漢\x01";
  const Owned_Text reply = handle("{\"Test\": " + json_quoted(odd) + "}");
  ASSERT_NE(reply, nullptr);
  EXPECT_THAT(json_members(reply.get()), ElementsAre(Pair("return", "0"), Pair("received", json_quoted(odd))));
}

TEST_F(Test_Handler, A_Text_Of_A_Mebibyte_Is_Echoed_Whole) {
  const std::string large(1 << 20, 'x');
  const Owned_Text reply = handle("{\"Test\": \"" + large + "\"}");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply.get(), "{ \"return\": 0, \"received\": \"" + large + "\" }");
}

TEST_F(Test_Handler, Other_Keys_Do_Not_Matter) {
  const Owned_Text reply =
      handle("{\"a\": [1, {\"Test\": \"no\"}], \"Test\": \"yes\", \"b\": null, \"c\": " + json_nested(20) + "}");
  EXPECT_STREQ(reply.get(), R"({ "return": 0, "received": "yes" })");
}

// Callers may send a number or an object; it comes back as its text.
TEST_F(Test_Handler, A_Value_That_Is_No_String_Is_Echoed_As_Its_Text) {
  struct Case {
    const char *argument, *received;
  };
  for (const Case &c : {Case{R"({"Test": 5})", "5"},
                        {R"({"Test": true})", "true"},
                        {R"({"Test": {"a": 1}})", R"({ "a": 1 })"},
                        {R"({"Test": [1, 2]})", "[ 1, 2 ]"}}) {
    const Owned_Text reply = handle(c.argument);
    ASSERT_NE(reply, nullptr) << c.argument;
    EXPECT_THAT(json_members(reply.get()), ElementsAre(Pair("return", "0"), Pair("received", json_quoted(c.received))));
  }
}

TEST_F(Test_Handler, An_Argument_That_Is_No_JSON_Has_No_Reply) {
  const std::string texts[] = {"",
                               "nonsense",
                               "{",
                               "{\"Test\": \"hel",
                               "{\"Test\"}",
                               "null",
                               "{Test: hello}",
                               json_nested(1000),
                               "{\"Test\": " + json_nested(40) + "}",
                               std::string(1 << 20, '[')};
  for (const std::string &text : texts) {
    SCOPED_TRACE(text.substr(0, 50));
    log_.clear();
    EXPECT_EQ(handle(text), nullptr);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Test_Cb", "Can't parse argument! (-22)")));
  }
}

TEST_F(Test_Handler, A_Missing_Argument_Has_No_Reply) {
  EXPECT_EQ(Tarn_Cluster_Test_Cb(nullptr), nullptr);
}

TEST_F(Test_Handler, An_Argument_Without_The_Text_Has_No_Reply) {
  for (const char *text : {"{}", R"({"slave_id": "QN1"})", R"({"test": "hello"})", R"({"Test": null})", "[1]", "[]",
                           "5", "\"x\"", "true", R"([{"Test": "hello"}])"}) {
    SCOPED_TRACE(text);
    log_.clear();
    EXPECT_EQ(handle(text), nullptr);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Test_Cb", "Can't get test string! (-22)")));
  }
}

TEST_F(Test_Handler, A_Text_With_A_NUL_Inside_Is_Survived) {
  const Owned_Text reply = handle(R"({"Test": "ab\u0000cd"})");
  ASSERT_NE(reply, nullptr);
  EXPECT_THAT(json_members(reply.get()),
              ElementsAre(Pair("return", "0"), Pair("received", testing::StartsWith("\"ab"))));
}

TEST_F(Test_Handler, When_Memory_Ends_There_Is_No_Reply) {
  const std::string argument = R"({"Test": "hello"})";
  int not_parsed = 0, without_object = 0, without_room = 0;
  with_each_parse_allocation_failing(
      argument, [&] { return handle(argument); },
      [&](const Owned_Text &reply, Parsed parsed, int nth) {
        SCOPED_TRACE(nth);
        std::vector<Log_Line> errors;
        for (const Log_Line &line : log_.lines()) {
          if (line.level == "error") errors.push_back(line);
        }
        log_.clear();
        // A text that outgrows its buffer is a failure that the JSON library does not tell of.
        if (reply != nullptr) {
          EXPECT_THAT(reply.get(), Not(HasSubstr("null")));
        }
        if (parsed == Parsed::broken || reply != nullptr) return;
        ASSERT_THAT(errors, SizeIs(1));
        EXPECT_EQ(errors[0].function, "Tarn_Cluster_Test_Cb");
        if (parsed == Parsed::none) {
          ++not_parsed;
          EXPECT_EQ(errors[0].text, "Can't parse argument! (-22)");
        } else {
          EXPECT_THAT(errors[0].text,
                      AnyOf("Can't create json object! (-12)", "Can't create memory for return string! (-12)"));
          without_object += errors[0].text == "Can't create json object! (-12)";
          without_room += errors[0].text == "Can't create memory for return string! (-12)";
        }
      });
  EXPECT_GE(not_parsed, 3);
  EXPECT_GE(without_object, 3);  // the object, its first value and a key at the least
  EXPECT_EQ(without_room, 1);
}

}  // namespace
}  // namespace tarn::test
