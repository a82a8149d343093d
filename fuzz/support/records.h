// What must hold of every family of records: any sections read as records and written again, and any record written as
// new sections or into one that is there.
//
// A family is a type with
//   Record, and the family's functions from_sections, to_sections, from_section, update_section and release;
//   fields(): a range of fields with key and bit, in the order in which a new section has them;
//   name_bits: what the list reader sets for a name; kept_name: the bytes of a name that readers keep;
//   text_of(record, field): a field as it stands in a file, none when it cannot stand there;
//   removes(record, field): whether an update takes the field's key away;
//   value_in(section, field, reader): what a reader takes of a section;
//   content(record): all that a record holds, for comparison;
//   require_values(record, expected) and survives_a_file(values): for what is special about its texts.
#pragma once

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "fuzz/support/chain.h"
#include "fuzz/support/require.h"
#include "tests/cluster/records/section_samples.h"

namespace tarn::fuzz {

using test::name_of;
using Values = std::map<std::string, std::string>;

enum class Reader { list, single };

// The first value of a key; none when there is none.
inline const std::string *first_value(const Section &section, const std::string &key) {
  for (const auto &[name, value] : section.pairs) {
    if (name == key) return &value;
  }
  return nullptr;
}

inline bool is_section_name(const std::string &name) {
  return !name.empty() && name.find_first_of("\n]") == name.npos;
}

template <typename Family>
class Record_Checks {
 public:
  using Record = typename Family::Record;

  static void check_text(const std::string &text) {
    const Sections sections = parse_cache(text);
    const Chain chain = chain_of(sections.get());
    const List list = list_of(sections);
    const bool is_list = !chain.empty() && !chain.front().pairs.empty();
    REQUIRE_EQUAL(list.status, is_list ? 0 : -EINVAL);
    if (is_list) {
      require_records(chain, list.first.get());
      check_list_there_and_back(list.first.get());
    }
    size_t index = 0;
    for (Sect_Node *section = sections.get(); section != nullptr; section = section->next) {
      check_single(section, chain[index++]);
    }
  }

  static void check_record(const Record &rec) {
    check_new_section(rec);
    check_updated_section(rec);
  }

  // The fields whose bits are set.
  static Values values_of(const Record &rec) {
    Values values;
    for (const auto &field : Family::fields()) {
      if ((rec.fields & field.bit) != 0) values[field.key] = Family::text_of(rec, field).value();
    }
    return values;
  }

 private:
  struct Released {
    void operator()(Record *list) const { Family::release(list); }
  };
  using Records = std::unique_ptr<Record, Released>;

  struct List {
    int status;
    Records first;
  };

  static List list_of(const Sections &sections) {
    Record *first = nullptr;
    const int status = Family::from_sections(sections.get(), &first);
    return {status, Records(first)};
  }

  static Values values_in(const Section &section, Reader reader) {
    Values values;
    for (const auto &field : Family::fields()) {
      const std::optional<std::string> value = Family::value_in(section, field, reader);
      if (value) values[field.key] = *value;
    }
    return values;
  }

  static void require_section(const Record &rec, const Section &section, Reader reader) {
    const Values expected = values_in(section, reader);
    unsigned bits = reader == Reader::list && !section.name.empty() ? Family::name_bits : 0;
    for (const auto &field : Family::fields()) bits |= expected.contains(field.key) ? field.bit : 0;
    REQUIRE_EQUAL(name_of(rec), section.name.substr(0, Family::kept_name));
    REQUIRE_EQUAL(rec.fields, bits);
    Family::require_values(values_of(rec), expected);
  }

  static void require_records(const Chain &chain, const Record *list) {
    for (const Section &section : chain) {
      REQUIRE(list != nullptr);
      require_section(*list, section, Reader::list);
      list = list->next;
    }
    REQUIRE(list == nullptr);
  }

  static bool all_named(const Record *list) {
    while (list != nullptr && !name_of(*list).empty()) list = list->next;
    return list == nullptr;
  }

  // Written to a file and read again the records are the same.
  static void check_list_there_and_back(const Record *list) {
    Sect_Node *first = nullptr;
    const int status = Family::to_sections(list, &first);
    const Sections sections(first);
    REQUIRE_EQUAL(status, all_named(list) ? 0 : -EINVAL);
    if (status != 0) return;

    const List again = list_of(parse_cache(written(sections.get())));
    const bool is_readable = (list->fields & ~Family::name_bits) != 0;  // else the first section has no keys
    REQUIRE_EQUAL(again.status, is_readable ? 0 : -EINVAL);
    const Record *other = again.first.get();
    for (; is_readable && list != nullptr; list = list->next, other = other->next) {
      REQUIRE(other != nullptr);
      REQUIRE_EQUAL(name_of(*other), name_of(*list));
      const Values values = values_of(*list);
      if (!Family::survives_a_file(values)) continue;
      REQUIRE_EQUAL(other->fields, list->fields);
      Family::require_values(values_of(*other), values);
    }
    REQUIRE(other == nullptr);
  }

  static Records single_record(const Sect_Node *section) {
    Record *rec = nullptr;
    REQUIRE_EQUAL(Family::from_section(section, &rec), 0);
    REQUIRE(rec != nullptr && rec->next == nullptr);
    return Records(rec);
  }

  // A record put back into the section that it was read from changes nothing.
  static void check_single(Sect_Node *section, const Section &expected) {
    const Records rec = single_record(section);
    require_section(*rec, expected, Reader::single);
    REQUIRE_EQUAL(Family::update_section(rec.get(), section), 0);
    REQUIRE_EQUAL(Family::content(*single_record(section)), Family::content(*rec));
  }

  static bool fits_line(const std::optional<std::string> &text) { return text && text->find('\n') == text->npos; }

  // The pairs of a new section; none when the record holds a text that cannot stand in a file.
  static std::optional<Section> section_of(const Record &rec) {
    Section section = {name_of(rec), {}};
    for (const auto &field : Family::fields()) {
      if ((rec.fields & field.bit) == 0) continue;
      const std::optional<std::string> text = Family::text_of(rec, field);
      if (!fits_line(text)) return {};
      section.pairs.emplace_back(field.key, *text);
    }
    return section;
  }

  static void check_new_section(const Record &rec) {
    Sect_Node *first = nullptr;
    const int status = Family::to_sections(&rec, &first);
    const Sections made(first);
    const std::optional<Section> expected = section_of(rec);
    const bool is_possible = is_section_name(name_of(rec)) && expected;
    REQUIRE_EQUAL(status, is_possible ? 0 : -EINVAL);
    if (is_possible) REQUIRE_EQUAL(chain_of(made.get()), Chain({*expected}));
  }

  // What an update makes of values that are there; none when it is refused.
  static std::optional<Values> updated(Values values, const Record &rec) {
    if ((rec.fields & rename_bit) != 0 && !is_section_name(name_of(rec))) return {};
    for (const auto &field : Family::fields()) {
      if ((rec.fields & field.bit) == 0) continue;
      const std::optional<std::string> text = Family::text_of(rec, field);
      if (Family::removes(rec, field)) {
        values.erase(field.key);
      } else if (fits_line(text)) {
        values[field.key] = *text;
      } else {
        return {};
      }
    }
    return values;
  }

  static void check_updated_section(const Record &rec) {
    Sect_Node *first = nullptr;
    REQUIRE_EQUAL(Create_Sect_Node(&first, "m"), 0);
    const Sections section(first);
    const char *const own_key = std::begin(Family::fields())->key;
    REQUIRE_EQUAL(Set_Conf_String_Value(first, "m", "other", "stays"), 0);
    REQUIRE_EQUAL(Set_Conf_String_Value(first, "m", own_key, "1"), 0);

    const int status = Family::update_section(&rec, first);
    const std::optional<Values> expected = updated({{"other", "stays"}, {own_key, "1"}}, rec);
    REQUIRE_EQUAL(status, expected ? 0 : -EINVAL);
    if (!expected) return;
    const Section now = chain_of(first).at(0);
    REQUIRE_EQUAL(now.name, (rec.fields & rename_bit) != 0 ? name_of(rec) : "m");
    REQUIRE_EQUAL(now.pairs.size(), expected->size());
    REQUIRE_EQUAL(Values(now.pairs.begin(), now.pairs.end()), *expected);
  }

  static constexpr unsigned rename_bit = 0x1;  // of every family: an update renames the section
};

}  // namespace tarn::fuzz
