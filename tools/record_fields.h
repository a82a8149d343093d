// The fields of the library's records by their keys, so that commands read and set them by name.
#pragma once

#include <cstddef>
#include <span>

#include "report.h"

namespace tool {

struct Record_Field {
  const char *name;
  unsigned bit;
  enum class Kind { int32, int64, text, secret } kind;  // a secret is a text that is not shown
  size_t offset;
  size_t size;
};

// An entry of a record's table; the field is called like its key.
#define TOOL_RECORD_FIELD(Record, field, bit, kind) \
  { #field, bit, tool::Record_Field::Kind::kind, offsetof(Record, field), sizeof(Record::field) }

using Record_Fields = std::span<const Record_Field>;

// Puts "KEY=VALUE" into the record and sets the key's bit in its mask. owner: whose keys these are, for the message.
void assign(void *record, unsigned *mask, Record_Fields fields, const std::string &assignment,
            const std::string &owner);

// Sets a text, secrets included.
void put_text(void *record, unsigned *mask, const Record_Field &field, const std::string &value);

// The keys that the record has, as KEY and VALUE for people and as an object for programs.
Rows rows_of(const void *record, unsigned mask, Record_Fields fields);
void add_to_json(json_object *object, const void *record, unsigned mask, Record_Fields fields);

}  // namespace tool
