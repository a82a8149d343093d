// Traced memory beside the allocator under it.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr int usual_size = 100;

char *traced_block(int size = usual_size) {
  return static_cast<char *>(Trace_Mem_Alloc(size, 0, __FILE__, __LINE__));
}

char *plain_block(int size = usual_size) {
  return static_cast<char *>(malloc(static_cast<size_t>(size)));
}

void free_traced(char *block) {
  Trace_Mem_Free(block + 4, __FILE__, __LINE__);
}

// The same block over and over: what the allocator answers from the thread's own cache, without any lock.
void memory_ours(benchmark::State &state) {
  for (auto _ : state) {
    char *block = traced_block();
    benchmark::DoNotOptimize(block);
    free_traced(block);
  }
}

void memory_malloc(benchmark::State &state) {
  for (auto _ : state) {
    char *block = plain_block();
    benchmark::DoNotOptimize(block);
    free(block);
  }
}

// The least that must come on top of that: the lock around the list, twice.
void memory_malloc_locked(benchmark::State &state) {
  const auto lock_once = [] {
    pthread_mutex_lock(&g_mtxMem);
    pthread_mutex_unlock(&g_mtxMem);
  };
  for (auto _ : state) {
    char *block = plain_block();
    lock_once();
    benchmark::DoNotOptimize(block);
    lock_once();
    free(block);
  }
}

// As programs allocate: blocks of many sizes, given back in another order.
template <typename Make, typename Release>
void make_and_release_many(benchmark::State &state, Make make, Release release) {
  constexpr size_t count = 1000;
  std::mt19937 random(1);
  std::vector<int> sizes(count);
  for (int &size : sizes) size = 16 << random() % 8 | static_cast<int>(random() % 16);
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), random);
  std::vector<char *> blocks(count);
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) blocks[i] = make(sizes[i]);
    for (const size_t i : order) release(blocks[i]);
  }
}

void memory_ours_many(benchmark::State &state) {
  make_and_release_many(state, traced_block, free_traced);
}

void memory_malloc_many(benchmark::State &state) {
  make_and_release_many(state, plain_block, free);
}

// Among blocks that live, one after another is released and another one made: each release unlinks in the middle.
template <typename Make, typename Release>
void replace_among(benchmark::State &state, int live, Make make, Release release) {
  std::vector<char *> blocks(static_cast<size_t>(live));
  for (char *&block : blocks) block = make(usual_size);
  size_t next = 0;
  for (auto _ : state) {
    next = (next + 7) % blocks.size();
    release(blocks[next]);
    blocks[next] = make(usual_size);
  }
  for (char *block : blocks) release(block);
}

void memory_ours_among(benchmark::State &state, int live) {
  replace_among(state, live, traced_block, free_traced);
}

void memory_malloc_among(benchmark::State &state, int live) {
  replace_among(state, live, plain_block, free);
}

BENCHMARK(memory_ours);
BENCHMARK(memory_malloc);
BENCHMARK(memory_malloc_locked);
BENCHMARK(memory_ours_many);
BENCHMARK(memory_malloc_many);
BENCHMARK_CAPTURE(memory_ours_among, 1000, 1000);
BENCHMARK_CAPTURE(memory_ours_among, 1000000, 1000000);
BENCHMARK_CAPTURE(memory_malloc_among, 1000, 1000);
BENCHMARK_CAPTURE(memory_malloc_among, 1000000, 1000000);

}  // namespace
}  // namespace tarn::bench
