// The grammar of one line of configuration text. Parsers, the editor of single values and the scanners of system files
// all look at lines through this.
#pragma once

#include <string_view>

namespace tarn {

// Space and tab only: a carriage return, for one, belongs to the value.
inline constexpr std::string_view blanks = " \t";

// For lines that still carry their newline.
inline constexpr std::string_view blanks_and_newline = " \t\n";

struct Conf_Line {
  enum class Kind {
    ignored,      // empty, comment, or blanks only
    section,      // name
    bad_section,  // "[" without "]"
    pair,         // name (the key, which may be empty: then it is no good pair) and value
    no_pair,      // text without "="
  };

  Kind kind = Kind::ignored;
  std::string_view name;
  std::string_view value;
};

// Without blanks at both ends.
std::string_view trim(std::string_view text, std::string_view blanks);

Conf_Line scan_line(std::string_view line, std::string_view blanks);

// Whether the line opens the section of exactly this name, which may hold a "]".
bool opens_section(std::string_view line, std::string_view name);

// Goes through the lines of a text that are ended by a newline; what is behind the last newline is no line.
class Line_Reader {
 public:
  explicit Line_Reader(std::string_view text) : text_(text) {}

  // The next line without its newline; false at the end.
  bool next(std::string_view *line);

  // The next line whose first byte is this one; the ends of the lines between are not looked for.
  bool next_that_begins_with(char first, std::string_view *line);

  // Where in the text the line that came last begins, and where the one behind it does.
  size_t begin() const { return begin_; }
  size_t end() const { return end_; }

 private:
  std::string_view text_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace tarn
