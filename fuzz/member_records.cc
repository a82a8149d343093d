// Any configuration text read as member records and written again, and any bytes as a record: what is read is what the
// text says, what is written is what the record holds, and nothing outside a record is looked at. The input is the text
// as well as the record's bytes.
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "fuzz/support/chain.h"
#include "fuzz/support/require.h"
#include "tests/cluster/records/member_samples.h"

namespace tarn::fuzz {
namespace {

using test::all_fields;
using test::Field;
using test::Kind;
using test::Records;
using Values = std::map<std::string, std::string>;

constexpr size_t longest_firmware_in_its_field = 31;
constexpr int list_firmware_limit = 64;

const char *bytes_at(const Tarn_Serv_Conf &rec, size_t offset) {
  return reinterpret_cast<const char *>(&rec) + offset;
}

std::string name_of(const Tarn_Serv_Conf &rec) {
  return {rec.Name, strnlen(rec.Name, sizeof rec.Name)};
}

// A field as the text that stands in a file; none for a text without an end.
std::optional<std::string> text_of(const Tarn_Serv_Conf &rec, const Field &field) {
  if (field.kind == Kind::number) {
    int number;
    memcpy(&number, bytes_at(rec, field.offset), sizeof number);
    return std::to_string(number);
  }
  if (field.kind == Kind::long_number) {
    int64_t number;
    memcpy(&number, bytes_at(rec, field.offset), sizeof number);
    return std::to_string(number);
  }
  const size_t room = sizeof rec - field.offset;
  const size_t length = strnlen(bytes_at(rec, field.offset), room);
  if (length == room) return {};
  return std::string(bytes_at(rec, field.offset), length);
}

Values values_of(const Tarn_Serv_Conf &rec) {
  Values values;
  for (const Field &field : all_fields) {
    if ((rec.fields & field.bit) != 0) values[field.key] = text_of(rec, field).value();
  }
  return values;
}

// ------------------------------------------------------------------------------------------ what a section's pairs say

// The first pair of a key as its field takes it; none when there is none or it does not fit.
std::optional<std::string> value_in(const Section &section, const Field &field, size_t limit) {
  for (const auto &[key, value] : section.pairs) {
    if (key != field.key) continue;
    if (field.kind == Kind::text) return value.size() < limit ? std::optional(value) : std::nullopt;
    const int64_t number = strtoll(value.c_str(), nullptr, 10);
    if (field.kind == Kind::number && (number < -INT_MAX || number > INT_MAX)) return {};
    return std::to_string(number);
  }
  return {};
}

Values values_in(const Section &section, int firmware_limit) {
  Values values;
  for (const Field &field : all_fields) {
    const bool is_firmware = field.bit == TARN_SERV_FIRMWARE;
    const auto value = value_in(section, field, is_firmware ? static_cast<size_t>(firmware_limit) : field.size);
    if (value) values[field.key] = *value;
  }
  return values;
}

// A long firmware text in a list runs on into the field behind it, which may be written over it.
bool runs_on(const Values &values) {
  const auto firmware = values.find("Firmware");
  return firmware != values.end() && firmware->second.size() > longest_firmware_in_its_field;
}

void require_values(const Tarn_Serv_Conf &rec, Values expected) {
  REQUIRE_EQUAL(rec.fields & ~test::name_bit, [&] {
    unsigned bits = 0;
    for (const Field &field : all_fields) bits |= expected.contains(field.key) ? field.bit : 0;
    return bits;
  }());
  Values actual = values_of(rec);
  if (runs_on(expected) && expected.contains("LastRestoreFile")) {
    REQUIRE(actual["Firmware"].starts_with(expected["Firmware"].substr(0, longest_firmware_in_its_field + 1)));
    expected.erase("Firmware");
    actual.erase("Firmware");
  }
  REQUIRE_EQUAL(actual, expected);
}

// -------------------------------------------------------------------------------------------------- texts as records

struct List {
  int status;
  Records first;
};

List list_of(const Sections &sections) {
  Tarn_Serv_Conf *first = nullptr;
  const int status = Tarn_Cluster_All_Serv_From_Sect_Node(sections.get(), &first);
  return {status, Records(first)};
}

std::string cut_name(const std::string &name) {
  return name.substr(0, sizeof Tarn_Serv_Conf::Name);
}

bool all_named(const Tarn_Serv_Conf *list) {
  while (list != nullptr && !name_of(*list).empty()) list = list->next;
  return list == nullptr;
}

void require_records(const Chain &chain, const Tarn_Serv_Conf *list) {
  for (const Section &section : chain) {
    REQUIRE(list != nullptr);
    REQUIRE_EQUAL(name_of(*list), cut_name(section.name));
    REQUIRE_EQUAL((list->fields & test::name_bit) != 0, !section.name.empty());
    require_values(*list, values_in(section, list_firmware_limit));
    list = list->next;
  }
  REQUIRE(list == nullptr);
}

// Written to a file and read again the records are the same.
void check_list_there_and_back(const Tarn_Serv_Conf *list) {
  Sect_Node *first = nullptr;
  const int status = Tarn_Cluster_All_Serv_To_Sect_Node(list, &first);
  const Sections sections(first);
  REQUIRE_EQUAL(status, all_named(list) ? 0 : -EINVAL);
  if (status != 0) return;

  const List again = list_of(parse_cache(written(sections.get())));
  const bool is_readable = (list->fields & ~test::name_bit) != 0;  // else the first section has no keys
  REQUIRE_EQUAL(again.status, is_readable ? 0 : -EINVAL);
  const Tarn_Serv_Conf *other = again.first.get();
  for (; is_readable && list != nullptr; list = list->next, other = other->next) {
    REQUIRE(other != nullptr);
    REQUIRE_EQUAL(name_of(*other), name_of(*list));
    const Values values = values_of(*list);
    if (!runs_on(values)) require_values(*other, values);
  }
  REQUIRE(other == nullptr);
}

Records single_record(const Sect_Node *section) {
  Tarn_Serv_Conf *rec = nullptr;
  REQUIRE_EQUAL(Tarn_Service_From_Sect_Node(section, &rec), 0);
  REQUIRE(rec != nullptr && rec->next == nullptr);
  return Records(rec);
}

// A record put back into the section that it was read from changes nothing.
void check_single(Sect_Node *section, const Section &expected) {
  const Records rec = single_record(section);
  REQUIRE_EQUAL(name_of(*rec), cut_name(expected.name));
  REQUIRE_EQUAL(rec->fields & test::name_bit, 0u);
  require_values(*rec, values_in(expected, sizeof rec->Firmware));

  REQUIRE_EQUAL(Tarn_Cluster_Serv_To_Sect_Node(rec.get(), section), 0);
  REQUIRE_EQUAL(test::content(*single_record(section)), test::content(*rec));
}

void check_text(const std::string &text) {
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

// ---------------------------------------------------------------------------------------------------- bytes as a
// record

struct Free {
  void operator()(Tarn_Serv_Conf *rec) const { free(rec); }
};
using Record = std::unique_ptr<Tarn_Serv_Conf, Free>;

// As large as a record and no larger, so that every look outside is noticed.
Record record_of(const std::string &bytes) {
  Record rec(static_cast<Tarn_Serv_Conf *>(calloc(1, sizeof(Tarn_Serv_Conf))));
  memcpy(static_cast<void *>(rec.get()), bytes.data(), std::min(bytes.size(), sizeof *rec));
  rec->next = nullptr;
  return rec;
}

bool is_section_name(const std::string &name) {
  return !name.empty() && name.find_first_of("\n]") == name.npos;
}

// The pairs of a new section; none when the record holds a text that cannot stand in a file.
std::optional<Section> section_of(const Tarn_Serv_Conf &rec) {
  Section section = {name_of(rec), {}};
  for (const Field &field : all_fields) {
    if ((rec.fields & field.bit) == 0) continue;
    const auto text = text_of(rec, field);
    if (!text || text->find('\n') != text->npos) return {};
    section.pairs.emplace_back(field.key, *text);
  }
  return section;
}

void check_new_section(const Tarn_Serv_Conf &rec) {
  Sect_Node *first = nullptr;
  const int status = Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &first);
  const Sections made(first);
  const std::optional<Section> expected = section_of(rec);
  const bool is_possible = is_section_name(name_of(rec)) && expected;
  REQUIRE_EQUAL(status, is_possible ? 0 : -EINVAL);
  if (is_possible) REQUIRE_EQUAL(chain_of(made.get()), Chain({*expected}));
}

void check_updated_section(const Tarn_Serv_Conf &rec) {
  Sect_Node *first = nullptr;
  REQUIRE_EQUAL(Create_Sect_Node(&first, "m"), 0);
  const Sections section(first);
  REQUIRE_EQUAL(Set_Conf_String_Value(first, "m", "other", "stays"), 0);
  REQUIRE_EQUAL(Set_Conf_String_Value(first, "m", "Type", "1"), 0);

  const int status = Tarn_Cluster_Serv_To_Sect_Node(&rec, first);
  const bool renames = (rec.fields & test::name_bit) != 0;
  const std::optional<Section> values = section_of(rec);
  const bool is_possible = values && (!renames || is_section_name(name_of(rec)));
  REQUIRE_EQUAL(status, is_possible ? 0 : -EINVAL);
  if (!is_possible) return;
  Values expected = {{"other", "stays"}, {"Type", "1"}};
  for (const auto &[key, value] : values->pairs) expected[key] = value;
  const Section updated = chain_of(first).at(0);
  REQUIRE_EQUAL(updated.name, renames ? name_of(rec) : "m");
  REQUIRE_EQUAL(updated.pairs.size(), expected.size());
  REQUIRE_EQUAL(Values(updated.pairs.begin(), updated.pairs.end()), expected);
}

void check_bytes(const std::string &bytes) {
  const Record rec = record_of(bytes);
  check_new_section(*rec);
  check_updated_section(*rec);
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  tarn::fuzz::check_text(input);
  tarn::fuzz::check_bytes(input);
  return 0;
}
