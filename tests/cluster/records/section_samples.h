// The sections that records are read from and written to, and their names, as tests of every family of records need
// them.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/log_capture.h"

namespace tarn::test {

struct Sections_Freed {
  void operator()(Sect_Node *sections) const { Free_Sect_Node(sections); }
};
using Sections = std::unique_ptr<Sect_Node, Sections_Freed>;

Sections parsed(std::string text);

using Pairs = std::vector<std::pair<std::string, std::string>>;
Pairs pairs_of(const Sect_Node &section);
std::vector<std::string> keys_of(const Sect_Node &section);
std::vector<std::string> names_of(const Sect_Node *sections);

template <typename Record>
std::string name_of(const Record &rec) {
  return {rec.Name, strnlen(rec.Name, sizeof rec.Name)};
}

template <typename Record>
std::vector<std::string> names_of(const Record *list) {
  std::vector<std::string> names;
  for (; list != nullptr; list = list->next) names.push_back(name_of(*list));
  return names;
}

std::vector<Log_Line> errors_in(const Log_Capture &log);

}  // namespace tarn::test
