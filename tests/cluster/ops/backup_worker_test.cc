#include "cluster/ops/backup_worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/backup_slave.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/call_hooks.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace {

std::optional<int> wait_answer;
std::function<void()> during_wait;
bool no_process = false;

}  // namespace

extern "C" {

// The wait for the result file, which is there at once unless somebody takes it away.
int __real_Polling_Result(const char *path, int timeout_s);
int __wrap_Polling_Result(const char *path, int timeout_s) {
  EXPECT_EQ(path, tarn::test::result_file);
  EXPECT_EQ(timeout_s, -1);
  if (during_wait) during_wait();
  return wait_answer ? *wait_answer : __real_Polling_Result(path, timeout_s);
}

FILE *__real_popen(const char *command, const char *mode);
FILE *__wrap_popen(const char *command, const char *mode) {
  if (!no_process) return __real_popen(command, mode);
  errno = EAGAIN;
  return nullptr;
}

}  // extern "C"

namespace tarn::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr char handler_name[] = "Tarn_Cluster_Backup_Cb";
const std::string image = "/tmp/packer/image.img";

const std::string task_head = "[" + own_id + "_b]\nstatus = ";
const std::string task_rest = "\nslave_id = " + own_id + "\ntype_name = Tarn cluster backup\ntask_id = " + own_id +
                              "_b\ntask_name = Backup slave Druvo Cluster to master\nprogress = ";

std::string task(int status, const std::string &progress) {
  return task_head + std::to_string(status) + task_rest + progress + "\n\n";
}

// Runs workers in the test's own process; their pauses take no time.
class Worker : public testing::Test {
 protected:
  Worker() {
    platform_.answer(0, R"({"cluster_cmd_status":"5"})");
    write_file(image, "packed");
  }
  ~Worker() override {
    slave_.wait_for_all();
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors leak";
    EXPECT_FALSE(exists(owned_lock("tarn_backup.conf")));
    g_bAbort = 0;
    g_bSlaveOnMaster = 0;
    Set_Abort(&g_bAbort);
    Set_Slave_On_Master(&g_bSlaveOnMaster);
    wait_answer.reset();
    during_wait = nullptr;
    no_process = false;
    backup_stall_limit_ms = 3'600'000;
    signal(SIGCHLD, SIG_DFL);
  }

  // between: is told in each pause how many there were.
  int run(const std::string &path = image, const std::function<void(int)> &between = nullptr) {
    Virtual_Clock clock(1'800'000'000'000);
    const Before_Call pause(System_Call::nanosleep, Before_Call::every, [&] {
      clock.advance(1000);
      ++pauses_;
      if (between) between(pauses_);
      return Before_Call::answers_zero;
    });
    const int code = run_backup_worker(own_id.c_str(), path.c_str());
    slave_.wait_for_all();
    return code;
  }

  std::vector<std::string> errors() const {
    std::vector<std::string> found;
    for (const Log_Line &line : log_.lines()) {
      if (line.level == "error" && line.function == handler_name) found.push_back(line.text);
    }
    return found;
  }

  // The percentages that the master is told.
  std::vector<std::string> told() const {
    std::vector<std::string> found;
    for (const Platform_Call &call : platform_.calls()) {
      if (call.command.find("Set_Pack_Prg_Cb") == std::string::npos) continue;
      const auto members = json_members(call.argument);
      EXPECT_EQ(members.at(0).second, "\"" + own_id + "\"");
      found.push_back(members.at(1).second);
    }
    return found;
  }

  // The calls that send a file.
  std::vector<Platform_Call> sent() const {
    std::vector<Platform_Call> found;
    for (const Platform_Call &call : platform_.calls()) {
      if (call.command.find("Set_Pack_Prg_Cb") == std::string::npos) found.push_back(call);
    }
    return found;
  }

  // How a backup ends that fails while it packs: the result file says it, the master gets it, and so all is well.
  void expect_handed_over(int code) {
    EXPECT_EQ(read_file(result_file), std::to_string(code));
    EXPECT_THAT(sent(), SizeIs(1));
    EXPECT_THAT(read_file(task_file), HasSubstr("status = 7\n"));
  }

  Backup_Slave slave_;
  Platform_Doubles platform_;
  Log_Capture log_;
  int pauses_ = 0;
  const int descriptors_ = open_descriptors();
};

// --------------------------------------------------------------------------------------------------------------- start

TEST_F(Worker, The_Task_Is_Made_Anew_With_A_Progress_And_The_Notice_Is_Posted_Once) {
  write_file(task_file, "[old]\nstatus = 1\n");
  std::string at_first;
  slave_.answer({"progress:0%\n", "progress:100%\n"});
  run(image, [&](int) { at_first = read_file(task_file); });
  EXPECT_EQ(at_first, task(1, "0.000000"));
  EXPECT_THAT(slave_.notices(), ElementsAre("6 0 0 '' 19 '' 0 -1 0 '---' '---' '---' '---' 0 0 "
                                            "'[Druvo] Druvo slave cluster backup'"));
}

TEST_F(Worker, A_Task_That_Cannot_Be_Stored_Is_Said_Not_Noticed_And_The_Backup_Goes_On) {
  std::filesystem::remove_all("/tmp/druvosrv");
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(errors(), ElementsAre("Can't set background task for cluster " + own_id + "! (-2)"));
  EXPECT_THAT(slave_.notices(), IsEmpty());
  EXPECT_EQ(read_file(result_file), "0");
}

// Anybody may plant a link in a folder below /tmp.
TEST_F(Worker, A_Planted_Link_At_The_Tasks_File_Leads_Nowhere) {
  write_file("/tmp/packer/victim", "mine");
  std::filesystem::create_symlink("/tmp/packer/victim", task_file);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(read_file("/tmp/packer/victim"), "mine");
  EXPECT_FALSE(std::filesystem::is_symlink(task_file));
  EXPECT_THAT(read_file(task_file), HasSubstr("status = 7"));
}

TEST_F(Worker, A_Link_That_Is_Planted_At_The_Last_Moment_Leads_Nowhere_Either) {
  write_file(task_file, "");
  const Before_Call removal(System_Call::unlink, 1, [] {
    std::filesystem::remove(task_file);
    std::filesystem::create_symlink("/tmp/packer/victim", task_file);
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(run_backup_worker(own_id.c_str(), image.c_str()), 0);
  EXPECT_TRUE(removal.happened());
  EXPECT_FALSE(exists("/tmp/packer/victim"));
}

TEST_F(Worker, Its_Folders_Are_Made_For_Root_Only_And_Kept_When_They_Are_There) {
  const mode_t mask = umask(0);
  EXPECT_EQ(run(), 0);
  umask(mask);
  EXPECT_EQ(mode_of(backup_folder), 0700u);
  EXPECT_EQ(mode_of(backup_folder + "/" + own_id), 0700u);
  chmod(backup_folder.c_str(), 0750);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(mode_of(backup_folder), 0750u);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Worker, Folders_That_Cannot_Be_Made_End_It_With_A_Failed_Task_And_Nothing_Runs) {
  std::filesystem::remove_all(home_folder);
  EXPECT_EQ(run(), -ENOENT);
  write_file(home_folder, "");
  EXPECT_EQ(run(), -ENOTDIR);
  std::filesystem::remove(home_folder);
  std::filesystem::create_directories(home_folder);
  write_file(backup_folder, "");
  EXPECT_EQ(run(), -ENOTDIR);
  EXPECT_THAT(errors(), ElementsAre("mkdir " + backup_folder + " error!(-2)", "mkdir " + backup_folder + " error!(-20)",
                                    "mkdir " + backup_folder + "/" + own_id + " error!(-20)"));
  EXPECT_EQ(read_file(task_file), task(8, "0.000000"));
  EXPECT_THAT(slave_.packed(), IsEmpty());
  EXPECT_EQ(slave_.times_asked(), 0);
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Worker, Old_Images_Are_Removed_And_Nothing_Else) {
  std::filesystem::create_directories(backup_folder + "/" + own_id);
  for (const char *name : {"/a.img", "/b c.img", "/keep.txt", "/QNself01/inner.img"})
    write_file(backup_folder + name, "");
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(names_in(backup_folder), ElementsAre(own_id, own_id + ".result", "keep.txt"));
  EXPECT_THAT(names_in(backup_folder + "/" + own_id), ElementsAre("inner.img"));
}

TEST_F(Worker, The_Packer_Gets_The_Path_As_One_Word_Whatever_Is_In_It) {
  for (const std::string path :
       {"/tmp/plain", "/tmp/a b\tc", "/tmp/it's", "'", "''x'", "/tmp/$(touch /tmp/packer/evil)",
        "`touch /tmp/packer/evil`", "/tmp/a\ntouch /tmp/packer/evil\n", ";touch /tmp/packer/evil;",
        "' ; touch /tmp/packer/evil ; '", "\"$HOME\"", "*", "a\\", "%s%n", "&", "#x"}) {
    SCOPED_TRACE(path);
    std::filesystem::remove("/tmp/packer/packed");
    EXPECT_EQ(run(path), 0);
    EXPECT_THAT(slave_.packed(), ElementsAre("-b", path, "> /dev/null", "2> /dev/null"));
    EXPECT_FALSE(exists("/tmp/packer/evil"));
  }
}

TEST_F(Worker, It_Does_Not_Wait_For_The_Packer_And_Leaves_Commands_Their_End) {
  signal(SIGCHLD, SIG_IGN);
  slave_.answer({"progress:1%\n", "progress:100%\n"});
  EXPECT_EQ(run(image,
                [](int) {
                  struct sigaction action = {};
                  sigaction(SIGCHLD, nullptr, &action);
                  EXPECT_EQ(action.sa_handler, SIG_DFL);
                }),
            0);
}

// ------------------------------------------------------------------------------------------------------- how it can
// end

TEST_F(Worker, Packed_It_Reports_Each_Change_Hands_The_Result_Over_And_Finishes_The_Task) {
  slave_.answer({"progress:0%\n", "progress: 41%\n", "the progress is: 41% now\n", "xprogressx:  42%\n",
                 "progress:7%\n", "progress:100%\n"});
  std::vector<std::string> local;
  EXPECT_EQ(run(image, [&](int) { local.push_back(read_file(task_file)); }), 0);
  EXPECT_THAT(told(), ElementsAre("41", "42", "7", "100"));
  EXPECT_THAT(local, ElementsAre(task(1, "0.000000"), task(1, "0.200000"), task(1, "0.200000"), task(1, "0.210000"),
                                 task(1, "0.030000")));
  EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
  EXPECT_EQ(read_file(result_file), "0");
  ASSERT_THAT(sent(), SizeIs(1));
  EXPECT_EQ(sent()[0].function, "Cluster_Slave_Cmd_Ex");
  EXPECT_THAT(json_members(sent()[0].command),
              AllOf(Contains(Pair("op_code", "5")), Contains(Pair("master_id", "\"0\""))));
  EXPECT_THAT(json_members(sent()[0].argument),
              ElementsAre(Pair("src_path", "\"" + result_file + "\""), Pair("dst_path", "\"" + result_file + "\"")));
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_THAT(log_.lines(), Contains(debug_line(handler_name, "Send result file command status: 5")));
  EXPECT_EQ(read_file(image), "packed");
}

TEST_F(Worker, It_Asks_Once_A_Second) {
  slave_.answer({"progress:1%\n", "progress:2%\n", "progress:3%\n", "progress:100%\n"});
  std::vector<int> asked;
  run(image, [&](int) { asked.push_back(slave_.times_asked()); });
  EXPECT_THAT(asked, ElementsAre(1, 2, 3));
}

TEST_F(Worker, Without_A_Process_To_Ask_It_Ends_With_Minus_8) {
  slave_.answer({"progress:10%\n"});
  EXPECT_EQ(run(image, [](int) { no_process = true; }), 0);
  EXPECT_THAT(errors(), ElementsAre("Can't execute check progress util! (-8)"));
  expect_handed_over(-8);
}

TEST_F(Worker, A_Packer_That_Prints_Nothing_Or_Is_Missing_Ends_It_With_Minus_61) {
  slave_.answer({""});
  EXPECT_EQ(run(), 0);
  expect_handed_over(-61);
  std::filesystem::remove(packer);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(read_file(result_file), "-61");
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_TRUE(exists(image));
}

TEST_F(Worker, A_Malformed_Line_Ends_It_With_Minus_59_And_Keeps_The_Backup_File) {
  for (const char *line : {"\n", "40%\n", "progress 40%\n", "progress:\n", "progress:%\n", "progress:x%\n", "pr:40%\n",
                           ":40% progress\n", "Progress:40%\n", "progress:99999999999%\n", "progress:-99999999999\n",
                           "progress:99999999999999999999%\n", "progress: -%\n"}) {
    SCOPED_TRACE(line);
    log_.clear();
    slave_.answer({line});
    EXPECT_EQ(run(), 0);
    EXPECT_THAT(errors(), ElementsAre("Pack backup file progress mal-form! (-59)"));
    EXPECT_EQ(read_file(result_file), "-59");
    EXPECT_TRUE(exists(image));
  }
  EXPECT_THAT(told(), IsEmpty());
  EXPECT_THAT(read_file(task_file), HasSubstr("status = 7\n"));
}

TEST_F(Worker, A_Line_That_Lacks_Only_The_Percent_Sign_Removes_The_Backup_File_As_Well) {
  const std::string other = "/tmp/packer/it's $(an) image";
  for (const char *line : {"progress: 40\n", "progress:40", "progress:-5\n", "progress:40 %\n", "progress:40x%\n"}) {
    SCOPED_TRACE(line);
    log_.clear();
    write_file(image, "");
    write_file(other, "");
    slave_.answer({line});
    EXPECT_EQ(run(other), 0);
    EXPECT_THAT(errors(), ElementsAre("Pack backup file progress mal-form! (-59)"));
    EXPECT_EQ(read_file(result_file), "-59");
    EXPECT_FALSE(exists(other));
    EXPECT_TRUE(exists(image));
  }
}

TEST_F(Worker, A_Line_Is_Read_Up_To_31_Characters) {
  slave_.answer({"progress" + std::string(18, ' ') + ":100%\n"});
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(told(), ElementsAre("100"));
  slave_.answer({"progress" + std::string(19, ' ') + ":100%\n"});
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(read_file(result_file), "-59");
  EXPECT_FALSE(exists(image)) << "the percent sign is what is cut";
}

TEST_F(Worker, A_Negative_Number_Ends_It_With_That) {
  slave_.answer({"progress:30%\n", "progress:-17%\n"});
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(errors(), ElementsAre("Error happens when pack backup file! (-17)"));
  EXPECT_THAT(told(), ElementsAre("30"));
  EXPECT_EQ(read_file(task_file), task(7, "0.150000"));
  expect_handed_over(-17);
}

TEST_F(Worker, An_Hour_Without_A_Change_Ends_It_With_Minus_62) {
  EXPECT_EQ(backup_stall_limit_ms, 3'600'000);
  slave_.answer({"progress:30%\n"});
  backup_stall_limit_ms = 5000;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(pauses_, 6) << "more than the limit: a sixth second passes";
  EXPECT_THAT(errors(), ElementsAre("Pack backup file Timeout! (-62)"));
  EXPECT_THAT(told(), ElementsAre("30"));
  expect_handed_over(-62);
}

TEST_F(Worker, A_Packer_That_Stays_At_0_Counts_From_The_Start) {
  slave_.answer({"progress:0%\n"});
  backup_stall_limit_ms = 2000;
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(pauses_, 3);
  EXPECT_THAT(told(), IsEmpty());
  expect_handed_over(-62);
}

TEST_F(Worker, Each_Change_Starts_The_Hour_Anew) {
  slave_.answer({"progress:1%\n", "progress:1%\n", "progress:1%\n", "progress:2%\n", "progress:2%\n", "progress:2%\n",
                 "progress:1%\n", "progress:1%\n", "progress:1%\n", "progress:100%\n"});
  backup_stall_limit_ms = 2000;
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(told(), ElementsAre("1", "2", "1", "100"));
  EXPECT_EQ(read_file(result_file), "0");
}

TEST_F(Worker, Removed_From_The_Cluster_It_Stops_The_Packer_And_Ends_With_Minus_1) {
  slave_.pack_for_ever();
  slave_.answer({"progress:30%\n"});
  EXPECT_EQ(run(image, [](int) { std::filesystem::remove(master_file); }), -1);
  EXPECT_THAT(errors(), ElementsAre("Stop backup task cause's slave " + own_id + " is removed..."));
  EXPECT_EQ(read_file(result_file), "-1");
  EXPECT_THAT(sent(), SizeIs(1));
  EXPECT_EQ(read_file(task_file), task(8, "0.150000"));
}

TEST_F(Worker, The_Abort_Flag_Ends_It_And_Takes_The_Result_Back) {
  for (const int flag : {1, 99, -3}) {
    SCOPED_TRACE(flag);
    g_bAbort = 0;
    log_.clear();
    slave_.answer({"progress:30%\n"});
    EXPECT_EQ(run(image, [&](int pauses) { g_bAbort = pauses % 2 == 0 ? flag : 0; }), flag);
    EXPECT_THAT(errors(), ElementsAre("Can't send file " + result_file + "! (" + std::to_string(flag) + ")"));
    EXPECT_FALSE(exists(result_file));
    EXPECT_THAT(sent(), IsEmpty());
    EXPECT_EQ(read_file(task_file), task(flag < 0 ? 8 : 1, "0.150000"));
  }
}

TEST_F(Worker, An_Abort_Flag_That_Is_Set_From_The_Start_Asks_Nothing) {
  int flag = 4;
  Set_Abort(&flag);
  EXPECT_EQ(run(), 4);
  EXPECT_EQ(slave_.times_asked(), 0);
  EXPECT_THAT(slave_.packed(), SizeIs(4)) << "the packer was started all the same";
}

// -------------------------------------------------------------------------------------------------------------- result

TEST_F(Worker, A_Result_File_That_Cannot_Be_Opened_Ends_It_With_A_Failed_Task) {
  std::filesystem::create_directories(result_file + "/x");
  EXPECT_EQ(run(), -EISDIR);
  EXPECT_THAT(errors(), ElementsAre("Can't open result file " + result_file + " to write result 0! (-21)"));
  EXPECT_EQ(read_file(task_file), task(8, "0.500000"));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Worker, A_Result_File_That_Cannot_Be_Written_Ends_It_With_A_Failed_Task) {
  slave_.answer({"progress:-17%\n"});
  bool failed = false;
  const Before_Call write(System_Call::write, Before_Call::every, [&] {
    if (failed || !exists(result_file)) return 0;
    failed = true;
    return ENOSPC;
  });
  EXPECT_EQ(run_backup_worker(own_id.c_str(), image.c_str()), -ENOSPC);
  EXPECT_THAT(errors(), ElementsAre("Error happens when pack backup file! (-17)",
                                    "Can't write result -17 to file " + result_file + "! (-28)"));
  EXPECT_EQ(read_file(task_file), task(8, "0.000000"));
  EXPECT_THAT(sent(), IsEmpty());
}

TEST_F(Worker, A_Longer_Result_Of_Before_Is_Replaced_Whole) {
  std::filesystem::create_directories(backup_folder);
  write_file(result_file, "-1234567");
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(read_file(result_file), "0");
}

TEST_F(Worker, On_The_Masters_Own_Appliance_The_Result_Stays_Where_It_Is) {
  int on_master = 1;
  Set_Slave_On_Master(&on_master);
  EXPECT_EQ(run(), 0);
  EXPECT_EQ(read_file(result_file), "0");
  EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
  slave_.answer({""});
  EXPECT_EQ(run(), -61) << "nobody was handed the result";
  EXPECT_EQ(read_file(result_file), "-61");
  EXPECT_EQ(read_file(task_file), task(8, "0.000000"));
  EXPECT_THAT(sent(), IsEmpty());
  EXPECT_THAT(told(), ElementsAre("100"));
}

TEST_F(Worker, A_Master_That_Cannot_Be_Reached_Is_Said_And_The_Backup_Is_Done_All_The_Same) {
  platform_.answer(-111);
  slave_.answer({"progress:30%\n", "progress:100%\n"});
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(errors(),
              ElementsAre("Can't send \"send file\" command to cluster for file " + result_file + "! (-111)"));
  EXPECT_EQ(read_file(result_file), "0");
  EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
  EXPECT_THAT(told(), ElementsAre("30", "100"));
}

TEST_F(Worker, An_Answer_Without_A_Status_Is_Said) {
  for (const char *reply : {"{}", "no json"}) {
    log_.clear();
    platform_.answer(0, reply);
    EXPECT_EQ(run(), 0);
    const int code = reply[0] == '{' ? -22 : -12;
    EXPECT_THAT(errors(), ElementsAre("Can't parse result file " + result_file + "! (" + std::to_string(code) + ")"));
    EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
  }
}

TEST_F(Worker, A_Wait_For_The_Result_That_Is_Ended_Takes_It_Back_With_The_Waits_Code_Or_The_Flag) {
  for (const int flag : {0, 6}) {
    SCOPED_TRACE(flag);
    log_.clear();
    wait_answer = -ENOENT;
    during_wait = [flag] { g_bAbort = flag; };
    slave_.answer({"progress:-17%\n"});
    std::vector<std::string> written;
    const Before_Call removal(System_Call::unlink, Before_Call::every, [&] {
      if (exists(result_file)) written.push_back(read_file(result_file));
      return 0;
    });
    EXPECT_EQ(run_backup_worker(own_id.c_str(), image.c_str()), -17);
    // A result of fewer than four characters cannot be read back.
    const std::string cannot_send = "Can't send file " + result_file + (flag == 0 ? "! (-5)" : "! (6)");
    EXPECT_THAT(errors(), ElementsAre("Error happens when pack backup file! (-17)", cannot_send));
    ASSERT_THAT(written, Not(IsEmpty()));
    EXPECT_EQ(written[0], flag == 0 ? "-2" : "6");
    EXPECT_FALSE(exists(result_file));
    EXPECT_EQ(read_file(task_file), task(8, "0.000000"));
    EXPECT_THAT(sent(), IsEmpty());
    g_bAbort = 0;
  }
}

// ------------------------------------------------------------------------------------------------- a process of its
// own

// Set by a handler that must not run in a worker.
const pid_t test_process = getpid();
const int registered = atexit([] {
  if (getpid() != test_process) write_file("/tmp/packer/atexit", "");
});

class Worker_Process : public Worker {
 protected:
  // Starts a worker as the platform does.
  pid_t start(const std::string &path = image) {
    EXPECT_THAT(slave_.children(), IsEmpty());
    char *answer = Tarn_Cluster_Backup_Cb(
        ("{\"slave_id\":" + json_quoted(own_id) + ",\"bak_path\":" + json_quoted(path) + "}").c_str());
    EXPECT_STREQ(answer, "{ \"return\": 0 }");
    free(answer);
    const auto children = slave_.children();
    EXPECT_THAT(children, Not(IsEmpty()));
    return children.at(0);
  }
  static int exit_status(int wait_status) {
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : -WTERMSIG(wait_status);
  }

  static void wait_for_task(const std::string &text) {
    while (!exists(task_file) || read_file(task_file).find(text) == std::string::npos) usleep(5000);
  }
};

TEST_F(Worker_Process, It_Packs_Beside_Its_Parent_And_Its_Exit_Status_Is_The_Result) {
  slave_.answer({"progress:50%\n", "progress:100%\n"});
  const pid_t worker = start();
  wait_for_task("progress = 0.250000");
  EXPECT_EQ(waitpid(worker, nullptr, WNOHANG), 0) << "its parent was not made to wait";
  EXPECT_EQ(exit_status(slave_.wait_for(worker)), 0);
  EXPECT_EQ(read_file(result_file), "0");
  EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
  EXPECT_THAT(slave_.packed(), ElementsAre("-b", image, "> /dev/null", "2> /dev/null"));
  EXPECT_THAT(slave_.notices(), SizeIs(1));
}

TEST_F(Worker_Process, A_Failure_Is_Its_Exit_Status) {
  std::filesystem::create_directories(result_file);
  EXPECT_EQ(exit_status(slave_.wait_for(start())), 256 - EISDIR);
  EXPECT_THAT(read_file(task_file), HasSubstr("status = 8\n"));
}

TEST_F(Worker_Process, A_Slave_That_Is_Removed_Makes_It_End_With_255_And_No_Packer_Is_Left) {
  slave_.pack_for_ever();
  slave_.answer({"progress:10%\n"});
  const pid_t worker = start();
  wait_for_task("progress = 0.050000");
  std::filesystem::remove(master_file);
  EXPECT_EQ(exit_status(slave_.wait_for(worker)), 255);
  EXPECT_EQ(read_file(result_file), "-1");
  EXPECT_THAT(read_file(task_file), HasSubstr("status = 8\n"));
}

TEST_F(Worker_Process, An_Abort_Flag_In_Shared_Memory_Reaches_It) {
  auto *flag =
      static_cast<int *>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(flag, MAP_FAILED);
  Set_Abort(flag);
  slave_.answer({"progress:10%\n"});
  const pid_t worker = start();
  wait_for_task("progress = 0.050000");
  *flag = 5;
  EXPECT_EQ(exit_status(slave_.wait_for(worker)), 5);
  EXPECT_FALSE(exists(result_file));
  EXPECT_THAT(read_file(task_file), HasSubstr("status = 1\n"));
  Set_Abort(&g_bAbort);
  munmap(flag, sizeof(int));
}

TEST_F(Worker_Process, It_Runs_Nothing_Of_Its_Parents_End_And_Flushes_Nothing_Twice) {
  ASSERT_EQ(registered, 0);
  FILE *buffered = fopen("/tmp/packer/buffered", "we");
  fputs("once", buffered);
  EXPECT_EQ(exit_status(slave_.wait_for(start())), 0);
  fclose(buffered);
  EXPECT_EQ(read_file("/tmp/packer/buffered"), "once");
  EXPECT_FALSE(exists("/tmp/packer/atexit"));
}

TEST_F(Worker_Process, After_One_That_Was_Killed_The_Next_Backup_Starts_Clean) {
  for (const char *stage : {"status = 1", "progress = 0.050000"}) {
    SCOPED_TRACE(stage);
    slave_.answer({"progress:0%\n", "progress:10%\n"});
    const pid_t worker = start();
    wait_for_task(stage);
    kill(worker, SIGKILL);
    EXPECT_EQ(exit_status(slave_.wait_for(worker)), -SIGKILL);
    slave_.wait_for_all();
    std::filesystem::create_directories(backup_folder);
    write_file(backup_folder + "/half.img", "");
    slave_.answer({"progress:100%\n"});
    EXPECT_EQ(exit_status(slave_.wait_for(start())), 0);
    slave_.wait_for_all();
    EXPECT_EQ(read_file(task_file), task(7, "0.500000"));
    EXPECT_EQ(read_file(result_file), "0");
    EXPECT_THAT(names_in(backup_folder), ElementsAre(own_id, own_id + ".result"));
    EXPECT_FALSE(exists(owned_lock("tarn_backup.conf")));
    std::filesystem::remove_all(backup_folder);
    std::filesystem::remove(task_file);
  }
}

}  // namespace
}  // namespace tarn::test
