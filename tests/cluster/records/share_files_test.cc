#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/record_files.h"
#include "tests/cluster/records/share_samples.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/held_lock.h"
#include "tests/support/small_disk.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char file_name[] = "slave1";

const char three_shares[] =
    "[s1]\nread list = r1\npath = /share/s1\n\n[s2]\ninvalid users = i2\nCustom = kept\n\n[s3]\npath = /share/s3\n\n";

Share_Content content(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values) {
  return content_of(*share(name, values));
}

class Share_Files : public Record_Files {
 protected:
  Share_Files() : Record_Files(file_name) {}

  int read(Shares *out) const {
    Tarn_Share_Conf *list = nullptr;
    const int status = Tarn_Cluster_Share_Conf_Read(path_.c_str(), &list);
    out->reset(list);
    return status;
  }
  int get(const std::string &name, Shares *out) const {
    Tarn_Share_Conf *rec = nullptr;
    const int status = Tarn_Cluster_Share_Get(path_.c_str(), name.c_str(), &rec);
    out->reset(rec);
    return status;
  }
  int write(const Shares &list) const { return Tarn_Cluster_Share_Conf_Write(path_.c_str(), list.get()); }
  int set(const std::string &name, const Shares &rec) const {
    return Tarn_Cluster_Share_Set(path_.c_str(), name.c_str(), rec.get());
  }
  int remove(const std::string &name) const { return set(name, nullptr); }
};

// --------------------------------------------------------------------------------------------------------------- read

TEST_F(Share_Files, Read_Makes_A_List_Of_The_Whole_File) {
  write_file(path_, three_shares);
  Shares list;
  ASSERT_EQ(read(&list), 0);
  EXPECT_THAT(contents_of(list.get()),
              ElementsAre(content("s1", {{"read list", "r1"}, {"path", "/share/s1"}}),
                          content("s2", {{"invalid users", "i2"}}), content("s3", {{"path", "/share/s3"}})));
  EXPECT_EQ(text(), three_shares);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Read_Of_A_Missing_File_Is_Told_By_The_Result_Only) {
  Shares list;
  EXPECT_EQ(read(&list), -ENOENT);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Read_Returns_Other_Failures_As_They_Are) {
  mkdir(path_.c_str(), 0755);
  Shares list;
  EXPECT_EQ(read(&list), -ENOMEDIUM);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(errors_in(log_), IsEmpty());
  rmdir(path_.c_str());
}

TEST_F(Share_Files, Read_Of_A_File_Without_Sections_Leaves_The_Output_Alone) {
  for (const char *empty : {"", "\n\n", "# shares\n; none\n"}) {
    SCOPED_TRACE(empty);
    write_file(path_, empty);
    Tarn_Share_Conf other;
    Tarn_Share_Conf *list = &other;
    EXPECT_EQ(Tarn_Cluster_Share_Conf_Read(path_.c_str(), &list), 0);
    EXPECT_EQ(list, &other);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Read_Of_A_File_Whose_First_Section_Has_No_Keys_Is_Said_And_Refused) {
  write_file(path_, "[s1]\n\n[s2]\npath = p\n");
  Shares list;
  EXPECT_EQ(read(&list), -EINVAL);
  EXPECT_EQ(list, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Share_Conf_Read",
                                                   "Translate share list to section Node error! (-22)")));
}

TEST_F(Share_Files, Read_When_Memory_Ends_Says_So_And_Loses_No_Key_Silently) {
  write_file(path_, three_shares);
  Tarn_Share_Conf *list = nullptr;
  int translations = 0;
  with_each_allocation_failing(
      [&] {
        list = nullptr;
        return Tarn_Cluster_Share_Conf_Read(path_.c_str(), &list);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        const Shares owned(list);
        EXPECT_THAT(status, AnyOf(0, -ENOMEM));  // 0: for a section's name no memory was left, which ends the parser
        translations +=
            errors_in(log_) == std::vector<Log_Line>{error_line("Tarn_Cluster_All_Share_From_Sect_Node",
                                                                "Can't allocate memory for slave list section! (-12)"),
                                                     error_line("Tarn_Cluster_Share_Conf_Read",
                                                                "Translate share list to section Node error! (-12)")};
        EXPECT_FALSE(exists(owned_lock(file_name)));
        log_.clear();
      });
  const Shares owned(list);
  EXPECT_THAT(names_of(list), ElementsAre("s1", "s2", "s3"));
  EXPECT_EQ(translations, 5);  // three records, two texts
}

// ---------------------------------------------------------------------------------------------------------------- get

TEST_F(Share_Files, Get_Reads_One_Share) {
  write_file(path_, three_shares);
  Shares rec;
  ASSERT_EQ(get("s2", &rec), 0);
  EXPECT_EQ(content_of(*rec), content("s2", {{"invalid users", "i2"}}));
  EXPECT_EQ(rec->next, nullptr);
  EXPECT_EQ(text(), three_shares);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Get_Takes_The_First_Share_Of_A_Name) {
  write_file(path_, "[s1]\npath = 1\n[s1]\npath = 2\n");
  Shares rec;
  ASSERT_EQ(get("s1", &rec), 0);
  EXPECT_STREQ(rec->path, "1");
}

TEST_F(Share_Files, Get_Of_A_Share_Without_Keys_Is_A_Record_With_An_Empty_Mask) {
  write_file(path_, "[s1]\n\n[s2]\npath = p\n");
  Shares rec;
  ASSERT_EQ(get("s1", &rec), 0);
  EXPECT_EQ(content_of(*rec), content("s1", {}));
}

TEST_F(Share_Files, Get_Finds_A_Share_By_A_Name_That_Its_Record_Holds_Cut) {
  const std::string long_name(100, 'n');
  write_file(path_, "[" + long_name + "]\npath = p\n");
  Shares rec;
  ASSERT_EQ(get(long_name, &rec), 0);
  EXPECT_EQ(content_of(*rec), content(long_name.substr(0, 64), {{"path", "p"}}));
  EXPECT_EQ(get(long_name.substr(0, 64), &rec), -ENOANO);
}

TEST_F(Share_Files, Get_Compares_Names_Byte_For_Byte_And_Tells_A_Missing_Share) {
  write_file(path_, "[s1]\npath = p\n");
  for (const std::string name : {"s2", "S1", "s", "s11", " s1", ""}) {
    SCOPED_TRACE(name);
    log_.clear();
    Tarn_Share_Conf other;
    Tarn_Share_Conf *rec = &other;
    EXPECT_EQ(Tarn_Cluster_Share_Get(path_.c_str(), name.c_str(), &rec), -ENOANO);
    EXPECT_EQ(rec, nullptr);
    EXPECT_THAT(log_.lines(),
                ElementsAre(debug_line("Tarn_Cluster_Share_Get",
                                       "Can't get conf file section error! (-55, " + path_ + ", " + name + ")")));
  }
}

TEST_F(Share_Files, Get_From_A_Missing_File_Is_Told) {
  Tarn_Share_Conf other;
  Tarn_Share_Conf *rec = &other;
  EXPECT_EQ(Tarn_Cluster_Share_Get(path_.c_str(), "s1", &rec), -ENOENT);
  EXPECT_EQ(rec, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Tarn_Cluster_Share_Get",
                                                   "Can't get conf file section error! (-2, " + path_ + ", s1)")));
}

TEST_F(Share_Files, Get_When_Memory_Ends_Says_So_And_Gives_No_Record) {
  write_file(path_, "[s1]\nread list = r\nwrite list = w\ninvalid users = i\n");
  Tarn_Share_Conf *rec = nullptr;
  int translations = 0;
  with_each_allocation_failing(
      [&] { return Tarn_Cluster_Share_Get(path_.c_str(), "s1", &rec); },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        // A section without room counts as one that is not there.
        EXPECT_THAT(status, AnyOf(-ENOMEM, -ENOANO));
        EXPECT_EQ(rec, nullptr);
        translations += errors_in(log_) ==
                        std::vector<Log_Line>{error_line("Tarn_Share_From_Sect_Node",
                                                         "Can't allocate memory for share list section! (-12)"),
                                              error_line("Tarn_Cluster_Share_Get",
                                                         "Can't translate sect node to a Tarn share list structure! "
                                                         "(-12)")};
        EXPECT_FALSE(exists(owned_lock(file_name)));
        log_.clear();
      });
  const Shares owned(rec);
  EXPECT_EQ(translations, 4);  // the record and its texts
  ASSERT_NE(rec, nullptr);
  EXPECT_STREQ(rec->invalid_users, "i");
}

// -------------------------------------------------------------------------------------------------------------- write

TEST_F(Share_Files, Write_Makes_A_File_Of_The_List_To_The_Letter) {
  EXPECT_EQ(write(joined(full_share("s1", all_share_bits), share("s2", {{"write list", ""}}))), 0);
  EXPECT_EQ(text(),
            "[s1]\nread list = sample of read list\nwrite list = sample of write list\n"
            "invalid users = sample of invalid users\npath = sample of path\n\n[s2]\nwrite list = \n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Write_Drops_Shares_That_Are_Not_In_The_List_And_Keeps_The_Mode) {
  write_file(path_, std::string("# comment\n") + three_shares);
  ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
  EXPECT_EQ(write(share("s2", {{"path", "p"}})), 0);
  EXPECT_EQ(text(), "[s2]\npath = p\n\n");
  EXPECT_EQ(mode_of(path_), 0640u);
}

TEST_F(Share_Files, Write_Names_A_Section_Whatever_The_Bit_Of_The_Name_Says) {
  EXPECT_EQ(write(full_share("s1", 0)), 0);
  EXPECT_EQ(text(), "[s1]\n\n");
}

TEST_F(Share_Files, What_Was_Written_Is_Read_Back) {
  const std::string longest(4095, 'x');
  const Shares list = joined(
      full_share("s1", 0x1E),
      joined(share(std::string(64, 'n'),
                   {{"read list", longest}, {"write list", longest}, {"invalid users", longest}, {"path", longest}}),
             share("a = [b # ;", {{"path", "= x"}})));
  ASSERT_EQ(write(list), 0);
  Shares again;
  ASSERT_EQ(read(&again), 0);
  EXPECT_EQ(contents_of(again.get()), contents_of(list.get()));
  const std::string first = text();
  ASSERT_EQ(write(again), 0);
  EXPECT_EQ(text(), first);
}

TEST_F(Share_Files, Ten_Thousand_Shares_Are_Written_And_Read_Back) {
  Tarn_Share_Conf *first = nullptr;
  for (int i = 10'000; i > 0; --i) {
    Tarn_Share_Conf *rec = share("s" + std::to_string(i), {{"path", "/share/" + std::to_string(i)}}).release();
    rec->next = first;
    first = rec;
  }
  const Shares list(first);
  ASSERT_EQ(write(list), 0);
  Shares again;
  ASSERT_EQ(read(&again), 0);
  EXPECT_TRUE(contents_of(again.get()) == contents_of(list.get()));
}

// Reading cannot hold them, so writing what was read loses them; changing one share does not.
TEST_F(Share_Files, A_List_Of_4096_Characters_Is_Lost_By_Reading_And_Writing_All_But_Not_By_Changing_One_Share) {
  const std::string too_long(4096, 'x');
  const std::string before =
      "[s1]\ninvalid users = " + too_long + "\npath = p\n\n[s2]\nread list = " + too_long + "\n\n";
  write_file(path_, before);
  EXPECT_EQ(set("s1", share("s1", {{"path", "q"}})), 0);
  EXPECT_EQ(text(), "[s1]\ninvalid users = " + too_long + "\npath = q\n\n[s2]\nread list = " + too_long + "\n\n");

  Shares list;
  ASSERT_EQ(read(&list), 0);
  EXPECT_THAT(contents_of(list.get()), ElementsAre(content("s1", {{"path", "q"}}), content("s2", {})));
  ASSERT_EQ(write(list), 0);
  EXPECT_EQ(text(), "[s1]\npath = q\n\n[s2]\n\n");
}

TEST_F(Share_Files, Write_Refuses_A_Name_That_Would_Break_The_File_And_Leaves_It) {
  write_file(path_, three_shares);
  for (const std::string name : {"", "a]b", "a\nb"}) {
    SCOPED_TRACE(name);
    log_.clear();
    EXPECT_EQ(write(joined(share("s1", {{"path", "p"}}), share(name, {{"path", "p"}}))), -EINVAL);
    EXPECT_THAT(log_.lines(),
                ElementsAre(error_line("Tarn_Cluster_All_Share_To_Sect_Node",
                                       "Can't allocate a section node for a Tarn cluster slave conf!"),
                            error_line("Tarn_Cluster_Share_Conf_Write",
                                       "Can't translate a Tarn cluster slave conf to the setc node! (-22)")));
    EXPECT_EQ(text(), three_shares);
  }
}

TEST_F(Share_Files, Write_Refuses_A_Text_That_Would_Break_The_File_Or_Is_Missing_And_Leaves_It) {
  write_file(path_, three_shares);
  for (const Share_Field &field : share_fields) {
    SCOPED_TRACE(field.key);
    std::vector<Shares> bad;
    bad.push_back(share("s2", {{field.key, "p\n[s9]"}}));
    if (field.list != nullptr) {
      bad.push_back(share("s2", {}));
      bad.back()->fields = field.bit;
    }
    for (Shares &rec : bad) {
      log_.clear();
      EXPECT_EQ(write(joined(share("s1", {{"path", "p"}}), std::move(rec))), -EINVAL);
      EXPECT_THAT(log_.lines(),
                  ElementsAre(error_line("Tarn_Cluster_Share_Conf_Write",
                                         "Can't translate a Tarn cluster slave conf to the setc node! (-22)")));
      EXPECT_EQ(text(), three_shares);
    }
  }
}

TEST_F(Share_Files, Write_And_Set_Into_A_Folder_That_Is_Missing_Are_Said) {
  const std::string path = folder_ / std::string("missing/") + file_name;
  const Shares rec = share("s1", {{"path", "p"}});
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Write(path.c_str(), rec.get()), -ENOENT);
  EXPECT_EQ(errors_in(log_).back(),
            error_line("Tarn_Cluster_Share_Conf_Write", "Can't update the conf file \"" + path + "\" error! (-2)"));
  EXPECT_EQ(Tarn_Cluster_Share_Set(path.c_str(), "s1", rec.get()), -ENOENT);
  EXPECT_EQ(errors_in(log_).back(),
            error_line("Tarn_Cluster_Share_Set", "Can't update the conf file \"" + path + "\" error! (-2)"));
}

TEST_F(Share_Files, A_Full_Disk_Leaves_The_Old_File) {
  Small_Disk disk;
  const std::string path = disk / file_name;
  write_file(path, three_shares);
  disk.fill();
  const Shares rec = share("s1", {{"path", "p"}});
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Write(path.c_str(), rec.get()), -ENOSPC);
  EXPECT_EQ(Tarn_Cluster_Share_Set(path.c_str(), "s1", rec.get()), -ENOSPC);
  EXPECT_EQ(Tarn_Cluster_Share_Set(path.c_str(), "s1", nullptr), -ENOSPC);
  EXPECT_EQ(read_file(path), three_shares);
  EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", file_name));
}

TEST_F(Share_Files, Write_When_Memory_Ends_Leaves_The_Old_File_Or_The_New_One) {
  const Shares list = joined(share("s1", {{"read list", "r"}}), share("s2", {{"path", "p"}}));
  expect_whole_or_nothing_without_memory(
      path_, {three_shares, "[s1]\nread list = r\n\n[s2]\npath = p\n\n", [&] { return write(list); }}, 4);
}

// ---------------------------------------------------------------------------------------------------------------- set

TEST_F(Share_Files, Set_Adds_A_Share_To_A_Missing_File) {
  EXPECT_EQ(set("s1", share("s1", {{"path", "p"}, {"read list", "r"}})), 0);
  EXPECT_EQ(text(), "[s1]\nread list = r\npath = p\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_Adds_A_Share_Behind_The_Others) {
  write_file(path_, three_shares);
  EXPECT_EQ(set("s4", full_share("s4", all_share_bits)), 0);
  EXPECT_EQ(text(), std::string(three_shares) +
                        "[s4]\nread list = sample of read list\nwrite list = sample of write list\n"
                        "invalid users = sample of invalid users\npath = sample of path\n\n");
}

// Callers set both alike; when they do not, the record's name is written.
TEST_F(Share_Files, Set_Names_A_New_Share_By_The_Record) {
  write_file(path_, "[s1]\npath = 1\n\n");
  EXPECT_EQ(set("s2", share("s1", {{"path", "2"}})), 0);
  EXPECT_EQ(text(), "[s1]\npath = 1\n\n[s1]\npath = 2\n\n");
}

TEST_F(Share_Files, Set_Adds_A_Share_With_The_Bit_Of_The_Name_Only_Without_Keys) {
  EXPECT_EQ(set("s1", full_share("s1", share_name_bit)), 0);
  EXPECT_EQ(text(), "[s1]\n\n");
}

TEST_F(Share_Files, Set_Changes_Only_The_Keys_Whose_Bits_Are_Set) {
  write_file(path_, three_shares);
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  EXPECT_EQ(set("s2", share("other", {{"invalid users", "new"}, {"path", "p"}})), 0);
  EXPECT_EQ(text(),
            "[s1]\nread list = r1\npath = /share/s1\n\n[s2]\ninvalid users = new\nCustom = kept\npath = p\n\n"
            "[s3]\npath = /share/s3\n\n");
  EXPECT_EQ(mode_of(path_), 0600u);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_With_The_Bit_Of_The_Name_Renames_A_Share) {
  write_file(path_, three_shares);
  EXPECT_EQ(set("s3", full_share(std::string(64, 'n'), share_name_bit)), 0);
  EXPECT_EQ(text(), "[s1]\nread list = r1\npath = /share/s1\n\n[s2]\ninvalid users = i2\nCustom = kept\n\n[" +
                        std::string(64, 'n') + "]\npath = /share/s3\n\n");
}

TEST_F(Share_Files, Set_With_A_Bit_Whose_Text_Is_Null_Removes_The_Key_Of_A_Share) {
  write_file(path_, three_shares);
  const Shares rec = share("s1", {});
  rec->fields = 0x2;
  EXPECT_EQ(set("s1", rec), 0);
  EXPECT_EQ(text(), "[s1]\npath = /share/s1\n\n[s2]\ninvalid users = i2\nCustom = kept\n\n[s3]\npath = /share/s3\n\n");
}

TEST_F(Share_Files, Set_Changes_The_First_Share_Of_A_Name) {
  write_file(path_, "[s1]\npath = 1\n\n[s1]\npath = 2\n\n");
  EXPECT_EQ(set("s1", share("s1", {{"path", "9"}})), 0);
  EXPECT_EQ(text(), "[s1]\npath = 9\n\n[s1]\npath = 2\n\n");
}

TEST_F(Share_Files, Set_Without_A_Record_Removes_The_Share_Wherever_It_Stands) {
  struct Case {
    const char *name, *left;
  };
  for (const Case &c :
       {Case{"s1", "[s2]\ninvalid users = i2\nCustom = kept\n\n[s3]\npath = /share/s3\n\n"},
        {"s2", "[s1]\nread list = r1\npath = /share/s1\n\n[s3]\npath = /share/s3\n\n"},
        {"s3", "[s1]\nread list = r1\npath = /share/s1\n\n[s2]\ninvalid users = i2\nCustom = kept\n\n"}}) {
    SCOPED_TRACE(c.name);
    write_file(path_, three_shares);
    EXPECT_EQ(remove(c.name), 0);
    EXPECT_EQ(text(), c.left);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_Without_A_Record_Removes_The_Only_Share) {
  write_file(path_, "[s1]\npath = p\n\n");
  EXPECT_EQ(remove("s1"), 0);
  EXPECT_EQ(text(), "");
}

TEST_F(Share_Files, Set_Without_A_Record_Tells_An_Absent_Share_By_The_Result_Only) {
  EXPECT_EQ(remove("s1"), -ENOANO);
  EXPECT_FALSE(exists(path_));
  write_file(path_, std::string("# comment\n") + three_shares);
  const File_State before = state_of(path_);
  for (const char *name : {"s9", "S1", "s", "s11", ""}) EXPECT_EQ(remove(name), -ENOANO) << name;
  EXPECT_EQ(state_of(path_), before);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_With_A_Record_Without_Any_Known_Bit_Does_Nothing) {
  const Held_Lock lock(file_name);  // not even this matters
  for (const unsigned mask : {0u, 0x20u, 0xFFFFFFE0u}) {
    SCOPED_TRACE(mask);
    const Shares rec = full_share("s1", mask);
    EXPECT_EQ(set("s1", rec), 0);
    EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, rec.get()), 0);
    EXPECT_FALSE(exists(path_));
    write_file(path_, "no [ configuration");
    const File_State before = state_of(path_);
    EXPECT_EQ(set("s1", rec), 0);
    EXPECT_EQ(state_of(path_), before);
    unlink(path_.c_str());
  }
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_Sees_Every_Known_Bit) {
  for (const unsigned mask : {0x1u, 0x2u, 0x4u, 0x8u, 0x10u}) {
    EXPECT_EQ(set("s1", full_share("s1", mask)), 0);
    EXPECT_TRUE(exists(path_)) << mask;
    unlink(path_.c_str());
  }
}

TEST_F(Share_Files, Set_Without_A_Name_Finds_No_Share) {
  EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, nullptr), -ENOANO);
  EXPECT_FALSE(exists(path_));
  write_file(path_, "path = nameless\n[s1]\npath = p\n\n");
  const File_State before = state_of(path_);
  EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, nullptr), -ENOANO);
  EXPECT_EQ(state_of(path_), before);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_Without_A_Name_Adds_A_Share_By_The_Name_Of_The_Record) {
  EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, share("s1", {{"path", "1"}}).get()), 0);
  EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, share("s1", {{"path", "2"}}).get()), 0);
  EXPECT_EQ(text(), "[s1]\npath = 1\n\n[s1]\npath = 2\n\n");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Files, Set_Without_A_Name_Says_An_Empty_One) {
  EXPECT_EQ(Tarn_Cluster_Share_Set(path_.c_str(), nullptr, share("s1", {{"path", "a\nb"}}).get()), -EINVAL);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Tarn_Cluster_Share_Set", "Can't create a sect node for share folder ! (-22)")));
}

TEST_F(Share_Files, Set_Of_The_Empty_Name_Reaches_The_Keys_Before_The_First_Section) {
  write_file(path_, "path = p\n[s1]\npath = 1\n");
  EXPECT_EQ(set("", share("", {{"path", "q"}})), 0);
  EXPECT_EQ(text(), "path = q\n\n[s1]\npath = 1\n\n");
  EXPECT_EQ(remove(""), 0);
  EXPECT_EQ(text(), "[s1]\npath = 1\n\n");
}

TEST_F(Share_Files, Set_Of_A_File_That_Cannot_Be_Read_Is_Said) {
  mkdir(path_.c_str(), 0755);
  const std::vector<Log_Line> said = {
      error_line("Tarn_Cluster_Share_Set", "Can't read the Tarn service file " + path_ + " error!")};
  EXPECT_EQ(set("s1", share("s1", {{"path", "p"}})), -ENOMEDIUM);
  EXPECT_EQ(errors_in(log_), said);
  log_.clear();
  EXPECT_EQ(remove("s1"), -ENOMEDIUM);
  EXPECT_EQ(errors_in(log_), said);
  rmdir(path_.c_str());
}

TEST_F(Share_Files, Set_That_Would_Break_A_Share_Is_Said_And_Leaves_The_File) {
  write_file(path_, three_shares);
  std::vector<Shares> bad;
  for (const char *name : {"", "a]b", "a\nb"}) bad.push_back(full_share(name, share_name_bit));
  for (const Share_Field &field : share_fields) bad.push_back(share("s2", {{field.key, "a\nb = 1"}}));
  for (const Shares &rec : bad) {
    SCOPED_TRACE(rec->fields);
    log_.clear();
    EXPECT_EQ(set("s2", rec), -EINVAL);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Tarn_Cluster_Share_Set",
                                                     "Can't update the sect node for share folder s2 error! (-22)")));
    EXPECT_EQ(text(), three_shares);
  }
}

const std::vector<Log_Line> section_refused = {
    debug_line("Create_Tarn_Share_Sect_Node", "Can't crate a sect node error! (-22)"),
    error_line("Tarn_Cluster_Share_Set", "Can't create a sect node for share folder new! (-22)")};

TEST_F(Share_Files, Set_That_Cannot_Make_A_New_Section_Says_So_In_Two_Lines_And_Leaves_The_File) {
  write_file(path_, three_shares);
  for (const std::string name : {"", "a]b", "a\nb"}) {
    SCOPED_TRACE(name);
    log_.clear();
    EXPECT_EQ(set("new", full_share(name, all_share_bits)), -EINVAL);
    EXPECT_EQ(log_.lines(), section_refused);
    EXPECT_EQ(text(), three_shares);
  }
}

TEST_F(Share_Files, Set_That_Cannot_Make_A_New_Section_Says_So_In_One_Line_Below_The_Debug_Level) {
  struct Case {
    int level;
    size_t first, count;
  };
  for (const Case &c : {Case{0, 2, 0}, {1, 1, 1}, {2, 1, 1}, {3, 0, 2}, {4, 0, 2}}) {
    SCOPED_TRACE(c.level);
    log_.clear();
    g_idLogLevel = c.level;
    EXPECT_EQ(set("new", full_share("", all_share_bits)), -EINVAL);
    EXPECT_THAT(log_.lines(), testing::ElementsAreArray(&section_refused[0] + c.first, c.count));
  }
}

TEST_F(Share_Files, Set_That_Cannot_Add_A_Key_To_A_New_Section_Says_So_In_One_Line_And_Leaves_The_File) {
  write_file(path_, three_shares);
  for (const Share_Field &field : share_fields) {
    SCOPED_TRACE(field.key);
    std::vector<Shares> bad;
    bad.push_back(share("new", {{field.key, "a\nb = 1"}}));
    if (field.list != nullptr) {
      bad.push_back(share("new", {}));
      bad.back()->fields = field.bit;
    }
    for (const Shares &rec : bad) {
      log_.clear();
      EXPECT_EQ(set("new", rec), -EINVAL);
      EXPECT_THAT(log_.lines(), ElementsAre(section_refused[1]));
      EXPECT_EQ(text(), three_shares);
    }
  }
}

TEST_F(Share_Files, Set_When_Memory_Ends_Leaves_The_File_And_Loses_No_Share) {
  const Shares changed = share("s1", {{"read list", "longer than before"}, {"invalid users", "i"}});
  expect_whole_or_nothing_without_memory(
      path_,
      {three_shares,
       "[s1]\nread list = longer than before\npath = /share/s1\ninvalid users = i\n\n"
       "[s2]\ninvalid users = i2\nCustom = kept\n\n[s3]\npath = /share/s3\n\n",
       [&] { return set("s1", changed); }},
      12);
  EXPECT_THAT(log_.lines(), Contains(error_line("Tarn_Cluster_Share_Set",
                                                "Can't update the sect node for share folder s1 error! (-12)"))
                                .Times(2));

  log_.clear();
  const Shares added = share("s4", {{"read list", "r"}, {"path", "p"}});
  expect_whole_or_nothing_without_memory(
      path_,
      {three_shares, std::string(three_shares) + "[s4]\nread list = r\npath = p\n\n", [&] { return set("s4", added); }},
      13);
  EXPECT_THAT(
      log_.lines(),
      Contains(error_line("Tarn_Cluster_Share_Set", "Can't create a sect node for share folder s4! (-12)")).Times(3));
  EXPECT_THAT(log_.lines(),
              Contains(debug_line("Create_Tarn_Share_Sect_Node", "Can't crate a sect node error! (-12)")).Times(1));

  expect_whole_or_nothing_without_memory(
      path_,
      {three_shares, "[s1]\nread list = r1\npath = /share/s1\n\n[s2]\ninvalid users = i2\nCustom = kept\n\n",
       [&] { return remove("s3"); }},
      10);
}

// ---------------------------------------------------------------------------------------------------------- arguments

TEST_F(Share_Files, Missing_Arguments_Are_Refused_Without_A_Lock_Or_A_Line) {
  write_file(path_, three_shares);
  const File_State before = state_of(path_);
  const Held_Lock lock(file_name);
  const Shares rec = share("s1", {{"path", "p"}}), nothing = share("s1", {});
  Tarn_Share_Conf other;
  Tarn_Share_Conf *out = &other;
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Read(nullptr, &out), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Read(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Write(nullptr, rec.get()), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Conf_Write(path_.c_str(), nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Get(nullptr, "s1", &out), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Get(path_.c_str(), nullptr, &out), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Get(path_.c_str(), "s1", nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Set(nullptr, "s1", rec.get()), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Set(nullptr, "s1", nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_Set(nullptr, "s1", nothing.get()), -EINVAL);  // before the look at the mask
  EXPECT_EQ(out, &other);
  EXPECT_EQ(state_of(path_), before);
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// -------------------------------------------------------------------------------------------------------------- locks

// Unlike the members' records: the lists hold who may go where.
TEST_F(Share_Files, A_Lock_That_Stays_Taken_Ends_Readers_And_Writers_After_10_Seconds_With_Messages_Of_Their_Own) {
  struct Case {
    const char *function;
    std::function<int()> call;
    const char *end;
  };
  const Shares rec = share("s1", {{"path", "p"}});
  Tarn_Share_Conf other;
  Tarn_Share_Conf *out = &other;
  const Case cases[] = {
      {"Tarn_Cluster_Share_Conf_Read", [&] { return Tarn_Cluster_Share_Conf_Read(path_.c_str(), &out); }, " error!"},
      {"Tarn_Cluster_Share_Get", [&] { return Tarn_Cluster_Share_Get(path_.c_str(), "s1", &out); }, " error!"},
      {"Tarn_Cluster_Share_Conf_Write", [&] { return write(rec); }, "!"},
      {"Tarn_Cluster_Share_Set", [&] { return set("s1", rec); }, " error!"},
      {"Tarn_Cluster_Share_Set", [&] { return remove("s1"); }, " error!"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.function);
    write_file(path_, three_shares);
    const File_State before = state_of(path_);
    log_.clear();
    {
      Virtual_Clock clock(1'800'000'000'000);
      ASSERT_EQ(Get_File_Lock(path_.c_str(), 0), 1);
      clock.on_read([&] { clock.advance(100); });
      EXPECT_EQ(c.call(), -ENOLCK);
      EXPECT_GT(clock.now(), 1'800'000'010'000);
      EXPECT_LT(clock.now(), 1'800'000'011'000);
    }
    std::vector<Log_Line> own;
    for (const Log_Line &line : log_.lines()) {
      if (line.function != "Get_File_Lock") own.push_back(line);
    }
    EXPECT_THAT(own, ElementsAre(error_line(c.function, "Can't get file lock of " + path_ + c.end)));
    EXPECT_TRUE(exists(owned_lock(file_name)));
    EXPECT_EQ(state_of(path_), before);
    EXPECT_EQ(out, &other);
    Release_File_Lock(path_.c_str());
    EXPECT_NE(c.call(), -ENOLCK);
    if (out != &other) Release_Share_List_Conf(std::exchange(out, &other));
  }
}

}  // namespace
}  // namespace tarn::test
