#include "bench/support/table.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace tarn::bench {
namespace {

std::string time_text(double nanoseconds) {
  static constexpr std::pair<double, const char *> units[] = {{1e9, "s"}, {1e6, "ms"}, {1e3, "us"}};
  char text[32];
  for (const auto &[size, unit] : units) {
    if (nanoseconds >= size) {
      snprintf(text, sizeof text, "%.2f %s", nanoseconds / size, unit);
      return text;
    }
  }
  snprintf(text, sizeof text, "%.0f ns", nanoseconds);
  return text;
}

void print_cells(const std::string &what, const std::string &ours, const std::string &peer_label,
                 const std::string &peer, const std::string &ratio, const std::string &bound, const char *holds) {
  printf("%-44s %10s   %-32s %10s %7s %6s  %s\n", what.c_str(), ours.c_str(), peer_label.c_str(), peer.c_str(),
         ratio.c_str(), bound.c_str(), holds);
}

std::string ratio_text(double ratio) {
  char text[32];
  snprintf(text, sizeof text, "%.2f", ratio);
  return text;
}

}  // namespace

bool Table::ReportContext(const Context &) {
  return true;
}

void Table::ReportRuns(const std::vector<Run> &runs) {
  for (const Run &run : runs) {
    if (run.error_occurred) {
      fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      holds_ = false;
    } else if (run.aggregate_name == "median") {
      const double units_per_nanosecond = benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e-9;
      figures_[run.run_name.function_name] = {run.GetAdjustedCPUTime() / units_per_nanosecond,
                                              run.GetAdjustedRealTime() / units_per_nanosecond};
      for (const auto &[name, seconds] : run.counters) {
        figures_[run.run_name.function_name + ":" + name] = {seconds * 1e9, seconds * 1e9};
      }
    }
  }
}

const Table::Figure *Table::find(const std::string &name) const {
  const auto found = figures_.find(name);
  return found != figures_.end() ? &found->second : nullptr;
}

void Table::print_row(const Comparison &row) {
  const Figure *ours = find(row.ours);
  const Figure *peer = find(row.peer);
  if (ours == nullptr && peer == nullptr) return;  // filtered out, or there is no disk
  if (ours == nullptr || peer == nullptr) {
    holds_ = holds_ && row.bound == 0;
    print_cells(row.what, ours != nullptr ? "" : "unknown", row.peer_label, peer != nullptr ? "" : "unknown", "", "",
                row.bound > 0 ? "NO" : "");
    return;
  }
  const auto time = [&](const Figure *figure) { return row.clock == Clock::wall ? figure->wall : figure->processor; };
  const double peer_time = time(peer) * row.peer_factor;
  const double ratio = time(ours) / peer_time;
  const bool bounded = row.bound > 0;
  const bool holds = !bounded || ratio <= row.bound;
  holds_ = holds_ && holds;
  print_cells(row.what, time_text(time(ours)), row.peer_label, time_text(peer_time), ratio_text(ratio),
              bounded ? ratio_text(row.bound) : "", bounded ? (holds ? "yes" : "NO") : "");
}

void Table::Finalize() {
  if (figures_.empty()) {
    fprintf(stderr, "nothing was measured\n");
    holds_ = false;
    return;
  }
  print_cells("what", "ours", "peer", "", "ratio", "bound", "holds");
  for (const Comparison &row : comparisons()) print_row(row);
}

}  // namespace tarn::bench
