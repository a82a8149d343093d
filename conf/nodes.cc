#include "conf/nodes.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "foundation/report.h"

namespace tarn {
namespace {

char *put_text(char *place, std::string_view text) {
  memcpy(place, text.data(), text.size());
  place[text.size()] = '\0';
  return place;
}

// Texts inside a node are reached through the node's bytes, since they lie behind its fixed part.
char *bytes_behind(void *node, size_t offset) {
  return static_cast<char *>(node) + offset;
}

int copy_value(const char *stored, char *buffer, int *size) {
  const size_t length = strlen(stored);
  const bool fits = *size > 0 && length < static_cast<size_t>(*size);
  *size = static_cast<int>(length + 1);
  if (!fits) return -EOVERFLOW;
  memcpy(buffer, stored, length + 1);
  return 0;
}

// Parses what a lookup found.
int parse_value(int status, const char *stored, int64_t *value) {
  if (status == 0) *value = strtoll(stored, nullptr, 10);
  return status;
}

template <typename Number>
int get_pair_number(const Pair_Node *pairs, const char *key, Number *value) {
  return get_narrow_number(value, [=](int64_t *wide) { return Get_Pair_Int64_Value(pairs, key, wide); });
}

template <typename Number>
int get_conf_number(const Sect_Node *sections, const char *section, const char *key, Number *value) {
  return get_narrow_number(value, [=](int64_t *wide) { return Get_Conf_Int64_Value(sections, section, key, wide); });
}

// Puts a new pair into a link, and what stood there behind it is the caller's affair.
int put_new_pair(const char *function, Pair_Node **link, const char *key, const char *value) {
  Pair_Node *pair = nullptr;
  const int status = Create_Pair_Node(&pair, key, value);
  if (status != 0) {
    TARN_DEBUG_AS(function, "Can't create a pair node error! (%d, %s, %s)", status, key, value);
    return status;
  }
  *link = pair;
  return 0;
}

}  // namespace

size_t section_node_size(size_t name_length) {
  return offsetof(Sect_Node, name) + std::max(name_length + 1, section_name_room);
}

size_t pair_node_size(size_t key_length, size_t value_length) {
  return offsetof(Pair_Node, key) + key_length + 1 + value_length + 1;
}

Sect_Node *allocate_section_node(std::string_view name) {
  auto *section = static_cast<Sect_Node *>(calloc(1, section_node_size(name.size())));
  if (section != nullptr) put_text(bytes_behind(section, offsetof(Sect_Node, name)), name);
  return section;
}

Pair_Node *allocate_pair_node(std::string_view key, std::string_view value) {
  auto *pair = static_cast<Pair_Node *>(malloc(pair_node_size(key.size(), value.size())));
  if (pair == nullptr) return nullptr;
  pair->next = nullptr;
  char *key_place = put_text(bytes_behind(pair, offsetof(Pair_Node, key)), key);
  pair->value = put_text(key_place + key.size() + 1, value);
  return pair;
}

Sect_Node **find_section_link(Sect_Node **chain, const char *name) {
  while (*chain != nullptr && strcmp((*chain)->name, name) != 0) chain = &(*chain)->next;
  return chain;
}

Pair_Node **find_pair_link(Pair_Node **chain, const char *key) {
  while (*chain != nullptr && strcmp((*chain)->key, key) != 0) chain = &(*chain)->next;
  return chain;
}

bool has_newline(const char *text) {
  return strchr(text, '\n') != nullptr;
}

bool fits_text_format(const Pair_Node &pair) {
  return !has_newline(pair.key) && (pair.value == nullptr || !has_newline(pair.value));
}

bool fits_text_format(const Sect_Node &section) {
  if (strpbrk(section.name, "\n]") != nullptr) return false;
  for (const Pair_Node *pair = section.pairs; pair != nullptr; pair = pair->next) {
    if (!fits_text_format(*pair)) return false;
  }
  return true;
}

}  // namespace tarn

int Create_Pair_Node(Pair_Node **out, const char *key, const char *value) {
  if (out == nullptr || key == nullptr || value == nullptr) return -EINVAL;
  *out = tarn::allocate_pair_node(key, value);
  return *out != nullptr ? 0 : -ENOMEM;
}

int Create_Integer_Pair_Node(Pair_Node **out, const char *key, int64_t value) {
  char text[32];
  snprintf(text, sizeof text, "%" PRId64, value);
  return Create_Pair_Node(out, key, text);
}

int Create_Sect_Node(Sect_Node **out, const char *name) {
  if (out == nullptr || name == nullptr) return -EINVAL;
  *out = tarn::allocate_section_node(name);
  return *out != nullptr ? 0 : -ENOMEM;
}

void Free_Pair_Node(Pair_Node *first) {
  while (first != nullptr) free(tarn::unlink_node(&first));
}

void Free_Sect_Node(Sect_Node *first) {
  while (first != nullptr) {
    Sect_Node *section = tarn::unlink_node(&first);
    Free_Pair_Node(section->pairs);
    free(section);
  }
}

int Get_Pair_String_Buffer(const Pair_Node *pairs, const char *key, const char **value) {
  if (pairs == nullptr || key == nullptr || value == nullptr) return -EINVAL;
  while (pairs != nullptr && strcmp(pairs->key, key) != 0) pairs = pairs->next;
  if (pairs == nullptr || pairs->value == nullptr) return -ENODATA;
  *value = pairs->value;
  return 0;
}

int Get_Pair_String_Value(const Pair_Node *pairs, const char *key, char *buffer, int *size) {
  if (buffer == nullptr || size == nullptr) return -EINVAL;
  const char *stored = nullptr;
  const int status = Get_Pair_String_Buffer(pairs, key, &stored);
  return status == 0 ? tarn::copy_value(stored, buffer, size) : status;
}

int Get_Pair_Int64_Value(const Pair_Node *pairs, const char *key, int64_t *value) {
  if (value == nullptr) return -EINVAL;
  const char *stored = nullptr;
  const int status = Get_Pair_String_Buffer(pairs, key, &stored);
  return tarn::parse_value(status, stored, value);
}

int Get_Pair_Int8_Value(const Pair_Node *pairs, const char *key, int8_t *value) {
  return tarn::get_pair_number(pairs, key, value);
}

int Get_Pair_Int16_Value(const Pair_Node *pairs, const char *key, int16_t *value) {
  return tarn::get_pair_number(pairs, key, value);
}

int Get_Pair_Int32_Value(const Pair_Node *pairs, const char *key, int32_t *value) {
  return tarn::get_pair_number(pairs, key, value);
}

int Set_Pair_String_Value(Pair_Node **chain, const char *key, const char *value) {
  if (chain == nullptr || key == nullptr) return -EINVAL;
  Pair_Node **link = tarn::find_pair_link(chain, key);
  Pair_Node *found = *link;
  if (found == nullptr) return value == nullptr ? 0 : tarn::put_new_pair(__func__, link, key, value);
  if (value == nullptr) {
    Free_Pair_Node(tarn::unlink_node(link));
    return 0;
  }

  const size_t length = strlen(value);
  if (found->value != nullptr && strlen(found->value) >= length) {
    memmove(found->value, value, length + 1);  // the new value may be the tail of the old one
    return 0;
  }
  const int status = tarn::put_new_pair(__func__, link, key, value);
  if (status != 0) return status;
  (*link)->next = found->next;
  found->next = nullptr;
  Free_Pair_Node(found);  // only now: key and value may be its own texts
  return 0;
}

int Set_Pair_Integer_Value(Pair_Node **chain, const char *key, int64_t value) {
  char text[32];
  int size = sizeof text;
  Integer_To_Decimal_String(text, &size, value);
  return Set_Pair_String_Value(chain, key, text);
}

int Get_Conf_String_Pointer(const Sect_Node *sections, const char *section, const char *key, const char **value) {
  if (sections == nullptr || section == nullptr || key == nullptr || value == nullptr) return -EINVAL;
  while (sections != nullptr && strcmp(sections->name, section) != 0) sections = sections->next;
  if (sections == nullptr) return -ENOANO;
  return sections->pairs != nullptr ? Get_Pair_String_Buffer(sections->pairs, key, value) : -ENODATA;
}

int Get_Conf_String_Value(const Sect_Node *sections, const char *section, const char *key, char *buffer, int *size) {
  if (buffer == nullptr || size == nullptr) return -EINVAL;
  const char *stored = nullptr;
  const int status = Get_Conf_String_Pointer(sections, section, key, &stored);
  return status == 0 ? tarn::copy_value(stored, buffer, size) : status;
}

int Get_Conf_Int64_Value(const Sect_Node *sections, const char *section, const char *key, int64_t *value) {
  if (value == nullptr) return -EINVAL;
  const char *stored = nullptr;
  const int status = Get_Conf_String_Pointer(sections, section, key, &stored);
  return tarn::parse_value(status, stored, value);
}

int Get_Conf_Int8_Value(const Sect_Node *sections, const char *section, const char *key, int8_t *value) {
  return tarn::get_conf_number(sections, section, key, value);
}

int Get_Conf_Int16_Value(const Sect_Node *sections, const char *section, const char *key, int16_t *value) {
  return tarn::get_conf_number(sections, section, key, value);
}

int Get_Conf_Int32_Value(const Sect_Node *sections, const char *section, const char *key, int32_t *value) {
  return tarn::get_conf_number(sections, section, key, value);
}

int Set_Conf_String_Value(Sect_Node *sections, const char *section, const char *key, const char *value) {
  if (sections == nullptr || section == nullptr || key == nullptr) return -EINVAL;
  Sect_Node **link = tarn::find_section_link(&sections, section);
  if (*link != nullptr) return Set_Pair_String_Value(&(*link)->pairs, key, value);
  if (value == nullptr) return 0;

  Pair_Node *pair = nullptr;
  int status = tarn::put_new_pair(__func__, &pair, key, value);
  if (status != 0) return status;
  status = Create_Sect_Node(link, section);
  if (status != 0) {
    Free_Pair_Node(pair);
    TARN_DEBUG("Can'r create a sect node error! (%d, %s)", status, section);
    return status;
  }
  (*link)->pairs = pair;
  return 0;
}

int Set_Conf_Integer_Value(Sect_Node *sections, const char *section, const char *key, int64_t value) {
  char text[32];
  int size = sizeof text;
  Integer_To_Decimal_String(text, &size, value);
  return Set_Conf_String_Value(sections, section, key, text);
}
