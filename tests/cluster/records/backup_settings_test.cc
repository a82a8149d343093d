#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::Pair;

using Settings = Tarn_Backup_Conf;

struct Setting {
  const char *key;
  unsigned bit;
  const char *value;
};

// In the order in which a section has them.
constexpr std::array<Setting, 11> settings = {{{"Schedule", 0x1, "-3"},
                                               {"Status", 0x2, "4"},
                                               {"PID", 0x40, "4711"},
                                               {"LastBackup", 0x4, "5000000000"},
                                               {"LastRestore", 0x8, "-6000000000"},
                                               {"ScheduleTime", 0x20, "03:15 daily"},
                                               {"Address", 0x80, "10.0.0.7"},
                                               {"Password", 0x100, "p w = # ;"},
                                               {"BackupPath", 0x200, "/share/backup"},
                                               {"BackupFile", 0x400, "file.img"},
                                               {"RestorePath", 0x800, "/share/restore"}}};

Settings preset() {
  Settings rec;
  Tarn_Backup_Conf_Preset(&rec);
  return rec;
}

Settings full_record(unsigned mask) {
  Settings rec = preset();
  rec.fields = mask;
  rec.Schedule = -3;
  rec.Status = 4;
  rec.PID = 4711;
  rec.LastBackup = 5'000'000'000;
  rec.LastRestore = -6'000'000'000;
  strcpy(rec.ScheduleTime, "03:15 daily");
  strcpy(rec.Address, "10.0.0.7");
  strcpy(rec.Password, "p w = # ;");
  strcpy(rec.BackupPath, "/share/backup");
  strcpy(rec.BackupFile, "file.img");
  strcpy(rec.RestorePath, "/share/restore");
  return rec;
}

// What the fields hold, whatever the mask says.
std::vector<std::string> values_of(const Settings &rec) {
  return {std::to_string(rec.Schedule),
          std::to_string(rec.Status),
          std::to_string(rec.PID),
          std::to_string(rec.LastBackup),
          std::to_string(rec.LastRestore),
          rec.ScheduleTime,
          rec.Address,
          rec.Password,
          rec.BackupPath,
          rec.BackupFile,
          rec.RestorePath};
}

const std::vector<std::string> preset_values = {"0", "0", "-1", "0", "0", "", "", "", "", "", ""};

std::string lines(const std::vector<std::pair<std::string, std::string>> &pairs) {
  std::string text = "[global]\n";
  for (const auto &[key, value] : pairs) text += key + " = " + value + "\n";
  return text + "\n";
}

bool is_same(const Settings &a, const Settings &b) {
  return memcmp(&a, &b, sizeof a) == 0;
}

using Sections = std::unique_ptr<Sect_Node, decltype(&Free_Sect_Node)>;

Sections parsed(std::string text) {
  Sect_Node *sections = nullptr;
  Parse_Conf_Cache(text.data(), &sections);
  return {sections, Free_Sect_Node};
}

std::vector<std::pair<std::string, std::string>> pairs_of(const Sect_Node *section) {
  std::vector<std::pair<std::string, std::string>> found;
  for (const Pair_Node *pair = section->pairs; pair != nullptr; pair = pair->next) {
    found.emplace_back(pair->key, pair->value);
  }
  return found;
}

// -------------------------------------------------------------------------------------------------------------- preset

TEST(Backup_Settings, Preset_Zeroes_Everything_But_The_Process) {
  Settings rec;
  memset(&rec, 0xEE, sizeof rec);
  Tarn_Backup_Conf_Preset(&rec);
  EXPECT_EQ(rec.PID, -1);
  rec.PID = 0;
  const char *bytes = reinterpret_cast<const char *>(&rec);
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof rec, [](char byte) { return byte == 0; }));
  Tarn_Backup_Conf_Preset(nullptr);
}

// -------------------------------------------------------------------------------------------------------- from section

TEST(Backup_Settings, From_Section_Reads_Each_Key_With_Its_Bit_And_Leaves_The_Others_Preset) {
  for (size_t i = 0; i < settings.size(); ++i) {
    SCOPED_TRACE(settings[i].key);
    Settings rec;
    memset(&rec, 0xEE, sizeof rec);
    const Sections section = parsed(lines({{settings[i].key, settings[i].value}}));
    ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(section.get(), &rec), 0);
    EXPECT_EQ(rec.fields, settings[i].bit);
    std::vector<std::string> expected = preset_values;
    expected[i] = settings[i].value;
    EXPECT_EQ(values_of(rec), expected);
  }
}

TEST(Backup_Settings, From_Section_Reads_All_Keys_In_Any_Order_And_Passes_Over_Unknown_Ones) {
  std::string text = "[any]\nOther = 1\nschedule = 9\n";
  for (auto setting = settings.rbegin(); setting != settings.rend(); ++setting) {
    text += std::string(setting->key) + " = " + setting->value + "\n";
  }
  Settings rec;
  ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed(text).get(), &rec), 0);
  EXPECT_EQ(rec.fields, 0xFEFu);
  EXPECT_EQ(values_of(rec), values_of(full_record(0)));
}

TEST(Backup_Settings, From_Section_With_Unknown_Keys_Only_Is_A_Preset_Record) {
  Settings rec = full_record(0xFEF);
  ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed("[global]\nOther = 1\n").get(), &rec), 0);
  EXPECT_TRUE(is_same(rec, preset()));
}

TEST(Backup_Settings, From_Section_Takes_The_First_Of_Equal_Keys) {
  Settings rec;
  ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed("[g]\nStatus = 1\nStatus = 2\n").get(), &rec), 0);
  EXPECT_EQ(rec.Status, 1);
}

TEST(Backup_Settings, From_Section_Leaves_The_Bit_Of_A_Number_That_Does_Not_Fit_Clear) {
  Settings rec;
  ASSERT_EQ(
      Tarn_Backup_Conf_From_Sect_Node(parsed("[g]\nSchedule = 2147483648\nStatus = -2147483647\nPID = -2147483648\n"
                                             "LastBackup = 9223372036854775807\nLastRestore = -9223372036854775808\n")
                                          .get(),
                                      &rec),
      0);
  EXPECT_EQ(rec.fields, 0x2u | 0x4u | 0x8u);
  EXPECT_EQ(rec.Status, -2147483647);
  EXPECT_EQ(rec.LastBackup, INT64_MAX);
  EXPECT_EQ(rec.LastRestore, INT64_MIN);
}

TEST(Backup_Settings, From_Section_Refuses_What_Is_Missing_And_Leaves_The_Record) {
  Settings rec = full_record(0xFEF);
  const Settings before = rec;
  EXPECT_EQ(Tarn_Backup_Conf_From_Sect_Node(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed("[global]\n").get(), &rec), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed("[global]\nStatus = 1\n").get(), nullptr), -EINVAL);
  EXPECT_TRUE(is_same(rec, before));
}

// Programs of the backup depend on it: a value longer than its field is theirs whole, as long as no key follows.
TEST(Backup_Settings, A_Text_Longer_Than_Its_Field_Runs_On_Into_The_Fields_Behind_It) {
  const std::string address = std::string(64, 'a') + "tail";
  Settings rec;
  ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed(lines({{"Address", address}})).get(), &rec), 0);
  EXPECT_EQ(rec.fields, 0x80u);
  EXPECT_EQ(memcmp(rec.Address, address.data(), 64), 0);
  EXPECT_STREQ(rec.Password, "tail");
}

// Fields are read in the record's order, whatever the file's is.
TEST(Backup_Settings, The_Key_Of_The_Field_Behind_Wins_Over_What_Runs_On) {
  const std::string address(64 + 65 + 10, 'a');
  for (const bool address_first : {true, false}) {
    std::vector<std::pair<std::string, std::string>> pairs = {{"Password", "secret"}, {"Address", address}};
    if (address_first) std::swap(pairs[0], pairs[1]);
    Settings rec;
    ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed(lines(pairs)).get(), &rec), 0);
    EXPECT_EQ(rec.fields, 0x180u);
    EXPECT_STREQ(rec.Password, "secret");
    EXPECT_STREQ(rec.BackupPath, "aaaaaaaaaa") << "no padding of the shorter text over the longer one";
  }
}

TEST(Backup_Settings, Texts_Of_4095_Characters_Stay_Within_The_Record_And_Longer_Ones_Count_As_Absent) {
  struct Guarded {
    Settings rec;
    char guard[64];
  };
  const auto guarded = std::make_unique<Guarded>();
  for (size_t i = 5; i < settings.size(); ++i) {
    SCOPED_TRACE(settings[i].key);
    memset(guarded.get(), 0x5A, sizeof *guarded);
    const std::string longest(4095, 'x');
    ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(parsed(lines({{settings[i].key, longest}})).get(), &guarded->rec), 0);
    EXPECT_EQ(guarded->rec.fields, settings[i].bit);
    EXPECT_EQ(std::string(guarded->guard, sizeof guarded->guard), std::string(sizeof guarded->guard, 0x5A));

    const auto too_long = parsed(lines({{settings[i].key, longest + "x"}, {"Status", "4"}}));
    ASSERT_EQ(Tarn_Backup_Conf_From_Sect_Node(too_long.get(), &guarded->rec), 0);
    EXPECT_EQ(guarded->rec.fields, 0x2u);
    std::vector<std::string> expected = preset_values;
    expected[1] = "4";
    EXPECT_EQ(values_of(guarded->rec), expected);
  }
}

// ---------------------------------------------------------------------------------------------------------- to section

TEST(Backup_Settings, To_Section_Adds_The_Keys_Whose_Bits_Are_Set_In_Their_Order) {
  const auto made = [](unsigned mask) {
    Sections section = parsed("[global]\n");
    const Settings rec = full_record(mask);
    Sect_Node *holder = section.get();
    EXPECT_EQ(Tarn_Backup_Conf_To_Sect_Node(&rec, &holder), 0);
    EXPECT_EQ(holder, section.get());
    return pairs_of(holder);
  };
  std::vector<std::pair<std::string, std::string>> all;
  for (const Setting &setting : settings) {
    EXPECT_THAT(made(setting.bit), ElementsAre(Pair(setting.key, setting.value)));
    all.emplace_back(setting.key, setting.value);
  }
  EXPECT_EQ(made(0xFEF), all);
  EXPECT_EQ(made(0xFFFFFFFF), all);
  EXPECT_THAT(made(0x10), IsEmpty());
}

TEST(Backup_Settings, To_Section_Appends_To_The_First_Section_And_Replaces_Nothing) {
  const Sections sections = parsed("[one]\nStatus = 1\n[two]\nStatus = 2\n");
  const Settings rec = full_record(0x2);
  Sect_Node *holder = sections.get();
  EXPECT_EQ(Tarn_Backup_Conf_To_Sect_Node(&rec, &holder), 0);
  EXPECT_THAT(pairs_of(holder), ElementsAre(Pair("Status", "1"), Pair("Status", "4")));
  EXPECT_THAT(pairs_of(holder->next), ElementsAre(Pair("Status", "2")));
}

TEST(Backup_Settings, To_Section_Refuses_What_Is_Missing) {
  const Sections sections = parsed("[global]\n");
  const Settings rec = full_record(0xFEF);
  Sect_Node *holder = sections.get(), *none = nullptr;
  EXPECT_EQ(Tarn_Backup_Conf_To_Sect_Node(nullptr, &holder), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_To_Sect_Node(&rec, nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_To_Sect_Node(&rec, &none), -EINVAL);
  EXPECT_EQ(none, nullptr);
  EXPECT_EQ(holder->pairs, nullptr);
}

TEST(Backup_Settings, To_Section_Ends_At_The_First_Key_That_Cannot_Be_Made) {
  const Settings rec = full_record(0xFEF);
  const int allocations = with_each_allocation_failing(
      [&] {
        const Sections section = [] {
          Sect_Node *made = nullptr;
          Create_Sect_Node(&made, "global");
          return Sections(made, Free_Sect_Node);
        }();
        if (section == nullptr) return std::pair(-ENOMEM, size_t{0});
        Sect_Node *holder = section.get();
        const int status = Tarn_Backup_Conf_To_Sect_Node(&rec, &holder);
        size_t count = 0;
        for (const Pair_Node *pair = holder->pairs; pair != nullptr; pair = pair->next) ++count;
        return std::pair(status, count);
      },
      [](const std::pair<int, size_t> &result, int nth) {
        EXPECT_EQ(result, std::pair(-ENOMEM, nth < 2 ? size_t{0} : static_cast<size_t>(nth - 2))) << nth;
      });
  EXPECT_EQ(allocations, 12);
}

// --------------------------------------------------------------------------------------------------------------- files

class Backup_Settings_File : public testing::Test {
 protected:
  Backup_Settings_File() : path_(folder_ / "backup.conf"), descriptors_(open_descriptors()) {}
  ~Backup_Settings_File() override {
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_FALSE(exists(owned_lock("backup.conf")));
    for (const std::string &name : names_in(folder_.path())) EXPECT_EQ(name, "backup.conf");
  }

  int read(Settings *rec) const { return Tarn_Backup_Conf_Read(path_.c_str(), rec); }
  int write(const Settings &rec) const { return Tarn_Backup_Conf_Write(path_.c_str(), &rec); }
  std::string text() const { return read_file(path_); }
  std::vector<Log_Line> errors() const {
    std::vector<Log_Line> found;
    for (const Log_Line &line : log_.lines()) {
      if (line.level == "error" && line.function != "Get_File_Lock") found.push_back(line);
    }
    return found;
  }

  Temporary_Folder folder_;
  std::string path_;
  Log_Capture log_;
  int descriptors_;
};

TEST_F(Backup_Settings_File, Read_Takes_The_First_Section_Whatever_Its_Name) {
  write_file(path_, "[other]\nStatus = 5\nAddress = 10.0.0.7\n[global]\nStatus = 6\nSchedule = 1\n");
  Settings rec;
  memset(&rec, 0xEE, sizeof rec);
  ASSERT_EQ(read(&rec), 0);
  EXPECT_EQ(rec.fields, 0x82u);
  EXPECT_EQ(values_of(rec), (std::vector<std::string>{"0", "5", "-1", "0", "0", "", "10.0.0.7", "", "", "", ""}));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup_Settings_File, Read_Of_A_File_Without_Sections_Presets_The_Record) {
  for (const char *empty : {"", "\n\n", "# nothing\n"}) {
    write_file(path_, empty);
    Settings rec = full_record(0xFEF);
    EXPECT_EQ(read(&rec), 0);
    EXPECT_TRUE(is_same(rec, preset())) << empty;
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup_Settings_File, Read_Returns_A_Files_Own_Failure_And_Leaves_The_Record) {
  Settings rec = full_record(0xFEF);
  const Settings before = rec;
  EXPECT_EQ(read(&rec), -ENOENT);
  mkdir(path_.c_str(), 0755);
  EXPECT_EQ(read(&rec), -ENOMEDIUM);
  rmdir(path_.c_str());
  EXPECT_TRUE(is_same(rec, before));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Backup_Settings_File, Read_Of_A_First_Section_Without_Keys_Is_Said_And_Leaves_The_Record) {
  write_file(path_, "[global]\n\n[next]\nStatus = 1\n");
  Settings rec = full_record(0xFEF);
  const Settings before = rec;
  EXPECT_EQ(read(&rec), -EINVAL);
  EXPECT_TRUE(is_same(rec, before));
  const auto said = errors();
  ASSERT_EQ(said.size(), 1u);
  EXPECT_EQ(said[0].function, "Tarn_Backup_Conf_Read");
  char record[32];
  snprintf(record, sizeof record, "%p", static_cast<void *>(&rec));
  EXPECT_THAT(said[0].text, MatchesRegex("Tarn_Backup_Conf_From_Sect_Node\\(0x[0-9a-f]+, " + std::string(record) +
                                         "\\) error: -22 \\(\\(nil\\)\\)"));
}

TEST_F(Backup_Settings_File, Write_Makes_One_Section_To_The_Letter) {
  EXPECT_EQ(write(full_record(0xFEF)), 0);
  EXPECT_EQ(text(),
            "[global]\nSchedule = -3\nStatus = 4\nPID = 4711\nLastBackup = 5000000000\nLastRestore = -6000000000\n"
            "ScheduleTime = 03:15 daily\nAddress = 10.0.0.7\nPassword = p w = # ;\nBackupPath = /share/backup\n"
            "BackupFile = file.img\nRestorePath = /share/restore\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup_Settings_File, Write_Of_One_Key_Replaces_The_Whole_File_And_Keeps_Its_Mode) {
  write_file(path_, "# comment\n[other]\nSchedule = 1\n[global]\nSchedule = 2\n");
  chmod(path_.c_str(), 0600);
  EXPECT_EQ(write(full_record(0x2)), 0);
  EXPECT_EQ(text(), "[global]\nStatus = 4\n\n");
  EXPECT_EQ(mode_of(path_), 0600u);
}

TEST_F(Backup_Settings_File, Write_Of_No_Known_Bit_Does_Nothing) {
  const Held_Lock lock("backup.conf");  // not even this matters
  for (const unsigned mask : {0x0u, 0x10u, 0x1000u, 0xFFFFF010u}) {
    EXPECT_EQ(write(full_record(mask)), 0) << mask;
    EXPECT_FALSE(exists(path_));
  }
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup_Settings_File, Write_Sees_Every_Known_Bit) {
  for (const Setting &setting : settings) {
    EXPECT_EQ(write(full_record(setting.bit | 0x10)), 0);
    EXPECT_EQ(text(), lines({{setting.key, setting.value}}));
    unlink(path_.c_str());
  }
}

TEST_F(Backup_Settings_File, What_Was_Read_Is_Written_Back_Also_When_It_Runs_On) {
  const std::string before = lines({{"Status", "1"}, {"Address", std::string(100, 'a')}, {"RestorePath", "/r"}});
  write_file(path_, before);
  Settings rec;
  ASSERT_EQ(read(&rec), 0);
  ASSERT_EQ(write(rec), 0);
  EXPECT_EQ(text(), before);
}

TEST_F(Backup_Settings_File, A_Text_That_Fills_Its_Field_Takes_What_Stands_Behind_It) {
  Settings rec = full_record(0x80);
  memset(rec.Address, 'a', sizeof rec.Address);
  strcpy(rec.Password, "behind");
  EXPECT_EQ(write(rec), 0);
  EXPECT_EQ(text(), lines({{"Address", std::string(64, 'a') + "behind"}}));
}

TEST_F(Backup_Settings_File, A_Text_That_Has_No_End_In_The_Record_Or_Breaks_The_Line_Is_Refused) {
  const std::string before = lines({{"Status", "9"}});
  write_file(path_, before);
  Settings endless = full_record(0xFEF), broken = full_record(0xFEF);
  memset(endless.RestorePath, 'r', sizeof endless.RestorePath);
  strcpy(broken.Password, "p\n[evil]");
  for (const Settings *rec : {&endless, &broken}) {
    log_.clear();
    EXPECT_EQ(write(*rec), -EINVAL);
    EXPECT_EQ(text(), before);
    EXPECT_THAT(errors(), ElementsAre(error_line("Tarn_Backup_Conf_Write",
                                                 "Can't translate a Tarn backup conf to the setc node! (-22)")));
  }
}

TEST_F(Backup_Settings_File, A_File_That_Cannot_Be_Replaced_Is_Said) {
  const std::string path = folder_ / "missing/backup.conf";
  const Settings rec = full_record(0x2);
  EXPECT_EQ(Tarn_Backup_Conf_Write(path.c_str(), &rec), -ENOENT);
  EXPECT_EQ(errors().back(),
            error_line("Tarn_Backup_Conf_Write", "Can't update the conf file \"" + path + "\" error! (-2)"));
}

TEST_F(Backup_Settings_File, Write_When_Memory_Ends_Leaves_The_Old_File_Or_The_New_One) {
  expect_whole_or_nothing_without_memory(
      path_, {lines({{"PID", "1"}}), lines({{"Status", "4"}}), [&] { return write(full_record(0x2)); }}, 3);
}

TEST_F(Backup_Settings_File, Write_When_Memory_Ends_Says_What_It_Could_Not_Make) {
  std::vector<std::string> said;
  with_each_allocation_failing([&] { return write(full_record(0x2)); },
                               [&](int, int) {
                                 for (const Log_Line &line : errors()) {
                                   if (line.function == "Tarn_Backup_Conf_Write") said.push_back(line.text);
                                 }
                                 log_.clear();
                               });
  ASSERT_GE(said.size(), 3u);
  EXPECT_EQ(said[0], "Can't allocate a section node for a Tarn backup conf!");
  EXPECT_EQ(said[1], "Can't translate a Tarn backup conf to the setc node! (-12)");
  EXPECT_EQ(said[2], "Can't update the conf file \"" + path_ + "\" error! (-12)");
}

TEST_F(Backup_Settings_File, Missing_Arguments_Are_Refused_Without_A_Lock_Or_A_Line) {
  const Held_Lock lock("backup.conf");
  Settings rec = full_record(0xFEF);
  const Settings before = rec;
  EXPECT_EQ(Tarn_Backup_Conf_Read(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_Read(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_Write(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Backup_Conf_Write(path_.c_str(), nullptr), -EINVAL);
  rec.fields = 0;
  EXPECT_EQ(Tarn_Backup_Conf_Write(nullptr, &rec), -EINVAL);
  rec.fields = before.fields;
  EXPECT_TRUE(is_same(rec, before));
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_FALSE(exists(path_));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup_Settings_File, A_Lock_That_Stays_Taken_Ends_Both_After_10_Seconds) {
  write_file(path_, lines({{"PID", "1"}}));
  const File_State before = state_of(path_);
  Settings rec = full_record(0xFEF);
  const Settings given = rec;
  const std::pair<const char *, std::function<int()>> calls[] = {
      {"Tarn_Backup_Conf_Read", [&] { return read(&rec); }}, {"Tarn_Backup_Conf_Write", [&] { return write(rec); }}};
  for (const auto &[function, call] : calls) {
    log_.clear();
    {
      Virtual_Clock clock(1'800'000'000'000);
      ASSERT_EQ(Get_File_Lock(path_.c_str(), 0), 1);
      clock.on_read([&] { clock.advance(100); });
      EXPECT_EQ(call(), -ENOLCK);
      EXPECT_GT(clock.now(), 1'800'000'010'000);
      EXPECT_LT(clock.now(), 1'800'000'011'000);
    }
    EXPECT_THAT(errors(), ElementsAre(error_line(function, "Can't get file lock of " + path_ + "!")));
    EXPECT_TRUE(exists(owned_lock("backup.conf")));
    EXPECT_EQ(state_of(path_), before);
    EXPECT_TRUE(is_same(rec, given));
    Release_File_Lock(path_.c_str());
  }
}

}  // namespace
}  // namespace tarn::test
