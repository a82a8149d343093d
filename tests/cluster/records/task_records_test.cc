#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/command.h"
#include "tests/support/files.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/pinned_file.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Task = Backgrnd_Task_Conf;

struct Released {
  void operator()(Task *list) const { Release_Backgrnd_Task_Conf(list); }
};
using Tasks = std::unique_ptr<Task, Released>;
using Sections = std::unique_ptr<Sect_Node, decltype(&Free_Sect_Node)>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

struct Task_Key {
  const char *key;
  unsigned bit;
  const char *value;
};

// In the order of a new section.
constexpr std::array<Task_Key, 6> task_keys = {{{"status", 0x2, "3"},
                                                {"slave_id", 0x4, "QNself01"},
                                                {"type_name", 0x8, "a type"},
                                                {"task_id", 0x10, "m1_b"},
                                                {"task_name", 0x20, "a name"},
                                                {"progress", 0x1, "45.500000"}}};

constexpr unsigned all_bits = 0x3F;

template <size_t size>
void set_text(char (&field)[size], const std::string &text) {
  memcpy(field, text.c_str(), std::min(text.size() + 1, size));
}

Task task(const std::string &id, unsigned mask, double progress = 45.5) {
  Task rec;
  Backgrnd_Task_Conf_Preset(&rec);
  rec.fields = mask;
  rec.progress = progress;
  rec.status = 3;
  set_text(rec.slave_id, "QNself01");
  set_text(rec.type_name, "a type");
  set_text(rec.task_id, id);
  set_text(rec.task_name, "a name");
  return rec;
}

Sections parsed(std::string text) {
  Sect_Node *sections = nullptr;
  Parse_Conf_Cache(text.data(), &sections);
  return {sections, Free_Sect_Node};
}

Pairs pairs_of(const Sect_Node *section) {
  Pairs found;
  for (const Pair_Node *pair = section->pairs; pair != nullptr; pair = pair->next) {
    found.emplace_back(pair->key, pair->value);
  }
  return found;
}

std::string shown(const Task &rec) {
  return std::to_string(rec.fields) + "|" + std::to_string(rec.progress) + "|" + std::to_string(rec.status) + "|" +
         rec.slave_id + "|" + rec.type_name + "|" + rec.task_id + "|" + rec.task_name;
}

std::vector<std::string> all_shown(const Tasks &list) {
  std::vector<std::string> found;
  for (const Task *rec = list.get(); rec != nullptr; rec = rec->next) found.push_back(shown(*rec));
  return found;
}

int list_from(const Sections &sections, Tasks *list) {
  Task *made = nullptr;
  const int status = Backgrnd_Task_All_Task_From_Sect_Node(sections.get(), &made);
  list->reset(made);
  return status;
}

int single_from(const Sections &section, Tasks *rec) {
  Task *made = nullptr;
  const int status = Backgrnd_Task_From_Sect_Node(section.get(), &made);
  rec->reset(made);
  return status;
}

int sections_of(const Task *list, Sections *sections) {
  Sect_Node *made = nullptr;
  const int status = Backgrnd_Task_All_Task_To_Sect_Node(list, &made);
  sections->reset(made);
  return status;
}

// -------------------------------------------------------------------------------------------------------- single
// values

TEST(Task_Records, Preset_Zeroes_Everything) {
  Task rec;
  memset(&rec, 0xEE, sizeof rec);
  Backgrnd_Task_Conf_Preset(&rec);
  EXPECT_EQ(rec.next, nullptr);
  EXPECT_EQ(shown(rec), "0|0.000000|0||||");
  Backgrnd_Task_Conf_Preset(nullptr);
  Release_Backgrnd_Task_Conf(nullptr);
}

// ----------------------------------------------------------------------------------------------------- sections to
// list

TEST(Task_Records, A_List_Is_Read_With_The_Names_And_A_Progress_Of_Each_Named_Section) {
  Tasks list;
  ASSERT_EQ(list_from(parsed("[m1_b]\nstatus = 3\nslave_id = m1\ntype_name = t\ntask_name = n\nprogress = 12.5\n"
                             "[m2_r]\nother = 1\n[m3_b]\nstatus = -4\n"),
                      &list),
            0);
  EXPECT_THAT(all_shown(list),
              ElementsAre("47|12.500000|3|m1|t|m1_b|n", "1|0.000000|0|||m2_r|", "3|0.000000|-4|||m3_b|"));
}

TEST(Task_Records, The_Key_Of_The_Id_Replaces_The_Sections_Name_And_Only_It_Sets_The_Ids_Bit) {
  Tasks list;
  ASSERT_EQ(list_from(parsed("[a long name]\ntask_id = m1\n"), &list), 0);
  EXPECT_THAT(all_shown(list), ElementsAre("17|0.000000|0|||m1|"));
}

TEST(Task_Records, A_Nameless_Section_Gets_No_Bit_Of_Progress) {
  Tasks list;
  ASSERT_EQ(list_from(parsed("[]\nstatus = 3\n"), &list), 0);
  EXPECT_THAT(all_shown(list), ElementsAre("2|0.000000|3||||"));
}

TEST(Task_Records, A_Sections_Name_Is_Kept_Up_To_127_Characters) {
  Tasks list;
  ASSERT_EQ(
      list_from(parsed("[" + std::string(127, 'n') + "]\nstatus = 3\n[" + std::string(200, 'o') + "]\nstatus = 3\n"),
                &list),
      0);
  EXPECT_EQ(list->task_id, std::string(127, 'n'));
  EXPECT_EQ(list->next->task_id, std::string(127, 'o'));
}

TEST(Task_Records, Texts_That_Do_Not_Fit_Leave_Their_Bits_Clear) {
  struct Case {
    const char *key;
    size_t longest;
    unsigned bit;
  };
  for (const Case &c : {Case{"slave_id", 8, 0x4}, Case{"type_name", 127, 0x8}, Case{"task_id", 127, 0x10},
                        Case{"task_name", 127, 0x20}}) {
    SCOPED_TRACE(c.key);
    const std::string fits(c.longest, 'x');
    for (const auto read : {list_from, single_from}) {
      Tasks rec;
      ASSERT_EQ(read(parsed("[t]\n" + std::string(c.key) + " = " + fits + "\nstatus = 1\n"), &rec), 0);
      EXPECT_EQ(rec->fields & all_bits & ~1u, c.bit | 2u);
      EXPECT_THAT(shown(*rec), testing::HasSubstr("|" + fits));
      ASSERT_EQ(read(parsed("[t]\n" + std::string(c.key) + " = " + fits + "x\nstatus = 1\n"), &rec), 0);
      EXPECT_EQ(rec->fields & all_bits & ~1u, 2u);
      EXPECT_THAT(shown(*rec), testing::Not(testing::HasSubstr("xx")));
    }
  }
}

TEST(Task_Records, Progress_Is_A_Decimal_Number_Of_At_Most_63_Characters) {
  struct Case {
    std::string text;
    double value;
    bool counts = true;
  };
  const std::string long_one = "1." + std::string(61, '0');
  for (const Case &c : {Case{"45.5", 45.5}, Case{"-1", -1}, Case{"1e2", 100}, Case{"45,5", 45}, Case{"none", 0},
                        Case{long_one, 1}, Case{long_one + "0", 0, false}}) {
    SCOPED_TRACE(c.text);
    Tasks rec;
    ASSERT_EQ(single_from(parsed("[t]\nstatus = 1\nprogress = " + c.text + "\n"), &rec), 0);
    EXPECT_EQ(rec->progress, c.value);
    EXPECT_EQ(rec->fields, c.counts ? 3u : 2u);
  }
}

TEST(Task_Records, Sections_To_A_List_Refuses_What_Is_Missing) {
  Task other;
  Task *list = &other;
  EXPECT_EQ(Backgrnd_Task_All_Task_From_Sect_Node(nullptr, &list), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_All_Task_From_Sect_Node(parsed("[a]\n[b]\nstatus = 1\n").get(), &list), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_All_Task_From_Sect_Node(parsed("[a]\nstatus = 1\n").get(), nullptr), -EINVAL);
  EXPECT_EQ(list, &other);
}

TEST(Task_Records, Sections_To_A_List_When_Memory_Ends_Keeps_The_Records_So_Far) {
  const Sections sections = parsed("[a]\nstatus = 1\n[b]\nstatus = 2\n[c]\n");
  const Log_Capture log;
  Task *list = nullptr;
  const int allocations = with_each_allocation_failing(
      [&] { return Backgrnd_Task_All_Task_From_Sect_Node(sections.get(), &list); },
      [&](int status, int nth) {
        const Tasks owned(std::exchange(list, nullptr));
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_EQ(all_shown(owned).size(), static_cast<size_t>(nth - 1));
        EXPECT_EQ(log.lines().back(), error_line("Backgrnd_Task_All_Task_From_Sect_Node",
                                                 "Can't allocate memory for slave list section! (-12)"));
      });
  const Tasks owned(list);
  EXPECT_EQ(allocations, 3);
  EXPECT_EQ(all_shown(owned).size(), 3u);
}

// --------------------------------------------------------------------------------------------------- section to a
// record

TEST(Task_Records, A_Single_Section_Gives_Neither_Its_Name_Nor_A_Progress_It_Lacks) {
  Tasks rec;
  ASSERT_EQ(single_from(parsed("[m1_b]\nstatus = 3\n[m2_b]\nstatus = 4\n"), &rec), 0);
  EXPECT_THAT(all_shown(rec), ElementsAre("2|0.000000|3||||"));
  for (const Task_Key &key : task_keys) {
    ASSERT_EQ(single_from(parsed("[s]\n" + std::string(key.key) + " = " + key.value + "\n"), &rec), 0);
    EXPECT_EQ(rec->fields, key.bit) << key.key;
  }
}

TEST(Task_Records, A_Single_Section_Without_Keys_Is_An_Empty_Record) {
  Tasks rec;
  ASSERT_EQ(single_from(parsed("[m1_b]\n"), &rec), 0);
  EXPECT_THAT(all_shown(rec), ElementsAre("0|0.000000|0||||"));
}

TEST(Task_Records, A_Single_Section_Refuses_What_Is_Missing_And_Says_When_Memory_Ends) {
  const Sections section = parsed("[a]\nstatus = 1\n");
  Task *rec = nullptr;
  EXPECT_EQ(Backgrnd_Task_From_Sect_Node(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_From_Sect_Node(section.get(), nullptr), -EINVAL);
  const Log_Capture log;
  const Allocation_Failure failure(1);
  EXPECT_EQ(Backgrnd_Task_From_Sect_Node(section.get(), &rec), -ENOMEM);
  EXPECT_EQ(rec, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Backgrnd_Task_From_Sect_Node",
                                                  "Can't allocate memory for slave list section! (-12)")));
}

// ----------------------------------------------------------------------------------------------------- list to
// sections

TEST(Task_Records, A_Section_Is_Made_With_The_Keys_Of_The_Bits_In_Their_Order) {
  Pairs all;
  for (const Task_Key &key : task_keys) {
    all.emplace_back(key.key, key.value);
    const Task rec = task("m1_b", key.bit);
    Sections sections(nullptr, Free_Sect_Node);
    ASSERT_EQ(sections_of(&rec, &sections), 0);
    EXPECT_STREQ(sections->name, "m1_b");
    EXPECT_THAT(pairs_of(sections.get()), ElementsAre(Pair(key.key, key.value)));
  }
  for (const unsigned mask : {all_bits, 0xFFFFFFFFu}) {
    const Task rec = task("m1_b", mask);
    Sections sections(nullptr, Free_Sect_Node);
    ASSERT_EQ(sections_of(&rec, &sections), 0);
    EXPECT_EQ(pairs_of(sections.get()), all);
  }
}

// Those who read the file depend on it.
TEST(Task_Records, The_First_Records_Progress_Is_Written_For_Every_Record) {
  Task second = task("m2_b", 0x1, 90), third = task("m3_b", 0x2, 70), first = task("m1_b", 0x0, 10);
  first.next = &second;
  second.next = &third;
  Sections sections(nullptr, Free_Sect_Node);
  ASSERT_EQ(sections_of(&first, &sections), 0);
  EXPECT_THAT(pairs_of(sections.get()), IsEmpty());
  EXPECT_THAT(pairs_of(sections->next), ElementsAre(Pair("progress", "10.000000")));
  EXPECT_THAT(pairs_of(sections->next->next), ElementsAre(Pair("status", "3")));
}

TEST(Task_Records, Progress_Has_Six_Places_And_Is_Cut_At_63_Characters) {
  struct Case {
    double value;
    const char *text;
  };
  for (const Case &c : {Case{0, "0.000000"}, Case{-0.25, "-0.250000"}, Case{99.9999999, "100.000000"},
                        Case{1e300, "100000000000000005250476025520442024870446858110815915491585411"}}) {
    const Task rec = task("t", 0x1, c.value);
    Sections sections(nullptr, Free_Sect_Node);
    ASSERT_EQ(sections_of(&rec, &sections), 0);
    EXPECT_THAT(pairs_of(sections.get()), ElementsAre(Pair("progress", c.text)));
  }
}

// A caller's locale for the numbers whose decimal point is a comma.
class Comma_Locale {
 public:
  Comma_Locale() : previous_(setlocale(LC_NUMERIC, nullptr)) {
    write_file(folder_ / "source",
               "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n");
    run_command("localedef -c -i " + folder_ / "source" + " " + folder_ / "comma" + " >/dev/null 2>&1");
    setenv("LOCPATH", folder_.path().c_str(), 1);
    EXPECT_STREQ(setlocale(LC_NUMERIC, "comma"), "comma");
  }
  ~Comma_Locale() {
    setlocale(LC_NUMERIC, previous_.c_str());
    unsetenv("LOCPATH");
  }
  Comma_Locale(const Comma_Locale &) = delete;
  Comma_Locale &operator=(const Comma_Locale &) = delete;

 private:
  Temporary_Folder folder_;
  std::string previous_;
};

TEST(Task_Records, Numbers_Have_A_Point_Whatever_The_Callers_Locale_Has) {
  const Comma_Locale locale;
  char text[16];
  snprintf(text, sizeof text, "%.1f", 45.5);
  ASSERT_STREQ(text, "45,5");
  const Task rec = task("t", 0x1);
  Sections sections(nullptr, Free_Sect_Node);
  ASSERT_EQ(sections_of(&rec, &sections), 0);
  EXPECT_THAT(pairs_of(sections.get()), ElementsAre(Pair("progress", "45.500000")));
  Tasks again;
  ASSERT_EQ(single_from(sections, &again), 0);
  EXPECT_EQ(again->progress, 45.5);
  snprintf(text, sizeof text, "%.1f", 45.5);
  EXPECT_STREQ(text, "45,5") << "the caller's locale is its own again";
}

TEST(Task_Records, A_List_With_A_Name_That_No_Section_Can_Have_Is_Said_And_Refused) {
  for (const std::string name : {"", "a]b", "a\nb"}) {
    const Log_Capture log;
    const Task rec = task(name, all_bits);
    Sections sections(nullptr, Free_Sect_Node);
    EXPECT_EQ(sections_of(&rec, &sections), -EINVAL);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("Backgrnd_Task_All_Task_To_Sect_Node",
                                                    "Can't allocate a section node for a Tarn cluster slave conf!")));
  }
}

TEST(Task_Records, A_List_With_A_Text_That_Breaks_Its_Line_Is_Refused) {
  Task rec = task("m1", all_bits);
  set_text(rec.task_name, "a\n[m9]");
  Sections sections(nullptr, Free_Sect_Node);
  EXPECT_EQ(sections_of(&rec, &sections), -EINVAL);
}

TEST(Task_Records, A_List_To_Sections_Refuses_What_Is_Missing) {
  const Task rec = task("m1", all_bits);
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Backgrnd_Task_All_Task_To_Sect_Node(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_All_Task_To_Sect_Node(&rec, nullptr), -EINVAL);
  EXPECT_EQ(sections, nullptr);
}

// ------------------------------------------------------------------------------------------ record into a section
// there is

TEST(Task_Records, Into_A_Section_Keys_Are_Set_In_An_Order_Of_Their_Own_And_The_Name_Stays) {
  const Sections section = parsed("[old]\nother = 1\n");
  const Task rec = task("m1_b", all_bits);
  ASSERT_EQ(Backgrnd_Task_Task_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "old");
  EXPECT_THAT(
      pairs_of(section.get()),
      ElementsAre(Pair("other", "1"), Pair("slave_id", "QNself01"), Pair("status", "3"), Pair("type_name", "a type"),
                  Pair("task_id", "m1_b"), Pair("task_name", "a name"), Pair("progress", "45.500000")));
}

TEST(Task_Records, Into_A_Section_Only_The_Keys_Of_The_Bits_Are_Set) {
  for (const Task_Key &key : task_keys) {
    const Sections section = parsed("[old]\n" + std::string(key.key) + " = was\nother = 1\n");
    const Task rec = task("m1_b", key.bit);
    ASSERT_EQ(Backgrnd_Task_Task_To_Sect_Node(&rec, section.get()), 0);
    EXPECT_THAT(pairs_of(section.get()), ElementsAre(Pair(key.key, key.value), Pair("other", "1")));
    EXPECT_STREQ(section->name, "old");
  }
}

TEST(Task_Records, Into_A_Section_The_First_Error_Ends_It) {
  const Sections section = parsed("[old]\nother = 1\n");
  Task rec = task("m1_b", all_bits);
  set_text(rec.type_name, "a\nb");
  EXPECT_EQ(Backgrnd_Task_Task_To_Sect_Node(&rec, section.get()), -EINVAL);
  EXPECT_THAT(pairs_of(section.get()),
              ElementsAre(Pair("other", "1"), Pair("slave_id", "QNself01"), Pair("status", "3")));
  EXPECT_STREQ(section->name, "old");
}

// Programs look the task up by the new name even then.
TEST(Task_Records, Into_A_Section_Only_A_Failing_Id_Renames_It) {
  for (const Task_Key &key : task_keys) {
    SCOPED_TRACE(key.key);
    const Sections section = parsed("[old]\nother = 1\n");
    const Task rec = task("m1_b", key.bit);
    const Log_Capture log;
    const Allocation_Failure failure(1);
    EXPECT_EQ(Backgrnd_Task_Task_To_Sect_Node(&rec, section.get()), -ENOMEM);
    EXPECT_STREQ(section->name, key.bit == 0x10 ? "m1_b" : "old");
    EXPECT_THAT(pairs_of(section.get()), ElementsAre(Pair("other", "1")));
  }
}

TEST(Task_Records, Into_A_Section_Refuses_What_Is_Missing) {
  const Sections section = parsed("[old]\n");
  const Task rec = task("m1_b", all_bits);
  EXPECT_EQ(Backgrnd_Task_Task_To_Sect_Node(nullptr, section.get()), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Task_To_Sect_Node(&rec, nullptr), -EINVAL);
}

// ----------------------------------------------------------------------------------------------------------------
// files

const char two_tasks[] = "[m1_b]\nstatus = 1\nprogress = 10.000000\n\n[m2_r]\nstatus = 2\nCustom = kept\n\n";

class Task_File : public testing::Test {
 protected:
  explicit Task_File(const std::string &path = {}) : path_(path.empty() ? folder_ / "tasks.conf" : path) {}
  ~Task_File() override {
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_FALSE(exists(owned_lock(name_)));
    const std::filesystem::path path(path_);
    for (const std::string &name : names_in(path.parent_path())) EXPECT_EQ(name, path.filename());
  }

  int read(Tasks *out) const {
    Task *list = nullptr;
    const int status = Backgrnd_Task_Conf_Read(path_.c_str(), &list);
    out->reset(list);
    return status;
  }
  int get(const std::string &name, Tasks *out) const {
    Task *rec = nullptr;
    const int status = Backgrnd_Task_Get(path_.c_str(), name.c_str(), &rec);
    out->reset(rec);
    return status;
  }
  int write(const Task &list) const { return Backgrnd_Task_Conf_Write(path_.c_str(), &list); }
  int set(const std::string &name, const Task &rec) const {
    return Backgrnd_Task_Set(path_.c_str(), name.c_str(), &rec);
  }
  std::string text() const { return read_file(path_); }

  // What is reported, without the lines of the lock itself and those about pairs.
  std::vector<Log_Line> said() const {
    std::vector<Log_Line> found;
    for (const Log_Line &line : log_.lines()) {
      if (line.function.find("Task") != std::string::npos) found.push_back(line);
    }
    return found;
  }

  // A lock that stays taken ends the call after 10 seconds with these lines; nothing is touched.
  void expect_waits_for_lock(const std::function<int()> &call, const std::vector<Log_Line> &lines) {
    write_file(path_, two_tasks);
    const File_State before = state_of(path_);
    log_.clear();
    {
      Virtual_Clock clock(1'800'000'000'000);
      ASSERT_EQ(Get_File_Lock(path_.c_str(), 0), 1);
      clock.on_read([&] { clock.advance(100); });
      EXPECT_EQ(call(), -ENOLCK);
      EXPECT_GT(clock.now(), 1'800'000'010'000);
      EXPECT_LT(clock.now(), 1'800'000'011'000);
    }
    EXPECT_EQ(said(), lines);
    EXPECT_TRUE(exists(owned_lock(name_)));
    EXPECT_EQ(state_of(path_), before);
    Release_File_Lock(path_.c_str());
  }

  Temporary_Folder folder_;
  std::string path_;
  std::string name_ = std::filesystem::path(path_).filename();
  Log_Capture log_;
  const int descriptors_ = open_descriptors();
};

TEST_F(Task_File, Read_Makes_A_List_Of_The_Whole_File) {
  write_file(path_, two_tasks);
  Tasks list;
  ASSERT_EQ(read(&list), 0);
  EXPECT_THAT(all_shown(list), ElementsAre("3|10.000000|1|||m1_b|", "3|0.000000|2|||m2_r|"));
  EXPECT_EQ(text(), two_tasks);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Task_File, Read_Returns_A_Files_Own_Failure) {
  Tasks list;
  EXPECT_EQ(read(&list), -ENOENT);
  mkdir(path_.c_str(), 0755);
  EXPECT_EQ(read(&list), -ENOMEDIUM);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(said(), IsEmpty());
  rmdir(path_.c_str());
}

TEST_F(Task_File, Read_Of_A_File_Without_Sections_Leaves_The_Output) {
  write_file(path_, "# none\n");
  Task other;
  Task *list = &other;
  EXPECT_EQ(Backgrnd_Task_Conf_Read(path_.c_str(), &list), 0);
  EXPECT_EQ(list, &other);
}

TEST_F(Task_File, Read_Of_A_First_Section_Without_Keys_Is_Said_And_Refused) {
  write_file(path_, "[m1_b]\n\n[m2_b]\nstatus = 1\n");
  Tasks list;
  EXPECT_EQ(read(&list), -EINVAL);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(said(), ElementsAre(error_line("Backgrnd_Task_Conf_Read",
                                             "Translate service list to section Node error! (-22)")));
}

TEST_F(Task_File, Get_Reads_One_Task_Without_Its_Name) {
  write_file(path_, two_tasks);
  Tasks rec;
  ASSERT_EQ(get("m2_r", &rec), 0);
  EXPECT_THAT(all_shown(rec), ElementsAre("2|0.000000|2||||"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Task_File, Get_Tells_A_Missing_Task_And_A_Missing_File) {
  Task other;
  Task *rec = &other;
  EXPECT_EQ(Backgrnd_Task_Get(path_.c_str(), "m1_b", &rec), -ENOENT);
  EXPECT_EQ(rec, nullptr);
  write_file(path_, two_tasks);
  rec = &other;
  EXPECT_EQ(Backgrnd_Task_Get(path_.c_str(), "m1_r", &rec), -ENOANO);
  EXPECT_EQ(rec, nullptr);
  EXPECT_THAT(
      said(),
      ElementsAre(debug_line("Backgrnd_Task_Get", "Can't get conf file section error! (-2, " + path_ + ", m1_b)"),
                  debug_line("Backgrnd_Task_Get", "Can't get conf file section error! (-55, " + path_ + ", m1_r)")));
}

TEST_F(Task_File, Get_When_Memory_Ends_Says_So) {
  write_file(path_, "[m1_b]\nstatus = 1\nprogress = 10.000000\n");
  Task *rec = nullptr;
  int translations = 0;
  with_each_allocation_failing([&] { return Backgrnd_Task_Get(path_.c_str(), "m1_b", &rec); },
                               [&](int status, int) {
                                 EXPECT_THAT(status, testing::AnyOf(-ENOMEM, -ENOANO));
                                 EXPECT_EQ(rec, nullptr);
                                 for (const Log_Line &line : said()) {
                                   translations += line == error_line("Backgrnd_Task_Get",
                                                                      "Can't translate sect node to a Tarn service "
                                                                      "structure! (-12)");
                                 }
                                 log_.clear();
                               });
  const Tasks owned(rec);
  EXPECT_EQ(translations, 1);
}

TEST_F(Task_File, Write_Replaces_The_File_By_The_List_With_The_First_Ones_Progress_Everywhere) {
  write_file(path_, two_tasks);
  Task first = task("m1_b", all_bits, 10), second = task("m2_b", 0x1, 90);
  first.next = &second;
  EXPECT_EQ(write(first), 0);
  EXPECT_EQ(text(),
            "[m1_b]\nstatus = 3\nslave_id = QNself01\ntype_name = a type\ntask_id = m1_b\ntask_name = a name\n"
            "progress = 10.000000\n\n[m2_b]\nprogress = 10.000000\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Task_File, Write_Back_Of_What_Was_Read_Gives_Each_Task_A_Progress) {
  write_file(path_, "[m1_b]\nstatus = 1\n\n[m2_b]\nprogress = 5.0\n\n");
  Tasks list;
  ASSERT_EQ(read(&list), 0);
  ASSERT_EQ(write(*list), 0);
  EXPECT_EQ(text(), "[m1_b]\nstatus = 1\nprogress = 0.000000\n\n[m2_b]\nprogress = 0.000000\n\n");
}

TEST_F(Task_File, Write_Says_What_It_Cannot_Translate_Or_Replace) {
  write_file(path_, two_tasks);
  Task rec = task("m1_b", all_bits);
  set_text(rec.task_name, "a\nb");
  EXPECT_EQ(write(rec), -EINVAL);
  EXPECT_EQ(text(), two_tasks);
  const std::string path = folder_ / "missing/tasks.conf";
  rec = task("m1_b", all_bits);
  EXPECT_EQ(Backgrnd_Task_Conf_Write(path.c_str(), &rec), -ENOENT);
  EXPECT_THAT(
      said(),
      ElementsAre(
          error_line("Backgrnd_Task_Conf_Write", "Can't translate a Tarn cluster slave conf to the setc node! (-22)"),
          error_line("Backgrnd_Task_Conf_Write", "Can't update the conf file \"" + path + "\" error! (-2)")));
}

TEST_F(Task_File, Set_Changes_The_Keys_Of_The_Bits_And_Keeps_The_Name_And_The_Other_Tasks) {
  write_file(path_, two_tasks);
  EXPECT_EQ(set("m2_r", task("other", 0x2 | 0x10 | 0x1, 20)), 0);
  EXPECT_EQ(text(),
            "[m1_b]\nstatus = 1\nprogress = 10.000000\n\n"
            "[m2_r]\nstatus = 3\nCustom = kept\ntask_id = other\nprogress = 20.000000\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Task_File, Set_Adds_A_Task_Under_The_Records_Id_In_The_Order_Of_New_Ones) {
  EXPECT_EQ(set("m1_b", task("m3_b", all_bits)), 0);
  EXPECT_EQ(text(),
            "[m3_b]\nstatus = 3\nslave_id = QNself01\ntype_name = a type\ntask_id = m3_b\ntask_name = a name\n"
            "progress = 45.500000\n\n");
}

TEST_F(Task_File, Set_Without_A_Record_Removes_A_Task) {
  write_file(path_, two_tasks);
  EXPECT_EQ(Backgrnd_Task_Set(path_.c_str(), "m1_b", nullptr), 0);
  EXPECT_EQ(text(), "[m2_r]\nstatus = 2\nCustom = kept\n\n");
  EXPECT_EQ(Backgrnd_Task_Set(path_.c_str(), "m1_b", nullptr), -ENOANO);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// Callers' masks of members have always passed here.
TEST_F(Task_File, Set_Takes_Bits_That_No_Key_Has_As_A_Task_Without_Keys_But_Not_Those_Above) {
  EXPECT_EQ(set("m1_b", task("m1_b", 0x800000)), 0);
  EXPECT_EQ(set("m1_b", task("m1_b", 0)), 0);
  EXPECT_FALSE(exists(path_));
  for (const unsigned mask : {0x40u, 0x400000u}) {
    EXPECT_EQ(set("m1_b", task("m1_b", mask)), 0);
    EXPECT_EQ(text(), "[m1_b]\n\n") << mask;
    unlink(path_.c_str());
  }
}

TEST_F(Task_File, Set_Says_Why_It_Failed) {
  mkdir(path_.c_str(), 0755);
  EXPECT_EQ(set("m1_b", task("m1_b", all_bits)), -ENOMEDIUM);
  EXPECT_THAT(said(),
              ElementsAre(error_line("Backgrnd_Task_Set", "Can't read the Tarn service file " + path_ + " error!")));
  rmdir(path_.c_str());
  write_file(path_, two_tasks);
  Task broken = task("m1_b", all_bits);
  set_text(broken.task_name, "a\nb");
  log_.clear();
  EXPECT_EQ(set("m1_b", broken), -EINVAL);
  EXPECT_THAT(said(),
              ElementsAre(error_line("Backgrnd_Task_Set", "Can't update the sect node for service m1_b error! (-22)")));
  const Pinned_File pinned(path_);
  log_.clear();
  EXPECT_EQ(set("m1_b", task("m1_b", all_bits)), -EBUSY);
  EXPECT_THAT(said(), ElementsAre(error_line("Backgrnd_Task_Set",
                                             "Can't update the conf file \"" + path_ + "\" error! (-16)")));
  EXPECT_EQ(text(), two_tasks);
}

TEST_F(Task_File, Set_Says_That_A_Task_Cannot_Be_Made_And_At_The_Debug_Level_That_Its_Section_Cannot) {
  const Log_Line error = error_line("Backgrnd_Task_Set", "Can't create a sect node for service m1_b! (-22)");
  const Log_Line section = debug_line("Create_Backgrnd_Task_Sect_Node", "Can't crate a sect node error! (-22)");
  Task broken_key = task("m1_b", all_bits);
  set_text(broken_key.task_name, "a\nb");
  const Task nameless = task("", all_bits);
  for (const int level : {1, 2, 3}) {
    SCOPED_TRACE(level);
    g_idLogLevel = level;
    log_.clear();
    EXPECT_EQ(set("m1_b", nameless), -EINVAL);
    EXPECT_EQ(said(), level < 3 ? std::vector{error} : std::vector({section, error}));
    log_.clear();
    EXPECT_EQ(set("m1_b", broken_key), -EINVAL);
    EXPECT_THAT(said(), ElementsAre(error));
  }
  EXPECT_FALSE(exists(path_));
}

TEST_F(Task_File, Changes_When_Memory_Ends_Leave_The_Old_File_Or_The_New_One) {
  expect_whole_or_nothing_without_memory(
      path_, {two_tasks, "[m1_b]\nstatus = 3\n\n", [&] { return write(task("m1_b", 0x2)); }}, 2);
  expect_whole_or_nothing_without_memory(
      path_,
      {two_tasks, "[m1_b]\nstatus = 3\nprogress = 10.000000\n\n[m2_r]\nstatus = 2\nCustom = kept\n\n",
       [&] { return set("m1_b", task("m1_b", 0x2)); }},
      2);
}

TEST_F(Task_File, A_Lock_That_Stays_Taken_Ends_Each_With_A_Message_Of_Its_Own) {
  Task other;
  Task *out = &other;
  const Task rec = task("m1_b", all_bits);
  const auto line = [&](const char *function, const char *end) {
    return std::vector<Log_Line>{error_line(function, "Can't get file lock of " + path_ + end)};
  };
  expect_waits_for_lock([&] { return Backgrnd_Task_Conf_Read(path_.c_str(), &out); },
                        line("Backgrnd_Task_Conf_Read", " error!"));
  expect_waits_for_lock([&] { return Backgrnd_Task_Get(path_.c_str(), "m1_b", &out); },
                        line("Backgrnd_Task_Get", " error!"));
  expect_waits_for_lock([&] { return write(rec); }, line("Backgrnd_Task_Conf_Write", "!"));
  expect_waits_for_lock([&] { return set("m1_b", rec); }, line("Backgrnd_Task_Set", " error!"));
  expect_waits_for_lock([&] { return Backgrnd_Task_Set(path_.c_str(), "m1_b", nullptr); },
                        line("Backgrnd_Task_Set", " error!"));
  EXPECT_EQ(out, &other);
}

TEST_F(Task_File, Missing_Arguments_Are_Refused_Without_A_Lock_Or_A_Line) {
  const Held_Lock lock(name_);
  const Task rec = task("m1_b", all_bits), nothing = task("m1_b", 0);
  Task other;
  Task *out = &other;
  EXPECT_EQ(Backgrnd_Task_Conf_Read(nullptr, &out), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Conf_Read(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Conf_Write(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Conf_Write(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Get(nullptr, "m1_b", &out), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Get(path_.c_str(), nullptr, &out), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Get(path_.c_str(), "m1_b", nullptr), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Set(nullptr, "m1_b", &rec), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Set(path_.c_str(), nullptr, &rec), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Set(path_.c_str(), nullptr, nullptr), -EINVAL);
  EXPECT_EQ(Backgrnd_Task_Set(nullptr, "m1_b", &nothing), -EINVAL);
  EXPECT_EQ(Set_Backgrnd_Task_Progress(nullptr, 1, 1), -EINVAL);
  EXPECT_EQ(Update_Backgrnd_Task_Status(nullptr, 1, 0), -EINVAL);
  EXPECT_EQ(out, &other);
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_FALSE(exists(path_));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ----------------------------------------------------------------------------------------------- a member's own task

const std::string member_tasks = "/tmp/druvosrv/tarn_backup.conf";

class Member_Task : public Task_File {
 protected:
  Member_Task() : Task_File(make_folder()) {}
  ~Member_Task() override { unlink(path_.c_str()); }

  static const std::string &make_folder() {
    std::filesystem::create_directories("/tmp/druvosrv");
    return member_tasks;
  }
};

constexpr char progress_name[] = "Set_Backgrnd_Task_Progress";
constexpr char status_name[] = "Update_Backgrnd_Task_Status";

TEST_F(Member_Task, Progress_Is_Set_In_The_Backup_Or_The_Restore_Of_The_Member) {
  const std::string other = "[m1_x]\nprogress = 1\n\n[m1]\nprogress = 2\n\n";
  for (const int is_backup : {1, -1, 256}) {
    write_file(path_, "[m1_r]\nprogress = 3\n\n[m1_b]\nprogress = 4\nstatus = 5\n\n" + other);
    EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", is_backup, 33.25), 0);
    EXPECT_EQ(text(), "[m1_r]\nprogress = 3\n\n[m1_b]\nprogress = 33.250000\nstatus = 5\n\n" + other);
  }
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 0, -1), 0);
  EXPECT_EQ(text(), "[m1_r]\nprogress = -1.000000\n\n[m1_b]\nprogress = 33.250000\nstatus = 5\n\n" + other);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Task, A_Task_Without_A_Progress_Keeps_None) {
  const std::string before = "[m1_b]\nstatus = 5\n\n[m2_b]\n\n";
  write_file(path_, before);
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 50), 0);
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m2", 1, 50), 0);
  EXPECT_EQ(text(), before);
}

TEST_F(Member_Task, Values_That_No_Record_Holds_Stay_When_The_Progress_Changes) {
  const std::string rest = "type_name = " + std::string(200, 't') + "\nslave_id = longer than 8\nCustom = 1\n\n";
  write_file(path_, "[m1_b]\nprogress = 1\n" + rest);
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 2), 0);
  EXPECT_EQ(text(), "[m1_b]\nprogress = 2.000000\n" + rest);
}

TEST_F(Member_Task, A_Task_That_Cannot_Be_Read_Is_Said_By_Progress_Only) {
  const auto unread = [](int status) {
    return error_line(progress_name, "Can't read background task confi file! (" + std::to_string(status) + ")");
  };
  const auto missing = [&](int status) {
    return debug_line("Backgrnd_Task_Get",
                      "Can't get conf file section error! (" + std::to_string(status) + ", " + path_ + ", m1_b)");
  };
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 1), -ENOENT);
  EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 1, 0), -ENOENT);
  EXPECT_FALSE(exists(path_));
  write_file(path_, "[m1_r]\nprogress = 1\n\n");
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 1), -ENOANO);
  EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 1, 0), -ENOANO);
  EXPECT_THAT(said(), ElementsAre(missing(-2), unread(-2), missing(-2), missing(-55), unread(-55), missing(-55)));
}

TEST_F(Member_Task, A_Task_That_Cannot_Be_Written_Is_Said_With_The_Files_Path) {
  write_file(path_, "[m1_b]\nprogress = 1\nstatus = 1\n\n");
  const Pinned_File pinned(path_);
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 2), -EBUSY);
  EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 1, 0), -EBUSY);
  const Log_Line set_line =
      error_line("Backgrnd_Task_Set", "Can't update the conf file \"" + path_ + "\" error! (-16)");
  const std::string text = "Can't write background task config file " + path_ + "! (-16)";
  EXPECT_THAT(said(), ElementsAre(set_line, error_line(progress_name, text), set_line, error_line(status_name, text)));
}

TEST_F(Member_Task, A_Failed_Result_Is_8_A_Good_One_7_And_A_Positive_One_Changes_Nothing) {
  struct Case {
    int result;
    const char *status;
  };
  for (const Case &c : {Case{-5, "8"}, Case{0, "7"}, Case{3, "1"}}) {
    write_file(path_, "[m1_b]\nstatus = 1\nCustom = 1\n\n[m1_r]\nstatus = 2\n\n");
    EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 1, c.result), 0);
    EXPECT_EQ(text(), "[m1_b]\nstatus = " + std::string(c.status) + "\nCustom = 1\n\n[m1_r]\nstatus = 2\n\n");
  }
  EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 0, -1), 0);
  EXPECT_EQ(text(), "[m1_b]\nstatus = 1\nCustom = 1\n\n[m1_r]\nstatus = 8\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Task, A_Task_Without_A_Status_Gets_None) {
  write_file(path_, "[m1_b]\nprogress = 1\n\n");
  EXPECT_EQ(Update_Backgrnd_Task_Status("m1", 1, -5), 0);
  EXPECT_EQ(text(), "[m1_b]\nprogress = 1.000000\n\n");
}

TEST_F(Member_Task, Names_Of_127_Characters_Are_Found_And_Longer_Ones_Hit_No_Other_Task) {
  const std::string longest(127, 'n');
  const std::string task_of_cut_name = "[" + longest + "n_]\nprogress = 1\nstatus = 1\n\n";
  write_file(path_, "[" + longest + "_b]\nprogress = 1\n\n" + task_of_cut_name);
  EXPECT_EQ(Set_Backgrnd_Task_Progress(longest.c_str(), 1, 2), 0);
  const std::string after = "[" + longest + "_b]\nprogress = 2.000000\n\n" + task_of_cut_name;
  EXPECT_EQ(text(), after);
  log_.clear();
  const std::string too_long = longest + "n";
  EXPECT_EQ(Set_Backgrnd_Task_Progress(too_long.c_str(), 1, 3), -ENOANO);
  EXPECT_EQ(Update_Backgrnd_Task_Status(too_long.c_str(), 1, 0), -ENOANO);
  EXPECT_EQ(text(), after);
  EXPECT_THAT(said(), ElementsAre(error_line(progress_name, "Can't read background task confi file! (-55)")));
}

// Others may change the task in between.
TEST_F(Member_Task, The_Lock_Is_Given_Back_Between_Reading_And_Writing) {
  write_file(path_, "[m1_b]\nprogress = 1\nstatus = 1\n\n");
  const Before_Call hook(System_Call::unlink, 1, [&] {
    write_file(path_, "[m1_b]\nprogress = 9\nstatus = 1\n\n[m2_b]\nstatus = 2\n\n");
    return 0;
  });
  EXPECT_EQ(Set_Backgrnd_Task_Progress("m1", 1, 5), 0);
  EXPECT_TRUE(hook.happened());
  EXPECT_EQ(text(), "[m1_b]\nprogress = 5.000000\nstatus = 1\n\n[m2_b]\nstatus = 2\n\n");
}

TEST_F(Member_Task, A_Lock_That_Stays_Taken_Is_Said) {
  const Log_Line get_line = error_line("Backgrnd_Task_Get", "Can't get file lock of " + path_ + " error!");
  expect_waits_for_lock([] { return Set_Backgrnd_Task_Progress("m1", 1, 5); },
                        {get_line, error_line(progress_name, "Can't read background task confi file! (-37)")});
  expect_waits_for_lock([] { return Update_Backgrnd_Task_Status("m1", 1, 0); }, {get_line});
}

}  // namespace
}  // namespace tarn::test
