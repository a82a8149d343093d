#include "report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "utf8.h"

namespace tool {

namespace {

// The library's and the platform's own meanings of codes, where the system's text would mislead.
constexpr struct {
  int code;
  const char *meaning;
} meanings[] = {
    {ENOANO, "no such section or member"},
    {ENODATA, "no such key"},
    {ENOLCK, "another program holds its lock"},
    {EBADSLT, "wrong password"},
    {EBADRQC, "not this appliance's to do"},
    {ECONNREFUSED, "no cluster service runs on this appliance"},
    {ENOTCONN, "this appliance is not connected to the cluster"},
    {EHOSTUNREACH, "nobody answers there"},
};

std::string reason_of(int status) {
  if (status > 0) return "the platform's own code";
  for (const auto &[code, meaning] : meanings) {
    if (code == -status) return meaning;
  }
  return std::strerror(-status);
}

void print_reply(const Json &reply, bool as_json) {
  if (as_json && reply) {
    print_json(reply);
    return;
  }
  json_object *received = nullptr;
  if (json_object_object_get_ex(reply.get(), "received", &received)) {
    std::cout << json_object_get_string(received) << "\n";
  }
}

}  // namespace

void check(int status, const std::string &what) {
  if (status == 0) return;
  throw Failure(what + ": " + reason_of(status) + " (" + std::to_string(status) + ")");
}

void need_program(const std::string &path) {
  if (access(path.c_str(), X_OK) != 0) throw Failure("needs " + path + ": " + std::strerror(errno));
}

void print_json(const Json &json) {
  constexpr int style = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
  std::cout << valid_utf8(json_object_to_json_string_ext(json.get(), style)) << "\n";
}

void print_reply(int status, char *reply_text, const std::string &what, bool as_json) {
  const Text reply(reply_text);
  check(status, what);
  print_reply(Json(json_tokener_parse(reply ? reply.get() : "")), as_json);
}

Json take_reply(int status, char *reply_text, const std::string &what) {
  const Text reply(reply_text);
  check(status, what);
  Json object(json_tokener_parse(reply ? reply.get() : ""));
  json_object *code = nullptr;
  if (json_object_object_get_ex(object.get(), "return", &code)) check(json_object_get_int(code), what);
  return object;
}

void check_reply(int status, char *reply, const std::string &what, bool as_json) {
  print_reply(take_reply(status, reply, what), as_json);
}

void print_table(const std::vector<std::string> &titles, const Rows &rows) {
  Rows lines = {titles};
  lines.insert(lines.end(), rows.begin(), rows.end());
  std::vector<size_t> widths(titles.size());
  for (auto &line : lines) {
    for (size_t column = 0; column < line.size(); ++column) {
      line[column] = printable(line[column]);
      widths[column] = std::max(widths[column], width_of(line[column]));
    }
  }
  for (const auto &line : lines) {
    for (size_t column = 0; column < line.size(); ++column) {
      const bool is_last = column + 1 == line.size();
      std::cout << line[column] << (is_last ? "\n" : std::string(widths[column] - width_of(line[column]) + 2, ' '));
    }
  }
}

}  // namespace tool
