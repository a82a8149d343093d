#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/support/files.h"
#include "tests/support/long_path.h"

namespace {

using namespace tarn::test;

// The negated errno of a -1; anything else as it is, so that a status of its own cannot pass for an errno.
int outcome(int result) {
  if (result == -1) return -errno;
  return result < 0 ? result - 100000 : result;
}

int really_unlink(const std::string &path) {
  errno = 0;
  return outcome(Druvo_Really_Unlink(path.c_str()));
}

class Removal : public testing::Test {
 protected:
  void SetUp() override {
    write_file(file_, "text");
    ASSERT_EQ(mkdir(directory_.c_str(), 0755), 0);
  }

  int unlinkat(const std::string &in, const std::string &name, int flags) {
    errno = 0;
    return outcome(Druvo_Unlinkat(-7, in.c_str(), name.c_str(), flags));
  }

  Temporary_Folder folder_;
  const std::string file_ = folder_ / "file";
  const std::string directory_ = folder_ / "directory";
};

TEST_F(Removal, Really_unlink_removes_a_file) {
  EXPECT_EQ(really_unlink(file_), 0);
  EXPECT_FALSE(exists(file_));
}

TEST_F(Removal, Really_unlink_removes_a_link_and_not_its_target) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(file_.c_str(), link.c_str()), 0);

  EXPECT_EQ(really_unlink(link), 0);

  EXPECT_FALSE(exists(link));
  EXPECT_TRUE(exists(file_));
}

TEST_F(Removal, Really_unlink_leaves_a_folder) {
  EXPECT_EQ(really_unlink(directory_), -EISDIR);
  EXPECT_TRUE(exists(directory_));
}

TEST_F(Removal, Really_unlink_tells_the_error_of_the_removal) {
  EXPECT_EQ(really_unlink(folder_ / "nothing"), -ENOENT);
  EXPECT_EQ(really_unlink(file_ + "/below"), -ENOTDIR);
  EXPECT_EQ(really_unlink(""), -ENOENT);
}

TEST_F(Removal, Really_unlink_without_a_path_fails_with_a_bad_address) {
  errno = 0;
  EXPECT_EQ(outcome(Druvo_Really_Unlink(nullptr)), -EFAULT);
}

TEST_F(Removal, Unlinkat_removes_a_name_in_a_folder) {
  EXPECT_EQ(unlinkat(folder_.path(), "file", 0), 0);
  EXPECT_FALSE(exists(file_));
}

TEST_F(Removal, Unlinkat_looks_from_the_working_directory_and_not_from_the_descriptor) {
  const std::string before = std::filesystem::current_path();
  const int elsewhere = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(chdir(folder_.path().c_str()), 0);

  EXPECT_EQ(Druvo_Unlinkat(elsewhere, ".", "file", 0), 0);

  EXPECT_FALSE(exists(file_));
  ASSERT_EQ(chdir(before.c_str()), 0);
  close(elsewhere);
}

TEST_F(Removal, Unlinkat_with_the_folder_flag_removes_a_folder) {
  EXPECT_EQ(unlinkat(folder_.path(), "directory", 0x200), 0);
  EXPECT_FALSE(exists(directory_));
}

TEST_F(Removal, Unlinkat_without_the_folder_flag_leaves_a_folder) {
  EXPECT_EQ(unlinkat(folder_.path(), "directory", 0), -EISDIR);
  EXPECT_TRUE(exists(directory_));
}

TEST_F(Removal, Unlinkat_with_the_folder_flag_leaves_files_and_folders_that_hold_something) {
  write_file(directory_ + "/inside", "");

  EXPECT_EQ(unlinkat(folder_.path(), "file", 0x200), -ENOTDIR);
  EXPECT_EQ(unlinkat(folder_.path(), "directory", 0x200), -ENOTEMPTY);

  EXPECT_TRUE(exists(file_));
  EXPECT_TRUE(exists(directory_ + "/inside"));
}

TEST_F(Removal, Unlinkat_with_an_empty_name_and_no_flags_removes_what_the_folder_argument_names) {
  EXPECT_EQ(unlinkat(file_, "", 0), 0);
  EXPECT_FALSE(exists(file_));
  EXPECT_EQ(unlinkat(directory_, "", 0), -EISDIR);
  EXPECT_TRUE(exists(directory_));
}

TEST_F(Removal, Unlinkat_with_an_empty_name_and_flags_keeps_the_slash) {
  EXPECT_EQ(unlinkat(file_, "", 0x200), -ENOTDIR);
  EXPECT_EQ(unlinkat(file_, "", 0x100), -ENOTDIR);
  EXPECT_TRUE(exists(file_));
  EXPECT_EQ(unlinkat(directory_, "", 0x200), 0);
  EXPECT_FALSE(exists(directory_));
}

TEST_F(Removal, Unlinkat_tells_the_error_of_a_missing_name) {
  EXPECT_EQ(unlinkat(folder_.path(), "nothing", 0), -ENOENT);
}

TEST_F(Removal, Unlinkat_refuses_missing_arguments_with_a_status) {
  EXPECT_EQ(Druvo_Unlinkat(AT_FDCWD, nullptr, "file", 0), -EINVAL);
  EXPECT_EQ(Druvo_Unlinkat(AT_FDCWD, folder_.path().c_str(), nullptr, 0), -EINVAL);
  EXPECT_TRUE(exists(file_));
}

TEST_F(Removal, Unlinkat_takes_a_path_of_4095_characters) {
  const std::filesystem::path longest = path_of_length(folder_.path(), 4095);
  std::filesystem::create_directories(longest.parent_path());
  write_file(longest, "");

  EXPECT_EQ(unlinkat(longest.parent_path(), longest.filename(), 0), 0);

  EXPECT_FALSE(exists(longest));
}

TEST_F(Removal, Unlinkat_never_removes_the_name_that_a_cut_path_would_be) {
  const std::filesystem::path longest = path_of_length(folder_.path(), 4095);
  std::filesystem::create_directories(longest.parent_path());
  write_file(longest, "");

  EXPECT_EQ(unlinkat(longest.parent_path(), longest.filename().string() + "x", 0), -ENAMETOOLONG);
  EXPECT_EQ(unlinkat(longest.string() + "x", "", 0), -ENAMETOOLONG);

  EXPECT_TRUE(exists(longest));
}

}  // namespace
