// Share records, as tests need them.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/section_samples.h"

namespace tarn::test {

struct Share_Field {
  const char *key;
  unsigned bit;
  char *Tarn_Share_Conf::*list;  // null: the path, which stands in the record's own bytes
};

void PrintTo(const Share_Field &field, std::ostream *out);

// In the order in which a section has its keys.
inline constexpr std::array<Share_Field, 4> share_fields = {{
    {"read list", 0x2, &Tarn_Share_Conf::read_list},
    {"write list", 0x4, &Tarn_Share_Conf::write_list},
    {"invalid users", 0x8, &Tarn_Share_Conf::invalid_users},
    {"path", 0x10, nullptr},
}};

constexpr unsigned share_name_bit = 0x1;
constexpr unsigned all_share_bits = 0x1F;

const Share_Field &share_field_of(const std::string &key);

struct Shares_Released {
  void operator()(Tarn_Share_Conf *list) const { Release_Share_List_Conf(list); }
};
using Shares = std::unique_ptr<Tarn_Share_Conf, Shares_Released>;

Shares empty_share(const std::string &name);
Shares share(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values);
Shares full_share(const std::string &name, unsigned mask);  // all fields filled; those of the mask count
Shares joined(Shares first, Shares second);                 // the second list behind the first

std::string sample(const Share_Field &field);  // a value that differs from those of the other fields
void set(Tarn_Share_Conf &rec, const Share_Field &field, const std::string &value);  // the field and its bit

// What a record holds, whatever its mask says.
struct Share_Content {
  std::string name;
  unsigned fields = 0;
  std::array<std::optional<std::string>, 4> texts;  // none: null. The path is always there

  bool operator==(const Share_Content &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Share_Content &content);

Share_Content content_of(const Tarn_Share_Conf &rec);
std::vector<Share_Content> contents_of(const Tarn_Share_Conf *list);

}  // namespace tarn::test
