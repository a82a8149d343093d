// Backups between real members: a slave's worker with the desk's packer, its reports over the bus, the master's
// records, and the result's way to the master. Each way that a backup can end leaves a result, a task, an exit status
// and no process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "tarncluster_util.h"
#include "tests/platform/backup_handlers.h"
#include "tests/platform/joined_cluster.h"

namespace tarn::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char kTaskFile[] = "/tmp/druvosrv/tarn_backup.conf";
constexpr char kBackupFolder[] = "/etc/config/tarn_cluster/home/backup";
constexpr char kImage[] = "/etc/config/tarn_cluster/home/backup/config.img";
constexpr char kPackerSettings[] = "/etc/config/druvosrv_tool.conf";
constexpr char kPacker[] = "/sbin/druvosrv_tool";
constexpr char kNone[] = "none";

// The processes of a group that have not ended.
std::vector<std::string> processes_of_group(int group) {
  std::vector<std::string> found;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    std::string line;
    if (!std::getline(file, line)) continue;
    char state = 0;
    int parent = 0;
    int own_group = 0;
    const char *rest = line.c_str() + line.rfind(')') + 1;
    if (sscanf(rest, " %c %d %d", &state, &parent, &own_group) == 3 && own_group == group && state != 'Z')
      found.push_back(line.substr(0, line.rfind(')') + 1));
  }
  return found;
}

class Backup : public testing::Test {
 protected:
  Backup() {
    for (const Linked_Member *member : {&cluster.master(), &cluster.slave(0)}) {
      // The members of these tests have /tmp in common.
      (*member)->on_member([] {
        mount("tarn-test", "/tmp/druvosrv", "tmpfs", 0, "mode=755");
        return "";
      });
    }
    make_masters_task();
  }
  ~Backup() override {
    EXPECT_TRUE(comes_true([&] { return group_ == 0 || processes_of_group(group_).empty(); }))
        << testing::PrintToString(processes_of_group(group_));
    EXPECT_EQ(slave.text_of(owned_lock("tarn_backup.conf")), "");
  }

  // What a program does before it asks for a backup.
  void make_masters_task() {
    master->on_member([&] {
      Backgrnd_Task_Conf task;
      Backgrnd_Task_Conf_Preset(&task);
      snprintf(task.task_id, sizeof(task.task_id), "%s_b", slave.id.c_str());
      task.status = 1;
      task.fields = TARN_TASK_PROGRESS | TARN_TASK_STATUS | TARN_TASK_ID;
      EXPECT_EQ(Backgrnd_Task_Set(kTaskFile, task.task_id, &task), 0);
      return "";
    });
  }

  void set_packer(const std::string &settings) {
    slave->on_member([&] {
      write_file(kPackerSettings, settings);
      return "";
    });
  }

  Outcome start_by(const std::string &handler, const std::string &path) {
    slave->on_member([] {
      for (const char *file : {kWorkerFile, kExitFile, kAbortFlagFile}) unlink(file);
      return "";
    });
    const std::string argument = R"({"slave_id": ")" + slave.id + R"(", "bak_path": ")" + path + "\"}";
    return master->master_command(handler_of_slave(slave.id, handler), argument);
  }

  // Starts a backup whose worker is watched.
  void start(const std::string &handler = "Kept_Backup_Cb", const std::string &path = kImage) {
    const Outcome outcome = start_by(handler, path);
    ASSERT_EQ(outcome.code, 0);
    ASSERT_EQ(outcome.reply, "{ \"return\": 0 }");
    ASSERT_EQ(sscanf(slave.text_of(kWorkerFile).c_str(), "%d %d", &worker_, &group_), 2);
    ASSERT_GT(worker_, 0);
  }

  // What the worker ends with; "none" when it does not.
  std::string exit_status() {
    std::string text;
    return comes_true([&] { return !(text = slave.text_of(kExitFile)).empty(); }, 120) ? text : kNone;
  }

  static std::string result_file_of(const Linked_Member &member) {
    return std::string(kBackupFolder) + "/" + member.id + ".result";
  }
  // The result as a member has it.
  std::string result_on(const Linked_Member &member) {
    return member->on_member([&] {
      const std::string path = result_file_of(slave);
      return exists(path) ? read_file(path) : kNone;
    });
  }
  // "STATUS PROGRESS" of the backup's task as a member has it.
  std::string task_on(const Linked_Member &member) {
    return member->on_member([&] {
      Backgrnd_Task_Conf *task = nullptr;
      if (Backgrnd_Task_Get(kTaskFile, (slave.id + "_b").c_str(), &task) != 0 || task == nullptr)
        return std::string(kNone);
      const std::string text = std::to_string(task->status) + " " + std::to_string(task->progress);
      Release_Backgrnd_Task_Conf(task);
      return text;
    });
  }
  bool comes_to_pack() {
    return comes_true([&] { return task_on(slave).find("1 0.") == 0 && task_on(slave) != "1 0.000000"; });
  }

  // A backup that fails while it packs and is handed over: the file tells what it was, the worker and its task are
  // done.
  void expect_handed_over(const std::string &result) {
    EXPECT_EQ(exit_status(), "0");
    EXPECT_EQ(result_on(slave), result);
    EXPECT_EQ(result_on(master), result);
    EXPECT_THAT(task_on(slave), HasSubstr("7 "));
  }

  bool has_image() {
    return slave->on_member([] { return exists(kImage) ? "yes" : "no"; }) == "yes";
  }
  // Goes on as far as the master has been told that all is packed; the worker then waits for the lock of its task's
  // file until the answer is let go.
  Process hold_before_hand_over() {
    set_packer("seconds=2\n");
    start();
    EXPECT_TRUE(comes_to_pack());
    Process lock = slave->start_on_member([] {
      if (Get_File_Lock(kTaskFile, 1000) != 1) _exit(1);
      for (;;) pause();
    });
    EXPECT_TRUE(comes_true([&] { return master.record(slave.id, "BackupProgress") == "50"; }));
    return lock;
  }

  // The next backup after one that was cut off.
  void expect_clean_start() {
    set_packer("seconds=1\n");
    const int old_group = group_;
    start();
    expect_handed_over("0");
    EXPECT_EQ(task_on(slave), "7 0.500000");
    EXPECT_TRUE(comes_true([&] { return processes_of_group(old_group).empty(); }));
    EXPECT_THAT(files_in_backup_folder(), UnorderedElementsAre("config.img", slave.id, slave.id + ".result"));
  }
  std::vector<std::string> files_in_backup_folder() { return names_in(slave->path(kBackupFolder)); }

  Joined_Cluster cluster{1};
  Linked_Member &master = cluster.master();
  Linked_Member &slave = cluster.slave(0);
  pid_t worker_ = 0;
  int group_ = 0;
};

// ------------------------------------------------------------------------------------------------------- how it may
// end

TEST_F(Backup, That_The_Master_Asks_For_Is_Packed_Reported_And_Handed_Over) {
  set_packer("seconds=3\n");
  const Outcome outcome =
      master->call([&](char **reply) { return Tarn_Cluster_Backup(slave.id.c_str(), kImage, reply); });
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, "{ \"return\": 0 }");
  EXPECT_TRUE(comes_true([&] {
    const std::string half = master.record(slave.id, "BackupProgress");
    return half != kNone && half != "0" && half != "50";
  })) << "the master hears of it while it is packed";
  EXPECT_TRUE(comes_true([&] { return result_on(master) == "0"; }));
  EXPECT_TRUE(comes_true([&] { return task_on(slave) == "7 0.500000"; }));
  EXPECT_EQ(result_on(slave), "0");
  EXPECT_EQ(master.record(slave.id, "BackupProgress"), "50");
  EXPECT_THAT(master.text_of(kKeptMembersFile), HasSubstr("BackupProgress = 50\n"));
  EXPECT_EQ(task_on(master), "1 50.000000");
  EXPECT_THAT(slave.text_of("/var/log/tarncluster_events.log"), HasSubstr("[Druvo] Druvo slave cluster backup"));
}

TEST_F(Backup, Finished_Has_The_Members_Configuration_In_It_But_No_Backups) {
  set_packer("seconds=1\n");
  start();
  expect_handed_over("0");
  EXPECT_EQ(task_on(slave), "7 0.500000");
  const std::string list = slave->on_member([] {
    [[maybe_unused]] const int ignored = system(("tar --list --file=" + std::string(kImage) + " > /run/list").c_str());
    return read_file("/run/list");
  });
  EXPECT_THAT(list, AllOf(HasSubstr("./tarn_cluster/bus/member.crt\n"), HasSubstr("./druvosrv_tool.conf\n"),
                          Not(HasSubstr("tarn_cluster/home"))));
}

TEST_F(Backup, Without_A_Packer_Ends_With_Minus_61) {
  std::filesystem::rename(kPacker, std::string(kPacker) + ".away");
  start();
  expect_handed_over("-61");
  EXPECT_EQ(task_on(slave), "7 0.000000");
  std::filesystem::rename(std::string(kPacker) + ".away", kPacker);
}

TEST_F(Backup, Whose_Packer_Prints_Nothing_Ends_With_Minus_61) {
  set_packer("then=say\n");
  start();
  expect_handed_over("-61");
}

TEST_F(Backup, Whose_Packer_Prints_Something_Else_Ends_With_Minus_59_And_Keeps_The_File) {
  set_packer("then=say nothing of the kind\n");
  slave->on_member([] {
    write_file("/etc/config/before.tar", "");
    return "";
  });
  start("Kept_Backup_Cb", "/etc/config/before.tar");
  expect_handed_over("-59");
  EXPECT_TRUE(exists(slave->path("/etc/config/before.tar")));
}

TEST_F(Backup, Whose_Packer_Prints_No_Percent_Sign_Ends_With_Minus_59_And_Removes_The_File) {
  set_packer("seconds=4\nat=30\nthen=say progress:40\n");
  slave->on_member([] {
    write_file("/etc/config/before.tar", "");
    return "";
  });
  start("Kept_Backup_Cb", "/etc/config/before.tar");
  expect_handed_over("-59");
  EXPECT_FALSE(exists(slave->path("/etc/config/before.tar")));
}

TEST_F(Backup, Whose_Packer_Fails_Ends_With_The_Packers_Number) {
  set_packer("seconds=4\nat=50\nthen=fail -17\n");
  start();
  expect_handed_over("-17");
  EXPECT_NE(task_on(slave), "7 0.000000") << "it had come some way";
  EXPECT_THAT(slave->log(), HasSubstr("Error happens when pack backup file! (-17)\n"));
  EXPECT_FALSE(has_image());
}

TEST_F(Backup, That_Cannot_Be_Written_Ends_With_The_Reason) {
  start("Kept_Backup_Cb", "/nowhere/config.img");
  expect_handed_over("-2");
}

TEST_F(Backup, Whose_Packer_Shows_No_Change_For_Too_Long_Ends_With_Minus_62) {
  set_packer("seconds=2\nat=40\nthen=stall\n");
  start("Impatient_Backup_Cb");
  expect_handed_over("-62");
  EXPECT_EQ(task_on(slave), "7 0.200000");
  EXPECT_THAT(slave->log(), HasSubstr("Pack backup file Timeout! (-62)\n"));
}

TEST_F(Backup, That_Is_Aborted_Ends_With_The_Flag_And_Hands_Nothing_Over) {
  set_packer("seconds=8\n");
  start();
  ASSERT_TRUE(comes_to_pack());
  slave->on_member([] {
    const int flag = 5;
    write_file(kAbortFlagFile, {reinterpret_cast<const char *>(&flag), sizeof(flag)});
    return "";
  });
  EXPECT_EQ(exit_status(), "5");
  EXPECT_EQ(result_on(slave), kNone);
  EXPECT_EQ(result_on(master), kNone);
  EXPECT_THAT(task_on(slave), HasSubstr("1 0.")) << "neither finished nor failed";
}

TEST_F(Backup, Of_A_Slave_That_Is_Removed_Meanwhile_Stops_The_Packer_And_Ends_With_Minus_1) {
  set_packer("seconds=60\n");
  start();
  ASSERT_TRUE(comes_to_pack());
  const std::string id = slave.id;
  ASSERT_EQ(cluster.remove(id).code, 0);
  EXPECT_EQ(exit_status(), "255");
  EXPECT_EQ(result_on(slave), "-1");
  EXPECT_EQ(result_on(master), kNone);
  EXPECT_THAT(task_on(slave), HasSubstr("8 0."));
  EXPECT_FALSE(has_image());
  EXPECT_TRUE(comes_true([&] { return processes_of_group(group_).empty(); }, 10)) << "the packer was stopped";
  EXPECT_THAT(slave->log(), HasSubstr("Stop backup task cause's slave " + id + " is removed...\n"));
}

TEST_F(Backup, Whose_Result_Cannot_Be_Written_Ends_With_A_Failed_Task_And_Hands_Nothing_Over) {
  set_packer("seconds=1\n");
  slave->on_member([&] {
    std::filesystem::create_directories(result_file_of(slave));
    return "";
  });
  start();
  EXPECT_EQ(exit_status(), std::to_string(256 - EISDIR));
  EXPECT_EQ(task_on(slave), "8 0.500000");
  EXPECT_EQ(result_on(master), kNone);
}

TEST_F(Backup, Without_Room_For_Its_Result_Ends_With_A_Failed_Task_And_Hands_Nothing_Over) {
  set_packer("then=fail -17\n");
  slave->on_member([&] {
    std::filesystem::create_directories(kBackupFolder);
    mount("tarn-test", kBackupFolder, "tmpfs", 0, "size=4k");
    write_file(std::string(kBackupFolder) + "/full", std::string(4096, 'x'));
    return "";
  });
  start("Kept_Backup_Cb", "/etc/config/elsewhere.tar");
  EXPECT_EQ(exit_status(), std::to_string(256 - ENOSPC));
  EXPECT_EQ(task_on(slave), "8 0.000000");
  EXPECT_EQ(result_on(master), kNone);
}

TEST_F(Backup, Whose_Result_Does_Not_Reach_The_Master_Is_Finished_All_The_Same) {
  Process lock = hold_before_hand_over();
  master->service().signal(SIGSTOP);
  master.link().cut();
  lock.end(SIGKILL);
  EXPECT_EQ(exit_status(), "0");
  EXPECT_EQ(result_on(slave), "0");
  EXPECT_EQ(task_on(slave), "7 0.500000");
  master.link().mend();
  master->service().signal(SIGCONT);
  EXPECT_EQ(result_on(master), kNone);
  EXPECT_THAT(slave->log(), HasSubstr("Can't send \"send file\" command to cluster for file " + result_file_of(slave)));
}

// ------------------------------------------------------------------------------------------------- a worker that is
// killed

class Killed_Backup : public Backup {
 protected:
  void kill_worker() {
    ASSERT_EQ(kill(worker_, SIGKILL), 0);
    ASSERT_EQ(exit_status(), std::to_string(-SIGKILL));
  }
};

TEST_F(Killed_Backup, At_Its_Start_Is_Followed_By_One_That_Starts_Clean) {
  set_packer("seconds=60\n");
  start();
  kill_worker();
  expect_clean_start();
}

TEST_F(Killed_Backup, While_It_Packs_Is_Followed_By_One_That_Starts_Clean) {
  set_packer("seconds=60\n");
  start();
  ASSERT_TRUE(comes_true([&] { return task_on(slave) != "1 0.000000" && task_on(slave) != kNone; }));
  kill_worker();
  expect_clean_start();
}

TEST_F(Killed_Backup, Together_With_Its_Packer_Is_Followed_By_One_That_Starts_Clean) {
  set_packer("seconds=60\n");
  start("Kept_Backup_Cb", std::string(kBackupFolder) + "/other.img");
  ASSERT_TRUE(comes_to_pack());
  ASSERT_EQ(system("killall -9 druvosrv_tool"), 0);
  kill_worker();
  EXPECT_THAT(files_in_backup_folder(), UnorderedElementsAre(slave.id, "other.img.part.img"));
  expect_clean_start();
}

TEST_F(Killed_Backup, While_It_Tells_The_Master_Is_Followed_By_One_That_Starts_Clean) {
  set_packer("seconds=60\n");
  start();
  ASSERT_TRUE(comes_to_pack());
  master->service().signal(SIGSTOP);
  usleep(1'500'000);  // it asks once a second
  kill_worker();
  master->service().signal(SIGCONT);
  ASSERT_TRUE(cluster.are_running(cluster.slaves()));
  expect_clean_start();
}

TEST_F(Killed_Backup, Whose_Packer_Was_Done_Meanwhile_Is_Followed_By_One_That_Starts_Clean) {
  set_packer("seconds=2\n");
  start();
  ASSERT_TRUE(comes_to_pack());
  kill_worker();
  ASSERT_TRUE(comes_true([&] { return has_image() && processes_of_group(group_).empty(); }));
  expect_clean_start();
}

TEST_F(Killed_Backup, While_It_Waits_For_A_Lock_Is_Followed_By_One_That_Starts_Clean) {
  Process lock = hold_before_hand_over();
  kill_worker();
  EXPECT_EQ(result_on(slave), kNone);
  lock.end(SIGKILL);
  expect_clean_start();
}

TEST_F(Killed_Backup, While_It_Hands_Over_Is_Followed_By_One_That_Starts_Clean) {
  Process lock = hold_before_hand_over();
  master->service().signal(SIGSTOP);
  lock.end(SIGKILL);
  ASSERT_TRUE(comes_true([&] { return result_on(slave) == "0"; }));
  usleep(200'000);  // for it to ask the master, who does not answer
  kill_worker();
  EXPECT_EQ(result_on(master), kNone);
  master->service().signal(SIGCONT);
  ASSERT_TRUE(cluster.are_running(cluster.slaves()));
  expect_clean_start();
}

}  // namespace
}  // namespace tarn::test
