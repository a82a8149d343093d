// How a target says what must hold. What does not ends the run, and libFuzzer keeps the input.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <type_traits>

namespace tarn::fuzz {

[[noreturn]] void fail(const char *file, int line, const std::string &what);

// A value for a person to read; texts quoted, with their unprintable bytes escaped.
std::string shown(const std::string &text);
std::string shown(const std::optional<std::string> &text);
std::string shown(const std::map<std::string, std::string> &values);
template <typename Number, typename = std::enable_if_t<std::is_integral_v<Number>>>
std::string shown(Number number) {
  return std::to_string(number);
}

}  // namespace tarn::fuzz

#define REQUIRE(condition)                                                 \
  do {                                                                     \
    if (!(condition)) tarn::fuzz::fail(__FILE__, __LINE__, "" #condition); \
  } while (false)

// For use in this namespace, with types that have a shown().
#define REQUIRE_EQUAL(actual, expected)                                                                                \
  do {                                                                                                                 \
    const auto &actual_value = (actual);                                                                               \
    const auto &expected_value = (expected);                                                                           \
    if (!(actual_value == expected_value)) {                                                                           \
      tarn::fuzz::fail(__FILE__, __LINE__,                                                                             \
                       "" #actual ":\n  is        " + shown(actual_value) + "\n  expected  " + shown(expected_value)); \
    }                                                                                                                  \
  } while (false)
