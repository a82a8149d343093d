#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <string>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/fsutil/trees.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// In a folder of the test's own, which is the working directory; the tree to remove is "tree".
class Tree_Removal : public Descriptor_Count {
 protected:
  Tree_Removal() { EXPECT_EQ(chdir(folder_.path().c_str()), 0); }
  ~Tree_Removal() override { EXPECT_EQ(chdir("/"), 0); }

  static void make_small_tree() { run("mkdir -p tree/a/b tree/c && touch tree/1 tree/a/2 tree/a/b/3"); }
  static Log_Line error(const std::string &text) { return error_line("Remove_Folder_Tree_At", text); }

  const Temporary_Folder folder_;
  const Log_Capture log_;
  unsigned int abort_ = 0;
};

TEST_F(Tree_Removal, Takes_names_and_types_of_all_kinds) {
  make_odd_tree("tree");
  ASSERT_GT(tree_of("tree").size(), 60u);
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  EXPECT_THAT(names_in("."), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Removal, Needs_no_flag_and_takes_a_slash_at_the_end) {
  make_small_tree();
  EXPECT_EQ(Remove_Folder_Tree("tree/", nullptr), 0);
  EXPECT_FALSE(exists("tree"));
}

TEST_F(Tree_Removal, Takes_some_thousand_files) {
  run("mkdir tree && cd tree && for i in $(seq 50); do mkdir $i && cd $i && touch $(seq 100) && cd ..; done");
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  EXPECT_FALSE(exists("tree"));
}

class Tree_Removal_Of_Depth : public Tree_Removal, public testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Levels, Tree_Removal_Of_Depth, testing::Values(1, 60, 63, 64, 65, 66, 3000));

TEST_P(Tree_Removal_Of_Depth, Goes_all_the_way_down_and_back_with_few_descriptors) {
  make_chain("tree", GetParam());
  int most = 0;
  {
    const On_File_Call counting(File_Call::unlinkat, [&](const std::string &) {
      most = std::max(most, open_descriptors());
      return 0;
    });
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  }
  EXPECT_FALSE(exists("tree"));
  EXPECT_LT(most, 100);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Removal, Of_a_link_takes_the_link_only) {
  make_small_tree();
  ASSERT_EQ(symlink("tree", "link") + symlink("nowhere", "dangling"), 0);
  const Tree before = tree_of("tree");
  EXPECT_EQ(Remove_Folder_Tree("link", &abort_), 0);
  EXPECT_EQ(Remove_Folder_Tree("dangling", &abort_), 0);
  EXPECT_THAT(names_in("."), ElementsAre("tree"));
  EXPECT_EQ(tree_of("tree"), before);
}

TEST_F(Tree_Removal, Leaves_alone_what_links_in_the_tree_lead_to) {
  run("mkdir -p outside tree && touch outside/file && ln -s ../outside tree/link && ln -s $PWD/outside tree/absolute "
      "&& "
      "ln -s . tree/circle && ln outside/file tree/hard");
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  EXPECT_THAT(names_in("."), ElementsAre("outside"));
  EXPECT_THAT(names_in("outside"), ElementsAre("file"));
}

TEST_F(Tree_Removal, Of_a_name_that_is_no_folders_takes_it) {
  write_file("file", "");
  ASSERT_EQ(mkfifo("pipe", 0600), 0);
  EXPECT_EQ(Remove_Folder_Tree("file", &abort_), 0);
  EXPECT_EQ(Remove_Folder_Tree("pipe", nullptr), 0);
  EXPECT_THAT(names_in("."), IsEmpty());
  EXPECT_EQ(Remove_Folder_Tree("missing", &abort_), -ENOENT);
  EXPECT_EQ(Remove_Folder_Tree("", &abort_), -ENOENT);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Removal, In_an_open_folder_takes_nothing_of_the_same_name_from_the_working_directory) {
  ASSERT_EQ(mkdir("other", 0700), 0);
  const Descriptor other(open("other", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const std::string name : {"file", "link"}) {
    write_file(name, "here");
    ASSERT_EQ(symlink("x", ("other/" + name).c_str()), 0);
    EXPECT_EQ(Remove_Folder_Tree_At(other.get(), name.c_str(), &abort_), 0);
    EXPECT_EQ(read_file(name), "here");
    EXPECT_FALSE(exists("other/" + name));
  }
  run("mkdir -p tree/x other/tree/y && touch other/tree/y/1");
  EXPECT_EQ(Remove_Folder_Tree_At(other.get(), "tree", &abort_), 0);
  EXPECT_TRUE(exists("tree/x"));
  EXPECT_THAT(names_in("other"), IsEmpty());
}

TEST_F(Tree_Removal, Takes_an_absolute_path_whatever_the_descriptor) {
  make_small_tree();
  EXPECT_EQ(Remove_Folder_Tree_At(9999, (folder_ / "tree").c_str(), &abort_), 0);
  EXPECT_FALSE(exists("tree"));
}

TEST_F(Tree_Removal, Refuses_missing_arguments) {
  make_small_tree();
  EXPECT_EQ(Remove_Folder_Tree(nullptr, &abort_), -EINVAL);
  for (const int fd : {-1, -2, -99, -101, INT_MIN}) EXPECT_EQ(Remove_Folder_Tree_At(fd, "tree", &abort_), -EINVAL);
  EXPECT_EQ(Remove_Folder_Tree_At(9999, "tree", &abort_), -EBADF);
  EXPECT_TRUE(exists("tree/a/b/3"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Removal, Tells_when_the_open_folders_own_path_is_not_to_be_had) {
  make_small_tree();
  const Descriptor here(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  {
    const On_File_Call hidden(File_Call::readlink, fails_with(ENOENT));
    EXPECT_EQ(Remove_Folder_Tree_At(here.get(), "tree", &abort_), -EINVAL);
  }
  EXPECT_TRUE(exists("tree/a/b/3"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Remove_Folder_Tree_At", "Can't get the base path by its FD " +
                                                                  std::to_string(here.get()) + " error!, -22")));
}

// ----------------------------------------------------------------------------------------------------------- aborting

TEST_F(Tree_Removal, With_the_flag_set_answers_its_value_and_takes_nothing) {
  make_small_tree();
  const Tree before = tree_of("tree");
  abort_ = 6;
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 6);
  abort_ = 0x80000002;
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), INT_MIN + 2);
  EXPECT_EQ(tree_of("tree"), before);
}

TEST_F(Tree_Removal, With_the_flag_set_still_takes_a_name_that_is_no_folders) {
  write_file("file", "");
  abort_ = 6;
  EXPECT_EQ(Remove_Folder_Tree("file", &abort_), 0);
  EXPECT_FALSE(exists("file"));
}

TEST_F(Tree_Removal, Aborted_at_an_entry_goes_no_further) {
  run("mkdir -p tree/a && touch tree/1 tree/2 tree/3 tree/a/4");
  int taken = 0;
  {
    const On_File_Call second(File_Call::unlinkat, [&](const std::string &) {
      if (++taken == 2) abort_ = 7;
      return 0;
    });
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 7);
  }
  EXPECT_EQ(taken, 2);
  EXPECT_TRUE(exists("tree/a/4"));
}

TEST_F(Tree_Removal, Aborted_at_the_last_entry_leaves_the_root) {
  run("mkdir -p tree && touch tree/1");
  const On_File_Call last(File_Call::unlinkat, [&](const std::string &) { return abort_ = 7, 0; });
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 7);
  EXPECT_THAT(names_in("tree"), IsEmpty());
}

TEST_F(Tree_Removal, Aborted_on_the_way_back_leaves_the_root) {
  run("mkdir -p tree/a");
  const On_File_Call last(File_Call::unlinkat, [&](const std::string &) { return abort_ = 7, 0; });
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 7);
  EXPECT_THAT(names_in("tree"), IsEmpty());
}

TEST_F(Tree_Removal, Aborted_on_the_way_down_answers_the_flag) {
  run("mkdir -p tree/a/b");
  const On_File_Call entering(File_Call::openat, [&](const std::string &path) {
    if (path == "b") abort_ = 9;
    return 0;
  });
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 9);
  EXPECT_TRUE(exists("tree/a/b"));
}

TEST_F(Tree_Removal, Aborted_by_another_thread_at_any_moment_answers_the_flag_or_has_taken_all) {
  const auto prepare = [] {
    for (const std::string name : {"tree", "tree/a", "tree/a/b", "tree/c", "tree/c/d"}) {
      mkdir(name.c_str(), 0700);
      for (int i = 0; i < 10; ++i) write_file(name + "/" + std::to_string(i), "");
    }
  };
  const auto remove_and_check = [this] {
    const int status = Remove_Folder_Tree("tree", &abort_);
    EXPECT_TRUE(status == 0 || status == 8) << status;
    // Set behind the last step, the flag is the result of a whole removal.
    EXPECT_TRUE(status == 8 || !exists("tree"));
    return exists("tree");
  };
  abort_at_all_moments(&abort_, prepare, remove_and_check);
}

// ----------------------------------------------------------------------------------------------------------- failures

TEST_F(Tree_Removal, Leaves_and_tells_what_cannot_be_removed_and_takes_the_rest) {
  run("mkdir -p tree/a/b tree/c && touch tree/1 tree/a/stuck tree/a/b/3");
  {
    const On_File_Call refused(File_Call::unlinkat, fails_on("stuck", EPERM));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
  }
  EXPECT_THAT(tree_of("tree"), UnorderedElementsAre(testing::Key(""), testing::Key("a"), testing::Key("a/stuck")));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't unlink file tree/a/stuck error! (-1)"),
                                        error("Can't rmdir tree/a error! (-39)")))
      << "the root's failure is the result alone";
}

TEST_F(Tree_Removal, Takes_what_has_vanished_for_removed) {
  run("mkdir -p tree/a && touch tree/1 tree/a/2");
  const On_File_Call vanishing(File_Call::unlinkat, [](const std::string &path) {
    if (path == "1") unlink("tree/1");
    if (path == "a") rmdir("tree/a");
    return 0;
  });
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  EXPECT_FALSE(exists("tree"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tree_Removal, Tells_a_folder_that_cannot_be_opened_and_tries_to_remove_it_all_the_same) {
  run("mkdir -p tree/full tree/empty && touch tree/full/1");
  {
    const On_File_Call refused(File_Call::openat,
                               [](const std::string &path) { return path == "full" || path == "empty" ? EACCES : 0; });
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
  }
  EXPECT_THAT(names_in("tree"), ElementsAre("full"));
  EXPECT_THAT(log_.lines(), UnorderedElementsAre(error("Can't opendir tree/full error! (-13)"),
                                                 error("Can't rmdir tree/full error! (-39)"),
                                                 error("Can't opendir tree/empty error! (-13)")));
}

TEST_F(Tree_Removal, Tells_a_root_that_cannot_be_opened_and_tries_to_remove_it_all_the_same) {
  run("mkdir -p full empty && touch full/1");
  {
    const On_File_Call refused(File_Call::openat, fails_with(EACCES));
    EXPECT_EQ(Remove_Folder_Tree("full", &abort_), -ENOTEMPTY);
    EXPECT_EQ(Remove_Folder_Tree("empty", &abort_), 0);
  }
  EXPECT_THAT(names_in("."), ElementsAre("full"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(error("Can't opendir full error! (-13)"), error("Can't opendir empty error! (-13)")));
}

TEST_F(Tree_Removal, Tells_a_folder_that_cannot_be_read_to_its_end) {
  run("mkdir tree && touch tree/1");
  {
    const On_File_Call broken(File_Call::getdents64, fails_with(EIO));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
  }
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't opendir tree error! (-5)")));
}

// Not every file system tells the type with the name.
TEST_F(Tree_Removal, Looks_for_itself_where_the_folder_does_not_tell_types) {
  make_odd_tree("tree");
  const On_File_Call untyped(File_Call::getdents64, [](const std::string &) { return types_are_hidden; });
  EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), 0);
  EXPECT_FALSE(exists("tree"));
}

TEST_F(Tree_Removal, Tells_an_entry_that_cannot_be_looked_at_and_goes_on) {
  run("mkdir -p tree/a && touch tree/1 tree/2");
  {
    const On_File_Call untyped(File_Call::getdents64, [](const std::string &) { return types_are_hidden; });
    const On_File_Call broken(File_Call::fstatat, fails_on("1", EIO));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
  }
  EXPECT_THAT(names_in("tree"), ElementsAre("1"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't fstat file: tree/1")));
}

TEST_F(Tree_Removal, By_a_user_without_rights_takes_what_he_may) {
  EXPECT_EQ(in_child([this] {
              run("mkdir -p tree/own tree/foreign tree/closed && touch tree/own/1 tree/foreign/2 tree/closed/3 && "
                  "chown -R 65534 tree/own tree/closed && chown 65534 tree && chmod 0 tree/closed && chmod 777 .");
              {
                const As_Nobody nobody;
                EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
              }
              EXPECT_THAT(names_in("tree"), ElementsAre("closed", "foreign"));
              EXPECT_THAT(log_.lines(), UnorderedElementsAre(error("Can't opendir tree/closed error! (-13)"),
                                                             error("Can't rmdir tree/closed error! (-39)"),
                                                             error("Can't unlink file tree/foreign/2 error! (-13)"),
                                                             error("Can't rmdir tree/foreign error! (-39)")));
            }),
            0);
}

TEST_F(Tree_Removal, Without_memory_says_so_and_leaks_nothing) {
  int failures = 0;
  for (bool failed = true; failed; ++failures) {
    make_small_tree();
    int status = 0;
    {
      const Allocation_Failure failure(failures + 1);
      status = Remove_Folder_Tree("tree", &abort_);
    }
    failed = allocation_failed();
    EXPECT_EQ(status, failed ? -ENOMEM : 0) << failures;
    EXPECT_EQ(exists("tree"), failed);
  }
  EXPECT_GE(failures, 5) << "a path, a buffer and three folders";
}

// ------------------------------------------------------------------------------------- others who work on the same
// tree

TEST_F(Tree_Removal, Does_not_enter_a_link_that_takes_a_folders_place) {
  run("mkdir -p tree/a/b outside/b && touch outside/precious outside/b/precious");
  const Tree outside = tree_of("outside");
  {
    const On_File_Call entering(File_Call::openat, once_on("a", [] {
                                  EXPECT_EQ(rename("tree/a", "moved"), 0);
                                  EXPECT_EQ(symlink("../outside", "tree/a"), 0);
                                }));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTEMPTY);
  }
  EXPECT_EQ(tree_of("outside"), outside);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error("Can't opendir tree/a error! (-20)"), error("Can't rmdir tree/a error! (-20)")));
}

TEST_F(Tree_Removal, Does_not_leave_the_folder_it_is_in_when_that_is_swapped_for_a_link) {
  run("mkdir -p tree/a outside && touch tree/a/precious outside/precious");
  {
    const On_File_Call removing(File_Call::unlinkat, once_on("precious", [] {
                                  EXPECT_EQ(rename("tree/a", "moved"), 0);
                                  EXPECT_EQ(symlink("../outside", "tree/a"), 0);
                                }));
    Remove_Folder_Tree("tree", &abort_);
  }
  EXPECT_THAT(names_in("outside"), ElementsAre("precious"));
  EXPECT_THAT(names_in("moved"), IsEmpty());
}

TEST_F(Tree_Removal, Does_not_enter_a_root_that_is_swapped_for_a_link) {
  run("mkdir -p tree outside && touch outside/precious");
  {
    const On_File_Call entering(File_Call::openat, once_on("tree", [] {
                                  EXPECT_EQ(rmdir("tree"), 0);
                                  EXPECT_EQ(symlink("outside", "tree"), 0);
                                }));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ENOTDIR);
  }
  EXPECT_THAT(names_in("outside"), ElementsAre("precious"));
}

// Deep down the way back is by "..": a folder that was carried elsewhere meanwhile must not lead there.
TEST_F(Tree_Removal, Stops_when_a_deep_folder_it_is_in_is_moved_out_of_the_tree) {
  make_chain("tree", 80);
  run("mkdir -p outside/a && touch outside/precious outside/a/precious");
  std::string deep = "tree";
  for (int level = 0; level < 75; ++level) deep += "/d";
  {
    const On_File_Call removing(File_Call::unlinkat,
                                once_on("f", [&] { EXPECT_EQ(rename(deep.c_str(), "outside/moved"), 0); }));
    EXPECT_EQ(Remove_Folder_Tree("tree", &abort_), -ESTALE);
  }
  EXPECT_TRUE(exists("outside/precious"));
  EXPECT_TRUE(exists("outside/a/precious"));
}

TEST_F(Tree_Removal, Beside_a_process_that_swaps_folders_for_links_touches_nothing_outside) {
  run("mkdir -p outside/x/y && touch outside/1 outside/x/2 outside/x/y/3");
  const Tree outside = tree_of("outside");
  g_idLogLevel = 0;
  int turns = 0;
  {
    const Racing_Process racer({"tree/a", "tree/a/b", "tree/c", "tree/a/b/c"}, folder_ / "outside");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (; std::chrono::steady_clock::now() < end; ++turns) {
      // Made where nobody swaps anything.
      for (const char *name : {"fresh", "fresh/a", "fresh/a/b", "fresh/a/b/c", "fresh/c"}) mkdir(name, 0700);
      for (const char *name : {"fresh/1", "fresh/a/2", "fresh/a/b/3", "fresh/c/4"}) write_file(name, "");
      while (rename("fresh", "tree") != 0) Remove_Folder_Tree("tree", &abort_);
      Remove_Folder_Tree("tree", &abort_);
    }
  }
  EXPECT_EQ(tree_of("outside"), outside);
  EXPECT_GT(turns, 10);
}

}  // namespace
