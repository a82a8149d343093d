#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/command.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/program.h"
#include "tests/sysinfo/disks.h"
#include "tests/sysinfo/mounted.h"

namespace {

using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
namespace fs = std::filesystem;

constexpr char scan_name[] = "Scan_Share_List";
constexpr char samba_file[] = "/etc/config/smb.conf";
constexpr unsigned int hidden = 0x10, external = 0x1100, optical = 0x1201;
constexpr unsigned int udf = 0x15013346, iso9660 = 0x9660;

static_assert(offsetof(Share_Info, mtime) == 8 && offsetof(Share_Info, mtime_nsec) == 12 &&
              offsetof(Share_Info, mode) == 16 && offsetof(Share_Info, flags) == 20 &&
              offsetof(Share_Info, uid) == 24 && offsetof(Share_Info, gid) == 28 &&
              offsetof(Share_Info, fs_type) == 32 && offsetof(Share_Info, block_size) == 36 &&
              offsetof(Share_Info, free_bytes) == 40 && offsetof(Share_Info, name) == 48);
static_assert(TARN_SHARE_HIDDEN == hidden && TARN_SHARE_EXTERNAL == external && TARN_SHARE_READ_ONLY == optical);

struct Share {
  std::string name;
  unsigned int flags, mode, uid, gid;
  int mtime, mtime_nsec, fs_type, block_size;
  int64_t free_bytes;
};

void PrintTo(const Share &share, std::ostream *out) {
  *out << share.name << " flags 0x" << std::hex << share.flags;
}

auto is_share(const std::string &name, unsigned int flags) {
  return testing::AllOf(testing::Field(&Share::name, name), testing::Field(&Share::flags, flags));
}

Log_Line skipped(const std::string &name, const std::string &path) {
  return debug_line(scan_name, "Skip the manual configured shared folder " + name + ", " + path + "!");
}

Log_Line not_generated(const std::string &name, const std::string &path) {
  return debug_line(scan_name, "Found an non-auto-generated shared folder " + name + ", " + path + "!");
}

// The folder of the shares is the test's own, and empty.
class Shares : public Descriptor_Count {
 protected:
  Shares() {
    use_real_mount_table();
    write_file(samba_file, "");
  }
  ~Shares() override { Release_Share_List(&list_); }

  static void add_folder(const std::string &path) { fs::create_directories("/share/" + path); }
  static void add_link(const std::string &name, const std::string &target) {
    fs::create_symlink(target, "/share/" + name);
  }
  // As the appliance makes them.
  static void add_share(const std::string &name, const std::string &volume = "A_DATA") {
    add_folder(volume + "/" + name);
    add_link(name, volume + "/" + name);
  }
  // With a section that says nothing.
  static void show(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) text += "[" + name + "]\npath = /share/" + name + "\n";
    write_file(samba_file, text);
  }

  std::vector<Share> scan() {
    Release_Share_List(&list_);
    int count = -7;
    EXPECT_EQ(Scan_Share_List(&list_, &count), 0);
    const std::vector<Share> found = shares();
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
  }

  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const Share &share : scan()) found.push_back(share.name);
    return found;
  }

  std::vector<Share> shares() const {
    std::vector<Share> found;
    for (const Share_Info *one = list_; one != nullptr; one = one->next) {
      found.push_back({one->name, one->flags, one->mode, one->uid, one->gid, one->mtime, one->mtime_nsec, one->fs_type,
                       one->block_size, one->free_bytes});
    }
    return found;
  }

  // The list and the count hold something else before.
  int failing_scan() {
    static Share_Info nothing_of_the_kind;
    Share_Info *list = &nothing_of_the_kind;
    int count = -7;
    const int status = Scan_Share_List(&list, &count);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0);
    return status;
  }

  Log_Capture log_;
  std::optional<Mounted> folder_{std::in_place, "tmpfs", "/share", "tmpfs"};
  Share_Info *list_ = nullptr;
};

using Share_List = Shares;

// ------------------------------------------------------------------------------------------------- what cannot be read

TEST_F(Share_List, Needs_a_holder) {
  int count = -7;
  EXPECT_EQ(Scan_Share_List(nullptr, &count), -EINVAL);
  EXPECT_EQ(count, -7);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line(scan_name, "Invalid input parameter.")));
}

TEST_F(Share_List, Is_empty_with_a_logged_failure_without_the_folder) {
  folder_.reset();
  fs::rename("/share", "/share.away");
  EXPECT_EQ(failing_scan(), -ENOENT);
  write_file("/share", "a file");
  EXPECT_EQ(failing_scan(), -ENOTDIR);
  fs::remove("/share");
  fs::rename("/share.away", "/share");
  EXPECT_THAT(log_.lines(), ElementsAre(error_line(scan_name, "Failed to opendir(/share/)! (-2)"),
                                        error_line(scan_name, "Failed to opendir(/share/)! (-20)")));
}

TEST_F(Share_List, Is_empty_when_the_folder_may_not_be_read) {
  add_share("Public");
  chmod("/share", 0700);
  constexpr uid_t nobody = 65534;
  ASSERT_EQ(seteuid(nobody), 0);
  const int status = failing_scan();
  ASSERT_EQ(seteuid(0), 0);
  EXPECT_EQ(status, -EACCES);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line(scan_name, "Failed to opendir(/share/)! (-13)")));
}

TEST_F(Share_List, Of_an_empty_folder_is_empty) {
  EXPECT_THAT(scan(), IsEmpty());
  EXPECT_EQ(log_.text(), "");
}

// ------------------------------------------------------------------------------------------------------ what is listed

TEST_F(Share_List, Comes_in_the_order_of_the_names_bytes) {
  for (const char *name : {"b", "a", "ab", "Z", "\xc3\xa4", "_", "A", "aB", "B", "0"}) add_share(name);
  EXPECT_THAT(names(), ElementsAre("0", "A", "B", "Z", "_", "a", "aB", "ab", "b", "\xc3\xa4"));
}

TEST_F(Share_List, Need_not_be_counted) {
  add_share("Public");
  EXPECT_EQ(Scan_Share_List(&list_, nullptr), 0);
  EXPECT_THAT(shares(), SizeIs(1));
}

TEST_F(Share_List, Tells_owner_mode_and_time_of_the_folder_and_not_of_the_link) {
  add_share("Public");
  const char *path = "/share/A_DATA/Public";
  ASSERT_EQ(chown(path, 1001, 1002), 0);
  ASSERT_EQ(chmod(path, 03753), 0);
  const timespec times[] = {{1, 2}, {1'600'000'000, 123'456'789}};
  ASSERT_EQ(utimensat(AT_FDCWD, path, times, 0), 0);
  const Share found = scan().at(0);
  EXPECT_EQ(found.uid, 1001u);
  EXPECT_EQ(found.gid, 1002u);
  EXPECT_EQ(found.mode, S_IFDIR | 03753u);
  EXPECT_EQ(found.mtime, 1'600'000'000);
  EXPECT_EQ(found.mtime_nsec, 123'456'789);
}

TEST_F(Share_List, Cuts_times_to_32_bits) {
  add_share("Public");
  const timespec times[] = {{1, 2}, {(int64_t{1} << 32) + 5, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, "/share/A_DATA/Public", times, 0), 0);
  EXPECT_EQ(scan().at(0).mtime, 5);
}

TEST_F(Share_List, Tells_type_block_size_and_free_bytes_of_the_file_system) {
  const Mounted large("tmpfs", "/share/L_DATA", "tmpfs", 0, "size=1000G");
  const Mounted raw("ramfs", "/share/R_DATA", "ramfs");
  const Mounted memory("tmpfs", "/share/O_DATA", "tmpfs", 0, "size=64k");
  for (const char *name : {"low", "up", "work"}) add_folder("O_DATA/" + std::string(name));
  const Mounted overlay("layers", "/share/S_DATA", "overlay", 0,
                        "lowerdir=/share/O_DATA/low,upperdir=/share/O_DATA/up,workdir=/share/O_DATA/work");
  const Mounted bound("/share/O_DATA/low", "/share/B_DATA", "", MS_BIND);
  for (const char *volume : {"L_DATA", "R_DATA", "S_DATA", "B_DATA"}) add_share(std::string("on ") + volume, volume);
  const std::vector<Share> found = scan();
  ASSERT_THAT(found, SizeIs(4));
  for (const Share &share : found) {
    struct statfs status;
    ASSERT_EQ(real_statfs(("/share/" + share.name).c_str(), &status), 0);
    EXPECT_EQ(static_cast<unsigned int>(share.fs_type), static_cast<unsigned int>(status.f_type)) << share.name;
    EXPECT_EQ(share.block_size, status.f_bsize) << share.name;
    EXPECT_EQ(share.free_bytes, static_cast<int64_t>(status.f_bfree) * status.f_bsize) << share.name;
  }
  EXPECT_EQ(found[0].fs_type, 0x01021994) << "a bind mount shows what lies below";
  EXPECT_EQ(found[1].free_bytes, int64_t{1000} << 30);
  EXPECT_EQ(found[2].fs_type, static_cast<int>(0x858458F6)) << "below 0";
  EXPECT_EQ(found[3].fs_type, 0x794C7630);
}

TEST_F(Share_List, Holds_each_share_in_one_block_with_a_name_of_any_length) {
  const std::string longest(255, 'n');
  add_folder("A_DATA/x");
  for (const std::string &name : {longest, std::string("%s%n"), std::string("\x01\xff\n]["), std::string("x")}) {
    add_link(name, "A_DATA/x");
  }
  EXPECT_THAT(names(), ElementsAre("\x01\xff\n][", "%s%n", longest, "x"));
}

TEST_F(Share_List, Is_whole_and_in_order_with_10000_links) {
  add_folder("A_DATA/x");
  std::vector<std::string> wanted;
  for (int i = 0; i < 10000; ++i) {
    wanted.push_back("share" + std::to_string(i * 7919 % 10000));
    add_link(wanted.back(), "A_DATA/x");
  }
  std::sort(wanted.begin(), wanted.end());
  log_.clear();
  EXPECT_EQ(names(), wanted);
}

// -------------------------------------------------------------------------------------------------- what is passed
// over

TEST_F(Share_List, Passes_over_all_but_links_to_folders) {
  add_share("Public");
  add_folder("a folder");
  write_file("/share/a file", "");
  ASSERT_EQ(mkfifo("/share/a pipe", 0600), 0);
  add_link("to a file", "a file");
  add_link("to nothing", "A_DATA/nothing");
  add_link("to itself", "to itself");
  add_link("to a pipe", "a pipe");
  EXPECT_THAT(names(), ElementsAre("Public"));
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Share_List, Passes_over_the_reserved_name) {
  add_share("TMBackup");
  add_share("TMBackup2");
  add_share("tmbackup");
  EXPECT_THAT(names(), ElementsAre("TMBackup2", "tmbackup"));
  EXPECT_STREQ(g_rypszReservedShare[0], "TMBackup");
}

TEST_F(Share_List, Compares_with_the_first_reserved_name_only) {
  add_share("TMBackup");
  add_share("Other");
  const char *const before = std::exchange(g_rypszReservedShare[0], "Other");
  EXPECT_THAT(names(), ElementsAre("TMBackup"));
  g_rypszReservedShare[0] = before;
}

TEST_F(Share_List, Passes_over_links_that_lead_out_of_the_folder_and_says_so) {
  fs::create_directories("/share2/A_DATA");
  add_link("neighbour", "/share2/A_DATA");
  add_link("out", "/etc");
  add_link("self", ".");
  add_folder("A_DATA/x");
  add_link("there and back", "/etc/../share/A_DATA/x");
  EXPECT_THAT(names(), ElementsAre("there and back"));
  EXPECT_THAT(log_.lines(), testing::UnorderedElementsAre(skipped("neighbour", "/share2/A_DATA"),
                                                          skipped("out", "/etc"), skipped("self", "/share")));
  fs::remove_all("/share2");
}

TEST_F(Share_List, Passes_over_a_share_whose_file_system_cannot_be_asked) {
  add_share("Public");
  add_share("Lost");
  const Statfs_Answers answers([](const char *path, struct statfs *status) {
    if (strcmp(path, "/share/A_DATA/Lost") != 0) return real_statfs(path, status);
    errno = EIO;
    return -1;
  });
  EXPECT_THAT(names(), ElementsAre("Public"));
  EXPECT_EQ(log_.text(), "");
}

// A folder that does not tell the types of its entries lists no shares.
TEST_F(Share_List, Is_empty_where_the_folder_tells_no_types) {
  if (!kernel_lends_loop_devices()) GTEST_SKIP() << "the kernel lends no loop device";
  const Temporary_Folder folder;
  ASSERT_EQ(run_command("truncate -s 2M " + folder / "i && mkfs.ext2 -q -O ^filetype " + folder / "i").status, 0);
  const Loop_Device loop(folder / "i");
  std::optional<Mounted> mounted;
  try {
    mounted.emplace(loop.path(), "/share", "ext2");
  } catch (const std::system_error &e) {
    GTEST_SKIP() << "the kernel mounts no ext2: " << e.what();
  }
  add_share("Public");
  EXPECT_THAT(scan(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------------- hidden

struct Setting {
  const char *lines;
  bool is_hidden;
};

void PrintTo(const Setting &setting, std::ostream *out) {
  *out << setting.lines;
}

class Share_With : public Shares, public testing::WithParamInterface<Setting> {};
INSTANTIATE_TEST_SUITE_P(
    Section, Share_With,
    testing::Values(
        Setting{"", false}, Setting{"browsable = No\n", true}, Setting{"browsable = no\n", true},
        Setting{"browsable = NO\n", true}, Setting{"browsable=nO  \n", true}, Setting{"browsable = yes\n", false},
        Setting{"browsable = none\n", false}, Setting{"browsable = n\n", false}, Setting{"browsable =\n", false},
        Setting{"browseable = NO\n", true}, Setting{"browseable = no\n", true}, Setting{"browseable = yes\n", false},
        Setting{"browseable =\n", false}, Setting{"browsable = yes\nbrowseable = no\n", false},
        Setting{"browsable =\nbrowseable = no\n", false}, Setting{"browseable = yes\nbrowsable = no\n", true},
        Setting{"Browsable = no\n", false}, Setting{"; browsable = no\n", false},
        Setting{"browsable = 0123456789012345678901234567890\n", false},
        Setting{"browsable = 01234567890123456789012345678901\n", true},
        Setting{"browseable = 01234567890123456789012345678901\n", true},
        Setting{"browsable = 01234567890123456789012345678901\nbrowseable = yes\n", true}));

TEST_P(Share_With, Is_hidden_by_No_and_by_a_value_that_cannot_be_read) {
  add_share("Public");
  write_file(samba_file, std::string("[global]\nbrowsable = no\n[Public]\n") + GetParam().lines +
                             "[Other]\nbrowsable = no\nbrowseable = no\n");
  EXPECT_THAT(scan(), ElementsAre(is_share("Public", GetParam().is_hidden ? hidden : 0)));
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Share_List, Hides_a_share_without_a_section) {
  add_share("Public");
  write_file(samba_file, "browsable = yes\n[public]\nbrowsable = yes\n[Public2]\nbrowsable = yes\n");
  EXPECT_THAT(scan(), ElementsAre(is_share("Public", hidden)));
}

TEST_F(Share_List, Hides_every_share_without_the_settings_file) {
  add_share("Public");
  fs::remove(samba_file);
  EXPECT_THAT(scan(), ElementsAre(is_share("Public", hidden)));
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Get_Conf_File_String_Value",
                                                   "Can't cache file \"/etc/config/smb.conf\" error! (-2)")));
}

TEST_F(Share_List, Does_not_hide_a_share_for_the_settings_of_another) {
  const std::vector<std::string> all = {"a", "b", "c", "d", "e", "f"};
  for (const std::string &name : all) add_share(name);
  write_file(samba_file,
             "[a]\nbrowsable = No\n[b]\n[c]\nbrowseable = no\n[d]\nx = y\n"
             "[e]\nbrowsable = 01234567890123456789012345678901\n[f]\n");
  EXPECT_THAT(scan(), ElementsAre(is_share("a", hidden), is_share("b", 0), is_share("c", hidden), is_share("d", 0),
                                  is_share("e", hidden), is_share("f", 0)));
}

TEST_F(Share_List, Reads_a_settings_file_of_10_mebibytes) {
  add_share("Public");
  std::string text;
  while (text.size() < (10u << 20))
    text += "[s" + std::to_string(text.size()) + "]\n" + std::string(1000, 'k') + " = v\n";
  write_file(samba_file, text + "[Public]\nbrowsable = no\n");
  EXPECT_THAT(scan(), ElementsAre(is_share("Public", hidden)));
}

// ----------------------------------------------------------------------------------------------- places and file
// systems

TEST_F(Share_List, Marks_a_share_that_is_the_mount_point_of_an_external_disk) {
  const Mounted disk("tmpfs", "/share/external/sdc1", "tmpfs");
  add_folder("external/sdc1/folder");
  add_folder("external/sdd1");
  add_folder("externals/sde1");
  const Mounted near("tmpfs", "/share/externals/sde1", "tmpfs");
  add_link("disk", "external/sdc1");
  add_link("below", "external/sdc1/folder");
  add_link("unplugged", "external/sdd1");
  add_link("all", "external");
  add_link("near", "externals/sde1");
  show({"disk", "below", "unplugged", "all", "near"});
  EXPECT_THAT(scan(), ElementsAre(is_share("all", 0), is_share("below", 0), is_share("disk", external),
                                  is_share("near", 0), is_share("unplugged", 0)));
  // Nothing is said of what lies below the folder of external disks.
  EXPECT_THAT(log_.lines(), testing::UnorderedElementsAre(not_generated("all", "/share/external"),
                                                          not_generated("near", "/share/externals/sde1")));
}

TEST_F(Share_List, Marks_no_external_disk_without_a_mount_table) {
  const Mounted disk("tmpfs", "/share/external/sdc1", "tmpfs");
  add_link("disk", "external/sdc1");
  show({"disk"});
  remove_mount_table();
  EXPECT_THAT(scan(), ElementsAre(is_share("disk", 0)));
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Share_List, Says_so_when_a_folder_is_none_of_the_appliances_volumes) {
  add_share("Public", "CACHEDEV1_DATA");
  add_share("Own", "mine");
  add_share("Data", "x_data");
  add_folder("Z_DATA");
  add_link("Volume", "Z_DATA");
  show({"Public", "Own", "Data", "Volume"});
  EXPECT_THAT(scan(),
              ElementsAre(is_share("Data", 0), is_share("Own", 0), is_share("Public", 0), is_share("Volume", 0)));
  EXPECT_THAT(log_.lines(), testing::UnorderedElementsAre(not_generated("Data", "/share/x_data/Data"),
                                                          not_generated("Own", "/share/mine/Own"),
                                                          not_generated("Volume", "/share/Z_DATA")));
}

class Share_On_An_Optical_Disc : public Shares, public testing::WithParamInterface<unsigned int> {};
INSTANTIATE_TEST_SUITE_P(, Share_On_An_Optical_Disc, testing::Values(udf, iso9660),
                         [](const auto &test) { return test.param == udf ? "udf" : "iso9660"; });

Statfs_Answers::Answer with_type(const std::string &below, unsigned int type) {
  return [=](const char *path, struct statfs *status) {
    const int result = real_statfs(path, status);
    if (std::string(path).starts_with(below)) status->f_type = type;
    return result;
  };
}

TEST_P(Share_On_An_Optical_Disc, Has_no_write_bits_and_flags_of_its_own) {
  const Mounted disc("tmpfs", "/share/external/sr0", "tmpfs");
  add_link("disc", "external/sr0");
  add_folder("external/sr0/folder");
  add_link("folder", "external/sr0/folder");
  add_link("secret", "external/sr0/folder");
  add_share("Public");
  for (const char *path : {"/share/external/sr0", "/share/external/sr0/folder"}) ASSERT_EQ(chmod(path, 07777), 0);
  show({"disc", "folder", "Public"});
  const Statfs_Answers answers(with_type("/share/external/sr0", GetParam()));
  const std::vector<Share> found = scan();
  EXPECT_THAT(found, ElementsAre(is_share("Public", 0), is_share("disc", external | optical),
                                 is_share("folder", optical), is_share("secret", optical | hidden)));
  ASSERT_THAT(found, SizeIs(4));
  EXPECT_EQ(found[1].mode, S_IFDIR | 07555u);
  EXPECT_EQ(found[2].mode, S_IFDIR | 07555u);
  EXPECT_EQ(found[1].fs_type, static_cast<int>(GetParam()));
}

// Types that differ in one bit, or above the 32 bits that count.
TEST_F(Share_List, Takes_no_other_file_system_for_an_optical_disc) {
  add_share("Public");
  ASSERT_EQ(chmod("/share/A_DATA/Public", 0777), 0);
  show({"Public"});
  for (const unsigned int type : {0x9661u, 0x19660u, 0x15013347u, 0x3346u, 0u, 0xFFFFFFFFu}) {
    const Statfs_Answers answers(with_type("/share/A_DATA", type));
    EXPECT_THAT(scan(), ElementsAre(is_share("Public", 0))) << std::hex << type;
    EXPECT_EQ(shares().at(0).mode, S_IFDIR | 0777u);
  }
}

// A CD's image, mounted by the kernel where it can, else by a program in its place. A program's file system has a type
// number of its own, so that one is put in.
class Cd_Image {
 public:
  explicit Cd_Image(const std::string &target) : target_(target), image_(make_image(folder_, "iso9660", "CD")) {
    fs::create_directories(target);
    try {
      loop_.emplace(image_);
      mounted_.emplace(loop_->path(), target, "iso9660", MS_RDONLY);
    } catch (const std::system_error &) {
      if (access("/dev/fuse", R_OK | W_OK) != 0) return;
      program_.emplace(std::initializer_list<std::string>{"fuseiso", "-n", image_, target, "-f"});
      for (int i = 0; i < 500 && !exists(target + "/file"); ++i) usleep(20'000);
      if (exists(target + "/file")) answers_.emplace(with_type(target, iso9660));
    }
  }
  ~Cd_Image() {
    if (answers_) umount2(target_.c_str(), MNT_DETACH);
  }
  bool is_there() const { return mounted_ || answers_; }
  bool is_a_programs() const { return answers_.has_value(); }
  void end_program() { program_.reset(); }

 private:
  const Temporary_Folder folder_;
  const std::string target_, image_;
  std::optional<Loop_Device> loop_;
  std::optional<Mounted> mounted_;
  std::optional<Program> program_;
  std::optional<Statfs_Answers> answers_;
};

TEST_F(Share_List, Shows_a_cd_image_as_an_external_disk_that_is_read_only) {
  const Cd_Image cd("/share/external/cd");
  if (!cd.is_there()) GTEST_SKIP() << "neither the kernel nor FUSE mounts a CD's image here";
  add_link("CD", "external/cd");
  show({"CD"});
  EXPECT_THAT(scan(), ElementsAre(is_share("CD", external | optical)));
  EXPECT_EQ(shares().at(0).mode & 0222u, 0u);
  EXPECT_EQ(shares().at(0).block_size, 2048);
}

TEST_F(Share_List, Passes_over_a_share_whose_file_system_has_gone) {
  add_share("Public");
  std::optional<Mounted> disk(std::in_place, "tmpfs", "/share/external/sdc1", "tmpfs");
  add_folder("external/sdc1/folder");
  add_link("on the disk", "external/sdc1/folder");
  EXPECT_THAT(names(), ElementsAre("Public", "on the disk"));
  disk.reset();
  EXPECT_THAT(names(), ElementsAre("Public"));
}

TEST_F(Share_List, Passes_over_a_share_whose_file_systems_program_has_died) {
  Cd_Image cd("/share/external/cd");
  if (!cd.is_a_programs()) GTEST_SKIP() << "FUSE mounts no CD's image here";
  add_share("Public");
  add_link("CD", "external/cd");
  EXPECT_THAT(names(), ElementsAre("CD", "Public"));
  cd.end_program();
  EXPECT_THAT(names(), ElementsAre("Public"));
}

// -------------------------------------------------------------------------------------------------------------- memory

TEST_F(Share_List, Is_given_back_when_memory_ends) {
  const std::vector<std::string> all = {"long share name", "b", "a"};
  for (const std::string &name : all) add_share(name);
  show(all);
  scan();  // the mount table's reader takes memory once, for good
  Release_Share_List(&list_);
  log_.clear();
  std::vector<Log_Line> lines;
  for (int nth = 1;; ++nth) {
    int status = 0, count = -7;
    {
      const Allocation_Failure failure(nth);
      status = Scan_Share_List(&list_, &count);
    }
    if (!allocation_failed()) break;
    EXPECT_THAT(status, testing::AnyOf(0, -ENOMEM));
    EXPECT_EQ(count, status == 0 ? 3 : 0);
    if (status == -ENOMEM) {
      EXPECT_EQ(list_, nullptr);
    }
    Release_Share_List(&list_);
  }
  const auto line = [](size_t name_size) {
    return error_line(scan_name, "ERROR: Failed to allocate memory of " + std::to_string(48 + name_size) + " bytes.");
  };
  EXPECT_THAT(log_.lines(), Contains(line(sizeof "long share name")).Times(1));
  EXPECT_THAT(log_.lines(), Contains(line(sizeof "a")).Times(2));
  EXPECT_THAT(log_.lines(), Contains(error_line(scan_name, "Failed to opendir(/share/)! (-12)")).Times(1));
}

TEST_F(Share_List, Is_released_whole_and_its_holder_emptied) {
  add_share("a");
  add_share("b");
  scan();
  ASSERT_NE(list_, nullptr);
  Release_Share_List(&list_);
  EXPECT_EQ(list_, nullptr);
  Release_Share_List(&list_);
  Release_Share_List(nullptr);
}

// ----------------------------------------------------------------------------------------------------------- the way
// back

class Mount_Shortcut : public Shares {
 protected:
  // What is written stays within the 44 bytes.
  static std::string shortcut_of(const std::string &mount_point) {
    char text[44 + 8];
    memset(text, 'x', sizeof text);
    const int status = Query_Mount_Shortcut(mount_point.c_str(), text);
    EXPECT_EQ(std::string(text + 44, 8), "xxxxxxxx");
    if (status != 0) {
      EXPECT_EQ(status, -ENOENT);
      return "none";
    }
    EXPECT_LT(strnlen(text, sizeof text), 44u);
    return text;
  }
};

TEST_F(Mount_Shortcut, Needs_both_arguments) {
  char text[44] = "x";
  EXPECT_EQ(Query_Mount_Shortcut(nullptr, text), -EINVAL);
  EXPECT_EQ(Query_Mount_Shortcut("/share/x", nullptr), -EINVAL);
  EXPECT_STREQ(text, "x");
}

TEST_F(Mount_Shortcut, Is_the_link_that_points_to_the_very_place) {
  add_link("USB", "external/sdc1");
  add_link("Other", "external/sdc10");
  add_link("Public", "A_DATA/Public");
  EXPECT_EQ(shortcut_of("/share/external/sdc1"), "/share/USB");
  EXPECT_EQ(shortcut_of("/share/external/sdc10"), "/share/Other");
  EXPECT_EQ(shortcut_of("/share/A_DATA/Public"), "/share/Public");
}

TEST_F(Mount_Shortcut, Is_none_for_a_link_that_is_spelt_otherwise) {
  add_link("absolute", "/share/external/sdc1");
  add_link("slash", "external/sdc1/");
  add_link("longer", "external/sdc1x");
  add_link("shorter", "external/sdc");
  add_link("other", "External/sdc1");
  add_folder("external/sdc1");
  write_file("/share/file", "external/sdc1");
  EXPECT_EQ(shortcut_of("/share/external/sdc1"), "none");
}

TEST_F(Mount_Shortcut, Is_none_outside_the_folder_of_shares) {
  add_link("relative", "x");
  add_link("absolute", "/x");
  for (const char *path : {"", "/", "/share", "/shares/x", "share/x", "/mnt/x", "/SHARE/x"}) {
    EXPECT_EQ(shortcut_of(path), "none") << path;
  }
  EXPECT_EQ(shortcut_of("/share/"), "none");
}

// Callers depend on it: what stands behind "/share/" is compared as it is.
TEST_F(Mount_Shortcut, Compares_all_that_follows_the_first_slash) {
  add_link("slash", "/x");
  EXPECT_EQ(shortcut_of("/share//x"), "/share/slash");
}

TEST_F(Mount_Shortcut, Knows_targets_of_up_to_44_characters) {
  for (const size_t length : {42, 43, 44, 45, 60}) {
    const std::string target(length, 't');
    add_link("to " + std::to_string(length), target);
    EXPECT_EQ(shortcut_of("/share/" + target), length <= 44 ? "/share/to " + std::to_string(length) : "none");
    ASSERT_EQ(unlink(("/share/to " + std::to_string(length)).c_str()), 0);
  }
}

TEST_F(Mount_Shortcut, Holds_43_characters_of_a_link) {
  const std::string name(255, 'n');
  add_link(name, "external/sdc1");
  EXPECT_EQ(shortcut_of("/share/external/sdc1"), ("/share/" + name).substr(0, 43));
  EXPECT_EQ(shortcut_of("/share/" + std::string(100'000, 'x')), "none");
}

TEST_F(Mount_Shortcut, Is_none_without_the_folder) {
  folder_.reset();
  fs::rename("/share", "/share.away");
  EXPECT_EQ(shortcut_of("/share/x"), "none");
  write_file("/share", "");
  EXPECT_EQ(shortcut_of("/share/x"), "none");
  fs::remove("/share");
  fs::rename("/share.away", "/share");
  EXPECT_EQ(log_.text(), "");
}

}  // namespace
