// Prints the comparisons once every benchmark has run.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

#include "bench/support/comparison.h"

namespace tarn::bench {

class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &context) override;
  void ReportRuns(const std::vector<Run> &runs) override;
  void Finalize() override;

  // Whether every benchmark ran without trouble and every bound holds; known after Finalize.
  bool holds() const { return holds_; }

 private:
  struct Figure {
    double processor = 0;  // medians, in nanoseconds
    double wall = 0;
  };

  const Figure *find(const std::string &name) const;
  void print_row(const Comparison &row);

  std::map<std::string, Figure> figures_;
  bool holds_ = true;
};

}  // namespace tarn::bench
