#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mntent.h>
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/sysinfo/mounted.h"

namespace {

using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

static_assert(offsetof(Mount_Info, passno) == 8 && offsetof(Mount_Info, freq) == 12 &&
              offsetof(Mount_Info, device) == 16 && offsetof(Mount_Info, mount_point) == 24 &&
              offsetof(Mount_Info, fs_type) == 32 && offsetof(Mount_Info, options) == 40);

struct Mount {
  std::string device, mount_point, fs_type, options;
  int freq = 0, passno = 0;

  bool operator==(const Mount &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Mount &mount) {
  return out << mount.device << " on " << mount.mount_point << " type " << mount.fs_type << " (" << mount.options
             << ") " << mount.freq << " " << mount.passno;
}

constexpr char usual_table[] =
    "/dev/sda1 /share/A_DATA ext4 rw,noatime 1 2\n"
    "tmpfs /tmp tmpfs rw 0 0\n"
    "/dev/sdb1 /share/external/sdb1 vfat ro 0 3\n";

// ----------------------------------------------------------------------------------------------------------- the list

class Mounts_Test : public Descriptor_Count {
 protected:
  ~Mounts_Test() override { use_real_mount_table(); }
  Log_Capture log_;
};

class Mount_List : public Mounts_Test {
 protected:
  ~Mount_List() override { Free_Mount_Info(list_); }

  std::vector<Mount> mounts() const {
    std::vector<Mount> found;
    for (const Mount_Info *one = list_; one != nullptr; one = one->next) {
      found.push_back({one->device, one->mount_point, one->fs_type, one->options, one->freq, one->passno});
    }
    return found;
  }

  std::vector<Mount> scan(const std::string &table) {
    use_mount_table(table);
    give_back();
    EXPECT_EQ(Scan_Mount_Info(&list_), 0);
    EXPECT_EQ(log_.text(), "");
    return mounts();
  }

  void give_back() {
    Free_Mount_Info(list_);
    list_ = nullptr;
  }

  Mount_Info *list_ = nullptr;
};

TEST_F(Mount_List, Needs_a_holder) {
  EXPECT_EQ(Scan_Mount_Info(nullptr), -EINVAL);
  Free_Mount_Info(nullptr);
}

TEST_F(Mount_List, Has_every_field_of_every_line_and_the_last_line_first) {
  EXPECT_THAT(scan(usual_table), ElementsAre(Mount{"/dev/sdb1", "/share/external/sdb1", "vfat", "ro", 0, 3},
                                             Mount{"tmpfs", "/tmp", "tmpfs", "rw", 0, 0},
                                             Mount{"/dev/sda1", "/share/A_DATA", "ext4", "rw,noatime", 1, 2}));
}

TEST_F(Mount_List, Goes_to_the_front_of_what_the_caller_has) {
  scan("a /a x rw 0 0\n");
  use_mount_table("b /b x rw 0 0\nc /c x rw 0 0\n");
  EXPECT_EQ(Scan_Mount_Info(&list_), 0);
  EXPECT_THAT(mounts(),
              ElementsAre(Mount{"c", "/c", "x", "rw"}, Mount{"b", "/b", "x", "rw"}, Mount{"a", "/a", "x", "rw"}));
}

TEST_F(Mount_List, Holds_each_mount_in_one_block_with_the_texts_in_their_order) {
  scan("dev /point type opts 0 0\n");
  ASSERT_NE(list_, nullptr);
  EXPECT_EQ(list_->fs_type, list_->options + sizeof "opts");
  EXPECT_EQ(list_->mount_point, list_->fs_type + sizeof "type");
  EXPECT_EQ(list_->device, list_->mount_point + sizeof "/point");
}

TEST_F(Mount_List, Takes_fields_as_the_systems_reader_gives_them) {
  EXPECT_THAT(scan("# a comment\n\n/dev/my\\040disk /share/a\\011b\\134c x rw\n  short /s\n"),
              ElementsAre(Mount{"short", "/s", "", ""}, Mount{"/dev/my disk", "/share/a\tb\\c", "x", "rw"}));
}

TEST_F(Mount_List, Takes_fields_of_any_length_and_content) {
  const std::string odd = "\x01\x80\xff%s%n", wide(1000, 'w');
  EXPECT_THAT(scan(odd + " " + wide + " " + wide + odd + " " + wide + " 5 6\n"),
              ElementsAre(Mount{odd, wide, wide + odd, wide, 5, 6}));
  // The reader sees the beginning of a line that is longer than its buffer, and no line in its rest.
  const std::string longer = "dev " + std::string(5000, 'p') + "\nnext /n x rw 0 0\n";
  EXPECT_THAT(scan(longer), SizeIs(2));
  EXPECT_EQ(mounts().front(), (Mount{"next", "/n", "x", "rw"}));
}

TEST_F(Mount_List, Of_an_empty_table_is_empty) {
  EXPECT_THAT(scan(""), IsEmpty());
}

TEST_F(Mount_List, Is_whole_with_5000_mounts) {
  std::string table;
  for (int i = 0; i < 5000; ++i) table += "d" + std::to_string(i) + " /m" + std::to_string(i) + " x rw 0 0\n";
  EXPECT_THAT(scan(table), SizeIs(5000));
}

TEST_F(Mount_List, Stays_as_it_is_without_a_table) {
  scan("a /a x rw 0 0\n");
  remove_mount_table();
  EXPECT_EQ(Scan_Mount_Info(&list_), -ENOENT);
  EXPECT_THAT(mounts(), SizeIs(1));
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Mount_List, Keeps_what_was_read_when_memory_ends) {
  scan(usual_table);  // the system's reader takes memory once, for good
  give_back();
  std::vector<size_t> kept;
  with_each_allocation_failing([&] { return Scan_Mount_Info(&list_); },
                               [&](int status, int) {
                                 EXPECT_THAT(status, testing::AnyOf(0, -ENOMEM));
                                 if (status == -ENOMEM) kept.push_back(mounts().size());
                                 give_back();
                               });
  EXPECT_THAT(kept, ElementsAre(0, 0, 1, 2)) << "the first for the table itself";
  const auto line = [](size_t size) {
    return error_line("Scan_Mount_Info", "Can't allocate " + std::to_string(size) + " bytes memory!");
  };
  EXPECT_THAT(log_.lines(),
              ElementsAre(line(40 + 11 + 5 + 14 + 10), line(40 + 3 + 6 + 5 + 6), line(40 + 3 + 5 + 21 + 10)));
}

TEST_F(Mount_List, Of_this_machine_has_what_is_mounted) {
  const Temporary_Folder folder;
  const Mounted memory("my memory", folder / "memory", "tmpfs", MS_NODEV, "size=64k");
  const Mounted bound("/usr", folder / "bound place", "", MS_BIND);
  for (const char *name : {"low", "up", "work"}) ASSERT_EQ(mkdir((memory.path() + "/" + name).c_str(), 0700), 0);
  const std::string layers =
      "lowerdir=" + memory.path() + "/low,upperdir=" + memory.path() + "/up,workdir=" + memory.path() + "/work";
  const Mounted overlay("layers", folder / "overlay", "overlay", 0, layers);
  use_real_mount_table();

  EXPECT_EQ(Scan_Mount_Info(&list_), 0);

  std::vector<std::string> points;
  std::istringstream lines(read_file("/proc/self/mounts"));
  for (std::string device, point, rest; lines >> device >> point && std::getline(lines, rest);) {
    const size_t blank = point.find("\\040");
    points.insert(points.begin(), blank == point.npos ? point : point.replace(blank, 4, " "));
  }
  std::vector<std::string> found;
  for (const Mount &one : mounts()) found.push_back(one.mount_point);
  EXPECT_THAT(found, ElementsAreArray(points));
  const auto is = [](const std::string &device, const std::string &point, const std::string &type) {
    return testing::AllOf(testing::Field(&Mount::device, device), testing::Field(&Mount::mount_point, point),
                          testing::Field(&Mount::fs_type, type));
  };
  EXPECT_THAT(mounts(), Contains(is("my memory", memory.path(), "tmpfs")));
  EXPECT_THAT(mounts(), Contains(is("layers", overlay.path(), "overlay")));
  EXPECT_THAT(found, Contains(bound.path()));
}

// ---------------------------------------------------------------------------------------------------- a single entry

using Query = int (*)(const char *wanted, mntent **entry);

class Mount_Entry : public Mounts_Test, public testing::WithParamInterface<Query> {
 protected:
  Mount_Entry() { use_mount_table(usual_table); }

  int query(const char *wanted) {
    static mntent something_else;
    entry_ = &something_else;
    return GetParam()(wanted, &entry_);
  }

  mntent *entry_ = nullptr;
};
INSTANTIATE_TEST_SUITE_P(, Mount_Entry, testing::Values(&Query_Mount_Entry_By_Device, &Query_Mount_Entry_By_Path),
                         [](const auto &test) { return test.index == 0 ? "by_device" : "by_path"; });

TEST_P(Mount_Entry, Needs_both_arguments) {
  EXPECT_EQ(GetParam()("tmpfs", nullptr), -EINVAL);
  mntent something_else;
  mntent *entry = &something_else;
  EXPECT_EQ(GetParam()(nullptr, &entry), -EINVAL);
  EXPECT_EQ(entry, &something_else);
}

TEST_P(Mount_Entry, That_is_not_in_the_table_is_none) {
  for (const char *wanted : {"", "/tm", "/tmp/", "tmp", "tmpf", "tmpfss", "TMPFS", "ext4", "rw", "/share/a_data"}) {
    EXPECT_EQ(query(wanted), -ENOTDIR) << wanted;
    EXPECT_EQ(entry_, nullptr);
  }
  EXPECT_EQ(query(std::string(100'000, 'x').c_str()), -ENOTDIR);
}

TEST_P(Mount_Entry, Is_none_without_a_table) {
  remove_mount_table();
  EXPECT_EQ(query("tmpfs"), -ENOENT);
  EXPECT_EQ(entry_, nullptr);
}

TEST_P(Mount_Entry, Is_the_systems_own) {
  ASSERT_EQ(query(GetParam() == &Query_Mount_Entry_By_Device ? "tmpfs" : "/tmp"), 0);
  FILE *table = setmntent("/etc/mtab", "re");
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(entry_, getmntent(table));
  endmntent(table);
}

using Mount_Entry_By = Mounts_Test;

TEST_F(Mount_Entry_By, Device_is_the_first_of_the_table) {
  use_mount_table(
      "/dev/a1 /x ext4 rw 0 0\n/dev/a /one ext4 ro,noatime 1 2\n/dev/a /two ext4 rw 0 0\n/y /dev/a x rw 0 0\n");
  mntent *entry = nullptr;
  ASSERT_EQ(Query_Mount_Entry_By_Device("/dev/a", &entry), 0);
  EXPECT_STREQ(entry->mnt_fsname, "/dev/a");
  EXPECT_STREQ(entry->mnt_dir, "/one");
  EXPECT_STREQ(entry->mnt_type, "ext4");
  EXPECT_STREQ(entry->mnt_opts, "ro,noatime");
  EXPECT_EQ(entry->mnt_freq, 1);
  EXPECT_EQ(entry->mnt_passno, 2);
  EXPECT_EQ(Query_Mount_Entry_By_Device("/one", &entry), -ENOTDIR);
}

TEST_F(Mount_Entry_By, Path_is_the_first_of_the_table) {
  use_mount_table("/p /x ext4 rw 0 0\n/dev/a /p ext4 rw 0 0\n/dev/b /p btrfs rw 0 0\n/dev/c /a\\040b x rw 0 0\n");
  mntent *entry = nullptr;
  ASSERT_EQ(Query_Mount_Entry_By_Path("/p", &entry), 0);
  EXPECT_STREQ(entry->mnt_fsname, "/dev/a");
  EXPECT_EQ(Query_Mount_Entry_By_Path("/dev/a", &entry), -ENOTDIR);
  ASSERT_EQ(Query_Mount_Entry_By_Path("/a b", &entry), 0);
  EXPECT_STREQ(entry->mnt_fsname, "/dev/c");
}

TEST_F(Mount_Entry_By, Device_and_path_of_a_real_mount) {
  const Temporary_Folder folder;
  const Mounted memory("tarn-memory", folder / "memory", "tmpfs");
  use_real_mount_table();
  mntent *entry = nullptr;
  ASSERT_EQ(Query_Mount_Entry_By_Device("tarn-memory", &entry), 0);
  EXPECT_EQ(entry->mnt_dir, memory.path());
  ASSERT_EQ(Query_Mount_Entry_By_Path(memory.path().c_str(), &entry), 0);
  EXPECT_STREQ(entry->mnt_fsname, "tarn-memory");
}

}  // namespace
