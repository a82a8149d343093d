// Any text through the parser of loaded texts and the parser of streams: they read the same, which is what
// a model of the grammar reads, and it can stand in a file. The input is the text.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "fuzz/support/chain.h"
#include "fuzz/support/lines.h"
#include "fuzz/support/require.h"

namespace tarn::fuzz {
namespace {

constexpr size_t longest_line = 4094;  // without its newline; the stream parser takes a longer one in pieces

Sections parse_stream(const std::string &text) {
  FILE *stream = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  REQUIRE(stream != nullptr);
  Sect_Node *first = nullptr;
  const int count = Parse_Conf_Stream(stream, &first);
  fclose(stream);
  Sections sections(first);
  REQUIRE_EQUAL(count, static_cast<int>(chain_of(first).size()));
  return sections;
}

bool is_trimmed(const std::string &text) {
  return text == trimmed(text);
}

void require_good_texts(const Chain &chain) {
  for (const Section &section : chain) {
    REQUIRE(section.name.find_first_of("\n]") == section.name.npos);
    for (const auto &[key, value] : section.pairs) {
      REQUIRE(!key.empty() && key.find_first_of("\n=") == key.npos && is_trimmed(key));
      REQUIRE(value.find('\n') == value.npos && is_trimmed(value));
    }
  }
}

// The grammar, once more.
Chain expected_chain(const Lines &lines) {
  Chain chain = {{"", {}}};
  for (const std::string &line : lines) {
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (is_section_line(line)) chain.push_back({line.substr(1, line.find(']') - 1), {}});
      continue;
    }
    const size_t equals = line.find('=');
    if (equals == line.npos || trimmed(line.substr(0, equals)).empty()) continue;
    chain.back().pairs.emplace_back(trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
  }
  if (chain.front().pairs.empty()) chain.erase(chain.begin());
  return chain;
}

std::string whole_lines(const std::string &text) {
  return text.substr(0, text.rfind('\n') + 1);
}

bool is_read_alike(const std::string &text) {
  if (text.find('\0') != text.npos) return false;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    if (end - begin > longest_line) return false;
    begin = end + 1;
  }
  return true;
}

void check(const std::string &text) {
  const Chain from_cache = chain_of(parse_cache(text).get());
  const Chain from_stream = chain_of(parse_stream(text).get());
  require_good_texts(from_cache);
  require_good_texts(from_stream);
  const std::string up_to_nul = text.c_str();
  REQUIRE_EQUAL(from_cache, expected_chain(lines_of(whole_lines(up_to_nul))));
  if (!is_read_alike(text)) return;

  // Only the stream parser takes a last line that has no newline.
  REQUIRE_EQUAL(from_stream, expected_chain(lines_of(text)));
  REQUIRE_EQUAL(from_cache, chain_of(parse_stream(whole_lines(text)).get()));
  REQUIRE_EQUAL(from_stream, chain_of(parse_cache(text + "\n").get()));
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tarn::fuzz::check(std::string(reinterpret_cast<const char *>(data), size));
  return 0;
}
