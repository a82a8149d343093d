#include "tests/cluster/records/share_samples.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace tarn::test {
namespace {

// Stores a value as a caller would, without touching the mask.
void store(Tarn_Share_Conf &rec, const Share_Field &field, const std::string &value) {
  if (field.list == nullptr) {
    memcpy(rec.path, value.c_str(), std::min(value.size() + 1, sizeof rec.path));
    return;
  }
  free(rec.*field.list);
  rec.*field.list = strdup(value.c_str());
}

}  // namespace

void PrintTo(const Share_Field &field, std::ostream *out) {
  *out << field.key;
}

const Share_Field &share_field_of(const std::string &key) {
  for (const Share_Field &field : share_fields) {
    if (key == field.key) return field;
  }
  throw std::invalid_argument(key);
}

Shares empty_share(const std::string &name) {
  Shares rec(static_cast<Tarn_Share_Conf *>(calloc(1, sizeof(Tarn_Share_Conf))));
  memcpy(rec->Name, name.c_str(), std::min(name.size() + 1, sizeof rec->Name));
  return rec;
}

Shares share(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values) {
  Shares rec = empty_share(name);
  for (const auto &[key, value] : values) set(*rec, share_field_of(key), value);
  return rec;
}

Shares full_share(const std::string &name, unsigned mask) {
  Shares rec = empty_share(name);
  for (const Share_Field &field : share_fields) store(*rec, field, sample(field));
  rec->fields = mask;
  return rec;
}

Shares joined(Shares first, Shares second) {
  Tarn_Share_Conf *last = first.get();
  while (last->next != nullptr) last = last->next;
  last->next = second.release();
  return first;
}

std::string sample(const Share_Field &field) {
  return std::string("sample of ") + field.key;
}

void set(Tarn_Share_Conf &rec, const Share_Field &field, const std::string &value) {
  store(rec, field, value);
  rec.fields |= field.bit;
}

std::ostream &operator<<(std::ostream &out, const Share_Content &content) {
  out << "[" << content.name << "] mask " << content.fields;
  for (const auto &text : content.texts) out << ", " << (text ? "\"" + *text + "\"" : "none");
  return out;
}

Share_Content content_of(const Tarn_Share_Conf &rec) {
  Share_Content content = {name_of(rec), rec.fields, {}};
  for (size_t i = 0; i < share_fields.size(); ++i) {
    const Share_Field &field = share_fields[i];
    if (field.list == nullptr) {
      content.texts[i] = std::string(rec.path, strnlen(rec.path, sizeof rec.path));
    } else if (rec.*field.list != nullptr) {
      content.texts[i] = rec.*field.list;
    }
  }
  return content;
}

std::vector<Share_Content> contents_of(const Tarn_Share_Conf *list) {
  std::vector<Share_Content> contents;
  for (; list != nullptr; list = list->next) contents.push_back(content_of(*list));
  return contents;
}

}  // namespace tarn::test
