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

void print_reply(int status, char *reply_text, const std::string &what, bool as_json) {
  const Text reply(reply_text);
  check(status, what);
  const Json object(json_tokener_parse(reply ? reply.get() : ""));
  if (as_json && object) {
    print_json(object);
    return;
  }
  json_object *received = nullptr;
  if (json_object_object_get_ex(object.get(), "received", &received)) {
    std::cout << json_object_get_string(received) << "\n";
  }
}

void check_reply(int status, char *reply, const std::string &what, bool as_json) {
  Text owner(reply);
  check(status, what);
  const Json object(json_tokener_parse(reply != nullptr ? reply : ""));
  json_object *code = nullptr;
  if (json_object_object_get_ex(object.get(), "return", &code)) check(json_object_get_int(code), what);
  print_reply(0, owner.release(), what, as_json);
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
