#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/long_path.h"
#include "tests/support/pinned_file.h"
#include "tests/support/small_disk.h"
#include "tests/support/standard_output.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using Lines = std::vector<Log_Line>;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr int64_t now_ms = 1'700'000'000'000;
constexpr size_t prefix_length = 22;  // "[2026-11-21 05:08:09] "
const char *const default_prefix = R"(\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\] )";

// A handle that is released at the end.
class Handle {
 public:
  explicit Handle(const std::string &path, int hour_system = 24, int date_format = 3) {
    EXPECT_EQ(Simp_Log_Create(path.c_str(), &handle_, hour_system, date_format, 0), 0);
  }
  ~Handle() { Simp_Log_Release(handle_); }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  operator Simp_Log *() const { return handle_; }
  Simp_Log *operator->() const { return handle_; }

 private:
  Simp_Log *handle_ = nullptr;
};

class Opened_Handle : public Handle {
 public:
  explicit Opened_Handle(const std::string &path, int hour_system = 24, int date_format = 3)
      : Handle(path, hour_system, date_format) {
    EXPECT_EQ(Simp_Log_Open(*this, 0), 0);
  }
};

std::string message_of(size_t length) {
  std::string text(length, 'm');
  if (length > 0) text.back() = 'e';
  return text;
}

std::vector<std::string> split(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string without_prefix(const std::string &line) {
  return line.substr(std::min(prefix_length, line.size()));
}

class Log_Test : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  Temporary_Folder folder_;
  const std::string path_ = folder_ / "tarn_log_test.log";
};

// ---------------------------------------------------------------------------------------------------------- globals

TEST_F(Log_Test, Globals_start_without_a_log_and_at_error_level) {
  EXPECT_EQ(g_ptslLog, nullptr);
  EXPECT_EQ(g_idLogLevel, 1);
}

// --------------------------------------------------------------------------------------------------------- creation

class Creation : public Log_Test {
 protected:
  static Simp_Log *untouched() {
    static Simp_Log log;
    return &log;
  }

  int create(const std::string &path, int truncate = 0) {
    return Simp_Log_Create(path.c_str(), &handle_, 12, 9, truncate);
  }

  void TearDown() override {
    if (handle_ != untouched()) Simp_Log_Release(handle_);
  }

  Simp_Log *handle_ = untouched();
};

TEST_F(Creation, Refuses_a_missing_output_before_anything_is_done) {
  EXPECT_EQ(Simp_Log_Create((folder_ / "new/log").c_str(), nullptr, 24, 3, 1), -EINVAL);
  EXPECT_EQ(Simp_Log_Create(nullptr, nullptr, 24, 3, 0), -EINVAL);
  EXPECT_TRUE(names_in(folder_.path()).empty());
}

TEST_F(Creation, Refuses_a_relative_or_empty_path_and_leaves_the_output_alone) {
  for (const char *path : {"", "log", "./log", "log/x", " /tmp/log"}) {
    EXPECT_EQ(create(path), -EINVAL) << path;
    EXPECT_EQ(handle_, untouched());
  }
}

TEST_F(Creation, Gives_a_closed_handle_that_holds_what_was_given) {
  ASSERT_EQ(Simp_Log_Create(path_.c_str(), &handle_, 12, 9, 0), 0);

  EXPECT_EQ(handle_->stream, nullptr);
  EXPECT_EQ(handle_->hour_system, 12);
  EXPECT_EQ(handle_->date_format, 9);
  EXPECT_EQ(handle_->path, path_);
  EXPECT_FALSE(exists(path_)) << "the file is opened by Simp_Log_Open only";
}

TEST_F(Creation, Keeps_unknown_format_codes_for_the_formatters_to_judge) {
  ASSERT_EQ(Simp_Log_Create(path_.c_str(), &handle_, 99, 77, 0), 0);
  EXPECT_EQ(handle_->hour_system, 99);
  EXPECT_EQ(handle_->date_format, 77);
}

TEST_F(Creation, Makes_the_missing_parent_folders) {
  const mode_t mask = umask(0);
  const int result = create(folder_ / "a/b/c/log");
  umask(mask);

  ASSERT_EQ(result, 0);
  EXPECT_EQ(mode_of(folder_ / "a"), 0755U);
  EXPECT_EQ(mode_of(folder_ / "a/b"), 0755U);
  EXPECT_EQ(mode_of(folder_ / "a/b/c"), 0755U);
  EXPECT_TRUE(names_in(folder_ / "a/b/c").empty());
}

TEST_F(Creation, Leaves_existing_parent_folders_as_they_are) {
  ASSERT_EQ(mkdir((folder_ / "a").c_str(), 0700), 0);
  write_file(folder_ / "a/kept", "kept");

  ASSERT_EQ(create(folder_ / "a/b/log"), 0);

  EXPECT_EQ(mode_of(folder_ / "a"), 0700U);
  EXPECT_EQ(read_file(folder_ / "a/kept"), "kept");
}

TEST_F(Creation, Passes_over_a_parent_that_is_a_link_to_a_folder) {
  ASSERT_EQ(mkdir((folder_ / "real").c_str(), 0755), 0);
  ASSERT_EQ(symlink("real", (folder_ / "link").c_str()), 0);

  ASSERT_EQ(create(folder_ / "link/sub/log"), 0);

  EXPECT_TRUE(std::filesystem::is_symlink(folder_ / "link"));
  EXPECT_TRUE(exists(folder_ / "real/sub"));
}

TEST_F(Creation, Puts_a_folder_in_the_place_of_a_file_among_the_parents) {
  write_file(folder_ / "a", "a file");

  ASSERT_EQ(create(folder_ / "a/b/log"), 0);

  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "a/b"));
}

TEST_F(Creation, Drops_one_trailing_slash_for_the_parents_and_keeps_it_in_the_handle) {
  ASSERT_EQ(create(folder_ / "a/b/"), 0);

  EXPECT_TRUE(exists(folder_ / "a"));
  EXPECT_FALSE(exists(folder_ / "a/b"));
  EXPECT_EQ(handle_->path, folder_ / "a/b/");
}

TEST_F(Creation, Takes_doubled_slashes) {
  ASSERT_EQ(create("/" + folder_.path() + "//a///b//log"), 0);
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "a/b"));
}

TEST_F(Creation, Takes_a_file_in_the_root_folder) {
  ASSERT_EQ(create("/tarn_test.log"), 0);
  EXPECT_STREQ(handle_->path, "/tarn_test.log");
  EXPECT_FALSE(exists("/tarn_test.log"));
}

TEST_F(Creation, Tells_the_folder_that_could_not_be_made) {
  const Log_Capture log;

  EXPECT_EQ(create("/proc/tarn_nothing/sub/log"), -ENOENT);

  EXPECT_EQ(handle_, nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Simp_Log_Create", "Can't create the folder \"/proc/tarn_nothing\"! (-2)")));
}

TEST_F(Creation, Takes_a_dangling_link_among_the_parents_for_missing_and_tells_what_mkdir_says) {
  const Log_Capture log;
  const std::string link = folder_ / "dangling";
  ASSERT_EQ(symlink("nowhere", link.c_str()), 0);

  EXPECT_EQ(create(link + "/sub/log"), -EEXIST);

  EXPECT_EQ(handle_, nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Simp_Log_Create", "Can't create the folder \"" + link + "\"! (-17)")));
}

TEST_F(Creation, Tells_the_parent_that_could_not_be_removed) {
  const std::string parent = folder_ / "pinned";
  write_file(parent, "text");
  const Log_Capture log;
  const Pinned_File pin(parent);

  EXPECT_EQ(create(parent + "/sub/log"), -EBUSY);

  EXPECT_EQ(handle_, nullptr);
  EXPECT_EQ(read_file(parent), "text");
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Simp_Log_Create", "Can't remove a file error! (-16, " + parent + ")")));
}

TEST_F(Creation, Reports_nothing_without_a_log_or_with_the_gate_shut) {
  EXPECT_EQ(output_of([&] { EXPECT_EQ(create("/proc/tarn_nothing/log"), -ENOENT); }), "");
  const Log_Capture log(0);
  EXPECT_EQ(create("/proc/tarn_nothing/log"), -ENOENT);
  EXPECT_EQ(log.text(), "");
}

TEST_F(Creation, Takes_a_path_of_4095_characters) {
  const std::string longest = path_of_length(folder_.path(), 4095);

  ASSERT_EQ(create(longest), 0);

  EXPECT_EQ(handle_->path, longest);
  EXPECT_EQ(Simp_Log_Open(handle_, 0), 0);
  EXPECT_EQ(Simp_Log_Write(handle_, "text"), 0);
  EXPECT_TRUE(exists(longest));
}

TEST_F(Creation, Refuses_a_longer_path_and_makes_nothing) {
  for (const size_t length : {4096U, 4097U, 5000U}) {
    handle_ = untouched();
    EXPECT_EQ(create(path_of_length(folder_.path(), length), 1), -ENAMETOOLONG);
    EXPECT_EQ(handle_, nullptr);
  }
  EXPECT_TRUE(names_in(folder_.path()).empty());
}

TEST_F(Creation, Without_a_path_gives_a_console_handle) {
  ASSERT_EQ(Simp_Log_Create(nullptr, &handle_, 12, 9, 1), 0);

  EXPECT_EQ(handle_->stream, stdout);
  EXPECT_EQ(handle_->hour_system, 12);
  EXPECT_EQ(handle_->date_format, 9);
  EXPECT_STREQ(handle_->path, "");
}

TEST_F(Creation, With_truncate_makes_the_file_and_closes_it_again) {
  const int before = open_descriptors();

  ASSERT_EQ(create(folder_ / "a/log", 1), 0);

  EXPECT_EQ(read_file(folder_ / "a/log"), "");
  EXPECT_EQ(handle_->stream, nullptr);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(Creation, With_truncate_empties_an_existing_file) {
  write_file(path_, "old\n");
  ASSERT_EQ(create(path_, -1), 0);
  EXPECT_EQ(read_file(path_), "");
}

TEST_F(Creation, Without_truncate_leaves_an_existing_file) {
  write_file(path_, "old\n");
  ASSERT_EQ(create(path_, 0), 0);
  EXPECT_EQ(read_file(path_), "old\n");
}

TEST_F(Creation, Succeeds_although_the_file_cannot_be_emptied_and_tells_it) {
  const Log_Capture log;
  ASSERT_EQ(mkdir(path_.c_str(), 0755), 0);

  EXPECT_EQ(create(path_, 1), 0);

  ASSERT_NE(handle_, nullptr);
  EXPECT_EQ(handle_->path, path_);
  EXPECT_EQ(handle_->stream, nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre(error_line("Simp_Log_Open", "Can't open the log file \"" + path_ + "\"! (-21)")));
}

TEST_F(Creation, Tells_the_size_it_had_no_memory_for) {
  for (const char *path : {path_.c_str(), static_cast<const char *>(nullptr)}) {
    const Log_Capture log;
    handle_ = untouched();
    const size_t size = offsetof(Simp_Log, path) + (path == nullptr ? 0 : strlen(path)) + 1;

    const int allocations = with_each_allocation_failing([&] { return Simp_Log_Create(path, &handle_, 24, 3, 0); },
                                                         [&](int result, int) {
                                                           EXPECT_EQ(result, -ENOMEM);
                                                           EXPECT_EQ(handle_, nullptr);
                                                         });

    EXPECT_EQ(allocations, 1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("Simp_Log_Create",
                                                    "Can't allocate memory of " + std::to_string(size) + " bytes!")));
    Simp_Log_Release(handle_);
    handle_ = nullptr;
  }
}

TEST_F(Creation, With_truncate_survives_each_failed_allocation) {
  const Log_Capture log;
  const int before = open_descriptors();

  const int allocations =
      with_each_allocation_failing([&] { return Simp_Log_Create(path_.c_str(), &handle_, 24, 3, 1); },
                                   [&](int result, int nth) {
                                     // Only the record itself is needed; the rest is the stream's.
                                     EXPECT_EQ(result, nth == 1 ? -ENOMEM : 0);
                                     EXPECT_EQ(handle_ == nullptr, nth == 1);
                                     EXPECT_EQ(open_descriptors(), before);
                                     Simp_Log_Release(handle_);
                                   });

  EXPECT_GE(allocations, 2);
  EXPECT_THAT(log.lines(),
              testing::Contains(error_line("Simp_Log_Open", "Can't open the log file \"" + path_ + "\"! (-12)")));
}

// ---------------------------------------------------------------------------------------------------- open and close

using Opening = Log_Test;

TEST_F(Opening, Refuses_a_missing_handle) {
  EXPECT_EQ(Simp_Log_Open(nullptr, 0), -EINVAL);
  EXPECT_EQ(Simp_Log_Close(nullptr), -EINVAL);
  Simp_Log_Release(nullptr);
}

TEST_F(Opening, Appends_without_truncate) {
  write_file(path_, "old\n");
  const Handle log(path_);

  ASSERT_EQ(Simp_Log_Open(log, 0), 0);
  ASSERT_EQ(Simp_Log_Write(log, "new"), 0);

  EXPECT_THAT(read_file(path_), StartsWith("old\n["));
  EXPECT_THAT(read_file(path_), EndsWith("new\n"));
}

TEST_F(Opening, Empties_the_file_with_truncate) {
  write_file(path_, "old\n");
  const Handle log(path_);

  ASSERT_EQ(Simp_Log_Open(log, 5), 0);

  EXPECT_EQ(read_file(path_), "");
}

TEST_F(Opening, Closes_what_was_open_before) {
  const Opened_Handle log(path_);
  const int before = open_descriptors();

  ASSERT_EQ(Simp_Log_Open(log, 0), 0);

  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(Simp_Log_Write(log, "text"), 0);
}

TEST_F(Opening, Is_closed_on_exec) {
  const Opened_Handle log(path_);
  EXPECT_EQ(fcntl(fileno(log->stream), F_GETFD), FD_CLOEXEC);
  ASSERT_EQ(Simp_Log_Open(log, 1), 0);
  EXPECT_EQ(fcntl(fileno(log->stream), F_GETFD), FD_CLOEXEC);
}

TEST_F(Opening, Tells_why_it_failed_and_leaves_the_handle_closed) {
  const Handle log(folder_ / "gone/log");
  ASSERT_EQ(rmdir((folder_ / "gone").c_str()), 0);
  const Log_Capture report;

  EXPECT_EQ(Simp_Log_Open(log, 0), -ENOENT);

  EXPECT_EQ(log->stream, nullptr);
  EXPECT_THAT(report.lines(), ElementsAre(error_line("Simp_Log_Open", "Can't open the log file \"" +
                                                                          (folder_ / "gone/log") + "\"! (-2)")));
}

TEST_F(Opening, Leaves_a_handle_closed_that_could_not_be_opened_again) {
  const Opened_Handle log(folder_ / "gone/log");
  std::filesystem::remove_all(folder_ / "gone");

  EXPECT_EQ(Simp_Log_Open(log, 0), -ENOENT);

  EXPECT_EQ(log->stream, nullptr);
  EXPECT_THAT(output_of([&] { EXPECT_EQ(Simp_Log_Write(log, "text"), 0); }), EndsWith("text\n"));
}

TEST_F(Opening, Survives_each_failed_allocation) {
  const Handle log(path_);
  const int before = open_descriptors();

  const int allocations = with_each_allocation_failing([&] { return Simp_Log_Open(log, 0); },
                                                       [&](int result, int) {
                                                         EXPECT_EQ(result == 0, log->stream != nullptr);
                                                         if (result != 0) {
                                                           EXPECT_EQ(result, -ENOMEM);
                                                           EXPECT_EQ(open_descriptors(), before);
                                                         }
                                                         Simp_Log_Close(log);
                                                       });

  EXPECT_GE(allocations, 1);
}

TEST_F(Opening, Does_nothing_on_a_console_handle) {
  Simp_Log *console = nullptr;
  ASSERT_EQ(Simp_Log_Create(nullptr, &console, 24, 3, 0), 0);
  const int before = open_descriptors();

  EXPECT_EQ(Simp_Log_Open(console, 1), 0);

  EXPECT_EQ(console->stream, stdout);
  EXPECT_EQ(open_descriptors(), before);
  Simp_Log_Release(console);
}

using Closing = Log_Test;

TEST_F(Closing, Closes_the_stream_once) {
  const Handle log(path_);
  const int before = open_descriptors();
  ASSERT_EQ(Simp_Log_Open(log, 0), 0);

  EXPECT_EQ(Simp_Log_Close(log), 0);

  EXPECT_EQ(log->stream, nullptr);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(Simp_Log_Close(log), 0) << "a closed handle is left alone";
}

TEST_F(Closing, Only_flushes_a_console_handle) {
  const std::string printed = output_of([] {
    Simp_Log *console = nullptr;
    ASSERT_EQ(Simp_Log_Create(nullptr, &console, 24, 3, 0), 0);
    fputs("buffered", stdout);

    EXPECT_EQ(Simp_Log_Close(console), 0);

    EXPECT_EQ(console->stream, stdout);
    EXPECT_EQ(lseek(STDOUT_FILENO, 0, SEEK_END), 8);
    Simp_Log_Release(console);
    fputs(" and still open", stdout);
  });
  EXPECT_EQ(printed, "buffered and still open");
}

TEST_F(Closing, Release_closes_an_open_file) {
  const int before = open_descriptors();
  { const Opened_Handle log(path_); }
  EXPECT_EQ(open_descriptors(), before);
}

// ------------------------------------------------------------------------------------------------------------ prefix

struct Prefix_Case {
  int year;
  int hour;
  int hour_system;
  int date_format;
  const char *text;
};

class Prefix : public testing::TestWithParam<Prefix_Case> {};

TEST_P(Prefix, Holds_date_and_time) {
  setenv("TZ", "UTC", 1);
  tzset();
  tm parts{};
  parts.tm_year = GetParam().year - 1900;
  parts.tm_mon = 2;
  parts.tm_mday = 7;
  parts.tm_hour = GetParam().hour;
  parts.tm_min = 8;
  parts.tm_sec = 9;
  char buffer[48];
  memset(buffer, '#', sizeof buffer);

  EXPECT_EQ(Log_DateTime_Format(timegm(&parts), buffer, GetParam().hour_system, GetParam().date_format), 0);

  EXPECT_STREQ(buffer, GetParam().text);
  EXPECT_EQ(std::string(buffer + 40, 8), "########");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Prefix,
    testing::Values(Prefix_Case{2026, 17, 24, 3, "[2026-03-07 17:08:09] "},
                    Prefix_Case{2026, 17, 12, 3, "[2026-03-07 05:08:09 pm] "},
                    Prefix_Case{2026, 0, 12, 1, "[2026/03/07 12:08:09 am] "},
                    Prefix_Case{2026, 12, 12, 9, "[07-03-2026 12:08:09 pm] "},
                    Prefix_Case{2026, 17, 0, 0, "[2026/03/07 17:08:09] "},
                    Prefix_Case{2026, 17, 13, 10, "[2026/03/07 17:08:09] "},
                    Prefix_Case{2026, 17, 24, 5, "[03.07.2026 17:08:09] "},
                    // The time stands at position 12 even when the date is longer than 10 characters.
                    Prefix_Case{10000, 17, 24, 3, "[10000-03-0717:08:09] "},
                    Prefix_Case{123456, 17, 12, 3, "[123456-03-005:08:09 pm] "}));

TEST(Prefix, Refuses_a_missing_buffer) {
  EXPECT_EQ(Log_DateTime_Format(0, nullptr, 24, 3), -EINVAL);
}

// ----------------------------------------------------------------------------------------------------------- writing

using Writing = Log_Test;

struct Newline_Case {
  const char *message;
  const char *written;
};

class Newlines : public testing::TestWithParam<Newline_Case> {};

TEST_P(Newlines, Are_added_only_where_the_message_has_none_at_its_end) {
  const Temporary_Folder folder;
  const Opened_Handle log(folder / "log");

  EXPECT_EQ(Simp_Log_Write(log, "%s", GetParam().message), 0);

  EXPECT_THAT(read_file(folder / "log"), MatchesRegex(std::string(default_prefix) + GetParam().written));
}

INSTANTIATE_TEST_SUITE_P(Cases, Newlines,
                         testing::Values(Newline_Case{"text", "text\n"}, Newline_Case{"text\n", "text\n"},
                                         Newline_Case{"text\n\n", "text\n\n"}, Newline_Case{"", "\n"},
                                         Newline_Case{"\n", "\n"}, Newline_Case{"two\nlines", "two\nlines\n"}));

TEST_F(Writing, Formats_the_arguments) {
  const Opened_Handle log(path_);

  EXPECT_EQ(Simp_Log_Write(log, "[error] %s(%d): %5.1f%%", "Name", 42, 99.55), 0);

  EXPECT_EQ(without_prefix(read_file(path_)), "[error] Name(42):  99.5%\n");
}

TEST_F(Writing, Dates_the_line_with_the_present_time) {
  const Opened_Handle log(path_);

  const time_t before = time(nullptr);
  EXPECT_EQ(Simp_Log_Write(log, "text"), 0);
  const time_t after = time(nullptr) + 1;

  tm parts{};
  ASSERT_NE(strptime(read_file(path_).c_str(), "[%Y-%m-%d %H:%M:%S] text", &parts), nullptr);
  EXPECT_GE(timegm(&parts), before);
  EXPECT_LE(timegm(&parts), after);
}

TEST_F(Writing, Uses_the_codes_of_an_open_handle) {
  const Opened_Handle log(path_, 12, 8);
  EXPECT_EQ(Simp_Log_Write(log, "text"), 0);
  EXPECT_THAT(read_file(path_),
              MatchesRegex(R"(\[[0-9]{2}\.[0-9]{2}\.[0-9]{4} [01][0-9]:[0-9]{2}:[0-9]{2} [ap]m\] text)"
                           "\n"));
}

TEST_F(Writing, Has_no_level_gate) {
  const Log_Capture log(0);
  EXPECT_EQ(Simp_Log_Write(g_ptslLog, "[debug] %s(%d): text", "Name", 1), 0);
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("Name", "text")));
}

TEST_F(Writing, Is_flushed_line_by_line) {
  const Opened_Handle log(path_);
  EXPECT_EQ(Simp_Log_Write(log, "one"), 0);
  EXPECT_EQ(split(read_file(path_)).size(), 1U);
  EXPECT_EQ(Simp_Log_Write(log, "two"), 0);
  EXPECT_EQ(split(read_file(path_)).size(), 2U);
}

TEST_F(Writing, Without_a_handle_prints_with_the_default_prefix) {
  const std::string printed = output_of([] { EXPECT_EQ(Simp_Log_Write(nullptr, "text %d", 7), 0); });
  EXPECT_THAT(printed, MatchesRegex(std::string(default_prefix) + "text 7\n"));
}

TEST_F(Writing, Through_a_closed_handle_prints_with_the_default_prefix_and_not_the_handles_own) {
  const Handle log(path_, 12, 8);
  const std::string printed = output_of([&] { EXPECT_EQ(Simp_Log_Write(log, "text\n"), 0); });
  EXPECT_THAT(printed, MatchesRegex(std::string(default_prefix) + "text\n"));
  EXPECT_FALSE(exists(path_));
}

TEST_F(Writing, Through_a_console_handle_prints_with_the_handles_prefix) {
  const std::string printed = output_of([] {
    Simp_Log *console = nullptr;
    ASSERT_EQ(Simp_Log_Create(nullptr, &console, 24, 2, 0), 0);
    EXPECT_EQ(Simp_Log_Write(console, "text"), 0);
    EXPECT_GT(lseek(STDOUT_FILENO, 0, SEEK_END), 0) << "flushed";
    Simp_Log_Release(console);
  });
  EXPECT_THAT(printed, MatchesRegex(R"(\[[0-9]{4}\.[0-9]{2}\.[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\] text)"
                                    "\n"));
}

TEST_F(Writing, Refuses_a_missing_format) {
  const char *const none = nullptr;
  const Opened_Handle log(path_);
  EXPECT_EQ(Simp_Log_Write(log, none), -EINVAL);
  EXPECT_EQ(read_file(path_), "");
  EXPECT_EQ(output_of([&] { EXPECT_EQ(Simp_Log_Write(nullptr, none), -EINVAL); }), "");
}

struct Length_Case {
  size_t length;
  bool newline;     // the message ends in one, counted in its length
  size_t kept;      // characters of the message in the line
  size_t in_total;  // bytes of the line
};

class Long_Messages : public testing::TestWithParam<Length_Case> {};

TEST_P(Long_Messages, Are_cut_only_where_the_prefix_leaves_no_room) {
  const Temporary_Folder folder;
  const Opened_Handle log(folder / "log");
  std::string message = message_of(GetParam().length);
  if (GetParam().newline) message.back() = '\n';

  EXPECT_EQ(Simp_Log_Write(log, "%s", message.c_str()), 0);

  const std::string line = read_file(folder / "log");
  EXPECT_EQ(line.size(), GetParam().in_total);
  std::string expected = message.substr(0, GetParam().kept);
  if (expected.back() != '\n') expected += '\n';
  EXPECT_EQ(without_prefix(line), expected);
}

INSTANTIATE_TEST_SUITE_P(Lengths, Long_Messages,
                         testing::Values(Length_Case{4152, false, 4152, 4175}, Length_Case{4153, false, 4153, 4176},
                                         Length_Case{4154, false, 4153, 4176}, Length_Case{4175, false, 4153, 4176},
                                         Length_Case{4153, true, 4153, 4175}, Length_Case{4154, true, 4153, 4176},
                                         Length_Case{4175, true, 4153, 4176}));

TEST_F(Writing, Cuts_earlier_behind_a_longer_prefix) {
  const Opened_Handle log(path_, 12, 3);
  EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(4175).c_str()), 0);
  const std::string line = read_file(path_);
  EXPECT_EQ(line.size(), 4176U);
  EXPECT_EQ(line.substr(25), std::string(4150, 'm') + "\n");
}

TEST_F(Writing, Cuts_what_is_printed_as_well) {
  const std::string printed = output_of([] { EXPECT_EQ(Simp_Log_Write(nullptr, "%s", message_of(4175).c_str()), 0); });
  EXPECT_EQ(without_prefix(printed), std::string(4153, 'm') + "\n");
}

TEST_F(Writing, Refuses_a_message_of_4176_characters_or_more) {
  const Opened_Handle log(path_);
  for (const size_t length : {4176U, 4177U, 100000U}) {
    const Log_Capture report;
    errno = EACCES;  // from long ago

    EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(length).c_str()), -EOVERFLOW);

    EXPECT_EQ(read_file(path_), "");
    EXPECT_THAT(report.lines(), ElementsAre(error_line("Simp_Log_Write", "Can't generate the log message ! (-75, " +
                                                                             std::to_string(length) + ")")));
  }
}

TEST_F(Writing, Refuses_a_message_of_4176_characters_without_a_handle_too) {
  EXPECT_EQ(output_of([] { EXPECT_EQ(Simp_Log_Write(nullptr, "%s", message_of(4176).c_str()), -EOVERFLOW); }), "");
}

TEST_F(Writing, Reports_a_refused_message_to_its_own_log) {
  const Log_Capture log(1);
  EXPECT_EQ(Simp_Log_Write(g_ptslLog, "%s", message_of(4176).c_str()), -EOVERFLOW);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Simp_Log_Write", "Can't generate the log message ! (-75, 4176)")));
}

TEST_F(Writing, Tells_the_error_of_the_formatter) {
  const Opened_Handle log(path_);
  const Log_Capture report;
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};

  EXPECT_EQ(Simp_Log_Write(log, "%ls", no_character), -EILSEQ);

  EXPECT_EQ(read_file(path_), "");
  EXPECT_THAT(report.lines(), ElementsAre(error_line("Simp_Log_Write", "Can't generate the log message ! (-84, -1)")));
}

TEST_F(Writing, Reports_nothing_with_the_gate_shut) {
  const Opened_Handle log(path_);
  const Log_Capture report(0);
  EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(4176).c_str()), -EOVERFLOW);
  EXPECT_EQ(report.text(), "");
}

TEST_F(Writing, Hands_each_line_to_the_system_in_one_call) {
  const Opened_Handle log(path_);
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  ASSERT_GE(dup2(ends[0], fileno(log->stream)), 0);

  for (const size_t length : {10U, 4073U, 4074U, 4075U, 4096U, 4175U}) {
    EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(length).c_str()), 0);
    char packet[8192];
    EXPECT_EQ(recv(ends[1], packet, sizeof packet, MSG_DONTWAIT),
              static_cast<ssize_t>(std::min<size_t>(prefix_length + length + 1, 4176)));
    EXPECT_EQ(recv(ends[1], packet, sizeof packet, MSG_DONTWAIT), -1);
  }

  close(ends[0]);
  close(ends[1]);
}

TEST_F(Writing, Survives_each_failed_allocation) {
  const Opened_Handle log(path_);
  with_each_allocation_failing([&] { return Simp_Log_Write(log, "text"); },
                               [](int result, int) { EXPECT_EQ(result, 0); });
  EXPECT_THAT(read_file(path_), EndsWith("text\n"));
}

TEST_F(Writing, By_threads_and_processes_at_once_leaves_every_line_whole) {
  constexpr int writers = 3;
  constexpr int lines_each = 60;
  const auto write_lines = [](Simp_Log *log, char mark) {
    const std::string message(4100, mark);
    for (int i = 0; i < lines_each; ++i) Simp_Log_Write(log, "%s", message.c_str());
  };
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    {
      const Opened_Handle log(path_);
      write_lines(log, 'z');
    }
    _exit(0);
  }
  {
    const Opened_Handle log(path_);
    std::vector<std::thread> threads;
    for (int i = 0; i < writers; ++i) threads.emplace_back([&, i] { write_lines(log, static_cast<char>('a' + i)); });
    for (auto &thread : threads) thread.join();
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);

  const std::vector<std::string> lines = split(read_file(path_));
  EXPECT_EQ(lines.size(), static_cast<size_t>((writers + 1) * lines_each));
  for (const std::string &line : lines) {
    const std::string message = without_prefix(line);
    ASSERT_FALSE(message.empty());
    ASSERT_EQ(message, std::string(4100, message[0]));
  }
}

// ----------------------------------------------------------------------------------------------------- failing writes

using Failing_Writes = Log_Test;

TEST_F(Failing_Writes, Answer_an_error_and_tell_how_far_they_came) {
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC | O_NONBLOCK), 0);
  // Files of this child end at their fifth byte; the pipe does not.
  EXPECT_EQ(in_child([&] {
              signal(SIGXFSZ, SIG_IGN);
              const rlimit limit{5, 5};
              ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
              const Opened_Handle report("/proc/self/fd/" + std::to_string(pipe_ends[1]));
              g_ptslLog = report;
              const Opened_Handle log(path_);
              setvbuf(log->stream, nullptr, _IONBF, 0);

              EXPECT_EQ(Simp_Log_Write(log, "12345"), -EIO);
              EXPECT_EQ(ferror(log->stream), 0) << "the next line must have its chance";
              EXPECT_EQ(Simp_Log_Write(log, "123456"), -EIO);
              g_ptslLog = nullptr;
            }),
            0);

  char text[1000] = "";
  EXPECT_GT(read(pipe_ends[0], text, sizeof text - 1), 0);
  const std::string head = default_prefix + std::string(R"(\[error\] Simp_Log_Write\([0-9]+\): )");
  EXPECT_THAT(split(text), ElementsAre(MatchesRegex(head + R"(Can't write 28 bytes to the log file\. \(5\))"),
                                       MatchesRegex(head + R"(Can't write 29 bytes to the log file\. \(0\))")));
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

// A socket that refuses long lines and takes short ones: datagrams over a link that lets no more than 1500 bytes
// through.
struct Narrow_Link {
  Narrow_Link() {
    EXPECT_EQ(unshare(CLONE_NEWNET), 0);
    receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq link{};
    strcpy(link.ifr_name, "lo");
    link.ifr_mtu = 1500;
    EXPECT_EQ(ioctl(sender, SIOCSIFMTU, &link), 0);
    link.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    EXPECT_EQ(ioctl(sender, SIOCSIFFLAGS, &link), 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(receiver, reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(getsockname(receiver, reinterpret_cast<sockaddr *>(&address), &length), 0);
    EXPECT_EQ(connect(sender, reinterpret_cast<sockaddr *>(&address), length), 0);
    const int never_split = IP_PMTUDISC_DO;
    EXPECT_EQ(setsockopt(sender, IPPROTO_IP, IP_MTU_DISCOVER, &never_split, sizeof never_split), 0);
  }

  std::string received() const {
    char packet[8192];
    const ssize_t length = recv(receiver, packet, sizeof packet, MSG_DONTWAIT);
    return length < 0 ? "nothing" : std::string(packet, static_cast<size_t>(length));
  }

  int receiver;
  int sender;
};

TEST_F(Failing_Writes, Of_the_librarys_own_log_are_reported_to_it_once) {
  EXPECT_EQ(in_child([&] {
              const Narrow_Link link;
              const Opened_Handle log(path_);
              ASSERT_GE(dup2(link.sender, fileno(log->stream)), 0);
              setvbuf(log->stream, nullptr, _IONBF, 0);
              g_ptslLog = log;

              EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(4175).c_str()), -EIO);

              g_ptslLog = nullptr;
              EXPECT_THAT(without_prefix(link.received()),
                          MatchesRegex(R"(\[error\] Simp_Log_Write\([0-9]+\): )"
                                       R"(Can't write 4176 bytes to the log file\. \(0\))"
                                       "\n"));
              EXPECT_EQ(link.received(), "nothing");
            }),
            0);
}

TEST_F(Failing_Writes, Of_the_librarys_own_log_whose_report_fails_too_end) {
  EXPECT_EQ(in_child([] {
              const Opened_Handle log("/dev/full");
              setvbuf(log->stream, nullptr, _IONBF, 0);
              g_ptslLog = log;
              EXPECT_EQ(Simp_Log_Write(log, "text"), -EIO);
              g_ptslLog = nullptr;
            }),
            0);
}

TEST_F(Failing_Writes, Of_short_lines_to_a_full_disk_go_unnoticed) {
  const Log_Capture report;
  const Opened_Handle log("/dev/full");
  EXPECT_EQ(Simp_Log_Write(log, "text"), 0) << "callers depend on it: the flush is not asked";
  EXPECT_EQ(report.text(), "");
}

TEST_F(Failing_Writes, Of_the_longest_lines_to_a_full_disk_are_noticed) {
  const Log_Capture report;
  const Opened_Handle log("/dev/full");

  // Such a line is longer than the stream's buffer.
  EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(4175).c_str()), -EIO);

  ASSERT_EQ(report.lines().size(), 1U);
  EXPECT_THAT(report.lines()[0].text, MatchesRegex(R"(Can't write 4176 bytes to the log file\. \([0-9]+\))"));
}

TEST_F(Failing_Writes, To_a_full_disk_do_not_hinder_later_lines) {
  Small_Disk disk;
  const Opened_Handle log(disk / "log");
  disk.fill();
  EXPECT_EQ(Simp_Log_Write(log, "while full"), 0);
  EXPECT_EQ(Simp_Log_Write(log, "%s", message_of(4175).c_str()), -EIO);
  EXPECT_EQ(read_file(disk / "log"), "");

  unlink((disk / "filler").c_str());
  EXPECT_EQ(Simp_Log_Write(log, "with room"), 0);

  EXPECT_EQ(without_prefix(split(read_file(disk / "log")).back()), "with room");
}

// --------------------------------------------------------------------------------------- waiting for the foreign lock

class Locked_Log : public Log_Test {
 protected:
  void TearDown() override { unlink(lock_.c_str()); }

  void plant(int64_t stamp, int pid) { write_file(lock_, lock_record(stamp, pid)); }

  const std::string lock_ = foreign_lock("tarn_log_test.log");
};

TEST_F(Locked_Log, Is_written_when_the_lock_is_gone) {
  Virtual_Clock clock(now_ms);
  const Opened_Handle log(path_);
  plant(now_ms, getpid());
  auto writing = std::async(std::launch::async, [&] { return Simp_Log_Write(log, "text"); });

  EXPECT_TRUE(clock.wait_for_reads(20));
  EXPECT_EQ(read_file(path_), "");
  unlink(lock_.c_str());

  EXPECT_EQ(writing.get(), 0);
  EXPECT_THAT(read_file(path_), EndsWith("text\n"));
}

TEST_F(Locked_Log, Is_written_after_10_seconds_with_the_lock_still_there) {
  Virtual_Clock clock(now_ms);
  const Log_Capture report;
  const Opened_Handle log(path_);
  plant(now_ms, getpid());
  auto writing = std::async(std::launch::async, [&] { return Simp_Log_Write(log, "text"); });

  EXPECT_TRUE(clock.wait_for_reads(20));
  clock.set(now_ms + 10'000);
  EXPECT_TRUE(clock.wait_for_reads(20));
  EXPECT_EQ(read_file(path_), "");
  clock.set(now_ms + 10'001);

  EXPECT_EQ(writing.get(), 0);
  EXPECT_THAT(read_file(path_), EndsWith("text\n"));
  EXPECT_TRUE(exists(lock_));
  EXPECT_THAT(report.lines(),
              ElementsAre(error_line("Check_File_Lock", "Get lock file \"" + lock_ + "\" timeout! (10001 < 10000)")));
}

TEST_F(Locked_Log, Is_written_at_once_under_a_stale_lock_which_goes) {
  const Log_Capture report;
  const Opened_Handle log(path_);
  const int owner = dead_pid();
  plant(static_cast<int64_t>(Rough_Tick()), owner);

  EXPECT_EQ(Simp_Log_Write(log, "text"), 0);

  EXPECT_THAT(read_file(path_), EndsWith("text\n"));
  EXPECT_FALSE(exists(lock_));
  EXPECT_THAT(report.lines(),
              ElementsAre(debug_line("Check_File_Lock", "Remove \"" + lock_ + "\" because proc " +
                                                            std::to_string(owner) + " is not existed!")));
}

TEST_F(Locked_Log, Does_not_wait_for_the_owned_lock_and_leaves_no_lock_of_its_own) {
  const std::string owned = owned_lock("tarn_log_test.log");
  write_file(owned, lock_record(static_cast<int64_t>(Rough_Tick()), getpid()));
  const Opened_Handle log(path_);

  EXPECT_EQ(Simp_Log_Write(log, "text"), 0);

  EXPECT_TRUE(exists(owned));
  EXPECT_FALSE(exists(lock_));
  unlink(owned.c_str());
}

TEST_F(Locked_Log, Of_the_library_itself_is_written_at_debug_level_although_the_waiting_reports_to_it) {
  EXPECT_EQ(in_child([&] {
              const Opened_Handle log(path_);
              g_ptslLog = log;
              g_idLogLevel = 3;
              const int owner = dead_pid();
              plant(static_cast<int64_t>(Rough_Tick()), owner);

              EXPECT_EQ(Simp_Log_Write(log, "text"), 0);

              g_ptslLog = nullptr;
              const std::vector<std::string> lines = split(read_file(path_));
              ASSERT_EQ(lines.size(), 2U);
              EXPECT_THAT(lines[0], EndsWith(": Remove \"" + lock_ + "\" because proc " + std::to_string(owner) +
                                             " is not existed!"));
              EXPECT_EQ(without_prefix(lines[1]), "text");
              EXPECT_FALSE(exists(lock_));
            }),
            0);
}

TEST_F(Locked_Log, Of_the_library_itself_is_written_after_one_time_out_at_error_level) {
  EXPECT_EQ(in_child([&] {
              Virtual_Clock clock(now_ms);
              clock.on_read([&] { clock.advance(500); });
              const Opened_Handle log(path_);
              g_ptslLog = log;
              plant(now_ms, getpid());

              EXPECT_EQ(Simp_Log_Write(log, "text"), 0);

              g_ptslLog = nullptr;
              const std::vector<std::string> lines = split(read_file(path_));
              ASSERT_EQ(lines.size(), 2U);
              EXPECT_THAT(lines[0], testing::HasSubstr("[error] Check_File_Lock("));
              EXPECT_THAT(lines[0], testing::HasSubstr(": Get lock file \"" + lock_ + "\" timeout! ("));
              EXPECT_THAT(lines[0], EndsWith(" < 10000)"));
              EXPECT_EQ(without_prefix(lines[1]), "text");
              EXPECT_TRUE(exists(lock_));
            }),
            0);
}

TEST_F(Locked_Log, Waits_again_for_the_next_line) {
  Virtual_Clock clock(now_ms);
  const Log_Capture report;
  const Opened_Handle log(path_);
  plant(now_ms, dead_pid());
  ASSERT_EQ(Simp_Log_Write(log, "first"), 0);
  plant(now_ms, getpid());
  auto writing = std::async(std::launch::async, [&] { return Simp_Log_Write(log, "second"); });

  EXPECT_TRUE(clock.wait_for_reads(20));
  EXPECT_THAT(read_file(path_), EndsWith("first\n"));
  unlink(lock_.c_str());

  EXPECT_EQ(writing.get(), 0);
  EXPECT_THAT(read_file(path_), EndsWith("second\n"));
}

}  // namespace
