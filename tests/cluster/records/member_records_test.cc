#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/member_samples.h"
#include "tests/cluster/records/record_at_page_end.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

// The layout is part of the interface.
static_assert(sizeof(Tarn_Serv_Conf) == 328);
static_assert(offsetof(Tarn_Serv_Conf, fields) == 8);
static_assert(offsetof(Tarn_Serv_Conf, Quota) == 48);
static_assert(offsetof(Tarn_Serv_Conf, LeaveTime) == 88);
static_assert(offsetof(Tarn_Serv_Conf, Address) == 96);
static_assert(offsetof(Tarn_Serv_Conf, Name) == 160);
static_assert(offsetof(Tarn_Serv_Conf, SID) == 169);
static_assert(offsetof(Tarn_Serv_Conf, Firmware) == 225);
static_assert(offsetof(Tarn_Serv_Conf, LastRestoreFile) == 257);

// The order in which an existing section gets the keys that it lacks.
const std::vector<std::string> update_order = {"Type",
                                               "ID",
                                               "PID",
                                               "UsrCnt",
                                               "Status",
                                               "WebPort",
                                               "SslWebPort",
                                               "BackupResult",
                                               "RestoreResult",
                                               "BackupProgress",
                                               "RestoreProgress",
                                               "RestorePID",
                                               "LastBackup",
                                               "LastRestore",
                                               "Quota",
                                               "LeaveTime",
                                               "SID",
                                               "Address",
                                               "HostName",
                                               "Model",
                                               "Firmware",
                                               "LastRestoreFile"};

int listed(const std::string &text, Records &out) {
  Tarn_Serv_Conf *list = nullptr;
  const int status = Tarn_Cluster_All_Serv_From_Sect_Node(parsed(text).get(), &list);
  out.reset(list);
  return status;
}

int single(const std::string &text, Records &out) {
  Tarn_Serv_Conf *rec = nullptr;
  const int status = Tarn_Service_From_Sect_Node(parsed(text).get(), &rec);
  out.reset(rec);
  return status;
}

struct Reader {
  const char *name;
  int (*read)(const std::string &text, Records &out);
  unsigned own_bits;  // what it sets beyond the keys' bits
  size_t firmware_limit;
};

const Reader readers[] = {{"the list reader", listed, name_bit, 64}, {"the single reader", single, 0, 32}};

// ------------------------------------------------------------------------------------------------ release and preset

TEST(Member_Record, Preset_Zeroes_The_Whole_Record) {
  Tarn_Serv_Conf rec;
  memset(&rec, 0xff, sizeof rec);
  Tarn_Cluster_Serv_Conf_Preset(&rec);
  EXPECT_EQ(rec.next, nullptr);
  EXPECT_EQ(content(rec), content(empty_record()));
}

TEST(Member_Record, Preset_And_Release_Ignore_A_Missing_Record) {
  Tarn_Cluster_Serv_Conf_Preset(nullptr);
  Release_Serv_List_Conf(nullptr);
}

TEST(Member_Record, Release_Frees_A_Long_List_Without_Recursion) {
  Tarn_Serv_Conf *list = nullptr;
  for (int i = 0; i < 200000; ++i) {
    auto *rec = static_cast<Tarn_Serv_Conf *>(calloc(1, sizeof(Tarn_Serv_Conf)));
    rec->next = list;
    list = rec;
  }
  Release_Serv_List_Conf(list);
}

TEST(Member_Record, The_Mask_Names_Of_The_Header_Are_The_Bits) {
  unsigned bits = TARN_SERV_NAME;
  EXPECT_EQ(TARN_SERV_NAME, name_bit);
  for (const Field &field : all_fields) bits |= field.bit;
  EXPECT_EQ(bits, all_bits);
  EXPECT_EQ(TARN_SERV_ALL, all_bits);
  EXPECT_EQ(TARN_SERV_TYPE, field_of("Type").bit);
  EXPECT_EQ(TARN_SERV_STATUS, field_of("Status").bit);
  EXPECT_EQ(TARN_SERV_QUOTA, field_of("Quota").bit);
  EXPECT_EQ(TARN_SERV_LAST_RESTORE_FILE, field_of("LastRestoreFile").bit);
}

// ------------------------------------------------------------------------------------------------- each field alone

class Member_Field : public testing::TestWithParam<Field> {
 protected:
  std::string line() const { return std::string(field_.key) + " = " + sample(field_) + "\n"; }

  const Field &field_ = field_of(GetParam().key);
};

INSTANTIATE_TEST_SUITE_P(Each, Member_Field, testing::ValuesIn(all_fields),
                         [](const auto &instance) { return std::string(instance.param.key); });

TEST_P(Member_Field, Is_Read_By_Both_Readers_With_Its_Bit_And_Nothing_Else) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read("[m1]\n" + line(), rec), 0);
    Tarn_Serv_Conf expected = record("m1", {{field_.key, sample(field_)}});
    expected.fields |= reader.own_bits;
    EXPECT_EQ(rec->next, nullptr);
    EXPECT_EQ(rec->fields, expected.fields);
    EXPECT_EQ(content(*rec), content(expected));
  }
}

TEST_P(Member_Field, Is_Left_Zero_With_Its_Bit_Clear_When_Its_Key_Is_Missing) {
  std::string text = "[m1]\n";
  Tarn_Serv_Conf expected = empty_record("m1");
  for (const Field &field : all_fields) {
    if (field.bit == field_.bit) continue;
    text += std::string(field.key) + " = " + sample(field) + "\n";
    set(expected, field, sample(field));
  }
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read(text, rec), 0);
    Tarn_Serv_Conf wanted = expected;
    wanted.fields |= reader.own_bits;
    EXPECT_EQ(content(*rec), content(wanted));
  }
}

TEST_P(Member_Field, Is_The_Only_Key_Of_A_New_Section_When_Its_Bit_Is_The_Only_One) {
  const Tarn_Serv_Conf rec = full_record("m1", field_.bit);
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections owned(sections);
  EXPECT_STREQ(sections->name, "m1");
  EXPECT_THAT(pairs_of(*sections), ElementsAre(Pair(field_.key, sample(field_))));
}

TEST_P(Member_Field, Is_The_Only_Key_Left_Out_Of_A_New_Section_When_Its_Bit_Is_The_Only_One_Clear) {
  const Tarn_Serv_Conf rec = full_record("m1", all_bits & ~field_.bit);
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections owned(sections);
  EXPECT_THAT(keys_of(*sections), SizeIs(21));
  EXPECT_THAT(keys_of(*sections), Not(Contains(field_.key)));
}

TEST_P(Member_Field, Is_The_Only_Key_Added_To_A_Section_When_Its_Bit_Is_The_Only_One) {
  const Tarn_Serv_Conf rec = full_record("other", field_.bit);
  const Sections section = parsed("[m1]\nCustom = kept\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "m1");
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("Custom", "kept"), Pair(field_.key, sample(field_))));
}

TEST_P(Member_Field, Is_Replaced_In_Place_In_A_Section_And_The_Other_Keys_Stay) {
  std::string text = "[m1]\n";
  Pairs expected;
  for (const Field &field : all_fields) {
    text += std::string(field.key) + " = 1\n";
    expected.emplace_back(field.key, field.bit == field_.bit ? sample(field) : "1");
  }
  const Sections section = parsed(text);
  const Tarn_Serv_Conf rec = full_record("other", field_.bit);
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_EQ(pairs_of(*section), expected);
}

// ------------------------------------------------------------------------------------------------------------- orders

TEST(Member_Orders, A_New_Section_Has_Its_Keys_In_The_Order_Of_Creation) {
  const Tarn_Serv_Conf rec = full_record("m1", all_bits);
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections owned(sections);
  Pairs expected;
  for (const Field &field : all_fields) expected.emplace_back(field.key, sample(field));
  EXPECT_EQ(pairs_of(*sections), expected);
}

TEST(Member_Orders, A_Section_Gets_The_Keys_That_It_Lacks_In_The_Order_Of_Updates) {
  const Tarn_Serv_Conf rec = full_record("m1", all_bits);
  const Sections section = parsed("[m1]\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_THAT(keys_of(*section), ElementsAreArray(update_order));
}

TEST(Member_Orders, Keys_That_A_Section_Has_Keep_Their_Places_And_The_Lacking_Ones_Follow_In_The_Order_Of_Updates) {
  const Tarn_Serv_Conf rec = full_record("m1", all_bits);
  const Sections section = parsed("[m1]\nModel = old\nx = 1\nType = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  std::vector<std::string> expected = {"Model", "x", "Type"};
  for (const std::string &key : update_order) {
    if (key != "Model" && key != "Type") expected.push_back(key);
  }
  EXPECT_EQ(keys_of(*section), expected);
  EXPECT_EQ(pairs_of(*section)[0].second, sample(field_of("Model")));
  EXPECT_EQ(pairs_of(*section)[2].second, sample(field_of("Type")));
}

// -------------------------------------------------------------------------------------------------------- text limits

struct Limit {
  const char *key;
  size_t size;  // bytes with the terminator
};

const Limit limits[] = {{"Address", 64}, {"SID", 9}, {"HostName", 15}, {"Model", 32}, {"LastRestoreFile", 64}};

TEST(Member_Limits, A_Text_That_Fills_Its_Field_Is_Read_And_One_Character_More_Is_Not) {
  for (const Reader &reader : readers) {
    for (const Limit &limit : limits) {
      SCOPED_TRACE(std::string(reader.name) + ", " + limit.key);
      const std::string longest(limit.size - 1, 'x');
      Records rec;
      ASSERT_EQ(reader.read("[m1]\n" + std::string(limit.key) + " = " + longest + "\n", rec), 0);
      Tarn_Serv_Conf expected = record("m1", {{limit.key, longest}});
      expected.fields |= reader.own_bits;
      EXPECT_EQ(content(*rec), content(expected));

      for (const size_t more : {1, 2, 1000}) {
        ASSERT_EQ(reader.read("[m1]\n" + std::string(limit.key) + " = " + longest + std::string(more, 'y') + "\n", rec),
                  0);
        expected = empty_record("m1");
        expected.fields = reader.own_bits;
        EXPECT_EQ(content(*rec), content(expected));
      }
    }
  }
}

TEST(Member_Limits, A_Text_That_Is_Too_Long_Does_Not_Hide_The_Others) {
  const std::string text = "[m1]\nAddress = " + std::string(64, 'a') + "\nSID = S\nHostName = " + std::string(15, 'h') +
                           "\nModel = M\nFirmware = " + std::string(64, 'f') + "\nLastRestoreFile = R\n";
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read(text, rec), 0);
    Tarn_Serv_Conf expected = record("m1", {{"SID", "S"}, {"Model", "M"}, {"LastRestoreFile", "R"}});
    expected.fields |= reader.own_bits;
    EXPECT_EQ(content(*rec), content(expected));
  }
}

TEST(Member_Limits, A_Short_Text_Does_Not_Hide_The_Longer_Ones_Behind_It) {
  const std::string text = "[m1]\nAddress = a\nSID = 12345678\nHostName = h\nModel = " + std::string(31, 'm') +
                           "\nFirmware = f\nLastRestoreFile = " + std::string(63, 'r') + "\n";
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read(text, rec), 0);
    EXPECT_EQ(rec->fields & ~name_bit, 0x80u | 0x10u | 0x100u | 0x200u | 0x400u | 0x400000u);
    EXPECT_EQ(std::string(rec->LastRestoreFile), std::string(63, 'r'));
  }
}

TEST(Member_Limits, The_Readers_Differ_In_The_Longest_Firmware) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    const std::string longest(reader.firmware_limit - 1, 'f');
    Records rec;
    ASSERT_EQ(reader.read("[m1]\nFirmware = " + longest + "\n", rec), 0);
    EXPECT_EQ(rec->fields, reader.own_bits | 0x400u);
    const char *firmware = bytes_of(*rec, field_of("Firmware"));
    EXPECT_EQ(std::string(firmware, longest.size() + 1), longest + '\0');

    ASSERT_EQ(reader.read("[m1]\nFirmware = " + longest + "f\n", rec), 0);
    Tarn_Serv_Conf expected = empty_record("m1");
    expected.fields = reader.own_bits;
    EXPECT_EQ(content(*rec), content(expected));
  }
}

// Callers of the list reader get the rest of a long version where the file of the last restore stands otherwise.
TEST(Member_Limits, In_The_List_Reader_A_Long_Firmware_Runs_On_Into_The_Next_Field_And_No_Further) {
  std::string firmware;
  for (int i = 0; i < 63; ++i) firmware += static_cast<char>('A' + i % 26);
  Records rec;
  ASSERT_EQ(listed("[m1]\nFirmware = " + firmware + "\n", rec), 0);
  Tarn_Serv_Conf expected = empty_record("m1");
  expected.fields = name_bit | 0x400;
  memcpy(bytes_of(expected, field_of("Firmware")), firmware.c_str(), firmware.size() + 1);
  EXPECT_EQ(content(*rec), content(expected));
  EXPECT_EQ(std::string(rec->LastRestoreFile), firmware.substr(32));
}

TEST(Member_Limits, In_The_List_Reader_The_File_Of_The_Last_Restore_Overwrites_The_Rest_Of_A_Long_Firmware) {
  const std::string firmware = std::string(32, 'F') + std::string(31, 'G');
  for (const std::string &text : {"[m1]\nFirmware = " + firmware + "\nLastRestoreFile = R\n",
                                  "[m1]\nLastRestoreFile = R\nFirmware = " + firmware + "\n"}) {
    SCOPED_TRACE(text);
    Records rec;
    ASSERT_EQ(listed(text, rec), 0);
    EXPECT_EQ(rec->fields, name_bit | 0x400u | 0x400000u);
    EXPECT_EQ(std::string(rec->Firmware, 32), std::string(32, 'F'));
    EXPECT_STREQ(rec->LastRestoreFile, "R");
  }
}

TEST(Member_Limits, In_The_List_Reader_A_Firmware_Of_32_Characters_Ends_In_The_Next_Field) {
  Records rec;
  ASSERT_EQ(listed("[m1]\nFirmware = " + std::string(32, 'F') + "\n", rec), 0);
  EXPECT_EQ(rec->fields, name_bit | 0x400u);
  EXPECT_EQ(std::string(rec->Firmware, 32), std::string(32, 'F'));
  EXPECT_EQ(rec->LastRestoreFile[0], '\0');
}

TEST(Member_Limits, A_Name_Of_8_Characters_Is_Terminated_And_A_Longer_One_Is_Cut_Without_Terminator) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read("[12345678]\nSID = S\n", rec), 0);
    EXPECT_EQ(std::string(rec->Name, 9), std::string("12345678\0", 9));
    for (const std::string name : {"123456789", "1234567890", "123456789012345678901234567890"}) {
      ASSERT_EQ(reader.read("[" + name + "]\nSID = S\n", rec), 0);
      EXPECT_EQ(std::string(rec->Name, 9), "123456789");
      EXPECT_STREQ(rec->SID, "S");
      EXPECT_EQ(rec->fields, reader.own_bits | 0x10u);
    }
  }
}

TEST(Member_Limits, A_Long_Name_Alone_Leaves_The_Field_Behind_It_Alone) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read("[123456789012]\nType = 1\n", rec), 0);
    EXPECT_EQ(std::string(rec->SID, 9), std::string(9, '\0'));
  }
}

// ------------------------------------------------------------------------------------------------------------ numbers

TEST(Member_Numbers, Text_That_Is_No_Number_Is_Read_As_Strtoll_Reads_It) {
  struct Case {
    const char *text;
    int value;
  };
  for (const Reader &reader : readers) {
    for (const Case &c :
         {Case{"abc", 0}, {"", 0}, {"12x", 12}, {"-7 ", -7}, {"+5", 5}, {"0x10", 0}, {"1.9", 1}, {"007", 7}}) {
      SCOPED_TRACE(std::string(reader.name) + ", \"" + c.text + "\"");
      Records rec;
      ASSERT_EQ(reader.read("[m1]\nStatus = " + std::string(c.text) + "\nQuota = " + c.text + "\n", rec), 0);
      EXPECT_EQ(rec->fields, reader.own_bits | 0x40u | 0x1000u);
      EXPECT_EQ(rec->Status, c.value);
      EXPECT_EQ(rec->Quota, c.value);
    }
  }
}

TEST(Member_Numbers, The_Greatest_And_The_Least_Readable_Numbers_Are_Read) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read("[m1]\nType = 2147483647\nID = -2147483647\nQuota = 9223372036854775807\n"
                          "LeaveTime = -9223372036854775808\n",
                          rec),
              0);
    EXPECT_EQ(rec->fields, reader.own_bits | 0x2u | 0x4u | 0x1000u | 0x4000u);
    EXPECT_EQ(rec->Type, 2147483647);
    EXPECT_EQ(rec->ID, -2147483647);
    EXPECT_EQ(rec->Quota, INT64_MAX);
    EXPECT_EQ(rec->LeaveTime, INT64_MIN);
  }
}

// The getter stores what is left of such a number, but the bit says that there is none.
TEST(Member_Numbers, A_Number_Outside_32_Bits_Leaves_The_Bit_Clear_And_The_Cut_Number_Behind) {
  struct Case {
    const char *text;
    int left;
  };
  for (const Reader &reader : readers) {
    for (const Case &c : {Case{"2147483648", INT_MIN},
                          {"-2147483648", INT_MIN},
                          {"4294967298", 2},
                          {"-4294967299", -3},
                          {"99999999999999999999", -1}}) {
      SCOPED_TRACE(std::string(reader.name) + ", " + c.text);
      Records rec;
      ASSERT_EQ(reader.read("[m1]\nStatus = " + std::string(c.text) + "\nPID = 3\n", rec), 0);
      EXPECT_EQ(rec->fields, reader.own_bits | 0x8u);
      EXPECT_EQ(rec->Status, c.left);
      EXPECT_EQ(rec->PID, 3);
    }
  }
}

TEST(Member_Numbers, A_Number_Beyond_64_Bits_Is_The_Nearest_One) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Records rec;
    ASSERT_EQ(reader.read("[m1]\nQuota = 99999999999999999999\nLeaveTime = -99999999999999999999\n", rec), 0);
    EXPECT_EQ(rec->fields, reader.own_bits | 0x1000u | 0x4000u);
    EXPECT_EQ(rec->Quota, INT64_MAX);
    EXPECT_EQ(rec->LeaveTime, INT64_MIN);
  }
}

TEST(Member_Numbers, The_Extremes_Are_Written_In_Decimal) {
  Tarn_Serv_Conf rec = empty_record("m1");
  rec.Type = INT_MIN;
  rec.ID = INT_MAX;
  rec.Quota = INT64_MIN;
  rec.LeaveTime = INT64_MAX;
  rec.fields = 0x2 | 0x4 | 0x1000 | 0x4000;
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections made(sections);
  EXPECT_THAT(pairs_of(*made),
              ElementsAre(Pair("ID", "2147483647"), Pair("Type", "-2147483648"), Pair("Quota", "-9223372036854775808"),
                          Pair("LeaveTime", "9223372036854775807")));
  const Sections section = parsed("[m1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_THAT(pairs_of(*section),
              ElementsAre(Pair("x", "1"), Pair("Type", "-2147483648"), Pair("ID", "2147483647"),
                          Pair("Quota", "-9223372036854775808"), Pair("LeaveTime", "9223372036854775807")));
}

TEST(Member_Numbers, An_Empty_Text_Is_Written_And_Read_With_Its_Bit) {
  const Tarn_Serv_Conf rec = record("m1", {{"Address", ""}, {"Model", ""}});
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections made(sections);
  EXPECT_THAT(pairs_of(*made), ElementsAre(Pair("Address", ""), Pair("Model", "")));
  for (const Reader &reader : readers) {
    Records read;
    ASSERT_EQ(reader.read("[m1]\nAddress =\nModel =\n", read), 0);
    EXPECT_EQ(read->fields, reader.own_bits | 0x80u | 0x200u);
  }
}

// ---------------------------------------------------------------------------------------------- sections into a list

TEST(Member_List_From_Sections, Keeps_The_Order_And_Duplicates) {
  Records list;
  ASSERT_EQ(listed("[b]\nID = 1\n[a]\nID = 2\n[b]\nID = 3\n[c]\nID = 4\n", list), 0);
  EXPECT_THAT(names_of(list.get()), ElementsAre("b", "a", "b", "c"));
  std::vector<int> ids;
  for (const Tarn_Serv_Conf *rec = list.get(); rec != nullptr; rec = rec->next) ids.push_back(rec->ID);
  EXPECT_THAT(ids, ElementsAre(1, 2, 3, 4));
}

TEST(Member_List_From_Sections, Takes_The_First_Of_A_Repeated_Key) {
  Records list;
  ASSERT_EQ(listed("[m1]\nID = 1\nID = 2\n", list), 0);
  EXPECT_EQ(list->ID, 1);
}

TEST(Member_List_From_Sections, Refuses_Missing_Arguments) {
  const Sections sections = parsed("[m1]\nID = 1\n");
  Tarn_Serv_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_All_Serv_From_Sect_Node(nullptr, &list), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_All_Serv_From_Sect_Node(sections.get(), nullptr), -EINVAL);
  EXPECT_EQ(list, nullptr);
}

// Callers take such a file for a broken one.
TEST(Member_List_From_Sections, Refuses_A_First_Section_Without_Keys) {
  Records list;
  EXPECT_EQ(listed("[m1]\n[m2]\nID = 1\n", list), -EINVAL);
  EXPECT_EQ(list, nullptr);
}

TEST(Member_List_From_Sections, Takes_A_Later_Section_Without_Keys) {
  Records list;
  ASSERT_EQ(listed("[m1]\nID = 1\n[m2]\n[m3]\nID = 3\n", list), 0);
  EXPECT_THAT(names_of(list.get()), ElementsAre("m1", "m2", "m3"));
  EXPECT_EQ(list->next->fields, name_bit);
}

TEST(Member_List_From_Sections, A_Nameless_Section_Leaves_Name_Empty_And_Its_Bit_Clear) {
  Records list;
  ASSERT_EQ(listed("ID = 1\n[m2]\nID = 2\n", list), 0);
  EXPECT_THAT(names_of(list.get()), ElementsAre("", "m2"));
  EXPECT_EQ(list->fields, 0x4u);
  EXPECT_EQ(list->next->fields, name_bit | 0x4u);
}

TEST(Member_List_From_Sections, Leaves_The_Sections_As_They_Are) {
  const Sections sections = parsed("[m1]\nID = 1\n[m2]\nx = y\n");
  Tarn_Serv_Conf *list = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_From_Sect_Node(sections.get(), &list), 0);
  Release_Serv_List_Conf(list);
  EXPECT_THAT(names_of(sections.get()), ElementsAre("m1", "m2"));
  EXPECT_THAT(pairs_of(*sections), ElementsAre(Pair("ID", "1")));
}

TEST(Member_List_From_Sections, When_Memory_Ends_The_Records_Made_So_Far_Are_The_Callers) {
  const Sections sections = parsed("[m1]\nID = 1\n[m2]\nID = 2\n[m3]\nID = 3\n");
  Log_Capture log;
  Tarn_Serv_Conf elsewhere;
  Tarn_Serv_Conf *list = nullptr;
  const int allocations = with_each_allocation_failing(
      [&] {
        list = &elsewhere;
        return Tarn_Cluster_All_Serv_From_Sect_Node(sections.get(), &list);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        ASSERT_NE(list, &elsewhere);  // without a record there is none to release
        const Records made(list);
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_THAT(names_of(list), SizeIs(nth - 1));
        if (nth > 1) {
          EXPECT_EQ(list->ID, 1);
        }
        EXPECT_THAT(log.lines(), ElementsAre(error_line("Tarn_Cluster_All_Serv_From_Sect_Node",
                                                        "Can't allocate memory for slave list section! (-12)")));
        log.clear();
      });
  const Records whole(list);
  EXPECT_EQ(allocations, 3);
  EXPECT_THAT(names_of(list), ElementsAre("m1", "m2", "m3"));
}

// -------------------------------------------------------------------------------------------------- one section

TEST(Member_From_Section, Holds_The_Name_But_Not_Its_Bit) {
  Records rec;
  ASSERT_EQ(single("[m1]\nID = 1\n[m2]\nID = 2\n", rec), 0);
  EXPECT_STREQ(rec->Name, "m1");
  EXPECT_EQ(rec->fields, 0x4u);
  EXPECT_EQ(rec->next, nullptr);
}

TEST(Member_From_Section, Without_Keys_Is_A_Record_With_An_Empty_Mask) {
  Records rec;
  ASSERT_EQ(single("[m1]\n", rec), 0);
  EXPECT_EQ(content(*rec), content(empty_record("m1")));
  ASSERT_EQ(single("[m1]\nOther = 1\n", rec), 0);
  EXPECT_EQ(content(*rec), content(empty_record("m1")));
}

TEST(Member_From_Section, Refuses_Missing_Arguments) {
  const Sections section = parsed("[m1]\nID = 1\n");
  Tarn_Serv_Conf *rec = nullptr;
  EXPECT_EQ(Tarn_Service_From_Sect_Node(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Service_From_Sect_Node(section.get(), nullptr), -EINVAL);
}

TEST(Member_From_Section, When_Memory_Ends_There_Is_No_Record) {
  const Sections section = parsed("[m1]\nID = 1\nModel = M\n");
  Log_Capture log;
  Tarn_Serv_Conf *rec = nullptr;
  Tarn_Serv_Conf other;
  const int allocations = with_each_allocation_failing(
      [&] {
        rec = &other;
        return Tarn_Service_From_Sect_Node(section.get(), &rec);
      },
      [&](int status, int) {
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_EQ(rec, nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(error_line("Tarn_Service_From_Sect_Node",
                                                        "Can't allocate memory for slave list section! (-12)")));
      });
  const Records owned(rec);
  EXPECT_EQ(allocations, 1);
}

// ------------------------------------------------------------------------------------------- record into a section

TEST(Member_To_Section, Refuses_Missing_Arguments) {
  const Sections section = parsed("[m1]\nID = 1\n");
  const Tarn_Serv_Conf rec = empty_record("m1");
  EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(nullptr, section.get()), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, nullptr), -EINVAL);
}

TEST(Member_To_Section, Renames_The_Section_Only_With_The_Bit_Of_The_Name) {
  const Sections section = parsed("[m1]\nID = 1\n");
  Tarn_Serv_Conf rec = record("m2", {{"ID", "2"}});
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "m1");
  rec.fields = name_bit;
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "m2");
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("ID", "2")));
}

TEST(Member_To_Section, Renames_To_A_Longer_Name_Whoever_Made_The_Section) {
  Tarn_Serv_Conf rec = empty_record("12345678");
  rec.fields = name_bit;
  const Sections from_text = parsed("[m]\nID = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, from_text.get()), 0);
  EXPECT_STREQ(from_text->name, "12345678");

  Sect_Node *created = nullptr;
  ASSERT_EQ(Create_Sect_Node(&created, "m"), 0);
  const Sections owned(created);
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, created), 0);
  EXPECT_STREQ(created->name, "12345678");

  std::string text = "[m]\nID = 1\n";
  FILE *stream = fmemopen(text.data(), text.size(), "r");
  Sect_Node *streamed = nullptr;
  EXPECT_EQ(Parse_Conf_Stream(stream, &streamed), 1);
  fclose(stream);
  const Sections from_stream(streamed);
  ASSERT_NE(streamed, nullptr);
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, streamed), 0);
  EXPECT_STREQ(streamed->name, "12345678");
}

TEST(Member_To_Section, Every_Section_Of_The_Library_Has_Room_For_A_Name_Of_127_Bytes) {
  constexpr size_t least = offsetof(Sect_Node, name) + 128;
  Sect_Node *created = nullptr;
  ASSERT_EQ(Create_Sect_Node(&created, "m"), 0);
  const Sections owned(created);
  EXPECT_GE(malloc_usable_size(created), least);
  const Sections from_text = parsed("x = 1\n[m]\nID = 1\n");
  EXPECT_GE(malloc_usable_size(from_text.get()), least);
  EXPECT_GE(malloc_usable_size(from_text->next), least);
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  Sect_Node *converted = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &converted), 0);
  const Sections from_record(converted);
  EXPECT_GE(malloc_usable_size(converted), least);
}

TEST(Member_To_Section, Renames_A_Section_Of_A_Longer_Name) {
  const Sections section = parsed("[" + std::string(200, 'n') + "]\nID = 1\n");
  Tarn_Serv_Conf rec = empty_record("m1");
  rec.fields = name_bit;
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "m1");
}

TEST(Member_To_Section, Reads_A_Name_Without_Terminator_No_Further_Than_Its_Field) {
  const Sections section = parsed("[m]\nID = 1\n");
  Tarn_Serv_Conf rec = record("", {{"SID", "SIDSID"}});
  memcpy(rec.Name, "123456789", 9);
  rec.fields |= name_bit;
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_STREQ(section->name, "123456789");
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("ID", "1"), Pair("SID", "SIDSID")));
}

TEST(Member_To_Section, Refuses_A_Rename_To_An_Empty_Name) {
  const Sections section = parsed("[m]\nID = 1\n");
  Tarn_Serv_Conf rec = empty_record();
  rec.fields = name_bit;
  EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), -EINVAL);
  EXPECT_STREQ(section->name, "m");
}

TEST(Member_To_Section, Refuses_Names_That_Would_Break_The_File) {
  for (const char *name : {"a]b", "]", "a\nb", "\n", "ab\n"}) {
    SCOPED_TRACE(name);
    const Sections section = parsed("[m]\nID = 1\n");
    Tarn_Serv_Conf rec = empty_record(name);
    rec.fields = name_bit;
    EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), -EINVAL);
    EXPECT_STREQ(section->name, "m");
  }
}

TEST(Member_To_Section, Refuses_Values_With_A_Newline_And_Takes_Brackets_In_Values) {
  for (const Field &field : all_fields) {
    if (field.kind != Kind::text) continue;
    SCOPED_TRACE(field.key);
    const Sections section = parsed("[m]\nx = 1\n");
    Tarn_Serv_Conf rec = record("m", {{field.key, "a\n[b]"}});
    EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), -EINVAL);
    rec = record("m", {{field.key, "[a]=;#"}});
    EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
    EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair(field.key, "[a]=;#")));
  }
}

TEST(Member_To_Section, A_Text_Whose_Bit_Is_Clear_Is_Not_Looked_At) {
  const Sections section = parsed("[m]\nx = 1\n");
  Tarn_Serv_Conf rec = record("a\nb", {{"Address", "a\nb"}, {"Model", "M"}});
  rec.fields = field_of("Model").bit;
  EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("Model", "M")));
}

TEST(Member_To_Section, Writes_A_Firmware_That_Runs_On_Up_To_Its_End) {
  Records list;
  const std::string firmware = std::string(32, 'F') + "and more";
  ASSERT_EQ(listed("[m1]\nFirmware = " + firmware + "\n", list), 0);
  const Sections section = parsed("[m1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(list.get(), section.get()), 0);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("Firmware", firmware)));
}

// The firmware has lost its terminator to the longer text, so it takes the next field along.
TEST(Member_To_Section, Writes_A_Firmware_Without_Terminator_With_The_Next_Field) {
  Records list;
  ASSERT_EQ(listed("[m1]\nFirmware = " + std::string(40, 'F') + "\nLastRestoreFile = r.tar\n", list), 0);
  const Sections section = parsed("[m1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(list.get(), section.get()), 0);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("Firmware", std::string(32, 'F') + "r.tar"),
                                              Pair("LastRestoreFile", "r.tar")));
}

class Member_At_Page_End : public testing::TestWithParam<const char *> {
 protected:
  // Fills the record from the field to its end, all bytes but so many with text.
  Tarn_Serv_Conf &fill(size_t zeroes) {
    Tarn_Serv_Conf &rec = at_end_.get();
    rec = empty_record("m1");
    rec.fields = field_.bit;
    memset(bytes_of(rec, field_), 'F', room_ - zeroes);
    return rec;
  }

  const Field &field_ = field_of(GetParam());
  const size_t room_ = sizeof(Tarn_Serv_Conf) - field_.offset;
  Record_At_Page_End<Tarn_Serv_Conf> at_end_;
};

INSTANTIATE_TEST_SUITE_P(Each, Member_At_Page_End, testing::Values("Firmware", "LastRestoreFile"));

TEST_P(Member_At_Page_End, A_Text_That_Ends_With_The_Record_Is_Written_Whole) {
  const Tarn_Serv_Conf &rec = fill(1);
  const std::string whole(room_ - 1, 'F');
  const Sections section = parsed("[m1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), 0);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair(GetParam(), whole)));

  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections made(sections);
  EXPECT_THAT(pairs_of(*made), ElementsAre(Pair(GetParam(), whole)));
}

TEST_P(Member_At_Page_End, A_Text_That_Does_Not_End_With_The_Record_Is_Refused) {
  const Tarn_Serv_Conf &rec = fill(0);
  const Sections section = parsed("[m1]\nx = 1\n");
  EXPECT_EQ(Tarn_Cluster_Serv_To_Sect_Node(&rec, section.get()), -EINVAL);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1")));

  Sect_Node *sections = nullptr;
  EXPECT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), -EINVAL);
  Free_Sect_Node(sections);
}

TEST(Member_To_Section, When_Memory_Ends_It_Is_Returned) {
  const Tarn_Serv_Conf rec = full_record("m1", all_bits);
  std::unique_ptr<Sections> section;
  const auto renew = [&] {
    section = std::make_unique<Sections>(parsed("[m1]\nSID = 1\nModel = a longer value than the new one\n"));
  };
  renew();
  const int allocations =
      with_each_allocation_failing([&] { return Tarn_Cluster_Serv_To_Sect_Node(&rec, section->get()); },
                                   [&](int status, int nth) {
                                     SCOPED_TRACE(nth);
                                     EXPECT_EQ(status, -ENOMEM);
                                     EXPECT_THAT(keys_of(**section), Contains("Model"));
                                     renew();
                                   });
  EXPECT_GE(allocations, 21);
  EXPECT_THAT(keys_of(**section), SizeIs(22));
}

// ------------------------------------------------------------------------------------------------- list into sections

TEST(Member_List_To_Sections, Makes_One_Section_For_Each_Record_In_Order) {
  Tarn_Serv_Conf first = record("b", {{"ID", "1"}}), second = record("a", {{"ID", "2"}}), third = record("b", {});
  first.next = &second;
  second.next = &third;
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&first, &sections), 0);
  const Sections owned(sections);
  EXPECT_THAT(names_of(sections), ElementsAre("b", "a", "b"));
  EXPECT_THAT(pairs_of(*sections), ElementsAre(Pair("ID", "1")));
  EXPECT_THAT(pairs_of(*sections->next), ElementsAre(Pair("ID", "2")));
  EXPECT_THAT(pairs_of(*sections->next->next), IsEmpty());
}

TEST(Member_List_To_Sections, Names_The_Section_Whether_The_Bit_Of_The_Name_Is_Set_Or_Not) {
  for (const unsigned bit : {0u, name_bit}) {
    Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
    rec.fields |= bit;
    Sect_Node *sections = nullptr;
    ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
    const Sections owned(sections);
    EXPECT_STREQ(sections->name, "m1");
  }
}

TEST(Member_List_To_Sections, Reads_A_Name_Without_Terminator_No_Further_Than_Its_Field) {
  Tarn_Serv_Conf rec = record("", {{"SID", "SIDSID"}});
  memcpy(rec.Name, "123456789", 9);
  Sect_Node *sections = nullptr;
  ASSERT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, &sections), 0);
  const Sections owned(sections);
  EXPECT_STREQ(sections->name, "123456789");
}

TEST(Member_List_To_Sections, Refuses_Missing_Arguments) {
  const Tarn_Serv_Conf rec = record("m1", {{"ID", "1"}});
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&rec, nullptr), -EINVAL);
  EXPECT_EQ(sections, nullptr);
}

TEST(Member_List_To_Sections, Refuses_Names_And_Values_That_Would_Break_The_File) {
  const Tarn_Serv_Conf bad[] = {record("", {{"ID", "1"}}), record("a]b", {{"ID", "1"}}), record("a\nb", {{"ID", "1"}}),
                                record("m2", {{"Address", "a\nb"}}), record("m2", {{"LastRestoreFile", "\n"}})};
  for (const Tarn_Serv_Conf &rec : bad) {
    SCOPED_TRACE(rec.Name);
    Tarn_Serv_Conf first = record("m1", {{"ID", "1"}}), second = rec;
    first.next = &second;
    Log_Capture log;
    Sect_Node *sections = nullptr;
    EXPECT_EQ(Tarn_Cluster_All_Serv_To_Sect_Node(&first, &sections), -EINVAL);
    Free_Sect_Node(sections);
    EXPECT_THAT(errors_in(log),
                ElementsAre(error_line("Tarn_Cluster_All_Serv_To_Sect_Node",
                                       "Can't allocate a section node for a Tarn cluster slave conf!")));
  }
}

TEST(Member_List_To_Sections, When_Memory_Ends_It_Is_Said_And_What_Was_Made_Is_The_Callers) {
  Tarn_Serv_Conf first = full_record("m1", all_bits), second = full_record("m2", all_bits);
  first.next = &second;
  Log_Capture log;
  Sect_Node *sections = nullptr;
  int sections_failed = 0;
  const int allocations = with_each_allocation_failing(
      [&] {
        sections = nullptr;
        return Tarn_Cluster_All_Serv_To_Sect_Node(&first, &sections);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        Free_Sect_Node(sections);
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_THAT(errors_in(log),
                    ElementsAre(error_line("Tarn_Cluster_All_Serv_To_Sect_Node",
                                           "Can't allocate a section node for a Tarn cluster slave conf!")));
        for (const Log_Line &line : log.lines()) {
          sections_failed += line.level == "debug" && line.text == "Can't crate a sect node error! (-12)";
        }
        log.clear();
      });
  const Sections owned(sections);
  EXPECT_EQ(allocations, 46);  // a section and 22 pairs each
  EXPECT_EQ(sections_failed, 2);
  EXPECT_THAT(names_of(sections), ElementsAre("m1", "m2"));
}

}  // namespace
}  // namespace tarn::test
