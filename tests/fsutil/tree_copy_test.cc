#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/fsutil/trees.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_disk.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

// In a folder of the test's own, which is the working directory; "tree" is copied to "copy".
class Tree_Copy : public Descriptor_Count {
 protected:
  Tree_Copy() {
    umask(022);
    EXPECT_EQ(chdir(folder_.path().c_str()), 0);
  }
  ~Tree_Copy() override { EXPECT_EQ(chdir("/"), 0); }

  int copy(const char *source = "tree", const char *destination = "copy") {
    return Copy_Folder_Tree(source, destination, &abort_);
  }
  static Log_Line error(const std::string &text) { return error_line("Copy_Folder_Tree_At", text); }
  static Log_Line debug(const std::string &text) { return debug_line("Copy_Folder_Tree_At", text); }

  const Temporary_Folder folder_;
  Log_Capture log_;
  unsigned int abort_ = 0;
};

bool is_filled_folder(const Tree &tree, const std::string &name) {
  const auto next = tree.upper_bound(name + "/");
  return !name.empty() && next != tree.end() && next->first.starts_with(name + "/");
}

// What differs from the copy of "cp -a".
Tree as_copied(Tree tree) {
  const Tree whole = tree;
  std::erase_if(tree, [](const auto &named) {
    const mode_t mode = named.second.mode;
    return !S_ISREG(mode) && !S_ISDIR(mode) && !S_ISLNK(mode);
  });
  for (auto &[name, entry] : tree) {
    if (S_ISREG(entry.mode)) entry.mode &= S_IFMT | 0777;
    if (is_filled_folder(whole, name)) entry.seconds = entry.nanoseconds = 0;
  }
  return tree;
}

// Filled subfolders bear the time at which the copy has filled them.
Tree without_times_of_the_copy(Tree tree, int64_t begun) {
  const Tree whole = tree;
  for (auto &[name, entry] : tree) {
    if (!is_filled_folder(whole, name)) continue;
    EXPECT_GE(entry.seconds, begun) << name;
    entry.seconds = entry.nanoseconds = 0;
  }
  return tree;
}

// --------------------------------------------------------------------------------------------------------- whole trees

TEST_F(Tree_Copy, Is_what_cp_makes_but_for_pipes_set_id_bits_and_the_times_of_filled_folders) {
  make_odd_tree("tree");
  run("cp -a tree reference");
  const int64_t begun = time(nullptr) - 1;
  EXPECT_EQ(copy(), 0);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(without_times_of_the_copy(tree_of("copy"), begun), as_copied(tree_of("reference")));
  EXPECT_EQ(tree_of("tree"), tree_of("reference")) << "the source is untouched";
  EXPECT_NE(inode_of("copy/plain"), inode_of("copy/second name")) << "two names of a file become two files";
}

TEST_F(Tree_Copy, Has_its_roots_modification_time) {
  run("mkdir -p tree/a/b && touch tree/a/1 && touch -d '2001-02-03 04:05:06.789' tree/a/b && "
      "touch -d '2002-03-04 05:06:07.890' tree/a && touch -d '2003-04-05 06:07:08.901' tree");
  EXPECT_EQ(copy(), 0);
  const Tree made = tree_of("copy"), source = tree_of("tree");
  EXPECT_EQ(made.at(""), source.at(""));
  EXPECT_EQ(made.at("a/b"), source.at("a/b")) << "an empty folder's time is set when it is made";
  EXPECT_GT(made.at("a").seconds, source.at("a").seconds) << "a filled one's is that of its filling";
}

TEST_F(Tree_Copy, Of_an_empty_folder_is_one) {
  ASSERT_EQ(mkdir("tree", 0750), 0);
  set_times("tree", 1'234'567'890, 5);
  EXPECT_EQ(copy("tree/", "copy/"), 0);
  EXPECT_EQ(tree_of("copy"), tree_of("tree"));
  EXPECT_EQ(Copy_Folder_Tree("tree", "other", nullptr), 0);
}

TEST_F(Tree_Copy, Of_some_thousand_files_has_them_all) {
  run("mkdir tree && cd tree && for i in $(seq 50); do mkdir $i && cd $i && for j in $(seq 60); do echo $i $j > $j; "
      "done; cd ..; done");
  EXPECT_EQ(copy(), 0);
  run("diff -r tree copy");
}

class Tree_Copy_Of_Depth : public Tree_Copy, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Levels, Tree_Copy_Of_Depth, testing::Values(1, 60, 63, 64, 65, 66, 3000));

TEST_P(Tree_Copy_Of_Depth, Goes_all_the_way_down_and_back_with_few_descriptors) {
  make_chain("tree", GetParam());
  // Above and below: what is copied on the way back lands in its place.
  run("mkdir tree/a tree/z tree/d/a tree/d/z && touch tree/a/1 tree/z/2 tree/d/a/3 tree/d/z/4");
  int most = 0;
  {
    const On_File_Call counting(File_Call::mkdirat, [&, turn = 0](const std::string &) mutable {
      if (++turn % 50 == 0) most = std::max(most, open_descriptors());
      return 0;
    });
    EXPECT_EQ(copy(), 0);
  }
  EXPECT_EQ(depth_of_chain("copy"), GetParam());
  for (const char *name : {"copy/a/1", "copy/z/2", "copy/d/a/3", "copy/d/z/4"}) EXPECT_TRUE(exists(name)) << name;
  EXPECT_LT(most, 200);
  EXPECT_THAT(log_.lines(), IsEmpty());
  run("rm -rf tree copy");
}

TEST_F(Tree_Copy, Works_between_open_folders) {
  run("mkdir -p from/tree/a to tree && echo text > from/tree/a/1");
  const Descriptor from(open("from", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor to(open("to", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(Copy_Folder_Tree_At(from.get(), "tree", to.get(), "copy", nullptr), 0);
  run("diff -r from/tree to/copy");
  EXPECT_EQ(Copy_Folder_Tree_At(9999, (folder_ / "from/tree").c_str(), 9998, (folder_ / "copy").c_str(), nullptr), 0)
      << "absolute paths need no folder";
  run("diff -r from/tree copy");
  EXPECT_EQ(Copy_Folder_Tree_At(to.get(), "copy/", AT_FDCWD, "other/", nullptr), 0);
  run("diff -r from/tree other");
}

TEST_F(Tree_Copy, Follows_a_link_to_the_sources_root_and_no_other) {
  run("mkdir -p tree outside && echo text > tree/1 && ln -s ../outside tree/link && touch outside/2 && ln -s tree "
      "root");
  EXPECT_EQ(copy("root"), 0);
  EXPECT_TRUE(std::filesystem::is_symlink("copy/link"));
  EXPECT_EQ(read_file("copy/1"), "text\n");
}

TEST_F(Tree_Copy, Leaves_out_pipes_sockets_and_devices) {
  run("mkdir tree && mkfifo tree/pipe && mknod tree/null c 1 3 && touch tree/1");
  EXPECT_EQ(copy(), 0);
  EXPECT_THAT(names_in("copy"), ElementsAre("1"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// -------------------------------------------------------------------------------------------- a destination that is
// there

TEST_F(Tree_Copy, Onto_a_folder_gives_it_mode_and_owner_of_the_source) {
  run("mkdir tree copy && touch tree/1 copy/other && chmod 2751 tree && chown 1000:1001 tree && chmod 700 copy");
  set_times("tree", 1'234'567'890, 5);
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(tree_of("copy").at(""), tree_of("tree").at(""));
  EXPECT_THAT(names_in("copy"), ElementsAre("1", "other"));
}

TEST_F(Tree_Copy, Makes_its_root_without_the_umask) {
  run("mkdir tree && chmod 1777 tree");
  umask(0777);
  EXPECT_EQ(copy(), 0);
  umask(022);
  EXPECT_EQ(mode_of("copy"), 01777u);
}

TEST_F(Tree_Copy, Sets_only_what_differs) {
  run("mkdir tree copy && chmod 750 tree copy && chown 5:6 tree copy");
  const On_File_Call no_mode(File_Call::fchmodat, fails_with(EPERM));
  const On_File_Call no_owner(File_Call::fchownat, fails_with(EPERM));
  EXPECT_EQ(copy(), 0);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Copy, Overwrites_files_and_fails_at_a_folder_or_link_that_is_there) {
  run("mkdir tree && echo new > tree/1");
  EXPECT_EQ(copy(), 0);
  run("echo newer > tree/1");
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy/1"), "newer\n");
  run("mkdir tree/a copy/a");
  EXPECT_EQ(copy(), -EEXIST);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_Folder_At", "Can't mkdirat the folder (-100, copy/a, 755) error! (-17)"),
                          debug("Can't create folder (-100, copy/a) error! (-17)")));
  run("rmdir tree/a && ln -s x tree/link && ln -s y copy/link");
  EXPECT_EQ(copy(), -EEXIST);
  EXPECT_EQ(log_.lines().back(), debug("Can't create symlink (-100, copy/link) error! (-17)"));
  EXPECT_EQ(std::filesystem::read_symlink("copy/link"), "y");
}

TEST_F(Tree_Copy, Onto_a_file_or_a_link_is_refused) {
  run("mkdir tree other && touch tree/1 && echo old > copy && ln -s other link && ln -s tree self && ln -s no "
      "dangling");
  for (const std::string name : {"copy", "link", "self", "dangling"}) {
    EXPECT_EQ(copy("tree", name.c_str()), -ENOTDIR) << name;
    EXPECT_EQ(log_.lines().back(), debug("The destination path (-100, " + name + ") is not a folder error!, -20"));
  }
  EXPECT_EQ(copy("tree", "copy/"), -ENOTDIR) << "with a slash too";
  EXPECT_EQ(log_.lines().back(), debug("The destination path (-100, copy) is not a folder error!, -20"));
  EXPECT_EQ(read_file("copy"), "old\n");
  EXPECT_THAT(names_in("other"), IsEmpty());
  EXPECT_THAT(names_in("tree"), ElementsAre("1"));
}

TEST_F(Tree_Copy, Does_not_write_through_a_link_at_a_files_place) {
  run("mkdir tree copy && echo new > tree/1 && echo precious > precious && ln -s ../precious copy/1");
  EXPECT_LT(copy(), 0);
  EXPECT_EQ(read_file("precious"), "precious\n");
}

// ------------------------------------------------------------------------------------------------- into itself

TEST_F(Tree_Copy, Into_itself_leaves_the_copy_out) {
  for (const std::string place : {"tree/copy", "tree/a/b/copy"}) {
    run("rm -rf tree && mkdir -p tree/a/b tree/c && echo 1 > tree/1 && echo 2 > tree/a/b/2");
    EXPECT_EQ(copy("tree", place.c_str()), 0);
    run("cp -a " + place + " made && rm -r " + place + " && diff -r tree made && rm -r made");
  }
  run("rm -rf tree && mkdir -p tree/copy/old && echo 1 > tree/1");
  EXPECT_EQ(copy("tree", "tree/copy"), 0) << "one that is there too";
  EXPECT_THAT(names_in("tree/copy"), ElementsAre("1", "old"));
}

TEST_F(Tree_Copy, Onto_itself_is_refused_and_keeps_every_file) {
  run("mkdir -p tree/a && echo precious > tree/1 && echo precious > tree/a/2 && ln tree/1 tree/second && ln -s tree "
      "link");
  Tree before = tree_of("tree");
  for (const auto &[source, destination] : {std::pair("tree", "tree"), std::pair("tree", "./tree/"),
                                            std::pair("link", "tree"), std::pair("tree/a", "tree/a/../a")}) {
    EXPECT_LT(copy(source, destination), 0);
    EXPECT_EQ(tree_of("tree"), before) << destination;
  }
  run("rm -r tree/a tree/second");
  log_.clear();
  EXPECT_EQ(copy("tree", "tree"), -EINVAL);
  EXPECT_EQ(read_file("tree/1"), "precious\n");
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_At", "Can't open the destination file tree/1 error! (-22)"),
                          debug("Can't copy file (tree/1 -> -100, tree/1) error! (-22)")));
}

TEST_F(Tree_Copy, Onto_hard_links_of_its_files_keeps_them) {
  run("mkdir tree && echo precious > tree/1 && cp -al tree copy");
  EXPECT_EQ(copy(), -EINVAL);
  EXPECT_EQ(read_file("tree/1"), "precious\n");
  EXPECT_EQ(read_file("copy/1"), "precious\n");
}

// ------------------------------------------------------------------------------------------------- refusals and
// messages

TEST_F(Tree_Copy, Refuses_missing_arguments) {
  run("mkdir tree && touch tree/1");
  EXPECT_EQ(copy(nullptr), -EINVAL);
  EXPECT_EQ(copy("tree", nullptr), -EINVAL);
  for (const int fd : {-1, -2, -99, -101, INT_MIN}) {
    EXPECT_EQ(Copy_Folder_Tree_At(fd, "tree", AT_FDCWD, "copy", nullptr), -EINVAL);
    EXPECT_EQ(Copy_Folder_Tree_At(AT_FDCWD, "tree", fd, "copy", nullptr), -EINVAL);
  }
  EXPECT_FALSE(exists("copy"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Copy, Refuses_a_source_that_is_no_folder) {
  run("touch file && ln -s file link && ln -s nowhere dangling");
  EXPECT_EQ(copy("file"), -ENOTDIR);
  EXPECT_EQ(copy("link"), -ENOTDIR);
  EXPECT_EQ(copy("missing"), -ENOENT);
  EXPECT_EQ(copy("dangling"), -ENOENT);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("The source path file is not a folder error!, -20"),
                                        debug("The source path link is not a folder error!, -20"),
                                        debug("Can't fstat folder missing error!, -2"),
                                        debug("Can't fstat folder dangling error!, -2")));
  EXPECT_EQ(copy("file/"), -ENOTDIR);
  EXPECT_FALSE(exists("copy"));
}

TEST_F(Tree_Copy, Tells_when_the_open_folders_own_path_is_not_to_be_had) {
  EXPECT_EQ(Copy_Folder_Tree_At(9999, "tree", AT_FDCWD, "copy", nullptr), -EINVAL);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't get the base path by its FD 9999 error!, -22")));
}

TEST_F(Tree_Copy, Tells_when_its_root_cannot_be_made_or_looked_at) {
  run("mkdir tree && chmod 1750 tree && touch file");
  EXPECT_EQ(copy("tree", "no/where"), -ENOENT);
  EXPECT_EQ(copy("tree", "file/copy"), -ENOTDIR);
  EXPECT_EQ(copy("tree", std::string(256, 'n').c_str()), -ENAMETOOLONG);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't mkdirat the dst folder (-100, no/where, 1750) error! (-2)")))
      << "only a missing destination is made";
}

TEST_F(Tree_Copy, Tells_when_its_root_cannot_get_mode_or_owner) {
  run("mkdir tree && touch tree/1 && chmod 1750 tree && chown 7:8 tree");
  const int decimal = 01750;
  {
    const On_File_Call refused(File_Call::fchmodat, fails_with(EPERM));
    EXPECT_EQ(copy(), -EPERM);
  }
  {
    const On_File_Call refused(File_Call::fchownat, fails_with(EROFS));
    EXPECT_EQ(copy(), -EROFS);
  }
  EXPECT_THAT(names_in("copy"), IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't fchmodat the dest folder (-100, copy, " + std::to_string(decimal) +
                                              ") error! (-1)"),
                                        error("Can't fchownat the dest folder (-100, copy, 7, 8) error! (-30)")));
}

TEST_F(Tree_Copy, A_new_root_counts_as_without_mode_and_owner) {
  run("mkdir tree && chmod 0 tree");
  const On_File_Call no_mode(File_Call::fchmodat, fails_with(EPERM));
  const On_File_Call no_owner(File_Call::fchownat, fails_with(EPERM));
  EXPECT_EQ(copy(), 0) << "mode 0 and owner 0:0 need no setting";
  run("rmdir copy && chmod 700 tree");
  EXPECT_EQ(copy(), -EPERM);
}

TEST_F(Tree_Copy, Answers_that_its_root_cannot_get_its_time) {
  run("mkdir tree && touch tree/1");
  const On_File_Call refused(File_Call::utimensat, fails_on("copy", EPERM));
  EXPECT_EQ(copy(), -EPERM);
  EXPECT_TRUE(exists("copy/1"));
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't chtime the folder (-100, copy) error! (-1)")));
}

// Odd, but required: behind each subfolder its time goes to the root, which gets its own at the end.
TEST_F(Tree_Copy, Sets_the_roots_time_behind_each_subfolder_and_at_the_end) {
  run("mkdir -p tree/a/b tree/c");
  int times = 0;
  const On_File_Call refused(File_Call::utimensat, [&](const std::string &path) {
    if (path != "copy") return 0;
    return ++times == 2 ? EPERM : 0;
  });
  EXPECT_EQ(copy(), 0) << "only the last one counts";
  EXPECT_EQ(times, 4);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't chtime the folder (-100, copy) error! (-1)")));
}

// ---------------------------------------------------------------------------------------------------- failures on the
// way

TEST_F(Tree_Copy, Ends_at_a_file_that_cannot_be_copied) {
  run("mkdir -p tree/a && echo 1 > tree/a/1");
  {
    const On_File_Call broken(File_Call::read, fails_with(EIO));
    EXPECT_EQ(copy(), -EIO);
  }
  EXPECT_THAT(names_in("copy/a"), IsEmpty()) << "no part of a file";
  const auto lines = log_.lines();
  EXPECT_THAT(lines, ElementsAre(error_line("Copy_File_Data", "Can't read 2 byte from the source file error! (-5, -1)"),
                                 debug("Can't copy file (tree/a/1 -> -100, copy/a/1) error! (-5)")));
}

TEST_F(Tree_Copy, Shows_paths_as_they_were_given_and_those_of_open_folders_in_full) {
  run("mkdir -p from/tree to && echo 1 > from/tree/1");
  const Descriptor from(open("from", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor to(open("to", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  {
    const On_File_Call broken(File_Call::fchown, fails_with(EPERM));
    EXPECT_EQ(Copy_Folder_Tree_At(from.get(), "tree", to.get(), "copy/", nullptr), -EPERM);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't copy file (" + folder_.path() + "/from/tree/1 -> " +
                                              std::to_string(to.get()) + ", copy/1) error! (-1)")));
}

TEST_F(Tree_Copy, Ends_at_an_entry_that_has_vanished) {
  run("mkdir tree && echo 1 > tree/1");
  {
    const On_File_Call vanishing(File_Call::fstatat, once_on("1", [] { EXPECT_EQ(unlink("tree/1"), 0); }));
    EXPECT_EQ(copy(), -ENOENT);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't fstat file tree/1 error! (-2)")));
}

TEST_F(Tree_Copy, Ends_at_a_file_that_vanishes_before_it_is_opened) {
  run("mkdir tree && echo 1 > tree/1");
  {
    const On_File_Call vanishing(File_Call::openat, once_on("1", [] { EXPECT_EQ(unlink("tree/1"), 0); }));
    EXPECT_EQ(copy(), -ENOENT);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Copy_File_At", "Can't open the source file tree/1 error! (-2, 2)"),
                                        debug("Can't copy file (tree/1 -> -100, copy/1) error! (-2)")));
}

TEST_F(Tree_Copy, Ends_at_a_link_or_a_folder_that_cannot_be_made) {
  run("mkdir tree && ln -s x tree/link");
  {
    const On_File_Call refused(File_Call::symlinkat, fails_with(ENOSPC));
    EXPECT_EQ(copy(), -ENOSPC);
  }
  run("rm tree/link && mkdir tree/a");
  {
    const On_File_Call refused(File_Call::mkdirat, fails_on("a", ENOSPC));
    EXPECT_EQ(copy(), -ENOSPC);
  }
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_Symlink_At", "symlinkat(x, -100, copy/link) error! (-28)"),
                          debug("Can't create symlink (-100, copy/link) error! (-28)"),
                          error_line("Copy_Folder_At", "Can't mkdirat the folder (-100, copy/a, 755) error! (-28)"),
                          debug("Can't create folder (-100, copy/a) error! (-28)")));
}

TEST_F(Tree_Copy, Skips_a_folder_that_it_cannot_open) {
  run("mkdir -p tree/a/b tree/c && touch tree/a/1 tree/c/2");
  {
    const On_File_Call refused(File_Call::openat, fails_on("a", EACCES));
    EXPECT_EQ(copy(), 0);
  }
  EXPECT_THAT(names_in("copy"), ElementsAre("a", "c"));
  EXPECT_THAT(names_in("copy/a"), IsEmpty());
  EXPECT_THAT(names_in("copy/c"), ElementsAre("2"));
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree/a (-13)")));
}

TEST_F(Tree_Copy, Of_a_root_that_cannot_be_opened_is_empty) {
  run("mkdir tree && touch tree/1 && touch -d 2001-02-03 tree");
  {
    const On_File_Call refused(File_Call::openat, fails_on("tree", EACCES));
    EXPECT_EQ(copy(), 0);
  }
  EXPECT_THAT(names_in("copy"), IsEmpty());
  EXPECT_EQ(tree_of("copy").at(""), tree_of("tree").at(""));
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree (-13)")));
}

TEST_F(Tree_Copy, By_a_user_without_rights_skips_what_is_closed_to_him) {
  EXPECT_EQ(in_child([this] {
              run("chmod 777 . && mkdir -p tree/closed tree/open && touch tree/open/1 tree/closed/2 && "
                  "chown -R 65534:65534 tree && chown root tree/closed && chmod 700 tree/closed");
              become_nobody();
              EXPECT_EQ(copy(), 0);
              EXPECT_TRUE(exists("copy/open/1"));
              EXPECT_THAT(names_in("copy/closed"), IsEmpty());
            }),
            0);
}

TEST_F(Tree_Copy, To_a_full_disk_leaves_no_part_of_a_file) {
  const Small_Disk disk;
  run("mkdir -p tree/a && head -c 30000 /dev/urandom | tee tree/1 tree/2 tree/3 > tree/4");
  EXPECT_EQ(copy("tree", (disk / "copy").c_str()), -ENOSPC);
  int whole = 0;
  for (const std::string &name : names_in(disk / "copy")) {
    if (name == "a") continue;
    EXPECT_TRUE(read_file(disk / "copy/" + name) == read_file("tree/" + name)) << name;
    ++whole;
  }
  EXPECT_LE(whole, 2);
}

TEST_F(Tree_Copy, Without_memory_says_so_and_leaks_nothing) {
  run("mkdir -p tree/a/b tree/c && touch tree/1 tree/a/2");
  int failures = 0;
  for (bool failed = true; failed; ++failures) {
    run("rm -rf copy");
    int status = 0;
    {
      const Allocation_Failure failure(failures + 1);
      status = copy();
    }
    failed = allocation_failed();
    EXPECT_EQ(status, failed ? -ENOMEM : 0) << failures;
  }
  EXPECT_GE(failures, 8) << "paths, two buffers and three folders";
  run("diff -r tree copy");
}

// -------------------------------------------------------------------------------------------------------------
// aborting

TEST_F(Tree_Copy, With_the_flag_set_makes_the_root_and_succeeds) {
  run("mkdir tree && touch tree/1 && chmod 750 tree && chown 5:6 tree");
  abort_ = 9;
  EXPECT_EQ(copy(), 0);
  EXPECT_THAT(names_in("copy"), IsEmpty());
  EXPECT_EQ(mode_of("copy"), 0750u);
  EXPECT_EQ(tree_of("copy").at("").user, 5u);
}

TEST_F(Tree_Copy, Aborted_within_a_file_answers_the_flag_and_leaves_no_part_of_it) {
  run("mkdir tree && head -c 100000 /dev/zero > tree/1 && touch -d 2001-02-03 tree");
  {
    const Before_Call second_write(System_Call::write, 2, [this] {
      abort_ = 9;
      return 0;
    });
    EXPECT_EQ(copy(), 9);
  }
  EXPECT_THAT(names_in("copy"), IsEmpty());
  EXPECT_NE(tree_of("copy").at("").seconds, tree_of("tree").at("").seconds) << "no last step";
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't copy file (tree/1 -> -100, copy/1) error! (9)")));
}

TEST_F(Tree_Copy, Aborted_between_entries_succeeds_and_goes_no_further) {
  run("mkdir -p tree/a/b && ln -s x tree/a/1 && ln -s x tree/a/2 && ln -s x tree/a/3");
  {
    const On_File_Call second(File_Call::symlinkat, [this, turn = 0](const std::string &) mutable {
      if (++turn == 2) abort_ = 9;
      return 0;
    });
    EXPECT_EQ(copy(), 0);
  }
  const Tree made = tree_of("copy");
  EXPECT_EQ(std::count_if(made.begin(), made.end(), [](const auto &named) { return S_ISLNK(named.second.mode); }), 2);
}

TEST_F(Tree_Copy, Aborted_by_another_thread_at_any_moment_has_whole_files_only) {
  run("mkdir tree && cd tree && for i in 1 2 3 4 5; do mkdir $i && for j in 1 2 3 4; do head -c 70000 /dev/zero > "
      "$i/$j; done; done");
  g_idLogLevel = 0;
  int in_a_file = 0;
  const auto copy_and_check = [&] {
    const int status = copy();
    EXPECT_TRUE(status == 0 || status == 8) << status;
    if (status == 8) ++in_a_file;
    int files = 0;
    for (const auto &found : std::filesystem::recursive_directory_iterator("copy")) {
      if (!found.is_regular_file()) continue;
      ++files;
      EXPECT_EQ(found.file_size(), 70'000u) << found.path();
    }
    return files < 20;
  };
  abort_at_all_moments(
      &abort_, [] { std::filesystem::remove_all("copy"); }, copy_and_check);
  EXPECT_GT(in_a_file, 0);
}

// ------------------------------------------------------------------------------------- others who work on the same
// tree

TEST_F(Tree_Copy, Does_not_enter_a_link_that_takes_a_source_folders_place) {
  run("mkdir -p tree/a outside && touch outside/secret");
  {
    const On_File_Call entering(File_Call::openat, once_on("a", [] {
                                  EXPECT_EQ(rmdir("tree/a"), 0);
                                  EXPECT_EQ(symlink("../outside", "tree/a"), 0);
                                }));
    EXPECT_EQ(copy(), 0);
  }
  EXPECT_THAT(names_in("copy/a"), IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't opendir tree/a (-20)")));
}

TEST_F(Tree_Copy, Does_not_read_through_a_link_that_takes_a_files_place) {
  run("mkdir tree && touch tree/1 && echo secret > secret");
  {
    const On_File_Call opening(File_Call::openat, once_on("1", [] {
                                 EXPECT_EQ(unlink("tree/1"), 0);
                                 EXPECT_EQ(symlink("../secret", "tree/1"), 0);
                               }));
    EXPECT_EQ(copy(), -ELOOP);
  }
  EXPECT_THAT(names_in("copy"), IsEmpty());
}

TEST_F(Tree_Copy, Does_not_write_into_a_link_that_takes_a_copied_folders_place) {
  run("mkdir -p tree/a/b outside && touch tree/a/1 tree/a/b/2 && chmod 777 tree/a");
  const Tree outside = tree_of("outside");
  for (const File_Call call : {File_Call::fchmodat, File_Call::fchownat, File_Call::utimensat, File_Call::openat}) {
    {
      const On_File_Call swapping(call, once_on("a", [] {
                                    EXPECT_EQ(rmdir("copy/a"), 0);
                                    EXPECT_EQ(symlink("../outside", "copy/a"), 0);
                                  }));
      copy();
    }
    EXPECT_EQ(tree_of("outside"), outside);
    run("rm -r copy");
  }
}

TEST_F(Tree_Copy, Does_not_change_what_a_link_at_its_roots_place_leads_to) {
  run("mkdir tree copy outside && touch tree/1 && chmod 777 tree");
  const Tree outside = tree_of("outside");
  {
    const On_File_Call swapping(File_Call::fchmodat, once_on("copy", [] {
                                  EXPECT_EQ(rmdir("copy"), 0);
                                  EXPECT_EQ(symlink("outside", "copy"), 0);
                                }));
    EXPECT_LT(copy(), 0);
  }
  EXPECT_EQ(tree_of("outside"), outside);
}

// Copies for two seconds beside a process that swaps folders for links to a place with secrets.
class Tree_Copy_In_A_Race : public Tree_Copy {
 protected:
  void race(const std::vector<std::string> &folders, const std::function<void()> &check) {
    run("mkdir -p outside/x/y && for i in outside outside/x outside/x/y; do echo secret > $i/secret; done");
    run("mkdir -p tree/a/b/c tree/c && touch tree/1 tree/a/2 tree/a/b/3 tree/a/b/c/4 tree/c/5");
    const Tree outside = tree_of("outside");
    g_idLogLevel = 0;
    int turns = 0;
    {
      const Racing_Process racer(folders, folder_ / "outside");
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
      for (; std::chrono::steady_clock::now() < end; ++turns) {
        copy();
        check();
        while (exists("copy")) Remove_Folder_Tree("copy", nullptr);
      }
    }
    EXPECT_EQ(tree_of("outside"), outside);
    EXPECT_GT(turns, 10);
  }
};

TEST_F(Tree_Copy_In_A_Race, For_its_source_reads_nothing_outside) {
  race({"tree/a", "tree/a/b", "tree/c", "tree/a/b/c", "tree/1"}, [] {
    for (const auto &[name, entry] : tree_of("copy")) ASSERT_FALSE(name.ends_with("secret")) << name;
  });
}

TEST_F(Tree_Copy_In_A_Race, For_its_destination_writes_nothing_outside) {
  race({"copy/a", "copy/a/b", "copy/c", "copy/a/b/c"}, [] {});
}

}  // namespace
