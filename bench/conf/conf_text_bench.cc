// Reading a configuration file whole.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <ini.h>

#include <cstdlib>
#include <cstring>

#include "bench/support/sample_files.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

void parse_ours(benchmark::State &state, int section_count) {
  const Sample_File file(memory_folder, "parsed.conf", conf_text(section_count));
  for (auto _ : state) {
    Sect_Node *chain = nullptr;
    if (Read_Conf_File(file.path(), &chain) != section_count) state.SkipWithError("not all sections were read");
    Free_Sect_Node(chain);
  }
}

void parse_inih_counting(benchmark::State &state, int section_count) {
  const Sample_File file(memory_folder, "parsed.conf", conf_text(section_count));
  for (auto _ : state) {
    int keys = 0;
    const auto count = [](void *user, const char *, const char *, const char *) { return ++*static_cast<int *>(user); };
    if (ini_parse(file.path(), count, &keys) != 0 || keys != 14 * section_count) {
      state.SkipWithError("not all keys were read");
    }
  }
}

// What a program on inih builds when it wants what Read_Conf_File gives: the same nodes, appended through ends that are
// remembered.
struct Ini_Chain {
  Sect_Node *first = nullptr;
  Sect_Node *section = nullptr;
  Pair_Node *pair = nullptr;
  int section_count = 0;
};

int add_ini_pair(void *user, const char *section, const char *key, const char *value) {
  auto &chain = *static_cast<Ini_Chain *>(user);
  if (chain.section == nullptr || strcmp(chain.section->name, section) != 0) {
    const size_t length = strlen(section);
    auto *node = static_cast<Sect_Node *>(malloc(offsetof(Sect_Node, name) + length + 1));
    if (node == nullptr) return 0;
    node->next = nullptr;
    node->pairs = nullptr;
    memcpy(reinterpret_cast<char *>(node) + offsetof(Sect_Node, name), section, length + 1);
    (chain.section != nullptr ? chain.section->next : chain.first) = node;
    chain.section = node;
    chain.pair = nullptr;
    ++chain.section_count;
  }
  const size_t key_length = strlen(key);
  const size_t value_length = strlen(value);
  auto *pair = static_cast<Pair_Node *>(malloc(offsetof(Pair_Node, key) + key_length + value_length + 2));
  if (pair == nullptr) return 0;
  char *text = reinterpret_cast<char *>(pair) + offsetof(Pair_Node, key);
  memcpy(text, key, key_length + 1);
  pair->value = text + key_length + 1;
  memcpy(pair->value, value, value_length + 1);
  pair->next = nullptr;
  (chain.pair != nullptr ? chain.pair->next : chain.section->pairs) = pair;
  chain.pair = pair;
  return 1;
}

void parse_inih_building(benchmark::State &state, int section_count) {
  const Sample_File file(memory_folder, "parsed.conf", conf_text(section_count));
  for (auto _ : state) {
    Ini_Chain chain;
    if (ini_parse(file.path(), add_ini_pair, &chain) != 0 || chain.section_count != section_count) {
      state.SkipWithError("not all sections were read");
    }
    Free_Sect_Node(chain.first);
  }
}

void parse_key_file(benchmark::State &state, int section_count) {
  const Sample_File file(memory_folder, "parsed.conf", conf_text(section_count));
  for (auto _ : state) {
    GKeyFile *key_file = g_key_file_new();
    if (!g_key_file_load_from_file(key_file, file.path(), G_KEY_FILE_NONE, nullptr)) {
      state.SkipWithError("the file was not read");
    }
    g_key_file_free(key_file);
  }
}

BENCHMARK_CAPTURE(parse_ours, 5000, sections);
BENCHMARK_CAPTURE(parse_inih_counting, 5000, sections);
BENCHMARK_CAPTURE(parse_inih_building, 5000, sections);
BENCHMARK_CAPTURE(parse_key_file, 5000, sections);
BENCHMARK_CAPTURE(parse_ours, 50000, tenfold_sections);
BENCHMARK_CAPTURE(parse_inih_building, 50000, tenfold_sections);

}  // namespace
}  // namespace tarn::bench
