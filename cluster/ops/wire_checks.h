// What another member may put into a command: an id names files and sections, a value becomes a line of a file.
#pragma once

#include "cluster/ops/json.h"

namespace tarn {

inline constexpr size_t longest_member_id = 8;

// Printable characters that neither leave a folder nor end a section's name.
bool is_member_id(const char *text, size_t longest = longest_member_id);

// A member's id; null when it is missing, no string or no id.
const char *find_member_id(const json_object *object, const char *key);

// A text that stays in its line; null when it is missing, no string or does not.
const char *find_line(const json_object *object, const char *key);

// Whether an address can be kept in a field of a size: printable, and shorter than that.
bool is_address_text(const char *text, size_t size);

// The id of the member that a handler is told about ("slave_id"): null, with a report, when there is none.
const char *find_subject_id(const char *function, const json_object *object);

}  // namespace tarn
