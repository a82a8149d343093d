#include "record_fields.h"

#include <charconv>
#include <cstdint>
#include <cstring>

namespace tool {
namespace {

using enum Record_Field::Kind;

const char *place_of(const void *record, const Record_Field &field) {
  return static_cast<const char *>(record) + field.offset;
}

std::string text_of(const void *record, const Record_Field &field) {
  if (field.kind == secret) return "(set)";
  const char *place = place_of(record, field);
  return {place, strnlen(place, field.size)};  // a field may be full, without an end
}

bool is_number(const Record_Field &field) {
  return field.kind == int32 || field.kind == int64;
}

template <typename Number>
Number read_number(const char *place) {
  Number number = 0;
  std::memcpy(&number, place, sizeof number);
  return number;
}

int64_t number_of(const void *record, const Record_Field &field) {
  const char *place = place_of(record, field);
  return field.kind == int32 ? read_number<int32_t>(place) : read_number<int64_t>(place);
}

template <typename Number>
void put_number(char *place, const std::string &value, const char *name) {
  Number number = 0;
  const char *end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc() || stop != end) throw Failure(value + " is no number for " + name);
  std::memcpy(place, &number, sizeof number);
}

const Record_Field &find_field(Record_Fields fields, const std::string &key, const std::string &owner) {
  for (const Record_Field &field : fields) {
    if (key == field.name) return field;
  }
  throw Failure(owner + " has no key " + key);
}

}  // namespace

void put_text(void *record, unsigned *mask, const Record_Field &field, const std::string &value) {
  if (value.size() >= field.size) {
    throw Failure(std::string(field.name) + " takes at most " + std::to_string(field.size - 1) + " characters");
  }
  std::memcpy(static_cast<char *>(record) + field.offset, value.c_str(), value.size() + 1);
  *mask |= field.bit;
}

void assign(void *record, unsigned *mask, Record_Fields fields, const std::string &assignment,
            const std::string &owner) {
  const size_t equals = assignment.find('=');
  if (equals == assignment.npos) throw Failure(assignment + " is not of the form KEY=VALUE");
  const Record_Field &field = find_field(fields, assignment.substr(0, equals), owner);
  const std::string value = assignment.substr(equals + 1);
  char *place = static_cast<char *>(record) + field.offset;
  switch (field.kind) {
    case int32:
      put_number<int32_t>(place, value, field.name);
      break;
    case int64:
      put_number<int64_t>(place, value, field.name);
      break;
    case text:
      return put_text(record, mask, field, value);
    case secret:
      throw Failure(std::string(field.name) + " is not given here, where every list of processes shows it");
  }
  *mask |= field.bit;
}

Rows rows_of(const void *record, unsigned mask, Record_Fields fields) {
  Rows rows;
  for (const Record_Field &field : fields) {
    if ((mask & field.bit) == 0) continue;
    rows.push_back({field.name, is_number(field) ? std::to_string(number_of(record, field)) : text_of(record, field)});
  }
  return rows;
}

void add_to_json(json_object *object, const void *record, unsigned mask, Record_Fields fields) {
  for (const Record_Field &field : fields) {
    if ((mask & field.bit) == 0) continue;
    json_object_object_add(object, field.name,
                           is_number(field) ? json_object_new_int64(number_of(record, field))
                                            : json_object_new_string(text_of(record, field).c_str()));
  }
}

}  // namespace tool
