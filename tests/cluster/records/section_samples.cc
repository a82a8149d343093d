#include "tests/cluster/records/section_samples.h"

#include <stdexcept>

namespace tarn::test {

Sections parsed(std::string text) {
  Sect_Node *sections = nullptr;
  if (Parse_Conf_Cache(text.data(), &sections) < 0) throw std::runtime_error("Parse_Conf_Cache");
  return Sections(sections);
}

Pairs pairs_of(const Sect_Node &section) {
  Pairs pairs;
  for (const Pair_Node *pair = section.pairs; pair != nullptr; pair = pair->next)
    pairs.emplace_back(pair->key, pair->value);
  return pairs;
}

std::vector<std::string> keys_of(const Sect_Node &section) {
  std::vector<std::string> keys;
  for (const Pair_Node *pair = section.pairs; pair != nullptr; pair = pair->next) keys.emplace_back(pair->key);
  return keys;
}

std::vector<std::string> names_of(const Sect_Node *sections) {
  std::vector<std::string> names;
  for (; sections != nullptr; sections = sections->next) names.emplace_back(sections->name);
  return names;
}

std::vector<Log_Line> errors_in(const Log_Capture &log) {
  std::vector<Log_Line> errors;
  for (const Log_Line &line : log.lines()) {
    if (line.level == "error") errors.push_back(line);
  }
  return errors;
}

}  // namespace tarn::test
