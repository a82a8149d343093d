// One engine for every family of records: a family is a table of fields with its own orders and limits, and the few
// words in which its messages differ. Adding a key to a record is one line of its table.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>

#include "conf/nodes.h"

namespace tarn {

enum class Field_Kind : uint8_t {
  int32,
  int64,
  real,       // a double, as decimal text with six places
  text,       // in the record's own bytes
  heap_text,  // a pointer to a text of the record's own
};

struct Record_Field {
  const char *key;
  uint32_t bit;
  Field_Kind kind;
  uint16_t offset;
  uint16_t list_limit;    // bytes that the list reader takes of a text in the record, terminator included
  uint16_t single_limit;  // and the reader of a single section
  uint8_t create_rank;    // place among the keys of a new section
  uint8_t update_rank;    // place in which an existing section is updated
};

// The section's name in the record.
struct Record_Name {
  uint16_t offset;
  uint16_t size;
  uint16_t list_kept;    // bytes that the list reader copies: a name of the field's size has no terminator then
  uint16_t single_kept;  // and the reader of a single section
  uint32_t bit;          // renames the section in an update
  uint32_t list_bits;    // set by the list reader for a name that is not empty
  uint32_t failing_bit;  // renames the section when this field of an update fails
};

struct Record_Family {
  size_t record_size;
  size_t fields_offset;  // of the mask; the link to the next record stands at 0
  size_t texts_end;      // where the last text ends at the latest
  uint32_t known_bits;
  Record_Name name;
  std::span<const Record_Field> fields;   // in the order in which they are read
  std::span<const uint8_t> create_order;  // positions in fields
  std::span<const uint8_t> update_order;
  // The names under which the conversions report, whoever calls them.
  const char *create_function = "";       // one new section
  bool lists_are_created_by_it = false;   // a list's conversion reports so, too, and keys that cannot be made
  const char *to_sections_function = "";  // a list to sections
  const char *to_records_function = "";   // sections to a list
  const char *to_record_function = "";    // one section to a record
  const char *record_noun = "";           // "Can't allocate memory for NOUN list section!", of one section to a record
  const char *noun = "";                  // "... the sect node for NOUN NAME error!"
  const char *list_noun = "";             // "Translate NOUN list to section Node error!"
  const char *structure_noun = "";        // "... to a Tarn NOUN structure!"
};

// The positions of a table's fields, sorted by one of the ranks.
template <size_t count>
constexpr std::array<uint8_t, count> positions_by(uint8_t Record_Field::*rank,
                                                  const std::array<Record_Field, count> &fields) {
  std::array<uint8_t, count> positions{};
  for (size_t i = 0; i < count; ++i) positions[i] = static_cast<uint8_t>(i);
  std::sort(positions.begin(), positions.end(),
            [&](uint8_t a, uint8_t b) { return fields[a].*rank < fields[b].*rank; });
  return positions;
}

// Whether a long text always stays within the record, whatever field it runs on into.
template <size_t count>
constexpr bool limits_stay_within(size_t record_size, const std::array<Record_Field, count> &fields) {
  return std::all_of(fields.begin(), fields.end(), [&](const Record_Field &field) {
    return static_cast<size_t>(field.offset) + std::max(field.list_limit, field.single_limit) <= record_size;
  });
}

void release_records(const Record_Family &family, void *list);

// Hands out what the engine made as the type that the caller knows it by. Nothing made leaves the pointer as it was.
template <typename Record>
void hand_over(void *made, Record **out) {
  if (made != nullptr) *out = static_cast<Record *>(made);
}

int sections_to_records(const Record_Family &family, const Sect_Node *sections, void **out);
int records_to_sections(const Record_Family &family, const void *list, Sect_Node **out);
int section_to_record(const Record_Family &family, const Sect_Node *section, void **out);

// sections_to_records for a caller's list. Also when memory ends before the first record the list is set: whoever
// releases what was made so far then finds nothing.
template <typename Record>
int list_from_sections(const Record_Family &family, const Sect_Node *sections, Record **out) {
  if (out == nullptr) return -EINVAL;
  void *list = nullptr;
  const int status = sections_to_records(family, sections, &list);
  if (status != -EINVAL) *out = static_cast<Record *>(list);
  return status;
}
int update_section(const Record_Family &family, const void *record, Sect_Node *section);

// The file operations report under the name of the exported function that is handed in. These are for who holds the
// lock, or needs none.
int read_records(const Record_Family &family, const char *function, const char *path, void **out);
int write_records(const Record_Family &family, const char *function, const char *path, const void *list);
int get_record(const Record_Family &family, const char *function, const char *path, const char *name, void **out);
int set_record(const Record_Family &family, const char *function, const char *path, const char *name,
               const void *record);

// The same under the file's lock.
int read_records_locked(const Record_Family &family, const char *function, const char *path, void **out);
int write_records_locked(const Record_Family &family, const char *function, const char *path, const void *list);
int get_record_locked(const Record_Family &family, const char *function, const char *path, const char *name,
                      void **out);
int set_record_locked(const Record_Family &family, const char *function, const char *path, const char *name,
                      const void *record);

// Reads a section's keys into a record, and adds a record's keys at the end of a section's.
int read_record(const Record_Family &family, const Sect_Node *section, void *record);
int append_pairs(const Record_Family &family, const void *record, Sect_Node *section);

// Update_Conf_File with the report of every family.
int update_record_file(const char *function, const char *path, const Sect_Node *sections);

// Whether a record is given that has nothing to say: Set then does nothing at all.
bool sets_nothing(const Record_Family &family, const void *record);

}  // namespace tarn
