// For work that two threads share, or that a program of its own does: its time depends on what else the machine does.
// So the library and its peers take turns in short slices, and what disturbs one disturbs all alike.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn::bench {

struct Contender {
  std::string name;
  std::function<bool()> slice;
  std::function<bool()> prepare = nullptr;  // before each slice, not measured
};

// Each iteration gives each contender a slice, in changing order. The figure of one is the median of its slices; in the
// table its elapsed time is called BENCHMARK:NAME, and BENCHMARK:NAME.processor the processor time of the thread and of
// the programs that it waited for.
void take_turns(benchmark::State &state, const std::vector<Contender> &contenders);

// The number of iterations in a repetition.
inline constexpr int turns = 8;

// For slices that take long: as many in all, and the median of these.
inline constexpr int long_turns = 10;

// Runs a program to its end, its output dropped; false unless its exit status is 0.
bool run_program(const std::vector<std::string> &words);

}  // namespace tarn::bench
