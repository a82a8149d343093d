#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/member_samples.h"
#include "tests/cluster/records/record_files.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_disk.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr char file_name[] = "members.conf";

class Member_Files : public Record_Files {
 protected:
  Member_Files() : Record_Files(file_name) {}
};

const char three_members[] =
    "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nCustom = kept\n\n[m3]\nStatus = 3\n\n";

// ------------------------------------------------------------------------------------------------------ reading a file

TEST_F(Member_Files, Read_Makes_A_List_Of_The_Whole_File) {
  write_file(path_, three_members);
  Tarn_Serv_Conf *list = nullptr;
  ASSERT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), 0);
  const Records owned(list);
  EXPECT_THAT(names_of(list), ElementsAre("m1", "m2", "m3"));
  EXPECT_EQ(list->fields, name_bit | 0x40u | 0x80u);
  EXPECT_STREQ(list->Address, "10.0.0.1");
  EXPECT_EQ(list->next->next->Status, 3);
  EXPECT_EQ(text(), three_members);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Read_Of_A_Missing_File_Is_Told_By_The_Result_Only) {
  Tarn_Serv_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), -ENOENT);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Read_Returns_Other_Failures_As_They_Are) {
  Tarn_Serv_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(folder_.path().c_str(), &list), -ENOMEDIUM);
  write_file(folder_ / "plain", "x");
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read((folder_ / "plain/below").c_str(), &list), -ENOTDIR);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(errors_in(log_), IsEmpty());
}

TEST_F(Member_Files, Read_Of_A_File_Without_Sections_Leaves_The_Output_Alone) {
  for (const char *empty : {"", "\n\n", "# members\n; none\n"}) {
    SCOPED_TRACE(empty);
    write_file(path_, empty);
    Tarn_Serv_Conf other;
    Tarn_Serv_Conf *list = &other;
    EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), 0);
    EXPECT_EQ(list, &other);
  }
}

TEST_F(Member_Files, Read_Of_A_File_Whose_First_Section_Has_No_Keys_Is_Said_And_Refused) {
  write_file(path_, "[m1]\n\n[m2]\nID = 2\n");
  Tarn_Serv_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), -EINVAL);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Serv_Conf_Read",
                                                   "Translate service list to section Node error! (-22)")));
}

TEST_F(Member_Files, Read_Refuses_Missing_Arguments) {
  Tarn_Serv_Conf *list = nullptr;
  write_file(path_, three_members);
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(nullptr, &list), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), nullptr), -EINVAL);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Read_When_Memory_Ends_Says_So_And_Loses_Nothing_Silently_But_Sections_That_Had_No_Room) {
  write_file(path_, three_members);
  Tarn_Serv_Conf *list = nullptr;
  int refused = 0, translations = 0;
  with_each_allocation_failing(
      [&] {
        list = nullptr;
        return Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        const Records owned(list);
        if (status != 0) {
          EXPECT_EQ(status, -ENOMEM);
        }
        refused += status != 0;
        translations +=
            errors_in(log_) == std::vector<Log_Line>{error_line("Tarn_Cluster_All_Serv_From_Sect_Node",
                                                                "Can't allocate memory for slave list section! (-12)"),
                                                     error_line("Tarn_Cluster_Serv_Conf_Read",
                                                                "Translate service list to section Node error! (-12)")};
        log_.clear();
      });
  const Records owned(list);
  EXPECT_THAT(names_of(list), ElementsAre("m1", "m2", "m3"));
  EXPECT_EQ(translations, 3);
  EXPECT_GE(refused, 9);  // the text, the nameless section, four pairs, three records
}

TEST_F(Member_Files, Readers_Take_No_Lock) {
  write_file(path_, three_members);
  const Held_Lock lock(file_name);
  Tarn_Serv_Conf *list = nullptr, *rec = nullptr;
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), 0);
  EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m2", &rec), 0);
  EXPECT_TRUE(lock.is_untouched());
  Release_Serv_List_Conf(list);
  Release_Serv_List_Conf(rec);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// --------------------------------------------------------------------------------------------------- getting a member

TEST_F(Member_Files, Get_Reads_One_Member_Without_The_Bit_Of_Its_Name) {
  write_file(path_, three_members);
  Tarn_Serv_Conf *rec = nullptr;
  ASSERT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m2", &rec), 0);
  EXPECT_EQ(content(*rec), content(record("m2", {{"Status", "2"}})));
  EXPECT_EQ(rec->next, nullptr);
  free(rec);  // one allocation
  EXPECT_EQ(text(), three_members);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Get_Takes_The_First_Member_Of_A_Name) {
  write_file(path_, "[m1]\nID = 1\n[m1]\nID = 2\n");
  Tarn_Serv_Conf *rec = nullptr;
  ASSERT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m1", &rec), 0);
  const Records owned(rec);
  EXPECT_EQ(rec->ID, 1);
}

TEST_F(Member_Files, Get_Of_A_Member_Without_Keys_Is_A_Record_With_An_Empty_Mask) {
  write_file(path_, "[m1]\n\n[m2]\nID = 2\n");
  Tarn_Serv_Conf *rec = nullptr;
  ASSERT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m1", &rec), 0);
  const Records owned(rec);
  EXPECT_EQ(content(*rec), content(empty_record("m1")));
}

TEST_F(Member_Files, Get_Of_A_Long_Name_Leaves_The_Name_Without_Terminator) {
  write_file(path_, "[ninechars]\nSID = S\n");
  Tarn_Serv_Conf *rec = nullptr;
  ASSERT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "ninechars", &rec), 0);
  const Records owned(rec);
  EXPECT_EQ(std::string(rec->Name, 9), "ninechars");
  EXPECT_STREQ(rec->SID, "S");
}

TEST_F(Member_Files, Get_Compares_Names_Byte_For_Byte_And_Tells_A_Missing_Member) {
  write_file(path_, "[m1]\nID = 1\n");
  for (const std::string name : {"m2", "M1", "m", "m11", " m1", ""}) {
    SCOPED_TRACE(name);
    log_.clear();
    Tarn_Serv_Conf other;
    Tarn_Serv_Conf *rec = &other;
    EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), name.c_str(), &rec), -ENOANO);
    EXPECT_EQ(rec, nullptr);
    EXPECT_THAT(log_.lines(),
                ElementsAre(debug_line("Tarn_Cluster_Service_Get",
                                       "Can't get conf file section error! (-55, " + path_ + ", " + name + ")")));
  }
}

TEST_F(Member_Files, Get_From_A_Missing_File_Is_Told) {
  Tarn_Serv_Conf other;
  Tarn_Serv_Conf *rec = &other;
  EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m1", &rec), -ENOENT);
  EXPECT_EQ(rec, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Tarn_Cluster_Service_Get",
                                                   "Can't get conf file section error! (-2, " + path_ + ", m1)")));
}

TEST_F(Member_Files, Get_From_Something_That_Is_No_File_Is_Told) {
  Tarn_Serv_Conf *rec = nullptr;
  EXPECT_EQ(Tarn_Cluster_Service_Get(folder_.path().c_str(), "m1", &rec), -ENOMEDIUM);
  EXPECT_THAT(log_.lines(),
              Contains(debug_line("Tarn_Cluster_Service_Get",
                                  "Can't get conf file section error! (-123, " + folder_.path() + ", m1)")));
}

TEST_F(Member_Files, Get_Refuses_Missing_Arguments) {
  write_file(path_, three_members);
  Tarn_Serv_Conf *rec = nullptr;
  EXPECT_EQ(Tarn_Cluster_Service_Get(nullptr, "m1", &rec), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m1", nullptr), -EINVAL);
  EXPECT_EQ(rec, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Get_When_Memory_Ends_Says_So_And_Gives_No_Record) {
  write_file(path_, "[m1]\nID = 1\n");
  Tarn_Serv_Conf *rec = nullptr;
  int translations = 0;
  with_each_allocation_failing(
      [&] { return Tarn_Cluster_Service_Get(path_.c_str(), "m1", &rec); },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        // A section without room counts as one that is not there.
        EXPECT_THAT(status, AnyOf(-ENOMEM, -ENOANO));
        EXPECT_EQ(rec, nullptr);
        translations +=
            errors_in(log_) ==
            std::vector<Log_Line>{
                error_line("Tarn_Service_From_Sect_Node", "Can't allocate memory for slave list section! (-12)"),
                error_line("Tarn_Cluster_Service_Get", "Can't translate sect node to a Tarn service structure! (-12)")};
        log_.clear();
      });
  const Records owned(rec);
  EXPECT_EQ(translations, 1);
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->ID, 1);
}

// ----------------------------------------------------------------------------------------------------- writing a list

struct Writer {
  const char *name;
  int (*write)(const char *path, const Tarn_Serv_Conf *list);
};

void PrintTo(const Writer &writer, std::ostream *out) {
  *out << writer.name;
}

class Member_Files_Write : public Member_Files, public testing::WithParamInterface<Writer> {
 protected:
  int write(const Tarn_Serv_Conf &list) { return GetParam().write(path_.c_str(), &list); }
  Log_Line own_error(const std::string &what) const { return error_line(GetParam().name, what); }
};

INSTANTIATE_TEST_SUITE_P(Both, Member_Files_Write,
                         testing::Values(Writer{"Tarn_Cluster_Serv_Conf_Write", Tarn_Cluster_Serv_Conf_Write},
                                         Writer{"Tarn_Cluster_Serv_Conf_Write_NoLock",
                                                Tarn_Cluster_Serv_Conf_Write_NoLock}),
                         [](const auto &instance) { return std::string(instance.param.name); });

TEST_P(Member_Files_Write, A_New_File_Holds_The_List_To_The_Letter) {
  Tarn_Serv_Conf first = full_record("m1", all_bits), second = record("m2", {{"Status", "0"}});
  first.next = &second;
  EXPECT_EQ(write(first), 0);
  EXPECT_EQ(
      text(),
      "[m1]\n"
      "HostName = text 0\nAddress = text 1\nID = -1002\nPID = -1003\nUsrCnt = -1004\nType = -1005\nStatus = -1006\n"
      "WebPort = -1007\nSslWebPort = -1008\nBackupResult = -1009\nRestoreResult = -1010\nBackupProgress = -1011\n"
      "RestoreProgress = -1012\nRestorePID = -1013\nLastBackup = 9000000000014\nLastRestore = 9000000000015\n"
      "Quota = 9000000000016\nLeaveTime = 9000000000017\nSID = text 18\nModel = text 19\nFirmware = text 20\n"
      "LastRestoreFile = text 21\n"
      "\n[m2]\nStatus = 0\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Write, Members_That_Are_Not_In_The_List_Are_Gone_And_The_Mode_Stays) {
  write_file(path_, std::string("# comment\n") + three_members);
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  EXPECT_EQ(write(record("m2", {{"ID", "2"}})), 0);
  EXPECT_EQ(text(), "[m2]\nID = 2\n\n");
  EXPECT_EQ(mode_of(path_), 0640u);
}

TEST_P(Member_Files_Write, What_Was_Written_Is_Read_Back) {
  Tarn_Serv_Conf first = full_record("m1", all_bits), second = full_record("12345678", all_bits);
  first.next = &second;
  ASSERT_EQ(write(first), 0);
  Tarn_Serv_Conf *list = nullptr;
  ASSERT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), 0);
  const Records owned(list);
  EXPECT_EQ(content(*list), content(first));
  ASSERT_NE(list->next, nullptr);
  EXPECT_EQ(content(*list->next), content(second));
  EXPECT_EQ(list->next->next, nullptr);
}

TEST_P(Member_Files_Write, Refuses_Missing_Arguments_And_Leaves_The_File) {
  write_file(path_, three_members);
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(GetParam().write(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(GetParam().write(nullptr, &rec), -EINVAL);
  EXPECT_EQ(text(), three_members);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Write, Refuses_What_Would_Break_The_File_And_Leaves_It) {
  write_file(path_, three_members);
  const Tarn_Serv_Conf bad[] = {record("", {{"ID", "1"}}), record("a]b", {{"ID", "1"}}), record("a\nb", {{"ID", "1"}}),
                                record("m2", {{"Address", "1\n[m9]"}}), record("m2", {{"Firmware", "\n"}})};
  for (const Tarn_Serv_Conf &rec : bad) {
    Tarn_Serv_Conf first = record("m1", {{"ID", "1"}}), second = rec;
    first.next = &second;
    log_.clear();
    EXPECT_EQ(write(first), -EINVAL);
    EXPECT_THAT(errors_in(log_),
                ElementsAre(error_line("Tarn_Cluster_All_Serv_To_Sect_Node",
                                       "Can't allocate a section node for a Tarn cluster slave conf!"),
                            own_error("Can't translate a Tarn cluster slave conf to the setc node! (-22)")));
    EXPECT_EQ(text(), three_members);
  }
}

TEST_P(Member_Files_Write, A_Folder_That_Is_Missing_Is_Said) {
  const std::string path = folder_ / std::string("missing/") + file_name;
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(GetParam().write(path.c_str(), &rec), -ENOENT);
  const auto errors = errors_in(log_);
  ASSERT_THAT(errors, Not(IsEmpty()));
  EXPECT_EQ(errors.back(), own_error("Can't update the conf file \"" + path + "\" error! (-2)"));
}

TEST_P(Member_Files_Write, A_Full_Disk_Leaves_The_Old_File) {
  Small_Disk disk;
  const std::string path = disk / file_name;
  write_file(path, three_members);
  disk.fill();
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(GetParam().write(path.c_str(), &rec), -ENOSPC);
  EXPECT_EQ(read_file(path), three_members);
  EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", file_name));
  EXPECT_EQ(errors_in(log_).back(), own_error("Can't update the conf file \"" + path + "\" error! (-28)"));
}

TEST_P(Member_Files_Write, When_Memory_Ends_The_File_Is_The_Old_One_Or_The_New_One) {
  write_file(path_, three_members);
  Tarn_Serv_Conf first = record("m1", {{"ID", "1"}}), second = record("m2", {{"Model", "M"}});
  first.next = &second;
  int refused = 0;
  with_each_allocation_failing([&] { return write(first); },
                               [&](int status, int nth) {
                                 SCOPED_TRACE(nth);
                                 refused += status != 0;
                                 if (status != 0) {
                                   EXPECT_EQ(status, -ENOMEM);
                                 }
                                 EXPECT_EQ(text(), status != 0 ? three_members : "[m1]\nID = 1\n\n[m2]\nModel = M\n\n");
                                 EXPECT_THAT(names_in(folder_.path()), ElementsAre(file_name));
                                 EXPECT_FALSE(exists(owned_lock(file_name)));
                                 write_file(path_, three_members);
                               });
  EXPECT_GE(refused, 4);  // two sections, two pairs
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n[m2]\nModel = M\n\n");
}

TEST_F(Member_Files, Write_Without_Lock_Leaves_The_Callers_Lock_Alone) {
  const Held_Lock lock(file_name);
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Write_NoLock(path_.c_str(), &rec), 0);
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n");
}

// --------------------------------------------------------------------------------------------------- setting a member

struct Setter {
  const char *name;
  int (*set)(const char *path, const char *name, const Tarn_Serv_Conf *rec);
};

void PrintTo(const Setter &setter, std::ostream *out) {
  *out << setter.name;
}

class Member_Files_Set : public Member_Files, public testing::WithParamInterface<Setter> {
 protected:
  int set_member(const std::string &name, const Tarn_Serv_Conf &rec) {
    return GetParam().set(path_.c_str(), name.c_str(), &rec);
  }
  int delete_member(const std::string &name) { return GetParam().set(path_.c_str(), name.c_str(), nullptr); }
  Log_Line own_error(const std::string &what) const { return error_line(GetParam().name, what); }

  // Runs a call with each allocation failing: the file is then as before, or as wanted when the failure did not matter.
  int refusals_when_memory_ends(const std::function<int()> &call, const std::optional<std::string> &before,
                                const std::string &wanted) {
    int refused = 0;
    const auto restore = [&] { before ? write_file(path_, *before) : static_cast<void>(unlink(path_.c_str())); };
    restore();
    with_each_allocation_failing(call, [&](int status, int nth) {
      SCOPED_TRACE(nth);
      refused += status != 0;
      if (status == 0) {
        EXPECT_EQ(text(), wanted);
      } else {
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_EQ(exists(path_), before.has_value());
        if (before) {
          EXPECT_EQ(text(), *before);
        }
      }
      EXPECT_FALSE(exists(owned_lock(file_name)));
      if (exists(path_)) {
        EXPECT_THAT(names_in(folder_.path()), ElementsAre(file_name));
      }
      restore();
    });
    EXPECT_EQ(text(), wanted);
    return refused;
  }
};

INSTANTIATE_TEST_SUITE_P(Both, Member_Files_Set,
                         testing::Values(Setter{"Tarn_Cluster_Service_Set", Tarn_Cluster_Service_Set},
                                         Setter{"Tarn_Cluster_Service_Set_NoLock", Tarn_Cluster_Service_Set_NoLock}),
                         [](const auto &instance) { return std::string(instance.param.name); });

TEST_P(Member_Files_Set, Refuses_A_Missing_Path_Or_Name) {
  write_file(path_, three_members);
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}}), nothing = empty_record("m1");
  EXPECT_EQ(GetParam().set(nullptr, "m1", &rec), -EINVAL);
  EXPECT_EQ(GetParam().set(path_.c_str(), nullptr, &rec), -EINVAL);
  EXPECT_EQ(GetParam().set(nullptr, "m1", nullptr), -EINVAL);
  EXPECT_EQ(GetParam().set(path_.c_str(), nullptr, nullptr), -EINVAL);
  EXPECT_EQ(GetParam().set(nullptr, "m1", &nothing), -EINVAL);  // before the look at the mask
  EXPECT_EQ(GetParam().set(path_.c_str(), nullptr, &nothing), -EINVAL);
  EXPECT_EQ(text(), three_members);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, A_Record_Without_Any_Known_Bit_Does_Nothing) {
  const Held_Lock lock(file_name);  // not even this matters
  for (const unsigned mask : {0u, 0x800000u, 0xFF800000u}) {
    SCOPED_TRACE(mask);
    EXPECT_EQ(set_member("m1", full_record("m1", mask)), 0);
    EXPECT_FALSE(exists(path_));
    write_file(path_, "no [ configuration");
    const ino_t inode = inode_of(path_);
    EXPECT_EQ(set_member("m1", full_record("m1", mask)), 0);
    EXPECT_EQ(inode_of(path_), inode);
    unlink(path_.c_str());
  }
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, A_New_Member_In_A_Missing_File_Makes_The_File) {
  EXPECT_EQ(set_member("m1", record("m1", {{"Status", "1"}, {"Address", "10.0.0.1"}})), 0);
  EXPECT_EQ(text(), "[m1]\nAddress = 10.0.0.1\nStatus = 1\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, A_New_Member_In_An_Empty_File_Is_Its_Only_One) {
  write_file(path_, "# nobody yet\n");
  EXPECT_EQ(set_member("m1", record("m1", {{"ID", "1"}})), 0);
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n");
}

TEST_P(Member_Files_Set, A_New_Member_Comes_Last_With_Its_Keys_In_The_Order_Of_Creation) {
  write_file(path_, three_members);
  EXPECT_EQ(set_member("m4", record("m4", {{"Type", "1"}, {"ID", "4"}, {"Address", "a"}, {"HostName", "h"}})), 0);
  EXPECT_EQ(text(), std::string(three_members) + "[m4]\nHostName = h\nAddress = a\nID = 4\nType = 1\n\n");
}

// Callers set both alike; when they do not, the record's name is written.
TEST_P(Member_Files_Set, A_New_Member_Is_Named_By_The_Record) {
  write_file(path_, "[m1]\nID = 1\n\n");
  EXPECT_EQ(set_member("m2", record("m1", {{"ID", "2"}})), 0);
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n[m1]\nID = 2\n\n");
}

TEST_P(Member_Files_Set, A_New_Member_Of_A_Name_Without_Terminator_Has_The_Name_Of_9_Characters) {
  Tarn_Serv_Conf rec = record("", {{"SID", "S"}});
  memcpy(rec.Name, "ninechars", 9);
  EXPECT_EQ(set_member("ninechars", rec), 0);
  EXPECT_EQ(text(), "[ninechars]\nSID = S\n\n");
}

// Callers should give it a key: such a file cannot be read as a list.
TEST_P(Member_Files_Set, A_New_Member_With_The_Bit_Of_The_Name_Only_Is_A_Section_Without_Keys) {
  EXPECT_EQ(set_member("m1", full_record("m1", name_bit)), 0);
  EXPECT_EQ(text(), "[m1]\n\n");
  Tarn_Serv_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_Serv_Conf_Read(path_.c_str(), &list), -EINVAL);
}

TEST_P(Member_Files_Set, A_Member_With_Only_Its_Address_Set_Has_Only_That_Line_Changed) {
  write_file(path_, three_members);
  EXPECT_EQ(set_member("m1", full_record("x", 0x80)), 0);
  EXPECT_EQ(text(), "[m1]\nStatus = 1\nAddress = text 1\n\n[m2]\nStatus = 2\nCustom = kept\n\n[m3]\nStatus = 3\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, A_Member_Keeps_Its_Place_Its_Other_Keys_And_The_Files_Mode) {
  write_file(path_, three_members);
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  EXPECT_EQ(set_member("m2", record("m2", {{"Status", "-5"}, {"SID", "S"}, {"Type", "7"}})), 0);
  EXPECT_EQ(text(),
            "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m2]\nStatus = -5\nCustom = kept\nType = 7\nSID = S\n\n"
            "[m3]\nStatus = 3\n\n");
  EXPECT_EQ(mode_of(path_), 0600u);
}

TEST_P(Member_Files_Set, An_Unchanged_Member_Is_Written_All_The_Same) {
  write_file(path_, "# comment\n[m1]\n  Status=1\n");
  EXPECT_EQ(set_member("m1", record("m1", {{"Status", "1"}})), 0);
  EXPECT_EQ(text(), "[m1]\nStatus = 1\n\n");
}

TEST_P(Member_Files_Set, The_First_Member_Of_A_Name_Is_Set) {
  write_file(path_, "[m1]\nID = 1\n\n[m1]\nID = 2\n\n");
  EXPECT_EQ(set_member("m1", record("m1", {{"ID", "9"}})), 0);
  EXPECT_EQ(text(), "[m1]\nID = 9\n\n[m1]\nID = 2\n\n");
}

TEST_P(Member_Files_Set, Names_Are_Compared_Byte_For_Byte) {
  write_file(path_, "[m1]\nID = 1\n\n");
  for (const char *name : {"M1", "m", "m11", " m1"}) EXPECT_EQ(delete_member(name), -ENOANO);
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n");
}

TEST_P(Member_Files_Set, The_Bit_Of_The_Name_Renames_A_Member) {
  write_file(path_, "[m]\nID = 1\n\n[n]\nID = 2\n\n");
  Tarn_Serv_Conf rec = record("longname", {{"ID", "3"}});
  rec.fields |= name_bit;
  EXPECT_EQ(set_member("m", rec), 0);
  EXPECT_EQ(text(), "[longname]\nID = 3\n\n[n]\nID = 2\n\n");
}

// Lookups take the first of the two afterwards.
TEST_P(Member_Files_Set, A_Rename_To_The_Name_Of_Another_Member_Is_Kept) {
  write_file(path_, "[m1]\nID = 1\n\n[m2]\nID = 2\n\n");
  EXPECT_EQ(set_member("m2", full_record("m1", name_bit)), 0);
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n[m1]\nID = 2\n\n");
}

TEST_P(Member_Files_Set, Without_The_Bit_Of_The_Name_A_Member_Keeps_Its_Name) {
  write_file(path_, "[m1]\nID = 1\n\n");
  EXPECT_EQ(set_member("m1", record("other", {{"ID", "2"}})), 0);
  EXPECT_EQ(text(), "[m1]\nID = 2\n\n");
}

TEST_P(Member_Files_Set, No_Record_Deletes_The_Member_Wherever_It_Stands) {
  struct Case {
    const char *name, *left;
  };
  for (const Case &c : {Case{"m1", "[m2]\nStatus = 2\nCustom = kept\n\n[m3]\nStatus = 3\n\n"},
                        {"m2", "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m3]\nStatus = 3\n\n"},
                        {"m3", "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nCustom = kept\n\n"}}) {
    SCOPED_TRACE(c.name);
    write_file(path_, three_members);
    EXPECT_EQ(delete_member(c.name), 0);
    EXPECT_EQ(text(), c.left);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, Deleting_The_Only_Member_Leaves_An_Empty_File) {
  write_file(path_, "[m1]\nID = 1\n\n");
  EXPECT_EQ(delete_member("m1"), 0);
  EXPECT_EQ(text(), "");
}

TEST_P(Member_Files_Set, Deleting_Takes_The_First_Member_Of_A_Name) {
  write_file(path_, "[m1]\nID = 1\n\n[m2]\nID = 2\n\n[m1]\nID = 3\n\n");
  EXPECT_EQ(delete_member("m1"), 0);
  EXPECT_EQ(text(), "[m2]\nID = 2\n\n[m1]\nID = 3\n\n");
}

TEST_P(Member_Files_Set, Deleting_A_Member_That_Is_Absent_Is_Told_By_The_Result_Only) {
  write_file(path_, std::string("# comment\n") + three_members);
  const ino_t inode = inode_of(path_);
  EXPECT_EQ(delete_member("m9"), -ENOANO);
  EXPECT_EQ(inode_of(path_), inode);
  EXPECT_EQ(text(), std::string("# comment\n") + three_members);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, Deleting_From_A_Missing_File_Is_Told_As_An_Absent_Member) {
  EXPECT_EQ(delete_member("m1"), -ENOANO);
  EXPECT_FALSE(exists(path_));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Member_Files_Set, A_File_That_Cannot_Be_Read_Is_Said) {
  mkdir(path_.c_str(), 0755);
  EXPECT_EQ(set_member("m1", record("m1", {{"ID", "1"}})), -ENOMEDIUM);
  EXPECT_THAT(errors_in(log_), ElementsAre(own_error("Can't read the Tarn service file " + path_ + " error!")));
  log_.clear();
  EXPECT_EQ(delete_member("m1"), -ENOMEDIUM);
  EXPECT_THAT(errors_in(log_), ElementsAre(own_error("Can't read the Tarn service file " + path_ + " error!")));
  rmdir(path_.c_str());
}

TEST_P(Member_Files_Set, A_Path_Below_A_Plain_File_Is_Said) {
  write_file(folder_ / "plain", "x");
  const std::string path = folder_ / std::string("plain/") + file_name;
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(GetParam().set(path.c_str(), "m1", &rec), -ENOTDIR);
  EXPECT_THAT(errors_in(log_), ElementsAre(own_error("Can't read the Tarn service file " + path + " error!")));
}

TEST_P(Member_Files_Set, A_Folder_That_Is_Missing_Is_Said) {
  const std::string path = folder_ / std::string("missing/") + file_name;
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(GetParam().set(path.c_str(), "m1", &rec), -ENOENT);
  const auto errors = errors_in(log_);
  ASSERT_THAT(errors, Not(IsEmpty()));
  EXPECT_EQ(errors.back(), own_error("Can't update the conf file \"" + path + "\" error! (-2)"));
}

TEST_P(Member_Files_Set, An_Update_That_Would_Break_The_File_Is_Said_And_Leaves_It) {
  write_file(path_, three_members);
  std::vector<Tarn_Serv_Conf> bad = {empty_record(""), empty_record("a]b"), empty_record("a\nb")};
  for (Tarn_Serv_Conf &rec : bad) rec.fields = name_bit;
  for (const Field &field : all_fields) {
    if (field.kind == Kind::text) bad.push_back(record("m2", {{field.key, "a\nb = 1"}}));
  }
  for (const Tarn_Serv_Conf &rec : bad) {
    SCOPED_TRACE(rec.fields);
    log_.clear();
    EXPECT_EQ(set_member("m2", rec), -EINVAL);
    EXPECT_THAT(errors_in(log_), ElementsAre(own_error("Can't update the sect node for service m2 error! (-22)")));
    EXPECT_EQ(text(), three_members);
  }
}

TEST_P(Member_Files_Set, A_New_Member_That_Would_Break_The_File_Is_Said_And_Leaves_It) {
  write_file(path_, three_members);
  std::vector<Tarn_Serv_Conf> bad = {record("", {{"ID", "1"}}), record("a]b", {{"ID", "1"}}),
                                     record("a\nb", {{"ID", "1"}})};
  for (const Field &field : all_fields) {
    if (field.kind == Kind::text) bad.push_back(record("new", {{field.key, "a\nb = 1"}}));
  }
  for (const Tarn_Serv_Conf &rec : bad) {
    SCOPED_TRACE(rec.fields);
    log_.clear();
    EXPECT_EQ(set_member("new", rec), -EINVAL);
    EXPECT_THAT(errors_in(log_), ElementsAre(own_error("Can't create a sect node for service new! (-22)")));
    EXPECT_EQ(text(), three_members);
  }
}

TEST_P(Member_Files_Set, A_Full_Disk_Leaves_The_Old_File) {
  Small_Disk disk;
  const std::string path = disk / file_name;
  write_file(path, three_members);
  disk.fill();
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  for (const Tarn_Serv_Conf *given : {&rec, static_cast<const Tarn_Serv_Conf *>(nullptr)}) {
    EXPECT_EQ(GetParam().set(path.c_str(), "m1", given), -ENOSPC);
    EXPECT_EQ(read_file(path), three_members);
    EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", file_name));
    EXPECT_EQ(errors_in(log_).back(), own_error("Can't update the conf file \"" + path + "\" error! (-28)"));
  }
}

TEST_P(Member_Files_Set, When_Memory_Ends_An_Update_Leaves_The_File_And_Loses_No_Member) {
  const Tarn_Serv_Conf rec = record("m1", {{"Address", "10.20.30.40.50"}, {"SID", "S"}});
  const int refused = refusals_when_memory_ends(
      [&] { return GetParam().set(path_.c_str(), "m1", &rec); }, three_members,
      "[m1]\nStatus = 1\nAddress = 10.20.30.40.50\nSID = S\n\n[m2]\nStatus = 2\nCustom = kept\n\n[m3]\nStatus = 3\n\n");
  EXPECT_GE(refused, 11);  // the text, four sections, four pairs, two new pairs
  EXPECT_THAT(log_.lines(), Contains(own_error("Can't update the sect node for service m1 error! (-12)")).Times(2));
  EXPECT_THAT(log_.lines(),
              Contains(own_error("Can't read the Tarn service file " + path_ + " error!")).Times(testing::Ge(6)));
}

TEST_P(Member_Files_Set, When_Memory_Ends_A_New_Member_Leaves_The_File_And_Loses_No_Member) {
  const Tarn_Serv_Conf rec = record("m4", {{"Address", "a"}, {"ID", "4"}});
  const int refused =
      refusals_when_memory_ends([&] { return GetParam().set(path_.c_str(), "m4", &rec); }, three_members,
                                std::string(three_members) + "[m4]\nAddress = a\nID = 4\n\n");
  EXPECT_GE(refused, 12);
  EXPECT_THAT(log_.lines(), Contains(own_error("Can't create a sect node for service m4! (-12)")).Times(3));
}

TEST_P(Member_Files_Set, When_Memory_Ends_A_New_File_Is_Not_Made) {
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_GE(
      refusals_when_memory_ends([&] { return GetParam().set(path_.c_str(), "m1", &rec); }, {}, "[m1]\nID = 1\n\n"), 2);
}

TEST_P(Member_Files_Set, When_Memory_Ends_A_Deletion_Leaves_The_File_And_Loses_No_Other_Member) {
  const int refused =
      refusals_when_memory_ends([&] { return GetParam().set(path_.c_str(), "m1", nullptr); }, three_members,
                                "[m2]\nStatus = 2\nCustom = kept\n\n[m3]\nStatus = 3\n\n");
  EXPECT_GE(refused, 9);
}

TEST_F(Member_Files, Set_Without_Lock_Leaves_The_Callers_Lock_Alone) {
  const Held_Lock lock(file_name);
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  EXPECT_EQ(Tarn_Cluster_Service_Set_NoLock(path_.c_str(), "m1", &rec), 0);
  EXPECT_EQ(text(), "[m1]\nID = 1\n\n");
  EXPECT_EQ(Tarn_Cluster_Service_Set_NoLock(path_.c_str(), "m1", nullptr), 0);
  EXPECT_EQ(Tarn_Cluster_Service_Set_NoLock(path_.c_str(), "m1", nullptr), -ENOANO);
  EXPECT_TRUE(lock.is_untouched());
}

TEST_F(Member_Files, Error_Lines_Are_Written_At_Level_1_And_Debug_Lines_Are_Not) {
  g_idLogLevel = 1;
  Tarn_Serv_Conf *rec = nullptr;
  EXPECT_EQ(Tarn_Cluster_Service_Get(path_.c_str(), "m1", &rec), -ENOENT);
  EXPECT_THAT(log_.lines(), IsEmpty());
  Tarn_Serv_Conf nameless = record("", {{"ID", "1"}});
  EXPECT_EQ(Tarn_Cluster_Service_Set(path_.c_str(), "m1", &nameless), -EINVAL);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Tarn_Cluster_Service_Set", "Can't create a sect node for service m1! (-22)")));
  log_.clear();
  g_idLogLevel = 0;
  EXPECT_EQ(Tarn_Cluster_Service_Set(path_.c_str(), "m1", &nameless), -EINVAL);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Member_Files, Without_A_Log_Nothing_Is_Written_Anywhere) {
  Simp_Log *const log = g_ptslLog;
  g_ptslLog = nullptr;
  const Tarn_Serv_Conf nameless = record("", {{"ID", "1"}});
  testing::internal::CaptureStdout();
  EXPECT_EQ(Tarn_Cluster_Service_Set(path_.c_str(), "m1", &nameless), -EINVAL);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  g_ptslLog = log;
}

}  // namespace
}  // namespace tarn::test
