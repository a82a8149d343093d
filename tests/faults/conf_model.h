// What becomes of a configuration text, said a second time and as plainly as can be, for comparison.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tarn::test {

using Model_Pairs = std::vector<std::pair<std::string, std::string>>;

struct Model_Section {
  std::string name;
  Model_Pairs pairs;
};

using Model_File = std::vector<Model_Section>;

Model_File parsed_as_text(const std::string &bytes);
Model_File parsed_as_stream(const std::string &bytes);
std::string written(const Model_File &file);
std::string shown(const Model_File &file);  // as chains are shown

const Model_Section *find(const Model_File &file, const std::string &name);

// Sets keys of a section, which comes last when it is new.
void set_pairs(Model_File *file, const std::string &section, const Model_Pairs &pairs);
void replace_section(Model_File *file, const Model_Section &section);
bool remove_section(Model_File *file, const std::string &name);  // false: there is none

// Single values: the file's bytes before and after. An empty section means the lines at the top.
enum class Lookup { no_section, no_key, found };
Lookup value_in(const std::string &bytes, const std::string &section, const std::string &key, std::string *value);
std::string with_value(const std::string &bytes, const std::string &section, const std::string &key,
                       const std::string &value);
std::string without_key(const std::string &bytes, const std::string &section, const std::string &key);

}  // namespace tarn::test
