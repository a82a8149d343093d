#include "cluster/records/record_engine.h"

#include <locale.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "conf/conf_file.h"
#include "conf/replacement_file.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

enum class Reader { list, single };

// Fields are reached through the record's bytes, since a long text may run on over the fields behind its own.
const char *bytes_at(const void *record, size_t offset) {
  return static_cast<const char *>(record) + offset;
}
char *bytes_at(void *record, size_t offset) {
  return static_cast<char *>(record) + offset;
}

template <typename Value>
Value load(const void *record, size_t offset) {
  Value value;
  memcpy(&value, bytes_at(record, offset), sizeof value);
  return value;
}

template <typename Value>
void store(void *record, size_t offset, Value value) {
  memcpy(bytes_at(record, offset), &value, sizeof value);
}

const void *next_record(const void *record) {
  return load<const void *>(record, 0);
}

uint32_t mask_of(const Record_Family &family, const void *record) {
  return load<uint32_t>(record, family.fields_offset);
}

void set_bits(const Record_Family &family, void *record, uint32_t bits) {
  store(record, family.fields_offset, mask_of(family, record) | bits);
}

int64_t number_of(const Record_Field &field, const void *record) {
  return field.kind == Field_Kind::int32 ? load<int32_t>(record, field.offset) : load<int64_t>(record, field.offset);
}

constexpr size_t heap_text_limit = 4096;  // longer values count as absent

// A text up to its terminator, which may lie behind the field; null when the record holds none.
const char *text_of(const Record_Family &family, const Record_Field &field, const void *record) {
  if (field.kind == Field_Kind::heap_text) return load<const char *>(record, field.offset);
  const char *text = bytes_at(record, field.offset);
  return memchr(text, '\0', family.texts_end - field.offset) != nullptr ? text : nullptr;
}

bool is_number(const Record_Field &field) {
  return field.kind == Field_Kind::int32 || field.kind == Field_Kind::int64;
}

// The files' numbers have a point, whatever the caller's locale has.
class Point_Locale {
 public:
  Point_Locale() : previous_(uselocale(newlocale(LC_ALL_MASK, "C", nullptr))) {}
  ~Point_Locale() { uselocale(previous_); }
  Point_Locale(const Point_Locale &) = delete;
  Point_Locale &operator=(const Point_Locale &) = delete;

 private:
  locale_t previous_;
};

struct Real_Text {
  char text[64] = "";
  Real_Text() = default;
  explicit Real_Text(double value) {
    const Point_Locale locale;
    snprintf(text, sizeof text, "%f", value);
  }
  double value() const {
    const Point_Locale locale;
    return strtod(text, nullptr);
  }
};

std::string_view name_of(const Record_Family &family, const void *record) {
  const char *name = bytes_at(record, family.name.offset);
  return {name, strnlen(name, family.name.size)};
}

template <typename Node>
Node **end_of(Node **chain) {
  while (*chain != nullptr) chain = &(*chain)->next;
  return chain;
}

bool is_section_name(std::string_view name) {
  return !name.empty() && name.find_first_of("\n]") == name.npos;
}

bool is_value(const char *text) {
  return text != nullptr && !has_newline(text);
}

// A number that does not fit its field is stored cut, as the getter stores it; only its bit stays clear. One that is
// missing leaves the field as it was preset.
template <auto getter, typename Number>
int read_number(const Record_Field &field, const Pair_Node *pairs, void *record) {
  Number value = load<Number>(record, field.offset);
  const int status = getter(pairs, field.key, &value);
  store(record, field.offset, value);
  return status;
}

int read_heap_text(const Record_Field &field, const Pair_Node *pairs, void *record) {
  char value[heap_text_limit];
  int limit = sizeof value;
  int status = Get_Pair_String_Value(pairs, field.key, value, &limit);
  if (status != 0) return status;
  char *copy = nullptr;
  status = Clone_String(value, &copy, nullptr);
  store(record, field.offset, copy);
  return status;
}

int read_real(const Record_Field &field, const Pair_Node *pairs, void *record) {
  Real_Text real;
  int limit = sizeof real.text;
  const int status = Get_Pair_String_Value(pairs, field.key, real.text, &limit);
  if (status == 0) store(record, field.offset, real.value());
  return status;
}

int read_field(const Record_Field &field, Reader reader, const Pair_Node *pairs, void *record) {
  if (field.kind == Field_Kind::int32) return read_number<Get_Pair_Int32_Value, int32_t>(field, pairs, record);
  if (field.kind == Field_Kind::int64) return read_number<Get_Pair_Int64_Value, int64_t>(field, pairs, record);
  if (field.kind == Field_Kind::heap_text) return read_heap_text(field, pairs, record);
  if (field.kind == Field_Kind::real) return read_real(field, pairs, record);
  int limit = reader == Reader::list ? field.list_limit : field.single_limit;
  return Get_Pair_String_Value(pairs, field.key, bytes_at(record, field.offset), &limit);
}

// A key that is missing, or whose value does not fit, leaves its bit clear. A text for which memory ends fails the
// record: without it, the next writer would drop the key.
int read_section(const Record_Family &family, Reader reader, const Sect_Node *section, void *record) {
  const bool listed = reader == Reader::list;
  const size_t name_length = strnlen(section->name, listed ? family.name.list_kept : family.name.single_kept);
  memcpy(bytes_at(record, family.name.offset), section->name, name_length);
  if (listed && name_length > 0) set_bits(family, record, family.name.list_bits);
  for (const Record_Field &field : family.fields) {
    const int status = read_field(field, reader, section->pairs, record);
    if (status == -ENOMEM) return status;
    if (status == 0) set_bits(family, record, field.bit);
  }
  return 0;
}

int report_no_memory(const char *function, const char *noun) {
  TARN_ERROR_AS(function, "Can't allocate memory for %s list section! (%d)", noun, -ENOMEM);
  return -ENOMEM;
}

Real_Text real_text(const Record_Field &field, const void *record) {
  return Real_Text(load<double>(record, field.offset));
}

int create_pair(const Record_Family &family, const Record_Field &field, const void *record, Pair_Node **link) {
  if (is_number(field)) return Create_Integer_Pair_Node(link, field.key, number_of(field, record));
  if (field.kind == Field_Kind::real) return Create_Pair_Node(link, field.key, real_text(field, record).text);
  const char *text = text_of(family, field, record);
  return is_value(text) ? Create_Pair_Node(link, field.key, text) : -EINVAL;
}

int create_named_section(const Record_Family &family, const void *record, Sect_Node **link) {
  const std::string_view name = name_of(family, record);
  // A nameless section would lose its keys to the section before it when the file is read again.
  if (!is_section_name(name)) return -EINVAL;
  *link = allocate_section_node(name);
  return *link != nullptr ? 0 : -ENOMEM;
}

// Real numbers are those of `first`: in a list, its first record's is written for every record, as readers expect.
int add_pairs(const Record_Family &family, const void *record, const void *first, Sect_Node *section) {
  const uint32_t mask = mask_of(family, record);
  Chain_End<Pair_Node> end(end_of(&section->pairs));
  for (const uint8_t position : family.create_order) {
    const Record_Field &field = family.fields[position];
    if ((mask & field.bit) == 0) continue;
    const void *source = field.kind == Field_Kind::real ? first : record;
    const int status = create_pair(family, field, source, end.link());
    if (status != 0) return status;
    end.advance();
  }
  return 0;
}

// Appends a section with the keys whose bits are set.
int create_section(const Record_Family &family, const void *record, Sect_Node **link) {
  const int status = create_named_section(family, record, link);
  if (status == 0) return add_pairs(family, record, record, *link);
  TARN_DEBUG_AS(family.create_function, "Can't crate a sect node error! (%d)", status);
  return status;
}

// The same for a record of a list, with the list's own report.
int create_listed_section(const Record_Family &family, const void *record, const void *first, Sect_Node **link) {
  const bool by_create = family.lists_are_created_by_it;
  int status = by_create ? create_section(family, record, link) : create_named_section(family, record, link);
  if (status != 0) {
    TARN_ERROR_AS(family.to_sections_function, "Can't allocate a section node for a Tarn cluster slave conf!");
    return status;
  }
  return by_create ? 0 : add_pairs(family, record, first, *link);
}

int rename_section(std::string_view name, Sect_Node *section) {
  if (!is_section_name(name) || name.size() >= section_name_room) return -EINVAL;
  char *place = bytes_at(static_cast<void *>(section), offsetof(Sect_Node, name));
  memcpy(place, name.data(), name.size());
  place[name.size()] = '\0';
  return 0;
}

int update_pair(const Record_Family &family, const Record_Field &field, const void *record, Pair_Node **chain) {
  if (is_number(field)) return Set_Pair_Integer_Value(chain, field.key, number_of(field, record));
  if (field.kind == Field_Kind::real) return Set_Pair_String_Value(chain, field.key, real_text(field, record).text);
  const char *text = text_of(family, field, record);
  // A set bit without a text removes the key.
  if (field.kind == Field_Kind::heap_text && text == nullptr) return Set_Pair_String_Value(chain, field.key, nullptr);
  return is_value(text) ? Set_Pair_String_Value(chain, field.key, text) : -EINVAL;
}

// Deletes, updates or appends one section of a chain. No name is that of no section.
int change_sections(const Record_Family &family, const char *function, const char *name, const void *record,
                    Sect_Node **chain) {
  Sect_Node **link = name != nullptr ? find_section_link(chain, name) : end_of(chain);
  if (name == nullptr) name = "";  // for the log
  if (record == nullptr) {
    if (*link == nullptr) return -ENOANO;
    Free_Sect_Node(unlink_node(link));
    return 0;
  }
  if (*link != nullptr) {
    const int status = update_section(family, record, *link);
    if (status != 0) {
      TARN_ERROR_AS(function, "Can't update the sect node for %s %s error! (%d)", family.noun, name, status);
    }
    return status;
  }
  const int status = create_section(family, record, link);
  if (status != 0) TARN_ERROR_AS(function, "Can't create a sect node for %s %s! (%d)", family.noun, name, status);
  return status;
}

}  // namespace

void release_records(const Record_Family &family, void *list) {
  while (list != nullptr) {
    void *next = load<void *>(list, 0);
    for (const Record_Field &field : family.fields) {
      if (field.kind == Field_Kind::heap_text) free(load<void *>(list, field.offset));
    }
    free(list);
    list = next;
  }
}

int sections_to_records(const Record_Family &family, const Sect_Node *sections, void **out) {
  if (sections == nullptr || sections->pairs == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *last = nullptr;
  for (; sections != nullptr; sections = sections->next) {
    void *record = calloc(1, family.record_size);
    if (record == nullptr) return report_no_memory(family.to_records_function, "slave");
    if (last == nullptr) {
      *out = record;
    } else {
      store(last, 0, record);
    }
    last = record;
    const int status = read_section(family, Reader::list, sections, record);
    if (status != 0) return report_no_memory(family.to_records_function, "slave");
  }
  return 0;
}

int records_to_sections(const Record_Family &family, const void *list, Sect_Node **out) {
  if (list == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  Chain_End<Sect_Node> end(out);
  const void *first = list;
  for (; list != nullptr; list = next_record(list)) {
    const int status = create_listed_section(family, list, first, end.link());
    if (status != 0) return status;
    end.advance();
  }
  return 0;
}

int section_to_record(const Record_Family &family, const Sect_Node *section, void **out) {
  if (section == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *record = calloc(1, family.record_size);
  if (record == nullptr || read_section(family, Reader::single, section, record) != 0) {
    release_records(family, record);
    return report_no_memory(family.to_record_function, family.record_noun);
  }
  *out = record;
  return 0;
}

int update_section(const Record_Family &family, const void *record, Sect_Node *section) {
  if (record == nullptr || section == nullptr) return -EINVAL;
  const uint32_t mask = mask_of(family, record);
  if ((mask & family.name.bit) != 0) {
    const int status = rename_section(name_of(family, record), section);
    if (status != 0) return status;
  }
  for (const uint8_t position : family.update_order) {
    const Record_Field &field = family.fields[position];
    if ((mask & field.bit) == 0) continue;
    const int status = update_pair(family, field, record, &section->pairs);
    if (status == 0) continue;
    if ((field.bit & family.name.failing_bit) != 0) rename_section(name_of(family, record), section);
    return status;
  }
  return 0;
}

int read_records(const Record_Family &family, const char *function, const char *path, void **out) {
  Sections sections;
  const int read = Read_Conf_File(path, &sections.first);
  if (read < 0) return read;
  if (sections.first == nullptr) return 0;
  const int status = sections_to_records(family, sections.first, out);
  // The text says the opposite direction; those who search the logs know it so.
  if (status != 0) TARN_ERROR_AS(function, "Translate %s list to section Node error! (%d)", family.list_noun, status);
  return status;
}

int write_records(const Record_Family &family, const char *function, const char *path, const void *list) {
  Sections sections;
  const int status = records_to_sections(family, list, &sections.first);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't translate a Tarn cluster slave conf to the setc node! (%d)", status);
    return status;
  }
  return update_record_file(function, path, sections.first);
}

int get_record(const Record_Family &family, const char *function, const char *path, const char *name, void **out) {
  *out = nullptr;
  Sections section;
  int status = Get_Conf_File_Section(path, name, &section.first);
  if (status != 0) {
    TARN_DEBUG_AS(function, "Can't get conf file section error! (%d, %s, %s)", status, path, name);
    return status;
  }
  status = section_to_record(family, section.first, out);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't translate sect node to a Tarn %s structure! (%d)", family.structure_noun, status);
  }
  return status;
}

int set_record(const Record_Family &family, const char *function, const char *path, const char *name,
               const void *record) {
  Sections sections;
  const int read = read_whole_conf_file(path, &sections);
  if (read < 0 && read != -ENOENT) {
    TARN_ERROR_AS(function, "Can't read the Tarn service file %s error!", path);
    return read;
  }
  const int status = change_sections(family, function, name, record, &sections.first);
  return status == 0 ? update_record_file(function, path, sections.first) : status;
}

int read_record(const Record_Family &family, const Sect_Node *section, void *record) {
  return read_section(family, Reader::single, section, record);
}

int append_pairs(const Record_Family &family, const void *record, Sect_Node *section) {
  return add_pairs(family, record, record, section);
}

int update_record_file(const char *function, const char *path, const Sect_Node *sections) {
  const int status = Update_Conf_File(path, sections);
  if (status != 0) TARN_ERROR_AS(function, "Can't update the conf file \"%s\" error! (%d)", path, status);
  return status;
}

bool sets_nothing(const Record_Family &family, const void *record) {
  return record != nullptr && (mask_of(family, record) & family.known_bits) == 0;
}

namespace {

int report_no_lock(const char *function, const char *path) {
  TARN_ERROR_AS(function, "Can't get file lock of %s error!", path);
  return -ENOLCK;
}

}  // namespace

int read_records_locked(const Record_Family &family, const char *function, const char *path, void **out) {
  const File_Lock lock(path);
  return lock.held() ? read_records(family, function, path, out) : report_no_lock(function, path);
}

int write_records_locked(const Record_Family &family, const char *function, const char *path, const void *list) {
  const Replacement_Lock lock(path);
  if (lock.held()) return write_records(family, function, path, list);
  // One word less than the others have.
  TARN_ERROR_AS(function, "Can't get file lock of %s!", path);
  return -ENOLCK;
}

int get_record_locked(const Record_Family &family, const char *function, const char *path, const char *name,
                      void **out) {
  const File_Lock lock(path);
  return lock.held() ? get_record(family, function, path, name, out) : report_no_lock(function, path);
}

int set_record_locked(const Record_Family &family, const char *function, const char *path, const char *name,
                      const void *record) {
  const Replacement_Lock lock(path);
  return lock.held() ? set_record(family, function, path, name, record) : report_no_lock(function, path);
}

}  // namespace tarn
