#include "bench/support/turns.h"

#include <algorithm>
#include <chrono>

namespace tarn::bench {
namespace {

using Seconds = std::chrono::duration<double>;

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

void take_turns(benchmark::State &state, const std::vector<Contender> &contenders) {
  const size_t count = contenders.size();
  std::vector<std::vector<double>> slices(count);
  size_t first = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) {
      const size_t turn = (first + i) % count;
      const auto start = std::chrono::steady_clock::now();
      if (!contenders[turn].slice()) state.SkipWithError((contenders[turn].name + ": failed").c_str());
      slices[turn].push_back(Seconds(std::chrono::steady_clock::now() - start).count());
    }
    first = (first + 1) % count;
  }
  if (state.error_occurred()) return;
  for (size_t i = 0; i < count; ++i) state.counters[contenders[i].name] = median(slices[i]);
}

}  // namespace tarn::bench
