#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/long_path.h"

namespace {
bool paths_fill_the_buffer = false;
}

extern "C" ssize_t readlink(const char *path, char *buffer, size_t size) noexcept {
  if (!paths_fill_the_buffer) return syscall(SYS_readlinkat, AT_FDCWD, path, buffer, size);
  memset(buffer, 'p', size);
  return static_cast<ssize_t>(size);
}

namespace {

using namespace tarn::test;
using tarn::Descriptor;

// --------------------------------------------------------------------------------------------------------------- names

struct Path_Case {
  const char *path;
  const char *name;
};

class Get_Filename_Of : public testing::TestWithParam<Path_Case> {};

TEST_P(Get_Filename_Of, Points_behind_the_last_slash_of_the_given_text) {
  const std::string path = GetParam().path;
  const char *name = nullptr;

  ASSERT_EQ(Get_Filename(path.c_str(), &name), 0);

  EXPECT_STREQ(name, GetParam().name);
  EXPECT_EQ(name, path.c_str() + path.size() - std::string(GetParam().name).size()) << "not a copy";
}

INSTANTIATE_TEST_SUITE_P(Paths, Get_Filename_Of,
                         testing::Values(Path_Case{"/etc/config/smb.conf", "smb.conf"},
                                         Path_Case{"smb.conf", "smb.conf"}, Path_Case{"/etc/config/", ""},
                                         Path_Case{"/", ""}, Path_Case{"", ""}, Path_Case{"a//b", "b"},
                                         Path_Case{"../..", ".."}));

TEST(Get_Filename, Refuses_missing_arguments) {
  static const char untouched[] = "untouched";
  const char *name = untouched;

  EXPECT_EQ(Get_Filename(nullptr, &name), -EINVAL);
  EXPECT_EQ(Get_Filename("/a/b", nullptr), -EINVAL);

  EXPECT_EQ(name, untouched);
}

// -------------------------------------------------------------------------------------------------- a folder to look
// at

constexpr int no_folder_descriptors[] = {-1, -2, -99, -101, INT_MIN};

// A folder with a "file" of 5 bytes, a "folder" with a file "inside", a link to each of the two, a "dangling" link, and
// a link in a "circle". The working directory is that folder. None of the functions here reports.
class Folder_Test : public Descriptor_Count {
 protected:
  Folder_Test() {
    write_file(path("file"), "12345");
    std::filesystem::create_directory(path("folder"));
    write_file(path("folder/inside"), "");
    std::filesystem::create_symlink("file", path("link_to_file"));
    std::filesystem::create_symlink("folder", path("link_to_folder"));
    std::filesystem::create_symlink("nowhere", path("dangling"));
    std::filesystem::create_symlink("circle", path("circle"));
    std::filesystem::current_path(folder_.path());
  }

  ~Folder_Test() override {
    std::filesystem::current_path("/");
    EXPECT_EQ(log_.text(), "");
  }

  std::string path(const std::string &name) const { return folder_ / name; }

  int closed_descriptor() const {
    const Descriptor opened(open("/", O_RDONLY | O_CLOEXEC));
    return opened.get();
  }

  const Log_Capture log_;
  const Temporary_Folder folder_;
};

Descriptor opened(const std::string &path, int flags = O_RDONLY) {
  Descriptor fd(open(path.c_str(), flags | O_CLOEXEC));
  EXPECT_TRUE(fd) << path;
  return fd;
}

// --------------------------------------------------------------------------------------------------- descriptor to
// path

class Descriptor_Path : public Folder_Test {
 protected:
  // What is written, and the byte behind it.
  static std::tuple<int, std::string> read_path(int fd, size_t room, char behind = '#') {
    std::string buffer(room + 1, behind);
    const int length = Get_FD_Path(fd, buffer.data(), static_cast<int>(room));
    if (length >= 0) {
      EXPECT_EQ(buffer.substr(static_cast<size_t>(length)), std::string(room + 1 - static_cast<size_t>(length), behind))
          << "nothing is written behind the path, no terminator either";
      buffer.resize(static_cast<size_t>(length));
    }
    return {length, buffer};
  }

  static std::tuple<int, std::string> text(const std::string &expected) {
    return {static_cast<int>(expected.size()), expected};
  }
};

TEST_F(Descriptor_Path, Is_that_of_the_open_file_or_folder_without_a_terminator) {
  const Descriptor file = opened(path("file")), folder = opened(path("folder/../folder"));
  EXPECT_EQ(read_path(file.get(), 4096), text(path("file")));
  EXPECT_EQ(read_path(folder.get(), 4096), text(path("folder")));
}

TEST_F(Descriptor_Path, Is_cut_at_the_size_of_the_buffer) {
  const Descriptor file = opened(path("file"));
  const std::string whole = path("file");
  EXPECT_EQ(read_path(file.get(), whole.size()), text(whole));
  EXPECT_EQ(read_path(file.get(), whole.size() - 1), text(whole.substr(0, whole.size() - 1)));
  EXPECT_EQ(read_path(file.get(), 1), text("/"));
}

TEST_F(Descriptor_Path, Of_a_removed_file_says_so) {
  const Descriptor file = opened(path("file"));
  std::filesystem::remove(path("file"));
  EXPECT_EQ(read_path(file.get(), 4096), text(path("file") + " (deleted)"));
}

TEST_F(Descriptor_Path, Of_a_pipe_is_its_name) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const Descriptor out(ends[0]), in(ends[1]);
  EXPECT_THAT(std::get<1>(read_path(out.get(), 4096)), testing::MatchesRegex("pipe:\\[[0-9]+\\]"));
}

TEST_F(Descriptor_Path, Needs_a_buffer_and_numbers_that_are_not_negative) {
  const Descriptor file = opened(path("file"));
  char buffer[] = "untouched";
  EXPECT_EQ(Get_FD_Path(file.get(), nullptr, 10), -EINVAL);
  EXPECT_EQ(Get_FD_Path(file.get(), buffer, -1), -EINVAL);
  EXPECT_EQ(Get_FD_Path(file.get(), buffer, INT_MIN), -EINVAL);
  EXPECT_EQ(Get_FD_Path(file.get(), buffer, 0), -EINVAL);
  for (const int fd : no_folder_descriptors) EXPECT_EQ(Get_FD_Path(fd, buffer, 10), -EINVAL) << fd;
  EXPECT_EQ(Get_FD_Path(AT_FDCWD, buffer, 10), -EINVAL);
  EXPECT_STREQ(buffer, "untouched");
}

TEST_F(Descriptor_Path, Of_a_closed_descriptor_is_an_invalid_argument) {
  char buffer[10];
  EXPECT_EQ(Get_FD_Path(closed_descriptor(), buffer, sizeof buffer), -EINVAL);
  EXPECT_EQ(Get_FD_Path(INT_MAX, buffer, sizeof buffer), -EINVAL);
}

TEST_F(Descriptor_Path, That_the_system_cannot_tell_is_a_failure) {
  const std::string deep = path_of_length(folder_.path(), 4000), deeper(200, 'd');
  std::filesystem::create_directories(deep);
  const Descriptor outer = opened(deep);
  ASSERT_EQ(mkdirat(outer.get(), deeper.c_str(), 0755), 0);
  const Descriptor inner(openat(outer.get(), deeper.c_str(), O_RDONLY | O_CLOEXEC));
  char buffer[8192];
  EXPECT_EQ(Get_FD_Path(inner.get(), buffer, sizeof buffer), -ENAMETOOLONG);
  EXPECT_EQ(Fullpath(inner.get()), nullptr);
}

TEST_F(Descriptor_Path, Is_that_of_the_calling_process) {
  const Descriptor file = opened(path("file"));
  EXPECT_EQ(read_path(file.get(), 4096), text(path("file")));
  EXPECT_EQ(in_child([&] {
              const Descriptor other = opened(path("folder"));
              ASSERT_EQ(dup2(other.get(), file.get()), file.get());
              EXPECT_EQ(read_path(file.get(), 4096), text(path("folder")));
            }),
            0);
}

TEST_F(Descriptor_Path, As_text_is_ended_and_stands_in_one_place) {
  const Descriptor file = opened(path("file")), root = opened("/");
  const char *first = Fullpath(file.get());
  EXPECT_EQ(std::string(first), path("file"));

  EXPECT_EQ(Fullpath(root.get()), first) << "the same buffer each time";
  EXPECT_STREQ(first, "/") << "nothing is left of a longer path";

  const char *from_another_thread = nullptr;
  std::thread([&] { from_another_thread = Fullpath(file.get()); }).join();
  EXPECT_EQ(from_another_thread, first);
  EXPECT_EQ(std::string(first), path("file"));
}

TEST_F(Descriptor_Path, As_text_has_4095_characters_at_most) {
  const std::string longest = path_of_length(folder_.path(), 4095);
  std::filesystem::create_directories(longest.substr(0, longest.rfind('/')));
  write_file(longest, "");
  const Descriptor file = opened(longest), root = opened("/");
  EXPECT_EQ(std::string(Fullpath(file.get())), longest);

  paths_fill_the_buffer = true;
  const char *full = Fullpath(root.get());
  paths_fill_the_buffer = false;
  EXPECT_EQ(std::string(full), std::string(4095, 'p'));
}

TEST_F(Descriptor_Path, As_text_is_null_when_there_is_none) {
  EXPECT_EQ(Fullpath(closed_descriptor()), nullptr);
  EXPECT_EQ(Fullpath(-1), nullptr);
  EXPECT_EQ(Fullpath(AT_FDCWD), nullptr);
}

// --------------------------------------------------------------------------------------------------------------- times

struct Times {
  timespec access, modification;
};

bool operator==(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

class File_Time : public Folder_Test {
 protected:
  // Of the link itself where the path is one.
  Times times_of(const std::string &name) const {
    struct stat status;
    EXPECT_EQ(lstat(path(name).c_str(), &status), 0) << name;
    return {status.st_atim, status.st_mtim};
  }

  void expect_times(const std::string &name, timespec access, timespec modification) const {
    const Times times = times_of(name);
    EXPECT_TRUE(times.access == access) << name << " " << times.access.tv_sec << "." << times.access.tv_nsec;
    EXPECT_TRUE(times.modification == modification)
        << name << " " << times.modification.tv_sec << "." << times.modification.tv_nsec;
  }

  static constexpr timespec some_time[2] = {{1'500'000'001, 11}, {1'600'000'002, 22}};
};

TEST_F(File_Time, Is_set_for_access_and_modification) {
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "file", some_time, 0), 0);
  expect_times("file", some_time[0], some_time[1]);
}

TEST_F(File_Time, Is_set_relative_to_an_open_folder) {
  const Descriptor folder = opened(path("folder"));
  EXPECT_EQ(Set_File_Time_At(folder.get(), "inside", some_time, 0), 0);
  expect_times("folder/inside", some_time[0], some_time[1]);
  EXPECT_EQ(Set_File_Modified_Time_At(folder.get(), "inside", 33, 44, 0), 0);
  expect_times("folder/inside", {44, 33}, {44, 33});
  EXPECT_EQ(Set_File_Time_At(folder.get(), path("file").c_str(), some_time, 0), 0);
  expect_times("file", some_time[0], some_time[1]);
}

TEST_F(File_Time, Is_set_for_a_link_or_for_what_it_points_to) {
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "link_to_file", some_time, 0), 0);
  expect_times("file", some_time[0], some_time[1]);
  EXPECT_FALSE(times_of("link_to_file").modification == some_time[1]);

  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "link_to_file", 33, 44, AT_SYMLINK_NOFOLLOW), 0);
  EXPECT_TRUE(times_of("link_to_file").modification == (timespec{44, 33}));
  expect_times("file", some_time[0], some_time[1]);

  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "dangling", some_time, AT_SYMLINK_NOFOLLOW), 0);
  EXPECT_TRUE(times_of("dangling").modification == some_time[1]);
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "dangling", some_time, 0), -ENOENT);
}

TEST_F(File_Time, Of_modification_takes_nanoseconds_before_seconds_and_is_set_for_access_too) {
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "file", 999'999'999, 1'700'000'000, 0), 0);
  expect_times("file", {1'700'000'000, 999'999'999}, {1'700'000'000, 999'999'999});
}

TEST_F(File_Time, Of_modification_reaches_beyond_2038) {
  for (const unsigned int seconds : {0U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "file", 5, seconds, 0), 0);
    expect_times("file", {seconds, 5}, {seconds, 5});
  }
}

TEST_F(File_Time, Takes_the_special_nanoseconds_of_the_system) {
  ASSERT_EQ(Set_File_Time_At(AT_FDCWD, "file", some_time, 0), 0);
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "file", UTIME_OMIT, 77, 0), 0);
  expect_times("file", some_time[0], some_time[1]);

  const timespec access_only[2] = {{5, 6}, {0, UTIME_OMIT}};
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "file", access_only, 0), 0);
  expect_times("file", {5, 6}, some_time[1]);

  const time_t before = time(nullptr);
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "file", UTIME_NOW, 77, 0), 0);
  EXPECT_GE(times_of("file").modification.tv_sec, before - 1);
}

TEST_F(File_Time, Needs_a_folder_a_path_and_times) {
  ASSERT_EQ(Set_File_Time_At(AT_FDCWD, "file", some_time, 0), 0);
  const timespec other[2] = {{1, 1}, {1, 1}};
  const std::string absolute = path("file");

  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, nullptr, other, 0), -EINVAL);
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "file", nullptr, 0), -EINVAL) << "not the present time";
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, nullptr, 1, 1, 0), -EINVAL);
  for (const int fd : no_folder_descriptors) {
    EXPECT_EQ(Set_File_Time_At(fd, absolute.c_str(), other, 0), -EINVAL) << fd;
    EXPECT_EQ(Set_File_Modified_Time_At(fd, absolute.c_str(), 1, 1, 0), -EINVAL) << fd;
  }

  expect_times("file", some_time[0], some_time[1]);
}

TEST_F(File_Time, Null_path_is_refused_for_an_open_file_too) {
  const Descriptor file = opened(path("file"));
  ASSERT_EQ(Set_File_Time_At(AT_FDCWD, "file", some_time, 0), 0);
  EXPECT_EQ(Set_File_Modified_Time_At(file.get(), nullptr, 1, 1, 0), -EINVAL);
  expect_times("file", some_time[0], some_time[1]);
}

TEST_F(File_Time, That_cannot_be_set_is_a_failure) {
  const Descriptor file = opened(path("file"));
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "nowhere", some_time, 0), -ENOENT);
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "", some_time, 0), -ENOENT);
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "file/x", some_time, 0), -ENOTDIR);
  EXPECT_EQ(Set_File_Time_At(file.get(), "x", some_time, 0), -ENOTDIR);
  EXPECT_EQ(Set_File_Time_At(closed_descriptor(), "file", some_time, 0), -EBADF);
  EXPECT_EQ(Set_File_Time_At(AT_FDCWD, "file", some_time, 0x4000'0000), -EINVAL);
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "nowhere", 1, 1, 0), -ENOENT);
  EXPECT_EQ(Set_File_Modified_Time_At(closed_descriptor(), "file", 1, 1, 0), -EBADF);
  EXPECT_EQ(Set_File_Modified_Time_At(AT_FDCWD, "file", 1'000'000'000, 1, 0), -EINVAL);
}

// ------------------------------------------------------------------------------------------------------------- folders

class Folder_Check : public Folder_Test {
 protected:
  static constexpr unsigned int untouched = 4711;

  // The status and the flag.
  static std::tuple<int, unsigned int> check(int dir_fd, const char *path) {
    unsigned int flag = untouched;
    const int status = Check_Folder_At(dir_fd, path, &flag);
    return {status, flag};
  }

  static std::tuple<int, unsigned int> folder() { return {0, 1}; }
  static std::tuple<int, unsigned int> no_folder() { return {0, 0}; }
  static std::tuple<int, unsigned int> failure(int status) { return {status, untouched}; }
};

TEST_F(Folder_Check, Following_links_answers_in_its_result) {
  EXPECT_EQ(Is_Folder("folder"), 1);
  EXPECT_EQ(Is_Folder(path("folder").c_str()), 1);
  EXPECT_EQ(Is_Folder("link_to_folder"), 1);
  EXPECT_EQ(Is_Folder("file"), 0);
  EXPECT_EQ(Is_Folder("link_to_file"), 0);
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  EXPECT_EQ(Is_Folder("fifo"), 0);
  EXPECT_EQ(Is_Folder("/dev/null"), 0);
}

TEST_F(Folder_Check, Following_links_fails_where_there_is_nothing) {
  EXPECT_EQ(Is_Folder(nullptr), -EINVAL);
  EXPECT_EQ(Is_Folder("nowhere"), -ENOENT);
  EXPECT_EQ(Is_Folder(""), -ENOENT);
  EXPECT_EQ(Is_Folder("dangling"), -ENOENT);
  EXPECT_EQ(Is_Folder("circle"), -ELOOP);
  EXPECT_EQ(Is_Folder("file/x"), -ENOTDIR);
  EXPECT_EQ(Is_Folder(std::string(256, 'x').c_str()), -ENAMETOOLONG);
}

TEST_F(Folder_Check, Answers_in_the_flag_and_follows_no_link) {
  EXPECT_EQ(check(AT_FDCWD, "folder"), folder());
  EXPECT_EQ(check(AT_FDCWD, path("folder").c_str()), folder());
  EXPECT_EQ(check(AT_FDCWD, "file"), no_folder());
  EXPECT_EQ(check(AT_FDCWD, "link_to_folder"), no_folder());
  EXPECT_EQ(check(AT_FDCWD, "link_to_folder/."), folder()) << "the last component is none";
  EXPECT_EQ(check(AT_FDCWD, "dangling"), no_folder());
  EXPECT_EQ(check(AT_FDCWD, "circle"), no_folder());
}

TEST_F(Folder_Check, Looks_relative_to_an_open_folder) {
  const Descriptor folder_fd = opened(path("folder"));
  std::filesystem::create_directory(path("folder/deeper"));
  EXPECT_EQ(check(folder_fd.get(), "deeper"), folder());
  EXPECT_EQ(check(folder_fd.get(), "inside"), no_folder());
  EXPECT_EQ(check(folder_fd.get(), "file"), failure(-ENOENT));
  EXPECT_EQ(check(-100, "folder"), folder()) << "the working directory";
}

TEST_F(Folder_Check, Leaves_the_flag_alone_when_it_fails) {
  const Descriptor file = opened(path("file"));
  EXPECT_EQ(check(AT_FDCWD, "nowhere"), failure(-ENOENT));
  EXPECT_EQ(check(AT_FDCWD, ""), failure(-ENOENT));
  EXPECT_EQ(check(AT_FDCWD, "file/x"), failure(-ENOTDIR));
  EXPECT_EQ(check(file.get(), "x"), failure(-ENOTDIR));
  EXPECT_EQ(check(closed_descriptor(), "x"), failure(-EBADF));
  EXPECT_EQ(check(AT_FDCWD, nullptr), failure(-EINVAL));
  for (const int fd : no_folder_descriptors) EXPECT_EQ(check(fd, "/"), failure(-EINVAL)) << fd;
  EXPECT_EQ(Check_Folder_At(AT_FDCWD, "folder", nullptr), -EINVAL);
}

TEST_F(Folder_Check, Without_a_descriptor_looks_from_the_working_directory) {
  unsigned int flag = untouched;
  EXPECT_EQ(Check_Folder("folder", &flag), 0);
  EXPECT_EQ(flag, 1U);
  EXPECT_EQ(Check_Folder("link_to_folder", &flag), 0);
  EXPECT_EQ(flag, 0U);
  flag = untouched;
  EXPECT_EQ(Check_Folder("nowhere", &flag), -ENOENT);
  EXPECT_EQ(Check_Folder(nullptr, &flag), -EINVAL);
  EXPECT_EQ(flag, untouched);
  EXPECT_EQ(Check_Folder("folder", nullptr), -EINVAL);
}

// --------------------------------------------------------------------------------------------------------------- files

using File_Check = Folder_Test;

TEST_F(File_Check, Finds_a_name_of_any_type_and_follows_no_link) {
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  for (const char *name : {"file", "folder", "link_to_file", "link_to_folder", "dangling", "circle", "fifo", "."}) {
    EXPECT_EQ(Check_File_At(AT_FDCWD, name), 1) << name;
    EXPECT_EQ(Check_File(name), 1) << name;
    EXPECT_EQ(Check_File(path(name).c_str()), 1) << name;
  }
}

TEST_F(File_Check, Answers_0_where_there_is_no_such_name) {
  for (const char *name : {"nowhere", "nowhere/x", "dangling/x", ""}) {
    EXPECT_EQ(Check_File_At(AT_FDCWD, name), 0) << name;
    EXPECT_EQ(Check_File(name), 0) << name;
  }
}

TEST_F(File_Check, Looks_relative_to_an_open_folder) {
  const Descriptor folder = opened(path("folder"));
  EXPECT_EQ(Check_File_At(folder.get(), "inside"), 1);
  EXPECT_EQ(Check_File_At(folder.get(), "file"), 0);
  EXPECT_EQ(Check_File_At(folder.get(), path("file").c_str()), 1);
  EXPECT_EQ(Check_File_At(-100, "file"), 1) << "the working directory";
}

TEST_F(File_Check, Takes_no_other_failure_for_an_answer) {
  const Descriptor file = opened(path("file"));
  const std::string too_long(256, 'x');
  EXPECT_EQ(Check_File("file/x"), -ENOTDIR);
  EXPECT_EQ(Check_File("circle/x"), -ELOOP);
  EXPECT_EQ(Check_File(too_long.c_str()), -ENAMETOOLONG);
  EXPECT_EQ(Check_File_At(file.get(), "x"), -ENOTDIR);
  EXPECT_EQ(Check_File_At(closed_descriptor(), "file"), -EBADF);
  std::filesystem::permissions("folder", std::filesystem::perms::none);
  std::filesystem::permissions(".", std::filesystem::perms::all);
  EXPECT_EQ(in_child([] {
              become_nobody();
              EXPECT_EQ(Check_File("folder/inside"), -EACCES);
            }),
            0);
}

TEST_F(File_Check, Needs_a_folder_and_a_path) {
  EXPECT_EQ(Check_File(nullptr), -EINVAL);
  EXPECT_EQ(Check_File_At(AT_FDCWD, nullptr), -EINVAL);
  for (const int fd : no_folder_descriptors) EXPECT_EQ(Check_File_At(fd, "/"), -EINVAL) << fd;
}

// ---------------------------------------------------------------------------------------------------------------- size

class File_Size : public Folder_Test {
 protected:
  static constexpr uint64_t untouched = 4711;

  // The status and the size.
  static std::tuple<int, uint64_t> size_of(const char *path) {
    uint64_t size = untouched;
    const int status = Get_File_Size(path, &size);
    return {status, size};
  }

  static std::tuple<int, uint64_t> size(uint64_t bytes) { return {0, bytes}; }
  static std::tuple<int, uint64_t> failure(int status) { return {status, untouched}; }
};

TEST_F(File_Size, Is_that_of_the_file_behind_all_links) {
  EXPECT_EQ(size_of("file"), size(5));
  EXPECT_EQ(size_of("link_to_file"), size(5));
  EXPECT_EQ(size_of("folder/inside"), size(0));
  EXPECT_EQ(std::get<0>(size_of("folder")), 0);
}

TEST_F(File_Size, Reaches_beyond_32_bits) {
  constexpr int64_t bytes = 5'000'000'000;
  ASSERT_EQ(truncate("file", bytes), 0);
  EXPECT_EQ(size_of("file"), size(bytes));
}

TEST_F(File_Size, Is_left_alone_when_it_cannot_be_told) {
  EXPECT_EQ(size_of("nowhere"), failure(-ENOENT));
  EXPECT_EQ(size_of("dangling"), failure(-ENOENT));
  EXPECT_EQ(size_of(""), failure(-ENOENT));
  EXPECT_EQ(size_of("file/x"), failure(-ENOTDIR));
  EXPECT_EQ(size_of("circle"), failure(-ELOOP));
  EXPECT_EQ(size_of(nullptr), failure(-EINVAL));
  EXPECT_EQ(Get_File_Size("file", nullptr), -EINVAL);
}

}  // namespace
