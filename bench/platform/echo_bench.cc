// A command that goes to another member and back: measured by a program of its own, which raises two members.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "foundation/owners.h"

namespace tarn::bench {
namespace {

constexpr char rounds[] = " 500";

using Program = std::unique_ptr<FILE, Give_Back<pclose>>;

void echo(benchmark::State &state, const std::string &program) {
  double ours = 0, bare = 0;  // in microseconds
  for (auto _ : state) {
    const Program output(popen((program + rounds).c_str(), "re"));
    char line[256];
    while (output != nullptr && fgets(line, sizeof line, output.get()) != nullptr) {
      sscanf(line, "echo between two members: %lf us; bare request and reply: %lf us", &ours, &bare);
    }
  }
  if (ours <= 0 || bare <= 0) {
    state.SkipWithError("the members did not answer");
    return;
  }
  state.counters["ours"] = ours * 1e-6;
  state.counters["bare"] = bare * 1e-6;
}

// Only where the program was named.
[[maybe_unused]] const bool registered = [] {
  const char *program = getenv("TARN_BENCH_ECHO");
  if (program == nullptr) return false;
  const auto run = [program = std::string(program)](benchmark::State &state) { echo(state, program); };
  benchmark::RegisterBenchmark("echo", run)->Iterations(1)->Repetitions(3)->UseRealTime();
  return true;
}();

}  // namespace
}  // namespace tarn::bench
