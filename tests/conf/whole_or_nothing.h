// What every function that changes a configuration file promises when something fails on the way.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tarn::test {

// How a file looks: its content and its identity, or that it is missing.
struct File_State {
  std::optional<std::string> content;
  ino_t inode = 0;

  bool operator==(const File_State &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const File_State &state) {
  return out << state.content.value_or("(missing)") << " inode " << state.inode;
}

inline File_State state_of(const std::string &path) {
  if (!exists(path)) return {};
  return {read_file(path), inode_of(path)};
}

inline void restore(const std::string &path, const std::optional<std::string> &content) {
  if (content) {
    write_file(path, *content);
  } else {
    std::filesystem::remove(path);
  }
}

struct Change {
  std::optional<std::string> before;  // the file's content; none: it is missing
  std::string after;                  // its content when the change was made
  std::function<int()> make;
  bool always_answers_0 = false;
};

// Makes the change with each allocation failing in turn. Either it is made whole with the answer 0, or the file stays
// as it is with -ENOMEM; there is never another file beside it, a lock, or an open descriptor left. At least `failures`
// of the runs must fail.
inline void expect_whole_or_nothing_without_memory(const std::string &path, const Change &change, int failures) {
  const std::string folder = std::filesystem::path(path).parent_path();
  const std::string lock = owned_lock(std::filesystem::path(path).filename());
  restore(path, change.before);
  const int descriptors = open_descriptors();
  File_State old = state_of(path);
  int failed = 0;
  const int allocations = with_each_allocation_failing(change.make, [&](int status, int nth) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    const File_State now = state_of(path);
    if (now == old) {
      ++failed;
      EXPECT_EQ(status, change.always_answers_0 ? 0 : -ENOMEM);
    } else {
      EXPECT_EQ(status, 0);
      EXPECT_EQ(now.content, change.after);
      restore(path, change.before);
      old = state_of(path);
    }
    EXPECT_EQ(names_in(folder).size(), change.before ? 1u : 0u);
    EXPECT_FALSE(exists(lock));
    EXPECT_EQ(open_descriptors(), descriptors);
  });
  EXPECT_EQ(read_file(path), change.after);
  EXPECT_FALSE(exists(lock));
  EXPECT_GE(failed, failures) << allocations << " allocations";
}

// Makes the change in a child process, with file-creation mask 0, that is killed as soon as it writes behind the first
// `limit` bytes of any file.
inline void expect_killed_while_writing(rlim_t limit, const std::function<void()> &change) {
  const int status = in_child([&] {
    g_ptslLog = nullptr;
    const rlimit no_core = {0, 0}, file_size = {limit, limit};
    setrlimit(RLIMIT_CORE, &no_core);
    setrlimit(RLIMIT_FSIZE, &file_size);
    umask(0);
    change();
  });
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
}

}  // namespace tarn::test
