// A tree of many files, as the shared folders of an appliance are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/support/command.h"
#include "tests/support/files.h"

namespace {

using namespace tarn::test;

constexpr int folders = 200, files_each = 500;

// Every file has its own number in it.
void make_great_tree(const std::string &root) {
  ASSERT_EQ(mkdir(root.c_str(), 0755), 0);
  for (int folder = 0; folder < folders; ++folder) {
    const std::string path = root + "/" + std::to_string(folder);
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    const tarn::Descriptor fd(open(path.c_str(), O_RDONLY | O_DIRECTORY));
    for (int file = 0; file < files_each; ++file) {
      const std::string name = std::to_string(folder * files_each + file);
      const tarn::Descriptor made(openat(fd.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
      ASSERT_EQ(write(made.get(), name.data(), name.size()), static_cast<ssize_t>(name.size()));
    }
  }
}

TEST(Great_Tree, Of_100000_files_is_measured_copied_and_removed_to_the_last_one) {
  const Temporary_Folder folder;
  const std::string source = folder / "source", copy = folder / "copy";
  make_great_tree(source);

  Tree_Stat sums = {};
  ASSERT_EQ(State_Folder_Tree(source.c_str(), &sums, nullptr), 0);
  EXPECT_EQ(sums.file_count, folders * files_each);
  EXPECT_EQ(sums.folder_count, folders + 1);
  EXPECT_EQ(std::to_string(sums.total_blocks) + "\t" + source + "\n", run_command("du -s -B512 " + source).output);

  ASSERT_EQ(Copy_Folder_Tree(source.c_str(), copy.c_str(), nullptr), 0);
  EXPECT_EQ(run_command("diff -r " + source + " " + copy), (Command_Result{0, ""}));
  Tree_Stat copied = {};
  ASSERT_EQ(State_Folder_Tree(copy.c_str(), &copied, nullptr), 0);
  EXPECT_EQ(copied.file_count, sums.file_count);
  EXPECT_EQ(copied.total_size, sums.total_size);

  const int open_before = open_descriptors();
  EXPECT_EQ(Remove_Folder_Tree(copy.c_str(), nullptr), 0);
  EXPECT_FALSE(exists(copy));
  EXPECT_EQ(open_descriptors(), open_before);
}

}  // namespace
