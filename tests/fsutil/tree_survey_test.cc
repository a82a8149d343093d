#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/fsutil/trees.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/command.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

bool operator==(const Tree_Stat &a, const Tree_Stat &b) {
  return a.file_count == b.file_count && a.folder_count == b.folder_count && a.total_size == b.total_size &&
         a.total_blocks == b.total_blocks;
}

void PrintTo(const Tree_Stat &statistics, std::ostream *out) {
  *out << statistics.file_count << " files, " << statistics.folder_count << " folders, " << statistics.total_size
       << " bytes, " << statistics.total_blocks << " blocks";
}

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

static_assert(offsetof(Tree_Stat, file_count) == 0 && offsetof(Tree_Stat, folder_count) == 4 &&
              offsetof(Tree_Stat, total_size) == 8 && offsetof(Tree_Stat, total_blocks) == 16);

// In a folder of the test's own on the disk, where folders have blocks too; it is the working directory.
class Tree_Survey : public Descriptor_Count {
 protected:
  Tree_Survey() { EXPECT_EQ(chdir(folder_.path().c_str()), 0); }
  ~Tree_Survey() override { EXPECT_EQ(chdir("/"), 0); }

  int survey(const char *path) { return State_Folder_Tree(path, &found_, &abort_); }
  static Log_Line debug(const std::string &text) { return debug_line("State_Folder_Tree_At", text); }
  static int64_t blocks_of(const std::string &path) {
    struct stat status;
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_blocks;
  }
  static int64_t number_from(const std::string &command) { return std::stoll(run_command(command).output); }

  const Temporary_Folder folder_;
  const Log_Capture log_;
  Tree_Stat found_ = {};
  unsigned int abort_ = 0;
};

TEST_F(Tree_Survey, Of_an_empty_folder_is_one_folder_and_its_blocks) {
  ASSERT_EQ(mkdir("tree", 0700), 0);
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_, (Tree_Stat{0, 1, 0, blocks_of("tree")}));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Survey, Counts_files_links_and_folders_with_sizes_and_blocks) {
  run("mkdir -p tree/a && printf 12345 > tree/five && printf 123 > tree/a/three && ln -s 1234567 tree/seven && "
      "mkfifo tree/pipe && truncate -s 1000000 tree/a/hole && ln tree/five tree/again");
  int64_t blocks = 0;
  for (const char *name : {"", "/a", "/five", "/a/three", "/seven", "/a/hole", "/again"}) {
    blocks += blocks_of(std::string("tree") + name);
  }
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_, (Tree_Stat{5, 2, 5 + 3 + 7 + 1'000'000 + 5, blocks}));
}

TEST_F(Tree_Survey, Agrees_with_other_programs_about_a_tree_of_all_kinds) {
  make_odd_tree("tree");
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_.folder_count, number_from("find tree -type d -printf x | wc -c"));
  EXPECT_EQ(found_.file_count, number_from("find tree \\( -type f -o -type l \\) -printf x | wc -c"));
  EXPECT_EQ(found_.total_size,
            number_from("find tree \\( -type f -o -type l \\) -printf '%s\\n' | awk '{s += $1} END {print s}'"));
  // Pipes and sockets have no blocks; a second name of a file is counted again.
  EXPECT_EQ(found_.total_blocks, number_from("du -s -l -B512 tree"));
}

TEST_F(Tree_Survey, Adds_to_what_is_there) {
  run("mkdir tree && printf 12345 > tree/five");
  found_ = {100, 200, int64_t{1} << 40, int64_t{1} << 50};
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_, (Tree_Stat{101, 201, (int64_t{1} << 40) + 5,
                               (int64_t{1} << 50) + blocks_of("tree") + blocks_of("tree/five")}));
}

TEST_F(Tree_Survey, Reaches_beyond_32_bits) {
  run("mkdir tree && truncate -s 5G tree/1 tree/2");
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_.total_size, int64_t{10} << 30);
}

TEST_F(Tree_Survey, Follows_a_link_to_the_root_and_no_other) {
  run("mkdir -p tree outside && printf 123456789 > outside/file && ln -s ../outside tree/link && ln -s . tree/circle "
      "&& "
      "ln -s tree root");
  for (const char *path : {"root", "tree", "tree/", "tree//"}) {
    found_ = {};
    EXPECT_EQ(survey(path), 0);
    EXPECT_EQ(found_.file_count, 2) << path;
    EXPECT_EQ(found_.folder_count, 1);
    EXPECT_EQ(found_.total_size, 10 + 1);
  }
}

TEST_F(Tree_Survey, Works_from_an_open_folder) {
  run("mkdir -p other/tree tree && printf 12345 > other/tree/five");
  const Descriptor other(open("other", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(State_Folder_Tree_At(other.get(), "tree", &found_, nullptr), 0);
  EXPECT_EQ(found_.total_size, 5);
  EXPECT_EQ(State_Folder_Tree_At(9999, (folder_ / "other/tree").c_str(), &found_, nullptr), 0) << "absolute";
  EXPECT_EQ(found_.total_size, 10);
}

class Tree_Survey_Of_Depth : public Tree_Survey, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Levels, Tree_Survey_Of_Depth, testing::Values(60, 64, 65, 66, 3000));

TEST_P(Tree_Survey_Of_Depth, Goes_all_the_way_down_and_back) {
  make_chain("tree", GetParam());
  run("mkdir tree/e && printf 12 > tree/e/two");
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_.folder_count, GetParam() + 2);
  EXPECT_EQ(found_.file_count, 2);
  EXPECT_EQ(found_.total_size, 4 + 2);
  EXPECT_THAT(log_.lines(), IsEmpty());
  run("rm -rf tree");
}

// ------------------------------------------------------------------------------------------------------------ refusals

TEST_F(Tree_Survey, Refuses_missing_arguments) {
  EXPECT_EQ(survey(nullptr), -EINVAL);
  EXPECT_EQ(State_Folder_Tree(".", nullptr, &abort_), -EINVAL);
  for (const int fd : {-1, -2, -99, -101, INT_MIN}) {
    EXPECT_EQ(State_Folder_Tree_At(fd, ".", &found_, &abort_), -EINVAL);
  }
  EXPECT_EQ(found_, Tree_Stat{});
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Survey, Refuses_a_root_that_is_no_folder) {
  run("touch file && ln -s file link && mkfifo pipe");
  for (const std::string name : {"file", "link", "pipe"}) {
    EXPECT_EQ(survey(name.c_str()), -ENOTDIR);
    EXPECT_EQ(log_.lines().back(), debug("The path " + name + " is not a folder error!, -20"));
  }
  EXPECT_EQ(survey("file/"), -ENOTDIR);
  EXPECT_EQ(survey("missing"), -ENOENT);
  EXPECT_EQ(log_.lines().back(), debug("Can't fstat folder missing error!, -2"));
  const Descriptor here(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(State_Folder_Tree_At(here.get(), "missing", &found_, nullptr), -ENOENT);
  EXPECT_EQ(log_.lines().back(), debug("Can't fstat folder " + folder_.path() + "/missing error!, -2"));
  EXPECT_EQ(found_, Tree_Stat{});
}

TEST_F(Tree_Survey, Tells_when_the_open_folders_own_path_is_not_to_be_had) {
  EXPECT_EQ(State_Folder_Tree_At(9999, "tree", &found_, &abort_), -EINVAL);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't get the base path by its FD 9999 error!, -22")));
}

// ------------------------------------------------------------------------------------------------------------ aborting

TEST_F(Tree_Survey, With_the_flag_set_counts_the_root_only) {
  run("mkdir -p tree/a && touch tree/1");
  abort_ = 5;
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_, (Tree_Stat{0, 1, 0, blocks_of("tree")}));
  const On_File_Call refused(File_Call::openat, fails_with(EACCES));
  EXPECT_EQ(survey("tree"), 0) << "whatever it could not have done";
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Survey, Aborted_on_the_way_succeeds_with_what_it_has) {
  run("mkdir -p tree/a && touch tree/1 tree/2 tree/3 tree/a/4");
  int seen = 0;
  const On_File_Call second(File_Call::fstatat, [&](const std::string &path) {
    if (path != "tree" && ++seen == 2) abort_ = 5;
    return 0;
  });
  EXPECT_EQ(survey("tree"), 0);
  EXPECT_EQ(found_.file_count + found_.folder_count, 3);
}

TEST_F(Tree_Survey, Aborted_by_another_thread_at_any_moment_succeeds) {
  run("mkdir tree && cd tree && for i in $(seq 20); do mkdir $i && touch $i/1 $i/2 $i/3; done");
  const auto survey_and_check = [this] {
    found_ = {};
    EXPECT_EQ(survey("tree"), 0);
    EXPECT_LE(found_.folder_count, 21);
    EXPECT_LE(found_.file_count, 60);
    return found_.file_count < 60;
  };
  abort_at_all_moments(
      &abort_, [] {}, survey_and_check);
}

// ------------------------------------------------------------------------------------------------------------ failures

TEST_F(Tree_Survey, Skips_what_it_cannot_look_at_and_answers_the_positive_error) {
  run("mkdir -p tree/a && printf 1 > tree/1 && printf 22 > tree/2 && printf 333 > tree/a/3");
  const On_File_Call broken(File_Call::fstatat, fails_on("1", EIO));
  EXPECT_EQ(survey("tree"), EIO);
  EXPECT_EQ(found_.file_count, 2);
  EXPECT_EQ(found_.total_size, 5);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't fstat file tree/1 error!, 5")));
}

TEST_F(Tree_Survey, Counts_a_folder_that_it_cannot_open_and_answers_the_positive_error) {
  run("mkdir -p tree/a/b tree/c && printf 1 > tree/a/1 && printf 22 > tree/c/2");
  const On_File_Call refused(File_Call::openat, fails_on("a", EACCES));
  EXPECT_EQ(survey("tree"), EACCES);
  EXPECT_EQ(found_.folder_count, 3);
  EXPECT_EQ(found_.total_size, 2);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree/a (13)")));
}

TEST_F(Tree_Survey, Counts_a_root_that_it_cannot_open_and_answers_the_positive_error) {
  run("mkdir -p tree/a");
  const On_File_Call refused(File_Call::openat, fails_with(EACCES));
  EXPECT_EQ(survey("tree"), EACCES);
  EXPECT_EQ(found_, (Tree_Stat{0, 1, 0, blocks_of("tree")}));
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree (13)")));
}

TEST_F(Tree_Survey, Tells_a_folder_that_cannot_be_read_to_its_end) {
  run("mkdir tree && touch tree/1");
  const On_File_Call broken(File_Call::getdents64, fails_with(EIO));
  EXPECT_EQ(survey("tree"), EIO);
  EXPECT_EQ(found_.folder_count, 1);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree (5)")));
}

TEST_F(Tree_Survey, By_a_user_without_rights_counts_what_he_may_see) {
  EXPECT_EQ(in_child([this] {
              run("mkdir -p tree/closed tree/open && printf 1 > tree/closed/1 && printf 22 > tree/open/2 && "
                  "chmod 700 tree/closed && chmod 755 .");
              become_nobody();
              EXPECT_EQ(survey("tree"), EACCES);
              EXPECT_EQ(found_.folder_count, 3);
              EXPECT_EQ(found_.total_size, 2);
            }),
            0);
}

TEST_F(Tree_Survey, Does_not_enter_a_link_that_takes_a_folders_place) {
  run("mkdir -p tree/a outside && printf 12345 > outside/file");
  const On_File_Call entering(File_Call::openat, once_on("a", [] {
                                EXPECT_EQ(rmdir("tree/a"), 0);
                                EXPECT_EQ(symlink("../outside", "tree/a"), 0);
                              }));
  EXPECT_EQ(survey("tree"), ENOTDIR);
  EXPECT_EQ(found_.total_size, 0);
}

TEST_F(Tree_Survey, Without_memory_says_so) {
  run("mkdir -p tree/a/b tree/c");
  const int allocations = with_each_allocation_failing(
      [this] {
        found_ = {};
        return survey("tree");
      },
      [](int status, int nth) { EXPECT_EQ(status, -ENOMEM) << nth; });
  EXPECT_GE(allocations, 5) << "a path, a buffer and three folders";
  EXPECT_EQ(found_.folder_count, 4);
}

}  // namespace
