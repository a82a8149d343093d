#include "utf8.h"

#include <algorithm>

namespace tool {
namespace {

bool is_within(char c, unsigned char least, unsigned char most) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= least && byte <= most;
}

// How many bytes there are, which the first may be, and which the second: no character has two encodings, surrogates
// are none.
constexpr struct {
  size_t length;
  unsigned char first_least, first_most, second_least, second_most;
} forms[] = {
    {1, 0x00, 0x7F, 0, 0},       {2, 0xC2, 0xDF, 0x80, 0xBF}, {3, 0xE0, 0xE0, 0xA0, 0xBF},
    {3, 0xE1, 0xEC, 0x80, 0xBF}, {3, 0xED, 0xED, 0x80, 0x9F}, {3, 0xEE, 0xEF, 0x80, 0xBF},
    {4, 0xF0, 0xF0, 0x90, 0xBF}, {4, 0xF1, 0xF3, 0x80, 0xBF}, {4, 0xF4, 0xF4, 0x80, 0x8F},
};

// The character that a text begins with; empty when it begins with none.
std::string_view first_character(std::string_view text) {
  for (const auto &form : forms) {
    if (!is_within(text[0], form.first_least, form.first_most)) continue;
    if (text.size() < form.length) return {};
    if (form.length > 1 && !is_within(text[1], form.second_least, form.second_most)) return {};
    for (size_t i = 2; i < form.length; ++i) {
      if (!is_within(text[i], 0x80, 0xBF)) return {};
    }
    return text.substr(0, form.length);
  }
  return {};
}

bool is_control(std::string_view character) {
  if (character.size() == 1) return is_within(character[0], 0, 0x1F) || character[0] == 0x7F;
  return character[0] == '\xC2' && is_within(character[1], 0x80, 0x9F);
}

// What is no character, and characters that are refused, give way to the substitute.
template <typename Refuses>
std::string substitute(std::string_view text, std::string_view other, const Refuses &refuses) {
  std::string clean;
  while (!text.empty()) {
    const std::string_view character = first_character(text);
    clean += character.empty() || refuses(character) ? other : character;
    text.remove_prefix(std::max<size_t>(character.size(), 1));
  }
  return clean;
}

}  // namespace

std::string printable(std::string_view text) {
  return substitute(text, "?", is_control);
}

std::string valid_utf8(std::string_view text) {
  return substitute(text, "\uFFFD", [](std::string_view) { return false; });
}

size_t width_of(std::string_view text) {
  return static_cast<size_t>(std::ranges::count_if(text, [](char c) { return !is_within(c, 0x80, 0xBF); }));
}

}  // namespace tool
