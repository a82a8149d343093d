// Building and reading JSON texts. What comes from outside may be any JSON: a member of the wrong type counts as
// missing.
#pragma once

#include <json-c/json.h>

#include <memory>

#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {

using Json = std::unique_ptr<json_object, Give_Back<json_object_put>>;

// Null when the text is no JSON, when it is the text "null", and when memory ends.
Json parse_json(const char *text);

// A member that is there and not null, whatever its type; null otherwise.
json_object *find_member(const json_object *object, const char *key);

// A string member; null when it is missing, of another type, or cannot be a C text since it holds a NUL.
const char *find_text(const json_object *object, const char *key);

// A value's text, which lives as long as the value: a string's own, the JSON text of any other. Null when memory ended
// on the way.
const char *text_of(json_object *value);

// A value's JSON text for the log, which must not be handed a null pointer.
const char *json_text(json_object *value);

// Calls visit(element) for each element of each array among an object's members, until one does not answer 0, and
// reports each under the function's name. Tells through had_empty_array, when it is given, whether an array was empty.
template <typename Visit>
int walk_arrays(const char *function, json_object *object, const Visit &visit, bool *had_empty_array = nullptr);

// An object built member by member, with keys that outlive it. When memory ends it is incomplete, and stays so.
class Json_Builder {
 public:
  Json_Builder() : object_(json_object_new_object()) {}

  Json_Builder &number(const char *key, int value) { return add(key, json_object_new_int(value)); }
  Json_Builder &text(const char *key, const char *value) {
    return add(key, value != nullptr ? json_object_new_string(value) : nullptr);
  }
  Json_Builder &add(const char *key, json_object *value);  // takes the value over; null makes the object incomplete

  bool complete() const { return object_ != nullptr; }

  // The object; null when it is incomplete. It is the caller's, and nothing is left here.
  json_object *release() { return object_.release(); }

  // The object's text, which lives as long as the object; null when it is incomplete.
  const char *serialised() const;

 private:
  Json object_;
};

template <typename Visit>
int walk_array(const char *function, json_object *array, const Visit &visit) {
  const size_t length = json_object_array_length(array);
  TARN_DEBUG_AS(function, "Array Length: %d", static_cast<int>(length));
  for (size_t index = 0; index < length; ++index) {
    json_object *element = json_object_array_get_idx(array, index);
    TARN_DEBUG_AS(function, "value[%d]: %s", static_cast<int>(index), json_text(element));
    const int status = visit(element);
    if (status != 0) return status;
  }
  return 0;
}

template <typename Visit>
int walk_arrays(const char *function, json_object *object, const Visit &visit, bool *had_empty_array) {
  if (!json_object_is_type(object, json_type_object)) return 0;
  json_object_object_foreach(object, key, member) {
    static_cast<void>(key);
    if (!json_object_is_type(member, json_type_array)) continue;
    if (had_empty_array != nullptr && json_object_array_length(member) == 0) *had_empty_array = true;
    const int status = walk_array(function, member, visit);
    if (status != 0) return status;
  }
  return 0;
}

}  // namespace tarn
