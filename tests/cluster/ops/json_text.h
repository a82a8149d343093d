// JSON texts for tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/support/allocation_failure.h"

namespace tarn::test {

// The members of a JSON object in their order, values as JSON text without blanks: {"op_code", "5"}, {"fname",
// "\"x\""}. Throws when the text is no JSON object.
std::vector<std::pair<std::string, std::string>> json_members(const std::string &text);

std::string json_quoted(const std::string &text);  // a JSON string with that content

std::string json_nested(int levels);  // an array in an array in ..., so many of them

// What the JSON library itself makes of a text when one of its allocations fails.
enum class Parsed {
  whole,   // it has parsed the text all the same, or had done so before
  none,    // it has told
  broken,  // it has not told, but something is missing
  crashed
};
Parsed parsed_with_failure(const std::string &text, int nth);

// As with_each_allocation_failing, for a call that first parses the text. Passes over the failures that crash the JSON
// library, since nobody who calls it can survive them, and tells check what the library made of the others.
template <typename Call, typename Check>
void with_each_parse_allocation_failing(const std::string &text, Call call, Check check) {
  for (int nth = 1;; ++nth) {
    const Parsed parsed = parsed_with_failure(text, nth);
    if (parsed == Parsed::crashed) continue;
    const auto result = [&] {
      Allocation_Failure failure(nth);
      return call();
    }();
    if (!allocation_failed()) return;
    check(result, parsed, nth);
  }
}

// Whether the JSON library neither crashes nor loses something of the text, and with it memory, when this allocation
// fails.
inline bool parses_whole_or_tells(const std::string &text, int nth) {
  const Parsed parsed = parsed_with_failure(text, nth);
  return parsed == Parsed::whole || parsed == Parsed::none;
}

// As with_each_parse_allocation_failing, passing over those failures as well.
template <typename Call, typename Check>
void with_each_whole_parse_allocation_failing(const std::string &text, Call call, Check check) {
  for (int nth = 1;; ++nth) {
    if (!parses_whole_or_tells(text, nth)) continue;
    const auto result = [&] {
      Allocation_Failure failure(nth);
      return call();
    }();
    if (!allocation_failed()) return;
    check(result, nth);
  }
}

}  // namespace tarn::test
