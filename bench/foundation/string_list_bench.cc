// String lists beside the standard containers that do the same work.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr int sorted = 1;
constexpr int stack = 2;

using List = std::unique_ptr<Str_List, Give_Back<Str_List_Free>>;

// As shares, members and files are called: 4 to 27 characters; a half fits into a std::string without memory of its
// own.
std::vector<std::string> make_names(int count) {
  static constexpr const char *words[] = {"", "nas", "public_", "backup-of-", "Photos of the year "};
  std::mt19937 random(1);
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) {
    char name[64];
    snprintf(name, sizeof name, "%s%0*d", words[random() % std::size(words)], 4 + static_cast<int>(random() % 5), i);
    names.emplace_back(name);
  }
  std::shuffle(names.begin(), names.end(), random);
  return names;
}

List make_list(int mode) {
  Str_List *list = nullptr;
  Str_List_Init(&list, 0, mode);
  return List(list);
}

void add_all(List *list, const std::vector<std::string> &names) {
  Str_List *holder = list->release();
  for (const std::string &name : names) Str_List_Add(&holder, name.c_str());
  list->reset(holder);
}

// ------------------------------------------------------------------------------------------------------- a sorted set

void sorted_add_ours(benchmark::State &state, int count) {
  const std::vector<std::string> names = make_names(count);
  for (auto _ : state) {
    List list = make_list(sorted);
    add_all(&list, names);
    if (static_cast<int>(list->count) != count) state.SkipWithError("not all names were added");
  }
}

void sorted_add_set(benchmark::State &state, int count) {
  const std::vector<std::string> names = make_names(count);
  for (auto _ : state) {
    std::set<std::string> set;
    for (const std::string &name : names) set.emplace(name.c_str());
    benchmark::DoNotOptimize(set.size());
  }
}

constexpr int draws = 16384;

// The names to look for, drawn at random: a short sequence that repeats itself is learned by the processor.
std::vector<const std::string *> draw_from(const std::vector<std::string> &names) {
  std::mt19937 random(2);
  std::vector<const std::string *> drawn;
  for (int i = 0; i < draws; ++i) drawn.push_back(&names[random() % names.size()]);
  return drawn;
}

void look_up_ours(benchmark::State &state, int count) {
  const std::vector<std::string> names = make_names(count);
  List list = make_list(sorted);
  add_all(&list, names);
  const std::vector<const std::string *> drawn = draw_from(names);
  for (auto _ : state) {
    for (const std::string *name : drawn) {
      if (Str_List_Find(list.get(), name->c_str()) < 0) state.SkipWithError("a name was not found");
    }
  }
}

void look_up_set(benchmark::State &state, int count) {
  const std::vector<std::string> names = make_names(count);
  const std::set<std::string> set(names.begin(), names.end());
  const std::vector<const std::string *> drawn = draw_from(names);
  for (auto _ : state) {
    for (const std::string *name : drawn) {
      if (set.find(*name) == set.end()) state.SkipWithError("a name was not found");
    }
  }
}

// ------------------------------------------------------------------------------------------------------------ a stack

constexpr int pushed = 1000;

// Of lengths between two bounds.
std::vector<std::string> make_names(size_t least, size_t most) {
  std::mt19937 random(3);
  std::vector<std::string> names;
  for (int i = 0; i < pushed; ++i) names.emplace_back(least + random() % (most - least + 1), 'n');
  return names;
}

void stack_ours(benchmark::State &state, const std::vector<std::string> &names) {
  Str_List *list = make_list(stack).release();
  for (auto _ : state) {
    for (const std::string &name : names) Str_List_Push(&list, name.c_str());
    const char *top = nullptr;
    while (Str_List_Pop(list, &top) >= 0) benchmark::DoNotOptimize(*top);
  }
  Str_List_Free(list);
}

void stack_vector(benchmark::State &state, const std::vector<std::string> &names) {
  std::vector<std::string> vector;
  for (auto _ : state) {
    for (const std::string &name : names) vector.emplace_back(name.c_str());
    while (!vector.empty()) {
      benchmark::DoNotOptimize(vector.back()[0]);
      vector.pop_back();
    }
  }
}

BENCHMARK_CAPTURE(sorted_add_ours, 100, 100);
BENCHMARK_CAPTURE(sorted_add_ours, 1000, 1000);
BENCHMARK_CAPTURE(sorted_add_ours, 10000, 10000);
BENCHMARK_CAPTURE(sorted_add_ours, 100000, 100000);
BENCHMARK_CAPTURE(sorted_add_set, 100, 100);
BENCHMARK_CAPTURE(sorted_add_set, 1000, 1000);
BENCHMARK_CAPTURE(sorted_add_set, 10000, 10000);
BENCHMARK_CAPTURE(sorted_add_set, 100000, 100000);
BENCHMARK_CAPTURE(sorted_add_ours, 5000, 5000);
BENCHMARK_CAPTURE(sorted_add_set, 5000, 5000);
BENCHMARK_CAPTURE(look_up_ours, 100, 100);
BENCHMARK_CAPTURE(look_up_ours, 1000, 1000);
BENCHMARK_CAPTURE(look_up_ours, 10000, 10000);
BENCHMARK_CAPTURE(look_up_set, 100, 100);
BENCHMARK_CAPTURE(look_up_set, 1000, 1000);
BENCHMARK_CAPTURE(look_up_set, 10000, 10000);
// A std::string keeps up to 15 characters within itself, and asks for memory beyond.
BENCHMARK_CAPTURE(stack_ours, long, make_names(16, 48));
BENCHMARK_CAPTURE(stack_vector, long, make_names(16, 48));
BENCHMARK_CAPTURE(stack_ours, short, make_names(4, 15));
BENCHMARK_CAPTURE(stack_vector, short, make_names(4, 15));

}  // namespace
}  // namespace tarn::bench
