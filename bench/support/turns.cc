#include "bench/support/turns.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

namespace tarn::bench {
namespace {

struct Times {
  double elapsed = 0;  // in seconds
  double processor = 0;
};

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

double seconds(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

Times now() {
  rusage children;
  getrusage(RUSAGE_CHILDREN, &children);
  return {seconds(CLOCK_MONOTONIC),
          seconds(CLOCK_THREAD_CPUTIME_ID) + seconds(children.ru_utime) + seconds(children.ru_stime)};
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void take_turns(benchmark::State &state, const std::vector<Contender> &contenders) {
  const size_t count = contenders.size();
  std::vector<std::vector<double>> elapsed(count);
  std::vector<std::vector<double>> processor(count);
  static size_t first = 0;  // of the program: repetitions of one iteration begin with another one, too
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) {
      const size_t turn = (first + i) % count;
      const Contender &contender = contenders[turn];
      bool good = contender.prepare == nullptr || contender.prepare();
      const Times start = now();
      good = good && contender.slice();
      const Times end = now();
      if (!good) state.SkipWithError((contender.name + ": failed").c_str());
      elapsed[turn].push_back(end.elapsed - start.elapsed);
      processor[turn].push_back(end.processor - start.processor);
    }
    ++first;
  }
  if (state.error_occurred()) return;
  for (size_t i = 0; i < count; ++i) {
    state.counters[contenders[i].name] = median(elapsed[i]);
    state.counters[contenders[i].name + ".processor"] = median(processor[i]);
  }
}

bool run_program(const std::vector<std::string> &words) {
  std::vector<char *> arguments;
  for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const int failure = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = -1;
  return failure == 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

}  // namespace tarn::bench
