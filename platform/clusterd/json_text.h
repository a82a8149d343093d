// JSON objects as texts; what is missing or of another type is told from what is there.
#ifndef TARN_PLATFORM_CLUSTERD_JSON_TEXT_H
#define TARN_PLATFORM_CLUSTERD_JSON_TEXT_H

#include <json-c/json.h>

#include <memory>
#include <optional>
#include <string>

namespace tarn::platform {

struct Json_Release {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Json_Release>;

// Null unless the text is an object.
inline Json parse_object(const std::string &text) {
  Json object(json_tokener_parse(text.c_str()));
  return json_object_is_type(object.get(), json_type_object) ? std::move(object) : nullptr;
}

// A text that holds a NUL would be another one for whoever takes it as a C string.
inline std::optional<std::string> text_member(json_object *object, const char *key) {
  json_object *member = nullptr;
  if (!json_object_object_get_ex(object, key, &member) || !json_object_is_type(member, json_type_string)) return {};
  std::string text(json_object_get_string(member), static_cast<size_t>(json_object_get_string_len(member)));
  if (text.find('\0') != std::string::npos) return {};
  return text;
}

inline std::optional<int> number_member(json_object *object, const char *key) {
  json_object *member = nullptr;
  if (!json_object_object_get_ex(object, key, &member) || !json_object_is_type(member, json_type_int)) return {};
  return json_object_get_int(member);
}

inline void add_text(json_object *object, const char *key, const std::string &text) {
  json_object_object_add(object, key, json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

inline void add_number(json_object *object, const char *key, int number) {
  json_object_object_add(object, key, json_object_new_int(number));
}

}  // namespace tarn::platform

#endif
