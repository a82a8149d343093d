// Member records, as tests need them.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/section_samples.h"

namespace tarn::test {

enum class Kind { number, long_number, text };

struct Field {
  const char *key;
  unsigned bit;
  Kind kind;
  size_t offset;
  size_t size;
};

void PrintTo(const Field &field, std::ostream *out);

constexpr unsigned name_bit = 0x1;
constexpr unsigned all_bits = 0x7FFFFF;

// In the order in which a new section gets its keys.
extern const std::vector<Field> all_fields;
const Field &field_of(const std::string &key);

std::string sample(const Field &field);  // a value that differs from those of the other fields

char *bytes_of(Tarn_Serv_Conf &rec, const Field &field);
void set(Tarn_Serv_Conf &rec, const Field &field, const std::string &value);  // the field and its bit

Tarn_Serv_Conf empty_record(const std::string &name = "");
Tarn_Serv_Conf record(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values);
Tarn_Serv_Conf full_record(const std::string &name, unsigned mask);  // all fields filled; those of the mask count

// All bytes behind next, padding included: readers hand out records that are zero wherever nothing was read.
std::string content(const Tarn_Serv_Conf &rec);

struct Records_Released {
  void operator()(Tarn_Serv_Conf *list) const { Release_Serv_List_Conf(list); }
};
using Records = std::unique_ptr<Tarn_Serv_Conf, Records_Released>;

}  // namespace tarn::test
