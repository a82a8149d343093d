// Any configuration text read as share records and written again, and any record: what is read is what the text says,
// what is written is what the record holds, and nothing outside a record is looked at. The input is the text, and the
// record as well: its mask (4 bytes), its name (65), its three lists, each up to a NUL and null when it begins with a
// byte of 1, and its path, which has no end when it fills its field.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "fuzz/support/records.h"
#include "tests/cluster/records/share_samples.h"

namespace tarn::fuzz {
namespace {

using Field = test::Share_Field;

constexpr size_t longest_value = 4095;

struct Share_Family {
  using Record = Tarn_Share_Conf;
  static constexpr auto from_sections = Tarn_Cluster_All_Share_From_Sect_Node;
  static constexpr auto to_sections = Tarn_Cluster_All_Share_To_Sect_Node;
  static constexpr auto from_section = Tarn_Share_From_Sect_Node;
  static constexpr auto update_section = Tarn_Cluster_Share_To_Sect_Node;
  static constexpr auto release = Release_Share_List_Conf;
  static constexpr unsigned name_bits = 0;
  static constexpr size_t kept_name = sizeof Tarn_Share_Conf::Name - 1;

  static const auto &fields() { return test::share_fields; }
  static std::string content(const Record &rec) { return (std::ostringstream() << test::content_of(rec)).str(); }
  static bool removes(const Record &rec, const Field &field) {
    return field.list != nullptr && rec.*field.list == nullptr;
  }

  // None for a list that is null and for a path without an end.
  static std::optional<std::string> text_of(const Record &rec, const Field &field) {
    if (removes(rec, field)) return {};
    if (field.list != nullptr) return rec.*field.list;
    const size_t length = strnlen(rec.path, sizeof rec.path);
    return length < sizeof rec.path ? std::optional(std::string(rec.path, length)) : std::nullopt;
  }

  static std::optional<std::string> value_in(const Section &section, const Field &field, Reader) {
    const std::string *value = first_value(section, field.key);
    return value != nullptr && value->size() <= longest_value ? std::optional(*value) : std::nullopt;
  }

  static bool survives_a_file(const Values &) { return true; }
  static void require_values(const Values &actual, const Values &expected) { REQUIRE_EQUAL(actual, expected); }
};

// Takes bytes from the front of an input.
std::string taken(std::string &input, size_t count) {
  const std::string bytes = input.substr(0, count);
  input.erase(0, count);
  return bytes;
}

char *list_taken(std::string &input) {
  const std::string list = taken(input, std::min(input.find('\0'), input.size()));
  taken(input, 1);
  return list.starts_with('\1') ? nullptr : strdup(list.c_str());
}

test::Shares record_of(std::string input) {
  test::Shares rec(static_cast<Tarn_Share_Conf *>(calloc(1, sizeof(Tarn_Share_Conf))));
  const std::string mask = taken(input, sizeof rec->fields), name = taken(input, sizeof rec->Name);
  memcpy(&rec->fields, mask.data(), mask.size());
  memcpy(rec->Name, name.data(), name.size());
  rec->read_list = list_taken(input);
  rec->write_list = list_taken(input);
  rec->invalid_users = list_taken(input);
  memcpy(rec->path, input.data(), std::min(input.size(), sizeof rec->path));
  return rec;
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using Checks = tarn::fuzz::Record_Checks<tarn::fuzz::Share_Family>;
  const std::string input(reinterpret_cast<const char *>(data), size);
  Checks::check_text(input);
  Checks::check_record(*tarn::fuzz::record_of(input));
  return 0;
}
