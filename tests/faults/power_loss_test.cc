// The power goes while a file is being replaced: whatever of the disk's writes got through, the file is the old one or
// the new one.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iostream>
#include <optional>
#include <random>
#include <stdexcept>

#include "tests/faults/recorded_disk.h"
#include "tests/faults/scenario.h"
#include "tests/support/files.h"

namespace {

using namespace tarn::test;

constexpr size_t disk_size = 4 << 20;

std::vector<Scenario> replacements() {
  std::vector<Scenario> chosen;
  for (const Scenario &scenario : scenarios()) {
    if (scenario.writes() && scenario.on_full_disk) chosen.push_back(scenario);
  }
  return chosen;
}

// What gets in the way of such a test on this machine; empty when nothing does.
const std::string &missing_here() {
  static const std::string reason = [] {
    if (access("/dev/fuse", R_OK | W_OK) != 0) return "no /dev/fuse";
    if (access("/dev/loop-control", R_OK | W_OK) != 0) return "no loop devices";
    if (system("command -v mkfs.ext4 > /dev/null") != 0) return "no mkfs.ext4 (package e2fsprogs)";
    return "";
  }();
  return reason;
}

// The image of an empty file system.
const std::string &empty_disk() {
  static const std::string image = [] {
    const Temporary_Folder folder;
    const std::string path = folder / "image";
    write_file(path, "");
    std::filesystem::resize_file(path, disk_size);
    if (system(("mkfs.ext4 -q -F -b 1024 -J size=1 -E lazy_itable_init=0 " + path).c_str()) != 0) {
      throw std::runtime_error("mkfs.ext4 failed");
    }
    return read_file(path);
  }();
  return image;
}

// Without auto_da_alloc, by which the file system itself makes good for programs that forget to synchronise.
constexpr const char *mount_options = "noauto_da_alloc";

class Power_Loss : public testing::Test {
 protected:
  void SetUp() override {
    if (!missing_here().empty()) GTEST_SKIP() << "power loss cannot be shown here: " << missing_here();
  }

  // The disk's writes while the call replaces the file, and the disk before them.
  void record(const Scenario &scenario, const std::function<int(World &)> &call) {
    Stage stage(scenario);
    const World &world = stage.world();
    {
      write_file(folder_ / "start", empty_disk());
      const Mounted_Image mounted(folder_ / "start", world.folder, mount_options);
      stage.set();
    }
    before_ = read_file(folder_ / "start");
    const Recorded_Disk disk(folder_.path(), before_);
    {
      const Mounted_Image mounted(disk.path(), world.folder, mount_options);
      stage.world().give_back();  // arguments are made again; the file is there already
      if (scenario.prepare) scenario.prepare(stage.world());
      ASSERT_EQ(call(stage.world()), scenario.success);
      bring_to_disk(world.folder);
    }
    log_ = disk.log();
  }

  // Brings the names to the disk, which the file system does by itself sooner or later, and only then the bytes that it
  // still holds back. The other order would hide a missing synchronisation.
  static void bring_to_disk(const std::string &folder) {
    const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsync(fd);
    syncfs(fd);
    close(fd);
  }

  // The disk after the first `count` writes; of those behind the last flush only the ones that `kept` tells.
  std::string disk_after(size_t count, const std::function<bool()> &kept) const {
    std::string image = before_;
    const size_t flushed = last_flush(count);
    for (size_t i = 0; i < count; ++i) {
      if (i < flushed || kept()) image.replace(log_[i].offset, log_[i].bytes.size(), log_[i].bytes);
    }
    return image;
  }

  // The writes before this one are on the disk for good.
  size_t last_flush(size_t count) const {
    while (count > 0 && !log_[count - 1].is_flush()) --count;
    return count;
  }

  // How often the file was old, new, and anything else, over all cuts of the stream of writes.
  struct Seen {
    std::atomic<int> old = 0, renewed = 0, other = 0;
  };

  void after_each_cut(const Scenario &scenario, Seen *seen) {
    constexpr int lookers = 4;  // the kernel takes its time to mount
    std::atomic<size_t> next = 0;
    std::vector<std::future<void>> looking;
    for (int number = 0; number < lookers; ++number) {
      looking.push_back(std::async(std::launch::async, [&, number] {
        const Looker looker(folder_ / ("cut" + std::to_string(number)));
        for (size_t count; (count = next++) <= log_.size();) look_at_cut(count, looker, scenario, seen);
      }));
    }
    for (std::future<void> &each : looking) each.get();
  }

 private:
  // Looks into images.
  class Looker {
   public:
    explicit Looker(const std::string &name) : image_(name), mount_point_(name + ".mounted") {
      mkdir(mount_point_.c_str(), 0700);
    }
    std::optional<std::string> content_on(const std::string &disk) const {
      write_file(image_, disk);
      const Mounted_Image mounted(image_, mount_point_, mount_options);
      const std::string file = mount_point_ + "/record.conf";
      if (!exists(file)) return {};
      return read_file(file);
    }

   private:
    std::string image_, mount_point_;
  };

  void look_at_cut(size_t count, const Looker &looker, const Scenario &scenario, Seen *seen) {
    const auto look = [&](const std::function<bool()> &kept) {
      const auto content = looker.content_on(disk_after(count, kept));
      ++(content == scenario.before ? seen->old : content == scenario.after ? seen->renewed : seen->other);
    };
    if (count > 0 && log_[count - 1].is_flush()) return;  // the same disk as before it
    look([] { return true; });
    // A disk may write in any order what it was not told to flush.
    std::mt19937 random(static_cast<unsigned>(count));
    if (last_flush(count) != count) look([&] { return random() % 2 == 0; });
  }

 protected:
  const Temporary_Folder folder_;
  std::string before_;
  Disk_Log log_;
};

class Power_Loss_While_Replacing : public Power_Loss, public testing::WithParamInterface<Scenario> {};

INSTANTIATE_TEST_SUITE_P(, Power_Loss_While_Replacing, testing::ValuesIn(replacements()),
                         [](const auto &test) { return title(test.param); });

TEST_P(Power_Loss_While_Replacing, Leaves_the_old_file_or_the_new_one) {
  const Scenario &scenario = GetParam();
  record(scenario, scenario.call);
  ASSERT_FALSE(HasFatalFailure());
  Seen seen;
  after_each_cut(scenario, &seen);
  EXPECT_EQ(seen.other, 0);
  EXPECT_GE(seen.old, 1);
  EXPECT_GE(seen.renewed, 1);
  std::cout << log_.size() << " writes; " << seen.old << " times old, " << seen.renewed << " times new\n";
}

// The recording sees what it is there for: a file that takes the name before its content is on the disk.
TEST_F(Power_Loss, Of_a_writer_that_does_not_synchronise_is_seen) {
  const auto replacing = replacements();
  const auto found = std::find_if(replacing.begin(), replacing.end(),
                                  [](const Scenario &scenario) { return scenario.function == "Update_Conf_File"; });
  ASSERT_NE(found, replacing.end());
  record(*found, [&](World &world) {
    write_file(world.file + ".new", *found->after);
    return rename((world.file + ".new").c_str(), world.path());
  });
  ASSERT_FALSE(HasFatalFailure());
  Seen seen;
  after_each_cut(*found, &seen);
  EXPECT_GE(seen.other, 1);
}

}  // namespace
