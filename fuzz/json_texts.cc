// Any text as a reply and as a handler's argument: answered as its JSON says, whatever its JSON is. The input is
//
//     ID\|TEXT
//
// where "\\" stands for a backslash in the id.
#include <fuzzer/FuzzedDataProvider.h>
#include <json-c/json.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"

namespace tarn::fuzz {
namespace {

using Maybe = std::optional<std::string>;

struct Put {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

struct Free {
  void operator()(char *text) const { free(text); }
};
using Heap_Text = std::unique_ptr<char, Free>;

json_object *member(json_object *object, const char *key) {
  return json_object_is_type(object, json_type_object) ? json_object_object_get(object, key) : nullptr;
}

std::string content(json_object *text) {
  return {json_object_get_string(text), static_cast<size_t>(json_object_get_string_len(text))};
}

// Anything but a string that is a C text counts as missing.
Maybe text_member(json_object *object, const char *key) {
  json_object *found = member(object, key);
  if (!json_object_is_type(found, json_type_string)) return {};
  const std::string text = content(found);
  return text.find('\0') == text.npos ? Maybe(text) : Maybe();
}

void check_status(const std::string &text, json_object *object) {
  int status = 42;
  const int result = Parse_Cluster_Cmd_Status(text.c_str(), &status);
  const Maybe expected = text_member(object, "cluster_cmd_status");
  REQUIRE_EQUAL(result, object == nullptr ? -ENOMEM : expected ? 0 : -EINVAL);
  REQUIRE_EQUAL(status, expected ? static_cast<int>(strtol(expected->c_str(), nullptr, 10)) : 42);
}

// ---------------------------------------------------------------------------------------------------- result paths

struct Found {
  int status = 0;
  Maybe path;
};

std::string without_backslashes(std::string text) {
  std::erase(text, '\\');
  return text;
}

void look_at_array(json_object *array, const char *identity, const std::string &id, Found *found) {
  for (size_t index = 0; index < json_object_array_length(array) && found->status == 0; ++index) {
    json_object *element = json_object_array_get_idx(array, index);
    const Maybe element_id = text_member(element, identity);
    const Maybe path = text_member(element, "result_path");
    if (!element_id || (*element_id == id && !path)) {
      found->status = -ENOENT;
    } else if (*element_id == id) {
      found->path = without_backslashes(*path);
    }
  }
}

Found expected_path(json_object *object, const char *identity, const std::string &id) {
  Found found;
  if (object == nullptr) return {-ENOMEM, {}};
  if (!json_object_is_type(object, json_type_object)) return found;
  json_object_object_foreach(object, key, value) {
    static_cast<void>(key);
    if (found.status == 0 && json_object_is_type(value, json_type_array)) look_at_array(value, identity, id, &found);
  }
  return found;
}

void check_path(const std::string &text, json_object *object, int mode, const std::string &id) {
  char *path = nullptr;
  const int status = Parse_Result_Path(text.c_str(), mode, id.c_str(), &path);
  const Heap_Text owned(path);
  const Found expected = expected_path(object, mode == 0 ? "slave_id" : "master_id", id);
  REQUIRE_EQUAL(status, expected.status);
  REQUIRE_EQUAL(path != nullptr ? Maybe(path) : Maybe(), expected.path);
}

// ------------------------------------------------------------------------------------------------------- the handler

void check_handler(const std::string &text, json_object *object) {
  const Heap_Text reply(Tarn_Cluster_Test_Cb(text.c_str()));
  json_object *test = member(object, "Test");
  REQUIRE_EQUAL(reply != nullptr, test != nullptr);
  if (!reply) return;

  const Json echo(json_tokener_parse(reply.get()));
  REQUIRE(json_object_is_type(member(echo.get(), "return"), json_type_int));
  REQUIRE_EQUAL(json_object_get_int(member(echo.get(), "return")), 0);
  REQUIRE_EQUAL(json_object_object_length(echo.get()), 2);
  json_object *received = member(echo.get(), "received");
  REQUIRE(json_object_is_type(received, json_type_string));
  const bool is_text = json_object_is_type(test, json_type_string);
  REQUIRE_EQUAL(content(received), is_text ? content(test) : std::string(json_object_get_string(test)));
}

void check(const std::string &id, const std::string &text) {
  const Json object(json_tokener_parse(text.c_str()));
  check_status(text, object.get());
  check_path(text, object.get(), 0, id);
  check_path(text, object.get(), 1, id);
  check_handler(text, object.get());
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string id = input.ConsumeRandomLengthString();
  tarn::fuzz::check(id.c_str(), input.ConsumeRemainingBytesAsString());
  return 0;
}
