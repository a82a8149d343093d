// Writing one line to a log file, on the disk's side of every buffer when the call returns.
#include <benchmark/benchmark.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "bench/support/sample_files.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

// The line that the library writes when it cannot read a file.
constexpr const char *function = "Get_Conf_File_String_Value";
constexpr const char *file_name = "/etc/config/benchmark.conf";
constexpr int line_number = 45;
constexpr int status = -13;

void log_ours(benchmark::State &state) {
  const Sample_File file(memory_folder, "benchmark.log");
  Simp_Log *log = nullptr;
  if (Simp_Log_Create(file.path(), &log, 24, 3, 0) != 0 || Simp_Log_Open(log, 0) != 0) {
    state.SkipWithError("no log");
  }
  for (auto _ : state) {
    Simp_Log_Write(log, "[debug] %s(%d): Can't cache file \"%s\" error! (%d)\n", function, line_number, file_name,
                   status);
  }
  Simp_Log_Release(log);
}

// One look for the file that would make the line wait, and one for the line itself.
void write_line(FILE *stream, const char *prefix) {
  struct stat found;
  benchmark::DoNotOptimize(stat("/var/lock/benchmark.log.lck", &found));
  fprintf(stream, "%s[debug] %s(%d): Can't cache file \"%s\" error! (%d)\n", prefix, function, line_number, file_name,
          status);
  fflush(stream);
}

// The date and time come from nowhere: no logger can do with less than this.
void log_bare(benchmark::State &state) {
  const Sample_File file(memory_folder, "benchmark.log");
  FILE *stream = fopen(file.path(), "ae");
  for (auto _ : state) write_line(stream, "[2026-11-21 17:08:09] ");
  fclose(stream);
}

void log_bare_with_time(benchmark::State &state) {
  const Sample_File file(memory_folder, "benchmark.log");
  FILE *stream = fopen(file.path(), "ae");
  for (auto _ : state) {
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char prefix[40];
    strftime(prefix, sizeof prefix, "[%F %T] ", &local);
    write_line(stream, prefix);
  }
  fclose(stream);
}

void log_spdlog(benchmark::State &state) {
  const Sample_File file(memory_folder, "benchmark.log");
  const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(file.path());
  spdlog::logger log("benchmark", sink);
  log.set_pattern("[%Y-%m-%d %H:%M:%S] [debug] %v");
  log.set_level(spdlog::level::debug);
  log.flush_on(spdlog::level::debug);
  for (auto _ : state) {
    log.debug("{}({}): Can't cache file \"{}\" error! ({})", function, line_number, file_name, status);
  }
}

BENCHMARK(log_ours);
BENCHMARK(log_bare);
BENCHMARK(log_bare_with_time);
BENCHMARK(log_spdlog);

}  // namespace
}  // namespace tarn::bench
