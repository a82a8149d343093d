// Taking and releasing a file's lock that nobody else wants.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <lockfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr const char *protected_file = "/etc/config/benchmark.conf";
constexpr const char *lock_file = "/var/lock/_benchmark.conf.lck";

void lock_ours(benchmark::State &state) {
  for (auto _ : state) {
    if (Get_File_Lock(protected_file, 10000) != 1) state.SkipWithError("the lock was not to be had");
    Release_File_Lock(protected_file);
  }
}

// What any lock of this kind costs at least: the four calls, with nothing to compute.
void lock_bare(benchmark::State &state) {
  const char record[16] = {};
  for (auto _ : state) {
    const int fd = open(lock_file, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
    if (fd < 0 || write(fd, record, sizeof record) != sizeof record) state.SkipWithError("no lock file");
    close(fd);
    unlink(lock_file);
  }
}

void lock_liblockfile(benchmark::State &state) {
  for (auto _ : state) {
    if (lockfile_create(lock_file, 0, L_PID) != L_SUCCESS) state.SkipWithError("the lock was not to be had");
    lockfile_remove(lock_file);
  }
}

BENCHMARK(lock_ours);
BENCHMARK(lock_bare);
BENCHMARK(lock_liblockfile);

}  // namespace
}  // namespace tarn::bench
