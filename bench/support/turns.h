// For work that two threads share: elapsed time counts then, and it depends on what else the machine does. So the
// library and its peers take turns in short slices over the same connection, and what disturbs one disturbs all alike.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn::bench {

struct Contender {
  std::string name;
  std::function<bool()> slice;
};

// Each iteration gives each contender a slice, in changing order. The figure of one is the median of its slices; in the
// table it is called BENCHMARK:NAME.
void take_turns(benchmark::State &state, const std::vector<Contender> &contenders);

// The number of iterations in a repetition.
inline constexpr int turns = 8;

}  // namespace tarn::bench
