// Memory that a forked process makes its own before it has work.
#include "platform/clusterd/warm_memory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <iterator>

namespace tarn::platform {
namespace {

constexpr int kPages = 200;
char written_to[kPages * 4096];

long faults() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

// How many page faults a forked process has while it writes to memory that its parent has, after the preparation.
int faults_of_child(const std::function<void()> &prepare) {
  memset(written_to, 1, sizeof(written_to));
  const pid_t child = fork();
  if (child == 0) {
    prepare();
    const long before = faults();
    for (int page = 0; page < kPages; ++page) written_to[page * 4096] = 2;
    _exit(static_cast<int>(std::min(faults() - before, 255L)));
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

TEST(Warm_Memory_Test, is_written_to_without_page_faults) {
  Warm_Memory memory;
  memory.find_mappings();
  EXPECT_GT(faults_of_child([] {}), kPages / 2);  // else the test shows nothing
  EXPECT_LT(faults_of_child([&] { memory.warm(); }), kPages / 10);
}

TEST(Warm_Memory_Test, keeps_what_is_in_it) {
  Warm_Memory memory;
  memory.find_mappings();
  memset(written_to, 'x', sizeof(written_to));
  memory.warm();
  EXPECT_EQ(std::count(std::begin(written_to), std::end(written_to), 'x'), std::ssize(written_to));
}

}  // namespace
}  // namespace tarn::platform
