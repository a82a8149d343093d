// Building and reading JSON texts. What comes from outside may be any JSON: a member of the wrong type counts as
// missing.
#pragma once

#include <json-c/json.h>

#include <memory>

#include "foundation/owners.h"

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

// An object built member by member. When memory ends it is incomplete, and stays so.
class Json_Builder {
 public:
  Json_Builder() : object_(json_object_new_object()) {}

  Json_Builder &number(const char *key, int value) { return add(key, json_object_new_int(value)); }
  Json_Builder &text(const char *key, const char *value) {
    return add(key, value != nullptr ? json_object_new_string(value) : nullptr);
  }
  Json_Builder &add(const char *key, json_object *value);  // takes the value over; null makes the object incomplete

  // The object's text, which lives as long as the object; null when it is incomplete.
  const char *serialised() const;

 private:
  Json object_;
};

}  // namespace tarn
