#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string marker = "$$@#!$$";

// ------------------------------------------------------------------------------------------------- is it a temporary?

struct Name_Case {
  const char *path;
  int result;
};

class Check_Of : public testing::TestWithParam<Name_Case> {};

TEST_P(Check_Of, Answers_0_when_the_base_name_begins_with_the_marker) {
  EXPECT_EQ(Check_Temp_Filename(GetParam().path), GetParam().result);
}

INSTANTIATE_TEST_SUITE_P(Names, Check_Of,
                         testing::Values(Name_Case{"$$@#!$$000", 0}, Name_Case{"/a/b/$$@#!$$000001", 0},
                                         Name_Case{"a/$$@#!$$", 0}, Name_Case{"$$@#!$$x", 0}, Name_Case{"smb.conf", 1},
                                         Name_Case{"/etc/smb.conf", 1}, Name_Case{"", 1}, Name_Case{"/", 1},
                                         Name_Case{"$$@#!$", 1}, Name_Case{"x$$@#!$$000", 1},
                                         Name_Case{"$$@#!$$000/file", 1}, Name_Case{"$$@#!$$000/", 1},
                                         Name_Case{nullptr, -EINVAL}));

// ------------------------------------------------------------------------------------------------- the three functions

// One way to a free name; the working directory is a folder of the test's own.
class Temporary_Names : public Descriptor_Count {
 protected:
  Temporary_Names() { EXPECT_EQ(chdir(folder_.path().c_str()), 0); }
  ~Temporary_Names() override { EXPECT_EQ(chdir("/"), 0); }

  int generate(const char *path, int size) { return Generate_Temp_Filename(AT_FDCWD, path, name_, size); }
  int open_at(const char *path, int size) {
    return taken(Open_Unique_Temp_File_At(AT_FDCWD, path, O_RDWR | O_CLOEXEC, 0600, size, name_, &fd_));
  }
  int open_plain(const char *path, int size) {
    return taken(Open_Unique_Temp_File(path, O_RDWR | O_CLOEXEC, 0600, size, name_, &fd_));
  }
  int taken(int status) {
    const Descriptor opened(fd_);
    EXPECT_EQ(fd_ >= 0, status == 0);
    return status;
  }

  void make(const std::string &name) const { write_file(folder_ / name, "of somebody else"); }
  bool is_untouched() const { return name_[0] == '#' && name_[sizeof name_ - 1] == '#'; }

  const Temporary_Folder folder_;
  const Log_Capture log_;
  char name_[8192] = {};
  int fd_ = 77777;

  void SetUp() override { memset(name_, '#', sizeof name_); }
};

TEST_F(Temporary_Names, Begin_with_number_0_in_three_or_six_digits) {
  EXPECT_EQ(generate("some.conf", 100), 0);
  EXPECT_EQ(name_, marker + "000");
  EXPECT_EQ(open_at("some.conf", 100), 0);
  EXPECT_EQ(name_, marker + "000");
  EXPECT_EQ(open_plain("some.conf", 100), 0);
  EXPECT_EQ(name_, marker + "000000");
  EXPECT_THAT(names_in(folder_.path()), ElementsAre(marker + "000", marker + "000000"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Temporary_Names, Are_the_first_that_are_free) {
  for (const char *number : {"000", "001", "002", "003", "004", "006"}) make(marker + number);
  EXPECT_EQ(generate("x", 100), 0);
  EXPECT_EQ(name_, marker + "005");
  EXPECT_EQ(open_at("x", 100), 0);
  EXPECT_EQ(name_, marker + "005");
  EXPECT_EQ(open_at("x", 100), 0);
  EXPECT_EQ(name_, marker + "007");
  make(marker + "000000");
  EXPECT_EQ(open_plain("x", 100), 0);
  EXPECT_EQ(name_, marker + "000001");
}

TEST_F(Temporary_Names, Are_in_the_templates_folder_and_leave_its_base_name_out) {
  ASSERT_EQ(mkdir("sub", 0700), 0);
  ASSERT_EQ(mkdir("sub/%s%n$1", 0700), 0);
  for (const std::string &folder :
       {std::string("sub/"), std::string("./sub//"), folder_ / "sub/", folder_ / "", std::string("sub/%s%n$1/")}) {
    EXPECT_EQ(generate((folder + "a%d.conf").c_str(), 200), 0);
    EXPECT_EQ(name_, folder + marker + "000");
    EXPECT_EQ(open_at((folder + "a").c_str(), 200), 0);
    EXPECT_EQ(name_, folder + marker + "000");
    EXPECT_EQ(unlink(name_), 0);
    EXPECT_EQ(open_plain((folder + "").c_str(), 200), 0);
    EXPECT_EQ(name_, folder + marker + "000000");
    EXPECT_EQ(unlink(name_), 0);
  }
  EXPECT_EQ(generate("/x", 100), 0);
  EXPECT_EQ(name_, "/" + marker + "000");
}

TEST_F(Temporary_Names, Grow_by_digits_behind_999) {
  // What has been made up so far counts as taken.
  const On_File_Call taken(File_Call::openat, [](const std::string &path) {
    return path.starts_with(marker) && path.size() <= marker.size() + 3 ? EEXIST : 0;
  });
  EXPECT_EQ(open_at("x", 100), 0);
  EXPECT_EQ(name_, marker + "1000");
}

TEST_F(Temporary_Names, Count_links_that_lead_nowhere_as_taken) {
  ASSERT_EQ(symlink("nowhere", (marker + "000").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", (marker + "000000").c_str()), 0);
  EXPECT_EQ(generate("x", 100), 0);
  EXPECT_EQ(name_, marker + "001");
  EXPECT_EQ(open_at("x", 100), 0);
  EXPECT_EQ(name_, marker + "001");
  EXPECT_EQ(open_plain("x", 100), 0);
  EXPECT_EQ(name_, marker + "000001");
  EXPECT_FALSE(exists("nowhere"));
}

TEST_F(Temporary_Names, Are_relative_to_an_open_folder) {
  const Temporary_Folder other;
  const Descriptor folder(open(other.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  write_file(other / (marker + "000"), "");
  EXPECT_EQ(Generate_Temp_Filename(folder.get(), "x", name_, 100), 0);
  EXPECT_EQ(name_, marker + "001");
  EXPECT_EQ(taken(Open_Unique_Temp_File_At(folder.get(), "x", O_WRONLY | O_CLOEXEC, 0600, 100, name_, &fd_)), 0);
  EXPECT_EQ(name_, marker + "001");
  EXPECT_TRUE(exists(other / (marker + "001")));
  EXPECT_THAT(names_in(folder_.path()), IsEmpty());
}

TEST_F(Temporary_Names, Refuse_missing_arguments_and_set_the_descriptor_to_minus_1_all_the_same) {
  EXPECT_EQ(Generate_Temp_Filename(AT_FDCWD, nullptr, name_, 100), -EINVAL);
  EXPECT_EQ(Generate_Temp_Filename(AT_FDCWD, "x", nullptr, 100), -EINVAL);
  EXPECT_EQ(Generate_Temp_Filename(-1, "x", name_, 100), -EINVAL);
  EXPECT_EQ(Open_Unique_Temp_File_At(AT_FDCWD, "x", O_RDWR, 0600, 100, name_, nullptr), -EINVAL);
  EXPECT_EQ(Open_Unique_Temp_File("x", O_RDWR, 0600, 100, name_, nullptr), -EINVAL);
  const auto refused = [this](auto open_it) {
    fd_ = 77777;
    EXPECT_EQ(open_it(), -EINVAL);
    EXPECT_EQ(fd_, -1);
  };
  refused([this] { return Open_Unique_Temp_File_At(AT_FDCWD, nullptr, O_RDWR, 0600, 100, name_, &fd_); });
  refused([this] { return Open_Unique_Temp_File_At(-1, "x", O_RDWR, 0600, 100, name_, &fd_); });
  refused([this] { return Open_Unique_Temp_File(nullptr, O_RDWR, 0600, 100, name_, &fd_); });
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(names_in(folder_.path()), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Temporary_Names, Leave_other_bad_descriptors_to_the_system_call) {
  EXPECT_EQ(Generate_Temp_Filename(-2, "x", name_, 100), 0) << "a failed look-up counts as free";
  EXPECT_EQ(name_, marker + "000");
  EXPECT_EQ(taken(Open_Unique_Temp_File_At(-2, "x", O_RDWR, 0600, 100, name_, &fd_)), -EBADF);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Open_Unique_Temp_File_At",
                                                   "Can't open the destination file " + marker + "000 error! (-9)")));
}

TEST_F(Temporary_Names, Count_as_free_when_they_cannot_be_looked_up) {
  make(marker + "000");
  const On_File_Call broken(File_Call::fstatat, fails_with(EIO));
  EXPECT_EQ(generate("x", 100), 0);
  EXPECT_EQ(name_, marker + "000");
  EXPECT_EQ(generate("missing/x", 100), 0);
  EXPECT_EQ(name_, "missing/" + marker + "000");
}

// ---------------------------------------------------------------------------------------------------------- the size

struct Room_Case {
  const char *path;
  int three_digits;  // the least size for three digits
};

class Temporary_Names_In_Little_Room : public Temporary_Names, public testing::WithParamInterface<Room_Case> {
 protected:
  void SetUp() override {
    Temporary_Names::SetUp();
    ASSERT_EQ(mkdir("a", 0700), 0);
  }

  Log_Line too_small(const char *function, int needed, int size) {
    return error_line(function, "ERROR: The provided buffer is too small (" + std::to_string(needed) + ", " +
                                    std::to_string(size) + ").");
  }
};

INSTANTIATE_TEST_SUITE_P(Templates, Temporary_Names_In_Little_Room,
                         testing::Values(Room_Case{"x", 11}, Room_Case{"", 11}, Room_Case{"/tmp/x", 16},
                                         Room_Case{"a/x", 13}, Room_Case{"a/", 13}, Room_Case{"/x", 12}));

TEST_P(Temporary_Names_In_Little_Room, Fit_exactly_or_are_refused_with_the_sizes_and_no_file) {
  const auto &[path, least] = GetParam();
  for (const int size : {least - 1, 0, -1, INT_MIN}) {
    EXPECT_EQ(generate(path, size), -EOVERFLOW);
    EXPECT_EQ(open_at(path, size), -EOVERFLOW);
    EXPECT_EQ(open_plain(path, size), -EOVERFLOW);
    EXPECT_THAT(log_.lines(), testing::IsSupersetOf({too_small("Generate_Temp_Filename", least, size),
                                                     too_small("Open_Unique_Temp_File_At", least, size),
                                                     too_small("Open_Unique_Temp_File", least + 3, size)}));
  }
  EXPECT_EQ(open_plain(path, least + 2), -EOVERFLOW);
  EXPECT_EQ(log_.lines().back(), too_small("Open_Unique_Temp_File", least + 3, least + 2));
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("a"));
  EXPECT_THAT(names_in("a"), IsEmpty());

  EXPECT_EQ(generate(path, least), 0);
  EXPECT_EQ(name_[least - 1], '\0');
  EXPECT_EQ(name_[least], '#') << "written behind the buffer";
  EXPECT_EQ(open_at(path, least), 0);
  EXPECT_EQ(unlink(name_), 0);
  EXPECT_EQ(name_[least], '#');
  EXPECT_EQ(open_plain(path, least + 3), 0);
  EXPECT_EQ(unlink(name_), 0);
  EXPECT_EQ(name_[least + 3], '#');
}

TEST_F(Temporary_Names, Of_more_digits_than_the_buffer_has_room_for_are_refused_before_a_file_is_made) {
  const On_File_Call opened(File_Call::openat,
                            [](const std::string &path) { return path.size() == marker.size() + 3 ? EEXIST : 0; });
  EXPECT_EQ(open_at("x", 11), -EOVERFLOW);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Open_Unique_Temp_File_At", "ERROR: The provided buffer is too small (12, 11).")));
  EXPECT_THAT(names_in(folder_.path()), IsEmpty());
  EXPECT_TRUE(is_untouched());
  EXPECT_EQ(open_at("x", 12), 0);
  EXPECT_EQ(name_, marker + "1000");
  EXPECT_EQ(name_[12], '#');
}

TEST_F(Temporary_Names, Generated_of_more_digits_than_the_buffer_has_room_for_are_refused) {
  const On_File_Call taken(File_Call::fstatat,
                           [](const std::string &path) { return path.size() == marker.size() + 3 ? answers_zero : 0; });
  EXPECT_EQ(generate("x", 11), -EOVERFLOW);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Generate_Temp_Filename", "ERROR: The provided buffer is too small (12, 11).")));
  EXPECT_TRUE(is_untouched());
  EXPECT_EQ(generate("x", 12), 0);
  EXPECT_EQ(name_, marker + "1000");
  EXPECT_EQ(name_[12], '#');
}

TEST_F(Temporary_Names, Need_no_room_when_nobody_asks_for_the_name) {
  for (const int size : {0, -5, 3}) {
    EXPECT_EQ(taken(Open_Unique_Temp_File_At(AT_FDCWD, "x", O_RDWR | O_CLOEXEC, 0600, size, nullptr, &fd_)), 0);
    EXPECT_EQ(taken(Open_Unique_Temp_File("x", O_RDWR | O_CLOEXEC, 0600, size, nullptr, &fd_)), 0);
  }
  EXPECT_EQ(names_in(folder_.path()).size(), 6u);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// A cut name would be one in another folder.
TEST_F(Temporary_Names, Whose_folder_part_is_longer_than_a_path_are_refused_whole) {
  for (const size_t length : {size_t{4079}, size_t{4090}, size_t{4096}, size_t{5000}}) {
    const std::string path = std::string(length - 1, 'a') + "/x";
    EXPECT_EQ(generate(path.c_str(), sizeof name_), -EOVERFLOW) << length;
    EXPECT_EQ(open_at(path.c_str(), sizeof name_), -EOVERFLOW);
    EXPECT_EQ(open_plain(path.c_str(), sizeof name_), -EOVERFLOW);
    EXPECT_TRUE(is_untouched());
  }
  std::string deep;
  while (deep.size() < 3900) deep += "./";
  EXPECT_EQ(open_at((deep + "x").c_str(), sizeof name_), 0);
  EXPECT_EQ(name_, deep + marker + "000");
  EXPECT_EQ(open_plain((deep + "x").c_str(), sizeof name_), 0);
  EXPECT_EQ(name_, deep + marker + "000000");
}

// ---------------------------------------------------------------------------------------------------------- the open

TEST_F(Temporary_Names, Are_opened_with_the_callers_flags_and_the_permission_bits_of_the_mode) {
  const mode_t before = umask(027);
  EXPECT_EQ(Open_Unique_Temp_File_At(AT_FDCWD, "x", O_WRONLY | O_APPEND | O_CLOEXEC, 06777, 100, name_, &fd_), 0);
  {
    const Descriptor first(fd_);
    EXPECT_EQ(mode_of(name_), 0750u) << "no set-id bits, less the umask";
    EXPECT_EQ(fcntl(fd_, F_GETFL) & (O_ACCMODE | O_APPEND), O_WRONLY | O_APPEND);
    EXPECT_EQ(fcntl(fd_, F_GETFD), FD_CLOEXEC);
  }
  EXPECT_EQ(Open_Unique_Temp_File("x", O_RDWR, 01644, 100, name_, &fd_), 0);
  umask(before);
  const Descriptor second(fd_);
  EXPECT_EQ(mode_of(name_), 0640u);
  EXPECT_EQ(fcntl(fd_, F_GETFL) & (O_ACCMODE | O_APPEND), O_RDWR);
  EXPECT_EQ(fcntl(fd_, F_GETFD), 0);
}

TEST_F(Temporary_Names, That_cannot_be_opened_are_told_with_the_error_and_not_tried_further) {
  EXPECT_EQ(open_at("missing/x", 100), -ENOENT);
  EXPECT_EQ(open_plain("missing/x", 100), -ENOENT);
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("Open_Unique_Temp_File_At",
                                     "Can't open the destination file missing/" + marker + "000 error! (-2)"),
                          debug_line("Open_Unique_Temp_File",
                                     "Can't open the destination file missing/" + marker + "000000! (-2)")));
  {
    const On_File_Call broken(File_Call::openat, fails_with(EMFILE));
    EXPECT_EQ(open_at("x", 100), -EMFILE);
    EXPECT_EQ(open_plain("x", 100), -EMFILE);
  }
  EXPECT_THAT(names_in(folder_.path()), IsEmpty());
}

TEST_F(Temporary_Names, Taken_by_many_threads_at_once_are_all_different) {
  constexpr int threads = 4, each = 50;
  std::vector<std::vector<std::string>> names(threads);
  std::vector<std::thread> openers;
  for (auto &own : names) {
    openers.emplace_back([&own] {
      for (int i = 0; i < each; ++i) {
        char name[100];
        int fd = -1;
        EXPECT_EQ(Open_Unique_Temp_File_At(AT_FDCWD, "x", O_RDWR | O_CLOEXEC, 0600, sizeof name, name, &fd), 0);
        const Descriptor opened(fd);
        own.emplace_back(name);
      }
    });
  }
  for (std::thread &opener : openers) opener.join();
  std::set<std::string> all;
  for (const auto &own : names) all.insert(own.begin(), own.end());
  EXPECT_EQ(all.size(), size_t{threads * each});
}

// ----------------------------------------------------------------------------------------------------- none is free

// All names of the marker are taken, or all but the last.
class Temporary_Names_Exhausted : public Temporary_Names {
 protected:
  // The hook of a call that finds every name taken, but one.
  On_File_Call::Hook all_taken(int answer, std::optional<std::string> free_name = {}) {
    return [this, answer, free_name](const std::string &path) {
      ++tries_;
      last_ = path;
      return free_name && path.ends_with(*free_name) ? 0 : answer;
    };
  }

  int tries_ = 0;
  std::string last_;
};

TEST_F(Temporary_Names_Exhausted, End_with_number_999999_which_is_tried_too) {
  {
    const On_File_Call taken(File_Call::openat, all_taken(EEXIST, "999999"));
    EXPECT_EQ(open_at("x", 100), 0);
    EXPECT_EQ(name_, marker + "999999");
    EXPECT_EQ(tries_, 1'000'000);
    EXPECT_EQ(unlink(name_), 0);
    EXPECT_EQ(open_plain("x", 100), 0);
    EXPECT_EQ(name_, marker + "999999");
    EXPECT_EQ(tries_, 2'000'000);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Temporary_Names_Exhausted, Are_told_by_the_opening_at_a_folder_and_nothing_is_removed) {
  make(marker + "999999");
  {
    const On_File_Call taken(File_Call::openat, all_taken(EEXIST));
    EXPECT_EQ(open_at("./x", 100), -ERANGE);
  }
  EXPECT_EQ(tries_, 1'000'000);
  EXPECT_EQ(last_, "./" + marker + "999999");
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(names_in(folder_.path()), ElementsAre(marker + "999999"));
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Open_Unique_Temp_File_At",
                                                   "ERROR: The number of the temporal filename has exceeded the "
                                                   "maximum. (./" +
                                                       marker + "999999)")));
}

// Callers count on it: the next attempt finds the last name free.
TEST_F(Temporary_Names_Exhausted, Make_the_plain_opening_remove_the_last_one_of_somebody_else) {
  make(marker + "999999");
  make(marker + "999998");
  {
    const On_File_Call taken(File_Call::openat, all_taken(EEXIST));
    EXPECT_EQ(open_plain("./x", 100), -ERANGE);
  }
  EXPECT_EQ(tries_, 1'000'000);
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(names_in(folder_.path()), ElementsAre(marker + "999998"));
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Open_Unique_Temp_File",
                                                   "The number of the temporal filename has exceeded the maximum! (./" +
                                                       marker + "999999)")));
}

TEST_F(Temporary_Names_Exhausted, Are_told_by_the_generator) {
  {
    const On_File_Call taken(File_Call::fstatat, all_taken(answers_zero, "999999"));
    EXPECT_EQ(generate("./x", 100), 0);
    EXPECT_EQ(name_, "./" + marker + "999999");
    EXPECT_EQ(tries_, 1'000'000);
    EXPECT_THAT(log_.lines(), IsEmpty());
  }
  memset(name_, '#', sizeof name_);
  const On_File_Call taken(File_Call::fstatat, all_taken(answers_zero));
  EXPECT_EQ(generate("./x", 100), -ERANGE);
  EXPECT_EQ(tries_, 2'000'000);
  EXPECT_TRUE(is_untouched());
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Generate_Temp_Filename",
                                                   "ERROR: The number of the temporal filename has exceeded the "
                                                   "maximum. (./" +
                                                       marker + "999999)")));
}

}  // namespace
