// Eight processes count in two files, one with single values and one with whole sections, while a ninth kills them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

#include "include/tarncluster_util.h"
#include "tests/storm/storm.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

constexpr int kWorkers = 8;
constexpr int kReaders = 2;
constexpr int kFillers = 40;  // keys on both sides of the counter: more than one stream buffer

struct Key_Value {
  std::string key;
  std::string value;
  bool operator==(const Key_Value &) const = default;
};
struct Section {
  std::string name;
  std::vector<Key_Value> pairs;
  bool operator==(const Section &) const = default;
};

// One counter, and what its workers have noted about it.
struct Counter {
  std::atomic<int64_t> reported = 0;           // the highest value whose setting reported success
  std::atomic<int> progress[kWorkers] = {};    // twice the successes, and one while a setting is under way
  std::atomic<int> unreported[kWorkers] = {};  // settings whose worker was killed before it had their result
  std::atomic<int> waits_in_vain = 0;

  int64_t successes() const {
    int64_t sum = 0;
    for (const auto &worker : progress) sum += worker / 2;
    return sum;
  }
  int64_t possible() const {
    int64_t sum = successes();
    for (const auto &worker : unreported) sum += worker;
    return sum;
  }
};

struct Notes {
  Counter single_value;
  Counter whole_section;
  std::atomic<bool> is_over = false;
  std::atomic<int> reads[kReaders] = {};
};

std::vector<Section> expected_sections(const std::vector<Key_Value> &counter) {
  std::vector<Section> sections = {{"before", {}}, {"counter", counter}, {"after", {}}};
  for (int i = 0; i < kFillers; ++i) {
    const std::string key = "Filler" + std::to_string(i);
    sections.front().pairs.push_back({key, std::string(100, 'b')});
    sections.back().pairs.push_back({key, std::string(100, 'a')});
  }
  return sections;
}

std::string text_of(const std::vector<Section> &sections) {
  std::string text;
  for (const Section &section : sections) {
    text += "[" + section.name + "]\n";
    for (const auto &[key, value] : section.pairs) text += key + " = " + value + "\n";
    text += "\n";
  }
  return text;
}

std::vector<Section> read_sections(const std::string &path) {
  Sect_Node *chain = nullptr;
  EXPECT_GT(Read_Conf_File(path.c_str(), &chain), 0);
  std::vector<Section> sections;
  for (const Sect_Node *node = chain; node != nullptr; node = node->next) {
    sections.push_back({node->name, {}});
    for (const Pair_Node *pair = node->pairs; pair != nullptr; pair = pair->next) {
      sections.back().pairs.push_back({pair->key, pair->value});
    }
  }
  Free_Sect_Node(chain);
  return sections;
}

class Counter_Storm : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();

  static int set_single_value(int64_t value) {
    return Set_Conf_File_Integer_Value(single_path.c_str(), "counter", "Value", value);
  }
  static int set_whole_section(int64_t value);
  static void increment(Counter *counter, int worker, const std::string &path, int (*set)(int64_t));
  static void work(int worker);
  static void note_death(int worker);
  static void read_without_lock(int reader);
  static int64_t value_in(const std::string &path) {
    int64_t value = -1;
    EXPECT_EQ(Get_Conf_File_Int64_Value(path.c_str(), "counter", "Value", &value), 0);
    return value;
  }

  static Temporary_Folder *folder;
  static Shared<Notes> *notes;
  static std::string single_path;
  static std::string section_path;
  static int share;
};
Temporary_Folder *Counter_Storm::folder = nullptr;
Shared<Notes> *Counter_Storm::notes = nullptr;
std::string Counter_Storm::single_path;
std::string Counter_Storm::section_path;
int Counter_Storm::share = 0;

// Two keys in one call: nobody may see one without the other.
int Counter_Storm::set_whole_section(int64_t value) {
  const std::string text = std::to_string(value);
  Sect_Node *section = nullptr;
  if (Create_Sect_Node(&section, "counter") != 0) return -ENOMEM;
  Set_Pair_String_Value(&section->pairs, "Value", text.c_str());
  Set_Pair_String_Value(&section->pairs, "Again", text.c_str());
  const int status = Update_Conf_File_Section(section_path.c_str(), "counter", section);
  Free_Sect_Node(section);
  return status;
}

// The setters take the file's own lock; reading and setting belong together by a lock on another name.
void Counter_Storm::increment(Counter *counter, int worker, const std::string &path, int (*set)(int64_t)) {
  const std::string guard = path + ".guard";
  if (Get_File_Lock(guard.c_str(), 10000) != 1) {
    ++counter->waits_in_vain;
    return;
  }
  const int64_t value = value_in(path);
  EXPECT_GE(value, counter->reported) << path << ": an increment that reported success is gone";
  auto &progress = counter->progress[worker];
  ++progress;
  const int status = set(value + 1);
  if (status == 0) {
    counter->reported = value + 1;
    ++progress;
  } else {
    --progress;
    ++counter->waits_in_vain;
    EXPECT_EQ(status, -ENOLCK) << path;
  }
  Release_File_Lock(guard.c_str());
}

// The counters in random order: in a fixed one all workers would queue at the same.
void Counter_Storm::work(int worker) {
  Notes &all = **notes;
  Dice dice(100 + static_cast<uint64_t>(worker) + static_cast<uint64_t>(all.single_value.progress[worker]) * kWorkers);
  for (;;) {
    const bool has_single_share = all.single_value.progress[worker] / 2 >= share;
    const bool has_section_share = all.whole_section.progress[worker] / 2 >= share;
    if (HasFailure() || (has_single_share && has_section_share)) return;
    if (has_section_share || (!has_single_share && dice.one_in(2))) {
      increment(&all.single_value, worker, single_path, set_single_value);
    } else {
      increment(&all.whole_section, worker, section_path, set_whole_section);
    }
  }
}

void Counter_Storm::note_death(int worker) {
  for (Counter *counter : {&(*notes)->single_value, &(*notes)->whole_section}) {
    if (counter->progress[worker] % 2 == 0) continue;
    ++counter->unreported[worker];
    --counter->progress[worker];
  }
}

void Counter_Storm::read_without_lock(int reader) {
  int64_t last_single = 0;
  int64_t last_section = 0;
  for (; !(*notes)->is_over && !HasFailure(); ++(*notes)->reads[reader]) {
    std::vector<Section> sections = read_sections(single_path);
    ASSERT_EQ(sections.size(), 3u);
    const int64_t single = sections[1].pairs.empty() ? -1 : atoll(sections[1].pairs[0].value.c_str());
    ASSERT_EQ(sections, expected_sections({{"Value", std::to_string(single)}}));
    ASSERT_GE(single, last_single);
    last_single = single;

    sections = read_sections(section_path);
    ASSERT_EQ(sections.size(), 3u);
    const int64_t section = sections[1].pairs.empty() ? -1 : atoll(sections[1].pairs[0].value.c_str());
    const std::string text = std::to_string(section);
    ASSERT_EQ(sections, expected_sections({{"Value", text}, {"Again", text}}));
    ASSERT_GE(section, last_section);
    last_section = section;
    usleep(300);
  }
}

void Counter_Storm::SetUpTestSuite() {
  folder = new Temporary_Folder;
  notes = new Shared<Notes>;
  single_path = *folder / "single";
  section_path = *folder / "section";
  share = scaled(500);
  write_file(single_path, text_of(expected_sections({{"Value", "0"}})));
  write_file(section_path, text_of(expected_sections({{"Value", "0"}, {"Again", "0"}})));

  Crew readers(kReaders, read_without_lock);
  Crew workers(kWorkers, work, note_death);
  Dice dice(1);
  rage(&workers, &dice,
       {owned_lock("single"), owned_lock("section"), owned_lock("single.guard"), owned_lock("section.guard")},
       scaled(150), [] { return (*notes)->single_value.successes() + (*notes)->whole_section.successes(); });
  workers.wait();
  (*notes)->is_over = true;
  readers.wait();

  // Whoever writes next clears away what the last one to be killed left behind.
  Crew last_writer(1, [](int) {
    for (const std::string &path : {single_path, section_path}) {
      EXPECT_EQ(Get_File_Lock((path + ".guard").c_str(), 10000), 1);
      Release_File_Lock((path + ".guard").c_str());
    }
    EXPECT_EQ(Set_Conf_File_String_Value(single_path.c_str(), "after", "Last", "writer"), 0);
    Pair_Node *pairs = nullptr;
    EXPECT_EQ(Set_Pair_String_Value(&pairs, "Last", "writer"), 0);
    EXPECT_EQ(Set_Conf_File_Pair_Values(section_path.c_str(), "after", pairs), 0);
    Free_Pair_Node(pairs);
  });
  last_writer.wait();
  printf("storm: %d killed; %d and %d reads; %d and %d settings without result; %d and %d waits in vain\n",
         workers.kills(), (*notes)->reads[0].load(), (*notes)->reads[1].load(),
         static_cast<int>((*notes)->single_value.possible() - (*notes)->single_value.successes()),
         static_cast<int>((*notes)->whole_section.possible() - (*notes)->whole_section.successes()),
         (*notes)->single_value.waits_in_vain.load(), (*notes)->whole_section.waits_in_vain.load());
  EXPECT_GT(workers.kills(), 0);
}

void Counter_Storm::TearDownTestSuite() {
  delete notes;
  delete folder;
}

TEST_F(Counter_Storm, no_increment_by_single_value_that_reported_success_is_lost) {
  EXPECT_EQ((*notes)->single_value.successes(), int64_t{kWorkers} * share);
  EXPECT_GE(value_in(single_path), (*notes)->single_value.successes());
  EXPECT_LE(value_in(single_path), (*notes)->single_value.possible());
}

TEST_F(Counter_Storm, no_increment_by_whole_section_that_reported_success_is_lost) {
  EXPECT_EQ((*notes)->whole_section.successes(), int64_t{kWorkers} * share);
  EXPECT_GE(value_in(section_path), (*notes)->whole_section.successes());
  EXPECT_LE(value_in(section_path), (*notes)->whole_section.possible());
}

// Their expectations are made while they read, see read_without_lock.
TEST_F(Counter_Storm, readers_without_a_lock_saw_whole_files_all_along) {
  for (const auto &reads : (*notes)->reads) EXPECT_GT(reads, 10);
}

TEST_F(Counter_Storm, no_temporary_file_is_left_behind_by_those_that_were_killed) {
  EXPECT_EQ(names_in(folder->path()), (std::vector<std::string>{"section", "single"}));
}

TEST_F(Counter_Storm, no_lock_is_left_behind_by_those_that_were_killed) {
  remove_abandoned_claims();
  EXPECT_EQ(names_in("/var/lock"), std::vector<std::string>());
}

}  // namespace
}  // namespace tarn::test
