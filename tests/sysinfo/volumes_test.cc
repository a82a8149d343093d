#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/sysinfo/disks.h"
#include "tests/sysinfo/mounted.h"

namespace {

using namespace tarn::test;
namespace fs = std::filesystem;

static_assert(offsetof(Volume_Info, total_bytes) == 8 && offsetof(Volume_Info, partition) == 16 &&
              offsetof(Volume_Info, device) == 20 && offsetof(Volume_Info, shortcut) == 44 &&
              offsetof(Volume_Info, uuid) == 88 && offsetof(Volume_Info, type) == 128 &&
              offsetof(Volume_Info, label) == 140 && offsetof(Volume_Info, model) == 156 &&
              offsetof(Volume_Info, vendor) == 188 && sizeof(Volume_Info) == 224);

// A file system of 1000 blocks of 4096 bytes, 300 of them free and 200 of those for users.
constexpr uint64_t block = 4096, fs_total = 1000 * block, fs_avail = 200 * block;
constexpr uint64_t device_total = 9000 * 512;

class Volume : public Descriptor_Count {
 protected:
  Volume() {
    use_block_id_that_prints(
        "/dev/sda1: LABEL=\"data\" UUID=\"0a-1\" TYPE=\"ext4\"\n"
        "/dev/sdb1: UUID=\"0b-1\" TYPE=\"vfat\"\n");
    disks_.add("sda/sda1/size", "9000\n");
    disks_.add_folder("sda/sda2");
    disks_.add("sda/device/vendor", "ACME \n");
    disks_.add("sda/device/model", "Fast \n");
    fs::create_directories("/share/A_DATA/folder");
    use_mount_table("/dev/sda1 /share/A_DATA ext4 rw 0 0\n");
    answer_statfs("/share/A_DATA");
  }
  ~Volume() override {
    remove_block_id();
    use_real_mount_table();
    EXPECT_EQ(log_.text(), "") << "the queries log nothing";
  }

  void answer_statfs(const std::string &below) {
    answers_.reset();
    answers_.emplace([=](const char *path, struct statfs *status) {
      if (!std::string(path).starts_with(below)) return real_statfs(path, status);
      *status = {};
      status->f_bsize = block;
      status->f_blocks = 1000;
      status->f_bfree = 300;
      status->f_bavail = 200;
      return 0;
    });
  }
  void fail_statfs(int error) {
    answers_.reset();
    answers_.emplace([=](const char *, struct statfs *) {
      errno = error;
      return -1;
    });
  }

  // The record holds something else before, and is all that is written to.
  template <typename Query>
  int ask(Query query, const std::string &name) {
    struct {
      Volume_Info info;
      char guard[8];
    } filled;
    memset(&filled, 'x', sizeof filled);
    const int status = query(name.c_str(), &filled.info);
    EXPECT_EQ(std::string(filled.guard, sizeof filled.guard), "xxxxxxxx");
    info_ = filled.info;
    return status;
  }
  int by_path(const std::string &path) { return ask(Query_Volume_Info_BY_Path, path); }
  int by_id(const std::string &uuid) { return ask(Query_Volume_Info_BY_Id, uuid); }

  bool is_zeroed() const {
    static const Volume_Info zero = {};
    return memcmp(&info_, &zero, sizeof zero) == 0;
  }

  // Of sda1, but for sizes and shortcut.
  void expect_usual_texts() const {
    EXPECT_STREQ(info_.device, "/dev/sda1");
    EXPECT_STREQ(info_.uuid, "0a-1");
    EXPECT_STREQ(info_.label, "data");
    EXPECT_STREQ(info_.type, "ext4");
    EXPECT_STREQ(info_.vendor, "ACME");
    EXPECT_STREQ(info_.model, "Fast");
    EXPECT_EQ(info_.partition, 1u);
  }

  Log_Capture log_;
  const Mounted share_{"tmpfs", "/share", "tmpfs"};
  const Made_Up_Disks disks_;
  std::optional<Statfs_Answers> answers_;
  Volume_Info info_ = {};
};

using Volume_By_Device = Volume;
using Volume_By_Folder = Volume;
using Volume_By_Id = Volume;

TEST_F(Volume, Needs_a_name_and_a_record) {
  Volume_Info info;
  memset(&info, 'x', sizeof info);
  const Volume_Info before = info;
  EXPECT_EQ(Query_Volume_Info_BY_Path(nullptr, &info), -EINVAL);
  EXPECT_EQ(Query_Volume_Info_BY_Id(nullptr, &info), -EINVAL);
  EXPECT_EQ(Query_Volume_Info_BY_Path("/dev/sda1", nullptr), -EINVAL);
  EXPECT_EQ(Query_Volume_Info_BY_Id("0a-1", nullptr), -EINVAL);
  EXPECT_EQ(memcmp(&info, &before, sizeof info), 0);
}

TEST_F(Volume, Is_none_at_any_other_path) {
  for (const char *path : {"", "/", "/dev", "/share", "/shares/x", "dev/sda1", "share/A_DATA", "/DEV/sda1", "/mnt/x"}) {
    EXPECT_EQ(by_path(path), -EINVAL) << path;
    EXPECT_TRUE(is_zeroed());
  }
}

// ---------------------------------------------------------------------------------------------------------- by device

TEST_F(Volume_By_Device, Has_the_total_of_its_file_system) {
  fs::create_symlink("A_DATA", "/share/Data");
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  expect_usual_texts();
  EXPECT_STREQ(info_.shortcut, "/share/Data");
  EXPECT_EQ(info_.avail_bytes, fs_avail);
  EXPECT_EQ(info_.total_bytes, fs_total);
}

TEST_F(Volume_By_Device, Shows_its_mount_point_when_there_is_no_link) {
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
  use_mount_table("/dev/sda1 /mnt/HDA_ROOT ext4 rw 0 0\n/dev/sda1 /share/A_DATA ext4 rw 0 0\n");
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  EXPECT_STREQ(info_.shortcut, "/mnt/HDA_ROOT") << "the first mount of the table";
}

TEST_F(Volume_By_Device, Has_the_devices_total_when_the_file_system_cannot_be_asked) {
  fail_statfs(EIO);
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  expect_usual_texts();
  EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
  EXPECT_EQ(info_.avail_bytes, 0u);
  EXPECT_EQ(info_.total_bytes, device_total);
}

TEST_F(Volume_By_Device, Has_sizes_beyond_32_bits) {
  answers_.reset();
  answers_.emplace([](const char *, struct statfs *status) {
    *status = {};
    status->f_bsize = 65536;
    status->f_blocks = (uint64_t{1} << 40) + 1;
    status->f_bavail = uint64_t{1} << 39;
    return 0;
  });
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  EXPECT_EQ(info_.avail_bytes, uint64_t{1} << 55);
  EXPECT_EQ(info_.total_bytes, (uint64_t{1} << 56) + 65536);
}

TEST_F(Volume_By_Device, That_the_tool_does_not_know_is_none) {
  EXPECT_EQ(by_path("/dev/sdc1"), -ENODEV);
  EXPECT_TRUE(is_zeroed());
  EXPECT_EQ(by_path("/dev/mapper/01234567890"), -ENODEV);
  EXPECT_EQ(by_path("/dev/" + std::string(100'000, 'x')), -ENODEV);
  EXPECT_TRUE(is_zeroed());
}

TEST_F(Volume_By_Device, Without_a_vendor_fails_with_what_was_found) {
  disks_.add("sdb/sdb1/size", "10\n");
  use_mount_table("/dev/sdb1 /share/A_DATA vfat rw 0 0\n");
  EXPECT_EQ(by_path("/dev/sdb1"), -ENOENT);
  EXPECT_STREQ(info_.device, "/dev/sdb1");
  EXPECT_STREQ(info_.uuid, "0b-1");
  EXPECT_STREQ(info_.label, "");
  EXPECT_STREQ(info_.type, "vfat");
  EXPECT_EQ(info_.total_bytes, 5120u);
  EXPECT_STREQ(info_.shortcut, "");
}

TEST_F(Volume_By_Device, That_is_not_mounted_fails_with_what_was_found) {
  use_mount_table("/dev/sda10 /share/A_DATA ext4 rw 0 0\n");
  EXPECT_EQ(by_path("/dev/sda1"), -ENOTDIR);
  expect_usual_texts();
  EXPECT_EQ(info_.total_bytes, device_total);
  EXPECT_EQ(info_.avail_bytes, 0u);
  EXPECT_STREQ(info_.shortcut, "");
  remove_mount_table();
  EXPECT_EQ(by_path("/dev/sda1"), -ENOENT);
}

TEST_F(Volume_By_Device, Keeps_long_texts_within_their_fields) {
  const std::string point = "/share/" + std::string(1000, 'p');
  use_mount_table("/dev/sda1 " + point + " ext4 rw 0 0\n");
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  expect_usual_texts();
  EXPECT_EQ(info_.shortcut, point.substr(0, 43));

  const std::string name(255, 'n');
  use_mount_table("/dev/sda1 /share/A_DATA ext4 rw 0 0\n");
  fs::create_symlink("A_DATA", "/share/" + name);
  EXPECT_EQ(by_path("/dev/sda1"), 0);
  expect_usual_texts();
  EXPECT_EQ(info_.shortcut, ("/share/" + name).substr(0, 43));
}

TEST_F(Volume_By_Device, Fills_each_field_to_its_end) {
  const std::string device = "/dev/sda00000000000002", uuid(39, 'u'), label(15, 'l'), type(11, 't'), text(32, 'v');
  use_block_id_that_prints(device + ": LABEL=\"" + label + "\" UUID=\"" + uuid + "\" TYPE=\"" + type + "\"\n");
  disks_.add("sda/device/vendor", text + "x\n");
  disks_.add("sda/device/model", text + "x\n");
  use_mount_table(device + " /share/A_DATA ext4 rw 0 0\n");
  EXPECT_EQ(by_path(device), 0);
  EXPECT_EQ(info_.device, device);
  EXPECT_EQ(info_.uuid, uuid);
  EXPECT_EQ(info_.label, label);
  EXPECT_EQ(info_.type, type);
  EXPECT_EQ(info_.vendor, text);
  EXPECT_EQ(info_.model, text.substr(0, 31));
  EXPECT_EQ(info_.partition, 2u);
}

// -------------------------------------------------------------------------------------------------- by a share's
// folder

// Callers know the two queries to differ in the total of the same volume.
TEST_F(Volume_By_Folder, Has_the_total_of_its_device) {
  fs::create_symlink("A_DATA", "/share/Data");
  for (const char *path : {"/share/A_DATA", "/share/Data", "/share/A_DATA/folder/.."}) {
    EXPECT_EQ(by_path(path), 0) << path;
    expect_usual_texts();
    EXPECT_STREQ(info_.shortcut, "/share/Data");
    EXPECT_EQ(info_.avail_bytes, fs_avail);
    EXPECT_EQ(info_.total_bytes, device_total);
  }
}

TEST_F(Volume_By_Folder, Shows_its_mount_point_when_there_is_no_link) {
  EXPECT_EQ(by_path("/share/A_DATA"), 0);
  EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
}

TEST_F(Volume_By_Folder, May_lie_elsewhere) {
  const Temporary_Folder folder;
  fs::create_symlink(folder.path(), "/share/Out");
  use_mount_table("/dev/sda1 " + folder.path() + " ext4 rw 0 0\n");
  EXPECT_EQ(by_path("/share/Out"), 0);
  EXPECT_EQ(info_.shortcut, folder.path());
}

TEST_F(Volume_By_Folder, That_is_no_mount_point_is_none) {
  EXPECT_EQ(by_path("/share/A_DATA/folder"), -ENOTDIR);
  EXPECT_TRUE(is_zeroed());
  EXPECT_EQ(by_path("/share/"), -ENOTDIR);
  remove_mount_table();
  EXPECT_EQ(by_path("/share/A_DATA"), -ENOENT);
}

TEST_F(Volume_By_Folder, That_cannot_be_looked_at_is_none) {
  EXPECT_EQ(by_path("/share/nothing"), -ENOENT);
  EXPECT_TRUE(is_zeroed());
  fs::create_symlink("loop", "/share/loop");
  EXPECT_EQ(by_path("/share/loop"), -ELOOP);
  EXPECT_EQ(by_path("/share/" + std::string(5000, 'x')), -ENAMETOOLONG);
  fail_statfs(EIO);
  EXPECT_EQ(by_path("/share/A_DATA"), -EIO);
  EXPECT_TRUE(is_zeroed());
}

TEST_F(Volume_By_Folder, That_is_on_no_known_device_fails_with_what_was_found) {
  use_mount_table("tmpfs /share/A_DATA tmpfs rw 0 0\n");
  EXPECT_EQ(by_path("/share/A_DATA"), -ENODEV);
  EXPECT_STREQ(info_.device, "tmpfs");
  EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
  EXPECT_EQ(info_.avail_bytes, fs_avail);
  EXPECT_EQ(info_.total_bytes, fs_total);
  EXPECT_STREQ(info_.uuid, "");
}

TEST_F(Volume_By_Folder, Without_a_vendor_fails_with_what_was_found) {
  disks_.add("sdb/sdb1/size", "10\n");
  use_mount_table("/dev/sdb1 /share/A_DATA vfat rw 0 0\n");
  EXPECT_EQ(by_path("/share/A_DATA"), -ENOENT);
  EXPECT_STREQ(info_.uuid, "0b-1");
  EXPECT_EQ(info_.total_bytes, 5120u);
}

// Else the disk would be taken for another, whose name its own begins with.
TEST_F(Volume_By_Folder, Keeps_a_long_device_within_its_field_and_asks_for_the_whole_of_it) {
  const std::string kept = "/dev/sda000000000000001";
  ASSERT_EQ(kept.size(), 23u);
  use_block_id_that_prints(kept + ": UUID=\"0a-1\"\n" + kept.substr(0, 22) + ": UUID=\"0a-2\"\n" + kept +
                           std::string(1000, '0') + ": UUID=\"0a-3\"\n");
  for (const std::string &rest : {std::string(), std::string("x"), std::string(1000, '0')}) {
    use_mount_table(kept + rest + " /share/A_DATA ext4 rw 0 0\n");
    EXPECT_EQ(by_path("/share/A_DATA"), -ENODEV);
    EXPECT_EQ(info_.device, kept);
    EXPECT_STREQ(info_.uuid, "");
    EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
  }
  use_mount_table(kept.substr(0, 22) + " /share/A_DATA ext4 rw 0 0\n");
  EXPECT_EQ(by_path("/share/A_DATA"), 0);
  EXPECT_STREQ(info_.uuid, "0a-2");
}

TEST_F(Volume_By_Folder, Keeps_a_long_mount_point_within_its_field) {
  const std::string deep = "/share/" + std::string(200, 'p') + "/" + std::string(200, 'q');
  fs::create_directories(deep);
  use_mount_table("/dev/sda1 " + deep + " ext4 rw 0 0\n");
  EXPECT_EQ(by_path(deep), 0);
  expect_usual_texts();
  EXPECT_EQ(info_.shortcut, deep.substr(0, 43));
}

// -------------------------------------------------------------------------------------------------------------- by id

TEST_F(Volume_By_Id, Is_as_by_device) {
  fs::create_symlink("A_DATA", "/share/Data");
  EXPECT_EQ(by_id("0a-1"), 0);
  expect_usual_texts();
  EXPECT_STREQ(info_.shortcut, "/share/Data");
  EXPECT_EQ(info_.avail_bytes, fs_avail);
  EXPECT_EQ(info_.total_bytes, fs_total);
}

TEST_F(Volume_By_Id, Shows_its_mount_point_when_there_is_no_link) {
  EXPECT_EQ(by_id("0a-1"), 0);
  EXPECT_STREQ(info_.shortcut, "/share/A_DATA");
}

TEST_F(Volume_By_Id, Has_the_devices_total_when_the_file_system_cannot_be_asked) {
  fail_statfs(EIO);
  EXPECT_EQ(by_id("0a-1"), 0);
  EXPECT_EQ(info_.avail_bytes, 0u);
  EXPECT_EQ(info_.total_bytes, device_total);
}

TEST_F(Volume_By_Id, Takes_uuids_of_up_to_39_characters) {
  const std::string uuid(39, 'u');
  use_block_id_that_prints("/dev/sda1: UUID=\"" + uuid + "\"\n/dev/sda2: UUID=\"" + uuid + "u\"\n");
  EXPECT_EQ(by_id(uuid), 0);
  EXPECT_EQ(info_.uuid, uuid);
  Volume_Info untouched;
  memset(&untouched, 'x', sizeof untouched);
  EXPECT_EQ(by_id(uuid + "u"), -EINVAL);
  EXPECT_EQ(memcmp(&info_, &untouched, sizeof untouched), 0);
  EXPECT_EQ(by_id(std::string(100'000, 'u')), -EINVAL);
}

TEST_F(Volume_By_Id, Fails_as_by_device) {
  EXPECT_EQ(by_id("0c-1"), -ENODEV);
  EXPECT_TRUE(is_zeroed());
  EXPECT_EQ(by_id(""), -ENODEV);
  EXPECT_EQ(by_id("0b-1"), -ENOENT) << "no vendor";
  EXPECT_STREQ(info_.device, "/dev/sdb1");
  EXPECT_STREQ(info_.uuid, "0b-1");
  use_mount_table("");
  EXPECT_EQ(by_id("0a-1"), -ENOTDIR) << "not mounted";
  expect_usual_texts();
  EXPECT_EQ(info_.total_bytes, device_total);
}

// The query by path refuses such a device.
TEST_F(Volume_By_Id, Finds_a_device_of_23_characters) {
  const std::string device = "/dev/sda000000000000002";
  ASSERT_EQ(device.size(), 23u);
  use_block_id_that_prints(device + ": UUID=\"0a-1\"\n");
  use_mount_table(device + " /share/A_DATA ext4 rw 0 0\n");
  EXPECT_EQ(by_id("0a-1"), 0);
  EXPECT_EQ(info_.device, device);
  EXPECT_EQ(by_path(device), -ENODEV);
}

TEST_F(Volume_By_Id, Keeps_long_texts_within_their_fields) {
  const std::string point = "/mnt/" + std::string(1000, 'p');
  use_mount_table("/dev/sda1 " + point + " ext4 rw 0 0\n");
  EXPECT_EQ(by_id("0a-1"), 0);
  expect_usual_texts();
  EXPECT_EQ(info_.shortcut, point.substr(0, 43));
}

// ---------------------------------------------------------------------------------------------------------- a real one

class Real_Volume : public Volume, public testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(, Real_Volume, testing::Values("ext4", "btrfs"), [](const auto &test) { return test.param; });

TEST_P(Real_Volume, Is_told_by_device_by_folder_and_by_uuid) {
  if (!kernel_lends_loop_devices()) GTEST_SKIP() << "the kernel lends no loop device";
  answers_.reset();
  use_real_block_id();
  use_real_mount_table();
  const Temporary_Folder folder;
  const Loop_Device loop(make_image(folder, GetParam(), "My Disk"));
  std::optional<Mounted> mounted;
  try {
    mounted.emplace(loop.path(), "/share/external/sdc1", GetParam());
  } catch (const std::system_error &e) {
    GTEST_SKIP() << "the kernel mounts no " << GetParam() << ": " << e.what();
  }
  fs::create_symlink("external/sdc1", "/share/USB Disk");
  const std::string number = std::to_string(loop.number());
  disks_.show(loop);
  disks_.add("loop/loop" + number + "/size", "777\n");
  disks_.add_folder("loop/loop2");
  disks_.add("loop/device/vendor", "Nobody\n");
  struct statfs status;
  ASSERT_EQ(real_statfs("/share/external/sdc1", &status), 0);
  const auto expect_all = [&](uint64_t total) {
    EXPECT_EQ(info_.device, loop.path());
    EXPECT_STREQ(info_.shortcut, "/share/USB Disk");
    EXPECT_STREQ(info_.label, "My Disk");
    EXPECT_STREQ(info_.type, GetParam());
    EXPECT_STREQ(info_.vendor, "Nobody");
    EXPECT_STREQ(info_.model, "");
    EXPECT_EQ(info_.partition, static_cast<unsigned int>(loop.number()));
    EXPECT_EQ(info_.avail_bytes, status.f_bavail * static_cast<uint64_t>(status.f_bsize));
    EXPECT_EQ(info_.total_bytes, total);
  };
  const uint64_t whole = status.f_blocks * static_cast<uint64_t>(status.f_bsize);

  EXPECT_EQ(by_path(loop.path()), 0);
  expect_all(whole);
  const std::string uuid = info_.uuid;
  EXPECT_THAT(uuid, testing::SizeIs(36));
  EXPECT_EQ(by_id(uuid), 0);
  expect_all(whole);
  EXPECT_EQ(info_.uuid, uuid);
  for (const char *path : {"/share/external/sdc1", "/share/USB Disk"}) {
    EXPECT_EQ(by_path(path), 0);
    expect_all(777 * 512);
    EXPECT_EQ(info_.uuid, uuid);
  }
  mounted.reset();
  EXPECT_EQ(by_path(loop.path()), -ENOTDIR);
}

}  // namespace
