// Runs the benchmarks and prints one table; the exit status is 1 when a bound does not hold.
#include <benchmark/benchmark.h>

#include <string>
#include <thread>
#include <vector>

#include "bench/support/table.h"

int main(int argument_count, char **arguments) {
  // Repetitions in random turns: what disturbs the machine for a while disturbs all alike. Options that are given
  // come later and so win.
  std::vector<std::string> texts = {arguments[0], "--benchmark_enable_random_interleaving=true",
                                    "--benchmark_repetitions=41", "--benchmark_min_time=0.03"};
  texts.insert(texts.end(), arguments + 1, arguments + argument_count);
  std::vector<char *> options;
  for (std::string &text : texts) options.push_back(text.data());
  int option_count = static_cast<int>(options.size());
  options.push_back(nullptr);

  // The programs that are meant have threads; the C library's locks and its allocator do less in one that never had
  // any.
  std::thread([] {}).join();

  benchmark::Initialize(&option_count, options.data());
  if (benchmark::ReportUnrecognizedArguments(option_count, options.data())) return 2;
  tarn::bench::Table table;
  benchmark::RunSpecifiedBenchmarks(&table);
  benchmark::Shutdown();
  return table.holds() ? 0 : 1;
}
