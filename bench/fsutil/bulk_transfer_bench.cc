// One great file copied, and bytes that are spliced through a pipe.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/support/sample_files.h"
#include "bench/support/turns.h"
#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

// ------------------------------------------------------------------------------------------------------ a great file

constexpr int64_t great_size = int64_t{2} << 30;
constexpr size_t copy_step = 32768;  // what the library reads and writes at once

// 2 GiB of bytes that are no zeros, in memory; made when needed first.
class Great_File {
 public:
  Great_File() : file_(memory_folder, "great-file") {
    std::mt19937_64 random(1);
    std::vector<uint64_t> block(131072);
    for (uint64_t &word : block) word = random();
    const Descriptor file(open(path(), O_WRONLY | O_CLOEXEC));
    const auto size = static_cast<ssize_t>(block.size() * sizeof block[0]);
    for (int64_t written = 0; written < great_size; written += size) {
      if (write(file.get(), block.data(), static_cast<size_t>(size)) != size) abort();
    }
  }
  const char *path() const { return file_.path(); }

 private:
  const Sample_File file_;
};

bool copy_by_loop(const char *from, const char *to) {
  const Descriptor source(open(from, O_RDONLY | O_CLOEXEC));
  const Descriptor destination(open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  static char buffer[copy_step];
  ssize_t got;
  while ((got = read(source.get(), buffer, copy_step)) > 0) {
    if (write(destination.get(), buffer, static_cast<size_t>(got)) != got) return false;
  }
  return got == 0;
}

void copy_great_file(benchmark::State &state) {
  static const Great_File source;
  const std::string copy = memory_folder + "/great-copy";
  const auto none = [&] {
    unlink(copy.c_str());
    return true;
  };
  unsigned int abort_flag = 0;
  take_turns(state, {{"ours", [&] { return Copy_File(source.path(), copy.c_str(), &abort_flag, nullptr) == 0; }, none},
                     {"program",
                      [&] {
                        return run_program({"cp", "--reflink=never", source.path(), copy});
                      },
                      none},
                     {"bare", [&] { return copy_by_loop(source.path(), copy.c_str()); }, none}});
  none();
}

// ------------------------------------------------------------------------------------------------------------ splicing

constexpr int64_t spliced = 64 << 20;
constexpr size_t splice_step = 131072;

// A pipe with a thread at its other end.
class Piped_Thread {
 public:
  Piped_Thread(int our_end, void (*work)(int fd)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) abort();
    ours_ = Descriptor(ends[our_end]);
    thread_ = std::thread([work, end = ends[1 - our_end]] {
      const Descriptor theirs(end);
      work(end);
    });
  }
  ~Piped_Thread() {
    ours_ = Descriptor();
    thread_.join();
  }
  Piped_Thread(const Piped_Thread &) = delete;
  Piped_Thread &operator=(const Piped_Thread &) = delete;

  int fd() const { return ours_.get(); }

 private:
  Descriptor ours_;
  std::thread thread_;
};

constexpr int read_end = 0;
constexpr int write_end = 1;

void drop_all(int fd) {
  const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  while (splice(fd, nullptr, nowhere.get(), nullptr, splice_step, 0) > 0) continue;
}

void give_on(int fd) {
  const std::vector<char> buffer(splice_step, 'x');
  while (write(fd, buffer.data(), buffer.size()) > 0) continue;
}

bool splice_ours(int from, int64_t *from_offset, int to, int64_t *to_offset) {
  return Splice_File_Data(from, from_offset, to, to_offset, spliced, 10000, nullptr, nullptr) == 0;
}

bool splice_bare(int from, int64_t *from_offset, int to, int64_t *to_offset) {
  for (int64_t left = spliced; left > 0;) {
    const size_t most = std::min(static_cast<size_t>(left), splice_step);
    const ssize_t moved = splice(from, from_offset, to, to_offset, most, 0);
    if (moved <= 0) return false;
    left -= moved;
  }
  return true;
}

using Splicer = bool (*)(int from, int64_t *from_offset, int to, int64_t *to_offset);

void splice_from_file(benchmark::State &state) {
  const Sample_File file(memory_folder, "spliced", std::string(spliced, 'x'));
  const Descriptor source(open(file.path(), O_RDONLY | O_CLOEXEC));
  const Piped_Thread taker(write_end, drop_all);
  const auto by = [&](Splicer move) {
    return [&, move] {
      int64_t offset = 0;
      return move(source.get(), &offset, taker.fd(), nullptr);
    };
  };
  take_turns(state, {{"ours", by(splice_ours)}, {"bare", by(splice_bare)}});
}

void splice_to_file(benchmark::State &state) {
  signal(SIGPIPE, SIG_IGN);  // the thread ends when we do
  const Sample_File file(memory_folder, "spliced", std::string(spliced, 'x'));
  const Descriptor destination(open(file.path(), O_WRONLY | O_CLOEXEC));
  const Piped_Thread giver(read_end, give_on);
  const auto by = [&](Splicer move) {
    return [&, move] {
      int64_t offset = 0;
      return move(giver.fd(), nullptr, destination.get(), &offset);
    };
  };
  take_turns(state, {{"ours", by(splice_ours)}, {"bare", by(splice_bare)}});
}

BENCHMARK(copy_great_file)->Iterations(1)->Repetitions(long_turns)->UseRealTime();
BENCHMARK(splice_from_file)->Iterations(turns)->UseRealTime();
BENCHMARK(splice_to_file)->Iterations(turns)->UseRealTime();

}  // namespace
}  // namespace tarn::bench
