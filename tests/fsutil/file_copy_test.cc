#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/fsutil/trees.h"
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

constexpr int64_t copy_step = 32768;
constexpr int no_folders[] = {-1, -2, -99, -101, INT_MIN};

// In a folder of the test's own, which is the working directory.
class In_A_Folder : public Descriptor_Count {
 protected:
  In_A_Folder() {
    umask(022);
    EXPECT_EQ(chdir(folder_.path().c_str()), 0);
  }
  ~In_A_Folder() override { EXPECT_EQ(chdir("/"), 0); }

  const Temporary_Folder folder_;
  const Log_Capture log_;
};

Entry entry(const std::string &path) {
  struct stat status;
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return {.mode = status.st_mode,
          .user = status.st_uid,
          .group = status.st_gid,
          .seconds = status.st_mtim.tv_sec,
          .nanoseconds = status.st_mtim.tv_nsec,
          .content = S_ISREG(status.st_mode) ? read_file(path) : ""};
}

// ------------------------------------------------------------------------------------------------------------- a file

class File_Copy : public In_A_Folder {
 protected:
  int copy(const char *source = "source", const char *destination = "copy") {
    return Copy_File(source, destination, &abort_, &counter_);
  }
  static Log_Line error(const std::string &text) { return error_line("Copy_File_At", text); }

  unsigned int abort_ = 0;
  uint64_t counter_ = 0;
};

TEST_F(File_Copy, Has_content_permission_bits_owner_and_modification_time) {
  write_file("source", std::string(copy_step + 77, 'x') + "end");
  ASSERT_EQ(chown("source", 1000, 1001), 0);
  ASSERT_EQ(chmod("source", 0757), 0);
  set_times("source", 1'234'567'890, 123'456'789);
  counter_ = 5;
  EXPECT_EQ(copy(), 0);
  struct stat status;
  ASSERT_EQ(stat("copy", &status), 0);
  EXPECT_EQ(entry("copy"), entry("source"));
  EXPECT_EQ(counter_, 5u + copy_step + 80u);
  EXPECT_EQ(status.st_atim.tv_sec, 1'234'567'890) << "both times are the source's modification time";
  EXPECT_EQ(status.st_atim.tv_nsec, 123'456'789);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(File_Copy, Drops_set_id_and_sticky_bits) {
  for (const mode_t mode : {07777u, 04755u, 02711u, 01600u, 0u}) {
    write_file("source", "x");
    ASSERT_EQ(chmod("source", mode), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode_of("copy"), mode & 0777);
  }
}

TEST_F(File_Copy, Is_not_narrowed_by_the_umask_and_never_wider_than_its_source_on_the_way) {
  umask(0777);
  write_file("source", "x");
  ASSERT_EQ(chmod("source", 0640), 0);
  mode_t on_the_way = 0;
  umask(0);
  {
    const On_File_Call before(File_Call::fchmod, [&](const std::string &) {
      on_the_way = mode_of("copy");
      return 0;
    });
    EXPECT_EQ(copy(), 0);
  }
  EXPECT_EQ(on_the_way, 0640u);
  umask(0777);
  ASSERT_EQ(unlink("copy"), 0);
  EXPECT_EQ(copy(), 0);
  umask(022);
  EXPECT_EQ(mode_of("copy"), 0640u);
}

TEST_F(File_Copy, Replaces_the_content_of_a_file_that_is_there) {
  write_file("source", "new");
  write_file("copy", "old and longer");
  const ino_t before = inode_of("copy");
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy"), "new");
  EXPECT_EQ(inode_of("copy"), before) << "written where it stands";
}

TEST_F(File_Copy, Works_between_open_folders) {
  ASSERT_EQ(mkdir("from", 0700) + mkdir("to", 0700), 0);
  write_file("from/a", "text");
  const Descriptor from(open("from", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor to(open("to", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(Copy_File_At(from.get(), "a", to.get(), "b", &abort_, nullptr), 0);
  EXPECT_EQ(read_file("to/b"), "text");
  EXPECT_EQ(Copy_File_At(to.get(), "b", AT_FDCWD, "c", &abort_, nullptr), 0);
  EXPECT_EQ(read_file("c"), "text");
}

TEST_F(File_Copy, Refuses_missing_arguments_and_removes_nothing_for_them) {
  write_file("source", "new");
  write_file("copy", "old");
  EXPECT_EQ(copy(nullptr), -EINVAL);
  EXPECT_EQ(copy("source", nullptr), -EINVAL);
  EXPECT_EQ(Copy_File("source", "copy", nullptr, &counter_), -EINVAL);
  for (const int fd : no_folders) {
    EXPECT_EQ(Copy_File_At(fd, "source", AT_FDCWD, "copy", &abort_, nullptr), -EINVAL);
    EXPECT_EQ(Copy_File_At(AT_FDCWD, "source", fd, "copy", &abort_, nullptr), -EINVAL);
  }
  EXPECT_EQ(read_file("copy"), "old");
  EXPECT_EQ(read_file("source"), "new");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// Odd, but callers take a failed copy's destination to be gone.
TEST_F(File_Copy, That_fails_removes_an_old_good_destination_even_when_the_source_is_missing) {
  write_file("copy", "old");
  EXPECT_EQ(copy(), -ENOENT);
  EXPECT_FALSE(exists("copy"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't stat the source file source error! (-2)")));
}

TEST_F(File_Copy, Of_a_source_that_cannot_be_opened_is_told_with_both_signs) {
  write_file("source", "x");
  write_file("copy", "old");
  {
    const On_File_Call refused(File_Call::openat, fails_on("source", EACCES));
    EXPECT_EQ(copy(), -EACCES);
  }
  EXPECT_FALSE(exists("copy"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't open the source file source error! (-13, 13)")));
}

TEST_F(File_Copy, To_a_place_that_cannot_be_opened_is_told) {
  write_file("source", "x");
  ASSERT_EQ(mkdir("folder", 0700), 0);
  EXPECT_EQ(copy("source", "missing/copy"), -ENOENT);
  EXPECT_EQ(copy("source", "folder"), -EISDIR);
  EXPECT_TRUE(exists("folder"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't open the destination file missing/copy error! (-2)"),
                                        error("Can't open the destination file folder error! (-21)")));
}

struct Attribute_Case {
  File_Call call;
  const char *name;
};
class File_Copy_Whose : public File_Copy, public testing::WithParamInterface<Attribute_Case> {};
INSTANTIATE_TEST_SUITE_P(Attributes, File_Copy_Whose,
                         testing::Values(Attribute_Case{File_Call::fchmod, "mode"},
                                         Attribute_Case{File_Call::fchown, "owner"},
                                         Attribute_Case{File_Call::futimens, "time"}),
                         [](const auto &test) { return test.param.name; });

TEST_P(File_Copy_Whose, Attribute_cannot_be_set_is_removed) {
  write_file("source", "x");
  const On_File_Call refused(GetParam().call, fails_with(EPERM));
  EXPECT_EQ(copy(), -EPERM);
  EXPECT_FALSE(exists("copy"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(File_Copy, Sets_the_mode_then_the_owner_then_the_times_and_stops_at_the_first_failure) {
  write_file("source", "x");
  std::string order;
  const On_File_Call mode(File_Call::fchmod, [&](const std::string &) { return order += "mode ", 0; });
  const On_File_Call times(File_Call::futimens, [&](const std::string &) { return order += "times ", 0; });
  {
    const On_File_Call owner(File_Call::fchown, [&](const std::string &) { return order += "owner ", 0; });
    EXPECT_EQ(copy(), 0);
  }
  const On_File_Call owner(File_Call::fchown, fails_with(EPERM));
  EXPECT_EQ(copy(), -EPERM);
  EXPECT_EQ(order, "mode owner times mode ");
}

TEST_F(File_Copy, By_a_user_who_may_not_give_files_away_fails) {
  EXPECT_EQ(in_child([this] {
              write_file("source", "x");
              EXPECT_EQ(chmod("source", 0644), 0);
              EXPECT_EQ(chmod(".", 0777), 0);
              become_nobody();
              EXPECT_EQ(copy(), -EPERM);
              EXPECT_FALSE(exists("copy"));
            }),
            0);
}

TEST_F(File_Copy, By_a_user_onto_the_file_of_another_fails_for_its_access_time) {
  EXPECT_EQ(in_child([this] {
              write_file("copy", "old");
              EXPECT_EQ(chmod("copy", 0666), 0);
              EXPECT_EQ(chmod(".", 0777), 0);
              {
                const As_Nobody nobody;
                write_file("source", "x");
                EXPECT_EQ(copy(), -EPERM);
              }
              EXPECT_THAT(log_.lines(), ElementsAre(error("Can't open the destination file copy error! (-1)")));
            }),
            0);
}

// -------------------------------------------------------------------------------------------- source and destination

TEST_F(File_Copy, Onto_itself_is_refused_and_keeps_the_file) {
  write_file("source", "precious");
  ASSERT_EQ(link("source", "second name"), 0);
  ASSERT_EQ(symlink("source", "link"), 0);
  ASSERT_EQ(mkdir("folder", 0700), 0);
  for (const std::string name : {"source", "./source", "folder/../source", "second name", "link"}) {
    EXPECT_EQ(copy("source", name.c_str()), -EINVAL) << name;
    EXPECT_EQ(log_.lines().back(), error("Can't open the destination file " + name + " error! (-22)"));
    EXPECT_EQ(read_file("source"), "precious");
    EXPECT_TRUE(exists(name));
  }
  EXPECT_EQ(copy("link", "source"), -EINVAL);
  EXPECT_EQ(copy("link", "link"), -EINVAL);
  EXPECT_EQ(read_file("link"), "precious");
  EXPECT_EQ(counter_, 0u);
}

TEST_F(File_Copy, Onto_itself_keeps_the_file_whatever_fails_before) {
  write_file("source", "precious");
  ASSERT_EQ(symlink("source", "link"), 0);
  for (const char *name : {"source", "link"}) {
    const On_File_Call refused(File_Call::openat, fails_with(EMFILE));
    EXPECT_EQ(copy("source", name), -EMFILE);
    EXPECT_EQ(copy("link", name), -EMFILE);
    EXPECT_TRUE(exists(name));
  }
  EXPECT_EQ(read_file("source"), "precious");
}

TEST_F(File_Copy, Onto_itself_with_the_flag_set_keeps_the_file) {
  write_file("source", "precious");
  abort_ = 3;
  EXPECT_EQ(copy("source", "source"), -EINVAL);
  EXPECT_EQ(read_file("source"), "precious");
}

TEST_F(File_Copy, Onto_itself_by_its_owner_without_the_right_to_read_keeps_the_file) {
  EXPECT_EQ(in_child([this] {
              EXPECT_EQ(chmod(".", 0777), 0);
              become_nobody();
              write_file("source", "precious");
              EXPECT_EQ(chmod("source", 0200), 0);
              EXPECT_LT(copy("source", "source"), 0);
              EXPECT_TRUE(exists("source"));
            }),
            0);
}

TEST_F(File_Copy, Follows_a_link_at_the_destination) {
  write_file("source", "new");
  write_file("target", "old");
  ASSERT_EQ(symlink("target", "copy") + symlink("nowhere", "dangling"), 0);
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("target"), "new");
  EXPECT_EQ(copy("source", "dangling"), 0);
  EXPECT_EQ(read_file("nowhere"), "new");
}

// The status is the link's: its length bounds the copy, and its mode is the copy's.
TEST_F(File_Copy, Of_a_link_copies_as_much_of_its_target_as_the_link_is_long) {
  write_file("target", "0123456789");
  ASSERT_EQ(symlink("target", "source"), 0);
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy"), "012345");
  EXPECT_EQ(mode_of("copy"), 0777u);
  EXPECT_TRUE(S_ISREG(entry("copy").mode));
}

TEST_F(File_Copy, Of_a_pipe_does_not_wait_for_its_other_end) {
  ASSERT_EQ(mkfifo("source", 0600), 0);
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy"), "");
}

TEST_F(File_Copy, Of_a_folder_fails) {
  ASSERT_EQ(mkdir("source", 0700), 0);
  write_file("source/x", "");
  EXPECT_EQ(copy(), -EISDIR);
  EXPECT_FALSE(exists("copy"));
}

// --------------------------------------------------------------------------------------------- changes while it is
// copied

TEST_F(File_Copy, Of_a_source_that_shrinks_is_short_and_succeeds) {
  write_file("source", std::string(3 * copy_step, 'x'));
  const Before_Call first_write(System_Call::write, 1, [] { return truncate("source", copy_step + 10); });
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy"), std::string(copy_step, 'x'));
  EXPECT_EQ(counter_, static_cast<uint64_t>(copy_step));
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_Data", "Can't read 32768 byte from the source file error! (0, 10)")));
}

TEST_F(File_Copy, Of_a_source_that_grows_ends_at_its_old_size) {
  write_file("source", std::string(2 * copy_step + 10, 'x'));
  const Before_Call first_write(System_Call::write, 1, [] {
    write_file("source", std::string(3 * copy_step, 'x'));
    return 0;
  });
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy").size(), 2u * copy_step + 10);
}

TEST_F(File_Copy, Of_a_source_that_vanishes_on_the_way_still_has_it_all) {
  write_file("source", std::string(2 * copy_step, 'x'));
  const Before_Call first_write(System_Call::write, 1, [] { return unlink("source"); });
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy").size(), 2u * copy_step);
}

TEST_F(File_Copy, Of_a_source_that_is_swapped_before_it_is_opened_follows_no_link_and_waits_for_no_pipe) {
  write_file("secret", "secret");
  const auto swapped = [this](const std::function<void()> &swap) {
    write_file("source", "text");
    const On_File_Call before_open(File_Call::openat, once_on("source", [&] {
                                     EXPECT_EQ(unlink("source"), 0);
                                     swap();
                                   }));
    const int status = copy();
    EXPECT_EQ(unlink("source"), 0);
    return status;
  };
  EXPECT_EQ(swapped([] { EXPECT_EQ(symlink("secret", "source"), 0); }), -ELOOP);
  EXPECT_EQ(swapped([] { EXPECT_EQ(mkfifo("source", 0600), 0); }), -ESTALE);
  EXPECT_FALSE(exists("copy"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't open the source file source error! (-40, 40)"),
                                        error("Can't open the source file source error! (-116, 116)")));
}

// Programs replace their files by renaming: a copy then gets the one or the other.
TEST_F(File_Copy, Of_a_source_that_is_replaced_by_another_file_before_it_is_opened_has_the_new_one) {
  write_file("source", "old");
  write_file("newer", "new and longer");
  ASSERT_EQ(chmod("newer", 0600), 0);
  const On_File_Call before_open(File_Call::openat, once_on("source", [] { EXPECT_EQ(rename("newer", "source"), 0); }));
  EXPECT_EQ(copy(), 0);
  EXPECT_EQ(read_file("copy"), "new and longer");
  EXPECT_EQ(mode_of("copy"), 0600u);
}

TEST_F(File_Copy, Of_a_sparse_file_has_its_bytes) {
  run("printf begin > source; truncate -s 3000001 source; printf end >> source");
  EXPECT_EQ(copy(), 0);
  EXPECT_TRUE(read_file("copy") == read_file("source"));
}

// ------------------------------------------------------------------------------------------------ failures on the way

TEST_F(File_Copy, To_a_full_disk_leaves_no_part_of_a_file) {
  const Small_Disk disk;
  write_file("source", std::string(100'000, 'x'));
  EXPECT_EQ(copy("source", (disk / "copy").c_str()), -ENOSPC);
  EXPECT_THAT(names_in(disk.path()), IsEmpty());
  EXPECT_EQ(counter_, 2u * copy_step) << "the whole disk";
  EXPECT_EQ(log_.lines().back(),
            error_line("Copy_File_Data", "Can't write 32768 byte to the destination file error! (-28, 0)"));
}

TEST_F(File_Copy, Of_a_source_with_a_bad_block_leaves_no_part_of_a_file) {
  write_file("source", std::string(2 * copy_step, 'x'));
  const On_File_Call broken(File_Call::read, [turn = 0](const std::string &) mutable { return ++turn == 2 ? EIO : 0; });
  EXPECT_EQ(copy(), -EIO);
  EXPECT_FALSE(exists("copy"));
}

TEST_F(File_Copy, Aborted_on_the_way_answers_the_flag_and_leaves_no_part_of_a_file) {
  write_file("source", std::string(3 * copy_step, 'x'));
  const Before_Call second_write(System_Call::write, 2, [this] {
    abort_ = 5;
    return 0;
  });
  EXPECT_EQ(copy(), 5);
  EXPECT_FALSE(exists("copy"));
  EXPECT_EQ(counter_, 2u * copy_step);
}

TEST_F(File_Copy, With_the_flag_already_set_removes_what_was_there) {
  write_file("source", "new");
  write_file("copy", "old");
  abort_ = 0x80000000;
  EXPECT_EQ(copy(), INT_MIN);
  EXPECT_FALSE(exists("copy"));
}

TEST_F(File_Copy, Aborted_after_its_last_byte_is_removed_too) {
  write_file("source", "new");
  const On_File_Call last_step(File_Call::futimens, [this](const std::string &) {
    abort_ = 5;
    return 0;
  });
  EXPECT_EQ(copy(), 0);
  EXPECT_FALSE(exists("copy"));
}

TEST_F(File_Copy, Aborted_by_another_thread_at_any_moment_is_whole_or_gone) {
  write_file("source", std::string(20 * copy_step, 'x'));
  const auto copy_and_check = [this] {
    const int status = copy();
    EXPECT_TRUE(status == 0 || status == 8) << status;
    if (status == 8) {
      EXPECT_FALSE(exists("copy"));
    } else if (exists("copy")) {
      EXPECT_EQ(read_file("copy").size(), 20u * copy_step);
    }
    unlink("copy");
    return status == 8;
  };
  abort_at_all_moments(
      &abort_, [] {}, copy_and_check);
}

// ------------------------------------------------------------------------------------------------------ a symbolic
// link

class Link_Copy : public In_A_Folder {
 protected:
  static Log_Line error(const std::string &text) { return error_line("Copy_Symlink_At", text); }
  static Log_Line debug(const std::string &text) { return debug_line("Copy_Symlink_At", text); }
  static std::string target_of(const char *link) {
    char text[PATH_MAX + 1] = {};
    EXPECT_GE(readlink(link, text, sizeof text - 1), 0);
    return text;
  }
};

TEST_F(Link_Copy, Has_target_owner_and_modification_time) {
  ASSERT_EQ(symlink("no/where", "link"), 0);
  ASSERT_EQ(lchown("link", 1000, 1001), 0);
  set_times("link", 1'234'567'890, 123'456'789);
  EXPECT_EQ(Copy_Symlink("link", "copy"), 0);
  EXPECT_EQ(entry("copy"), entry("link"));
  EXPECT_EQ(target_of("copy"), "no/where");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Link_Copy, Changes_nothing_behind_the_link) {
  write_file("target", "x");
  ASSERT_EQ(symlink("target", "link"), 0);
  set_times("target", 1'000, 1);
  set_times("link", 2'000, 2);
  ASSERT_EQ(lchown("link", 5, 6), 0);
  const Entry before = entry("target");
  EXPECT_EQ(Copy_Symlink("link", "copy"), 0);
  EXPECT_EQ(entry("target"), before);
}

TEST_F(Link_Copy, Keeps_the_longest_target_whole) {
  const std::string longest(PATH_MAX - 1, 't');
  ASSERT_EQ(symlink(longest.c_str(), "link"), 0);
  EXPECT_EQ(Copy_Symlink("link", "copy"), 0);
  EXPECT_EQ(target_of("copy"), longest);
}

TEST_F(Link_Copy, Works_between_open_folders) {
  ASSERT_EQ(mkdir("from", 0700) + mkdir("to", 0700), 0);
  ASSERT_EQ(symlink("x", "from/a"), 0);
  const Descriptor from(open("from", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor to(open("to", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(Copy_Symlink_At(from.get(), "a", to.get(), "b"), 0);
  EXPECT_EQ(target_of("to/b"), "x");
}

TEST_F(Link_Copy, Refuses_missing_arguments) {
  EXPECT_EQ(Copy_Symlink(nullptr, "copy"), -EINVAL);
  EXPECT_EQ(Copy_Symlink("link", nullptr), -EINVAL);
  for (const int fd : no_folders) {
    EXPECT_EQ(Copy_Symlink_At(fd, "link", AT_FDCWD, "copy"), -EINVAL);
    EXPECT_EQ(Copy_Symlink_At(AT_FDCWD, "link", fd, "copy"), -EINVAL);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Link_Copy, Tells_each_step_that_fails) {
  write_file("file", "");
  ASSERT_EQ(symlink("target", "link"), 0);
  EXPECT_EQ(Copy_Symlink("missing", "copy"), -ENOENT);
  EXPECT_EQ(Copy_Symlink("file", "copy"), -EINVAL);
  EXPECT_EQ(Copy_Symlink("link", "file"), -EEXIST);
  EXPECT_THAT(log_.lines(), ElementsAre(debug("Can't stat a symbolic link (-100,missing) error! (-2)"),
                                        debug("Can't read a symbolic link (-100,file) error! (-22)"),
                                        error("symlinkat(target, -100, file) error! (-17)")));
  EXPECT_FALSE(exists("copy"));
}

TEST_F(Link_Copy, Without_its_time_still_succeeds) {
  ASSERT_EQ(symlink("target", "link"), 0);
  const On_File_Call refused(File_Call::utimensat, fails_with(EPERM));
  EXPECT_EQ(Copy_Symlink("link", "copy"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't utimensat(-100, copy) error! (-1)")));
}

TEST_F(Link_Copy, Without_its_owner_fails_and_stays) {
  ASSERT_EQ(symlink("target", "link"), 0);
  ASSERT_EQ(lchown("link", 5, 6), 0);
  const On_File_Call refused(File_Call::fchownat, fails_with(EPERM));
  EXPECT_EQ(Copy_Symlink("link", "copy"), -EPERM);
  EXPECT_TRUE(exists("copy"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't fchownat(-100, copy, 5, 6) error! (-1)")));
}

// ------------------------------------------------------------------------------------------------------------ a folder

class Folder_Copy : public In_A_Folder {
 protected:
  Folder_Copy() {
    EXPECT_EQ(mkdir("source", 0700), 0);
    write_file("source/inside", "");
    EXPECT_EQ(chown("source", 1000, 1001), 0);
    EXPECT_EQ(chmod("source", 03757), 0);
    set_times("source", 1'234'567'890, 123'456'789);
  }

  static Log_Line error(const std::string &text) { return error_line("Copy_Folder_At", text); }
};

TEST_F(Folder_Copy, Has_all_mode_bits_owner_and_modification_time_and_nothing_inside) {
  umask(0777);
  EXPECT_EQ(Copy_Folder("source", "copy"), 0);
  umask(022);
  EXPECT_EQ(entry("copy"), entry("source"));
  EXPECT_THAT(names_in("copy"), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Folder_Copy, Keeps_32_bits_of_the_seconds) {
  set_times("source", (int64_t{1} << 32) + 100, 5);
  EXPECT_EQ(Copy_Folder("source", "copy"), 0);
  EXPECT_EQ(entry("copy").seconds, 100);
  EXPECT_EQ(entry("copy").nanoseconds, 5);
}

TEST_F(Folder_Copy, Works_between_open_folders) {
  ASSERT_EQ(mkdir("to", 0700), 0);
  const Descriptor from(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor to(open("to", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(Copy_Folder_At(from.get(), "source", to.get(), "b"), 0);
  EXPECT_EQ(entry("to/b"), entry("source"));
}

TEST_F(Folder_Copy, Refuses_missing_arguments) {
  EXPECT_EQ(Copy_Folder(nullptr, "copy"), -EINVAL);
  EXPECT_EQ(Copy_Folder("source", nullptr), -EINVAL);
  for (const int fd : no_folders) {
    EXPECT_EQ(Copy_Folder_At(fd, "source", AT_FDCWD, "copy"), -EINVAL);
    EXPECT_EQ(Copy_Folder_At(AT_FDCWD, "source", fd, "copy"), -EINVAL);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Folder_Copy, That_is_there_or_whose_source_is_not_is_told) {
  ASSERT_EQ(mkdir("copy", 0700), 0);
  EXPECT_EQ(Copy_Folder("missing", "other"), -ENOENT);
  EXPECT_EQ(Copy_Folder("source", "copy"), -EEXIST);
  EXPECT_EQ(Copy_Folder("source", "no/where"), -ENOENT);
  EXPECT_EQ(mode_of("copy"), 0700u);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Copy_Folder_At", "Can't stat a folder (-100,missing) error! (-2)"),
                                        error("Can't mkdirat the folder (-100, copy, 3757) error! (-17)"),
                                        error("Can't mkdirat the folder (-100, no/where, 3757) error! (-2)")));
}

TEST_F(Folder_Copy, Without_mode_or_owner_succeeds) {
  const On_File_Call no_mode(File_Call::fchmodat, fails_with(EPERM));
  const On_File_Call no_owner(File_Call::fchownat, fails_with(EROFS));
  EXPECT_EQ(Copy_Folder("source", "copy"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't fchmodat the folder (-100, copy, 3757) error! (-1)"),
                                        error("Can't fchownat the folder (-100, copy, 1000, 1001) error! (-30)")));
}

TEST_F(Folder_Copy, Without_its_time_fails_and_stays) {
  const On_File_Call refused(File_Call::utimensat, fails_with(EPERM));
  EXPECT_EQ(Copy_Folder("source", "copy"), -EPERM);
  EXPECT_TRUE(exists("copy"));
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't chtime the folder (-100, copy) error! (-1)")));
}

// Who owns the folder around it may do that at any moment.
TEST_F(Folder_Copy, That_is_swapped_for_a_link_changes_nothing_behind_the_link) {
  ASSERT_EQ(mkdir("outside", 0700), 0);
  set_times("outside", 1'000, 1);
  const Entry before = entry("outside");
  const On_File_Call after_mkdirat(File_Call::fchmodat, once_on("copy", [] {
                                     EXPECT_EQ(rmdir("copy"), 0);
                                     EXPECT_EQ(symlink("outside", "copy"), 0);
                                   }));
  Copy_Folder("source", "copy");
  EXPECT_EQ(entry("outside"), before);
}

// -------------------------------------------------------------------------------------------------------- a file's end

using File_Removal = In_A_Folder;

TEST_F(File_Removal, Takes_a_name_of_anything_but_a_folder) {
  write_file("file", "");
  ASSERT_EQ(mkdir("folder", 0700) + symlink("folder", "link") + mkfifo("pipe", 0600), 0);
  for (const char *name : {"file", "link", "pipe"}) {
    EXPECT_EQ(Remove_File(name), 0);
    EXPECT_FALSE(exists(name));
  }
  EXPECT_EQ(Remove_File("folder"), -EISDIR);
  EXPECT_EQ(Remove_File("missing"), -ENOENT);
  EXPECT_TRUE(exists("folder"));
}

TEST_F(File_Removal, Works_in_an_open_folder) {
  ASSERT_EQ(mkdir("folder", 0700), 0);
  write_file("folder/file", "");
  write_file("file", "");
  const Descriptor folder(open("folder", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_EQ(Remove_File_At(folder.get(), "file"), 0);
  EXPECT_FALSE(exists("folder/file"));
  EXPECT_TRUE(exists("file"));
}

TEST_F(File_Removal, Refuses_missing_arguments) {
  write_file("file", "");
  EXPECT_EQ(Remove_File(nullptr), -EINVAL);
  for (const int fd : no_folders) EXPECT_EQ(Remove_File_At(fd, "file"), -EINVAL);
  EXPECT_TRUE(exists("file"));
}

}  // namespace
