// What the storms have in common: the seed, how long they last, and crews of processes that are killed at work.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace tarn::test {

// What is drawn at random repeats with the seed; how the processes meet does not.
uint64_t storm_seed();   // --seed N or TARN_STORM_SEED; else a new one. It is printed at the start.
int scaled(int amount);  // times TARN_STORM_SCALE, which is 1 unless given

class Dice {
 public:
  explicit Dice(uint64_t stream) : engine_(storm_seed() + stream * 0x9e3779b97f4a7c15ULL) {}
  int below(int limit) { return static_cast<int>(engine_() % static_cast<uint64_t>(limit)); }
  bool one_in(int count) { return below(count) == 0; }

 private:
  std::mt19937_64 engine_;
};

// Memory that every process forked from now on shares. What is noted there outlives whoever noted it.
template <typename T>
class Shared {
 public:
  Shared() {
    void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    value_ = new (memory) T();
  }
  ~Shared() { munmap(value_, sizeof(T)); }
  Shared(const Shared &) = delete;
  Shared &operator=(const Shared &) = delete;
  T *operator->() const { return value_; }
  T &operator*() const { return *value_; }

 private:
  T *value_;
};

// Processes that have work to do. One that is killed is replaced, until each has come to the end of its work.
class Crew {
 public:
  using Work = std::function<void(int number)>;
  Crew(
      int count, Work work, Work on_death = [](int) {});
  ~Crew();
  Crew(const Crew &) = delete;
  Crew &operator=(const Crew &) = delete;

  bool is_at_work();  // a worker that ended with a failed expectation is a failure of the test
  void wait();
  void kill_worker(int number);  // no-op when it has finished
  void kill_holder_of(
      const std::string &lock_path);  // the one that a lock file names; no-op when it is not of the crew
  int size() const { return static_cast<int>(workers_.size()); }
  int kills() const { return kills_; }

 private:
  void start(int number);
  void note_end(int number, int status);

  const Work work_;
  const Work on_death_;
  std::vector<pid_t> workers_;  // 0: finished
  int kills_ = 0;
};

// Kills workers, every other time the holder of one of the locks, until all have finished or so many have died. The
// next one is killed when the work has gone on: a lock whose maker died before it had filled it stops all for a while.
void rage(Crew *crew, Dice *dice, const std::vector<std::string> &lock_paths, int kills,
          const std::function<int64_t()> &progress);

// Lets a claim of a stale lock that its maker's death left behind be removed by the next one who finds such a lock, as
// it is meant to be. Answers how many there were.
int remove_abandoned_claims();

}  // namespace tarn::test
