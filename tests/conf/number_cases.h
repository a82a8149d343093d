// What the getters of numbers make of a text; the same whether it stands in a node or in a file.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

namespace tarn::test {

struct Number_Case {
  const char *text;
  int64_t wide;  // through the 64-bit form
  int status32, status16, status8;
};

// The ranges leave out the most negative number of each width; callers depend on them.
inline constexpr Number_Case number_cases[] = {
    {"0", 0, 0, 0, 0},
    {"127", 127, 0, 0, 0},
    {"-127", -127, 0, 0, 0},
    {"128", 128, 0, 0, -EOVERFLOW},
    {"-128", -128, 0, 0, -EOVERFLOW},
    {"300", 300, 0, 0, -EOVERFLOW},
    {"32767", 32767, 0, 0, -EOVERFLOW},
    {"-32767", -32767, 0, 0, -EOVERFLOW},
    {"32768", 32768, 0, -EOVERFLOW, -EOVERFLOW},
    {"-32768", -32768, 0, -EOVERFLOW, -EOVERFLOW},
    {"2147483647", 2147483647, 0, -EOVERFLOW, -EOVERFLOW},
    {"-2147483647", -2147483647, 0, -EOVERFLOW, -EOVERFLOW},
    {"2147483648", 2147483648, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"-2147483648", -2147483648LL, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"4294967301", 4294967301, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"9223372036854775807", INT64_MAX, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"-9223372036854775808", INT64_MIN, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"99999999999999999999", INT64_MAX, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"-99999999999999999999", INT64_MIN, -EOVERFLOW, -EOVERFLOW, -EOVERFLOW},
    {"", 0, 0, 0, 0},
    {"text", 0, 0, 0, 0},
    {"12abc", 12, 0, 0, 0},
    {"12 apples", 12, 0, 0, 0},
    {"0x10", 0, 0, 0, 0},
    {"010", 10, 0, 0, 0},
    {" +5", 5, 0, 0, 0},
    {"0000000000000000000000000000005", 5, 0, 0, 0},
};

// Where the getters of all widths store.
struct Number_Outputs {
  int64_t wide = 42;
  int32_t word = 42;
  int16_t half = 42;
  int8_t byte = 42;

  // The value is stored cut to the width also when it is out of range.
  void expect(const Number_Case &number) const {
    EXPECT_EQ(wide, number.wide);
    EXPECT_EQ(word, static_cast<int32_t>(number.wide));
    EXPECT_EQ(half, static_cast<int16_t>(number.wide));
    EXPECT_EQ(byte, static_cast<int8_t>(number.wide));
  }
};

}  // namespace tarn::test
