// Chains of sections and pairs for tests, made and shown without the library's own node and text functions.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"

namespace tarn::test {

struct Sections_Deleter {
  void operator()(Sect_Node *first) const { Free_Sect_Node(first); }
};

struct Pairs_Deleter {
  void operator()(Pair_Node *first) const { Free_Pair_Node(first); }
};

using Sections = std::unique_ptr<Sect_Node, Sections_Deleter>;
using Pairs = std::unique_ptr<Pair_Node, Pairs_Deleter>;

struct Pair_Text {
  std::string key;
  std::optional<std::string> value;  // without one, the node's value is null
};

struct Section_Text {
  std::string name;
  std::vector<Pair_Text> pairs;
};

inline Pair_Node *new_pair(const Pair_Text &text) {
  const std::size_t value_room = text.value ? text.value->size() + 1 : 0;
  auto *node = static_cast<Pair_Node *>(calloc(1, offsetof(Pair_Node, key) + text.key.size() + 1 + value_room));
  memcpy(node->key, text.key.c_str(), text.key.size() + 1);
  if (text.value) {
    node->value = node->key + text.key.size() + 1;
    memcpy(node->value, text.value->c_str(), value_room);
  }
  return node;
}

inline Pairs make_pairs(const std::vector<Pair_Text> &texts) {
  Pair_Node *first = nullptr;
  Pair_Node **end = &first;
  for (const Pair_Text &text : texts) end = &(*end = new_pair(text))->next;
  return Pairs(first);
}

inline Sections make_sections(const std::vector<Section_Text> &texts) {
  Sect_Node *first = nullptr;
  Sect_Node **end = &first;
  for (const Section_Text &text : texts) {
    *end = static_cast<Sect_Node *>(calloc(1, offsetof(Sect_Node, name) + text.name.size() + 1));
    memcpy((*end)->name, text.name.c_str(), text.name.size() + 1);
    (*end)->pairs = make_pairs(text.pairs).release();
    end = &(*end)->next;
  }
  return Sections(first);
}

// "key=value;" for each pair, "key;" for one without value.
inline std::string shown(const Pair_Node *pair) {
  std::string text;
  for (; pair != nullptr; pair = pair->next) {
    text += pair->key;
    if (pair->value != nullptr) text += std::string("=") + pair->value;
    text += ";";
  }
  return text;
}

// "[name]key=value;" for each section; "" for an empty chain.
inline std::string shown(const Sect_Node *section) {
  std::string text;
  for (; section != nullptr; section = section->next) {
    text += std::string("[") + section->name + "]" + shown(section->pairs);
  }
  return text;
}

inline std::string shown(const Sections &sections) {
  return shown(sections.get());
}
inline std::string shown(const Pairs &pairs) {
  return shown(pairs.get());
}

}  // namespace tarn::test
