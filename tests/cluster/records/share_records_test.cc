#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/records/record_at_page_end.h"
#include "tests/cluster/records/share_samples.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

// The layout is part of the interface.
static_assert(sizeof(Tarn_Share_Conf) == 4200);
static_assert(offsetof(Tarn_Share_Conf, next) == 0);
static_assert(offsetof(Tarn_Share_Conf, fields) == 8);
static_assert(offsetof(Tarn_Share_Conf, Name) == 12 && sizeof(Tarn_Share_Conf::Name) == 65);
static_assert(offsetof(Tarn_Share_Conf, path) == 77 && sizeof(Tarn_Share_Conf::path) == 4096);
static_assert(offsetof(Tarn_Share_Conf, read_list) == 4176);
static_assert(offsetof(Tarn_Share_Conf, write_list) == 4184);
static_assert(offsetof(Tarn_Share_Conf, invalid_users) == 4192);

constexpr size_t longest_value = 4095;
constexpr size_t longest_name = 64;

int listed(const std::string &text, Shares &out) {
  Tarn_Share_Conf *list = nullptr;
  const int status = Tarn_Cluster_All_Share_From_Sect_Node(parsed(text).get(), &list);
  out.reset(list);
  return status;
}

// On memory that has been used before, as a caller's is.
int single(const std::string &text, Shares &out) {
  const Sections section = parsed(text);
  void *used = malloc(sizeof(Tarn_Share_Conf));
  memset(used, 0xa5, sizeof(Tarn_Share_Conf));
  free(used);
  Tarn_Share_Conf *rec = nullptr;
  const int status = Tarn_Share_From_Sect_Node(section.get(), &rec);
  out.reset(rec);
  return status;
}

struct Reader {
  const char *name;
  int (*read)(const std::string &text, Shares &out);
};

const Reader readers[] = {{"the list reader", listed}, {"the single reader", single}};

std::string section_with(const std::string &key, const std::string &value) {
  return "[s1]\n" + key + " = " + value + "\n";
}

Share_Content content(const std::string &name, const std::vector<std::pair<std::string, std::string>> &values) {
  return content_of(*share(name, values));
}

// One record into new sections.
struct Made {
  int status;
  Sections sections;
};
Made made_of(const Tarn_Share_Conf *list) {
  Sect_Node *sections = nullptr;
  const int status = Tarn_Cluster_All_Share_To_Sect_Node(list, &sections);
  return {status, Sections(sections)};
}

// ------------------------------------------------------------------------------------------------ release and preset

TEST(Share_Record, Preset_Zeroes_The_Whole_Record) {
  Tarn_Share_Conf rec;
  memset(&rec, 0xff, sizeof rec);
  Tarn_Cluster_Share_List_Preset(&rec);
  const Tarn_Share_Conf zero = {};
  EXPECT_EQ(rec.next, nullptr);
  EXPECT_EQ(memcmp(&rec, &zero, sizeof rec), 0);
}

TEST(Share_Record, Preset_And_Release_Ignore_A_Missing_Record) {
  Tarn_Cluster_Share_List_Preset(nullptr);
  Release_Share_List_Conf(nullptr);
}

TEST(Share_Record, Release_Frees_A_Long_List_Without_Recursion) {
  Tarn_Share_Conf *list = nullptr;
  for (int i = 0; i < 100000; ++i) {
    auto *rec = static_cast<Tarn_Share_Conf *>(calloc(1, sizeof(Tarn_Share_Conf)));
    rec->next = list;
    list = rec;
  }
  Release_Share_List_Conf(list);
}

// The sanitizer sees a single text that is left; elsewhere a hundred lists show it.
TEST(Share_Record, Release_Frees_Every_Text_That_Is_Set_Whatever_The_Mask_Says) {
  const auto make_and_release = [](unsigned mask) {
    for (int i = 0; i < 100; ++i) {
      Shares list = joined(full_share("s1", mask), joined(share("s2", {}), full_share("s3", mask)));
      for (Tarn_Share_Conf *rec = list.get(); rec != nullptr; rec = rec->next) {
        if (rec->read_list == nullptr) continue;
        for (const Share_Field &field : share_fields) set(*rec, field, std::string(4000, 'x'));
        rec->fields = mask;
      }
    }
  };
  for (const unsigned mask : {0u, all_share_bits, 0x2u, 0x4u, 0x8u}) {
    make_and_release(mask);
    const size_t before = mallinfo2().uordblks;
    make_and_release(mask);
    EXPECT_LT(mallinfo2().uordblks, before + 100'000) << "mask " << mask;
  }
}

TEST(Share_Record, The_Mask_Names_Of_The_Header_Are_The_Bits) {
  EXPECT_EQ(TARN_SHARE_NAME, 0x1u);
  EXPECT_EQ(TARN_SHARE_READ_LIST, 0x2u);
  EXPECT_EQ(TARN_SHARE_WRITE_LIST, 0x4u);
  EXPECT_EQ(TARN_SHARE_INVALID_USERS, 0x8u);
  EXPECT_EQ(TARN_SHARE_PATH, 0x10u);
  EXPECT_EQ(TARN_SHARE_ALL, 0x1Fu);
}

// ------------------------------------------------------------------------------------------------- each field alone

class Share_Field_Alone : public testing::TestWithParam<Share_Field> {
 protected:
  const Share_Field &field_ = share_field_of(GetParam().key);
};

INSTANTIATE_TEST_SUITE_P(Each, Share_Field_Alone, testing::ValuesIn(share_fields), [](const auto &instance) {
  std::string name = instance.param.key;
  for (char &c : name) c = c == ' ' ? '_' : c;
  return name;
});

TEST_P(Share_Field_Alone, Is_Read_By_Both_Readers_With_Its_Bit_And_Nothing_Else) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Shares rec;
    ASSERT_EQ(reader.read(section_with(field_.key, sample(field_)), rec), 0);
    EXPECT_EQ(content_of(*rec), content("s1", {{field_.key, sample(field_)}}));
    EXPECT_EQ(rec->next, nullptr);
  }
}

TEST_P(Share_Field_Alone, Is_Left_Empty_With_Its_Bit_Clear_When_Its_Key_Is_Missing) {
  std::string text = "[s1]\nother = x\n";
  const Shares expected = share("s1", {});
  for (const Share_Field &field : share_fields) {
    if (field.bit == field_.bit) continue;
    text += std::string(field.key) + " = " + sample(field) + "\n";
    set(*expected, field, sample(field));
  }
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Shares rec;
    ASSERT_EQ(reader.read(text, rec), 0);
    EXPECT_EQ(content_of(*rec), content_of(*expected));
  }
}

TEST_P(Share_Field_Alone, Is_The_Only_Key_Of_A_New_Section_When_Its_Bit_Is_The_Only_One) {
  const Made made = made_of(full_share("s1", field_.bit).get());
  ASSERT_EQ(made.status, 0);
  EXPECT_STREQ(made.sections->name, "s1");
  EXPECT_THAT(pairs_of(*made.sections), ElementsAre(Pair(field_.key, sample(field_))));
}

TEST_P(Share_Field_Alone, Is_The_Only_Key_Left_Out_Of_A_New_Section_When_Its_Bit_Is_The_Only_One_Clear) {
  const Made made = made_of(full_share("s1", all_share_bits & ~field_.bit).get());
  ASSERT_EQ(made.status, 0);
  EXPECT_THAT(keys_of(*made.sections), SizeIs(3));
  EXPECT_THAT(keys_of(*made.sections), testing::Not(testing::Contains(field_.key)));
}

TEST_P(Share_Field_Alone, Is_The_Only_Key_Added_To_A_Section_When_Its_Bit_Is_The_Only_One) {
  const Sections section = parsed("[s1]\nCustom = kept\n");
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share("other", field_.bit).get(), section.get()), 0);
  EXPECT_STREQ(section->name, "s1");
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("Custom", "kept"), Pair(field_.key, sample(field_))));
}

TEST_P(Share_Field_Alone, Is_Replaced_In_Place_In_A_Section_And_The_Other_Keys_Stay) {
  std::string text = "[s1]\n";
  Pairs expected;
  for (const Share_Field &field : share_fields) {
    text += std::string(field.key) + " = 1\n";
    expected.emplace_back(field.key, field.bit == field_.bit ? sample(field) : "1");
  }
  const Sections section = parsed(text);
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share("other", field_.bit).get(), section.get()), 0);
  EXPECT_EQ(pairs_of(*section), expected);
}

TEST_P(Share_Field_Alone, Is_Read_Up_To_4095_Characters_And_Counts_As_Absent_From_4096_On) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    const std::string longest = std::string(longest_value - 1, 'x') + "y";
    Shares rec;
    ASSERT_EQ(reader.read(section_with(field_.key, longest), rec), 0);
    EXPECT_EQ(content_of(*rec), content("s1", {{field_.key, longest}}));

    for (const size_t more : {1, 2, 10000}) {
      ASSERT_EQ(reader.read(section_with(field_.key, longest + std::string(more, 'z')), rec), 0);
      EXPECT_EQ(content_of(*rec), content("s1", {}));
    }
  }
}

TEST_P(Share_Field_Alone, Is_Taken_From_The_First_Of_A_Repeated_Key_Even_When_That_Is_Too_Long) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    const std::string second = std::string(field_.key) + " = second\n";
    Shares rec;
    ASSERT_EQ(reader.read(section_with(field_.key, "first") + second, rec), 0);
    EXPECT_EQ(content_of(*rec), content("s1", {{field_.key, "first"}}));
    ASSERT_EQ(reader.read(section_with(field_.key, std::string(longest_value + 1, 'x')) + second, rec), 0);
    EXPECT_EQ(content_of(*rec), content("s1", {}));
  }
}

TEST_P(Share_Field_Alone, May_Be_Empty_And_Has_Its_Bit_Then) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Shares rec;
    ASSERT_EQ(reader.read(section_with(field_.key, ""), rec), 0);
    EXPECT_EQ(content_of(*rec), content("s1", {{field_.key, ""}}));
    const Made made = made_of(rec.get());
    ASSERT_EQ(made.status, 0);
    EXPECT_THAT(pairs_of(*made.sections), ElementsAre(Pair(field_.key, "")));
  }
}

TEST_P(Share_Field_Alone, Does_Not_Hide_The_Others_When_It_Is_Too_Long) {
  std::string text = "[s1]\n";
  const Shares expected = share("s1", {});
  for (const Share_Field &field : share_fields) {
    const bool is_long = field.bit == field_.bit;
    text += std::string(field.key) + " = " + (is_long ? std::string(longest_value + 1, 'x') : "x") + "\n";
    if (!is_long) set(*expected, field, "x");
  }
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Shares rec;
    ASSERT_EQ(reader.read(text, rec), 0);
    EXPECT_EQ(content_of(*rec), content_of(*expected));
  }
}

TEST_P(Share_Field_Alone, With_A_Newline_Is_Refused) {
  const Shares rec = share("s1", {{field_.key, "a\n[s2]"}});
  Log_Capture log;
  EXPECT_EQ(made_of(rec.get()).status, -EINVAL);
  const Sections section = parsed(section_with(field_.key, "old"));
  EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()), -EINVAL);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair(field_.key, "old")));
  EXPECT_THAT(log.lines(), IsEmpty());  // of a key, only the result tells
}

// ------------------------------------------------------------------------------------------------------------- owners

TEST(Share_Texts, Are_Allocations_As_Long_As_Their_Values) {
  for (const Reader &reader : readers) {
    for (const size_t length : {0, 23, 24, 25, 100, 4095}) {
      SCOPED_TRACE(reader.name + std::string(", ") + std::to_string(length));
      Shares rec;
      const std::string value(length, 'x');
      ASSERT_EQ(
          reader.read("[s1]\nread list =" + value + "\nwrite list =" + value + "\ninvalid users =" + value + "\n", rec),
          0);
      void *as_long = malloc(length + 1);
      const size_t size = malloc_usable_size(as_long);
      free(as_long);
      for (char *text : {rec->read_list, rec->write_list, rec->invalid_users}) {
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(malloc_usable_size(text), size);
      }
    }
  }
}

TEST(Share_Texts, Stay_When_The_Sections_Are_Gone) {
  Shares list;
  ASSERT_EQ(listed("[s1]\nread list = a\npath = /share/s1\n[s2]\nread list = b\n", list), 0);
  EXPECT_THAT(contents_of(list.get()), ElementsAre(content("s1", {{"read list", "a"}, {"path", "/share/s1"}}),
                                                   content("s2", {{"read list", "b"}})));
}

// ------------------------------------------------------------------------------------------------------------- orders

const char *const keys_in_order[] = {"read list", "write list", "invalid users", "path"};

TEST(Share_Orders, A_New_Section_Has_Its_Keys_In_One_Order) {
  const Made made = made_of(full_share("s1", all_share_bits).get());
  ASSERT_EQ(made.status, 0);
  Pairs expected;
  for (const char *key : keys_in_order) expected.emplace_back(key, sample(share_field_of(key)));
  EXPECT_EQ(pairs_of(*made.sections), expected);
}

TEST(Share_Orders, A_Section_Gets_The_Keys_That_It_Lacks_In_The_Same_Order) {
  const Sections section = parsed("[s1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share("s1", all_share_bits).get(), section.get()), 0);
  EXPECT_THAT(keys_of(*section), ElementsAre("x", "read list", "write list", "invalid users", "path"));
}

TEST(Share_Orders, Keys_That_A_Section_Has_Keep_Their_Places) {
  const Sections section = parsed("[s1]\npath = old\nx = 1\nwrite list = old\n");
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share("s1", all_share_bits).get(), section.get()), 0);
  EXPECT_THAT(keys_of(*section), ElementsAre("path", "x", "write list", "read list", "invalid users"));
  EXPECT_EQ(pairs_of(*section)[0].second, "sample of path");
  EXPECT_EQ(pairs_of(*section)[2].second, "sample of write list");
}

// -------------------------------------------------------------------------------------------------------------- names

TEST(Share_Names, Are_Read_Without_Their_Bit) {
  for (const Reader &reader : readers) {
    SCOPED_TRACE(reader.name);
    Shares rec;
    ASSERT_EQ(reader.read("[s1]\npath = p\n", rec), 0);
    EXPECT_STREQ(rec->Name, "s1");
    EXPECT_EQ(rec->fields, 0x10u);
  }
}

TEST(Share_Names, Are_Read_Up_To_64_Characters_And_Longer_Ones_Are_Cut_There) {
  for (const Reader &reader : readers) {
    for (const size_t length : {63, 64, 65, 66, 4000}) {
      SCOPED_TRACE(reader.name + std::string(", ") + std::to_string(length));
      Shares rec;
      ASSERT_EQ(reader.read("[" + std::string(length, 'n') + "]\nread list = r\n", rec), 0);
      const std::string kept(std::min(length, longest_name), 'n');
      EXPECT_EQ(std::string(rec->Name, kept.size() + 1), kept + '\0');
      EXPECT_EQ(rec->path[0], '\0');  // the field behind it
      EXPECT_EQ(content_of(*rec), content(kept, {{"read list", "r"}}));
    }
  }
}

TEST(Share_Names, Of_65_Characters_Without_Terminator_Are_Written_And_No_More) {
  const Shares rec = share("", {{"path", "/p"}});
  memset(rec->Name, 'n', sizeof rec->Name);
  rec->fields |= share_name_bit;
  const std::string name(65, 'n');
  const Made made = made_of(rec.get());
  ASSERT_EQ(made.status, 0);
  EXPECT_EQ(made.sections->name, name);

  const Sections section = parsed("[s1]\nx = 1\n");
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()), 0);
  EXPECT_EQ(section->name, name);
}

TEST(Share_Names, Name_A_New_Section_Whether_Their_Bit_Is_Set_Or_Not) {
  for (const unsigned bit : {0u, share_name_bit}) {
    const Made made = made_of(full_share("s1", bit | 0x10).get());
    ASSERT_EQ(made.status, 0);
    EXPECT_STREQ(made.sections->name, "s1");
    EXPECT_THAT(keys_of(*made.sections), ElementsAre("path"));
  }
}

TEST(Share_Names, Rename_A_Section_When_Their_Bit_Is_Set) {
  for (const std::string &name : {std::string("t"), std::string(longest_name, 'n')}) {
    const Sections section = parsed("[s1]\nx = 1\n");
    ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share(name, share_name_bit).get(), section.get()), 0);
    EXPECT_EQ(section->name, name);
    EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1")));
  }
}

TEST(Share_Names, That_Would_Break_The_File_Are_Refused) {
  for (const std::string name : {"", "a]b", "a\nb"}) {
    SCOPED_TRACE(name);
    const Shares list = joined(share("s1", {{"path", "p"}}), full_share(name, all_share_bits));
    {
      Log_Capture log;
      EXPECT_EQ(made_of(list.get()).status, -EINVAL);
      EXPECT_THAT(log.lines(), ElementsAre(error_line("Tarn_Cluster_All_Share_To_Sect_Node",
                                                      "Can't allocate a section node for a Tarn cluster slave conf!")));
    }
    const Sections section = parsed("[s1]\npath = p\n");
    EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(list->next, section.get()), -EINVAL);
    EXPECT_STREQ(section->name, "s1");
    EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("path", "p")));
  }
}

// ---------------------------------------------------------------------------------------------- sections into a list

TEST(Share_List_From_Sections, Keeps_The_Order_And_Duplicates) {
  Shares list;
  ASSERT_EQ(listed("[b]\npath = 1\n[a]\npath = 2\n[b]\npath = 3\n[c]\npath = 4\n", list), 0);
  EXPECT_THAT(contents_of(list.get()), ElementsAre(content("b", {{"path", "1"}}), content("a", {{"path", "2"}}),
                                                   content("b", {{"path", "3"}}), content("c", {{"path", "4"}})));
}

TEST(Share_List_From_Sections, Refuses_Missing_Arguments) {
  const Sections sections = parsed("[s1]\npath = p\n");
  Tarn_Share_Conf *list = nullptr;
  EXPECT_EQ(Tarn_Cluster_All_Share_From_Sect_Node(nullptr, &list), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_All_Share_From_Sect_Node(sections.get(), nullptr), -EINVAL);
  EXPECT_EQ(list, nullptr);
}

// Callers take such a file for a broken one.
TEST(Share_List_From_Sections, Refuses_A_First_Section_Without_Keys) {
  Shares list;
  EXPECT_EQ(listed("[s1]\n[s2]\npath = p\n", list), -EINVAL);
  EXPECT_EQ(list, nullptr);
}

TEST(Share_List_From_Sections, Takes_A_Later_Section_Without_Keys) {
  Shares list;
  ASSERT_EQ(listed("[s1]\nx = 1\n[s2]\n", list), 0);
  EXPECT_THAT(contents_of(list.get()), ElementsAre(content("s1", {}), content("s2", {})));
}

TEST(Share_List_From_Sections, Takes_A_Nameless_Section_With_An_Empty_Name) {
  Shares list;
  ASSERT_EQ(listed("path = p\n[s2]\npath = q\n", list), 0);
  EXPECT_THAT(contents_of(list.get()), ElementsAre(content("", {{"path", "p"}}), content("s2", {{"path", "q"}})));
}

TEST(Share_List_From_Sections, When_Memory_Ends_It_Is_Said_And_The_Records_Made_So_Far_Are_The_Callers) {
  const Sections sections =
      parsed("[s1]\nread list = r\nwrite list = w\ninvalid users = i\npath = p\n[s2]\nread list = r\n");
  Log_Capture log;
  Tarn_Share_Conf elsewhere;
  Tarn_Share_Conf *list = nullptr;
  const int allocations = with_each_allocation_failing(
      [&] {
        list = &elsewhere;
        return Tarn_Cluster_All_Share_From_Sect_Node(sections.get(), &list);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        ASSERT_NE(list, &elsewhere);  // without a record there is none to release
        const Shares made(list);
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_THAT(names_of(list), SizeIs(nth == 1 ? 0 : nth < 6 ? 1 : 2));
        EXPECT_THAT(errors_in(log), ElementsAre(error_line("Tarn_Cluster_All_Share_From_Sect_Node",
                                                           "Can't allocate memory for slave list section! (-12)")));
        log.clear();
      });
  const Shares owned(list);
  EXPECT_EQ(allocations, 6);  // two records, four texts
  EXPECT_THAT(log.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------ one section

TEST(Share_From_Section, Takes_A_Section_Without_Keys) {
  Shares rec;
  ASSERT_EQ(single("[s1]\n", rec), 0);
  EXPECT_EQ(content_of(*rec), content("s1", {}));
}

TEST(Share_From_Section, Takes_Only_The_Section_That_Is_Given) {
  Shares rec;
  ASSERT_EQ(single("[s1]\npath = p\n[s2]\nread list = r\n", rec), 0);
  EXPECT_EQ(content_of(*rec), content("s1", {{"path", "p"}}));
  EXPECT_EQ(rec->next, nullptr);
}

TEST(Share_From_Section, Refuses_Missing_Arguments) {
  const Sections section = parsed("[s1]\npath = p\n");
  Tarn_Share_Conf *rec = nullptr;
  EXPECT_EQ(Tarn_Share_From_Sect_Node(nullptr, &rec), -EINVAL);
  EXPECT_EQ(Tarn_Share_From_Sect_Node(section.get(), nullptr), -EINVAL);
  EXPECT_EQ(rec, nullptr);
}

// A record without its "invalid users" would open the share to them with the next writing.
TEST(Share_From_Section, When_Memory_Ends_It_Is_Said_And_There_Is_No_Record) {
  const Sections section = parsed("[s1]\nread list = r\nwrite list = w\ninvalid users = i\npath = p\n");
  Log_Capture log;
  Tarn_Share_Conf elsewhere;
  Tarn_Share_Conf *rec = nullptr;
  const int allocations = with_each_allocation_failing(
      [&] {
        rec = &elsewhere;
        return Tarn_Share_From_Sect_Node(section.get(), &rec);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        EXPECT_EQ(status, -ENOMEM);
        EXPECT_EQ(rec, nullptr);
        EXPECT_THAT(errors_in(log), ElementsAre(error_line("Tarn_Share_From_Sect_Node",
                                                           "Can't allocate memory for share list section! (-12)")));
        log.clear();
      });
  const Shares owned(rec);
  EXPECT_EQ(allocations, 4);
  EXPECT_EQ(content_of(*rec),
            content("s1", {{"read list", "r"}, {"write list", "w"}, {"invalid users", "i"}, {"path", "p"}}));
}

// ------------------------------------------------------------------------------------------------- list into sections

TEST(Share_List_To_Sections, Makes_One_Section_For_Each_Record_In_Order) {
  const Shares list = joined(share("b", {{"path", "1"}}), joined(share("a", {{"path", "2"}}), share("b", {})));
  const Made made = made_of(list.get());
  ASSERT_EQ(made.status, 0);
  EXPECT_THAT(names_of(made.sections.get()), ElementsAre("b", "a", "b"));
  EXPECT_THAT(pairs_of(*made.sections), ElementsAre(Pair("path", "1")));
  EXPECT_THAT(pairs_of(*made.sections->next), ElementsAre(Pair("path", "2")));
  EXPECT_THAT(pairs_of(*made.sections->next->next), IsEmpty());
}

TEST(Share_List_To_Sections, Refuses_Missing_Arguments) {
  const Shares rec = share("s1", {{"path", "p"}});
  Log_Capture log;
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Tarn_Cluster_All_Share_To_Sect_Node(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_All_Share_To_Sect_Node(rec.get(), nullptr), -EINVAL);
  EXPECT_EQ(sections, nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Share_List_To_Sections, Bits_That_Mean_Nothing_Are_Ignored) {
  const Made made = made_of(full_share("s1", 0xFFFFFFE0u).get());
  ASSERT_EQ(made.status, 0);
  EXPECT_THAT(keys_of(*made.sections), IsEmpty());
}

TEST(Share_List_To_Sections, A_Bit_Whose_Text_Is_Null_Is_Refused) {
  for (const Share_Field &field : share_fields) {
    if (field.list == nullptr) continue;
    SCOPED_TRACE(field.key);
    const Shares rec = share("s1", {{"path", "p"}});
    rec->fields |= field.bit;
    Log_Capture log;
    EXPECT_EQ(made_of(rec.get()).status, -EINVAL);
    EXPECT_THAT(log.lines(), IsEmpty());
  }
}

// The lists stand behind the path, so that an endless path could run on into their addresses.
TEST(Share_List_To_Sections, A_Path_That_Does_Not_End_In_Its_Field_Is_Refused) {
  Record_At_Page_End<Tarn_Share_Conf> at_end;
  Tarn_Share_Conf &rec = at_end.get();
  strcpy(rec.Name, "s1");
  memset(rec.path, 'p', sizeof rec.path);
  rec.fields = 0x10;
  EXPECT_EQ(made_of(&rec).status, -EINVAL);
  const Sections section = parsed("[s1]\npath = old\n");
  EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(&rec, section.get()), -EINVAL);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("path", "old")));

  rec.path[4095] = '\0';
  const Made made = made_of(&rec);
  ASSERT_EQ(made.status, 0);
  EXPECT_THAT(pairs_of(*made.sections), ElementsAre(Pair("path", std::string(4095, 'p'))));
}

TEST(Share_List_To_Sections, Lists_Longer_Than_Readers_Take_Are_Written_Whole) {
  const std::string value(20000, 'x');
  const Made made = made_of(share("s1", {{"invalid users", value}}).get());
  ASSERT_EQ(made.status, 0);
  EXPECT_THAT(pairs_of(*made.sections), ElementsAre(Pair("invalid users", value)));
}

TEST(Share_List_To_Sections, When_Memory_Ends_A_Section_Is_Said_A_Key_Is_Not_And_What_Was_Made_Is_The_Callers) {
  const Shares list = joined(full_share("s1", all_share_bits), full_share("s2", all_share_bits));
  Log_Capture log;
  Sect_Node *sections = nullptr;
  const int allocations = with_each_allocation_failing(
      [&] {
        sections = nullptr;
        return Tarn_Cluster_All_Share_To_Sect_Node(list.get(), &sections);
      },
      [&](int status, int nth) {
        SCOPED_TRACE(nth);
        Free_Sect_Node(sections);
        EXPECT_EQ(status, -ENOMEM);
        const std::vector<Log_Line> said = {error_line("Tarn_Cluster_All_Share_To_Sect_Node",
                                                       "Can't allocate a section node for a Tarn cluster slave conf!")};
        EXPECT_EQ(log.lines(), nth == 1 || nth == 6 ? said : std::vector<Log_Line>{});
        log.clear();
      });
  const Sections owned(sections);
  EXPECT_EQ(allocations, 10);  // a section and four pairs each
}

// --------------------------------------------------------------------------------------------- updating a section

TEST(Share_To_Section, Leaves_Keys_Alone_Whose_Bits_Are_Clear) {
  const Sections section = parsed("[s1]\nread list = r\nwrite list = w\ninvalid users = i\npath = p\n");
  const Pairs before = pairs_of(*section);
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(full_share("s2", 0xFFFFFFE0u).get(), section.get()), 0);
  EXPECT_STREQ(section->name, "s1");
  EXPECT_EQ(pairs_of(*section), before);
}

// Creating a section refuses such a record; callers of the update depend on it.
TEST(Share_To_Section, A_Bit_Whose_Text_Is_Null_Removes_The_Key) {
  for (const Share_Field &field : share_fields) {
    if (field.list == nullptr) continue;
    SCOPED_TRACE(field.key);
    const Sections section = parsed("[s1]\nx = 1\n" + std::string(field.key) + " = old\ny = 2\n");
    const Shares rec = share("s1", {});
    rec->fields = field.bit;
    EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()), 0);
    EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("y", "2")));
    EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()), 0);  // nothing to remove
    EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("y", "2")));
  }
}

TEST(Share_To_Section, Sets_The_First_Of_A_Repeated_Key) {
  const Sections section = parsed("[s1]\npath = 1\npath = 2\n");
  ASSERT_EQ(Tarn_Cluster_Share_To_Sect_Node(share("s1", {{"path", "new"}}).get(), section.get()), 0);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("path", "new"), Pair("path", "2")));
}

TEST(Share_To_Section, Stops_At_The_First_Key_That_Fails) {
  const Sections section = parsed("[s1]\nx = 1\n");
  const Shares rec = share("s1", {{"read list", "r"}, {"write list", "a\nb"}, {"path", "p"}});
  EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()), -EINVAL);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1"), Pair("read list", "r")));
}

TEST(Share_To_Section, Refuses_Missing_Arguments) {
  const Sections section = parsed("[s1]\nx = 1\n");
  const Shares rec = share("s1", {{"path", "p"}});
  EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(nullptr, section.get()), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Share_To_Sect_Node(rec.get(), nullptr), -EINVAL);
  EXPECT_THAT(pairs_of(*section), ElementsAre(Pair("x", "1")));
}

TEST(Share_To_Section, When_Memory_Ends_It_Is_Returned) {
  const Shares rec = full_share("s1", all_share_bits);
  Sections section = parsed("[s1]\nx = 1\n");
  const int allocations =
      with_each_allocation_failing([&] { return Tarn_Cluster_Share_To_Sect_Node(rec.get(), section.get()); },
                                   [&](int status, int nth) {
                                     SCOPED_TRACE(nth);
                                     EXPECT_EQ(status, -ENOMEM);
                                     EXPECT_THAT(keys_of(*section), SizeIs(nth));
                                     section = parsed("[s1]\nx = 1\n");
                                   });
  EXPECT_EQ(allocations, 4);
}

}  // namespace
}  // namespace tarn::test
