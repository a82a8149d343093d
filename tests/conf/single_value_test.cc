#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "include/tarncluster_util.h"
#include "tests/conf/chains.h"
#include "tests/conf/conf_file_fixture.h"
#include "tests/conf/number_cases.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/pinned_file.h"
#include "tests/support/small_disk.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::Field;
using testing::IsEmpty;

using namespace std::string_literals;

const char unreadable[] = "/sys/class/net/lo/speed";  // a regular file of 4096 bytes; read answers EINVAL

// A text, or none as a null pointer.
using Maybe = std::optional<std::string>;

const char *pointer(const Maybe &text) {
  return text ? text->c_str() : nullptr;
}

class Single_Value : public Conf_File_Test {
 protected:
  struct Answer {
    int status;
    std::string value;

    bool operator==(const Answer &) const = default;
    friend std::ostream &operator<<(std::ostream &out, const Answer &answer) {
      return out << answer.status << " \"" << answer.value << "\"";
    }
  };

  Answer get(const Maybe &section, const std::string &key) {
    std::string buffer(4096, '#');
    int size = static_cast<int>(buffer.size());
    const int status = Get_Conf_File_String_Value(file_, pointer(section), key.c_str(), buffer.data(), &size);
    if (status != 0) return {status, ""};
    EXPECT_EQ(buffer[static_cast<std::size_t>(size)], '\0');
    return {0, buffer.substr(0, static_cast<std::size_t>(size))};
  }

  int set(const Maybe &section, const std::string &key, const Maybe &value) {
    return Set_Conf_File_String_Value(file_, pointer(section), key.c_str(), pointer(value));
  }

  const std::string temporary_ = path_ + ".tmp";
};

// ------------------------------------------------------------------------------------------------------------ reading

struct Get_Case {
  const char *name;
  std::string text;
  Maybe section;
  std::string key;
  int status;
  std::string value;
};

std::ostream &operator<<(std::ostream &out, const Get_Case &get) {
  return out << get.name;
}

class Getting : public Single_Value, public testing::WithParamInterface<Get_Case> {};

TEST_P(Getting, Answers) {
  write_file(path_, GetParam().text);
  EXPECT_EQ(get(GetParam().section, GetParam().key), (Answer{GetParam().status, GetParam().value}));
  EXPECT_EQ(content(), GetParam().text);
}

const Maybe none;
constexpr int no_key = -ENODATA, no_section = -ENOANO;

INSTANTIATE_TEST_SUITE_P(
    Texts, Getting,
    testing::Values(Get_Case{"PlainKey", "[a]\nk = v\n", "a", "k", 0, "v"},
                    Get_Case{"NoBlanks", "[a]\nk=v\n", "a", "k", 0, "v"},
                    Get_Case{"BlanksAndTabs", "[a]\n \tk\t =\t v w \t\n", "a", "k", 0, "v w"},
                    Get_Case{"EmptyValue", "[a]\nk =\n", "a", "k", 0, ""},
                    Get_Case{"ValueOfBlanks", "[a]\nk = \t \n", "a", "k", 0, ""},
                    Get_Case{"ValueWithEqualsSigns", "[a]\nk = a = b=\n", "a", "k", 0, "a = b="},
                    Get_Case{"KeyWithBlanks", "[a]\nmy key = v\n", "a", "my key", 0, "v"},
                    Get_Case{"NoFinalNewline", "[a]\nk = v", "a", "k", 0, "v"},
                    Get_Case{"CarriageReturnStays", "[a]\r\nk = v\r\n", "a", "k", 0, "v\r"},
                    Get_Case{"QuotesStay", "[a]\nk = \"v\"\n", "a", "k", 0, "\"v\""},
                    Get_Case{"FirstOfRepeatedKeys", "[a]\nk = 1\nk = 2\n", "a", "k", 0, "1"},
                    Get_Case{"FirstOfRepeatedSections", "[a]\nx = 1\n[a]\nk = 2\n", "a", "k", no_key, ""},
                    Get_Case{"KeyBehindTheSection", "[a]\nx = 1\n[b]\nk = 2\n", "a", "k", no_key, ""},
                    Get_Case{"KeyBeforeTheSection", "k = 1\n[a]\n", "a", "k", no_key, ""},
                    Get_Case{"MissingSection", "[a]\nk = 1\n", "b", "k", no_section, ""},
                    Get_Case{"SectionNameIsCaseSensitive", "[A]\nk = 1\n", "a", "k", no_section, ""},
                    Get_Case{"SectionNameIsNotABeginning", "[ab]\nk = 1\n", "a", "k", no_section, ""},
                    Get_Case{"SectionNameIsNotTrimmed", "[ a ]\nk = 1\n", "a", "k", no_section, ""},
                    Get_Case{"SectionNameWithBlanks", "[ a ]\nk = 1\n", " a ", "k", 0, "1"},
                    Get_Case{"TextBehindTheSection", "[a] ; tail\nk = 1\n", "a", "k", 0, "1"},
                    Get_Case{"IndentedSectionLineIsNone", " [a]\nk = 1\n", "a", "k", no_section, ""},
                    Get_Case{"IndentedSectionLineEndsNoSection", "[a]\n [b]\nk = 1\n", "a", "k", 0, "1"},
                    Get_Case{"KeyIsCaseSensitive", "[a]\nK = 1\n", "a", "k", no_key, ""},
                    Get_Case{"KeyIsNotABeginning", "[a]\nkk = 1\n", "a", "k", no_key, ""},
                    Get_Case{"KeyIsNotLonger", "[a]\nk = 1\n", "a", "kk", no_key, ""},
                    Get_Case{"Comments", "[a]\n#k = 1\n;k = 2\n# k = 3\n", "a", "k", no_key, ""},
                    Get_Case{"IndentedCommentSignIsPartOfTheKey", "[a]\n #k = 1\n", "a", "#k", 0, "1"},
                    Get_Case{"IndentedBracketIsPartOfTheKey", "[a]\n [k] = 1\n", "a", "[k]", 0, "1"},
                    Get_Case{"LineWithoutEqualsSign", "[a]\nk\n= 5\nk = 1\n", "a", "k", 0, "1"},
                    Get_Case{"EqualsSignOfTheNextLineIsNotTaken", "[a]\nk\n= 5\n", "a", "k", no_key, ""},
                    Get_Case{"BadSectionLineEndsNoSection", "[a]\n[b\nk = 1\n", "a", "k", 0, "1"},
                    Get_Case{"BadSectionLineIsNoPair", "[a]\n[k = 1\n", "a", "[k", no_key, ""},
                    Get_Case{"BracketOfTheNextLineIsNotTaken", "[a]\n[b\nk] = 1\n", "a", "k]", 0, "1"},
                    Get_Case{"SectionNameOverTwoLinesIsNone", "[a\nb]\nk = 1\n", "a\nb", "k", no_section, ""},
                    Get_Case{"NamelessArea", "k = 0\n[a]\nk = 1\n", none, "k", 0, "0"},
                    Get_Case{"NamelessAreaByTheEmptyName", "k = 0\n[a]\nk = 1\n", "", "k", 0, "0"},
                    Get_Case{"NamelessAreaEndsAtTheFirstSection", "x = 0\n[a]\nk = 1\n", none, "k", no_key, ""},
                    Get_Case{"NamelessAreaGoesOnBehindABadSectionLine", "[a\nk = 1\n", none, "k", 0, "1"},
                    Get_Case{"NamelessAreaOfAFileWithoutSections", "x = 0\n\nk = 1\n", none, "k", 0, "1"},
                    // The line "[]" ends the nameless area, and no name finds what is behind it.
                    Get_Case{"EmptySectionLineEndsTheNamelessArea", "[]\nk = 1\n", none, "k", no_key, ""},
                    Get_Case{"EmptySectionLineIsNotFoundByTheEmptyName", "[]\nk = 1\n", "", "k", no_key, ""},
                    // The whole name counts here, though a parsed chain knows the section as "a".
                    Get_Case{"NameWithABracket", "[a]b]\nk = 1\n", "a]b", "k", 0, "1"},
                    Get_Case{"NameUpToTheBracket", "[a]b]\nk = 1\n", "a", "k", 0, "1"},
                    Get_Case{"EmptyFile", "", "a", "k", no_section, ""},
                    Get_Case{"EmptyFileNameless", "", none, "k", no_key, ""},
                    Get_Case{"SectionAtTheEnd", "x = 1\n[a]", "a", "k", no_key, ""},
                    Get_Case{"BehindANul", "[a]\nx = 1\0\ny\0z\n[b]\nk = 2\n"s, "b", "k", 0, "2"},
                    Get_Case{"BytesOutsideAscii", "[\xff]\n\xfe = \x80\n", "\xff", "\xfe", 0, "\x80"}),
    [](const auto &instance) { return std::string(instance.param.name); });

using Reading = Single_Value;

TEST_F(Reading, TheSizeDoesNotCountTheTerminator) {
  write_file(path_, "[a]\nk = value\n");
  char buffer[8] = "#######";
  int size = 6;
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &size), 0);
  EXPECT_EQ(size, 5);
  EXPECT_EQ(std::string(buffer, 8), "value\0#\0"s);
}

TEST_F(Reading, ASizeEqualToTheLengthIsTooSmall) {
  write_file(path_, "[a]\nk = value\n");
  for (const int given : {5, 4, 1}) {
    char buffer[8] = "#######";
    int size = given;
    EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &size), -EOVERFLOW);
    EXPECT_EQ(size, 5);
    EXPECT_STREQ(buffer, "#######");
  }
}

// Callers depend on the length without terminator, though it is one byte too few for another try.
TEST_F(Reading, AnotherTryWithTheReportedSizeFailsAgain) {
  write_file(path_, "[a]\nk = value\n");
  char buffer[8] = "#######";
  int size = 1;
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(size, 5);
}

TEST_F(Reading, AnEmptyValueFitsOneByte) {
  write_file(path_, "[a]\nk =\n");
  char buffer[2] = "#";
  int size = 1;
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &size), 0);
  EXPECT_EQ(size, 0);
  EXPECT_STREQ(buffer, "");
}

TEST_F(Reading, FailuresLeaveSizeAndBuffer) {
  write_file(path_, "[a]\nk = value\n");
  char buffer[8] = "#######";
  int size = 8;
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "b", "k", buffer, &size), -ENOANO);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "x", buffer, &size), -ENODATA);
  EXPECT_EQ(Get_Conf_File_String_Value((path_ + "x").c_str(), "a", "x", buffer, &size), -ENOENT);
  EXPECT_EQ(size, 8);
  EXPECT_STREQ(buffer, "#######");
}

TEST_F(Reading, RefusesBadParameters) {
  write_file(path_, "[a]\nk = value\n");
  char buffer[8];
  int size = 8, zero = 0, negative = -1, least = INT_MIN;
  EXPECT_EQ(Get_Conf_File_String_Value(nullptr, "a", "k", buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", nullptr, buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", nullptr, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &zero), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &negative), -EINVAL);
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer, &least), -EINVAL);
  EXPECT_EQ(zero, 0);
  EXPECT_EQ(negative, -1);
  EXPECT_THAT(log_.lines(),
              ElementsAreArray(std::vector<Log_Line>(7, debug_line("Get_Conf_File_String_Value", "Bad parameters!"))));
}

TEST_F(Reading, AFileThatCannotBeLoadedIsLogged) {
  EXPECT_EQ(get("a", "k"), (Answer{-ENOENT, ""}));
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Get_Conf_File_String_Value", "Can't cache file \"" + path_ + "\" error! (-2)")));
  log_.clear();
  ASSERT_EQ(mkdir(file_, 0700), 0);
  EXPECT_EQ(get("a", "k"), (Answer{-ENOMEDIUM, ""}));
  EXPECT_THAT(log_.lines(), ElementsAre(Field(&Log_Line::function, "Cache_Conf_File"),
                                        debug_line("Get_Conf_File_String_Value",
                                                   "Can't cache file \"" + path_ + "\" error! (-123)")));
}

TEST_F(Reading, AFailedReadIsANegativeStatus) {
  char buffer[8];
  int size = 8;
  int64_t number;
  EXPECT_EQ(Get_Conf_File_String_Value(unreadable, nullptr, "k", buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int64_Value(unreadable, nullptr, "k", &number), -EINVAL);
}

TEST_F(Reading, ABadSectionLineIsLogged) {
  write_file(path_, "[a]\n[b\nx = 1\n[c = 2\nk = v\n");
  EXPECT_EQ(get("a", "k"), (Answer{0, "v"}));
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Get_Conf_File_String_Value", "Bad section line: [b!"),
                                        debug_line("Get_Conf_File_String_Value", "Bad section line: [c = 2!")));
}

TEST_F(Reading, GoodFilesAndMissingKeysAreNotLogged) {
  write_file(path_, "# c\n\nno value\n[a]\nk = v\n");
  EXPECT_EQ(get("a", "k").status, 0);
  EXPECT_EQ(get("a", "x").status, -ENODATA);
  EXPECT_EQ(get("b", "x").status, -ENOANO);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Reading, TakesLinesOfAMebibyte) {
  const std::string value(1 << 20, 'v');
  write_file(path_, std::string(1 << 20, 'x') + "\n[a]\n" + value + "\nk = " + value + "\n");
  std::string buffer((1 << 20) + 1, '#');
  int size = static_cast<int>(buffer.size());
  EXPECT_EQ(Get_Conf_File_String_Value(file_, "a", "k", buffer.data(), &size), 0);
  EXPECT_EQ(size, 1 << 20);
  EXPECT_TRUE(std::string(buffer.c_str()) == value);
}

TEST_F(Reading, WithoutMemoryIsAStatus) {
  write_file(path_, "[a]\nk = v\n");
  char buffer[8];
  int size = 8;
  const int descriptors = open_descriptors();
  with_each_allocation_failing([&] { return Get_Conf_File_String_Value(file_, "a", "k", buffer, &(size = 8)); },
                               [](int status, int) { EXPECT_EQ(status, -ENOMEM); });
  EXPECT_STREQ(buffer, "v");
  EXPECT_EQ(open_descriptors(), descriptors);
}

// ------------------------------------------------------------------------------------------------------------ numbers

class Numbers : public Single_Value, public testing::WithParamInterface<Number_Case> {};

TEST_P(Numbers, AreStoredCutToTheWidthAndReportedWhenOutOfRange) {
  const Number_Case &number = GetParam();
  write_file(path_, "[a]\nk = "s + number.text + "\n");
  Number_Outputs stored;
  EXPECT_EQ(Get_Conf_File_Int64_Value(file_, "a", "k", &stored.wide), 0);
  EXPECT_EQ(Get_Conf_File_Int32_Value(file_, "a", "k", &stored.word), number.status32);
  EXPECT_EQ(Get_Conf_File_Int16_Value(file_, "a", "k", &stored.half), number.status16);
  EXPECT_EQ(Get_Conf_File_Int8_Value(file_, "a", "k", &stored.byte), number.status8);
  stored.expect(number);
}

INSTANTIATE_TEST_SUITE_P(Texts, Numbers, testing::ValuesIn(number_cases));

using Number_Reading = Single_Value;

TEST_F(Number_Reading, AValueOf32CharactersIsTooLong) {
  write_file(path_, "[a]\nk = " + std::string(31, '0') + "5\n");
  int64_t wide = 42;
  int32_t word = 42;
  int16_t half = 42;
  int8_t byte = 42;
  EXPECT_EQ(Get_Conf_File_Int64_Value(file_, "a", "k", &wide), -EOVERFLOW);
  EXPECT_EQ(Get_Conf_File_Int32_Value(file_, "a", "k", &word), -EOVERFLOW);
  EXPECT_EQ(Get_Conf_File_Int16_Value(file_, "a", "k", &half), -EOVERFLOW);
  EXPECT_EQ(Get_Conf_File_Int8_Value(file_, "a", "k", &byte), -EOVERFLOW);
}

TEST_F(Number_Reading, PassesOnFailuresAndLeavesTheOutput) {
  write_file(path_, "n = 7\n[a]\nk = 5\n");
  const struct {
    const char *section, *key;
    int status;
  } cases[] = {{"b", "k", -ENOANO}, {"a", "x", -ENODATA}, {nullptr, "k", -ENODATA}};
  int64_t wide = 42;
  int32_t word = 42;
  int16_t half = 42;
  int8_t byte = 42;
  for (const auto &[section, key, status] : cases) {
    EXPECT_EQ(Get_Conf_File_Int64_Value(file_, section, key, &wide), status);
    EXPECT_EQ(Get_Conf_File_Int32_Value(file_, section, key, &word), status);
    EXPECT_EQ(Get_Conf_File_Int16_Value(file_, section, key, &half), status);
    EXPECT_EQ(Get_Conf_File_Int8_Value(file_, section, key, &byte), status);
  }
  EXPECT_EQ(Get_Conf_File_Int64_Value((path_ + "x").c_str(), "a", "k", &wide), -ENOENT);
  EXPECT_EQ(wide, 42);
  EXPECT_EQ(word, 42);
  EXPECT_EQ(half, 42);
  EXPECT_EQ(byte, 42);
  EXPECT_EQ(Get_Conf_File_Int8_Value(file_, nullptr, "n", &byte), 0);
  EXPECT_EQ(byte, 7);
}

TEST_F(Number_Reading, RefusesAMissingArgument) {
  write_file(path_, "[a]\nk = 5\n");
  int64_t wide;
  int32_t word;
  int16_t half;
  int8_t byte;
  EXPECT_EQ(Get_Conf_File_Int64_Value(nullptr, "a", "k", &wide), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int64_Value(file_, "a", nullptr, &wide), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int64_Value(file_, "a", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int32_Value(nullptr, "a", "k", &word), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int32_Value(file_, "a", nullptr, &word), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int32_Value(file_, "a", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int16_Value(nullptr, "a", "k", &half), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int16_Value(file_, "a", nullptr, &half), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int16_Value(file_, "a", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int8_Value(nullptr, "a", "k", &byte), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int8_Value(file_, "a", nullptr, &byte), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Int8_Value(file_, "a", "k", nullptr), -EINVAL);
}

// ------------------------------------------------------------------------------------------------------------ writing

struct Set_Case {
  const char *name;
  Maybe before;  // none: the file is missing
  Maybe section;
  std::string key;
  Maybe value;
  std::string after;
};

std::ostream &operator<<(std::ostream &out, const Set_Case &set) {
  return out << set.name;
}

class Setting : public Single_Value, public testing::WithParamInterface<Set_Case> {
 protected:
  void expect_after(const Maybe &section) {
    restore(path_, GetParam().before);
    const ino_t inode = GetParam().before ? inode_of(path_) : 0;
    EXPECT_EQ(set(section, GetParam().key, GetParam().value), 0);
    EXPECT_EQ(content(), GetParam().after);
    EXPECT_NE(inode_of(path_), inode);
    EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
    EXPECT_FALSE(exists(owned_lock("x.conf")));
  }
};

TEST_P(Setting, GivesTheFile) {
  expect_after(GetParam().section);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Setting, TakesTheEmptySectionNameAsNone) {
  if (!GetParam().section) expect_after("");
}

INSTANTIATE_TEST_SUITE_P(
    Files, Setting,
    testing::Values(
        Set_Case{"MissingFile", none, "s", "k", "v", "[s]\nk = v\n"},
        Set_Case{"MissingFileNameless", none, none, "k", "v", "[]\nk = v\n"},
        Set_Case{"FoundKeyKeepsEverythingElse", "\n\n# c\n[a]\n  k\t=  1  \n\n[b]\nk = 2", "a", "k", "v",
                 "\n\n# c\n[a]\nk = v\n\n[b]\nk = 2\n"},
        Set_Case{"RemovesTheFirstOfRepeatedKeys", "[a]\nk = 1\nk = 2\n", "a", "k", none, "[a]\nk = 2\n"},
        Set_Case{"RemovesAndKeepsEmptyLinesAtTheTop", "\n\n[a]\n # x\n k = 1\n\n\n", "a", "k", none,
                 "\n\n[a]\n # x\n\n\n"},
        Set_Case{"RemovesTheOnlyLine", "k = 1\n", none, "k", none, ""},
        Set_Case{"FoundKeyAmongCarriageReturns", "[a]\r\nk = 1\r\nz = 2\r\n", "a", "k", "v", "[a]\r\nk = v\nz = 2\r\n"},
        Set_Case{"FoundKeyWithoutFinalNewline", "[a]\nk = 1", "a", "k", "v", "[a]\nk = v\n"},
        Set_Case{"FoundNamelessKey", "\nk = 1\n[a]\nk = 2\n", none, "k", "v", "\nk = v\n[a]\nk = 2\n"},
        Set_Case{"FoundKeyInTheFirstOfRepeatedSections", "[a]\nk = 1\n[a]\nk = 2\n", "a", "k", "v",
                 "[a]\nk = v\n[a]\nk = 2\n"},
        Set_Case{"FoundKeyOfASectionWithText", "[a] # tail\nk = 1\n", "a", "k", "v", "[a] # tail\nk = v\n"},
        Set_Case{"EmptyValue", "[a]\nk = 1\n", "a", "k", "", "[a]\nk = \n"},
        Set_Case{"CommentedKeyIsNotFound", "[a]\n#k = 1\n", "a", "k", "v", "[a]\n#k = 1\nk = v\n\n"},
        Set_Case{"NewKeyDropsEmptyLines", "\n\n[a]\nx = 1\n\n\n[b]\ny = 2\n\n\n", "a", "k", "v",
                 "[a]\nx = 1\nk = v\n\n[b]\ny = 2\n\n\n"},
        Set_Case{"NewKeyInAnEmptySection", "[a]\n[b]\ny = 2\n", "a", "k", "v", "[a]\nk = v\n\n[b]\ny = 2\n"},
        Set_Case{"NewKeyInAnEmptySectionBehindEmptyLines", "\n\n[a]\n\n\n[b]\n", "a", "k", "v", "[a]\nk = v\n\n[b]\n"},
        Set_Case{"NewKeyInTheLastSection", "[a]\nx = 1", "a", "k", "v", "[a]\nx = 1\nk = v\n\n"},
        Set_Case{"NewKeyInTheLastSectionBeforeEmptyLines", "[a]\nx = 1\n\n\n\n", "a", "k", "v",
                 "[a]\nx = 1\nk = v\n\n"},
        Set_Case{"NewKeyBehindAComment", "[a]\nx = 1\n# about b\n[b]\n", "a", "k", "v",
                 "[a]\nx = 1\n# about b\nk = v\n\n[b]\n"},
        Set_Case{"NewKeyBehindALineOfBlanks", "[a]\nx = 1\n  \n\n[b]\n", "a", "k", "v",
                 "[a]\nx = 1\n  \nk = v\n\n[b]\n"},
        Set_Case{"NewKeyBehindACarriageReturn", "[a]\r\nx = 1\r\n\r\n[b]\r\n", "a", "k", "v",
                 "[a]\r\nx = 1\r\n\r\nk = v\n\n[b]\r\n"},
        Set_Case{"NewKeyInTheFirstOfRepeatedSections", "[a]\nx = 1\n[b]\n[a]\nk = 2\n", "a", "k", "v",
                 "[a]\nx = 1\nk = v\n\n[b]\n[a]\nk = 2\n"},
        Set_Case{"NewKeyInTheMiddleSection", "# h\n\n[a]\nx = 1\n\n[b]\ny = 2\n\n\n\n[c]\nz = 3\n", "b", "k", "v",
                 "# h\n\n[a]\nx = 1\n\n[b]\ny = 2\nk = v\n\n[c]\nz = 3\n"},
        Set_Case{"NewNamelessKey", "# h\n\n[a]\nx = 1\n", none, "k", "v", "# h\nk = v\n\n[a]\nx = 1\n"},
        Set_Case{"NewNamelessKeyWithoutSections", "x = 1\n", none, "k", "v", "x = 1\nk = v\n\n"},
        // With nothing but empty lines above it the new key has an empty line before it; callers depend on the bytes.
        Set_Case{"NewNamelessKeyAboveEverything", "[a]\nx = 1\n", none, "k", "v", "\nk = v\n\n[a]\nx = 1\n"},
        Set_Case{"NewNamelessKeyBelowEmptyLines", "\n\n[a]\nx = 1\n", none, "k", "v", "\nk = v\n\n[a]\nx = 1\n"},
        Set_Case{"NewNamelessKeyInAnEmptyFile", "", none, "k", "v", "\nk = v\n\n"},
        Set_Case{"NewNamelessKeyInAFileOfEmptyLines", "\n\n\n", none, "k", "v", "\nk = v\n\n"},
        Set_Case{"NewNamelessKeyAboveAnEmptySectionLine", "[]\nk = 1\n", none, "k", "v", "\nk = v\n\n[]\nk = 1\n"},
        Set_Case{"NewSection", "\n\n[a]\nx = 1\n\n\n", "b", "k", "v", "[a]\nx = 1\n\n[b]\nk = v\n"},
        Set_Case{"NewSectionWithoutFinalNewline", "# c\n[a]\nx = 1", "b", "k", "v", "# c\n[a]\nx = 1\n\n[b]\nk = v\n"},
        Set_Case{"NewSectionAmongCarriageReturns", "[a]\r\nx = 1\r\n\r\n", "b", "k", "v",
                 "[a]\r\nx = 1\r\n\r\n\n[b]\nk = v\n"},
        Set_Case{"NewSectionInAnEmptyFile", "", "b", "k", "v", "[b]\nk = v\n"},
        Set_Case{"NewSectionInAFileOfEmptyLines", "\n\n\n", "b", "k", "v", "[b]\nk = v\n"},
        Set_Case{"NewSectionBehindALongerName", "[ab]\nk = 1\n", "a", "k", "v", "[ab]\nk = 1\n\n[a]\nk = v\n"},
        Set_Case{"IndentedSectionLineIsNoSection", " [a]\nk = 1\n", "a", "k", "v", " [a]\nk = 1\n\n[a]\nk = v\n"},
        Set_Case{"KeepsWhatIsBehindANul", "[a]\nx = 1\0\ny\0z\n[b]\nk = 2\n# e\0nd\n"s, "b", "k", "v",
                 "[a]\nx = 1\0\ny\0z\n[b]\nk = v\n# e\0nd\n"s},
        Set_Case{"AddsAKeyBeforeANul", "[a]\nx = 1\n\n[b]\n\0\n"s, "a", "k", "v", "[a]\nx = 1\nk = v\n\n[b]\n\0\n"s},
        Set_Case{"AddsASectionBehindANul", "[a]\n\0x\n"s, "b", "k", "v", "[a]\n\0x\n\n[b]\nk = v\n"s},
        // Such keys are never found again, and each call adds another line; callers depend on nothing being refused.
        Set_Case{"KeyWithABlank", "[a]\n k = v\n", "a", " k", "v", "[a]\n k = v\n k = v\n\n"},
        Set_Case{"KeyWithACommentSign", "[a]\n#k = v\n", "a", "#k", "v", "[a]\n#k = v\n#k = v\n\n"},
        Set_Case{"KeyWithAnEqualsSign", "[a]\nk=l = v\n", "a", "k=l", "v", "[a]\nk=l = v\nk=l = v\n\n"}),
    [](const auto &instance) { return std::string(instance.param.name); });

using Writing = Single_Value;

TEST_F(Writing, KeepsALargeFileByteForByte) {
  std::string head, tail;
  for (int i = 0; i < 20000; ++i) {
    head += "\n# comment " + std::to_string(i) + "\n\t key" + std::to_string(i) + "\t=\tvalue \r\n\n";
    tail += "  other" + std::to_string(i) + "=" + std::string(i % 50, 'x') + "\n\n\n; c\n[section\n";
  }
  write_file(path_, head + "[a]\n k = old \n" + tail);
  EXPECT_EQ(set("a", "k", "new"), 0);
  EXPECT_TRUE(content() == head + "[a]\nk = new\n" + tail);
}

TEST_F(Writing, ReadsBackWhatItWrote) {
  EXPECT_EQ(set("a", "k", "value"), 0);
  EXPECT_EQ(set("a", "l", ""), 0);
  EXPECT_EQ(set("b", "k", "a = b"), 0);
  EXPECT_EQ(set("", "top", "1"), 0);
  EXPECT_EQ(get("a", "k"), (Answer{0, "value"}));
  EXPECT_EQ(get("a", "l"), (Answer{0, ""}));
  EXPECT_EQ(get("b", "k"), (Answer{0, "a = b"}));
  EXPECT_EQ(get(none, "top"), (Answer{0, "1"}));
}

// The line "[]" of a file that was made without section name ends the nameless area at once; callers depend on it.
TEST_F(Writing, WhatMadeAFileWithoutSectionNameIsNotFoundAgain) {
  EXPECT_EQ(set(none, "k", "1"), 0);
  EXPECT_EQ(get(none, "k"), (Answer{-ENODATA, ""}));
  EXPECT_EQ(set(none, "k", "2"), 0);
  EXPECT_EQ(content(), "\nk = 2\n\n[]\nk = 1\n");
  EXPECT_EQ(get(none, "k"), (Answer{0, "2"}));
}

TEST_F(Writing, RemovingWhatIsMissingLeavesTheFile) {
  const struct {
    const char *text;
    Maybe section;
    int status;
  } cases[] = {{"\n\n[a]\nx = 1", "a", -ENODATA},
               {"[a]\nx = 1\n[b]\nk = 2\n", "a", -ENODATA},
               {"[a]\nx = 1\n", "b", -ENOANO},
               {"[a]\nk = 1\n", none, -ENODATA},
               {"", none, -ENODATA},
               {"", "a", -ENOANO},
               {"\n\n", "a", -ENOANO},
               {"[]\nk = 1\n", "", -ENODATA}};
  for (const auto &[text, section, status] : cases) {
    write_file(path_, text);
    const File_State old = state_of(path_);
    EXPECT_EQ(set(section, "k", none), status) << text;
    expect_untouched(old);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Writing, RemovingFromAMissingFileMakesNone) {
  EXPECT_EQ(set("a", "k", none), -ENOENT);
  expect_untouched({});
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Set_Conf_File_String_Value", "Can't cache file \"" + path_ + "\" error! (-2)")));
}

TEST_F(Writing, RefusesAMissingPathOrKey) {
  write_file(path_, "[a]\nk = 1\n");
  const File_State old = state_of(path_);
  EXPECT_EQ(Set_Conf_File_String_Value(nullptr, "a", "k", "v"), -EINVAL);
  EXPECT_EQ(Set_Conf_File_String_Value(file_, "a", nullptr, "v"), -EINVAL);
  EXPECT_EQ(Set_Conf_File_Integer_Value(nullptr, "a", "k", 5), -EINVAL);
  EXPECT_EQ(Set_Conf_File_Integer_Value(file_, "a", nullptr, 5), -EINVAL);
  expect_untouched(old);
}

TEST_F(Writing, RefusesTextsThatWouldBecomeOtherLines) {
  const struct {
    Maybe section;
    const char *key;
    const char *value;
  } cases[] = {{"a\n[b", "k", "v"}, {"a", "k\nl", "v"},   {"a", "k", "v\nl = 2"}, {"a", "k", "v\n"}, {"a\n", "k", "v"},
               {none, "k\nx", "v"}, {none, "k", "\n[x]"}, {"a]b", "k", "v"},      {"a]", "k", "v"},  {"]", "k", "v"}};
  for (const bool missing : {false, true}) {
    if (missing) {
      unlink(file_);
    } else {
      write_file(path_, "[a]\nk = 1\n\n[a]b]\nk = 2\n");
    }
    const File_State old = state_of(path_);
    for (const auto &[section, key, value] : cases) {
      EXPECT_EQ(set(section, key, value), -EINVAL) << section.value_or("none") << "/" << key << "/" << value;
      expect_untouched(old);
      if (section && std::string(value).find('\n') == std::string::npos) {
        EXPECT_EQ(Set_Conf_File_Integer_Value(file_, section->c_str(), key, 5), -EINVAL);
        expect_untouched(old);
      }
    }
  }
}

TEST_F(Writing, ABadSectionLineIsLogged) {
  write_file(path_, "[a]\n[b\nk = 1\n");
  EXPECT_EQ(set("a", "k", "v"), 0);
  EXPECT_EQ(content(), "[a]\n[b\nk = v\n");
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Set_Conf_File_String_Value", "Bad section line: [b!")));
}

TEST_F(Writing, ABadSectionLineStaysInItsSection) {
  write_file(path_, "[a]\nx = 1\n[b\n\n[c]\n");
  EXPECT_EQ(set("a", "k", "v"), 0);
  EXPECT_EQ(content(), "[a]\nx = 1\n[b\nk = v\n\n[c]\n");
}

TEST_F(Writing, KeepsThePermissionBits) {
  const mode_t previous = umask(077);
  for (const mode_t mode : {0600u, 0400u, 0644u, 0666u, 0751u, 04755u}) {
    write_file(path_, "[a]\nk = 1\n");
    ASSERT_EQ(chmod(file_, mode), 0);
    EXPECT_EQ(set("a", "k", "v"), 0);
    EXPECT_EQ(mode_of(path_), mode);
  }
  umask(previous);
}

TEST_F(Writing, ANewFileHasTheDefaultMode) {
  const mode_t previous = umask(027);
  EXPECT_EQ(set("a", "k", "v"), 0);
  umask(previous);
  EXPECT_EQ(mode_of(path_), 0640u);
}

TEST_F(Writing, APrivateFileIsPrivateWhileItIsWritten) {
  const std::string text = "[a]\nk = 1\n" + std::string(100000, '#') + "\n";
  write_file(path_, text);
  ASSERT_EQ(chmod(file_, 0600), 0);
  const File_State old = state_of(path_);
  expect_killed_while_writing(100, [&] { set("a", "k", "v"); });
  EXPECT_EQ(mode_of(temporary_) & 077u, 0u);
  EXPECT_EQ(state_of(path_), old);
}

TEST_F(Writing, RecoversFromAProcessKilledOnTheWay) {
  const std::string comment = "#" + std::string(100000, 'c') + "\n";
  write_file(path_, "[a]\nk = 1\n" + comment);
  expect_killed_while_writing(50000, [&] { set("a", "k", "never"); });
  ASSERT_TRUE(exists(temporary_));
  ASSERT_TRUE(exists(owned_lock("x.conf")));
  EXPECT_EQ(content(), "[a]\nk = 1\n" + comment);
  EXPECT_EQ(set("a", "k", "v"), 0);
  EXPECT_EQ(content(), "[a]\nk = v\n" + comment);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_FALSE(exists(owned_lock("x.conf")));
}

TEST_F(Writing, ALinkIsReplacedByAPlainFileWithTheModeOfItsTarget) {
  const std::string target = folder_ / "target";
  write_file(target, "# c\n[a]\nk = 1\n");
  ASSERT_EQ(chmod(target.c_str(), 0640), 0);
  ASSERT_EQ(symlink("target", file_), 0);
  EXPECT_EQ(set("a", "k", "v"), 0);
  struct stat status;
  ASSERT_EQ(lstat(file_, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(mode_of(path_), 0640u);
  EXPECT_EQ(content(), "# c\n[a]\nk = v\n");
  EXPECT_EQ(read_file(target), "# c\n[a]\nk = 1\n");
}

TEST_F(Writing, ADanglingLinkIsReplacedByAPlainFileWithTheDefaultMode) {
  const mode_t previous = umask(022);
  ASSERT_EQ(symlink("nowhere", file_), 0);
  EXPECT_EQ(set("a", "k", "v"), 0);
  umask(previous);
  struct stat status;
  ASSERT_EQ(lstat(file_, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(mode_of(path_), 0644u);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
}

TEST_F(Writing, DoesNotFollowALinkPlantedAtTheTemporaryName) {
  const std::string victim = folder_ / "victim";
  for (const Maybe &value : {Maybe("v"), none}) {
    write_file(path_, "[a]\nk = 1\n");
    write_file(victim, "precious\n");
    ASSERT_EQ(symlink(victim.c_str(), temporary_.c_str()), 0);
    EXPECT_EQ(set("a", "k", value), 0);
    EXPECT_EQ(read_file(victim), "precious\n");
    struct stat status;
    ASSERT_EQ(lstat(file_, &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(content(), value ? "[a]\nk = v\n" : "[a]\n");
    EXPECT_THAT(names_in(folder_.path()), ElementsAre("victim", "x.conf"));
  }
}

// Somebody is faster than the open that follows the removal of what stood there.
TEST_F(Writing, DoesNotFollowALinkPlantedAtTheLastMoment) {
  write_file(path_, "[a]\nk = 1\n");
  const std::string victim = folder_ / "victim";
  write_file(victim, "precious\n");
  const Before_Call removal(System_Call::unlink, 1, [&] {
    EXPECT_EQ(symlink(victim.c_str(), temporary_.c_str()), 0);
    return ENOENT;
  });
  EXPECT_EQ(set("a", "k", "v"), -EEXIST);
  EXPECT_TRUE(removal.happened());
  EXPECT_EQ(read_file(victim), "precious\n");
  EXPECT_EQ(content(), "[a]\nk = 1\n");
  EXPECT_FALSE(exists(owned_lock("x.conf")));
}

TEST_F(Writing, DoesNotWriteIntoAFileLeftAtTheTemporaryName) {
  const std::string victim = folder_ / "victim";
  write_file(path_, "[a]\nk = 1\n");
  write_file(victim, "precious\n");
  ASSERT_EQ(link(victim.c_str(), temporary_.c_str()), 0);
  EXPECT_EQ(set("a", "k", "v"), 0);
  EXPECT_EQ(read_file(victim), "precious\n");
  EXPECT_EQ(content(), "[a]\nk = v\n");
}

TEST_F(Writing, AFolderAtTheTemporaryNameIsAFailure) {
  write_file(path_, "[a]\nk = 1\n");
  const File_State old = state_of(path_);
  ASSERT_EQ(mkdir(temporary_.c_str(), 0755), 0);
  const int status = set("a", "k", "v");
  EXPECT_THAT(status, AnyOf(-EISDIR, -EEXIST));
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Set_Conf_File_String_Value", "Can't open tmp file \"" + temporary_ +
                                                                       "\" error! (" + std::to_string(status) + ")")));
  ASSERT_EQ(rmdir(temporary_.c_str()), 0);
  expect_untouched(old);
}

TEST_F(Writing, AFileThatCannotBeLoadedIsLoggedAndGivesTheLockBack) {
  ASSERT_EQ(mkdir(file_, 0700), 0);
  EXPECT_EQ(set("a", "k", "v"), -ENOMEDIUM);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(log_.lines(), ElementsAre(Field(&Log_Line::function, "Cache_Conf_File"),
                                        debug_line("Set_Conf_File_String_Value",
                                                   "Can't cache file \"" + path_ + "\" error! (-123)")));
}

TEST_F(Writing, AFailedReadIsANegativeStatus) {
  EXPECT_EQ(Set_Conf_File_String_Value(unreadable, "a", "k", "v"), -EINVAL);
  EXPECT_EQ(Set_Conf_File_String_Value(unreadable, "a", "k", nullptr), -EINVAL);
  EXPECT_FALSE(exists(owned_lock("speed")));
}

TEST_F(Writing, AMissingFolderIsAFailureToOpenTheTemporaryFile) {
  const std::string path = folder_ / "missing/x.conf";
  EXPECT_EQ(Set_Conf_File_String_Value(path.c_str(), "a", "k", "v"), -ENOENT);
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Set_Conf_File_String_Value",
                                                   "Can't open tmp file \"" + path + ".tmp\" error! (-2)")));
}

// A short text is still in the stream's buffer when the last of it was printed; the disk's answer counts.
TEST_F(Writing, AFullDiskIsMinusOneAndLeavesTheOldFileAndNoOther) {
  for (const std::size_t bytes : {1, 1 << 20}) {
    SCOPED_TRACE(bytes);
    Small_Disk disk;
    const std::string path = disk / "y.conf";
    write_file(path, "[a]\nk = 1\n");
    disk.fill();
    const File_State old = state_of(path);
    const int descriptors = open_descriptors();
    const std::string value(bytes, 'v');
    EXPECT_EQ(Set_Conf_File_String_Value(path.c_str(), "a", "k", value.c_str()), -1);
    EXPECT_EQ(Set_Conf_File_String_Value(path.c_str(), "a", "new", value.c_str()), -1);
    EXPECT_EQ(Set_Conf_File_String_Value(path.c_str(), "b", "new", value.c_str()), -1);
    EXPECT_EQ(Set_Conf_File_String_Value((disk / "new.conf").c_str(), "b", "new", value.c_str()), -1);
    EXPECT_EQ(state_of(path), old);
    EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", "y.conf"));
    EXPECT_FALSE(exists(owned_lock("y.conf")));
    EXPECT_EQ(open_descriptors(), descriptors);
  }
}

TEST_F(Writing, AReadOnlyDiskIsAFailure) {
  Small_Disk disk;
  const std::string path = disk / "y.conf";
  write_file(path, "[a]\nk = 1\n");
  make_read_only(disk.path());
  EXPECT_EQ(Set_Conf_File_String_Value(path.c_str(), "a", "k", "v"), -EROFS);
  EXPECT_EQ(read_file(path), "[a]\nk = 1\n");
  EXPECT_FALSE(exists(owned_lock("y.conf")));
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Set_Conf_File_String_Value",
                                                   "Can't open tmp file \"" + path + ".tmp\" error! (-30)")));
}

TEST_F(Writing, AFailedRenameLeavesTheOldFile) {
  write_file(path_, "[a]\nk = 1\n");
  const File_State old = state_of(path_);
  {
    const Pinned_File pinned(path_);
    EXPECT_EQ(set("a", "k", "v"), -EBUSY);
  }
  expect_untouched(old);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Set_Conf_File_String_Value",
                                                   "Can't rename from " + temporary_ + " to " + path_ + "! (-16)")));
}

TEST_F(Writing, WithoutMemoryLeavesTheOldFile) {
  const auto set_with = [this](const char *section, const char *key, const char *value) {
    return [=, this] { return Set_Conf_File_String_Value(file_, section, key, value); };
  };
  expect_whole_or_nothing_without_memory(path_, {"[a]\nk = 1\n", "[a]\nk = v\n", set_with("a", "k", "v")}, 1);
  expect_whole_or_nothing_without_memory(path_, {"[a]\nk = 1\n", "[a]\n", set_with("a", "k", nullptr)}, 1);
  expect_whole_or_nothing_without_memory(path_, {"[a]\nx = 1\n", "[a]\nx = 1\nk = v\n\n", set_with("a", "k", "v")}, 1);
  expect_whole_or_nothing_without_memory(path_, {"[a]\nx = 1\n", "[a]\nx = 1\n\n[b]\nk = v\n", set_with("b", "k", "v")},
                                         1);
  expect_whole_or_nothing_without_memory(path_, {std::nullopt, "[a]\nk = v\n", set_with("a", "k", "v")}, 0);
}

TEST_F(Writing, LeavesNoDescriptorOpen) {
  const int before = open_descriptors();
  set("a", "k", "1");
  set("a", "k", none);
  set("a", "k", none);
  set("b", "k", none);
  get("a", "k");
  get("b", "k");
  EXPECT_EQ(open_descriptors(), before);
}

// ---------------------------------------------------------------------------------------------------- writing numbers

using Number_Writing = Single_Value;

TEST_F(Number_Writing, IsDecimal) {
  const std::pair<int64_t, const char *> numbers[] = {
      {0, "0"}, {-7, "-7"}, {INT64_MAX, "9223372036854775807"}, {INT64_MIN, "-9223372036854775808"}};
  for (const auto &[number, text] : numbers) {
    EXPECT_EQ(Set_Conf_File_Integer_Value(file_, "a", "k", number), 0);
    EXPECT_EQ(content(), "[a]\nk = "s + text + "\n");
    int64_t value = 42;
    EXPECT_EQ(Get_Conf_File_Int64_Value(file_, "a", "k", &value), 0);
    EXPECT_EQ(value, number);
  }
}

// Callers depend on the difference: the text form takes a missing section for the nameless area.
TEST_F(Number_Writing, RequiresASectionName) {
  write_file(path_, "k = 1\n");
  const File_State old = state_of(path_);
  EXPECT_EQ(Set_Conf_File_Integer_Value(file_, nullptr, "k", 5), -EINVAL);
  expect_untouched(old);
  EXPECT_EQ(Set_Conf_File_Integer_Value(file_, "", "k", 5), 0);
  EXPECT_EQ(content(), "k = 5\n");
}

// ------------------------------------------------------------------------------------------------- readers and writers

TEST(Concurrency, AReaderWithoutLockSeesTheOldValueOrTheNewOne) {
  const Temporary_Folder folder;
  const std::string path = folder / "values.conf";
  const std::string padding = "#" + std::string(40000, 'p') + "\n";
  const std::string small = "s", large(3000, 'l');
  write_file(path, padding + "[a]\nk = s\n" + padding + "[b]\nend = here\n");
  std::atomic<bool> done = false;
  std::atomic<int> failures = 0;
  std::thread writer([&] {
    for (int i = 0; i < 500; ++i) {
      if (Set_Conf_File_String_Value(path.c_str(), "a", "k", i % 2 == 0 ? large.c_str() : small.c_str()) != 0)
        ++failures;
    }
    done = true;
  });
  while (!done) {
    char buffer[4000];
    int size = sizeof buffer;
    EXPECT_EQ(Get_Conf_File_String_Value(path.c_str(), "a", "k", buffer, &size), 0);
    EXPECT_TRUE(buffer == small || buffer == large);
    size = sizeof buffer;
    EXPECT_EQ(Get_Conf_File_String_Value(path.c_str(), "b", "end", buffer, &size), 0);
    EXPECT_STREQ(buffer, "here");
  }
  writer.join();
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace tarn::test
