#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/conf/chains.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string unreadable = "/sys/class/net/lo/speed";  // a regular file of 4096 bytes; read answers EINVAL
const std::string shorter = "/sys/class/net/lo/address";   // a regular file of 4096 bytes that holds 18

struct Free {
  void operator()(void *block) const { free(block); }
};
using Text = std::unique_ptr<char, Free>;

struct Loaded {
  int status;
  Text text;
};

// Hands in a text that is not none, so that a function that forgets to set its output is found out.
Loaded cache(const std::string &path) {
  char *text = reinterpret_cast<char *>(8);
  const int status = Cache_Conf_File(path.c_str(), &text);
  return {status, Text(text)};
}

struct Parsed {
  int status;
  Sections sections;
};

Parsed parse_cache(std::string text) {
  auto *sections = reinterpret_cast<Sect_Node *>(8);
  const int status = Parse_Conf_Cache(text.data(), &sections);
  return {status, Sections(sections)};
}

struct Close_Stream {
  void operator()(FILE *stream) const { fclose(stream); }
};
using Stream = std::unique_ptr<FILE, Close_Stream>;

Stream stream_of(const std::string &text) {
  Stream stream(tmpfile());
  if (!text.empty()) fwrite(text.data(), 1, text.size(), stream.get());
  rewind(stream.get());
  return stream;
}

Parsed parse_stream(const std::string &text) {
  const Stream stream = stream_of(text);
  auto *sections = reinterpret_cast<Sect_Node *>(8);
  const int status = Parse_Conf_Stream(stream.get(), &sections);
  return {status, Sections(sections)};
}

auto line_like(const std::string &level, const std::string &function, const std::string &pattern) {
  return AllOf(Field(&Log_Line::level, level), Field(&Log_Line::function, function),
               Field(&Log_Line::text, MatchesRegex(pattern)));
}

// ------------------------------------------------------------------------------------------------------------ loading

class Loading : public testing::Test {
 protected:
  Temporary_Folder folder_;
  std::string path_ = folder_ / "x.conf";
  Log_Capture log_;
};

TEST_F(Loading, ReturnsTheWholeTextAndItsLength) {
  write_file(path_, "[a]\nk = v\n");
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, 10);
  EXPECT_STREQ(loaded.text.get(), "[a]\nk = v\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Loading, AddsAMissingFinalNewline) {
  write_file(path_, "k = v");
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, 6);
  EXPECT_STREQ(loaded.text.get(), "k = v\n");
}

TEST_F(Loading, AnEmptyFileIsASingleNewline) {
  write_file(path_, "");
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, 1);
  EXPECT_STREQ(loaded.text.get(), "\n");
}

TEST_F(Loading, CountsBytesBehindANul) {
  write_file(path_, std::string("a\0b\0", 4));
  const Loaded loaded = cache(path_);
  ASSERT_EQ(loaded.status, 5);
  EXPECT_EQ(std::string(loaded.text.get(), 6), std::string("a\0b\0\n\0", 6));
}

TEST_F(Loading, FollowsALink) {
  write_file(folder_ / "target", "k = v\n");
  ASSERT_EQ(symlink("target", path_.c_str()), 0);
  EXPECT_EQ(cache(path_).status, 6);
}

TEST_F(Loading, HoldsALargeFileAtOnce) {
  const std::string content(8 << 20, 'x');
  write_file(path_, content);
  const Loaded loaded = cache(path_);
  ASSERT_EQ(loaded.status, (8 << 20) + 1);
  EXPECT_EQ(std::string(loaded.text.get()), content + "\n");
}

TEST_F(Loading, RefusesAMissingArgument) {
  char *text = nullptr;
  EXPECT_EQ(Cache_Conf_File(nullptr, &text), -EINVAL);
  EXPECT_EQ(Cache_Conf_File(path_.c_str(), nullptr), -EINVAL);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Cache_Conf_File", "Bad parameters!"),
                                        debug_line("Cache_Conf_File", "Bad parameters!")));
}

TEST_F(Loading, AMissingFileIsNotLogged) {
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, -ENOENT);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Loading, AnyOtherFailedLookupIsLogged) {
  write_file(path_, "");
  const std::string below = path_ + "/below";
  const Loaded loaded = cache(below);
  EXPECT_EQ(loaded.status, -ENOTDIR);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Cache_Conf_File", "Can't stat the conf file \"" + below + "\" error! (-20)")));
}

TEST_F(Loading, RefusesAFolder) {
  ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);
  ASSERT_EQ(chmod(path_.c_str(), 0755), 0);
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, -ENOMEDIUM);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Cache_Conf_File", "The specified file \"" + path_ +
                                                                          "\" is not a regular file error! (41ED)")));
}

// Opening one would wait for a writer for ever.
TEST_F(Loading, RefusesAFifoWithoutOpeningIt) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
  const Loaded loaded = cache(path_);
  EXPECT_EQ(loaded.status, -ENOMEDIUM);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Cache_Conf_File", "The specified file \"" + path_ +
                                                                          "\" is not a regular file error! (11A4)")));
}

TEST_F(Loading, AFileThatCannotBeOpenedIsLogged) {
  write_file(path_, "k = v\n");
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
  EXPECT_EQ(in_child([&] {
              const As_Nobody nobody;
              const Loaded loaded = cache(path_);
              EXPECT_EQ(loaded.status, -EACCES);
              EXPECT_EQ(loaded.text, nullptr);
            }),
            0);
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Cache_Conf_File", "Can't open the conf file \"" + path_ + "\" error! (-13)")));
}

TEST_F(Loading, WithoutMemoryIsAStatus) {
  write_file(path_, "k = v\n");
  auto *text = reinterpret_cast<char *>(8);
  int status;
  {
    Allocation_Failure failure(1);
    status = Cache_Conf_File(path_.c_str(), &text);
  }
  EXPECT_EQ(status, -ENOMEM);
  EXPECT_EQ(text, nullptr);
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Cache_Conf_File",
                                     "Can't allocate 8 byte to cache the conf file \"" + path_ + "\" error!")));
}

TEST_F(Loading, AShortReadIsAnInputError) {
  errno = EINVAL;  // left over from something else: must not count as the read's
  const Loaded loaded = cache(shorter);
  EXPECT_EQ(loaded.status, -EIO);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Cache_Conf_File",
                                                   "Read \"" + shorter + "\" 4096 bytes but got 18 bytes error! (0)")));
}

// Callers depend on the positive number: they test the text as well.
TEST_F(Loading, AFailedReadAnswersWithItsErrnoAsAPositiveNumber) {
  const Loaded loaded = cache(unreadable);
  EXPECT_EQ(loaded.status, EINVAL);
  EXPECT_EQ(loaded.text, nullptr);
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Cache_Conf_File",
                                     "Read \"" + unreadable + "\" 4096 bytes but got -1 bytes error! (-22)")));
}

TEST_F(Loading, RefusesAFileWhoseLengthCouldNotBeReturned) {
  write_file(path_, "");
  ASSERT_EQ(truncate(path_.c_str(), off_t{1} << 31), 0);
  const Loaded loaded = cache(path_);
  EXPECT_LT(loaded.status, 0);
  EXPECT_EQ(loaded.text, nullptr);
}

TEST_F(Loading, LeavesNoDescriptorOpen) {
  write_file(path_, "k = v\n");
  const int before = open_descriptors();
  for (const std::string &path : {path_, folder_.path(), unreadable, shorter, folder_ / "missing"}) cache(path);
  with_each_allocation_failing(
      [&] {
        char *text = nullptr;
        const int status = Cache_Conf_File(path_.c_str(), &text);
        free(text);
        return status;
      },
      [](int, int) {});
  EXPECT_EQ(open_descriptors(), before);
}

// ------------------------------------------------------------------------------- the grammar that both parsers share

struct Grammar_Case {
  const char *name;
  std::string text;
  std::string chain;  // as shown()
  int sections;
};

std::ostream &operator<<(std::ostream &out, const Grammar_Case &grammar) {
  return out << grammar.name;
}

class Grammar : public testing::TestWithParam<Grammar_Case> {};

TEST_P(Grammar, IsParsedFromALoadedText) {
  const Parsed parsed = parse_cache(GetParam().text);
  EXPECT_EQ(shown(parsed.sections), GetParam().chain);
  EXPECT_EQ(parsed.status, GetParam().sections);
}

TEST_P(Grammar, IsParsedFromAStream) {
  const Parsed parsed = parse_stream(GetParam().text);
  EXPECT_EQ(shown(parsed.sections), GetParam().chain);
  EXPECT_EQ(parsed.status, GetParam().sections);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Grammar,
    testing::Values(Grammar_Case{"NoBlanksAroundTheEqualsSign", "k=v\n", "[]k=v;", 1},
                    Grammar_Case{"SingleBlanksAroundTheEqualsSign", "k = v\n", "[]k=v;", 1},
                    Grammar_Case{"TabsAndBlanksAroundKeyAndValue", " \tk\t \t=\t v \t \n", "[]k=v;", 1},
                    Grammar_Case{"BlanksInsideKeyAndValueStay", "a key = a  value\n", "[]a key=a  value;", 1},
                    Grammar_Case{"SplitAtTheFirstEqualsSign", "k = a = b==\n", "[]k=a = b==;", 1},
                    Grammar_Case{"EmptyValue", "k =\nl=\nm = \t \n", "[]k=;l=;m=;", 1},
                    Grammar_Case{"EmptyKeyIsBad", "= x\n  = y\n\t=\nk = v\n", "[]k=v;", 1},
                    Grammar_Case{"NoEqualsSignIsBad", "novalue\nk = v\n", "[]k=v;", 1},
                    Grammar_Case{"EqualsSignOfTheNextLineIsNotTaken", "novalue\n=v\n[s]\nother\nk=v\n", "[s]k=v;", 1},
                    Grammar_Case{"LinesOfBlanksOnly", "  \n\t\n \t \nk = v\n", "[]k=v;", 1},
                    Grammar_Case{"OtherWhiteSpaceIsNoBlank", "\vk\f = \r v\v \n", "[]\vk\f=\r v\v;", 1},
                    Grammar_Case{"CommentsInTheFirstColumn", "#k = 1\n;k = 2\n# [s]\n", "", 0},
                    Grammar_Case{"IndentedCommentSignsArePartOfTheKey", " #a = 1\n\t;b = 2\n", "[]#a=1;;b=2;", 1},
                    Grammar_Case{"IndentedBracketIsPartOfTheKey", "[s]\n [x] = 1\n", "[s][x]=1;", 1},
                    Grammar_Case{"CommentSignBehindAValueIsPartOfIt", "k = v # c ; d\n", "[]k=v # c ; d;", 1},
                    Grammar_Case{"QuotesArePartOfTheValue", "k = \" v \"\n", "[]k=\" v \";", 1},
                    Grammar_Case{"NoEscapesAndNoContinuation", "k = a\\nb\\\nl = 2\n", "[]k=a\\nb\\;l=2;", 1},
                    Grammar_Case{"BytesOutsideAscii", "k\xff = \xe4\xb8\xad\n[\x80]\n", "[]k\xff=\xe4\xb8\xad;[\x80]",
                                 2},
                    Grammar_Case{"Nothing", "", "", 0}, Grammar_Case{"EmptyLines", "\n\n\n", "", 0},
                    Grammar_Case{"OnlyPairs", "a = 1\nb = 2\n", "[]a=1;b=2;", 1},
                    Grammar_Case{"OnlySections", "[a]\n[b]\n", "[a][b]", 2},
                    Grammar_Case{"PairsBeforeTheFirstSection", "a = 1\n[s]\nb = 2\n", "[]a=1;[s]b=2;", 2},
                    Grammar_Case{"NamelessSectionWithoutPairsIsNotCounted", "\n# c\n[s]\nb = 2\n", "[s]b=2;", 1},
                    Grammar_Case{"SectionNameIsNotTrimmed", "[ a b\t]\nk = 1\n", "[ a b\t]k=1;", 1},
                    Grammar_Case{"TextBehindASectionIsIgnored", "[a] # tail ] = x\nk = 1\n", "[a]k=1;", 1},
                    Grammar_Case{"SectionNameEndsAtTheFirstBracket", "[a]b]\n[[c]\n", "[a][[c]", 2},
                    Grammar_Case{"BadSectionLineLeavesTheSectionOpen", "[a]\nx = 1\n[b\ny = 2\n", "[a]x=1;y=2;", 1},
                    Grammar_Case{"BracketOfTheNextLineIsNotTaken", "[a\nb] = 1\n", "[]b]=1;", 1},
                    Grammar_Case{"BadSectionLineWithAnEqualsSignIsNoPair", "[a = 1\nk = v\n", "[]k=v;", 1},
                    Grammar_Case{"EmptySectionNameIsASectionOfItsOwn", "[a]\nx = 1\n[]\ny = 2\n", "[a]x=1;[]y=2;", 2},
                    Grammar_Case{"EmptySectionNameBehindNamelessPairs", "x = 1\n[]\ny = 2\n", "[]x=1;[]y=2;", 2},
                    Grammar_Case{"EmptySectionNameAlone", "[]\n", "[]", 1},
                    Grammar_Case{"RepeatedSectionsStayApart", "[a]\nx = 1\n[b]\n[a]\nx = 2\n", "[a]x=1;[b][a]x=2;", 3},
                    Grammar_Case{"RepeatedKeysStay", "[a]\nk = 1\nk = 2\nK = 3\n", "[a]k=1;k=2;K=3;", 1},
                    Grammar_Case{"CarriageReturnStaysAtTheValue", "[a]\r\nk = v\r\nl =\r\n", "[a]k=v\r;l=\r;", 1}),
    [](const auto &instance) { return std::string(instance.param.name); });

TEST(Cache_Parser, RefusesAMissingArgument) {
  char text[] = "k = v\n";
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Parse_Conf_Cache(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Parse_Conf_Cache(text, nullptr), -EINVAL);
  EXPECT_STREQ(text, "k = v\n");
}

TEST(Stream_Parser, RefusesAMissingArgument) {
  const Stream stream = stream_of("k = v\n");
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Parse_Conf_Stream(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Parse_Conf_Stream(stream.get(), nullptr), -EINVAL);
}

// ------------------------------------------------------------------------------- what the two parsers do differently

TEST(Cache_Parser, LogsBadLinesAsTheyStand) {
  Log_Capture log;
  const Parsed parsed = parse_cache("[a\n  novalue \n\t= x\nk = v\n");
  EXPECT_EQ(shown(parsed.sections), "[]k=v;");
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("Parse_Conf_Cache", "Bad section definition line: \"[a\"!"),
                                       error_line("Parse_Conf_Cache", "Bad key-value definition line: \"  novalue \"!"),
                                       error_line("Parse_Conf_Cache", "Bad key-value definition line: \"\t= x\"!")));
}

TEST(Stream_Parser, LogsBadLinesWithTheirNewlineAtTheOtherLevels) {
  Log_Capture log;
  const Parsed parsed = parse_stream("[a\n  novalue \n\t= x\nk = v\n");
  EXPECT_EQ(shown(parsed.sections), "[]k=v;");
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Parse_Conf_Stream", "Bad section definition line: [a\n!"),
                          debug_line("Parse_Conf_Stream", "Bad key-value definition line: \"  novalue \n\"!"),
                          debug_line("Parse_Conf_Stream", "Bad key-value definition line: \"\t= x\n\"!")));
}

TEST(Cache_Parser, GoodLinesAreNotLogged) {
  Log_Capture log;
  parse_cache("\n# c\n \t\na = 1\n[s]tail\n");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Stream_Parser, GoodLinesAreNotLogged) {
  Log_Capture log;
  parse_stream("\n# c\n \t\na = 1\n[s]tail\n");
  EXPECT_THAT(log.lines(), IsEmpty());
}

// A carriage return alone is a line without "=".
TEST(Cache_Parser, ReportsTheEmptyLinesOfAFileWithCarriageReturns) {
  Log_Capture log;
  const Parsed parsed = parse_cache("[a]\r\n\r\nk = v\r\n");
  EXPECT_EQ(shown(parsed.sections), "[a]k=v\r;");
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Parse_Conf_Cache", "Bad key-value definition line: \"\r\"!")));
}

TEST(Cache_Parser, IgnoresTextBehindTheLastNewline) {
  EXPECT_EQ(shown(parse_cache("a = 1\nb = 2").sections), "[]a=1;");
  EXPECT_EQ(parse_cache("a = 1").status, 0);
}

TEST(Stream_Parser, TakesALastLineWithoutNewline) {
  EXPECT_EQ(shown(parse_stream("a = 1\nb = 2").sections), "[]a=1;b=2;");
  EXPECT_EQ(shown(parse_stream("[a]").sections), "[a]");
}

TEST(Cache_Parser, EndsAtTheFirstNul) {
  const Parsed parsed = parse_cache(std::string("a = 1\n\0\nb = 2\n", 14));
  EXPECT_EQ(shown(parsed.sections), "[]a=1;");
  EXPECT_EQ(parsed.status, 1);
}

TEST(Stream_Parser, GoesOnBehindALineThatBeginsWithNul) {
  const Parsed parsed = parse_stream(std::string("a = 1\n\0\nb = 2\n\0c = 3\nd = 4\n", 27));
  EXPECT_EQ(shown(parsed.sections), "[]a=1;b=2;d=4;");
}

TEST(Stream_Parser, CutsALineAt4095Bytes) {
  Log_Capture log;
  const std::string value(4095 - 4, 'v');
  const Parsed parsed = parse_stream("k = " + value + "w\nl = 2\n");
  EXPECT_EQ(shown(parsed.sections), "[]k=" + value + ";l=2;");
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("Parse_Conf_Stream", "Bad key-value definition line: \"w\n\"!")));
}

TEST(Stream_Parser, TakesALineOf4095BytesWhole) {
  Log_Capture log;
  const std::string value(4095 - 5, 'v');
  const Parsed parsed = parse_stream("k = " + value + "\nl = 2\n");
  EXPECT_EQ(shown(parsed.sections), "[]k=" + value + ";l=2;");
  EXPECT_THAT(log.lines(), IsEmpty());
}

// Only the newline is left for the second piece, which is then an empty line.
TEST(Stream_Parser, TakesALineOf4096BytesWholeToo) {
  Log_Capture log;
  const std::string value(4096 - 5, 'v');
  const Parsed parsed = parse_stream("k = " + value + "\nl = 2\n");
  EXPECT_EQ(shown(parsed.sections), "[]k=" + value + ";l=2;");
  EXPECT_THAT(log.lines(), IsEmpty());
}

// Callers depend on the lines of the 4096-byte buffer.
TEST(Stream_Parser, ParsesTheRestOfALongCommentAsALineOfItsOwn) {
  const std::string comment = "#" + std::string(4094, 'c');
  EXPECT_EQ(shown(parse_stream(comment + "k = v\n").sections), "[]k=v;");
  EXPECT_EQ(shown(parse_cache(comment + "k = v\n").sections), "");
}

TEST(Cache_Parser, TakesLinesOfAMebibyte) {
  const std::string name(1 << 20, 's'), key(1 << 20, 'k'), value(1 << 20, 'v');
  const Parsed parsed = parse_cache("[" + name + "]\n" + key + " = " + value + "\n#" + value + "\n" + value + "\n");
  EXPECT_TRUE(shown(parsed.sections) == "[" + name + "]" + key + "=" + value + ";");
  EXPECT_EQ(parsed.status, 1);
}

TEST(Stream_Parser, SurvivesALineOfAMebibyte) {
  const Parsed parsed =
      parse_stream("[s]\n" + std::string(1 << 20, '=') + "\n" + std::string(1 << 20, 'v') + "\nk = v\n");
  EXPECT_EQ(shown(parsed.sections), "[s]k=v;");
}

TEST(Cache_Parser, Takes300000SectionsAndPairs) {
  std::string text;
  for (int i = 0; i < 300000; ++i) text += "[s]\nk = v\n";
  const Parsed parsed = parse_cache(text);
  EXPECT_EQ(parsed.status, 300000);
}

TEST(Stream_Parser, Takes300000SectionsAndPairs) {
  std::string text;
  for (int i = 0; i < 300000; ++i) text += "[s]\nk = v\n";
  const Parsed parsed = parse_stream(text);
  EXPECT_EQ(parsed.status, 300000);
}

TEST(Stream_Parser, StartsWhereTheStreamStands) {
  const Stream stream = stream_of("a = 1\nb = 2\n");
  char line[16];
  ASSERT_NE(fgets(line, sizeof line, stream.get()), nullptr);
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Parse_Conf_Stream(stream.get(), &sections), 1);
  EXPECT_EQ(shown(Sections(sections)), "[]b=2;");
}

void expect_room_for_a_long_name(const Sect_Node *first) {
  for (const Sect_Node *section = first; section != nullptr; section = section->next) {
    EXPECT_GE(malloc_usable_size(const_cast<Sect_Node *>(section)), offsetof(Sect_Node, name) + 128) << section->name;
  }
}

// A record's new name is written into the node where it stands.
TEST(Cache_Parser, LeavesRoomForANameOf127Bytes) {
  expect_room_for_a_long_name(parse_cache("k = 1\n[m]\n").sections.get());
}

TEST(Stream_Parser, LeavesRoomForANameOf127Bytes) {
  expect_room_for_a_long_name(parse_stream("k = 1\n[m]\n").sections.get());
}

TEST(Cache_Parser, PutsBothTextsOfAPairInOneAllocation) {
  const Parsed parsed = parse_cache(" key  =  value \n");
  const Pair_Node *pair = parsed.sections->pairs;
  EXPECT_EQ(pair->value, pair->key + strlen("key") + 1);
}

// ------------------------------------------------------------------------------------------- parsing without memory

const char two_sections[] = "a = 1\n[b]\nx = 2\n[c]\ny = 3\n";  // allocations: nameless, a, [b], x, [c], y

// The parser of a loaded text or of a stream, with one allocation failing.
struct Parser {
  const char *name;
  int (*run)(const std::string &text, int failing, Sect_Node **sections);
};

int run_cache(const std::string &text, int failing, Sect_Node **sections) {
  std::string copy = text;
  Allocation_Failure failure(failing);
  return Parse_Conf_Cache(copy.data(), sections);
}

int run_stream(const std::string &text, int failing, Sect_Node **sections) {
  const Stream stream = stream_of(text);
  ungetc(fgetc(stream.get()), stream.get());  // the stream's buffer is there before anything fails
  Allocation_Failure failure(failing);
  return Parse_Conf_Stream(stream.get(), sections);
}

std::ostream &operator<<(std::ostream &out, const Parser &parser) {
  return out << parser.name;
}

class Parser_Without_Memory : public testing::TestWithParam<Parser> {
 protected:
  Parsed parse(const std::string &text, int failing) {
    auto *sections = reinterpret_cast<Sect_Node *>(8);
    const int status = GetParam().run(text, failing, &sections);
    EXPECT_TRUE(allocation_failed());
    return {status, Sections(sections)};
  }
  Log_Capture log_;
};

TEST_P(Parser_Without_Memory, FailsAtTheNamelessSection) {
  const Parsed parsed = parse(two_sections, 1);
  EXPECT_EQ(parsed.status, -ENOMEM);
  EXPECT_EQ(parsed.sections, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line(GetParam().name, "Can't allocate buffer for section node error!")));
}

TEST_P(Parser_Without_Memory, FreesEverythingAtAPair) {
  for (const int failing : {2, 4, 6}) {
    log_.clear();
    const Parsed parsed = parse(two_sections, failing);
    EXPECT_EQ(parsed.status, -ENOMEM);
    EXPECT_EQ(parsed.sections, nullptr);
    EXPECT_THAT(log_.lines(), ElementsAre(line_like("error", GetParam().name,
                                                    "Can't allocate [0-9]+ bytes buffer for string pair node error!")));
  }
}

// Callers depend on what was parsed so far being kept as a success.
TEST_P(Parser_Without_Memory, KeepsWhatWasParsedAtASection) {
  const auto line = line_like("error", GetParam().name, "Can't allocate [0-9]+ bytes buffer for section node error!");
  Parsed parsed = parse(two_sections, 3);
  EXPECT_EQ(parsed.status, 1);
  EXPECT_EQ(shown(parsed.sections), "[]a=1;");
  parsed = parse(two_sections, 5);
  EXPECT_EQ(parsed.status, 2);
  EXPECT_EQ(shown(parsed.sections), "[]a=1;[b]x=2;");
  parsed = parse("[b]\nx = 2\n", 2);
  EXPECT_EQ(parsed.status, 0);
  EXPECT_EQ(parsed.sections, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(line, line, line));
}

TEST_P(Parser_Without_Memory, NeedsOneAllocationForEachNode) {
  Sect_Node *sections = nullptr;
  EXPECT_EQ(GetParam().run(two_sections, 7, &sections), 3);
  EXPECT_FALSE(allocation_failed());
  EXPECT_EQ(shown(Sections(sections)), "[]a=1;[b]x=2;[c]y=3;");
}

INSTANTIATE_TEST_SUITE_P(Parsers, Parser_Without_Memory,
                         testing::Values(Parser{"Parse_Conf_Cache", run_cache},
                                         Parser{"Parse_Conf_Stream", run_stream}),
                         [](const auto &instance) { return std::string(instance.param.name); });

// ------------------------------------------------------------------------------------------------------------ writing

// What a function writes to a stream.
template <typename Node>
std::string written(int (*function)(FILE *, const Node *), const Node *first, int expected_status = 0) {
  char *text = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&text, &size);
  EXPECT_EQ(function(stream, first), expected_status);
  fclose(stream);
  const Text owner(text);
  return std::string(text, size);
}

TEST(Writing, PutsOneBlankOnEachSideOfTheEqualsSign) {
  const Pairs pairs = make_pairs({{"a", "1"}, {"b", ""}, {"c key", "x = y"}});
  EXPECT_EQ(written(Write_Pair_Node, static_cast<const Pair_Node *>(pairs.get())), "a = 1\nb = \nc key = x = y\n");
}

TEST(Writing, PutsAnEmptyLineBehindEverySection) {
  const Sections sections = make_sections({{"", {{"a", "1"}}}, {"b", {{"x", "2"}, {"y", "3"}}}, {"c", {}}});
  EXPECT_EQ(written(Write_Sect_Node, static_cast<const Sect_Node *>(sections.get())),
            "a = 1\n\n[b]\nx = 2\ny = 3\n\n[c]\n\n");
}

// The empty name is written without a section line, so its pairs belong to the section above when they are read again.
TEST(Writing, AnEmptyNameHasNoSectionLineWhereverItStands) {
  const Parsed parsed = parse_cache("[a]\nx = 1\n[]\ny = 2\n");
  const std::string text = written(Write_Sect_Node, static_cast<const Sect_Node *>(parsed.sections.get()));
  EXPECT_EQ(text, "[a]\nx = 1\n\ny = 2\n\n");
  EXPECT_EQ(shown(parse_cache(text).sections), "[a]x=1;y=2;");
}

// An indented key that begins with "#", ";" or "[" does not survive: the indentation is not written.
TEST(Writing, DropsIndentation) {
  const Parsed parsed = parse_cache("[s]\n #a = 1\n [x] = 2\n");
  EXPECT_EQ(written(Write_Sect_Node, static_cast<const Sect_Node *>(parsed.sections.get())),
            "[s]\n#a = 1\n[x] = 2\n\n");
}

TEST(Writing, ReproducesSectionsAndPairsInOrderWithoutComments) {
  const Parsed parsed = parse_cache("# head\nz=1\n\n\n[b] tail\n  y\t=  2  \n;c\n[a]\nx = 3\nx = 4\n[b]\n");
  const std::string text = written(Write_Sect_Node, static_cast<const Sect_Node *>(parsed.sections.get()));
  EXPECT_EQ(text, "z = 1\n\n[b]\ny = 2\n\n[a]\nx = 3\nx = 4\n\n[b]\n\n");
  EXPECT_EQ(shown(parse_cache(text).sections), shown(parsed.sections));
}

TEST(Writing, WritesNothingForNothing) {
  EXPECT_EQ(written<Pair_Node>(Write_Pair_Node, nullptr), "");
  EXPECT_EQ(written<Sect_Node>(Write_Sect_Node, nullptr), "");
}

TEST(Writing, RefusesAMissingStream) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}});
  EXPECT_EQ(Write_Sect_Node(nullptr, sections.get()), -EINVAL);
  EXPECT_EQ(Write_Pair_Node(nullptr, sections->pairs), -EINVAL);
  EXPECT_EQ(Write_Sect_Node(nullptr, nullptr), -EINVAL);
  EXPECT_EQ(Write_Pair_Node(nullptr, nullptr), -EINVAL);
}

TEST(Writing, PassesOverPairsWithoutValue) {
  const Sections sections = make_sections({{"a", {{"k", "1"}, {"gone", std::nullopt}, {"l", "2"}}}});
  EXPECT_EQ(written(Write_Sect_Node, static_cast<const Sect_Node *>(sections.get())), "[a]\nk = 1\nl = 2\n\n");
}

TEST(Writing, LeavesStreamErrorsInTheStream) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}});
  const Stream full(fopen("/dev/full", "w"));
  ASSERT_NE(full, nullptr);
  setvbuf(full.get(), nullptr, _IONBF, 0);
  EXPECT_EQ(Write_Sect_Node(full.get(), sections.get()), 0);
  EXPECT_NE(ferror(full.get()), 0);
  clearerr(full.get());
  EXPECT_EQ(Write_Pair_Node(full.get(), sections->pairs), 0);
  EXPECT_NE(ferror(full.get()), 0);
}

}  // namespace
}  // namespace tarn::test
