// One value set in any text, and read back: the file is what a model of lines says, to the byte. The input is
//
//     SECTION\|KEY\|VALUE\|TEXT@
//
// where "\\" stands for a backslash in the first three and the last byte holds the options below ("@": none of them).
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/support/lines.h"
#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::fuzz {
namespace {

using Maybe = std::optional<std::string>;

enum Options {
  no_section = 1,    // the section is not given
  removes_key = 2,   // the value is not given
  file_missing = 4,  // there is no file
  file_private = 8,  // the file's mode is 0600, not 0644
};

struct Request {
  Maybe section;
  std::string key;
  Maybe value;

  std::string section_name() const { return section.value_or(""); }
  std::string line() const { return key + " = " + *value; }
};

const char *pointer(const Maybe &text) {
  return text ? text->c_str() : nullptr;
}

// --------------------------------------------------------------------------------------------------- a model of lines

bool is_line_of_key(const std::string &line, const std::string &key) {
  const size_t equals = line.find('=');
  return equals != line.npos && std::string_view("#;[").find(line.front()) == std::string_view::npos &&
         trimmed(line.substr(0, equals)) == key;
}

struct Place {
  size_t begin = 0;  // of the section's lines
  size_t end = 0;
  std::optional<size_t> key;
};

std::optional<Place> find(const Lines &lines, const std::string &section, const std::string &key) {
  Place place;
  if (!section.empty()) {
    while (place.begin < lines.size() && !lines[place.begin].starts_with("[" + section + "]")) ++place.begin;
    if (place.begin == lines.size()) return {};
    ++place.begin;
  }
  place.end = place.begin;
  for (; place.end < lines.size() && !is_section_line(lines[place.end]); ++place.end) {
    if (!place.key && is_line_of_key(lines[place.end], key)) place.key = place.end;
  }
  return place;
}

// From the first line that is not empty to the last one.
Lines without_empty_ends(Lines lines) {
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  while (!lines.empty() && lines.front().empty()) lines.erase(lines.begin());
  return lines;
}

struct Outcome {
  int status;
  Maybe file;
};

Outcome add_key(const Lines &lines, const Place &place, const Request &request) {
  const auto middle = lines.begin() + static_cast<std::ptrdiff_t>(place.end);
  Lines above = without_empty_ends({lines.begin(), middle});
  if (above.empty()) above.push_back("");  // a text without any line above begins with an empty one
  return {0, text_of(above) + request.line() + "\n\n" + text_of({middle, lines.end()})};
}

Outcome add_section(const Lines &lines, const Request &request) {
  Lines changed = without_empty_ends(lines);
  if (!changed.empty()) changed.push_back("");
  changed.push_back("[" + request.section_name() + "]");
  changed.push_back(request.line());
  return {0, text_of(changed)};
}

Outcome change_key(Lines lines, size_t line, const Request &request) {
  if (request.value) {
    lines[line] = request.line();
  } else {
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(line));
  }
  return {0, text_of(lines)};
}

bool would_break_lines(const Request &request) {
  return request.section_name().find_first_of("\n]") != std::string::npos ||
         (request.key + request.value.value_or("")).find('\n') != std::string::npos;
}

Outcome expected_outcome(const Maybe &file, const Request &request) {
  if (would_break_lines(request)) return {-EINVAL, file};
  if (!file && !request.value) return {-ENOENT, file};
  if (!file) return {0, "[" + request.section_name() + "]\n" + request.line() + "\n"};
  const Lines lines = lines_of(*file);
  const std::optional<Place> place = find(lines, request.section_name(), request.key);
  if (place && place->key) return change_key(lines, *place->key, request);
  if (!request.value) return {place ? -ENODATA : -ENOANO, file};
  return place ? add_key(lines, *place, request) : add_section(lines, request);
}

struct Answer {
  int status;
  std::string value;
};

Answer expected_answer(const Maybe &file, const Request &request) {
  if (!file) return {-ENOENT, ""};
  const Lines lines = lines_of(*file);
  const std::optional<Place> place = find(lines, request.section_name(), request.key);
  if (!place) return {-ENOANO, ""};
  if (!place->key) return {-ENODATA, ""};
  const std::string &line = lines[*place->key];
  return {0, trimmed(line.substr(line.find('=') + 1))};
}

// Whether the format can hold the key and the value as they are.
bool is_readable(const Request &request) {
  return !request.key.empty() && request.key == trimmed(request.key) && request.key.find('=') == std::string::npos &&
         request.key.find_first_of("#;[") != 0 && *request.value == trimmed(*request.value);
}

// -------------------------------------------------------------------------------------------------- against the files

class Subject {
 public:
  explicit Subject(bool is_private) : mode_(is_private ? 0600 : 0644) {}

  void put(const Maybe &text);
  Maybe content() const { return test::exists(path_) ? Maybe(test::read_file(path_)) : Maybe(); }
  int set(const Request &request) const;

  // Both sizes around the value's length, and as a number.
  void require_answer(const Request &request, const Answer &expected) const;
  void require_nothing_else_is_there() const;
  void require_outcome(const Request &request, const Outcome &expected) const;

 private:
  void require_value(const Request &request, const std::string &value) const;
  void require_number(const Request &request, const std::string &value) const;

  static const test::Temporary_Folder &folder() {
    static const test::Temporary_Folder it;
    return it;
  }

  mode_t mode_;
  const std::string path_ = folder() / "x.conf";
  const char *file_ = path_.c_str();
};

void Subject::put(const Maybe &text) {
  Druvo_Really_Unlink(file_);
  if (!text) return;
  test::write_file(path_, *text);
  REQUIRE_EQUAL(chmod(file_, mode_), 0);
}

int Subject::set(const Request &request) const {
  return Set_Conf_File_String_Value(file_, pointer(request.section), request.key.c_str(), pointer(request.value));
}

void Subject::require_answer(const Request &request, const Answer &expected) const {
  char byte = '#';
  int size = 1;
  const int status = Get_Conf_File_String_Value(file_, pointer(request.section), request.key.c_str(), &byte, &size);
  if (expected.status != 0) {
    REQUIRE_EQUAL(status, expected.status);
    REQUIRE_EQUAL(size, 1);
    REQUIRE_EQUAL(byte, '#');
    return;
  }
  require_value(request, expected.value);
  require_number(request, expected.value);
}

void Subject::require_value(const Request &request, const std::string &value) const {
  const int length = static_cast<int>(value.size());
  std::vector<char> buffer(value.size() + 1, '#');
  int size = length + 1;
  REQUIRE_EQUAL(Get_Conf_File_String_Value(file_, pointer(request.section), request.key.c_str(), buffer.data(), &size),
                0);
  REQUIRE_EQUAL(size, length);
  REQUIRE_EQUAL(std::string(buffer.data(), buffer.size()), value + '\0');
  if (length == 0) return;

  std::vector<char> short_buffer(value.size(), '#');
  size = length;
  REQUIRE_EQUAL(
      Get_Conf_File_String_Value(file_, pointer(request.section), request.key.c_str(), short_buffer.data(), &size),
      -EOVERFLOW);
  REQUIRE_EQUAL(size, length);
  REQUIRE_EQUAL(std::string(short_buffer.data(), short_buffer.size()), std::string(value.size(), '#'));
}

void Subject::require_number(const Request &request, const std::string &value) const {
  int64_t number = 42;
  const int status = Get_Conf_File_Int64_Value(file_, pointer(request.section), request.key.c_str(), &number);
  const bool fits = value.size() < 32;
  REQUIRE_EQUAL(status, fits ? 0 : -EOVERFLOW);
  REQUIRE_EQUAL(number, fits ? strtoll(value.c_str(), nullptr, 10) : 42);
}

void Subject::require_nothing_else_is_there() const {
  for (const std::string &name : test::names_in(folder().path())) REQUIRE_EQUAL(name, std::string("x.conf"));
  REQUIRE(test::names_in("/var/lock").empty());
}

void Subject::require_outcome(const Request &request, const Outcome &expected) const {
  const bool was_there = test::exists(path_);
  const ino_t inode = was_there ? test::inode_of(path_) : 0;
  REQUIRE_EQUAL(set(request), expected.status);
  REQUIRE_EQUAL(content(), expected.file);
  require_nothing_else_is_there();
  if (!was_there) return;
  REQUIRE_EQUAL(test::mode_of(path_), mode_);
  if (expected.status != 0) REQUIRE_EQUAL(test::inode_of(path_), inode);
}

void check(const Maybe &file, const Request &request, bool is_private) {
  Subject subject(is_private);
  subject.put(file);
  if (!would_break_lines(request)) subject.require_answer(request, expected_answer(file, request));

  const Outcome outcome = expected_outcome(file, request);
  subject.require_outcome(request, outcome);
  if (outcome.status != 0 || !request.value) return;
  subject.require_answer(request, expected_answer(outcome.file, request));

  // A file that is made without a section begins with "[]", and what is behind that line has no name to be found by.
  const bool behind_empty_name = !file && request.section_name().empty();
  if (is_readable(request) && !behind_empty_name) subject.require_answer(request, {0, *request.value});
}

// As far as a C text reaches.
std::string c_text(const std::string &text) {
  return text.c_str();
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tarn::fuzz;
  FuzzedDataProvider input(data, size);
  const auto options = input.ConsumeIntegral<uint8_t>();
  const std::string section = c_text(input.ConsumeRandomLengthString());
  const std::string key = c_text(input.ConsumeRandomLengthString());
  const std::string value = c_text(input.ConsumeRandomLengthString());
  const std::string text = input.ConsumeRemainingBytesAsString();
  const Request request = {(options & no_section) != 0 ? Maybe() : section, key,
                           (options & removes_key) != 0 ? Maybe() : value};
  check((options & file_missing) != 0 ? Maybe() : text, request, (options & file_private) != 0);
  return 0;
}
