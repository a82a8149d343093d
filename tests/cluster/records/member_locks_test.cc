#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/files.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::UnorderedElementsAre;

constexpr int rounds = 200;

Tarn_Serv_Conf new_member(const std::string &name) {
  Tarn_Serv_Conf rec;
  Tarn_Cluster_Serv_Conf_Preset(&rec);
  snprintf(rec.Name, sizeof rec.Name, "%s", name.c_str());
  rec.ID = 1;
  rec.fields = TARN_SERV_NAME | TARN_SERV_ID;
  return rec;
}

struct Released {
  void operator()(Tarn_Serv_Conf *list) const { Release_Serv_List_Conf(list); }
};
using Records = std::unique_ptr<Tarn_Serv_Conf, Released>;

Records member(const std::string &path, const char *name) {
  Tarn_Serv_Conf *rec = nullptr;
  Tarn_Cluster_Service_Get(path.c_str(), name, &rec);
  return Records(rec);
}

Records members(const std::string &path) {
  Tarn_Serv_Conf *list = nullptr;
  Tarn_Cluster_Serv_Conf_Read(path.c_str(), &list);
  return Records(list);
}

// Counts one key of a member up; nobody else writes that key, so what was written last must always be there.
bool count_status_up(const std::string &path) {
  for (int i = 1; i <= rounds; ++i) {
    Tarn_Serv_Conf change;
    Tarn_Cluster_Serv_Conf_Preset(&change);
    change.Status = i;
    change.fields = TARN_SERV_STATUS;
    if (Tarn_Cluster_Service_Set(path.c_str(), "m1", &change) != 0) return false;
    const Records now = member(path, "m1");
    if (now == nullptr || now->Status != i) return false;
  }
  return true;
}

bool count_quota_up(const std::string &path) {
  for (int i = 1; i <= rounds; ++i) {
    Tarn_Serv_Conf change;
    Tarn_Cluster_Serv_Conf_Preset(&change);
    change.Quota = i;
    change.fields = TARN_SERV_QUOTA;
    if (Tarn_Cluster_Service_Set(path.c_str(), "m1", &change) != 0) return false;
    const Records now = member(path, "m1");
    if (now == nullptr || now->Quota != i) return false;
  }
  return true;
}

bool add_members(const std::string &path, const std::string &prefix) {
  for (int i = 0; i < 50; ++i) {
    const std::string name = prefix + std::to_string(i);
    const Tarn_Serv_Conf rec = new_member(name);
    if (Tarn_Cluster_Service_Set(path.c_str(), name.c_str(), &rec) != 0) return false;
  }
  return true;
}

pid_t in_a_process(const std::function<bool()> &work) {
  const pid_t child = fork();
  if (child == 0) _exit(work() ? 0 : 1);
  return child;
}

// Whether a child is still at work; its exit status can still be waited for afterwards.
bool is_at_work(pid_t child) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

void expect_success(pid_t child) {
  int status = -1;
  ASSERT_GT(child, 0);
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
}

class Member_Locks : public testing::Test {
 protected:
  Member_Locks() : path_(folder_ / "members.conf") {
    const Tarn_Serv_Conf rec = new_member("m1");
    EXPECT_EQ(Tarn_Cluster_Service_Set(path_.c_str(), "m1", &rec), 0);
  }

  ~Member_Locks() override {
    EXPECT_FALSE(exists(owned_lock("members.conf")));
    EXPECT_THAT(names_in(folder_.path()), testing::Each(testing::Not(testing::HasSubstr(".tmp"))));
  }

  Temporary_Folder folder_;
  std::string path_;
};

TEST_F(Member_Locks, Two_Processes_That_Set_Different_Keys_Lose_Nothing) {
  const pid_t first = in_a_process([this] { return count_status_up(path_); });
  const pid_t second = in_a_process([this] { return count_quota_up(path_); });
  expect_success(first);
  expect_success(second);
  const Records rec = member(path_, "m1");
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->Status, rounds);
  EXPECT_EQ(rec->Quota, rounds);
  EXPECT_EQ(rec->ID, 1);
}

TEST_F(Member_Locks, Two_Threads_That_Set_Different_Keys_Lose_Nothing) {
  bool first = false, second = false;
  {
    const std::jthread a([&] { first = count_status_up(path_); });
    const std::jthread b([&] { second = count_quota_up(path_); });
  }
  EXPECT_TRUE(first);
  EXPECT_TRUE(second);
}

size_t count_members(const std::string &path) {
  size_t count = 0;
  const Records list = members(path);
  for (const Tarn_Serv_Conf *rec = list.get(); rec != nullptr; rec = rec->next) ++count;
  return count;
}

TEST_F(Member_Locks, Two_Processes_That_Add_Members_Lose_None_And_A_Reader_Always_Sees_A_Whole_File) {
  const pid_t first = in_a_process([this] { return add_members(path_, "a"); });
  const pid_t second = in_a_process([this] { return add_members(path_, "b"); });
  size_t count = 1;
  bool shrank = false;
  while (count < 101 && !shrank && is_at_work(first)) {
    const size_t now = count_members(path_);
    shrank = now < count;
    count = now;
  }
  EXPECT_FALSE(shrank);
  expect_success(first);
  expect_success(second);
  EXPECT_EQ(count_members(path_), 101u);
}

// 10 seconds each, side by side.
TEST_F(Member_Locks, A_Lock_That_Stays_Taken_Ends_Set_And_Write_With_Messages_That_Differ) {
  const std::string set_path = folder_ / "set.conf", write_path = folder_ / "write.conf";
  write_file(set_path, "[m1]\nID = 1\n");
  write_file(write_path, "[m1]\nID = 1\n");
  const Held_Lock set_lock("set.conf"), write_lock("write.conf");
  const Tarn_Serv_Conf rec = new_member("m2");
  const Log_Capture log;
  const int descriptors = open_descriptors();
  int set_status = 0, delete_status = 0, write_status = 0;
  {
    const std::jthread a([&] { set_status = Tarn_Cluster_Service_Set(set_path.c_str(), "m2", &rec); });
    const std::jthread b([&] { delete_status = Tarn_Cluster_Service_Set(set_path.c_str(), "m1", nullptr); });
    const std::jthread c([&] { write_status = Tarn_Cluster_Serv_Conf_Write(write_path.c_str(), &rec); });
  }
  EXPECT_EQ(set_status, -ENOLCK);
  EXPECT_EQ(delete_status, -ENOLCK);
  EXPECT_EQ(write_status, -ENOLCK);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_TRUE(set_lock.is_untouched());
  EXPECT_TRUE(write_lock.is_untouched());
  EXPECT_EQ(read_file(set_path), "[m1]\nID = 1\n");
  EXPECT_EQ(read_file(write_path), "[m1]\nID = 1\n");

  std::vector<Log_Line> own;
  for (const Log_Line &line : log.lines()) {
    if (line.function != "Get_File_Lock") own.push_back(line);
  }
  EXPECT_THAT(own, UnorderedElementsAre(
                       error_line("Tarn_Cluster_Service_Set", "Can't get file lock of " + set_path + " error!"),
                       error_line("Tarn_Cluster_Service_Set", "Can't get file lock of " + set_path + " error!"),
                       error_line("Tarn_Cluster_Serv_Conf_Write", "Can't get file lock of " + write_path + "!")));
}

}  // namespace
}  // namespace tarn::test
