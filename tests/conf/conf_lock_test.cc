// The lock that the functions take which read, change and replace a configuration file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "include/tarncluster_util.h"
#include "tests/conf/chains.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const char before[] = "[a]\nx = 1\n";
const char changed_meanwhile[] = "[a]\nx = 1\ny = 2\n";

struct Changer {
  const char *name;
  int (*change)(const char *path);
  const char *after;  // what it makes of changed_meanwhile
  int status_without_lock = -ENOLCK;
  const char *reports_as = name;
};

std::ostream &operator<<(std::ostream &out, const Changer &changer) {
  return out << changer.name;
}

class Locking : public testing::TestWithParam<Changer> {
 protected:
  void SetUp() override { write_file(path_, before); }

  Temporary_Folder folder_;
  const std::string path_ = folder_ / "x.conf";
  Log_Capture log_;
};

TEST_P(Locking, WaitsTenSecondsForTheLockAndThenLeavesItToItsHolder) {
  const File_State old = state_of(path_);
  Virtual_Clock clock(1800000000000);
  const Held_Lock lock("x.conf");
  std::atomic<bool> done = false;
  int status = 1;
  std::thread caller([&] {
    status = GetParam().change(path_.c_str());
    done = true;
  });
  EXPECT_TRUE(clock.wait_for_reads(5));
  clock.advance(10000);
  EXPECT_TRUE(clock.wait_for_reads(20));
  EXPECT_FALSE(done);
  clock.advance(1);
  caller.join();
  EXPECT_EQ(status, GetParam().status_without_lock);
  EXPECT_EQ(state_of(path_), old);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(error_line("Get_File_Lock", "Get lock file \"/var/lock/_x.conf.lck\" timeout! (10001 < 10000)"),
                  debug_line(GetParam().reports_as, "Can't get file lock of " + path_ + " error!")));
}

TEST_P(Locking, ReadsTheFileOnlyWhenItHoldsTheLock) {
  Virtual_Clock clock(1800000000000);
  std::optional<Held_Lock> lock("x.conf");
  int status = 1;
  std::thread caller([&] { status = GetParam().change(path_.c_str()); });
  EXPECT_TRUE(clock.wait_for_reads(5));
  write_file(path_, changed_meanwhile);
  lock.reset();
  caller.join();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(read_file(path_), GetParam().after);
  EXPECT_FALSE(exists(owned_lock("x.conf")));
}

TEST_P(Locking, KeepsTheLockUntilTheFileIsReplaced) {
  write_file(path_, changed_meanwhile);
  const File_State old = state_of(path_);
  bool locked = false, untouched = false;
  const Before_Call replacing(System_Call::rename, 1, [&] {
    locked = exists(owned_lock("x.conf"));
    untouched = state_of(path_) == old;
    return 0;
  });
  EXPECT_EQ(GetParam().change(path_.c_str()), 0);
  EXPECT_TRUE(replacing.happened());
  EXPECT_TRUE(locked);
  EXPECT_TRUE(untouched);
  EXPECT_EQ(read_file(path_), GetParam().after);
}

TEST_P(Locking, RecoversTheLockOfAProcessThatIsGone) {
  write_file(owned_lock("x.conf"), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
  write_file(path_, changed_meanwhile);
  EXPECT_EQ(GetParam().change(path_.c_str()), 0);
  EXPECT_EQ(read_file(path_), GetParam().after);
  EXPECT_FALSE(exists(owned_lock("x.conf")));
}

TEST_P(Locking, RemovesTheTemporaryFilesOfAProcessThatDiedWithTheLock) {
  const int dead = dead_pid();
  write_file(owned_lock("x.conf"), lock_record(static_cast<int64_t>(Rough_Tick()), dead));
  write_file(path_, changed_meanwhile);
  write_file(path_ + ".tmp", "half");
  write_file(path_ + ".tmp." + std::to_string(dead), "half");
  write_file(path_ + ".tmp.1", "somebody else's");
  EXPECT_EQ(GetParam().change(path_.c_str()), 0);
  EXPECT_EQ(read_file(path_), GetParam().after);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf", "x.conf.tmp.1"));
}

// Its lock counts as left behind, but it may be at work.
TEST_P(Locking, LeavesTheTemporaryFilesOfAProcessThatMayNotBeAskedAfter) {
  const int another_users = getpid();
  const std::string temporary = path_ + ".tmp." + std::to_string(another_users);
  ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);
  write_file(path_, changed_meanwhile);
  EXPECT_EQ(in_child([&] {
              become_nobody();
              g_ptslLog = nullptr;
              write_file(owned_lock("x.conf"), lock_record(static_cast<int64_t>(Rough_Tick()), another_users));
              write_file(temporary, "being written");
              EXPECT_EQ(Is_Process_Existed(another_users), -EPERM);
              EXPECT_EQ(GetParam().change(path_.c_str()), 0);
            }),
            0);
  EXPECT_EQ(read_file(path_), GetParam().after);
  EXPECT_EQ(read_file(temporary), "being written");
}

TEST_P(Locking, HasNoLockForABaseNameOver240Bytes) {
  const std::string path = folder_ / std::string(241, 'n');
  write_file(path, before);
  EXPECT_EQ(GetParam().change(path.c_str()), GetParam().status_without_lock);
  EXPECT_EQ(read_file(path), before);
  EXPECT_THAT(log_.lines(),
              testing::Contains(debug_line(GetParam().reports_as, "Can't get file lock of " + path + " error!")));
}

TEST_P(Locking, WorksWithABaseNameOf240Bytes) {
  const std::string path = folder_ / std::string(240, 'n');
  write_file(path, changed_meanwhile);
  EXPECT_EQ(GetParam().change(path.c_str()), 0);
  EXPECT_EQ(read_file(path), GetParam().after);
  EXPECT_FALSE(exists(owned_lock(std::string(240, 'n'))));
}

INSTANTIATE_TEST_SUITE_P(
    Functions, Locking,
    testing::Values(Changer{"Set_Conf_File_Section",
                            [](const char *path) {
                              return Set_Conf_File_Section(path, "n", make_sections({{"n", {{"k", "v"}}}}).get());
                            },
                            "[a]\nx = 1\ny = 2\n\n[n]\nk = v\n\n"},
                    Changer{"Update_Conf_File_Section",
                            [](const char *path) {
                              return Update_Conf_File_Section(path, "a", make_sections({{"a", {{"k", "v"}}}}).get());
                            },
                            "[a]\nx = 1\ny = 2\nk = v\n\n"},
                    // Its callers learn of failures from the log only.
                    Changer{"Set_Conf_File_Pair_Values",
                            [](const char *path) {
                              return Set_Conf_File_Pair_Values(path, "a", make_pairs({{"k", "v"}}).get());
                            },
                            "[a]\nx = 1\ny = 2\nk = v\n\n", 0},
                    Changer{"Set_Conf_File_String_Value",
                            [](const char *path) { return Set_Conf_File_String_Value(path, "a", "k", "v"); },
                            "[a]\nx = 1\ny = 2\nk = v\n\n"},
                    Changer{"Set_Conf_File_Integer_Value",
                            [](const char *path) { return Set_Conf_File_Integer_Value(path, "a", "k", 5); },
                            "[a]\nx = 1\ny = 2\nk = 5\n\n", -ENOLCK, "Set_Conf_File_String_Value"}),
    [](const auto &instance) { return std::string(instance.param.name); });

// A held lock would make them wait and log a time-out.
TEST(No_Lock, IsTakenByReadersAndByTheFunctionsForHoldersOfTheLock) {
  const Temporary_Folder folder;
  const std::string path = folder / "x.conf";
  write_file(path, before);
  const Held_Lock lock("x.conf");
  const Log_Capture log;
  Sect_Node *node = nullptr;
  EXPECT_EQ(Read_Conf_File(path.c_str(), &node), 1);
  Free_Sect_Node(node);
  EXPECT_EQ(Get_Conf_File_Section(path.c_str(), "a", &node), 0);
  const Sections section(node);
  char value[8];
  int size = sizeof value;
  int64_t number = 0;
  EXPECT_EQ(Get_Conf_File_String_Value(path.c_str(), "a", "x", value, &size), 0);
  EXPECT_EQ(Get_Conf_File_Int64_Value(path.c_str(), "a", "x", &number), 0);
  EXPECT_EQ(Update_Conf_File(path.c_str(), section.get()), 0);
  EXPECT_EQ(Write_Conf_File(path.c_str(), section.get()), 0);
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace tarn::test
