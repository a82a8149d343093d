// Every writer where there is no room, where nothing may be written, and where the lock is not to be had.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "tests/faults/scenario.h"
#include "tests/support/child_process.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;

void require(bool done, const std::string &what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

std::vector<Scenario> chosen(const std::function<bool(const Scenario &)> &choose) {
  std::vector<Scenario> all;
  for (const Scenario &scenario : scenarios()) {
    // A lock that lies there already would be in the way of the one that a test puts there.
    if (choose(scenario) && !scenario.situation.starts_with("under a lock")) all.push_back(scenario);
  }
  return all;
}

std::string title_of(const testing::TestParamInfo<Scenario> &test) {
  return title(test.param);
}

// ---------------------------------------------------------------------------------------------- disks

class Disk : public testing::TestWithParam<Scenario> {
 protected:
  // Lays a file system of its own under the scenario's folder. Expectations are met in a child, which takes the file
  // system with it.
  void on_a_disk(const std::function<void(Stage &)> &body) {
    EXPECT_EQ(in_child([&] {
                Stage stage(scenario_);
                mount_tmpfs(stage.world().folder, "size=64k");
                stage.set();
                body(stage);
                umount2(stage.world().folder.c_str(), MNT_DETACH);
              }),
              0);
  }

  void expect_file_as_before(const World &world) {
    EXPECT_EQ(exists(world.file), scenario_.before.has_value());
    if (scenario_.before) {
      EXPECT_EQ(read_file(world.file), scenario_.before);
    }
    EXPECT_THAT(names_in("/var/lock"), testing::IsEmpty());
  }

  const Scenario &scenario_ = GetParam();
};

INSTANTIATE_TEST_SUITE_P(, Disk,
                         testing::ValuesIn(chosen([](const Scenario &s) { return s.on_full_disk.has_value(); })),
                         title_of);

void fill(const std::string &path) {
  const int filler = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  require(filler >= 0, path);
  const std::string page(4096, 'x');
  while (write(filler, page.data(), page.size()) > 0) continue;
  require(errno == ENOSPC, "the disk does not fill");
  close(filler);
}

TEST_P(Disk, That_is_full_keeps_the_file_and_gets_no_other) {
  on_a_disk([&](Stage &stage) {
    const World &world = stage.world();
    fill(world.folder + "/filler");
    const size_t names = names_in(world.folder).size();
    if (scenario_.writes()) {
      EXPECT_EQ(scenario_.call(stage.world()), scenario_.on_full_disk);
    } else {
      EXPECT_EQ(scenario_.call(stage.world()), scenario_.success);
    }
    expect_file_as_before(world);
    EXPECT_EQ(names_in(world.folder).size(), names);

    // As soon as there is room again, all is as if nothing had been.
    require(unlink((world.folder + "/filler").c_str()) == 0, "filler");
    stage.set();
    stage.expect_success(scenario_.call(stage.world()));
  });
}

TEST_P(Disk, That_is_read_only_keeps_the_file) {
  on_a_disk([&](Stage &stage) {
    make_read_only(stage.world().folder);
    const int expected = scenario_.silent ? scenario_.success : -EROFS;
    EXPECT_EQ(scenario_.call(stage.world()), expected);
    expect_file_as_before(stage.world());
    EXPECT_EQ(names_in(stage.world().folder).size(), scenario_.before ? 1u : 0u);
  });
}

// ---------------------------------------------------------------------------------------------- locks

// A clock that goes on by this much whenever it is looked at: waiting has an end after a few looks.
class Hasty_Clock {
 public:
  explicit Hasty_Clock(int64_t step_ms) : clock_(1'800'000'000'000) {
    clock_.on_read([this, step_ms] { clock_.advance(step_ms), ++looks_; });
  }
  int looks() const { return looks_; }

 private:
  Virtual_Clock clock_;
  int looks_ = 0;
};

// Something in the way of a lock.
class Lock : public testing::TestWithParam<Scenario> {
 protected:
  // The call ends after as many looks at the clock as 10 seconds need, and not before; nothing has been changed.
  void expect_refused() {
    const int expected = *scenario_.without_lock;
    Hasty_Clock clock(400);
    EXPECT_EQ(scenario_.call(stage_.world()), expected);
    EXPECT_GE(clock.looks(), 10'000 / 400);
    EXPECT_LE(clock.looks(), 100);
    EXPECT_EQ(exists(file()), scenario_.before.has_value());
    if (scenario_.before) {
      EXPECT_EQ(read_file(file()), scenario_.before);
    }
    EXPECT_EQ(names_in(stage_.world().folder).size(), scenario_.before ? 1u : 0u);
  }

  const std::string &file() { return stage_.world().file; }

  const Scenario &scenario_ = GetParam();
  Stage stage_{scenario_};
  const std::string lock_ = owned_lock(stage_.world().base_name);
};

INSTANTIATE_TEST_SUITE_P(, Lock,
                         testing::ValuesIn(chosen([](const Scenario &s) { return s.without_lock.has_value(); })),
                         title_of);

TEST_P(Lock, Whose_folder_is_missing_is_refused_and_the_file_kept) {
  namespace fs = std::filesystem;
  const fs::path folder = fs::canonical("/var/lock"), aside = folder.string() + ".aside";
  fs::rename(folder, aside);
  expect_refused();
  EXPECT_FALSE(exists(folder));
  fs::rename(aside, folder);
}

TEST_P(Lock, Whose_folder_only_root_may_write_to_is_refused_to_others_and_the_file_kept) {
  EXPECT_EQ(in_child([&] {
              require(chmod("/var/lock", 0755) == 0, "/var/lock");
              require(chmod(stage_.world().folder.c_str(), 0777) == 0, "folder");
              require(!scenario_.before || chmod(file().c_str(), 0666) == 0, "file");
              const As_Nobody nobody;
              expect_refused();
              EXPECT_THAT(names_in("/var/lock"), testing::IsEmpty());
            }),
            0);
  require(chmod("/var/lock", 01777) == 0, "/var/lock");
}

TEST_P(Lock, Whose_name_a_folder_has_is_refused_and_both_are_kept) {
  require(mkdir(lock_.c_str(), 0755) == 0, lock_);
  expect_refused();
  EXPECT_TRUE(std::filesystem::is_directory(lock_));
}

TEST_P(Lock, That_another_holds_is_refused_and_kept) {
  EXPECT_EQ(in_child([&] {
              write_file(lock_, lock_record(1'800'000'000'000, getppid()));
              expect_refused();
              EXPECT_EQ(read_file(lock_), lock_record(1'800'000'000'000, getppid()));
            }),
            0);
}

TEST_P(Lock, Whose_name_a_FIFO_has_is_taken_after_two_seconds_by_the_clock) {
  require(mkfifo(lock_.c_str(), 0666) == 0, lock_);
  int status = 0;
  {
    Hasty_Clock clock(400);
    status = scenario_.call(stage_.world());
    EXPECT_GE(clock.looks(), 2000 / 400);
    EXPECT_LE(clock.looks(), 30);
  }
  stage_.expect_success(status);
}

}  // namespace
