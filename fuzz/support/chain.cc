#include "fuzz/support/chain.h"

#include <cstdio>
#include <cstdlib>

#include "fuzz/support/require.h"

namespace tarn::fuzz {

Chain chain_of(const Sect_Node *first) {
  Chain chain;
  for (const Sect_Node *section = first; section != nullptr; section = section->next) {
    chain.push_back({section->name, {}});
    for (const Pair_Node *pair = section->pairs; pair != nullptr; pair = pair->next) {
      chain.back().pairs.emplace_back(pair->key, pair->value);
    }
  }
  return chain;
}

std::string shown(const Chain &chain) {
  std::string text;
  for (const Section &section : chain) {
    text += "section " + shown(section.name) + ": ";
    for (const auto &[key, value] : section.pairs) text += shown(key) + " = " + shown(value) + "; ";
  }
  return text;
}

Sections parse_cache(std::string text) {
  Sect_Node *first = nullptr;
  const int count = Parse_Conf_Cache(text.data(), &first);
  Sections sections(first);
  REQUIRE_EQUAL(count, static_cast<int>(chain_of(first).size()));
  return sections;
}

std::string written(const Sect_Node *first) {
  char *bytes = nullptr;
  size_t length = 0;
  FILE *stream = open_memstream(&bytes, &length);
  REQUIRE_EQUAL(Write_Sect_Node(stream, first), 0);
  fclose(stream);
  const std::string text(bytes, length);
  free(bytes);
  return text;
}

}  // namespace tarn::fuzz
