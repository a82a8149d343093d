// What the table of scripts/bench says: each row compares two benchmarks of this program.
#pragma once

#include <string>
#include <vector>

namespace tarn::bench {

enum class Clock {
  processor,  // user and kernel time of the measured thread: what others do on the machine hardly counts
  wall,       // for what waits for a disk
};

struct Comparison {
  std::string what;
  std::string ours;  // a benchmark's name
  std::string peer_label;
  std::string peer;        // a benchmark's name
  double bound = 0;        // the ratio must not be greater; 0: the row is for information
  double peer_factor = 1;  // 10 where ten times the size is held against ten times the time
  Clock clock = Clock::processor;
};

// All rows in the table's order. Bounds stand here and nowhere else.
const std::vector<Comparison> &comparisons();

}  // namespace tarn::bench
