#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>

#include "include/tarncluster_util.h"

namespace {

struct Decimal {
  const char *text;
  int digits;
  int64_t value;
};

class Decimal_String_To_Integer_Of : public testing::TestWithParam<Decimal> {};

TEST_P(Decimal_String_To_Integer_Of, Counts_and_values_the_leading_digits) {
  int64_t value = 12345;

  EXPECT_EQ(Decimal_String_To_Integer(GetParam().text, &value), GetParam().digits);

  EXPECT_EQ(value, GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Decimal_String_To_Integer_Of,
    testing::Values(Decimal{"0", 1, 0}, Decimal{"7", 1, 7}, Decimal{"-7", 1, -7}, Decimal{"-12abc", 2, -12},
                    Decimal{"42 ", 2, 42}, Decimal{"12-3", 2, 12}, Decimal{"1.5", 1, 1}, Decimal{"0005", 4, 5},
                    Decimal{"-0", 1, 0}, Decimal{"0x10", 1, 0}, Decimal{"", 0, 0}, Decimal{"-", 0, 0},
                    Decimal{"-x", 0, 0}, Decimal{"abc", 0, 0}, Decimal{"--5", 0, 0}, Decimal{"+5", 0, 0},
                    Decimal{" 5", 0, 0}, Decimal{"\t5", 0, 0}, Decimal{"\xb2\xb3", 0, 0}, Decimal{"5\xff", 1, 5},
                    Decimal{"/", 0, 0}, Decimal{":", 0, 0}, Decimal{"9223372036854775807", 19, INT64_MAX},
                    Decimal{"-9223372036854775808", 19, INT64_MIN}, Decimal{"9223372036854775808", 19, INT64_MIN},
                    Decimal{"18446744073709551615", 20, -1}, Decimal{"18446744073709551616", 20, 0},
                    Decimal{"-18446744073709551617", 20, -1}, Decimal{"0000000000000000000000042", 25, 42},
                    Decimal{"1000000000000000000000000", 25, 0x1bcecceda1000000}));

TEST(Decimal_String_To_Integer, Refuses_missing_arguments) {
  int64_t value = 12345;

  EXPECT_EQ(Decimal_String_To_Integer(nullptr, &value), -EINVAL);
  EXPECT_EQ(Decimal_String_To_Integer("1", nullptr), -EINVAL);

  EXPECT_EQ(value, 12345);
}

struct Number {
  int64_t value;
  const char *text;
};

class Integer_To_Decimal_String_Of : public testing::TestWithParam<Number> {};

TEST_P(Integer_To_Decimal_String_Of, Writes_the_whole_text_whatever_the_size_says) {
  for (const int given : {1, 3, 32, INT_MAX}) {
    char buffer[40];
    memset(buffer, '#', sizeof buffer);
    int size = given;

    EXPECT_EQ(Integer_To_Decimal_String(buffer, &size, GetParam().value), 0);

    EXPECT_STREQ(buffer, GetParam().text);
    EXPECT_EQ(size, given) << "the size is only read";
    EXPECT_EQ(std::string(buffer + 32, 8), "########") << "callers give 32 bytes";
  }
}

INSTANTIATE_TEST_SUITE_P(Values, Integer_To_Decimal_String_Of,
                         testing::Values(Number{0, "0"}, Number{7, "7"}, Number{-7, "-7"}, Number{10, "10"},
                                         Number{-1000000, "-1000000"}, Number{INT64_MAX, "9223372036854775807"},
                                         Number{INT64_MIN, "-9223372036854775808"},
                                         Number{INT64_MIN + 1, "-9223372036854775807"}));

TEST(Integer_To_Decimal_String, Refuses_missing_arguments_and_sizes_below_1) {
  char buffer[40] = "untouched";
  int size = 32;
  int zero = 0;
  int negative = -1;

  EXPECT_EQ(Integer_To_Decimal_String(nullptr, &size, 1), -EINVAL);
  EXPECT_EQ(Integer_To_Decimal_String(buffer, nullptr, 1), -EINVAL);
  EXPECT_EQ(Integer_To_Decimal_String(buffer, &zero, 1), -EINVAL);
  EXPECT_EQ(Integer_To_Decimal_String(buffer, &negative, 1), -EINVAL);

  EXPECT_STREQ(buffer, "untouched");
}

TEST(Swap_Integer, Swaps_two_numbers) {
  int a = 1;
  int b = INT_MIN;

  Swap_Integer(&a, &b);

  EXPECT_EQ(a, INT_MIN);
  EXPECT_EQ(b, 1);
}

TEST(Swap_Integer, Leaves_a_number_alone_that_has_no_partner) {
  int a = 1;

  Swap_Integer(&a, nullptr);
  Swap_Integer(nullptr, &a);
  Swap_Integer(nullptr, nullptr);
  EXPECT_EQ(a, 1);

  Swap_Integer(&a, &a);
  EXPECT_EQ(a, 1);
}

constexpr uint64_t kilo = 1024;
constexpr uint64_t mega = kilo * 1024;
constexpr uint64_t giga = mega * 1024;
constexpr uint64_t tera = giga * 1024;

struct Size {
  uint64_t bytes;
  float value;
  const char *unit;
};

class Size_Unit_Conversion_Of : public testing::TestWithParam<Size> {};

TEST_P(Size_Unit_Conversion_Of, Scales_to_the_unit) {
  float value = -1;
  char unit[8] = "#######";

  EXPECT_EQ(Size_Unit_Conversion(GetParam().bytes, &value, unit, sizeof unit), 0);

  EXPECT_EQ(value, GetParam().value);
  EXPECT_STREQ(unit, GetParam().unit);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Size_Unit_Conversion_Of,
                         testing::Values(Size{0, 0, "byte"}, Size{1, 1, "byte"}, Size{1023, 1023, "byte"},
                                         // Exactly 1024 stays in the lower unit.
                                         Size{kilo, 1024, "byte"}, Size{1025, 1025 / 1024.0F, "KB"},
                                         Size{1536, 1.5F, "KB"}, Size{mega, 1024, "KB"}, Size{mega * 3 / 2, 1.5F, "MB"},
                                         Size{giga, 1024, "MB"}, Size{giga * 5 / 2, 2.5F, "GB"}, Size{tera, 1024, "GB"},
                                         Size{tera * 3 / 2, 1.5F, "TB"},
                                         // In float, as the value itself, one byte more than 2^40 is 2^40.
                                         Size{tera + 1, 1024, "GB"}, Size{tera * 1024, 1024, "TB"},
                                         Size{tera * 4096, 4096, "TB"}, Size{UINT64_MAX, 16777216, "TB"}));

struct Unit_Room {
  uint64_t bytes;
  int room;
  int status;
};

class Size_Unit_Conversion_In : public testing::TestWithParam<Unit_Room> {};

TEST_P(Size_Unit_Conversion_In, Counts_the_terminator_of_the_unit_and_sets_the_value_in_any_case) {
  float value = -1;
  char unit[8];
  memset(unit, '#', sizeof unit);
  const int room = GetParam().room;

  EXPECT_EQ(Size_Unit_Conversion(GetParam().bytes, &value, unit, room), GetParam().status);

  EXPECT_EQ(value, GetParam().bytes == 1 ? 1.0F : 2.0F);
  const size_t kept = room > 0 ? static_cast<size_t>(room) : 0;
  EXPECT_EQ(std::string(unit + kept, sizeof unit - kept), std::string(sizeof unit - kept, '#'));
}

INSTANTIATE_TEST_SUITE_P(Rooms, Size_Unit_Conversion_In,
                         testing::Values(Unit_Room{1, 5, 0}, Unit_Room{1, 4, -EOVERFLOW}, Unit_Room{2048, 3, 0},
                                         Unit_Room{2048, 2, -EOVERFLOW}, Unit_Room{2048, 0, -EOVERFLOW},
                                         Unit_Room{2048, -1, -EOVERFLOW}, Unit_Room{1, INT_MIN, -EOVERFLOW}));

TEST(Size_Unit_Conversion, Refuses_missing_outputs) {
  float value = -1;
  char unit[8] = "same";

  EXPECT_EQ(Size_Unit_Conversion(2048, nullptr, unit, sizeof unit), -EINVAL);
  EXPECT_EQ(Size_Unit_Conversion(2048, &value, nullptr, 8), -EINVAL);

  EXPECT_EQ(value, -1);
  EXPECT_STREQ(unit, "same");
}

struct Duration {
  unsigned int seconds;
  int parts[4];  // seconds, minutes, hours, days
  const char *text;
};

class Time_Unit_Conversion_Of : public testing::TestWithParam<Duration> {};

TEST_P(Time_Unit_Conversion_Of, Splits_and_spells_a_duration) {
  int parts[4] = {-1, -1, -1, -1};
  char text[64] = "";

  EXPECT_EQ(Time_Unit_Conversion(GetParam().seconds, parts, text, sizeof text), 0);

  EXPECT_EQ(std::vector<int>(parts, parts + 4), std::vector<int>(GetParam().parts, GetParam().parts + 4));
  EXPECT_STREQ(text, GetParam().text);
}

TEST_P(Time_Unit_Conversion_Of, Spells_into_the_exact_room_and_not_one_byte_less) {
  const std::string expected = GetParam().text;
  const int room = static_cast<int>(expected.size()) + 1;
  char text[64];
  memset(text, '#', sizeof text);

  EXPECT_EQ(Time_Unit_Conversion(GetParam().seconds, nullptr, text, room - 1), -EOVERFLOW);
  EXPECT_EQ(text[room - 1], '#');
  EXPECT_EQ(Time_Unit_Conversion(GetParam().seconds, nullptr, text, room), 0);
  EXPECT_EQ(text, expected);
  EXPECT_EQ(text[room], '#');
}

INSTANTIATE_TEST_SUITE_P(
    Durations, Time_Unit_Conversion_Of,
    testing::Values(Duration{0, {0, 0, 0, 0}, "0 second"}, Duration{1, {1, 0, 0, 0}, "1 second"},
                    Duration{2, {2, 0, 0, 0}, "2 seconds"}, Duration{59, {59, 0, 0, 0}, "59 seconds"},
                    Duration{60, {0, 1, 0, 0}, "1 minute 0 second"}, Duration{61, {1, 1, 0, 0}, "1 minute 1 second"},
                    Duration{120, {0, 2, 0, 0}, "2 minutes 0 second"}, Duration{3600, {0, 0, 1, 0}, "1 hour 0 second"},
                    Duration{7322, {2, 2, 2, 0}, "2 hours 2 minutes 2 seconds"},
                    Duration{86399, {59, 59, 23, 0}, "23 hours 59 minutes 59 seconds"},
                    Duration{86400, {0, 0, 0, 1}, "1 day 0 second"},
                    Duration{86460, {0, 1, 0, 1}, "1 day 1 minute 0 second"},
                    Duration{2 * 86400 + 3600, {0, 0, 1, 2}, "2 days 1 hour 0 second"},
                    Duration{UINT_MAX, {15, 28, 6, 49710}, "49710 days 6 hours 28 minutes 15 seconds"}));

TEST(Time_Unit_Conversion, Gives_either_output_alone) {
  int parts[4] = {-1, -1, -1, -1};
  char text[64] = "";

  EXPECT_EQ(Time_Unit_Conversion(61, parts, nullptr, 0), 0);
  EXPECT_EQ(Time_Unit_Conversion(61, nullptr, text, sizeof text), 0);

  EXPECT_EQ(parts[0], 1);
  EXPECT_EQ(parts[1], 1);
  EXPECT_STREQ(text, "1 minute 1 second");
}

TEST(Time_Unit_Conversion, Sets_the_parts_even_when_the_text_does_not_fit) {
  for (const int room : {8, 0, -1, INT_MIN}) {
    int parts[4] = {-1, -1, -1, -1};
    char text[16] = "###############";

    EXPECT_EQ(Time_Unit_Conversion(61, parts, text, room), -EOVERFLOW);

    EXPECT_EQ(parts[0], 1);
    EXPECT_EQ(parts[1], 1);
    EXPECT_EQ(parts[2], 0);
    EXPECT_EQ(parts[3], 0);
    EXPECT_EQ(text[room > 0 ? room : 0], '#');
  }
}

TEST(Time_Unit_Conversion, Refuses_to_work_for_nothing) {
  EXPECT_EQ(Time_Unit_Conversion(61, nullptr, nullptr, 64), -EINVAL);
}

}  // namespace
