#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/standard_output.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr int64_t now_ms = 1'700'000'000'000;
constexpr int several_passes = 20;  // readings of the clock
constexpr time_t some_mtime = 1'600'000'000;
const std::string lock_folder = "/var/lock";
const std::string name = "tarn_lock_test";
const std::string path = "/some/folder/" + name;

std::string text_of(int64_t number) {
  return std::to_string(number);
}

// Puts a file at the path in one step, as another process may.
void plant(const std::string &where, const std::string &content, time_t mtime = 0) {
  const std::string beside = where + ".planted";
  write_file(beside, content);
  if (mtime != 0) {
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    utimensat(AT_FDCWD, beside.c_str(), times, 0);
  }
  ASSERT_EQ(rename(beside.c_str(), where.c_str()), 0);
}

void set_mtime(const std::string &where, time_t seconds, long nanoseconds = 0) {
  const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(utimensat(AT_FDCWD, where.c_str(), times, 0), 0);
}

// Both kinds of lock file are judged alike; what differs is said here.
struct Kind {
  const char *label;
  const char *function;
  std::string (*lock_of)(const std::string &base_name);
  int (*wait)(const char *path, int timeout_ms);
  int let_through;  // the answer when the lock is out of the way

  std::string file() const { return lock_of(name); }

  Log_Line time_out(const std::string &elapsed, int timeout_ms) const {
    return error_line(function,
                      "Get lock file \"" + file() + "\" timeout! (" + elapsed + " < " + text_of(timeout_ms) + ")");
  }
  Log_Line gone(int pid) const {
    return debug_line(function, "Remove \"" + file() + "\" because proc " + text_of(pid) + " is not existed!");
  }
  Log_Line expired(int64_t age) const {
    return debug_line(function, "Remove \"" + file() + "\" because time expired (" + text_of(age) + ")!");
  }
  Log_Line invalid(int64_t number) const {
    return debug_line(function,
                      "Remove \"" + file() + "\" because invalid content and timeout (" + text_of(number) + ")!");
  }
};

std::ostream &operator<<(std::ostream &out, const Kind &kind) {
  return out << kind.label;
}

constexpr Kind owned_kind = {"Owned", "Get_File_Lock", owned_lock, Get_File_Lock, 1};
constexpr Kind foreign_kind = {"Foreign", "Check_File_Lock", foreign_lock, Check_File_Lock, 0};

// A call that waits for a lock, in a thread of its own.
class Waiter {
 public:
  Waiter(const Kind &kind, int timeout_ms)
      : result_(std::async(std::launch::async, [=] { return kind.wait(path.c_str(), timeout_ms); })) {}

  ~Waiter() {
    if (!result_.valid()) return;
    // A test that failed ends here: let the call through, so that the others get their turn.
    unlink(owned_lock(name).c_str());
    unlink(foreign_lock(name).c_str());
    result();
  }
  Waiter(const Waiter &) = delete;
  Waiter &operator=(const Waiter &) = delete;

  bool still_waits() { return result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready; }

  int result() {
    if (result_.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
      fprintf(stderr, "the call does not return\n");
      abort();
    }
    return result_.get();
  }

 private:
  std::future<int> result_;
};

void clean_the_lock_folder() {
  if (!on_a_throw_away_root()) {
    fprintf(stderr, "this would empty %s: run it by tests/appliance\n", lock_folder.c_str());
    exit(1);
  }
  for (const std::string &entry : names_in(lock_folder)) std::filesystem::remove_all(lock_folder + "/" + entry);
}

class Lock_Test : public testing::Test {
 protected:
  void SetUp() override { clean_the_lock_folder(); }
  void TearDown() override { clean_the_lock_folder(); }
};

class Any_Lock : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override { clean_the_lock_folder(); }
  void TearDown() override { clean_the_lock_folder(); }

  const Kind &kind_ = GetParam();
  const std::string lock_ = kind_.file();

  // What the lock folder holds once the call was let through, or was not.
  std::vector<std::string> names_afterwards(bool let_through) const {
    if (let_through && kind_.let_through == 0) return {};
    return {lock_.substr(lock_folder.size() + 1)};
  }

  void expect_let_through() const {
    EXPECT_EQ(names_in(lock_folder), names_afterwards(true)) << "nothing else may lie about";
    if (kind_.let_through == 1) {
      EXPECT_EQ(read_file(lock_), lock_record(now_ms, getpid()));
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Locks, Any_Lock, testing::Values(owned_kind, foreign_kind),
                         [](const auto &test) { return test.param.label; });

// ----------------------------------------------------------------------------------------------------- taking a lock

using Owned_Lock = Lock_Test;

TEST_F(Owned_Lock, Is_a_file_with_the_start_of_the_call_and_the_owners_id) {
  const Virtual_Clock clock(now_ms);

  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);

  EXPECT_THAT(names_in(lock_folder), ElementsAre("_" + name + ".lck"));
  EXPECT_EQ(read_file(owned_lock(name)), lock_record(now_ms, getpid())) << "the reserved word is zero";
}

TEST_F(Owned_Lock, Is_open_to_all_that_the_umask_lets_through) {
  const mode_t mask = umask(0);
  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);
  EXPECT_EQ(mode_of(owned_lock(name)), 0777U);
  umask(027);
  EXPECT_EQ(Get_File_Lock("other", 0), 1);
  EXPECT_EQ(mode_of(owned_lock("other")), 0750U);
  umask(mask);
}

TEST_F(Owned_Lock, Bears_the_time_when_the_call_started_and_not_when_it_was_had) {
  Virtual_Clock clock(now_ms);
  plant(owned_lock(name), lock_record(now_ms, getpid()));
  Waiter waiter(owned_kind, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));

  clock.set(now_ms + 5000);
  EXPECT_EQ(Release_File_Lock(path.c_str()), 1);

  EXPECT_EQ(waiter.result(), 1);
  EXPECT_EQ(read_file(owned_lock(name)), lock_record(now_ms, getpid()));
}

TEST_F(Owned_Lock, Had_after_more_than_10_minutes_of_waiting_is_stale_at_birth) {
  Virtual_Clock clock(now_ms);
  plant(owned_lock(name), lock_record(now_ms, getpid()));
  Waiter waiter(owned_kind, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  clock.set(now_ms + 500'000);
  plant(owned_lock(name), lock_record(now_ms + 500'000, getpid()));
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  clock.set(now_ms + 700'000);
  EXPECT_EQ(Release_File_Lock(path.c_str()), 1);
  EXPECT_EQ(waiter.result(), 1);

  const Log_Capture log;
  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);
  EXPECT_THAT(log.lines(), ElementsAre(owned_kind.expired(700'000)));
}

TEST_F(Owned_Lock, Is_shared_by_all_paths_of_the_same_base_name) {
  EXPECT_EQ(Get_File_Lock("/a/b/conf", 0), 1);
  EXPECT_EQ(Get_File_Lock("/c/conf", 0), 0);
  EXPECT_EQ(Get_File_Lock("conf", 0), 0);
  EXPECT_EQ(Get_File_Lock("/c/conf2", 0), 1);
  EXPECT_EQ(Release_File_Lock("/c/conf"), 1);
  EXPECT_EQ(Get_File_Lock("conf", 0), 1);
}

TEST_F(Owned_Lock, Has_a_name_even_for_paths_without_a_base_name) {
  EXPECT_EQ(Get_File_Lock("/a/b/", 0), 1);
  EXPECT_TRUE(exists("/var/lock/_.lck"));
  EXPECT_EQ(Get_File_Lock("", 0), 0) << "the same lock";
  EXPECT_EQ(Get_File_Lock("/a/..", 0), 1);
  EXPECT_TRUE(exists("/var/lock/_...lck"));
}

TEST_F(Owned_Lock, Is_not_reentrant) {
  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);
  EXPECT_EQ(Get_File_Lock(path.c_str(), 20), 0);
  EXPECT_TRUE(exists(owned_lock(name)));
}

TEST_F(Owned_Lock, Is_given_back_whoever_holds_it) {
  write_file(owned_lock(name), lock_record(static_cast<int64_t>(Rough_Tick()), getppid()));
  EXPECT_EQ(Release_File_Lock(path.c_str()), 1);
  EXPECT_FALSE(exists(owned_lock(name)));
}

TEST_F(Owned_Lock, Given_back_without_being_held_is_no_failure) {
  const Log_Capture log;
  EXPECT_EQ(Release_File_Lock(path.c_str()), 1);
  ASSERT_EQ(mkdir(owned_lock(name).c_str(), 0755), 0);
  EXPECT_EQ(Release_File_Lock(path.c_str()), 1);
  EXPECT_TRUE(exists(owned_lock(name)));
  EXPECT_EQ(log.text(), "");
}

TEST_F(Owned_Lock, Needs_a_path) {
  const Log_Capture log;
  EXPECT_EQ(Get_File_Lock(nullptr, -1), 0);
  EXPECT_EQ(Release_File_Lock(nullptr), 0);
  EXPECT_EQ(Check_File_Lock(nullptr, -1), 0);
  EXPECT_EQ(log.text(), "");
  EXPECT_THAT(names_in(lock_folder), IsEmpty());
}

TEST_F(Owned_Lock, And_foreign_lock_have_nothing_to_do_with_each_other) {
  const Log_Capture log;
  plant(foreign_lock(name), lock_record(static_cast<int64_t>(Rough_Tick()), getpid()));
  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);
  unlink(foreign_lock(name).c_str());

  EXPECT_EQ(Check_File_Lock(path.c_str(), -1), 0);

  EXPECT_TRUE(exists(owned_lock(name)));
  EXPECT_EQ(log.text(), "");
}

TEST_F(Owned_Lock, Of_a_killed_process_is_had_at_once) {
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    const char answer = Get_File_Lock(path.c_str(), 0) == 1 ? 'y' : 'n';
    if (write(ready[1], &answer, 1) == 1) pause();
    _exit(0);
  }
  char answer = 0;
  ASSERT_EQ(read(ready[0], &answer, 1), 1);
  ASSERT_EQ(answer, 'y');
  EXPECT_EQ(Get_File_Lock(path.c_str(), 20), 0);

  kill(holder, SIGKILL);
  // Until it is waited for, the dead process can still be signalled.
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(holder), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(Get_File_Lock(path.c_str(), 20), 0);
  waitpid(holder, nullptr, 0);

  const Log_Capture log;
  EXPECT_EQ(Get_File_Lock(path.c_str(), 0), 1);
  EXPECT_THAT(log.lines(), ElementsAre(owned_kind.gone(holder)));
  close(ready[0]);
  close(ready[1]);
}

// ------------------------------------------------------------------------------------------------------ foreign lock

using Foreign_Lock = Lock_Test;

TEST_F(Foreign_Lock, Is_never_made) {
  const Log_Capture log;
  EXPECT_EQ(Check_File_Lock(path.c_str(), 0), 0);
  EXPECT_EQ(Check_File_Lock(path.c_str(), -1), 0);
  EXPECT_THAT(names_in(lock_folder), IsEmpty());
  EXPECT_EQ(log.text(), "");
}

TEST_F(Foreign_Lock, Counts_as_not_there_when_it_cannot_be_looked_up) {
  ASSERT_EQ(symlink(foreign_lock(name).c_str(), foreign_lock(name).c_str()), 0);
  EXPECT_EQ(in_child([] { EXPECT_EQ(Check_File_Lock(path.c_str(), -1), 0); }), 0);
}

TEST_F(Foreign_Lock, Counts_as_not_there_when_it_is_a_dangling_link) {
  ASSERT_EQ(symlink("/nowhere", foreign_lock(name).c_str()), 0);
  EXPECT_EQ(in_child([] { EXPECT_EQ(Check_File_Lock(path.c_str(), -1), 0); }), 0);
  EXPECT_TRUE(exists(foreign_lock(name)));
}

TEST_F(Foreign_Lock, Counts_as_not_there_without_the_lock_folder) {
  EXPECT_EQ(in_child([] {
              mount_tmpfs("/var", "");
              EXPECT_EQ(Check_File_Lock(path.c_str(), -1), 0);
            }),
            0);
}

// --------------------------------------------------------------------------------------------------- judging a lock

TEST_P(Any_Lock, Of_a_dead_process_goes_at_the_first_look) {
  const Virtual_Clock clock(now_ms);
  const Log_Capture log;
  const int owner = dead_pid();
  plant(lock_, lock_record(now_ms, owner));

  EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);

  EXPECT_THAT(log.lines(), ElementsAre(kind_.gone(owner)));
  expect_let_through();
}

TEST_P(Any_Lock, Of_no_proper_process_id_counts_as_a_dead_process) {
  const Virtual_Clock clock(now_ms);
  for (const int owner : {0, -1, INT_MIN}) {
    const Log_Capture log;
    plant(lock_, lock_record(now_ms, owner));

    EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);

    EXPECT_THAT(log.lines(), ElementsAre(kind_.gone(owner)));
    expect_let_through();
  }
}

TEST_P(Any_Lock, Of_a_process_that_may_not_be_signalled_counts_as_a_dead_one) {
  EXPECT_EQ(in_child([&] {
              mount_tmpfs(lock_folder, "mode=1777");
              const Virtual_Clock clock(now_ms);
              const Log_Capture log;
              {
                const As_Nobody nobody;
                plant(lock_, lock_record(now_ms, 1));

                EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);
              }

              EXPECT_THAT(log.lines(), ElementsAre(kind_.gone(1)));
              expect_let_through();
            }),
            0);
}

TEST_P(Any_Lock, Older_than_599999_ms_goes) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(lock_, lock_record(now_ms - 599'999, getpid()));
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  ASSERT_TRUE(waiter.still_waits());
  EXPECT_EQ(read_file(lock_), lock_record(now_ms - 599'999, getpid()));
  EXPECT_EQ(log.text(), "");

  clock.advance(1);

  EXPECT_EQ(waiter.result(), kind_.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.expired(600'000)));
  expect_let_through();
}

TEST_P(Any_Lock, With_a_stamp_that_is_no_age_counts_as_old) {
  const Virtual_Clock clock(now_ms);
  const std::pair<int64_t, int64_t> cases[] = {
      {now_ms + 1, -1}, {now_ms + 86'400'000, -86'400'000}, {0, now_ms},
      {-5, now_ms + 5}, {INT64_MAX, now_ms - INT64_MAX},    {INT64_MIN, INT64_MIN + now_ms}};
  for (const auto &[stamp, printed] : cases) {
    const Log_Capture log;
    plant(lock_, lock_record(stamp, getpid()));

    EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);

    EXPECT_THAT(log.lines(), ElementsAre(kind_.expired(printed)));
    expect_let_through();
  }
}

TEST_P(Any_Lock, Both_old_and_of_a_dead_process_is_reported_for_the_process) {
  const Virtual_Clock clock(now_ms);
  const Log_Capture log;
  const int owner = dead_pid();
  plant(lock_, lock_record(0, owner));

  EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);

  EXPECT_THAT(log.lines(), ElementsAre(kind_.gone(owner)));
}

TEST_P(Any_Lock, Is_judged_by_its_first_16_bytes_whatever_follows) {
  Virtual_Clock clock(now_ms);
  plant(lock_, lock_record(now_ms, getpid()) + "x", some_mtime);
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  clock.advance(5000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  EXPECT_TRUE(waiter.still_waits());

  const Log_Capture log;
  const int owner = dead_pid();
  plant(lock_, lock_record(now_ms, owner) + std::string(5000, 'x'));

  EXPECT_EQ(waiter.result(), kind_.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.gone(owner)));
}

TEST_P(Any_Lock, Is_judged_without_regard_to_its_reserved_bytes) {
  Virtual_Clock clock(now_ms);
  clock.on_read([&] { clock.advance(100); });
  std::string record = lock_record(now_ms, getpid());
  record.replace(12, 4, "\xff\xff\xff\xff");
  plant(lock_, record);

  EXPECT_EQ(kind_.wait(path.c_str(), 10'000), 0);

  EXPECT_EQ(read_file(lock_), record);
}

class Short_Locks : public testing::TestWithParam<std::tuple<Kind, std::string>> {
 protected:
  void SetUp() override { clean_the_lock_folder(); }
  void TearDown() override { clean_the_lock_folder(); }
};

INSTANTIATE_TEST_SUITE_P(Contents, Short_Locks,
                         testing::Combine(testing::Values(owned_kind, foreign_kind),
                                          testing::Values(std::string(), std::string(8, '\0'),
                                                          lock_record(now_ms, 1).substr(0, 15))),
                         [](const auto &test) {
                           return std::get<0>(test.param).label +
                                  text_of(static_cast<int>(std::get<1>(test.param).size()));
                         });

TEST_P(Short_Locks, Go_more_than_2000_ms_after_they_were_first_seen) {
  const auto &[kind, content] = GetParam();
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(kind.file(), content, some_mtime);
  Waiter waiter(kind, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  clock.advance(2000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  ASSERT_TRUE(waiter.still_waits());
  EXPECT_EQ(read_file(kind.file()), content);
  EXPECT_EQ(log.text(), "");

  clock.advance(1);

  EXPECT_EQ(waiter.result(), kind.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind.invalid(now_ms + 2001 - 100 * some_mtime)));
}

TEST_P(Any_Lock, Without_content_has_its_modification_time_printed_as_32_bits) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  constexpr time_t in_2096 = 4'000'000'000;
  plant(lock_, "", in_2096);
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));

  clock.advance(2001);

  EXPECT_EQ(waiter.result(), kind_.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.invalid(now_ms + 2001 - 100 * (in_2096 - (int64_t{1} << 32)))));
}

TEST_P(Any_Lock, Without_content_that_is_touched_is_observed_anew) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(lock_, "", some_mtime);
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  for (int touched = 1; touched <= 3; ++touched) {
    set_mtime(lock_, some_mtime + touched);
    clock.advance(2001);
    ASSERT_TRUE(clock.wait_for_reads(several_passes));
    ASSERT_TRUE(waiter.still_waits());
    EXPECT_TRUE(exists(lock_));
  }
  clock.advance(2000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  ASSERT_TRUE(waiter.still_waits());
  EXPECT_EQ(log.text(), "");

  clock.advance(1);

  EXPECT_EQ(waiter.result(), kind_.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.invalid(clock.now() - 100 * (some_mtime + 3))));
}

TEST_P(Any_Lock, Without_content_that_is_touched_within_the_same_second_counts_as_untouched) {
  Virtual_Clock clock(now_ms);
  plant(lock_, "", some_mtime);
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));

  set_mtime(lock_, some_mtime, 999'999'999);
  clock.advance(2001);

  EXPECT_EQ(waiter.result(), kind_.let_through);
}

TEST_P(Any_Lock, Without_content_is_observed_through_a_proper_lock_in_between) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(lock_, "", some_mtime);
  Waiter waiter(kind_, -1);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  plant(lock_, lock_record(now_ms, getpid()));
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  clock.advance(2001);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  ASSERT_TRUE(waiter.still_waits());

  // The observation lives for the whole call.
  plant(lock_, "", some_mtime);

  EXPECT_EQ(waiter.result(), kind_.let_through);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.invalid(now_ms + 2001 - 100 * some_mtime)));
}

TEST_P(Any_Lock, Without_content_that_gets_its_record_in_time_is_a_proper_lock) {
  Virtual_Clock clock(now_ms);
  plant(lock_, "", some_mtime);
  Waiter waiter(kind_, 10'000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));
  write_file(lock_, lock_record(now_ms, getpid()));
  clock.advance(9'000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));

  EXPECT_TRUE(waiter.still_waits());

  clock.advance(1'001);
  EXPECT_EQ(waiter.result(), 0);
  EXPECT_EQ(read_file(lock_), lock_record(now_ms, getpid()));
}

TEST_P(Any_Lock, Without_content_goes_by_the_real_clock_too) {
  const Log_Capture log;
  plant(lock_, "", some_mtime);

  EXPECT_EQ(kind_.wait(path.c_str(), 20'000), kind_.let_through);

  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(names_in(lock_folder), names_afterwards(true));
}

// The stamp of the lock is renewed with every reading of the clock. Whoever reads the clock before the file sees a lock
// of the future, and would take it away from its owner.
TEST_P(Any_Lock, Renewed_while_it_is_looked_at_is_no_lock_of_the_future) {
  Virtual_Clock clock(now_ms);
  plant(lock_, lock_record(now_ms, getpid()));
  const int file = open(lock_.c_str(), O_WRONLY | O_CLOEXEC);
  clock.on_read([&] {
    clock.advance(1);
    const int64_t stamp = clock.now();
    EXPECT_EQ(pwrite(file, &stamp, sizeof stamp, 0), static_cast<ssize_t>(sizeof stamp));
  });
  const ino_t before = inode_of(lock_);

  EXPECT_EQ(kind_.wait(path.c_str(), 100), 0);

  ASSERT_TRUE(exists(lock_));
  EXPECT_EQ(inode_of(lock_), before);
  close(file);
}

// --------------------------------------------------------------------------------------------------------- time-outs

TEST_P(Any_Lock, Is_waited_for_until_more_than_the_time_out_has_passed) {
  for (const int timeout : {0, 1, 10'000}) {
    Virtual_Clock clock(now_ms);
    const Log_Capture log;
    plant(lock_, lock_record(now_ms, getpid()));
    Waiter waiter(kind_, timeout);
    ASSERT_TRUE(clock.wait_for_reads(several_passes));
    clock.set(now_ms + timeout);
    ASSERT_TRUE(clock.wait_for_reads(several_passes));
    ASSERT_TRUE(waiter.still_waits());
    EXPECT_EQ(log.text(), "");

    clock.advance(1);

    EXPECT_EQ(waiter.result(), 0);
    EXPECT_THAT(log.lines(), ElementsAre(kind_.time_out(text_of(timeout + 1), timeout)));
    EXPECT_EQ(read_file(lock_), lock_record(now_ms, getpid()));
  }
}

TEST_P(Any_Lock, Is_waited_for_no_longer_when_the_clock_is_set_back) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(lock_, lock_record(now_ms - 5, getpid()));
  Waiter waiter(kind_, 10'000);
  ASSERT_TRUE(clock.wait_for_reads(several_passes));

  // The difference is unsigned: a clock set back is a long time.
  clock.advance(-1);

  EXPECT_EQ(waiter.result(), 0);
  EXPECT_THAT(log.lines(), ElementsAre(kind_.time_out("-1", 10'000)));
}

TEST_P(Any_Lock, Is_waited_for_without_limit_by_a_negative_time_out) {
  for (const int timeout : {-1, INT_MIN}) {
    Virtual_Clock clock(now_ms);
    const Log_Capture log;
    plant(lock_, lock_record(now_ms, getpid()));
    Waiter waiter(kind_, timeout);
    ASSERT_TRUE(clock.wait_for_reads(several_passes));
    clock.advance(599'999);
    ASSERT_TRUE(clock.wait_for_reads(several_passes));
    ASSERT_TRUE(waiter.still_waits());

    unlink(lock_.c_str());

    EXPECT_EQ(waiter.result(), kind_.let_through);
    EXPECT_EQ(log.text(), "");
    Release_File_Lock(path.c_str());
  }
}

TEST_P(Any_Lock, Ends_a_time_out_of_0_by_the_real_clock) {
  const Log_Capture log(1);
  plant(lock_, lock_record(static_cast<int64_t>(Rough_Tick()), getpid()));

  EXPECT_EQ(kind_.wait(path.c_str(), 0), 0);

  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(exists(lock_));
}

// ------------------------------------------------------------------------------------------------- what may lie there

TEST_P(Any_Lock, That_is_a_link_is_not_followed_and_not_removed) {
  Virtual_Clock clock(now_ms);
  clock.on_read([&] { clock.advance(100); });
  const Temporary_Folder folder;
  write_file(folder / "target", lock_record(0, 0));
  ASSERT_EQ(symlink((folder / "target").c_str(), lock_.c_str()), 0);

  EXPECT_EQ(kind_.wait(path.c_str(), 10'000), 0);

  EXPECT_TRUE(std::filesystem::is_symlink(lock_));
  EXPECT_EQ(read_file(folder / "target"), lock_record(0, 0));
}

TEST_F(Owned_Lock, That_is_a_dangling_link_is_waited_for) {
  const Temporary_Folder folder;
  ASSERT_EQ(symlink((folder / "target").c_str(), owned_lock(name).c_str()), 0);

  EXPECT_EQ(Get_File_Lock(path.c_str(), 20), 0);

  EXPECT_TRUE(exists(owned_lock(name)));
  EXPECT_FALSE(exists(folder / "target"));
}

TEST_P(Any_Lock, That_is_a_pipe_does_not_block_and_goes_like_any_file_without_content) {
  EXPECT_EQ(in_child([&] {
              Virtual_Clock clock(now_ms);
              const Log_Capture log;
              ASSERT_EQ(mkfifo(lock_.c_str(), 0666), 0);
              set_mtime(lock_, some_mtime);
              Waiter waiter(kind_, -1);
              ASSERT_TRUE(clock.wait_for_reads(several_passes));

              clock.advance(2001);

              EXPECT_EQ(waiter.result(), kind_.let_through);
              EXPECT_THAT(log.lines(), ElementsAre(kind_.invalid(now_ms + 2001 - 100 * some_mtime)));
              expect_let_through();
            }),
            0);
}

TEST_P(Any_Lock, That_is_a_pipe_with_a_silent_writer_does_not_block) {
  EXPECT_EQ(in_child([&] {
              Virtual_Clock clock(now_ms);
              clock.on_read([&] { clock.advance(100); });
              ASSERT_EQ(mkfifo(lock_.c_str(), 0666), 0);
              const int writer = open(lock_.c_str(), O_RDWR | O_CLOEXEC);
              EXPECT_EQ(kind_.wait(path.c_str(), -1), kind_.let_through);
              close(writer);
            }),
            0);
}

TEST_P(Any_Lock, That_is_a_folder_stays_and_ends_in_the_time_out) {
  EXPECT_EQ(in_child([&] {
              Virtual_Clock clock(now_ms);
              clock.on_read([&] { clock.advance(100); });
              const Log_Capture log;
              ASSERT_EQ(mkdir(lock_.c_str(), 0755), 0);

              EXPECT_EQ(kind_.wait(path.c_str(), 10'000), 0);

              EXPECT_TRUE(std::filesystem::is_directory(lock_));
              EXPECT_EQ(names_in(lock_folder), names_afterwards(false));
              ASSERT_FALSE(log.lines().empty());
              EXPECT_EQ(log.lines().back().level, "error");
            }),
            0);
}

TEST_P(Any_Lock, That_may_not_be_read_stays) {
  plant(lock_, lock_record(0, 0));
  ASSERT_EQ(chmod(lock_.c_str(), 0600), 0);

  EXPECT_EQ(in_child([&] {
              const As_Nobody nobody;
              EXPECT_EQ(kind_.wait(path.c_str(), 20), 0);
            }),
            0);

  EXPECT_EQ(read_file(lock_), lock_record(0, 0));
}

TEST_P(Any_Lock, That_is_stale_and_may_not_be_removed_ends_in_the_time_out) {
  EXPECT_EQ(in_child([&] {
              mount_tmpfs(lock_folder, "mode=1777");
              plant(lock_, lock_record(0, 0));
              const Log_Capture log;
              {
                const As_Nobody nobody;
                EXPECT_EQ(kind_.wait(path.c_str(), 20), 0);
              }

              EXPECT_EQ(read_file(lock_), lock_record(0, 0));
              EXPECT_EQ(names_in(lock_folder), names_afterwards(false));
              ASSERT_FALSE(log.lines().empty());
              EXPECT_EQ(log.lines().front(), kind_.gone(0));
              EXPECT_EQ(log.lines().back().level, "error");
              EXPECT_LT(log.lines().size(), 2000U) << "spins";
            }),
            0);
}

TEST_P(Any_Lock, That_is_stale_on_a_read_only_disk_ends_in_the_time_out) {
  EXPECT_EQ(in_child([&] {
              mount_tmpfs(lock_folder, "");
              plant(lock_, lock_record(0, 0));
              make_read_only(lock_folder);

              EXPECT_EQ(kind_.wait(path.c_str(), 20), 0);

              EXPECT_EQ(read_file(lock_), lock_record(0, 0));
            }),
            0);
}

TEST_F(Owned_Lock, Cannot_be_had_without_the_lock_folder) {
  EXPECT_EQ(in_child([] {
              mount_tmpfs("/var", "");
              Virtual_Clock clock(now_ms);
              const Log_Capture log;
              Waiter waiter(owned_kind, 10'000);
              ASSERT_TRUE(clock.wait_for_reads(several_passes));
              clock.advance(10'001);

              EXPECT_EQ(waiter.result(), 0);

              EXPECT_THAT(log.lines(), ElementsAre(owned_kind.time_out("10001", 10'000)));
              EXPECT_FALSE(exists(lock_folder));
            }),
            0);
}

TEST_F(Owned_Lock, That_cannot_be_written_on_a_full_disk_is_taken_back) {
  EXPECT_EQ(in_child([] {
              mount_tmpfs(lock_folder, "size=4k");
              write_file(lock_folder + "/filler", std::string(4096, 'x'));
              const Log_Capture log;

              EXPECT_EQ(Get_File_Lock(path.c_str(), -1), 0);

              EXPECT_THAT(names_in(lock_folder), ElementsAre("filler"));
              EXPECT_THAT(log.lines(),
                          ElementsAre(error_line("Get_File_Lock",
                                                 "Can't write lock file \"" + owned_lock(name) + "\" content error!")));
            }),
            0);
}

TEST_F(Owned_Lock, That_can_only_be_written_in_part_is_taken_back) {
  EXPECT_EQ(in_child([] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{15, 15};
              ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);

              EXPECT_EQ(Get_File_Lock(path.c_str(), -1), 0);

              EXPECT_THAT(names_in(lock_folder), IsEmpty());
            }),
            0);
}

// ----------------------------------------------------------------------------------------------------- longest names

TEST_F(Owned_Lock, Works_for_base_names_of_up_to_240_bytes) {
  const std::string longest(240, 'n');

  EXPECT_EQ(Get_File_Lock(("/some/" + longest).c_str(), 0), 1);
  EXPECT_TRUE(exists(owned_lock(longest)));
  EXPECT_EQ(Get_File_Lock(longest.c_str(), 0), 0);
  EXPECT_EQ(Release_File_Lock(longest.c_str()), 1);
  EXPECT_FALSE(exists(owned_lock(longest)));
}

TEST_F(Owned_Lock, Fails_at_once_for_longer_base_names_and_touches_nothing) {
  for (const size_t length : {241U, 244U, 250U, 255U, 4000U}) {
    const std::string longer(length, 'n');
    // What the path would be if it were cut.
    const std::string cut = ("/var/lock/_" + longer + ".lck").substr(0, 255);
    write_file(cut, lock_record(0, 0));

    EXPECT_EQ(in_child([&] { EXPECT_EQ(Get_File_Lock(longer.c_str(), -1), 0); }), 0);
    EXPECT_EQ(Release_File_Lock(longer.c_str()), 1);

    EXPECT_EQ(names_in(lock_folder).size(), 1U);
    EXPECT_TRUE(exists(cut));
    unlink(cut.c_str());
  }
}

TEST_F(Foreign_Lock, Is_minded_for_base_names_of_up_to_241_bytes_and_not_for_longer_ones) {
  const std::string longest(241, 'n');
  write_file(foreign_lock(longest), lock_record(0, 0));
  EXPECT_EQ(Check_File_Lock(longest.c_str(), 0), 0);
  EXPECT_FALSE(exists(foreign_lock(longest)));

  const std::string longer(242, 'n');
  const std::string cut = foreign_lock(longer).substr(0, 255);
  for (const std::string &file : {foreign_lock(longer), cut}) write_file(file, lock_record(0, 0));
  EXPECT_EQ(in_child([&] { EXPECT_EQ(Check_File_Lock(longer.c_str(), -1), 0); }), 0);
  EXPECT_TRUE(exists(foreign_lock(longer)));
  EXPECT_TRUE(exists(cut));
}

// --------------------------------------------------------------------------------------------------- what it reports

TEST_P(Any_Lock, Removed_as_stale_is_reported_at_debug_level_only) {
  const Log_Capture log(2);
  plant(lock_, lock_record(0, 0));
  EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);
  EXPECT_EQ(log.text(), "");
}

TEST_P(Any_Lock, Not_had_is_reported_at_error_level_only) {
  plant(lock_, lock_record(static_cast<int64_t>(Rough_Tick()), getpid()));
  {
    const Log_Capture log(0);
    EXPECT_EQ(kind_.wait(path.c_str(), 0), 0);
    EXPECT_EQ(log.text(), "");
  }
  {
    const Log_Capture log(1);
    EXPECT_EQ(kind_.wait(path.c_str(), 0), 0);
    EXPECT_EQ(log.lines().size(), 1U);
  }
}

TEST_P(Any_Lock, Is_waited_for_silently_without_a_log) {
  plant(lock_, lock_record(0, 0));
  EXPECT_EQ(output_of([&] {
              EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);
              plant(lock_, lock_record(static_cast<int64_t>(Rough_Tick()), getpid()));
              EXPECT_EQ(kind_.wait(path.c_str(), 0), 0);
            }),
            "");
}

// --------------------------------------------------------------------------------------------------------- resources

TEST_P(Any_Lock, Leaks_no_descriptor_however_it_is_judged) {
  Virtual_Clock clock(now_ms);
  clock.on_read([&] { clock.advance(100); });
  const int before = open_descriptors();
  const std::string contents[] = {lock_record(now_ms, getpid()), lock_record(0, 0), lock_record(0, getpid()), "",
                                  lock_record(now_ms, getpid()) + "x"};
  for (const std::string &content : contents) {
    for (const int timeout : {0, 10'000}) {
      clock.set(now_ms);
      plant(lock_, content);
      kind_.wait(path.c_str(), timeout);
      EXPECT_EQ(open_descriptors(), before);
    }
  }
}

TEST_P(Any_Lock, Is_looked_at_through_a_descriptor_that_no_program_inherits) {
  const Log_Capture log;
  plant(lock_, lock_record(0, dead_pid()));
  int flags = -1;
  const Before_Call asking(System_Call::kill, 1, [&] {
    for (const std::string &entry : names_in("/proc/self/fd")) {
      char target[256] = "";
      if (readlink(("/proc/self/fd/" + entry).c_str(), target, sizeof target - 1) < 0) continue;
      if (std::string(target).ends_with(lock_.substr(lock_folder.size()))) flags = fcntl(std::stoi(entry), F_GETFD);
    }
    return 0;
  });

  EXPECT_EQ(kind_.wait(path.c_str(), 0), kind_.let_through);

  ASSERT_TRUE(asking.happened());
  EXPECT_EQ(flags, FD_CLOEXEC) << "-1: it was not open when the owner was asked after";
}

TEST_P(Any_Lock, Needs_no_memory) {
  const std::string stale = lock_record(0, 0);
  for (const bool has_lock : {false, true}) {
    Release_File_Lock(path.c_str());
    if (has_lock) plant(lock_, stale);
    const int allocations = with_each_allocation_failing([&] { return kind_.wait(path.c_str(), 0); }, [](int, int) {});
    EXPECT_EQ(allocations, 0);
  }
}

// ------------------------------------------------------------------------------ removal against another waiter's lock

// The moments at which another waiter may have removed the stale lock and taken its own.
struct Moment {
  const char *label;
  System_Call call;
  int nth;
};

std::ostream &operator<<(std::ostream &out, const Moment &moment) {
  return out << moment.label;
}

class New_Lock : public testing::TestWithParam<std::tuple<Kind, Moment>> {
 protected:
  void SetUp() override { clean_the_lock_folder(); }
  void TearDown() override { clean_the_lock_folder(); }
};

INSTANTIATE_TEST_SUITE_P(Moments, New_Lock,
                         testing::Combine(testing::Values(owned_kind, foreign_kind),
                                          testing::Values(Moment{"WhenTheOwnerIsAskedAfter", System_Call::kill, 1},
                                                          Moment{"WhenTheRemovalIsReported", System_Call::kill, 2},
                                                          Moment{"WhenItIsTakenAway", System_Call::name_change, 1})),
                         [](const auto &test) {
                           return std::string(std::get<0>(test.param).label) + std::get<1>(test.param).label;
                         });

TEST_P(New_Lock, That_came_in_the_place_of_a_stale_one_is_not_taken_away) {
  const auto &[kind, moment] = GetParam();
  const std::string lock = kind.file();
  const Log_Capture log;
  const auto tick = static_cast<int64_t>(Rough_Tick());
  const std::string live = lock_record(tick, getpid());
  plant(lock, lock_record(tick, dead_pid()));
  const std::string beside = lock_folder + "/beside";
  write_file(beside, live);
  const ino_t live_inode = inode_of(beside);

  const Before_Call hooked(moment.call, moment.nth, [&] {
    rename(beside.c_str(), lock.c_str());
    return 0;
  });
  EXPECT_EQ(kind.wait(path.c_str(), 50), 0);

  ASSERT_TRUE(hooked.happened());
  ASSERT_TRUE(exists(lock));
  EXPECT_EQ(inode_of(lock), live_inode);
  EXPECT_EQ(read_file(lock), live);
  EXPECT_THAT(names_in(lock_folder), ElementsAre(lock.substr(lock_folder.size() + 1))) << "nothing may lie about";
}

// Runs the first hook before the first change that the call makes to the lock folder, the second before the next one.
class Two_Moments {
 public:
  Two_Moments(std::function<void()> first, std::function<void()> second)
      : first_(System_Call::name_change, 1, [this, first, second] {
          first();
          second_.emplace(System_Call::name_change, 1, [second] {
            second();
            return 0;
          });
          return 0;
        }) {}

  bool happened() const { return second_ && second_->happened(); }

 private:
  Before_Call first_;
  std::optional<Before_Call> second_;
};

TEST_P(Any_Lock, Made_by_a_third_waiter_is_not_taken_away_either) {
  const auto tick = static_cast<int64_t>(Rough_Tick());
  plant(lock_, lock_record(tick, dead_pid()));
  const std::string second = lock_folder + "/second";
  const std::string third = lock_folder + "/third";
  write_file(second, lock_record(tick, getpid()));
  write_file(third, lock_record(tick, getpid()));
  const ino_t third_inode = inode_of(third);

  const Two_Moments moments([&] { rename(second.c_str(), lock_.c_str()); },
                            [&] { rename(third.c_str(), lock_.c_str()); });
  EXPECT_EQ(kind_.wait(path.c_str(), 50), 0);

  ASSERT_TRUE(moments.happened());
  ASSERT_TRUE(exists(lock_));
  EXPECT_EQ(inode_of(lock_), third_inode);
  EXPECT_EQ(names_in(lock_folder), names_afterwards(false)) << "nothing may lie about";
}

// Otherwise everybody would wait for a lock that nobody holds, up to 10 minutes.
TEST_P(Any_Lock, Given_back_while_another_waiter_is_at_it_does_not_come_again) {
  const auto tick = static_cast<int64_t>(Rough_Tick());
  plant(lock_, lock_record(tick, dead_pid()));
  const std::string second = lock_folder + "/second";
  write_file(second, lock_record(tick, getpid()));

  const Two_Moments moments([&] { rename(second.c_str(), lock_.c_str()); }, [&] { unlink(lock_.c_str()); });
  EXPECT_EQ(kind_.wait(path.c_str(), 50), kind_.let_through);

  ASSERT_TRUE(moments.happened());
  EXPECT_EQ(names_in(lock_folder), names_afterwards(true));
}

TEST_P(Any_Lock, That_vanishes_before_it_is_taken_away_is_no_trouble) {
  plant(lock_, lock_record(0, 0));
  const Before_Call taking(System_Call::name_change, 1, [&] { return unlink(lock_.c_str()); });

  EXPECT_EQ(kind_.wait(path.c_str(), 20'000), kind_.let_through);

  EXPECT_TRUE(taking.happened());
  EXPECT_EQ(names_in(lock_folder), names_afterwards(true));
}

TEST_P(Any_Lock, Whose_remover_was_killed_at_work_is_taken_away_by_the_next) {
  const int owner = dead_pid();
  for (const int moment : {1, 2, 3}) {
    SCOPED_TRACE(moment);
    clean_the_lock_folder();
    plant(lock_, lock_record(static_cast<int64_t>(Rough_Tick()), owner));
    in_child([&] {
      const Before_Call killing(System_Call::name_change, moment, [] { return raise(SIGKILL); });
      kind_.wait(path.c_str(), 0);
    });

    EXPECT_EQ(kind_.wait(path.c_str(), 20'000), kind_.let_through);

    EXPECT_EQ(exists(lock_), kind_.let_through == 1);
  }
}

// Shared by the processes of the storm.
struct Storm {
  std::atomic<int> inside = 0;
  std::atomic<int> not_alone = 0;
  std::atomic<int> never_had = 0;
  std::atomic<int> acquired = 0;
  std::atomic<int> abandoned = 0;
  std::atomic<bool> over = false;
};

// Leaves the lock as a process does that died while holding it.
void abandon_the_lock(int dead) {
  const int file = open(owned_lock(name).c_str(), O_WRONLY | O_CLOEXEC);
  if (file < 0) return;
  if (pwrite(file, &dead, sizeof dead, 8) != static_cast<ssize_t>(sizeof dead)) abort();
  close(file);
}

void weather(Storm *storm, int dead) {
  for (int turn = 0; !storm->over; ++turn) {
    if (Get_File_Lock(path.c_str(), 10'000) != 1) {
      ++storm->never_had;
      continue;
    }
    if (storm->inside++ != 0) ++storm->not_alone;
    ++storm->acquired;
    if (turn % 8 == 0) std::this_thread::yield();
    if (--storm->inside != 0) ++storm->not_alone;
    if (turn % 4 == 0) {
      Release_File_Lock(path.c_str());
    } else {
      ++storm->abandoned;
      abandon_the_lock(dead);
    }
  }
}

TEST_F(Owned_Lock, Is_had_by_one_thread_of_one_process_at_a_time_in_a_storm_of_stale_locks) {
  void *shared = mmap(nullptr, sizeof(Storm), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto *storm = new (shared) Storm;
  const int dead = dead_pid();
  std::vector<pid_t> processes;
  fflush(nullptr);
  for (int i = 0; i < 3; ++i) {
    processes.push_back(fork());
    if (processes.back() == 0) {
      alarm(60);
      std::thread second(weather, storm, dead);
      weather(storm, dead);
      second.join();
      _exit(0);
    }
  }

  Sleep_MSec(2000);
  storm->over = true;
  for (const pid_t process : processes) {
    int status = -1;
    waitpid(process, &status, 0);
    EXPECT_EQ(status, 0);
  }

  EXPECT_EQ(storm->not_alone, 0) << "two had the lock at once";
  EXPECT_EQ(storm->never_had, 0) << "a lock was left that nobody holds";
  EXPECT_GT(storm->acquired, 100);
  EXPECT_GT(storm->abandoned, 50);
  unlink(owned_lock(name).c_str());
  EXPECT_THAT(names_in(lock_folder), IsEmpty()) << "nothing may lie about";
  munmap(shared, sizeof(Storm));
}

// ------------------------------------------------------------------------------------------------------ shared files

class Shared_File : public Lock_Test {
 protected:
  static FILE *untouched() { return stdin; }

  Temporary_Folder folder_;
  const std::string file_ = folder_ / name;
  FILE *stream_ = untouched();
};

TEST_F(Shared_File, Is_open_under_its_lock) {
  write_file(file_, "old\n");

  ASSERT_EQ(Open_Shared_File(file_.c_str(), "a+", &stream_), 0);

  EXPECT_EQ(read_file(owned_lock(name)).substr(8), lock_record(0, getpid()).substr(8));
  EXPECT_EQ(Get_File_Lock(file_.c_str(), 0), 0);
  fputs("new\n", stream_);

  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);

  EXPECT_EQ(read_file(file_), "old\nnew\n");
  EXPECT_FALSE(exists(owned_lock(name)));
}

TEST_F(Shared_File, Is_opened_in_the_mode_that_was_given) {
  write_file(file_, "old\n");
  ASSERT_EQ(Open_Shared_File(file_.c_str(), "w", &stream_), 0);
  EXPECT_EQ(read_file(file_), "");
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);

  ASSERT_EQ(Open_Shared_File(file_.c_str(), "r", &stream_), 0);
  EXPECT_EQ(fcntl(fileno(stream_), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);
}

TEST_F(Shared_File, Refuses_missing_arguments) {
  EXPECT_EQ(Open_Shared_File(nullptr, "r", &stream_), -EINVAL);
  EXPECT_EQ(Open_Shared_File(file_.c_str(), nullptr, &stream_), -EINVAL);
  EXPECT_EQ(Open_Shared_File(file_.c_str(), "w", nullptr), -EINVAL);
  EXPECT_EQ(stream_, untouched());
  EXPECT_THAT(names_in(lock_folder), IsEmpty());
  EXPECT_FALSE(exists(file_));
}

TEST_F(Shared_File, Close_refuses_missing_arguments_and_keeps_the_lock) {
  ASSERT_EQ(Open_Shared_File(file_.c_str(), "w", &stream_), 0);

  EXPECT_EQ(Close_Shared_File(nullptr, stream_), -EINVAL);
  EXPECT_EQ(Close_Shared_File(file_.c_str(), nullptr), -EINVAL);

  EXPECT_TRUE(exists(owned_lock(name)));
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);
}

TEST_F(Shared_File, Waits_10_seconds_for_its_lock) {
  Virtual_Clock clock(now_ms);
  const Log_Capture log;
  plant(owned_lock(name), lock_record(now_ms, getpid()));
  auto opening = std::async(std::launch::async, [&] { return Open_Shared_File(file_.c_str(), "w", &stream_); });
  EXPECT_TRUE(clock.wait_for_reads(several_passes));
  clock.advance(10'000);
  EXPECT_TRUE(clock.wait_for_reads(several_passes));
  EXPECT_EQ(log.text(), "");

  clock.advance(1);

  EXPECT_EQ(opening.get(), -ETIME);
  EXPECT_EQ(stream_, nullptr);
  EXPECT_FALSE(exists(file_));
  EXPECT_EQ(read_file(owned_lock(name)), lock_record(now_ms, getpid())) << "the lock of another is not given back";
  EXPECT_THAT(log.lines(), ElementsAre(owned_kind.time_out("10001", 10'000),
                                       debug_line("Open_Shared_File", "Can't get file lock of " + file_ + " error!")));
}

TEST_F(Shared_File, That_cannot_be_opened_gives_its_lock_back) {
  const Log_Capture log;
  const int before = open_descriptors();
  EXPECT_EQ(Open_Shared_File(file_.c_str(), "r", &stream_), -ENOENT);
  EXPECT_EQ(stream_, nullptr);
  EXPECT_FALSE(exists(owned_lock(name)));

  stream_ = untouched();
  ASSERT_EQ(mkdir(file_.c_str(), 0755), 0);
  EXPECT_EQ(Open_Shared_File(file_.c_str(), "w", &stream_), -EISDIR);
  EXPECT_EQ(stream_, nullptr);

  stream_ = untouched();
  EXPECT_EQ(Open_Shared_File(file_.c_str(), "no mode", &stream_), -EINVAL);
  EXPECT_EQ(stream_, nullptr);

  EXPECT_THAT(names_in(lock_folder), IsEmpty());
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(log.text(), "");
}

TEST_F(Shared_File, Answers_the_error_of_the_opening_and_not_that_of_giving_the_lock_back) {
  ASSERT_EQ(mkdir(file_.c_str(), 0755), 0);
  const Before_Call giving_back(System_Call::unlink, 1, [] { return EROFS; });

  EXPECT_EQ(Open_Shared_File(file_.c_str(), "w", &stream_), -EISDIR);

  EXPECT_TRUE(giving_back.happened());
}

TEST_F(Shared_File, Gives_its_lock_back_when_memory_ends) {
  const int before = open_descriptors();
  const int allocations = with_each_allocation_failing([&] { return Open_Shared_File(file_.c_str(), "w", &stream_); },
                                                       [&](int result, int) {
                                                         EXPECT_EQ(result, -ENOMEM);
                                                         EXPECT_EQ(stream_, nullptr);
                                                         EXPECT_THAT(names_in(lock_folder), IsEmpty());
                                                         EXPECT_EQ(open_descriptors(), before);
                                                       });

  EXPECT_GE(allocations, 1);
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);
}

TEST_F(Shared_File, Is_closed_on_exec) {
  ASSERT_EQ(Open_Shared_File(file_.c_str(), "w", &stream_), 0);
  EXPECT_EQ(fcntl(fileno(stream_), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream_), 0);
}

// Callers know that buffered bytes reach the file after the lock is gone.
TEST_F(Shared_File, Gives_the_lock_back_before_it_closes_the_stream) {
  ASSERT_EQ(Get_File_Lock(file_.c_str(), 0), 1);
  static std::string seen;
  seen.clear();
  const auto look = [](void *, const char *, size_t size) -> ssize_t {
    seen += exists(owned_lock(name)) ? "locked" : "free";
    return static_cast<ssize_t>(size);
  };
  FILE *stream = fopencookie(nullptr, "w", {nullptr, look, nullptr, nullptr});
  fputs("buffered", stream);

  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream), 0);

  EXPECT_EQ(seen, "free");
}

TEST_F(Shared_File, That_cannot_be_closed_well_gives_its_lock_back_all_the_same) {
  ASSERT_EQ(Get_File_Lock("/dev/full", 0), 1);
  FILE *stream = fopen("/dev/full", "w");
  fputs("buffered", stream);

  EXPECT_EQ(Close_Shared_File("/dev/full", stream), -ENOSPC);

  EXPECT_FALSE(exists(owned_lock("full")));
}

TEST_F(Shared_File, Is_closed_although_its_lock_is_gone) {
  FILE *stream = fopen(file_.c_str(), "w");
  EXPECT_EQ(Close_Shared_File(file_.c_str(), stream), 0);
}

}  // namespace
