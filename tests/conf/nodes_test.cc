#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/conf/chains.h"
#include "tests/conf/number_cases.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Pair_Node *const no_pairs = nullptr;
Sect_Node *const no_sections = nullptr;

Sect_Node *not_a_section() {
  return reinterpret_cast<Sect_Node *>(8);
}
Pair_Node *not_a_pair() {
  return reinterpret_cast<Pair_Node *>(8);
}

// ------------------------------------------------------------------------------------------------ creation and release

TEST(Pair_Creation, HoldsBothTextsInOneAllocationTheValueRightBehindTheKey) {
  Pair_Node *pair = not_a_pair();
  ASSERT_EQ(Create_Pair_Node(&pair, "key", "some value"), 0);
  const Pairs owner(pair);
  EXPECT_EQ(pair->next, nullptr);
  EXPECT_STREQ(pair->key, "key");
  EXPECT_STREQ(pair->value, "some value");
  EXPECT_EQ(pair->value, pair->key + strlen("key") + 1);
  EXPECT_EQ(offsetof(Pair_Node, key), 16u);
}

TEST(Pair_Creation, TakesEmptyTexts) {
  Pair_Node *pair = nullptr;
  ASSERT_EQ(Create_Pair_Node(&pair, "", ""), 0);
  EXPECT_EQ(shown(Pairs(pair)), "=;");
}

TEST(Pair_Creation, CopiesItsTexts) {
  char key[] = "key", value[] = "value";
  Pair_Node *pair = nullptr;
  ASSERT_EQ(Create_Pair_Node(&pair, key, value), 0);
  key[0] = value[0] = 'X';
  EXPECT_EQ(shown(Pairs(pair)), "key=value;");
}

TEST(Pair_Creation, RefusesAMissingArgument) {
  Pair_Node *pair = nullptr;
  EXPECT_EQ(Create_Pair_Node(nullptr, "key", "value"), -EINVAL);
  EXPECT_EQ(Create_Pair_Node(&pair, nullptr, "value"), -EINVAL);
  EXPECT_EQ(Create_Pair_Node(&pair, "key", nullptr), -EINVAL);
  EXPECT_EQ(Create_Integer_Pair_Node(nullptr, "key", 1), -EINVAL);
  EXPECT_EQ(Create_Integer_Pair_Node(&pair, nullptr, 1), -EINVAL);
}

TEST(Pair_Creation, WithoutMemoryIsAStatusAndNoNode) {
  Pair_Node *pair = not_a_pair();
  int status;
  {
    Allocation_Failure failure(1);
    status = Create_Pair_Node(&pair, "key", "value");
  }
  EXPECT_EQ(status, -ENOMEM);
  EXPECT_EQ(pair, nullptr);
  pair = not_a_pair();
  {
    Allocation_Failure failure(1);
    status = Create_Integer_Pair_Node(&pair, "key", 5);
  }
  EXPECT_EQ(status, -ENOMEM);
  EXPECT_EQ(pair, nullptr);
}

TEST(Pair_Creation, MakesOneAllocation) {
  Pair_Node *pair = nullptr;
  const int allocations = with_each_allocation_failing([&] { return Create_Pair_Node(&pair, "key", "value"); },
                                                       [](int status, int) { EXPECT_EQ(status, -ENOMEM); });
  const Pairs owner(pair);
  EXPECT_EQ(allocations, 1);
}

TEST(Integer_Pair_Creation, WritesTheNumberInDecimal) {
  const std::pair<int64_t, const char *> numbers[] = {
      {0, "0"}, {-7, "-7"}, {INT64_MAX, "9223372036854775807"}, {INT64_MIN, "-9223372036854775808"}};
  for (const auto &[number, text] : numbers) {
    Pair_Node *pair = nullptr;
    ASSERT_EQ(Create_Integer_Pair_Node(&pair, "n", number), 0);
    const Pairs owner(pair);
    EXPECT_STREQ(pair->value, text);
    EXPECT_EQ(pair->next, nullptr);
  }
}

TEST(Section_Creation, HasNoPairsAndNoNext) {
  Sect_Node *section = not_a_section();
  ASSERT_EQ(Create_Sect_Node(&section, "name"), 0);
  const Sections owner(section);
  EXPECT_EQ(section->next, nullptr);
  EXPECT_EQ(section->pairs, nullptr);
  EXPECT_STREQ(section->name, "name");
  EXPECT_EQ(offsetof(Sect_Node, name), 16u);
}

// A record's new name is written into the node where it stands, so a short name must leave room for a long one.
TEST(Section_Creation, LeavesRoomForANameOf127Bytes) {
  Sect_Node *section = nullptr;
  ASSERT_EQ(Create_Sect_Node(&section, "m"), 0);
  const Sections owner(section);
  ASSERT_GE(malloc_usable_size(section), offsetof(Sect_Node, name) + 128);
  memset(section->name, 'x', 127);
  section->name[127] = '\0';
  EXPECT_EQ(strlen(section->name), 127u);
}

TEST(Section_Creation, KeepsALongNameWhole) {
  const std::string name(5000, 'n');
  Sect_Node *section = nullptr;
  ASSERT_EQ(Create_Sect_Node(&section, name.c_str()), 0);
  const Sections owner(section);
  EXPECT_EQ(section->name, name);
}

TEST(Section_Creation, RefusesAMissingArgument) {
  Sect_Node *section = nullptr;
  EXPECT_EQ(Create_Sect_Node(nullptr, "name"), -EINVAL);
  EXPECT_EQ(Create_Sect_Node(&section, nullptr), -EINVAL);
}

TEST(Section_Creation, WithoutMemoryIsAStatusAndNoNode) {
  Sect_Node *section = not_a_section();
  int status;
  {
    Allocation_Failure failure(1);
    status = Create_Sect_Node(&section, "name");
  }
  EXPECT_EQ(status, -ENOMEM);
  EXPECT_EQ(section, nullptr);
}

TEST(Release, IgnoresNothing) {
  Free_Pair_Node(nullptr);
  Free_Sect_Node(nullptr);
}

// Recursion would need a stack as deep as the chain is long.
TEST(Release, FreesChainsOf300000Nodes) {
  Pair_Node *pairs = nullptr;
  Sect_Node *sections = nullptr;
  for (int i = 0; i < 300000; ++i) {
    Pair_Node *pair = new_pair({"k", "v"});
    pair->next = pairs;
    pairs = pair;
    auto *section = static_cast<Sect_Node *>(calloc(1, sizeof(Sect_Node) + 8));
    section->next = sections;
    sections = section;
  }
  sections->pairs = pairs;
  Free_Sect_Node(sections);
}

// --------------------------------------------------------------------------------------------------- lookup in pairs

TEST(Pair_Lookup, PointsIntoTheFirstPairOfTheKey) {
  const Pairs pairs = make_pairs({{"a", "1"}, {"k", "first"}, {"k", "second"}});
  const char *value = nullptr;
  ASSERT_EQ(Get_Pair_String_Buffer(pairs.get(), "k", &value), 0);
  EXPECT_EQ(value, pairs->next->value);
}

TEST(Pair_Lookup, ComparesKeysExactly) {
  const Pairs pairs = make_pairs({{"Key", "1"}, {"keys", "2"}, {"ke", "3"}, {" key", "4"}});
  const char *value = nullptr;
  EXPECT_EQ(Get_Pair_String_Buffer(pairs.get(), "key", &value), -ENODATA);
}

TEST(Pair_Lookup, RefusesAMissingArgumentAndAnEmptyChain) {
  const Pairs pairs = make_pairs({{"k", "1"}});
  const char *value = nullptr;
  char buffer[8];
  int size = sizeof buffer;
  int64_t wide;
  int32_t number;
  int16_t half;
  int8_t byte;
  EXPECT_EQ(Get_Pair_String_Buffer(nullptr, "k", &value), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Buffer(pairs.get(), nullptr, &value), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Buffer(pairs.get(), "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Value(nullptr, "k", buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), nullptr, buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", nullptr, &size), -EINVAL);
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, nullptr), -EINVAL);
  EXPECT_EQ(Get_Pair_Int64_Value(nullptr, "k", &wide), -EINVAL);
  EXPECT_EQ(Get_Pair_Int64_Value(pairs.get(), nullptr, &wide), -EINVAL);
  EXPECT_EQ(Get_Pair_Int64_Value(pairs.get(), "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Pair_Int32_Value(nullptr, "k", &number), -EINVAL);
  EXPECT_EQ(Get_Pair_Int32_Value(pairs.get(), nullptr, &number), -EINVAL);
  EXPECT_EQ(Get_Pair_Int32_Value(pairs.get(), "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Pair_Int16_Value(nullptr, "k", &half), -EINVAL);
  EXPECT_EQ(Get_Pair_Int16_Value(pairs.get(), nullptr, &half), -EINVAL);
  EXPECT_EQ(Get_Pair_Int16_Value(pairs.get(), "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Pair_Int8_Value(nullptr, "k", &byte), -EINVAL);
  EXPECT_EQ(Get_Pair_Int8_Value(pairs.get(), nullptr, &byte), -EINVAL);
  EXPECT_EQ(Get_Pair_Int8_Value(pairs.get(), "k", nullptr), -EINVAL);
  EXPECT_EQ(size, static_cast<int>(sizeof buffer));
}

TEST(Pair_Lookup, AValueOfNoneCountsAsAbsent) {
  const Pairs pairs = make_pairs({{"k", std::nullopt}});
  const char *value = nullptr;
  char buffer[8];
  int size = sizeof buffer;
  int64_t number = 0;
  EXPECT_EQ(Get_Pair_String_Buffer(pairs.get(), "k", &value), -ENODATA);
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), -ENODATA);
  EXPECT_EQ(Get_Pair_Int64_Value(pairs.get(), "k", &number), -ENODATA);
}

TEST(Pair_String, SizeReportsTheLengthPlusOne) {
  const Pairs pairs = make_pairs({{"k", "value"}});
  char buffer[16] = "";
  int size = sizeof buffer;
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), 0);
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(size, 6);
}

TEST(Pair_String, OneByteMoreThanTheLengthIsEnough) {
  const Pairs pairs = make_pairs({{"k", "value"}});
  char buffer[7] = "######";
  int size = 6;
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), 0);
  EXPECT_STREQ(buffer, "value");
  EXPECT_EQ(buffer[6], '\0');
}

class Pair_String_Too_Small : public testing::TestWithParam<int> {};

TEST_P(Pair_String_Too_Small, CopiesNothingAndReportsTheSizeNeeded) {
  const Pairs pairs = make_pairs({{"k", "value"}});
  char buffer[8] = "#######";
  int size = GetParam();
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(size, 6);
  EXPECT_STREQ(buffer, "#######");
}

INSTANTIATE_TEST_SUITE_P(Sizes, Pair_String_Too_Small, testing::Values(5, 4, 1, 0, -1, INT_MIN));

TEST(Pair_String, AnEmptyValueNeedsOneByte) {
  const Pairs pairs = make_pairs({{"k", ""}});
  char buffer[2] = "#";
  int size = 0;
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(size, 1);
  EXPECT_STREQ(buffer, "#");
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "k", buffer, &size), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(size, 1);
}

TEST(Pair_String, AMissingKeyLeavesSizeAndBuffer) {
  const Pairs pairs = make_pairs({{"k", "value"}});
  char buffer[4] = "###";
  int size = 3;
  EXPECT_EQ(Get_Pair_String_Value(pairs.get(), "x", buffer, &size), -ENODATA);
  EXPECT_EQ(size, 3);
  EXPECT_STREQ(buffer, "###");
}

class Number_Lookup : public testing::TestWithParam<Number_Case> {};

TEST_P(Number_Lookup, StoresTheValueCutToTheWidthAndReportsWhatIsOutOfRange) {
  const Number_Case &number = GetParam();
  const Sections sections = make_sections({{"s", {{"k", number.text}}}});
  const Pair_Node *pairs = sections->pairs;
  Number_Outputs stored;
  EXPECT_EQ(Get_Pair_Int64_Value(pairs, "k", &stored.wide), 0);
  EXPECT_EQ(Get_Pair_Int32_Value(pairs, "k", &stored.word), number.status32);
  EXPECT_EQ(Get_Pair_Int16_Value(pairs, "k", &stored.half), number.status16);
  EXPECT_EQ(Get_Pair_Int8_Value(pairs, "k", &stored.byte), number.status8);
  stored.expect(number);

  stored = {};
  EXPECT_EQ(Get_Conf_Int64_Value(sections.get(), "s", "k", &stored.wide), 0);
  EXPECT_EQ(Get_Conf_Int32_Value(sections.get(), "s", "k", &stored.word), number.status32);
  EXPECT_EQ(Get_Conf_Int16_Value(sections.get(), "s", "k", &stored.half), number.status16);
  EXPECT_EQ(Get_Conf_Int8_Value(sections.get(), "s", "k", &stored.byte), number.status8);
  stored.expect(number);
}

INSTANTIATE_TEST_SUITE_P(Numbers, Number_Lookup, testing::ValuesIn(number_cases));

TEST(Number_Lookup_Without_The_Key, LeavesTheOutput) {
  const Pairs pairs = make_pairs({{"k", "1"}});
  int64_t wide = 42;
  int32_t word = 42;
  int16_t half = 42;
  int8_t byte = 42;
  EXPECT_EQ(Get_Pair_Int64_Value(pairs.get(), "x", &wide), -ENODATA);
  EXPECT_EQ(Get_Pair_Int32_Value(pairs.get(), "x", &word), -ENODATA);
  EXPECT_EQ(Get_Pair_Int16_Value(pairs.get(), "x", &half), -ENODATA);
  EXPECT_EQ(Get_Pair_Int8_Value(pairs.get(), "x", &byte), -ENODATA);
  EXPECT_EQ(wide, 42);
  EXPECT_EQ(word, 42);
  EXPECT_EQ(half, 42);
  EXPECT_EQ(byte, 42);
}

// --------------------------------------------------------------------------------------------------- update of pairs

int set(Pairs &pairs, const char *key, const char *value) {
  Pair_Node *first = pairs.release();
  const int status = Set_Pair_String_Value(&first, key, value);
  pairs.reset(first);
  return status;
}

TEST(Pair_Update, RefusesAMissingHolderOrKey) {
  Pairs pairs = make_pairs({{"k", "1"}});
  EXPECT_EQ(Set_Pair_String_Value(nullptr, "k", "2"), -EINVAL);
  EXPECT_EQ(set(pairs, nullptr, "2"), -EINVAL);
  EXPECT_EQ(Set_Pair_Integer_Value(nullptr, "k", 2), -EINVAL);
  Pair_Node *none = nullptr;
  EXPECT_EQ(Set_Pair_Integer_Value(&none, nullptr, 2), -EINVAL);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(shown(pairs), "k=1;");
}

TEST(Pair_Update, AppendsAMissingKeyAtTheEnd) {
  Pairs pairs;
  EXPECT_EQ(set(pairs, "a", "1"), 0);
  EXPECT_EQ(set(pairs, "b", ""), 0);
  EXPECT_EQ(set(pairs, "c", "3"), 0);
  EXPECT_EQ(shown(pairs), "a=1;b=;c=3;");
}

TEST(Pair_Update, AShorterOrEqualValueIsWrittenInPlace) {
  Pairs pairs = make_pairs({{"a", "1"}, {"k", "abcdef"}, {"z", "3"}});
  const Pair_Node *node = pairs->next;
  EXPECT_EQ(set(pairs, "k", "ABCDEF"), 0);
  EXPECT_EQ(pairs->next, node);
  EXPECT_EQ(set(pairs, "k", "xy"), 0);
  EXPECT_EQ(pairs->next, node);
  EXPECT_EQ(shown(pairs), "a=1;k=xy;z=3;");
  EXPECT_EQ(set(pairs, "k", ""), 0);
  EXPECT_EQ(pairs->next, node);
  EXPECT_EQ(shown(pairs), "a=1;k=;z=3;");
}

TEST(Pair_Update, ALongerValueTakesANewNodeAtTheSamePlace) {
  Pairs pairs = make_pairs({{"a", "1"}, {"k", "2"}, {"z", "3"}});
  const Pair_Node *old = pairs->next, *behind = old->next;
  EXPECT_EQ(set(pairs, "k", "longer"), 0);
  EXPECT_NE(pairs->next, old);
  EXPECT_EQ(pairs->next->next, behind);
  EXPECT_EQ(shown(pairs), "a=1;k=longer;z=3;");
}

TEST(Pair_Update, ALongerValueReplacesTheFirstNodeOfTheChain) {
  Pairs pairs = make_pairs({{"k", "2"}, {"z", "3"}});
  EXPECT_EQ(set(pairs, "k", "longer"), 0);
  EXPECT_EQ(shown(pairs), "k=longer;z=3;");
}

// What counts is the text that is there, not the room that it once had.
TEST(Pair_Update, AfterAShrinkALongerValueTakesANewNode) {
  Pairs pairs = make_pairs({{"k", "abcdef"}});
  EXPECT_EQ(set(pairs, "k", "ab"), 0);
  const Pair_Node *old = pairs.get();
  EXPECT_EQ(set(pairs, "k", "abcd"), 0);
  EXPECT_NE(pairs.get(), old);
  EXPECT_EQ(shown(pairs), "k=abcd;");
}

TEST(Pair_Update, AValueOfNoneRemovesTheKeyAlone) {
  Pairs pairs = make_pairs({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  EXPECT_EQ(set(pairs, "b", nullptr), 0);
  EXPECT_EQ(shown(pairs), "a=1;c=3;");
  EXPECT_EQ(set(pairs, "a", nullptr), 0);
  EXPECT_EQ(shown(pairs), "c=3;");
  EXPECT_EQ(set(pairs, "c", nullptr), 0);
  EXPECT_EQ(pairs, nullptr);
}

TEST(Pair_Update, RemovingAMissingKeyChangesNothing) {
  Pairs pairs = make_pairs({{"a", "1"}});
  EXPECT_EQ(set(pairs, "x", nullptr), 0);
  EXPECT_EQ(shown(pairs), "a=1;");
  Pairs none;
  EXPECT_EQ(set(none, "x", nullptr), 0);
  EXPECT_EQ(none, nullptr);
}

TEST(Pair_Update, ReachesTheFirstOfARepeatedKeyOnly) {
  Pairs pairs = make_pairs({{"k", "1"}, {"k", "2"}});
  EXPECT_EQ(set(pairs, "k", "first"), 0);
  EXPECT_EQ(shown(pairs), "k=first;k=2;");
  EXPECT_EQ(set(pairs, "k", nullptr), 0);
  EXPECT_EQ(shown(pairs), "k=2;");
}

TEST(Pair_Update, TakesTheStoredTextItselfAsValue) {
  Pairs pairs = make_pairs({{"k", "hello world"}});
  const char *value = nullptr;
  ASSERT_EQ(Get_Pair_String_Buffer(pairs.get(), "k", &value), 0);
  EXPECT_EQ(set(pairs, "k", value), 0);
  EXPECT_EQ(shown(pairs), "k=hello world;");
  EXPECT_EQ(set(pairs, "k", value + 1), 0);
  EXPECT_EQ(shown(pairs), "k=ello world;");
  EXPECT_EQ(set(pairs, "k", value + 5), 0);
  EXPECT_EQ(shown(pairs), "k=world;");
  EXPECT_EQ(set(pairs, "k", value + 5), 0);
  EXPECT_EQ(shown(pairs), "k=;");
}

TEST(Pair_Update, TakesTheNodesOwnKeyAsKeyAndValue) {
  Pairs pairs = make_pairs({{"a", "1"}, {"long key", "2"}});
  EXPECT_EQ(set(pairs, pairs->next->key, pairs->next->key), 0);
  EXPECT_EQ(shown(pairs), "a=1;long key=long key;");
  EXPECT_EQ(set(pairs, pairs->next->key, nullptr), 0);
  EXPECT_EQ(shown(pairs), "a=1;");
}

TEST(Pair_Update, GivesAValueToAPairThatHasNone) {
  Pairs pairs = make_pairs({{"a", "1"}, {"k", std::nullopt}, {"z", "3"}});
  EXPECT_EQ(set(pairs, "k", "2"), 0);
  const char *value = nullptr;
  ASSERT_EQ(Get_Pair_String_Buffer(pairs.get(), "k", &value), 0);
  EXPECT_STREQ(value, "2");
}

TEST(Pair_Update, TakesTextsThatAFileCouldNotHold) {
  Pairs pairs;
  EXPECT_EQ(set(pairs, "a\nb]", "1\n[x]"), 0);
  EXPECT_EQ(shown(pairs), "a\nb]=1\n[x];");
}

TEST(Pair_Update, WritesNumbersInDecimal) {
  const std::pair<int64_t, const char *> numbers[] = {
      {0, "k=0;"}, {-7, "k=-7;"}, {INT64_MAX, "k=9223372036854775807;"}, {INT64_MIN, "k=-9223372036854775808;"}};
  for (const auto &[number, text] : numbers) {
    Pair_Node *first = nullptr;
    ASSERT_EQ(Set_Pair_Integer_Value(&first, "k", number), 0);
    EXPECT_EQ(shown(Pairs(first)), text);
  }
}

TEST(Pair_Update, WithoutMemoryLeavesTheChainAndSaysSo) {
  Log_Capture log;
  const Pairs pairs = make_pairs({{"a", "1"}, {"k", "2"}});
  Pair_Node *first = pairs.get();
  int longer, added, number;
  {
    Allocation_Failure failure(1);
    longer = Set_Pair_String_Value(&first, "k", "longer");
  }
  {
    Allocation_Failure failure(1);
    added = Set_Pair_String_Value(&first, "new", "value");
  }
  {
    Allocation_Failure failure(1);
    number = Set_Pair_Integer_Value(&first, "number", -5);
  }
  EXPECT_EQ(longer, -ENOMEM);
  EXPECT_EQ(added, -ENOMEM);
  EXPECT_EQ(number, -ENOMEM);
  EXPECT_EQ(first, pairs.get());
  EXPECT_EQ(shown(pairs), "a=1;k=2;");
  EXPECT_THAT(log.lines(),
              ElementsAre(debug_line("Set_Pair_String_Value", "Can't create a pair node error! (-12, k, longer)"),
                          debug_line("Set_Pair_String_Value", "Can't create a pair node error! (-12, new, value)"),
                          debug_line("Set_Pair_String_Value", "Can't create a pair node error! (-12, number, -5)")));
}

TEST(Pair_Update, NeedsNoMemoryToShrinkOrRemove) {
  Pairs pairs = make_pairs({{"k", "22"}, {"z", "3"}});
  Pair_Node *first = pairs.release();
  int shrunk, removed;
  {
    Allocation_Failure failure(1);
    shrunk = Set_Pair_String_Value(&first, "k", "1");
    removed = Set_Pair_String_Value(&first, "z", nullptr);
  }
  EXPECT_FALSE(allocation_failed());
  EXPECT_EQ(shrunk, 0);
  EXPECT_EQ(removed, 0);
  EXPECT_EQ(shown(Pairs(first)), "k=1;");
}

TEST(Pair_Update, ReportsNothingAtLevelOne) {
  Log_Capture log(1);
  Pair_Node *first = nullptr;
  {
    Allocation_Failure failure(1);
    EXPECT_EQ(Set_Pair_String_Value(&first, "k", "v"), -ENOMEM);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------- lookup in sections

TEST(Section_Lookup, PointsIntoTheFirstSectionOfTheName) {
  const Sections sections = make_sections({{"", {{"k", "0"}}}, {"s", {{"k", "1"}}}, {"s", {{"k", "2"}, {"x", "3"}}}});
  const char *value = nullptr;
  ASSERT_EQ(Get_Conf_String_Pointer(sections.get(), "s", "k", &value), 0);
  EXPECT_EQ(value, sections->next->pairs->value);
  ASSERT_EQ(Get_Conf_String_Pointer(sections.get(), "", "k", &value), 0);
  EXPECT_STREQ(value, "0");
  EXPECT_EQ(Get_Conf_String_Pointer(sections.get(), "s", "x", &value), -ENODATA);
}

TEST(Section_Lookup, TellsAMissingSectionFromAMissingKey) {
  const Sections sections = make_sections({{"empty", {}}, {"s", {{"k", "1"}}}});
  const char *value = nullptr;
  char buffer[8] = "#";
  int size = 5;
  int64_t wide = 42;
  int32_t word = 42;
  int16_t half = 42;
  int8_t byte = 42;
  const struct {
    const char *section, *key;
    int status;
  } cases[] = {{"S", "k", -ENOANO}, {"", "k", -ENOANO}, {"s", "K", -ENODATA}, {"empty", "k", -ENODATA}};
  for (const auto &[section, key, status] : cases) {
    EXPECT_EQ(Get_Conf_String_Pointer(sections.get(), section, key, &value), status);
    EXPECT_EQ(Get_Conf_String_Value(sections.get(), section, key, buffer, &size), status);
    EXPECT_EQ(Get_Conf_Int64_Value(sections.get(), section, key, &wide), status);
    EXPECT_EQ(Get_Conf_Int32_Value(sections.get(), section, key, &word), status);
    EXPECT_EQ(Get_Conf_Int16_Value(sections.get(), section, key, &half), status);
    EXPECT_EQ(Get_Conf_Int8_Value(sections.get(), section, key, &byte), status);
  }
  EXPECT_EQ(size, 5);
  EXPECT_STREQ(buffer, "#");
  EXPECT_EQ(wide, 42);
  EXPECT_EQ(word, 42);
  EXPECT_EQ(half, 42);
  EXPECT_EQ(byte, 42);
}

TEST(Section_Lookup, RefusesAMissingArgument) {
  const Sections sections = make_sections({{"s", {{"k", "1"}}}});
  const Sect_Node *first = sections.get();
  const char *value = nullptr;
  char buffer[8];
  int size = sizeof buffer;
  int64_t wide;
  int32_t word;
  int16_t half;
  int8_t byte;
  EXPECT_EQ(Get_Conf_String_Pointer(nullptr, "s", "k", &value), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Pointer(first, nullptr, "k", &value), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Pointer(first, "s", nullptr, &value), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Pointer(first, "s", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(nullptr, "s", "k", buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(first, nullptr, "k", buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(first, "s", nullptr, buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(first, "s", "k", nullptr, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(first, "s", "k", buffer, nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_Int64_Value(nullptr, "s", "k", &wide), -EINVAL);
  EXPECT_EQ(Get_Conf_Int64_Value(first, nullptr, "k", &wide), -EINVAL);
  EXPECT_EQ(Get_Conf_Int64_Value(first, "s", nullptr, &wide), -EINVAL);
  EXPECT_EQ(Get_Conf_Int64_Value(first, "s", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_Int32_Value(nullptr, "s", "k", &word), -EINVAL);
  EXPECT_EQ(Get_Conf_Int32_Value(first, "s", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_Int16_Value(nullptr, "s", "k", &half), -EINVAL);
  EXPECT_EQ(Get_Conf_Int16_Value(first, "s", "k", nullptr), -EINVAL);
  EXPECT_EQ(Get_Conf_Int8_Value(nullptr, "s", "k", &byte), -EINVAL);
  EXPECT_EQ(Get_Conf_Int8_Value(first, "s", "k", nullptr), -EINVAL);
}

TEST(Section_String, CountsTheTerminatorInTheSize) {
  const Sections sections = make_sections({{"s", {{"k", "value"}}}});
  char buffer[8] = "#######";
  int size = 5;
  EXPECT_EQ(Get_Conf_String_Value(sections.get(), "s", "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(size, 6);
  EXPECT_STREQ(buffer, "#######");
  EXPECT_EQ(Get_Conf_String_Value(sections.get(), "s", "k", buffer, &size), 0);
  EXPECT_EQ(size, 6);
  EXPECT_STREQ(buffer, "value");
  size = -1;
  EXPECT_EQ(Get_Conf_String_Value(sections.get(), "s", "k", buffer, &size), -EOVERFLOW);
  EXPECT_EQ(size, 6);
}

TEST(Section_Lookup, AValueOfNoneCountsAsAbsent) {
  const Sections sections = make_sections({{"s", {{"k", std::nullopt}}}});
  const char *value = nullptr;
  EXPECT_EQ(Get_Conf_String_Pointer(sections.get(), "s", "k", &value), -ENODATA);
}

// ------------------------------------------------------------------------------------------------- update of sections

TEST(Section_Update, RefusesAMissingArgument) {
  const Sections sections = make_sections({{"s", {{"k", "1"}}}});
  EXPECT_EQ(Set_Conf_String_Value(nullptr, "s", "k", "2"), -EINVAL);
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), nullptr, "k", "2"), -EINVAL);
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", nullptr, "2"), -EINVAL);
  EXPECT_EQ(Set_Conf_Integer_Value(nullptr, "s", "k", 2), -EINVAL);
  EXPECT_EQ(Set_Conf_Integer_Value(sections.get(), nullptr, "k", 2), -EINVAL);
  EXPECT_EQ(Set_Conf_Integer_Value(sections.get(), "s", nullptr, 2), -EINVAL);
  EXPECT_EQ(shown(sections), "[s]k=1;");
}

TEST(Section_Update, SetsReplacesAndRemovesInTheFirstSectionOfTheName) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}, {"s", {{"k", "2"}}}, {"s", {{"k", "3"}}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", "k", "longer"), 0);
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", "new", "4"), 0);
  EXPECT_EQ(Set_Conf_Integer_Value(sections.get(), "a", "k", INT64_MIN), 0);
  EXPECT_EQ(shown(sections), "[a]k=-9223372036854775808;[s]k=longer;new=4;[s]k=3;");
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", "k", nullptr), 0);
  EXPECT_EQ(shown(sections), "[a]k=-9223372036854775808;[s]new=4;[s]k=3;");
}

TEST(Section_Update, DeletingTheOnlyPairLeavesTheSection) {
  const Sections sections = make_sections({{"s", {{"k", "1"}}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", "k", nullptr), 0);
  EXPECT_EQ(shown(sections), "[s]");
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "s", "k", "again"), 0);
  EXPECT_EQ(shown(sections), "[s]k=again;");
}

TEST(Section_Update, AppendsAMissingSectionAtTheEnd) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}, {"b", {}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "c", "k", "2"), 0);
  EXPECT_EQ(Set_Conf_Integer_Value(sections.get(), "d", "n", -3), 0);
  EXPECT_EQ(shown(sections), "[a]k=1;[b][c]k=2;[d]n=-3;");
}

// The chain's holder is not known here, so even the nameless section goes to the end.
TEST(Section_Update, AppendsTheNamelessSectionAtTheEnd) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "", "k", "2"), 0);
  EXPECT_EQ(shown(sections), "[a]k=1;[]k=2;");
}

TEST(Section_Update, RemovingFromAMissingSectionChangesNothing) {
  const Sections sections = make_sections({{"a", {{"k", "1"}}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "x", "k", nullptr), 0);
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), "a", "x", nullptr), 0);
  EXPECT_EQ(shown(sections), "[a]k=1;");
}

TEST(Section_Update, WithoutMemoryLeavesTheChainAndSaysSo) {
  Log_Capture log;
  const Sections sections = make_sections({{"s", {{"k", "1"}}}});
  const auto expect_failure = [&](int status, int) {
    EXPECT_EQ(status, -ENOMEM);
    EXPECT_EQ(shown(sections), "[s]k=1;");
  };
  const int in_section = with_each_allocation_failing(
      [&] { return Set_Conf_String_Value(sections.get(), "s", "k", "longer"); }, expect_failure);
  ASSERT_EQ(Set_Conf_String_Value(sections.get(), "s", "k", "1"), 0);
  const int new_section =
      with_each_allocation_failing([&] { return Set_Conf_Integer_Value(sections.get(), "t", "n", 5); }, expect_failure);
  EXPECT_EQ(in_section, 1);
  EXPECT_EQ(new_section, 2);
  EXPECT_EQ(shown(sections), "[s]k=1;[t]n=5;");
  EXPECT_THAT(log.lines(),
              ElementsAre(debug_line("Set_Pair_String_Value", "Can't create a pair node error! (-12, k, longer)"),
                          debug_line("Set_Conf_String_Value", "Can't create a pair node error! (-12, n, 5)"),
                          debug_line("Set_Conf_String_Value", "Can'r create a sect node error! (-12, t)")));
}

TEST(Section_Update, TakesTextsOfItsOwnNodes) {
  const Sections sections = make_sections({{"s", {{"key", "value"}}}});
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), sections->name, sections->pairs->key, sections->pairs->value + 2), 0);
  EXPECT_EQ(shown(sections), "[s]key=lue;");
  EXPECT_EQ(Set_Conf_String_Value(sections.get(), sections->pairs->key, sections->pairs->key, sections->name), 0);
  EXPECT_EQ(shown(sections), "[s]key=lue;[key]key=s;");
}

TEST(Arguments, AreCheckedOnNothingToo) {
  char buffer[4];
  int size = 4;
  EXPECT_EQ(Get_Pair_String_Value(no_pairs, nullptr, buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Conf_String_Value(no_sections, nullptr, nullptr, nullptr, nullptr), -EINVAL);
}

}  // namespace
}  // namespace tarn::test
