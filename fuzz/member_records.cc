// Any configuration text read as member records and written again, and any bytes as a record: what is read is what the
// text says, what is written is what the record holds, and nothing outside a record is looked at. The input is the text
// as well as the record's bytes.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "fuzz/support/records.h"
#include "tests/cluster/records/member_samples.h"

namespace tarn::fuzz {
namespace {

using test::Field;
using test::Kind;

constexpr size_t longest_firmware_in_its_field = 31;
constexpr size_t list_firmware_limit = 64;

const char *bytes_at(const Tarn_Serv_Conf &rec, size_t offset) {
  return reinterpret_cast<const char *>(&rec) + offset;
}

template <typename Number>
std::string number_at(const Tarn_Serv_Conf &rec, size_t offset) {
  Number number;
  memcpy(&number, bytes_at(rec, offset), sizeof number);
  return std::to_string(number);
}

size_t limit_of(const Field &field, Reader reader) {
  return field.bit == TARN_SERV_FIRMWARE && reader == Reader::list ? list_firmware_limit : field.size;
}

struct Members {
  using Record = Tarn_Serv_Conf;
  static constexpr auto from_sections = Tarn_Cluster_All_Serv_From_Sect_Node;
  static constexpr auto to_sections = Tarn_Cluster_All_Serv_To_Sect_Node;
  static constexpr auto from_section = Tarn_Service_From_Sect_Node;
  static constexpr auto update_section = Tarn_Cluster_Serv_To_Sect_Node;
  static constexpr auto release = Release_Serv_List_Conf;
  static constexpr unsigned name_bits = test::name_bit;
  static constexpr size_t kept_name = sizeof Tarn_Serv_Conf::Name;

  static const std::vector<Field> &fields() { return test::all_fields; }
  static std::string content(const Record &rec) { return test::content(rec); }
  static bool removes(const Record &, const Field &) { return false; }

  // None for a text without an end.
  static std::optional<std::string> text_of(const Record &rec, const Field &field) {
    if (field.kind == Kind::number) return number_at<int>(rec, field.offset);
    if (field.kind == Kind::long_number) return number_at<int64_t>(rec, field.offset);
    const size_t room = sizeof rec - field.offset;
    const size_t length = strnlen(bytes_at(rec, field.offset), room);
    if (length == room) return {};
    return std::string(bytes_at(rec, field.offset), length);
  }

  static std::optional<std::string> value_in(const Section &section, const Field &field, Reader reader) {
    const std::string *value = first_value(section, field.key);
    if (value == nullptr) return {};
    if (field.kind == Kind::text) {
      return value->size() < limit_of(field, reader) ? std::optional(*value) : std::nullopt;
    }
    const int64_t number = strtoll(value->c_str(), nullptr, 10);
    if (field.kind == Kind::number && (number < -INT_MAX || number > INT_MAX)) return {};
    return std::to_string(number);
  }

  // A long firmware text in a list runs on into the field behind it, which may be written over it.
  static bool survives_a_file(const Values &values) {
    const auto firmware = values.find("Firmware");
    return firmware == values.end() || firmware->second.size() <= longest_firmware_in_its_field;
  }

  static void require_values(Values actual, Values expected) {
    if (!survives_a_file(expected) && expected.contains("LastRestoreFile")) {
      REQUIRE(actual["Firmware"].starts_with(expected["Firmware"].substr(0, longest_firmware_in_its_field + 1)));
      expected.erase("Firmware");
      actual.erase("Firmware");
    }
    REQUIRE_EQUAL(actual, expected);
  }
};

struct Free {
  void operator()(Tarn_Serv_Conf *rec) const { free(rec); }
};

// As large as a record and no larger, so that every look outside is noticed.
std::unique_ptr<Tarn_Serv_Conf, Free> record_of(const std::string &bytes) {
  std::unique_ptr<Tarn_Serv_Conf, Free> rec(static_cast<Tarn_Serv_Conf *>(calloc(1, sizeof(Tarn_Serv_Conf))));
  memcpy(static_cast<void *>(rec.get()), bytes.data(), std::min(bytes.size(), sizeof *rec));
  rec->next = nullptr;
  return rec;
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using Checks = tarn::fuzz::Record_Checks<tarn::fuzz::Members>;
  const std::string input(reinterpret_cast<const char *>(data), size);
  Checks::check_text(input);
  Checks::check_record(*tarn::fuzz::record_of(input));
  return 0;
}
