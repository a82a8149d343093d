// Chains of sections as values that can be compared and shown, taken from nodes without the library's help.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"

namespace tarn::fuzz {

struct Section {
  std::string name;
  std::vector<std::pair<std::string, std::string>> pairs;  // key, value

  bool operator==(const Section &) const = default;
};
using Chain = std::vector<Section>;

Chain chain_of(const Sect_Node *first);
std::string shown(const Chain &chain);

struct Free_Sections {
  void operator()(Sect_Node *first) const { Free_Sect_Node(first); }
};
using Sections = std::unique_ptr<Sect_Node, Free_Sections>;

// As Parse_Conf_Cache, which must answer with the number of sections.
Sections parse_cache(std::string text);

std::string written(const Sect_Node *first);  // as Write_Sect_Node

}  // namespace tarn::fuzz
