#include "fuzz/support/lines.h"

#include <algorithm>

namespace tarn::fuzz {

Lines lines_of(const std::string &text) {
  Lines lines;
  for (size_t begin = 0; begin < text.size() || lines.empty();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    lines.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::string text_of(const Lines &lines) {
  std::string text;
  for (const std::string &line : lines) text += line + "\n";
  return text;
}

std::string trimmed(std::string text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.erase(0, 1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.pop_back();
  return text;
}

bool is_section_line(const std::string &line) {
  return line.starts_with('[') && line.find(']') != line.npos;
}

}  // namespace tarn::fuzz
