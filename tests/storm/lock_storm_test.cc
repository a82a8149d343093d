// Processes and threads that want one lock, found stale or held by those that are killed: one holder at a time.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

#include "include/tarncluster_util.h"
#include "tests/storm/storm.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

constexpr int kProcesses = 6;
constexpr int kThreads = 3;

// Who holds the lock, as the holders themselves say.
struct Arena {
  std::atomic<int64_t> holder = 0;  // process id and number of the thread, or 0
  std::atomic<int> collisions = 0;
  std::atomic<int> doors = 0;                         // opened one by one
  std::atomic<int> turns[kProcesses][kThreads] = {};  // had and given back
  std::atomic<int> waits_in_vain = 0;
  volatile int plain_count = 0;    // not atomic: counts right under the lock only
  std::atomic<int> uncertain = 0;  // holders that were killed, perhaps before they counted
};

bool is_alive(int64_t holder) {
  return kill(static_cast<pid_t>(holder >> 8), 0) == 0;
}

// Takes the lock once, looks around, gives it back. False when it could not be had.
bool take_a_turn(Arena *arena, int thread) {
  if (Get_File_Lock("arena", 10000) != 1) {
    ++arena->waits_in_vain;
    return false;
  }
  const int64_t me = (static_cast<int64_t>(getpid()) << 8) + thread + 1;
  const int64_t before = arena->holder.exchange(me);
  if (before != 0 && is_alive(before)) ++arena->collisions;
  arena->plain_count = arena->plain_count + 1;
  std::this_thread::yield();
  int64_t still_me = me;
  if (!arena->holder.compare_exchange_strong(still_me, 0)) ++arena->collisions;
  Release_File_Lock("arena");
  return true;
}

void take_turns(Arena *arena, int process, int wanted) {
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([=] {
      auto &turns = arena->turns[process][i];
      while (turns < wanted) {
        while (arena->doors <= turns) usleep(100);  // closed: all of a round begin together
        if (take_a_turn(arena, i)) ++turns;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

int rounds_done(const Arena &arena) {
  int least = arena.turns[0][0];
  for (const auto &process : arena.turns) {
    for (const auto &turns : process) least = std::min<int>(least, turns);
  }
  return least;
}

void wait_for_round(Crew *crew, const Arena &arena, int round) {
  while (rounds_done(arena) < round && crew->is_at_work()) usleep(200);
}

void expect_nothing_left() {
  remove_abandoned_claims();
  EXPECT_EQ(names_in("/var/lock"), std::vector<std::string>());
}

constexpr int kOpen = 1 << 30;

TEST(Lock_Storm, lock_that_many_find_stale_at_once_has_one_holder_at_a_time) {
  const Shared<Arena> arena;
  const int rounds = scaled(400);
  const int dead = dead_pid();
  Dice dice(2);
  Crew crew(kProcesses, [&](int process) { take_turns(&*arena, process, rounds); });
  for (int round = 0; round < rounds && !testing::Test::HasFailure(); ++round) {
    const auto now = static_cast<int64_t>(Rough_Tick());
    const std::string stale[] = {
        lock_record(now, dead),                // its owner is gone
        lock_record(now - 600001, getpid()),   // it is too old
        lock_record(now + 3600000, getpid()),  // it comes from the future
        lock_record(now - 600001, dead) + "and more",
    };
    write_file(owned_lock("arena"), stale[dice.below(4)]);
    ++arena->doors;
    wait_for_round(&crew, *arena, round + 1);
  }
  crew.wait();
  EXPECT_EQ(arena->collisions, 0);
  EXPECT_EQ(arena->plain_count, rounds * kProcesses * kThreads);
  EXPECT_EQ(arena->waits_in_vain, 0);
  expect_nothing_left();
}

TEST(Lock_Storm, lock_without_content_that_many_find_has_one_holder_at_a_time) {
  const Shared<Arena> arena;
  write_file(owned_lock("arena"), "cut");
  arena->doors = kOpen;
  Crew crew(kProcesses, [&](int process) { take_turns(&*arena, process, 20); });
  crew.wait();
  EXPECT_EQ(arena->collisions, 0);
  EXPECT_EQ(arena->plain_count, 20 * kProcesses * kThreads);
  expect_nothing_left();
}

TEST(Lock_Storm, lock_of_holders_that_are_killed_has_one_holder_at_a_time_and_everybody_gets_his_turn) {
  const Shared<Arena> arena;
  const int turns = scaled(500);
  arena->doors = kOpen;
  write_file(owned_lock("arena"), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
  Crew crew(
      kProcesses, [&](int process) { take_turns(&*arena, process, turns); }, [&](int) { ++arena->uncertain; });
  Dice dice(3);
  rage(&crew, &dice, {owned_lock("arena")}, scaled(40), [&] { return arena->plain_count; });
  crew.wait();
  EXPECT_GT(crew.kills(), 0);
  printf("storm: %d killed, %d turns, %d waits in vain\n", crew.kills(), arena->plain_count,
         arena->waits_in_vain.load());
  EXPECT_EQ(arena->collisions, 0);
  EXPECT_EQ(rounds_done(*arena), turns);
  EXPECT_GE(arena->plain_count, turns * kProcesses * kThreads);
  // A process that is killed takes at most one turn of each of its threads with it that had been counted.
  EXPECT_LE(arena->plain_count, turns * kProcesses * kThreads + kThreads * arena->uncertain);
  // The last to be killed may have held it.
  EXPECT_EQ(Get_File_Lock("arena", 10000), 1);
  EXPECT_EQ(Release_File_Lock("arena"), 1);
  expect_nothing_left();
}

}  // namespace
}  // namespace tarn::test
