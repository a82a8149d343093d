#include "tests/faults/conf_model.h"

#include <algorithm>
#include <optional>

namespace tarn::test {
namespace {

using Lines = std::vector<std::string>;

// Without their newlines. A text that does not end in one gets it.
Lines lines_of(std::string bytes) {
  if (bytes.empty() || bytes.back() != '\n') bytes += '\n';
  Lines lines;
  for (size_t begin = 0; begin < bytes.size();) {
    const size_t end = bytes.find('\n', begin);
    lines.push_back(bytes.substr(begin, end - begin));
    begin = end + 1;
  }
  return lines;
}

std::string joined(const Lines &lines, const std::string &end) {
  std::string text;
  for (const std::string &line : lines) text += line + end;
  return text;
}

std::string trimmed(const std::string &text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == text.npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

std::optional<std::string> section_name(const std::string &line) {
  if (line.empty() || line[0] != '[' || line.find(']') == line.npos) return {};
  return line.substr(1, line.find(']') - 1);
}

std::optional<std::pair<std::string, std::string>> key_and_value(const std::string &line) {
  if (line.empty() || line[0] == '#' || line[0] == ';' || line[0] == '[') return {};
  const size_t equals = line.find('=');
  if (equals == line.npos) return {};
  return std::pair(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
}

Model_File parsed(const Lines &lines) {
  Model_File file = {{"", {}}};
  for (const std::string &line : lines) {
    if (const auto name = section_name(line)) file.push_back({*name, {}});
    const auto pair = key_and_value(line);
    if (pair && !pair->first.empty()) file.back().pairs.push_back(*pair);
  }
  if (file[0].pairs.empty()) file.erase(file.begin());
  return file;
}

// Where a section's lines and a key's line are among the lines of a text.
struct Found {
  bool section = false;
  size_t begin = 0, end = 0;
  std::optional<size_t> key;
};

Found look_for(const Lines &lines, const std::string &section, const std::string &key) {
  Found found;
  found.section = section.empty();
  for (size_t i = 0; !found.section && i < lines.size(); ++i) {
    if (!lines[i].starts_with("[" + section + "]")) continue;
    found.section = true;
    found.begin = i + 1;
  }
  if (!found.section) return found;
  for (found.end = found.begin; found.end < lines.size() && !section_name(lines[found.end]); ++found.end) {
    const auto pair = key_and_value(lines[found.end]);
    if (pair && pair->first == key && !found.key) found.key = found.end;
  }
  return found;
}

void drop_empty_at_begin(Lines *lines) {
  while (!lines->empty() && lines->front().empty()) lines->erase(lines->begin());
}
void drop_empty_at_end(Lines *lines) {
  while (!lines->empty() && lines->back().empty()) lines->pop_back();
}

}  // namespace

Model_File parsed_as_text(const std::string &bytes) {
  Lines lines = lines_of(bytes);
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find('\0') == std::string::npos) continue;
    lines.resize(i);  // a line that a NUL cuts off has no end
    break;
  }
  return parsed(lines);
}

Model_File parsed_as_stream(const std::string &bytes) {
  constexpr size_t limit = 4095;
  Lines pieces;
  for (size_t begin = 0; begin < bytes.size();) {
    const size_t newline = bytes.find('\n', begin);
    const size_t end = std::min({bytes.size(), newline == bytes.npos ? newline : newline + 1, begin + limit});
    pieces.push_back(bytes.substr(begin, end - begin));
    begin = end;
  }
  for (std::string &each : pieces) {
    if (!each.empty() && each.back() == '\n') each.pop_back();
    each = each.substr(0, each.find('\0'));
  }
  return parsed(pieces);
}

std::string written(const Model_File &file) {
  std::string text;
  for (const Model_Section &section : file) {
    if (!section.name.empty()) text += "[" + section.name + "]\n";
    for (const auto &[key, value] : section.pairs) text += key + " = " + value + "\n";
    text += "\n";
  }
  return text;
}

std::string shown(const Model_File &file) {
  std::string text;
  for (const Model_Section &section : file) {
    text += "[" + section.name + "]";
    for (const auto &[key, value] : section.pairs) text += key + "=" + value + ";";
  }
  return text;
}

const Model_Section *find(const Model_File &file, const std::string &name) {
  for (const Model_Section &section : file) {
    if (section.name == name) return &section;
  }
  return nullptr;
}

void set_pairs(Model_File *file, const std::string &section, const Model_Pairs &pairs) {
  if (find(*file, section) == nullptr) file->push_back({section, {}});
  Model_Section &changed = *const_cast<Model_Section *>(find(*file, section));
  for (const auto &pair : pairs) {
    const auto same = std::find_if(changed.pairs.begin(), changed.pairs.end(),
                                   [&](const auto &other) { return other.first == pair.first; });
    if (same != changed.pairs.end()) {
      same->second = pair.second;
    } else {
      changed.pairs.push_back(pair);
    }
  }
}

void replace_section(Model_File *file, const Model_Section &section) {
  const Model_Section *old = find(*file, section.name);
  if (old != nullptr) {
    *const_cast<Model_Section *>(old) = section;
  } else {
    file->push_back(section);
  }
}

bool remove_section(Model_File *file, const std::string &name) {
  const Model_Section *old = find(*file, name);
  if (old == nullptr) return false;
  file->erase(file->begin() + (old - file->data()));
  return true;
}

Lookup value_in(const std::string &bytes, const std::string &section, const std::string &key, std::string *value) {
  const Lines lines = lines_of(bytes);
  const Found found = look_for(lines, section, key);
  if (!found.section) return Lookup::no_section;
  if (!found.key) return Lookup::no_key;
  *value = key_and_value(lines[*found.key])->second;
  return Lookup::found;
}

std::string with_value(const std::string &bytes, const std::string &section, const std::string &key,
                       const std::string &value) {
  Lines lines = lines_of(bytes);
  const Found found = look_for(lines, section, key);
  const std::string line = key + " = " + value;
  if (found.key) {
    lines[*found.key] = line;
    return joined(lines, "\n");
  }
  const size_t cut = found.section ? found.end : lines.size();
  Lines head(lines.begin(), lines.begin() + static_cast<long>(cut));
  const Lines tail(lines.begin() + static_cast<long>(cut), lines.end());
  drop_empty_at_begin(&head);
  drop_empty_at_end(&head);
  std::string text = joined(head, "\n");
  if (found.section) {
    if (text.empty()) text = "\n";
    return text + line + "\n\n" + joined(tail, "\n");
  }
  if (!text.empty()) text += "\n";
  return text + "[" + section + "]\n" + line + "\n";
}

std::string without_key(const std::string &bytes, const std::string &section, const std::string &key) {
  Lines lines = lines_of(bytes);
  const Found found = look_for(lines, section, key);
  if (!found.key) return bytes;
  lines.erase(lines.begin() + static_cast<long>(*found.key));
  return joined(lines, "\n");
}

}  // namespace tarn::test
