// Setting one value in a configuration file's text.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/support/sample_files.h"
#include "bench/support/sync_switch.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

// Two values in turn, so that each call really changes the file.
const char *next_value(bool *odd) {
  *odd = !*odd;
  return *odd ? "1" : "0";
}

void set_in(benchmark::State &state, const std::string &folder, int section_count, int place) {
  const Sample_File file(folder, "edited.conf", conf_text(section_count));
  const std::string section = section_name(place);
  bool odd = false;
  for (auto _ : state) {
    if (Set_Conf_File_String_Value(file.path(), section.c_str(), "Status", next_value(&odd)) != 0) {
      state.SkipWithError("the value was not set");
    }
  }
}

void set_ours(benchmark::State &state, int section_count, int place) {
  set_in(state, memory_folder, section_count, place);
}

void set_ours_on_disk(benchmark::State &state) {
  const Synchronised synchronised;
  set_in(state, disk_folder(), sections, sections / 2);
}

void set_ours_new_section(benchmark::State &state, int section_count) {
  const std::string text = conf_text(section_count);
  const Sample_File file(memory_folder, "edited.conf");
  for (auto _ : state) {
    state.PauseTiming();
    file.fill(text);
    state.ResumeTiming();
    if (Set_Conf_File_String_Value(file.path(), "another", "Status", "1") != 0) {
      state.SkipWithError("the value was not set");
    }
  }
}

// Reads the file into memory that is there already, writes it to a second file, and renames that: nothing looks at the
// text and nothing is locked.
bool replace_by_calls(const char *path, const char *temporary, std::vector<char> *buffer, bool synchronised) {
  const int from = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (from < 0 || fstat(from, &status) != 0) return false;
  const auto size = static_cast<size_t>(status.st_size);
  if (buffer->size() < size) buffer->resize(size);
  bool good = read(from, buffer->data(), size) == status.st_size;
  close(from);
  const int to = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  good = good && write(to, buffer->data(), size) == status.st_size;
  if (synchronised) good = fdatasync(to) == 0 && good;
  close(to);
  return rename(temporary, path) == 0 && good;
}

void replace_in(benchmark::State &state, const std::string &folder, int section_count, bool synchronised) {
  const Sample_File file(folder, "edited.conf", conf_text(section_count));
  const std::string temporary = std::string(file.path()) + ".tmp";
  std::vector<char> buffer;
  for (auto _ : state) {
    if (!replace_by_calls(file.path(), temporary.c_str(), &buffer, synchronised)) {
      state.SkipWithError("the file was not replaced");
    }
  }
}

void replace_bare(benchmark::State &state, int section_count) {
  replace_in(state, memory_folder, section_count, false);
}

void replace_bare_on_disk(benchmark::State &state) {
  const Synchronised synchronised;
  replace_in(state, disk_folder(), sections, true);
}

BENCHMARK_CAPTURE(set_ours, middle, sections, sections / 2);
BENCHMARK_CAPTURE(set_ours, last, sections, sections - 1);
BENCHMARK_CAPTURE(set_ours, last_of_50000, tenfold_sections, tenfold_sections - 1);
BENCHMARK_CAPTURE(set_ours_new_section, 5000, sections);
BENCHMARK_CAPTURE(replace_bare, 5000, sections);
BENCHMARK_CAPTURE(replace_bare, 50000, tenfold_sections);

// Only where a disk was named.
[[maybe_unused]] const bool disk_is_measured = [] {
  if (disk_folder().empty()) return false;
  benchmark::RegisterBenchmark("set_ours_on_disk", set_ours_on_disk)->UseRealTime();
  benchmark::RegisterBenchmark("replace_bare_on_disk", replace_bare_on_disk)->UseRealTime();
  return true;
}();

}  // namespace
}  // namespace tarn::bench
