// Traced memory at work in several threads; also compiled with ThreadSanitizer, which a malloc of one's own breaks.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "include/tarncluster_util.h"

namespace {

constexpr int distance = 4;  // from a block's data to where Trace_Mem_Check and Trace_Mem_Free want its address

void release(char *data) {
  Trace_Mem_Free(data + distance, "release.c", 1);
}

// The data of the blocks in the list.
std::vector<char *> live() {
  std::vector<char *> blocks;
  for (Trace_Mem_Node *node = g_tmnHead.next; node != &g_tmnHead; node = node->next) blocks.push_back(node->data);
  return blocks;
}

// Each thread frees its own blocks and those that others left on the table.
TEST(Traced_Memory_Threads, Are_counted_to_the_last_block) {
  constexpr unsigned int threads = 8, blocks_each = 2000;
  g_bDebugOutput = 0;
  std::mutex table_lock;
  std::vector<char *> table;
  std::atomic<unsigned int> released = 0;
  const auto work = [&](unsigned int seed) {
    std::minstd_rand random(seed);
    for (unsigned int i = 0; i < blocks_each; ++i) {
      const int size = static_cast<int>(random() % 200);
      char *data = static_cast<char *>(Trace_Mem_Alloc(size, 0, "thread.c", static_cast<int>(seed)));
      memset(data, 'x', static_cast<size_t>(size));
      {
        const std::lock_guard lock(table_lock);
        table.push_back(data);
        std::swap(table.back(), table[random() % table.size()]);
        if (random() % 3 == 0) continue;
        data = table.back();
        table.pop_back();
      }
      EXPECT_EQ(Trace_Mem_Check(data + distance), 0);
      release(data);
      ++released;
    }
  };

  std::vector<std::jthread> workers;
  for (unsigned int seed = 1; seed <= threads; ++seed) workers.emplace_back(work, seed);
  workers.clear();

  EXPECT_EQ(g_cnAlloc, threads * blocks_each);
  EXPECT_EQ(g_cnFree, released);
  EXPECT_EQ(table.size(), threads * blocks_each - released);
  std::vector<char *> left = live();
  std::ranges::sort(left);
  std::ranges::sort(table);
  EXPECT_EQ(left, table);
  for (char *data : table) release(data);
  g_bDebugOutput = 1;
  EXPECT_EQ(g_cnAlloc, g_cnFree);
  EXPECT_THAT(live(), testing::IsEmpty());
}

}  // namespace
