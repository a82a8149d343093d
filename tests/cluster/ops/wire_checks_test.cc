#include "cluster/ops/wire_checks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>

#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Maybe = std::optional<std::string>;

Maybe maybe(const char *text) {
  return text != nullptr ? Maybe(text) : Maybe();
}

TEST(Member_Id, One_To_Eight_Printable_Characters_Are_An_Id) {
  for (const char *id : {"0", "QN12ab34", "a", "...", ".a", "a.", "-_=#;~", "!", "\"'$`"}) {
    EXPECT_TRUE(is_member_id(id)) << id;
  }
}

TEST(Member_Id, What_Leaves_A_Folder_A_Section_Or_A_Line_Is_No_Id) {
  for (const char *text : {"", ".", "..", "/", "../x", "a/b", "a]b", "[a", "a b", " a", "a ", "a\nb", "a\tb", "a\x7f",
                           "\x01", "\xc3\xa4", "ninechars"}) {
    EXPECT_FALSE(is_member_id(text)) << text;
  }
}

class Wire_Checks : public testing::Test {
 protected:
  static Json object(const std::string &text) { return parse_json(text.c_str()); }

  Log_Capture log_;
};

TEST_F(Wire_Checks, An_Id_Is_Found_Only_As_A_String_That_Is_One) {
  EXPECT_EQ(maybe(find_member_id(object(R"({"id": "QN1"})").get(), "id")), "QN1");
  for (const char *text :
       {R"({})", R"({"id": null})", R"({"id": 1})", R"({"id": true})", R"({"id": ["QN1"]})", R"({"id": {"id": "QN1"}})",
        R"({"id": ""})", R"({"id": "../x"})", R"({"id": "QN\u00001"})", R"([{"id": "QN1"}])", R"("id")"}) {
    EXPECT_EQ(maybe(find_member_id(object(text).get(), "id")), Maybe()) << text;
  }
}

TEST_F(Wire_Checks, A_Line_Is_Any_String_Without_Newline_And_NUL) {
  for (const char *line : {"", " a b ", "a]b", "../x", "a = b", "#x", "\xc3\xa4", "\t\r"}) {
    const Json made(json_object_new_object());
    json_object_object_add(made.get(), "line", json_object_new_string(line));
    EXPECT_EQ(maybe(find_line(made.get(), "line")), line);
  }
  for (const char *text : {R"({"line": "a\nb"})", R"({"line": "\n"})", R"({"line": "a\u0000b"})", R"({"line": 1})",
                           R"({"line": null})", R"({"line": []})", R"({})"}) {
    EXPECT_EQ(maybe(find_line(object(text).get(), "line")), Maybe()) << text;
  }
}

TEST_F(Wire_Checks, An_Address_Text_Is_Printable_And_Shorter_Than_Its_Field) {
  EXPECT_TRUE(is_address_text("10.77.0.2", 64));
  EXPECT_TRUE(is_address_text("fd00::1%eth0", 64));
  EXPECT_TRUE(is_address_text("", 64));
  EXPECT_TRUE(is_address_text("\xc3\xa4", 64));
  EXPECT_TRUE(is_address_text("123", 4));
  EXPECT_FALSE(is_address_text("1234", 4));
  for (const char *text : {"1\n", "\t1", "1\r", "\x01", "1\x1f", "1\x7f"}) EXPECT_FALSE(is_address_text(text, 64));
}

TEST_F(Wire_Checks, A_Missing_Subject_Is_Reported_Under_The_Functions_Name) {
  const Json named = object(R"({"slave_id": "QN1"})");
  EXPECT_EQ(maybe(find_subject_id("Some_Handler", named.get())), "QN1");
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(find_subject_id("Some_Handler", object(R"({"slave_id": "a/b"})").get()), nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Some_Handler", "Can't get slave id! (-22)")));
}

}  // namespace
}  // namespace tarn::test
