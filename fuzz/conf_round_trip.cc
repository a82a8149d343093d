// Any text is parsed, written, and parsed again: the chain is the same, but for what the format cannot hold. The input
// is the text.
#include <cstdint>
#include <string>

#include "fuzz/support/chain.h"
#include "fuzz/support/require.h"

namespace tarn::fuzz {
namespace {

void open_section(Chain *chain, const std::string &name) {
  chain->push_back({name, {}});
}

// A key that begins like a comment or a section line makes its line one.
void add_pair(Chain *chain, const std::string &key, const std::string &value) {
  if (key[0] == '#' || key[0] == ';') return;
  if (key[0] != '[') {
    chain->back().pairs.emplace_back(key, value);
    return;
  }
  const std::string line = key + " = " + value;
  const size_t close = line.find(']');
  if (close != line.npos) open_section(chain, line.substr(1, close - 1));
}

// What is left of a chain once it was written: a section without a name gets no line of its own, so its pairs belong to
// the section before it.
Chain expected_after_writing(const Chain &chain) {
  Chain kept;
  open_section(&kept, "");
  for (const Section &section : chain) {
    if (!section.name.empty()) open_section(&kept, section.name);
    for (const auto &[key, value] : section.pairs) add_pair(&kept, key, value);
  }
  if (kept.front().pairs.empty()) kept.erase(kept.begin());
  return kept;
}

bool is_plain(const Chain &chain) {
  for (const Section &section : chain) {
    // At the top it is the nameless section, which is there when it has pairs.
    if (section.name.empty() && (&section != &chain.front() || section.pairs.empty())) return false;
    for (const auto &[key, value] : section.pairs) {
      if (key.find_first_of("#;[") == 0) return false;
    }
  }
  return true;
}

void check(const std::string &text) {
  const Sections parsed = parse_cache(text);
  const Chain chain = chain_of(parsed.get());
  const Chain chain_again = chain_of(parse_cache(written(parsed.get())).get());
  REQUIRE_EQUAL(chain_again, expected_after_writing(chain));
  if (is_plain(chain)) REQUIRE_EQUAL(chain_again, chain);
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tarn::fuzz::check(std::string(reinterpret_cast<const char *>(data), size));
  return 0;
}
