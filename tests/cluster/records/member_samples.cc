#include "tests/cluster/records/member_samples.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace tarn::test {
namespace {

// Stores a value as a caller would, without touching the mask.
void store(Tarn_Serv_Conf &rec, const Field &field, const std::string &value) {
  const int64_t number = field.kind == Kind::text ? 0 : std::stoll(value);
  const int narrow = static_cast<int>(number);
  switch (field.kind) {
    case Kind::number:
      memcpy(bytes_of(rec, field), &narrow, sizeof narrow);
      break;
    case Kind::long_number:
      memcpy(bytes_of(rec, field), &number, sizeof number);
      break;
    case Kind::text:
      memcpy(bytes_of(rec, field), value.c_str(), value.size() + 1);
      break;
  }
}

}  // namespace

#define FIELD(name, bit, kind) \
  { #name, bit, Kind::kind, offsetof(Tarn_Serv_Conf, name), sizeof(Tarn_Serv_Conf::name) }

const std::vector<Field> all_fields = {
    FIELD(HostName, 0x100, text),
    FIELD(Address, 0x80, text),
    FIELD(ID, 0x4, number),
    FIELD(PID, 0x8, number),
    FIELD(UsrCnt, 0x20, number),
    FIELD(Type, 0x2, number),
    FIELD(Status, 0x40, number),
    FIELD(WebPort, 0x800, number),
    FIELD(SslWebPort, 0x2000, number),
    FIELD(BackupResult, 0x20000, number),
    FIELD(RestoreResult, 0x40000, number),
    FIELD(BackupProgress, 0x80000, number),
    FIELD(RestoreProgress, 0x100000, number),
    FIELD(RestorePID, 0x200000, number),
    FIELD(LastBackup, 0x8000, long_number),
    FIELD(LastRestore, 0x10000, long_number),
    FIELD(Quota, 0x1000, long_number),
    FIELD(LeaveTime, 0x4000, long_number),
    FIELD(SID, 0x10, text),
    FIELD(Model, 0x200, text),
    FIELD(Firmware, 0x400, text),
    FIELD(LastRestoreFile, 0x400000, text),
};

void PrintTo(const Field &field, std::ostream *out) {
  *out << field.key;
}

const Field &field_of(const std::string &key) {
  for (const Field &field : all_fields) {
    if (key == field.key) return field;
  }
  throw std::invalid_argument(key);
}

std::string sample(const Field &field) {
  const auto index = &field - all_fields.data();
  switch (field.kind) {
    case Kind::number:
      return std::to_string(-1000 - static_cast<int>(index));
    case Kind::long_number:
      return std::to_string(9000000000000LL + static_cast<int>(index));
    case Kind::text:
      return "text " + std::to_string(index);
  }
  return "";
}

char *bytes_of(Tarn_Serv_Conf &rec, const Field &field) {
  return reinterpret_cast<char *>(&rec) + field.offset;
}

void set(Tarn_Serv_Conf &rec, const Field &field, const std::string &value) {
  store(rec, field, value);
  rec.fields |= field.bit;
}

Tarn_Serv_Conf empty_record(const std::string &name) {
  Tarn_Serv_Conf rec;
  memset(&rec, 0, sizeof rec);
  memcpy(rec.Name, name.c_str(), std::min(name.size() + 1, sizeof rec.Name));
  return rec;
}

Tarn_Serv_Conf record(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values) {
  Tarn_Serv_Conf rec = empty_record(name);
  for (const auto &[key, value] : values) set(rec, field_of(key), value);
  return rec;
}

Tarn_Serv_Conf full_record(const std::string &name, unsigned mask) {
  Tarn_Serv_Conf rec = empty_record(name);
  for (const Field &field : all_fields) store(rec, field, sample(field));
  rec.fields = mask;
  return rec;
}

std::string content(const Tarn_Serv_Conf &rec) {
  constexpr size_t start = offsetof(Tarn_Serv_Conf, fields);
  return {reinterpret_cast<const char *>(&rec) + start, sizeof rec - start};
}

}  // namespace tarn::test
