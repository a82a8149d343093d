#include "platform/clusterd/backup_folders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

using platform::kBackupFolder;
using platform::kTaskFolder;
using platform::make_backup_folders;
using testing::ElementsAre;

class Backup_Folders : public testing::Test {
 protected:
  Backup_Folders() {
    if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
    clean_up();
  }
  ~Backup_Folders() override { clean_up(); }

  static void clean_up() {
    // The tree itself may lie in /tmp.
    for (const auto &entry : std::filesystem::directory_iterator("/tmp")) {
      const std::string name = entry.path().filename();
      if (name.starts_with("druvosrv") || name == "elsewhere") std::filesystem::remove_all(entry.path());
    }
    std::filesystem::remove_all("/etc/config/tarn_cluster");
  }

  static void expect_safe() {
    struct stat status;
    ASSERT_EQ(lstat(kTaskFolder, &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(mode_of(kTaskFolder), 0755u);
  }
};

TEST_F(Backup_Folders, Are_Made_With_Safe_Permissions_Whatever_The_Mask) {
  const mode_t mask = umask(0);
  make_backup_folders();
  umask(mask);
  expect_safe();
  EXPECT_EQ(mode_of(kBackupFolder), 0700u);
}

TEST_F(Backup_Folders, That_Are_There_Keep_What_They_Hold) {
  make_backup_folders();
  write_file(std::string(kTaskFolder) + "/tarn_backup.conf", "[x]\n");
  write_file(std::string(kBackupFolder) + "/x.result", "0");
  make_backup_folders();
  EXPECT_EQ(read_file(std::string(kTaskFolder) + "/tarn_backup.conf"), "[x]\n");
  EXPECT_EQ(read_file(std::string(kBackupFolder) + "/x.result"), "0");
}

// In /tmp everybody may have been there first.
TEST_F(Backup_Folders, That_Somebody_Else_Has_Planted_Are_Put_Aside) {
  mkdir(kTaskFolder, 0777);
  ASSERT_EQ(chown(kTaskFolder, 65534, 65534), 0);
  write_file(std::string(kTaskFolder) + "/planted", "");
  make_backup_folders();
  expect_safe();
  EXPECT_TRUE(std::filesystem::is_empty(kTaskFolder));
}

TEST_F(Backup_Folders, That_Others_May_Write_To_Are_Put_Aside) {
  mkdir(kTaskFolder, 0700);
  chmod(kTaskFolder, 01777);
  make_backup_folders();
  expect_safe();
}

TEST_F(Backup_Folders, A_Planted_Link_Leads_Nowhere) {
  std::filesystem::create_directory("/tmp/elsewhere");
  std::filesystem::create_directory_symlink("/tmp/elsewhere", kTaskFolder);
  make_backup_folders();
  expect_safe();
  EXPECT_TRUE(std::filesystem::is_empty("/tmp/elsewhere"));
}

TEST_F(Backup_Folders, A_Planted_File_Is_Put_Aside) {
  write_file(kTaskFolder, "");
  make_backup_folders();
  expect_safe();
}

}  // namespace
}  // namespace tarn::test
