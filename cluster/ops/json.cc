#include "cluster/ops/json.h"

#include <cerrno>
#include <cstring>

namespace tarn {

Json parse_json(const char *text) {
  return Json(text != nullptr ? json_tokener_parse(text) : nullptr);
}

json_object *find_member(const json_object *object, const char *key) {
  json_object *member = nullptr;
  // Asking a value that is no object for members would be an error of its own.
  if (!json_object_is_type(object, json_type_object)) return nullptr;
  return json_object_object_get_ex(object, key, &member) != 0 ? member : nullptr;
}

const char *find_text(const json_object *object, const char *key) {
  json_object *member = find_member(object, key);
  if (!json_object_is_type(member, json_type_string)) return nullptr;
  const char *text = json_object_get_string(member);
  return strlen(text) == static_cast<size_t>(json_object_get_string_len(member)) ? text : nullptr;
}

const char *text_of(json_object *value) {
  // json-c leaves out the piece of a text for which its buffer could not grow and goes on; errno tells of it.
  errno = 0;
  const char *text = json_object_get_string(value);
  return errno == ENOMEM ? nullptr : text;
}

const char *json_text(json_object *value) {
  const char *text = json_object_to_json_string(value);
  return text != nullptr ? text : "";
}

const char *Json_Builder::serialised() const {
  return text_of(object_.get());
}

Json_Builder &Json_Builder::add(const char *key, json_object *value) {
  Json owned(value);
  // Keys are literals. json-c would lose its copy of one when the object cannot grow.
  constexpr unsigned key_stays = JSON_C_OBJECT_ADD_CONSTANT_KEY;
  if (object_ && owned && json_object_object_add_ex(object_.get(), key, value, key_stays) == 0) {
    static_cast<void>(owned.release());
  } else {
    object_.reset();
  }
  return *this;
}

}  // namespace tarn
