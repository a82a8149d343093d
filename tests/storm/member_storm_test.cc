// Eight processes keep their own members in one service file, and add and delete more, while a ninth kills them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "include/tarncluster_util.h"
#include "tests/storm/storm.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

constexpr int kWorkers = 8;
constexpr int kReaders = 2;

// What is known of a guest: a member that its worker adds and deletes.
enum Guest : int { kAbsent, kPresent, kUnknown };

struct Notes {
  std::atomic<int> value[kWorkers] = {};        // last one set with success
  std::atomic<bool> is_setting[kWorkers] = {};  // the next one may be in the file, too
  std::atomic<int> guest[kWorkers] = {};
  std::atomic<int> waits_in_vain = 0;
  std::atomic<int> reads[kReaders] = {};
  std::atomic<bool> is_over = false;
};

std::string resident_of(int worker) {
  return "M" + std::to_string(worker);
}

std::string guest_of(int worker) {
  return "X" + std::to_string(worker);
}

// Three keys that tell the same value: nobody may see one without the others.
Tarn_Serv_Conf record_of(const std::string &name, int value) {
  Tarn_Serv_Conf record;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  strncpy(record.Name, name.c_str(), sizeof record.Name - 1);
  snprintf(record.Address, sizeof record.Address, "address %d of %s", value, name.c_str());
  record.PID = value;
  record.Quota = int64_t{value} * 1000000;
  record.fields = TARN_SERV_NAME | TARN_SERV_PID | TARN_SERV_QUOTA | TARN_SERV_ADDRESS;
  return record;
}

void expect_whole(const Tarn_Serv_Conf &record, const std::string &name) {
  const unsigned keys = TARN_SERV_PID | TARN_SERV_QUOTA | TARN_SERV_ADDRESS;
  EXPECT_EQ(record.fields & ~unsigned{TARN_SERV_NAME}, keys) << name;
  const Tarn_Serv_Conf expected = record_of(name, record.PID);
  EXPECT_EQ(record.Quota, expected.Quota) << name;
  EXPECT_STREQ(record.Address, expected.Address) << name;
}

class Member_Storm : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  static bool set(const std::string &name, const Tarn_Serv_Conf *record);
  static int value_of(const std::string &name);  // -1: no such member
  static void check_own_members(int worker);
  static void set_resident(int worker);
  static void set_guest(int worker, Dice *dice);
  static void work(int worker);
  static void read_without_lock(int reader);

  static Temporary_Folder *folder;
  static Shared<Notes> *notes;
  static std::string path;
  static int share;
};
Temporary_Folder *Member_Storm::folder = nullptr;
Shared<Notes> *Member_Storm::notes = nullptr;
std::string Member_Storm::path;
int Member_Storm::share = 0;

bool Member_Storm::set(const std::string &name, const Tarn_Serv_Conf *record) {
  int status;
  while ((status = Tarn_Cluster_Service_Set(path.c_str(), name.c_str(), record)) == -ENOLCK) ++(*notes)->waits_in_vain;
  return status == 0;
}

int Member_Storm::value_of(const std::string &name) {
  Tarn_Serv_Conf *record = nullptr;
  const int status = Tarn_Cluster_Service_Get(path.c_str(), name.c_str(), &record);
  if (status == -ENOANO) return -1;
  EXPECT_EQ(status, 0) << name;
  if (status != 0) return -2;
  expect_whole(*record, name);
  const int value = record->PID;
  free(record);
  return value;
}

// Nobody else writes them, so they are as this worker, or the one it replaces, has left them.
void Member_Storm::check_own_members(int worker) {
  Notes &all = **notes;
  const int value = value_of(resident_of(worker));
  if (all.is_setting[worker]) {
    EXPECT_TRUE(value == all.value[worker] || value == all.value[worker] + 1) << value << ", " << all.value[worker];
    all.value[worker] = value;
    all.is_setting[worker] = false;
  } else {
    EXPECT_EQ(value, all.value[worker]) << resident_of(worker);
  }
  const bool has_guest = value_of(guest_of(worker)) >= 0;
  if (all.guest[worker] == kUnknown) all.guest[worker] = has_guest ? kPresent : kAbsent;
  EXPECT_EQ(has_guest, all.guest[worker] == kPresent) << guest_of(worker);
}

void Member_Storm::set_resident(int worker) {
  Notes &all = **notes;
  const Tarn_Serv_Conf record = record_of(resident_of(worker), all.value[worker] + 1);
  all.is_setting[worker] = true;
  EXPECT_TRUE(set(resident_of(worker), &record));
  // Killed between the two, the worker's successor finds the file one step behind what may be there; never before.
  ++all.value[worker];
  all.is_setting[worker] = false;
}

void Member_Storm::set_guest(int worker, Dice *dice) {
  Notes &all = **notes;
  const bool is_to_come = all.guest[worker] == kAbsent;
  const Tarn_Serv_Conf record = record_of(guest_of(worker), dice->below(1000));
  all.guest[worker] = kUnknown;
  EXPECT_TRUE(set(guest_of(worker), is_to_come ? &record : nullptr)) << guest_of(worker);
  all.guest[worker] = is_to_come ? kPresent : kAbsent;
}

void Member_Storm::work(int worker) {
  Dice dice(100 + static_cast<uint64_t>(worker) + static_cast<uint64_t>((*notes)->value[worker]) * kWorkers);
  for (;;) {
    check_own_members(worker);
    if (HasFailure() || (*notes)->value[worker] >= share) return;
    if (dice.one_in(3)) {
      set_guest(worker, &dice);
    } else {
      set_resident(worker);
    }
  }
}

void Member_Storm::read_without_lock(int reader) {
  std::map<std::string, int> last;
  for (int i = 0; i < kWorkers; ++i) last[resident_of(i)] = 0;
  for (; !(*notes)->is_over && !HasFailure(); ++(*notes)->reads[reader]) {
    Tarn_Serv_Conf *list = nullptr;
    ASSERT_EQ(Tarn_Cluster_Serv_Conf_Read(path.c_str(), &list), 0);
    std::map<std::string, int> seen;
    for (const Tarn_Serv_Conf *record = list; record != nullptr; record = record->next) {
      expect_whole(*record, record->Name);
      EXPECT_TRUE(seen.emplace(record->Name, record->PID).second) << record->Name << " is there twice";
    }
    Release_Serv_List_Conf(list);
    for (auto &[name, value] : last) {
      ASSERT_TRUE(seen.contains(name)) << name << " has vanished";
      EXPECT_GE(seen[name], value) << name << " went back";
      value = seen[name];
      seen.erase(name);
    }
    for (const auto &[name, value] : seen) EXPECT_EQ(name[0], 'X') << name;
    usleep(300);
  }
}

void Member_Storm::SetUpTestSuite() {
  folder = new Temporary_Folder;
  notes = new Shared<Notes>;
  path = *folder / "members";
  share = scaled(1500);
  for (int i = 0; i < kWorkers; ++i) {
    const Tarn_Serv_Conf record = record_of(resident_of(i), 0);
    ASSERT_EQ(Tarn_Cluster_Service_Set(path.c_str(), resident_of(i).c_str(), &record), 0);
  }
  Crew readers(kReaders, read_without_lock);
  Crew workers(kWorkers, work);
  Dice dice(4);
  rage(&workers, &dice, {owned_lock("members")}, scaled(150), [] {
    int64_t sum = 0;
    for (const auto &value : (*notes)->value) sum += value;
    return sum;
  });
  workers.wait();
  (*notes)->is_over = true;
  readers.wait();

  const Tarn_Serv_Conf record = record_of("last", 0);
  Crew last_writer(1, [&](int) { EXPECT_TRUE(set("last", &record)); });
  last_writer.wait();
  printf("storm: %d killed; %d and %d reads; %d waits in vain\n", workers.kills(), (*notes)->reads[0].load(),
         (*notes)->reads[1].load(), (*notes)->waits_in_vain.load());
  EXPECT_GT(workers.kills(), 0);
}

void Member_Storm::TearDownTestSuite() {
  delete notes;
  delete folder;
}

TEST_F(Member_Storm, each_member_holds_what_was_set_last) {
  for (int i = 0; i < kWorkers; ++i) {
    EXPECT_EQ(value_of(resident_of(i)), share) << resident_of(i);
    EXPECT_EQ(value_of(guest_of(i)) >= 0, (*notes)->guest[i] == kPresent) << guest_of(i);
  }
}

// Their expectations are made while they read, see read_without_lock.
TEST_F(Member_Storm, readers_without_a_lock_saw_every_member_whole_all_along) {
  for (const auto &reads : (*notes)->reads) EXPECT_GT(reads, 10);
}

TEST_F(Member_Storm, no_temporary_file_is_left_behind_by_those_that_were_killed) {
  EXPECT_EQ(names_in(folder->path()), std::vector<std::string>{"members"});
}

TEST_F(Member_Storm, no_lock_is_left_behind_by_those_that_were_killed) {
  remove_abandoned_claims();
  EXPECT_EQ(names_in("/var/lock"), std::vector<std::string>());
}

}  // namespace
}  // namespace tarn::test
