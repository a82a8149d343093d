#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace {

// What dirfd and popen answer in place of the C library's own: a failure with this errno, or with 0 one that leaves
// errno alone; -1 for theirs.
int dirfd_error = -1;
int popen_error = -1;

template <typename Function>
Function *next_after(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int dirfd(DIR *folder) noexcept {
  if (dirfd_error < 0) return next_after<int(DIR *)>("dirfd")(folder);
  errno = dirfd_error;
  return -1;
}

FILE *popen(const char *command, const char *mode) {
  if (popen_error < 0) return next_after<FILE *(const char *, const char *)>("popen")(command, mode);
  if (popen_error > 0) errno = popen_error;
  return nullptr;
}

}  // extern "C"

namespace {

using namespace tarn::test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAreArray;

TEST(Is_Process_Existed, Says_yes_to_a_process_that_runs) {
  EXPECT_EQ(Is_Process_Existed(getpid()), 1);
  EXPECT_EQ(Is_Process_Existed(1), 1);
}

TEST(Is_Process_Existed, Says_yes_to_a_process_that_ended_and_was_not_waited_for) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);

  EXPECT_EQ(Is_Process_Existed(child), 1);

  waitpid(child, nullptr, 0);
  EXPECT_EQ(Is_Process_Existed(child), 0);
}

TEST(Is_Process_Existed, Says_no_to_an_id_that_no_process_has) {
  EXPECT_EQ(Is_Process_Existed(dead_pid()), 0);
  EXPECT_EQ(Is_Process_Existed(INT_MAX), 0);
}

TEST(Is_Process_Existed, Says_no_below_1_without_asking_the_system) {
  const Before_Call sending(System_Call::kill, 1, [] { return 0; });

  EXPECT_EQ(Is_Process_Existed(0), 0);
  EXPECT_EQ(Is_Process_Existed(-1), 0);
  EXPECT_EQ(Is_Process_Existed(-getpgrp()), 0);
  EXPECT_EQ(Is_Process_Existed(INT_MIN), 0);

  EXPECT_FALSE(sending.happened());
}

TEST(Is_Process_Existed, Answers_the_error_for_a_process_of_another_user) {
  EXPECT_EQ(in_child([] {
              const As_Nobody nobody;
              EXPECT_EQ(Is_Process_Existed(1), -EPERM);
            }),
            0);
}

TEST(Is_Process_Existed, Answers_any_other_error_of_the_system) {
  const Before_Call sending(System_Call::kill, 1, [] { return ENOSYS; });

  EXPECT_EQ(Is_Process_Existed(getpid()), -ENOSYS);
}

// ---------------------------------------------------------------------------------------------- processes of the test

// Arguments as the kernel shows them.
std::string command_line(const std::vector<std::string> &words) {
  std::string line;
  for (const std::string &word : words) line += word + '\0';
  return line;
}

// Runs a copy of a program under a name of the test's own.
class Copied_Program {
 public:
  Copied_Program(const std::string &program, const std::string &name) : path_(folder_ / name) {
    std::filesystem::copy_file(program, path_);
  }
  ~Copied_Program() {
    for (const pid_t pid : pids_) kill(pid, SIGKILL);
    for (const pid_t pid : pids_) waitpid(pid, nullptr, 0);
  }
  Copied_Program(const Copied_Program &) = delete;
  Copied_Program &operator=(const Copied_Program &) = delete;

  // Has the name and the command line when this returns.
  pid_t start(const std::vector<std::string> &words) {
    std::vector<char *> arguments;
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path_.c_str(), nullptr, nullptr, arguments.data(), environ);
    if (error != 0) throw std::system_error(error, std::generic_category(), path_);
    pids_.push_back(pid);
    // The kernel lets the parent go on a little before the command line is there.
    while (!has_ended(pid) && read_file("/proc/" + std::to_string(pid) + "/cmdline") != command_line(words)) {
      usleep(1000);
    }
    return pid;
  }
  void start(int count) {
    for (int i = 0; i < count; ++i) start({path_, "600"});
  }

  const std::string &path() const { return path_; }
  const std::vector<int> &pids() const { return pids_; }

 private:
  // It can still be waited for.
  static bool has_ended(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid;
  }

  Temporary_Folder folder_;
  std::string path_;
  std::vector<int> pids_;
};

class Sleepers : public Copied_Program {
 public:
  explicit Sleepers(const std::string &name) : Copied_Program("/usr/bin/sleep", name) {}
};

struct Found {
  int status;
  std::vector<int> pids;
};

Found pids_of(const std::string &name) {
  int other = 0;
  int *pids = &other, count = -1;
  Found found = {Get_All_Pids(name.c_str(), &pids, &count), {}};
  EXPECT_EQ(pids == nullptr, found.status != 0) << name;
  EXPECT_EQ(count > 0, found.status == 0) << name;
  if (pids != nullptr) found.pids.assign(pids, pids + count);
  free(pids);
  return found;
}

int parent_in_status(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string word; status >> word;) {
    if (word == "PPid:" && status >> pid) return pid;
  }
  return -1;
}

std::vector<std::string> entries_in_order(const std::string &folder) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  return names;
}

// -------------------------------------------------------------------------------------------- a /proc of the test's
// own

// Runs the body in a child that sees an empty folder as its /proc.
void with_made_proc(const std::function<void()> &body) {
  EXPECT_EQ(in_child([&] {
              mount_tmpfs("/proc", "size=16m");
              body();
            }),
            0);
}

struct Made_Process {
  std::string comm = "";
  std::string cmdline = "";
  std::string stat = "";
};

void make_process(const std::string &entry, const Made_Process &process) {
  const std::string folder = "/proc/" + entry;
  std::filesystem::create_directory(folder);
  write_file(folder + "/comm", process.comm + "\n");
  write_file(folder + "/cmdline", process.cmdline);
  write_file(folder + "/stat", process.stat);
}

void make_child_of(int parent, int pid, const std::string &name) {
  make_process(std::to_string(pid),
               {.comm = name,
                .stat = std::to_string(pid) + " (" + name + ") S " + std::to_string(parent) + " 1 1 0 -1 4194560\n"});
}

// ------------------------------------------------------------------------------------------------------------- parents

class Get_Parent_Pid_Test : public Descriptor_Count {};

TEST_F(Get_Parent_Pid_Test, Tells_the_parent_of_a_process) {
  int parent = 0;
  EXPECT_EQ(Get_Parent_Pid(getpid(), &parent), 0);
  EXPECT_EQ(parent, getppid());
  Sleepers sleepers("tarn-child");
  EXPECT_EQ(Get_Parent_Pid(sleepers.start({"x", "600"}), &parent), 0);
  EXPECT_EQ(parent, getpid());
}

TEST_F(Get_Parent_Pid_Test, Tells_0_for_the_first_process) {
  int parent = -1;
  EXPECT_EQ(Get_Parent_Pid(1, &parent), 0);
  EXPECT_EQ(parent, 0);
}

TEST_F(Get_Parent_Pid_Test, Refuses_a_negative_pid_with_the_output_at_minus_1) {
  for (const int pid : {-1, -2, INT_MIN}) {
    int parent = 77;
    EXPECT_EQ(Get_Parent_Pid(pid, &parent), -EINVAL);
    EXPECT_EQ(parent, -1);
  }
}

TEST_F(Get_Parent_Pid_Test, Refuses_a_missing_output) {
  EXPECT_EQ(Get_Parent_Pid(getpid(), nullptr), -EINVAL);
  EXPECT_EQ(Get_Parent_Pid(-1, nullptr), -EINVAL);
}

TEST_F(Get_Parent_Pid_Test, Finds_no_process_that_does_not_exist) {
  for (const int pid : {0, INT_MAX, dead_pid()}) {
    int parent = 77;
    EXPECT_EQ(Get_Parent_Pid(pid, &parent), -ESRCH);
    EXPECT_EQ(parent, -1);
  }
}

// Callers know such a process as one that is not there.
TEST_F(Get_Parent_Pid_Test, Finds_no_process_whose_name_holds_a_blank) {
  Sleepers sleepers("tarn sleeps");
  const int pid = sleepers.start({"x", "600"});
  int parent = 77;
  EXPECT_EQ(Get_Parent_Pid(pid, &parent), -ESRCH);
  EXPECT_EQ(parent, -1);
}

TEST_F(Get_Parent_Pid_Test, Reads_the_first_four_fields_and_nothing_else) {
  struct Case {
    std::string stat;
    int status, parent;
  };
  const std::string workqueue(63, 'w');
  const Case cases[] = {
      {"7 (init) S 42 7 7 0\n", 0, 42},
      {"7 (init) S 42", 0, 42},
      {"7 (a(b)c) Z 42 1\n", 0, 42},
      {"7 (" + workqueue + ") I 2 0\n", 0, 2},
      {"7 (init) S -1 7\n", 0, -1},
      {"7 (x S 1 forged) R 42 7\n", 0, 1},  // a process can make its parent up
      {"7 (a b) S 42 7\n", -ESRCH, -1},
      {"7 (init) S\n", -ESRCH, -1},
      {"7 (init) S x\n", -ESRCH, -1},
      {"x (init) S 42\n", -ESRCH, -1},
      {"7\n", -ESRCH, -1},
      {"", -ESRCH, -1},
  };
  with_made_proc([&] {
    for (const Case &c : cases) {
      SCOPED_TRACE(c.stat);
      make_process("7", {.stat = c.stat});
      int parent = 77;
      EXPECT_EQ(Get_Parent_Pid(7, &parent), c.status);
      EXPECT_EQ(parent, c.parent);
    }
  });
}

// Where memory is not watched, the end of this test's frame is.
TEST_F(Get_Parent_Pid_Test, Bears_a_name_of_any_length) {
  with_made_proc([] {
    for (const size_t length : {252, 253, 254, 255, 256, 257, 4096, 1'000'000}) {
      SCOPED_TRACE(length);
      make_process("7", {.stat = "7 (" + std::string(length, 'x') + ") S 42 1\n"});
      int parent = 77;
      const int status = Get_Parent_Pid(7, &parent);
      EXPECT_TRUE((status == 0 && parent == 42) || (status == -ESRCH && parent == -1)) << status << ", " << parent;
    }
  });
}

// ----------------------------------------------------------------------------------------------------------- all pids

class Get_All_Pids_Test : public Descriptor_Count {
 protected:
  Log_Line match(int pid, const std::string &name) const {
    return debug_line("Get_All_Pids", std::to_string(pid) + " is a \"" + name + "\" process.");
  }

  // A log opens a descriptor, so it comes and goes with each look.
  Found found_with_lines(const std::string &name, std::vector<Log_Line> *lines, int level = 3) {
    const Log_Capture log(level);
    const Found found = pids_of(name);
    *lines = log.lines();
    return found;
  }
};

TEST_F(Get_All_Pids_Test, Finds_the_processes_of_a_short_name) {
  Sleepers sleepers("tarn-few");
  Sleepers others("tarn-few2"), shorter("tarn-fe");
  sleepers.start(3), others.start(1), shorter.start(1);
  std::vector<Log_Line> lines;
  const Found found = found_with_lines("tarn-few", &lines);
  EXPECT_EQ(found.status, 0);
  EXPECT_THAT(found.pids, UnorderedElementsAreArray(sleepers.pids()));
  for (const int pid : sleepers.pids()) EXPECT_THAT(lines, Contains(match(pid, "tarn-few")).Times(1));
}

TEST_F(Get_All_Pids_Test, Finds_processes_by_the_beginning_of_their_command_line) {
  Sleepers sleepers("tarn-by-path");
  const int plain = sleepers.start({sleepers.path(), "600"});
  const int bare = sleepers.start({"tarn-by-path", "600"});
  const int renamed = sleepers.start({"/name of/its own", "600"});

  EXPECT_THAT(pids_of(sleepers.path()).pids, ElementsAre(plain));
  EXPECT_THAT(pids_of(sleepers.path().substr(0, sleepers.path().size() - 3)).pids, ElementsAre(plain));
  EXPECT_THAT(pids_of("/name of/").pids, ElementsAre(renamed));
  EXPECT_THAT(pids_of("tarn-by-path").pids, UnorderedElementsAreArray({plain, bare, renamed}));
  // The words of a command line are parted by NULs, which no name holds.
  EXPECT_EQ(pids_of(sleepers.path() + " 600").status, -ENODATA);
  EXPECT_EQ(pids_of(sleepers.path() + "x").status, -ENODATA);
}

TEST_F(Get_All_Pids_Test, Knows_a_short_name_as_far_as_the_kernel_keeps_it) {
  Sleepers sleepers("tarn-fifteen-ch-and-more");
  sleepers.start(1);
  EXPECT_EQ(pids_of("tarn-fifteen-ch-and-more").status, -ENODATA);
  EXPECT_THAT(pids_of("tarn-fifteen-ch").pids, UnorderedElementsAreArray(sleepers.pids()));
}

TEST_F(Get_All_Pids_Test, Takes_a_name_with_blanks_as_it_is) {
  Sleepers sleepers("tarn two words");
  sleepers.start(1);
  EXPECT_THAT(pids_of("tarn two words").pids, UnorderedElementsAreArray(sleepers.pids()));
  EXPECT_EQ(pids_of("tarn two").status, -ENODATA);
}

// A process that has ended has a name as long as nobody waited for it, but no command line.
TEST_F(Get_All_Pids_Test, Finds_an_ended_process_by_its_short_name_only) {
  Copied_Program ended("/usr/bin/true", "tarn-ended");
  const pid_t pid = ended.start({ended.path()});
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
  EXPECT_THAT(pids_of("tarn-ended").pids, ElementsAre(pid));
  EXPECT_EQ(pids_of(ended.path()).status, -ENODATA);
}

TEST_F(Get_All_Pids_Test, Finds_64_processes_without_growing) {
  Sleepers sleepers("tarn-64");
  sleepers.start(64);
  std::vector<Log_Line> lines;
  const Found found = found_with_lines("tarn-64", &lines);
  EXPECT_EQ(found.status, 0);
  EXPECT_THAT(found.pids, UnorderedElementsAreArray(sleepers.pids()));
  EXPECT_THAT(lines, Each(testing::Field(&Log_Line::text, Not(testing::HasSubstr("Array")))));
}

TEST_F(Get_All_Pids_Test, Grows_once_for_65_processes_and_again_for_129) {
  Sleepers sleepers("tarn-many");
  sleepers.start(65);
  const Log_Line once = debug_line("Get_All_Pids", "Array is not big enough, it will be re-allocated. (64=>128)");
  const Log_Line twice = debug_line("Get_All_Pids", "Array is not big enough, it will be re-allocated. (128=>256)");
  std::vector<Log_Line> lines;
  Found found = found_with_lines("tarn-many", &lines);
  EXPECT_EQ(found.status, 0);
  EXPECT_THAT(found.pids, UnorderedElementsAreArray(sleepers.pids()));
  EXPECT_THAT(lines, Contains(once).Times(1));
  EXPECT_THAT(lines, Not(Contains(twice)));

  sleepers.start(64);
  found = found_with_lines("tarn-many", &lines);
  EXPECT_THAT(found.pids, UnorderedElementsAreArray(sleepers.pids()));
  EXPECT_THAT(lines, Contains(once).Times(1));
  EXPECT_THAT(lines, Contains(twice).Times(1));
}

TEST_F(Get_All_Pids_Test, Tells_when_there_is_none) {
  std::vector<Log_Line> lines;
  EXPECT_EQ(found_with_lines("tarn-nobody", &lines).status, -ENODATA);
  EXPECT_EQ(found_with_lines("/tarn/nobody", &lines).status, -ENODATA);
}

TEST_F(Get_All_Pids_Test, Refuses_missing_arguments_and_leaves_the_outputs) {
  int other = 0;
  int *pids = &other, count = 77;
  EXPECT_EQ(Get_All_Pids(nullptr, &pids, &count), -EINVAL);
  EXPECT_EQ(Get_All_Pids("", &pids, &count), -EINVAL);
  EXPECT_EQ(Get_All_Pids("x", nullptr, &count), -EINVAL);
  EXPECT_EQ(Get_All_Pids("x", &pids, nullptr), -EINVAL);
  EXPECT_EQ(pids, &other);
  EXPECT_EQ(count, 77);
}

TEST_F(Get_All_Pids_Test, Lists_the_pids_in_the_order_of_the_folder) {
  with_made_proc([] {
    std::vector<int> expected;
    for (const int pid : {5, 300, 2, 77, 1000, 41}) make_process(std::to_string(pid), {.comm = "made"});
    for (const std::string &entry : entries_in_order("/proc")) expected.push_back(std::stoi(entry));
    EXPECT_EQ(pids_of("made").pids, expected);
  });
}

TEST_F(Get_All_Pids_Test, Passes_over_what_is_no_folder_of_a_number) {
  with_made_proc([this] {
    for (const char *entry : {"12a", "-5", "a12", " 6", "+7", "0x8", "self", "1.0"})
      make_process(entry, {.comm = "made"});
    write_file("/proc/9", "made\n");
    make_process("10", {.comm = "made"});
    std::filesystem::create_symlink("/proc/10", "/proc/11");
    std::vector<Log_Line> lines;
    EXPECT_THAT(found_with_lines("made", &lines).pids, ElementsAre(10));
    EXPECT_THAT(lines, ElementsAre(match(10, "made")));
  });
}

TEST_F(Get_All_Pids_Test, Cuts_a_short_name_at_its_first_slash) {
  with_made_proc([] {
    make_process("2", {.comm = "kworker/0:1"});
    make_process("3", {.comm = "kworker/u8:0-events/x"});
    make_process("4", {.comm = "kworker"});
    make_process("5", {.comm = "/kworker"});
    make_process("6", {.comm = "other", .cmdline = "kworker/0:1"});  // looked at only for a name that begins with "/"
    EXPECT_THAT(pids_of("kworker").pids, UnorderedElementsAreArray({2, 3, 4}));
    for (const char *name : {"kworker/0:1", "kworker/", "kworker/u8:0-events"}) {
      EXPECT_EQ(pids_of(name).status, -ENODATA) << name;
    }
  });
}

TEST_F(Get_All_Pids_Test, Compares_the_first_line_of_a_short_name_whole) {
  with_made_proc([] {
    make_process("2", {.comm = "made\nsecond"});
    make_process("3", {.comm = "made "});
    make_process("4", {.comm = "MADE"});
    make_process("5", {.comm = "made2"});
    make_process("6", {.comm = "mad"});
    make_process("7", {});
    write_file("/proc/7/comm", "");
    make_process("9", {});
    write_file("/proc/9/comm", "made");
    EXPECT_THAT(pids_of("made").pids, UnorderedElementsAreArray({2, 9}));
  });
}

// The line of the process before them would count once more if it were not for their length.
TEST_F(Get_All_Pids_Test, Does_not_take_an_empty_command_line_for_that_of_another) {
  with_made_proc([] {
    std::vector<int> expected;
    for (int pid = 100; pid < 130; ++pid) {
      make_process(std::to_string(pid), {.comm = "", .cmdline = pid % 2 == 0 ? command_line({"/made", "-x"}) : ""});
      write_file("/proc/" + std::to_string(pid) + "/comm", pid % 2 == 0 ? "made\n" : "");
      if (pid % 2 == 0) expected.push_back(pid);
    }
    EXPECT_THAT(pids_of("/made").pids, UnorderedElementsAreArray(expected));
    EXPECT_THAT(pids_of("made").pids, UnorderedElementsAreArray(expected));
  });
}

TEST_F(Get_All_Pids_Test, Compares_no_more_of_a_command_line_than_there_is) {
  with_made_proc([] {
    make_process("2", {.cmdline = command_line({"/made", "-x"})});
    make_process("3", {.cmdline = "/ma"});
    make_process("4", {.cmdline = "/made"});
    make_process("5", {.cmdline = "made"});
    make_process("6", {.cmdline = "x/made"});
    make_process("7", {.cmdline = "/made\nline"});
    make_process("8", {.cmdline = "\n/made"});
    EXPECT_THAT(pids_of("/made").pids, UnorderedElementsAreArray({2, 4, 7}));
    EXPECT_THAT(pids_of("/").pids, UnorderedElementsAreArray({2, 3, 4, 7}));
    EXPECT_EQ(pids_of("/made -x").status, -ENODATA);
    EXPECT_EQ(pids_of("/made-x").status, -ENODATA);
    EXPECT_EQ(pids_of("/madeline").status, -ENODATA);
  });
}

TEST_F(Get_All_Pids_Test, Reads_4095_bytes_of_a_line) {
  with_made_proc([] {
    const std::string line = "/" + std::string(4999, 'm');
    make_process("2", {.cmdline = line});
    EXPECT_THAT(pids_of(line.substr(0, 4095)).pids, ElementsAre(2));
    EXPECT_EQ(pids_of(line.substr(0, 4096)).status, -ENODATA);
    EXPECT_EQ(pids_of(line).status, -ENODATA);
  });
}

TEST_F(Get_All_Pids_Test, Says_which_process_was_gone_before_its_name_was_read_and_goes_on) {
  with_made_proc([this] {
    make_process("10", {.comm = "made", .cmdline = "/made"});
    std::filesystem::create_directory("/proc/11");
    std::vector<Log_Line> lines;
    EXPECT_THAT(found_with_lines("made", &lines).pids, ElementsAre(10));
    EXPECT_THAT(lines,
                testing::UnorderedElementsAre(
                    match(10, "made"),
                    debug_line("Get_All_Pids", "WARNING: Can't open the file \"/proc/11/comm\" for reading. (-2)")));
    EXPECT_THAT(found_with_lines("/made", &lines).pids, ElementsAre(10));
    EXPECT_THAT(lines,
                testing::UnorderedElementsAre(
                    match(10, "/made"),
                    debug_line("Get_All_Pids", "WARNING: Can't open the file \"/proc/11/cmdline\" for reading. (-2)")));
    EXPECT_THAT(found_with_lines("made", &lines, 2).pids, ElementsAre(10));
    EXPECT_THAT(lines, IsEmpty());
  });
}

TEST_F(Get_All_Pids_Test, Passes_over_a_process_whose_name_cannot_be_read) {
  with_made_proc([this] {
    make_process("10", {.comm = "made"});
    std::filesystem::create_directories("/proc/11/comm");
    std::vector<Log_Line> lines;
    EXPECT_THAT(found_with_lines("made", &lines).pids, ElementsAre(10));
    EXPECT_THAT(lines, ElementsAre(match(10, "made")));
  });
}

TEST_F(Get_All_Pids_Test, Says_which_process_it_may_not_look_at) {
  with_made_proc([] {
    make_process("10", {.comm = "made"});
    ASSERT_EQ(chmod("/proc", 0744), 0);  // others may list it and no more
    const Log_Capture log;
    {
      const As_Nobody nobody;
      EXPECT_EQ(pids_of("made").status, -ENODATA);
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(debug_line("Get_All_Pids", "WARNING: Can't stat the file \"/proc/10\". (-13)")));
  });
}

TEST_F(Get_All_Pids_Test, Says_when_the_folder_cannot_be_opened) {
  with_made_proc([] {
    ASSERT_EQ(chmod("/proc", 0711), 0);
    const Log_Capture log(1);
    {
      const As_Nobody nobody;
      EXPECT_EQ(pids_of("made").status, -EACCES);
    }
    EXPECT_THAT(log.lines(), ElementsAre(error_line("Get_All_Pids", "Can't open the folder \"/proc\"! (-13)")));
  });
}

TEST_F(Get_All_Pids_Test, Says_when_the_folder_has_no_descriptor) {
  std::vector<Log_Line> lines;
  const Log_Capture log(1);
  dirfd_error = ENOTSUP;
  const Found found = pids_of("made");
  dirfd_error = -1;
  EXPECT_EQ(found.status, -ENOTSUP);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Get_All_Pids", "Can't get the fd of \"/proc\" folder. (-95)")));
}

TEST_F(Get_All_Pids_Test, When_memory_ends_says_so_and_hands_out_nothing) {
  with_made_proc([] {
    for (int pid = 100; pid < 165; ++pid) make_process(std::to_string(pid), {.comm = "made"});
    const Log_Capture log(1);
    std::vector<std::string> said;
    int other = 0;
    int *pids = nullptr, count = 0;
    with_each_allocation_failing(
        [&] {
          pids = &other, count = -1;
          return Get_All_Pids("made", &pids, &count);
        },
        [&](int status, int nth) {
          SCOPED_TRACE(nth);
          EXPECT_EQ(status, -ENOMEM);
          EXPECT_EQ(pids, nullptr);
          EXPECT_EQ(count, 0);
          EXPECT_EQ(log.lines().size(), static_cast<size_t>(nth));
        });
    for (const Log_Line &line : log.lines()) said.push_back(line.level + " " + line.function + " " + line.text);
    EXPECT_EQ(count, 65);
    free(pids);
    EXPECT_THAT(said, ElementsAre("error Get_All_Pids Can't allocate memory of 256 bytes!",
                                  "error Get_All_Pids Can't open the folder \"/proc\"! (-12)",
                                  "error Get_All_Pids Can't allocate memory of 512 bytes!"));
  });
}

// ---------------------------------------------------------------------------------------------------------- ancestors

class Get_Ancestry_Pid_Test : public Descriptor_Count {};

TEST_F(Get_Ancestry_Pid_Test, Climbs_to_the_process_below_the_first) {
  Sleepers sleepers("tarn-young");
  int expected = sleepers.start({"x", "600"});
  while (parent_in_status(expected) != 1) {
    expected = parent_in_status(expected);
    ASSERT_GT(expected, 1);
  }
  int pid = 0;
  EXPECT_EQ(Get_Ancestry_Pid("tarn-young", &pid), 0);
  EXPECT_EQ(pid, expected);
}

TEST_F(Get_Ancestry_Pid_Test, Stops_where_the_climb_ends) {
  struct Case {
    const char *name;
    int top;
  };
  with_made_proc([] {
    make_child_of(0, 1, "init");
    make_child_of(1, 20, "daemon");
    make_child_of(20, 30, "worker");
    make_child_of(30, 40, "helper");
    make_child_of(0, 2, "kthreadd");
    make_child_of(2, 50, "kthread");
    make_child_of(99, 60, "orphan");
    make_child_of(70, 80, "below");
    make_process("70", {.comm = "two words", .stat = "70 (two words) S 20 1\n"});
    for (const Case &c : {Case{"daemon", 20},  // its own ancestor
                          {"worker", 20},
                          {"helper", 20},
                          {"kthread", 0},  // 0 is no process, so that its parent cannot be read
                          {"init", 0},
                          {"orphan", 99},  // the last whose parent cannot be read
                          {"two words", 70},
                          {"below", 70}}) {
      SCOPED_TRACE(c.name);
      int pid = 77;
      EXPECT_EQ(Get_Ancestry_Pid(c.name, &pid), 0);
      EXPECT_EQ(pid, c.top);
    }
  });
}

TEST_F(Get_Ancestry_Pid_Test, Takes_the_first_process_of_the_name) {
  with_made_proc([] {
    for (const int pid : {50, 3, 900, 41, 8}) make_child_of(1, pid, "made");
    int pid = 77;
    EXPECT_EQ(Get_Ancestry_Pid("made", &pid), 0);
    EXPECT_EQ(pid, std::stoi(entries_in_order("/proc").front()));
  });
}

TEST_F(Get_Ancestry_Pid_Test, Finds_by_the_command_line_too) {
  Sleepers sleepers("tarn-line");
  sleepers.start(1);
  int by_line = 0, by_name = 0;
  EXPECT_EQ(Get_Ancestry_Pid(sleepers.path().c_str(), &by_line), 0);
  EXPECT_EQ(Get_Ancestry_Pid("tarn-line", &by_name), 0);
  EXPECT_EQ(by_line, by_name);
}

TEST_F(Get_Ancestry_Pid_Test, Answers_as_the_search_does_with_the_output_at_minus_1) {
  int pid = 77;
  EXPECT_EQ(Get_Ancestry_Pid("tarn-nobody", &pid), -ENODATA);
  EXPECT_EQ(pid, -1);
  for (const char *name : {static_cast<const char *>(nullptr), ""}) {
    pid = 77;
    EXPECT_EQ(Get_Ancestry_Pid(name, &pid), -EINVAL);
    EXPECT_EQ(pid, -1);
  }
}

TEST_F(Get_Ancestry_Pid_Test, Refuses_a_missing_output) {
  EXPECT_EQ(Get_Ancestry_Pid("x", nullptr), -EINVAL);
  EXPECT_EQ(Get_Ancestry_Pid(nullptr, nullptr), -EINVAL);
}

// ------------------------------------------------------------------------------------------------------------- output

// No process is left either: whoever runs a command also waits for it.
class Get_Program_Output_Test : public Descriptor_Count {
 protected:
  ~Get_Program_Output_Test() override {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  static constexpr char guard = '#';

  // The text, which is as long as the size says and ends there; nothing is written behind the size's last byte.
  std::string output_of(const std::string &command, int size = 1000) {
    std::vector<char> buffer(static_cast<size_t>(size) + 2, guard);
    int length = size;
    EXPECT_EQ(Get_Program_Output(command.c_str(), buffer.data(), &length), 0);
    EXPECT_EQ(buffer.back(), guard);
    if (length < 0 || length > size) {
      ADD_FAILURE() << length;
      return "";
    }
    EXPECT_EQ(buffer[static_cast<size_t>(length)], '\0');
    return {buffer.data(), static_cast<size_t>(length)};
  }
};

TEST_F(Get_Program_Output_Test, Is_a_line_without_its_newline) {
  EXPECT_EQ(output_of("echo one line"), "one line");
}

TEST_F(Get_Program_Output_Test, Loses_one_newline_and_only_at_its_end) {
  EXPECT_EQ(output_of("printf 'a\\nb\\n\\n'"), "a\nb\n");
  EXPECT_EQ(output_of("printf '\\n'"), "");
  EXPECT_EQ(output_of("printf '\\na'"), "\na");
  EXPECT_EQ(output_of("printf 'a '"), "a ");
}

TEST_F(Get_Program_Output_Test, Ends_at_the_size_and_the_rest_is_lost) {
  EXPECT_EQ(output_of("printf 123456789", 9), "123456789");
  EXPECT_EQ(output_of("printf 123456789", 8), "12345678");
  EXPECT_EQ(output_of("printf 123456789", 1), "1");
  EXPECT_EQ(output_of("head -c 3000000 /dev/zero | tr '\\0' x", 100), std::string(100, 'x'));
}

TEST_F(Get_Program_Output_Test, Loses_a_newline_only_when_it_is_the_last_byte_read) {
  EXPECT_EQ(output_of("printf 'ab\\ncd'", 2), "ab");
  EXPECT_EQ(output_of("printf 'ab\\ncd'", 3), "ab");
  EXPECT_EQ(output_of("printf 'ab\\ncd'", 4), "ab\nc");
  EXPECT_EQ(output_of("printf '\\n'", 1), "");
}

TEST_F(Get_Program_Output_Test, May_be_empty) {
  EXPECT_EQ(output_of("true"), "");
  EXPECT_EQ(output_of("", 1), "");
}

TEST_F(Get_Program_Output_Test, May_hold_NULs) {
  EXPECT_EQ(output_of("printf 'a\\000b\\n'"), std::string("a\0b", 3));
}

TEST_F(Get_Program_Output_Test, Is_there_whatever_the_exit_status) {
  EXPECT_EQ(output_of("echo x; exit 3"), "x");
  EXPECT_EQ(output_of("echo x; kill -KILL $$"), "x");
  EXPECT_EQ(output_of("exec 2> /dev/null; tarn-no-such-command"), "");
}

TEST_F(Get_Program_Output_Test, Is_that_of_a_shell) {
  EXPECT_EQ(output_of("x='a b'; for i in 1 2; do echo \"$x $i\"; done | tail -n 1"), "a b 2");
}

// The program says its second word when the first one has been read.
TEST_F(Get_Program_Output_Test, Is_what_one_read_gets_and_no_later_burst) {
  EXPECT_EQ(output_of("exec perl -e '$| = 1; $SIG{PIPE} = sub { exit }; print \"first\\n\"; my $left;"
                      " do { select undef, undef, undef, 0.01; $left = pack \"i\", 0; ioctl STDOUT, 0x541B, $left; }"
                      " while unpack \"i\", $left; print \"second\\n\"'"),
            "first");
}

TEST_F(Get_Program_Output_Test, Does_not_wait_for_a_child_in_the_background_that_holds_the_pipe) {
  const int pid = std::stoi(output_of("sleep 500 & echo $!"));
  EXPECT_EQ(Is_Process_Existed(pid), 1);
  kill(pid, SIGKILL);
}

TEST_F(Get_Program_Output_Test, Is_read_on_after_a_signal) {
  EXPECT_EQ(in_child([this] {
              struct sigaction action = {};
              action.sa_handler = [](int) {};
              sigaction(SIGALRM, &action, nullptr);
              const itimerval every_20_ms = {{0, 20'000}, {0, 20'000}}, never = {};
              setitimer(ITIMER_REAL, &every_20_ms, nullptr);
              EXPECT_EQ(output_of("sleep 0.5; echo late"), "late");
              setitimer(ITIMER_REAL, &never, nullptr);
            }),
            0);
}

TEST_F(Get_Program_Output_Test, Needs_all_arguments_and_a_size_of_1_at_least) {
  char buffer[] = "###";
  int size = 2;
  EXPECT_EQ(Get_Program_Output(nullptr, buffer, &size), -EINVAL);
  EXPECT_EQ(Get_Program_Output("echo x", nullptr, &size), -EINVAL);
  EXPECT_EQ(Get_Program_Output("echo x", buffer, nullptr), -EINVAL);
  EXPECT_EQ(size, 2);
  for (const int bad : {0, -1, INT_MIN}) {
    size = bad;
    EXPECT_EQ(Get_Program_Output("echo x", buffer, &size), -EINVAL);
    EXPECT_EQ(size, bad);
  }
  EXPECT_STREQ(buffer, "###");
}

class Get_Program_Output_That_Cannot_Start : public Get_Program_Output_Test {
 protected:
  // The answer; the output and its size stay as they are.
  static int answer() {
    char buffer[] = "###";
    int size = 2;
    errno = EBADF;  // of something else
    const int status = Get_Program_Output("echo x", buffer, &size);
    const int failure = errno;
    EXPECT_STREQ(buffer, "###");
    EXPECT_EQ(size, 2);
    errno = failure;
    return status;
  }
};

TEST_F(Get_Program_Output_That_Cannot_Start, Tells_that_there_are_no_descriptors_left) {
  EXPECT_EQ(in_child([] {
              rlimit descriptors;
              getrlimit(RLIMIT_NOFILE, &descriptors);
              const rlimit few = {3, descriptors.rlim_max};
              setrlimit(RLIMIT_NOFILE, &few);
              const int status = answer();
              setrlimit(RLIMIT_NOFILE, &descriptors);
              EXPECT_EQ(status, -EMFILE);
            }),
            0);
}

TEST_F(Get_Program_Output_That_Cannot_Start, Tells_that_there_is_no_shell) {
  EXPECT_EQ(in_child([] {
              mount_tmpfs("/usr/bin", "size=64k");
              const int status = answer();
              EXPECT_LT(status, 0);  // which error it is, is the C library's
              EXPECT_EQ(status, -errno);
            }),
            0);
}

TEST_F(Get_Program_Output_That_Cannot_Start, Tells_the_reason_or_a_lack_of_memory_when_there_is_none) {
  popen_error = EAGAIN;
  EXPECT_EQ(answer(), -EAGAIN);
  popen_error = 0;
  EXPECT_EQ(answer(), -ENOMEM);
  popen_error = -1;
}

}  // namespace
