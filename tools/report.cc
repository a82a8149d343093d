#include "report.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace tool {

namespace {

// The library's own meaning of a code where the system's text would mislead.
std::string reason_of(int status) {
  switch (-status) {
    case ENOANO:
      return "no such section or member";
    case ENODATA:
      return "no such key";
    case ENOLCK:
      return "another program holds its lock";
    default:
      return status < 0 ? std::strerror(-status) : "the platform's own code";
  }
}

}  // namespace

void check(int status, const std::string &what) {
  if (status == 0) return;
  throw Failure(what + ": " + reason_of(status) + " (" + std::to_string(status) + ")");
}

void print_json(const Json &json) {
  std::cout << json_object_to_json_string_ext(json.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE)
            << "\n";
}

void print_table(const std::vector<std::string> &titles, const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const std::string &title : titles) widths.push_back(title.size());
  for (const auto &row : rows) {
    for (size_t column = 0; column < row.size(); ++column)
      widths[column] = std::max(widths[column], row[column].size());
  }
  const auto print_row = [&](const std::vector<std::string> &row) {
    for (size_t column = 0; column < row.size(); ++column) {
      const bool last = column + 1 == row.size();
      std::cout << row[column] << (last ? "\n" : std::string(widths[column] - row[column].size() + 2, ' '));
    }
  };
  print_row(titles);
  for (const auto &row : rows) print_row(row);
}

}  // namespace tool
