#include "sysinfo/block_devices.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/allocation_failure.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/log_capture.h"
#include "tests/sysinfo/disks.h"

namespace {

using namespace tarn::test;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

static_assert(sizeof(Block_Device) == 32 && offsetof(Block_Device, device) == 8 && offsetof(Block_Device, uuid) == 16 &&
              offsetof(Block_Device, type) == 24 && offsetof(Block_Device, type2) == 32);

// ------------------------------------------------------------------------------------------------- a tag of one line

struct Tag_Value {
  int status;
  std::string value;
  int length;

  bool operator==(const Tag_Value &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Tag_Value &tag) {
  return out << tag.status << " \"" << tag.value << "\" " << tag.length;
}

// The buffer is as large as it is said to be; "?" stands for one that was not written to.
Tag_Value tag_value(const char *line, const char *tag, int room) {
  std::vector<char> buffer(static_cast<size_t>(room), '\0');
  buffer[0] = '?';
  const int status = tarn::Get_Blkid_Tag_Value(line, tag, buffer.data(), &room);
  return {status, std::string(buffer.data(), strnlen(buffer.data(), buffer.size())), room};
}

TEST(Tag_Of_A_Line, Runs_from_behind_its_opening_quote_to_the_next_quote) {
  EXPECT_EQ(tag_value("/dev/a: LABEL=\"my disk\" TYPE=\"ext4\"", "LABEL", 16), (Tag_Value{0, "my disk", 7}));
  EXPECT_EQ(tag_value("/dev/a: LABEL=\"my disk\" TYPE=\"ext4\"", "TYPE", 16), (Tag_Value{0, "ext4", 4}));
  EXPECT_EQ(tag_value(" A=\"\"", "A", 16), (Tag_Value{0, "", 0}));
}

TEST(Tag_Of_A_Line, Is_found_behind_a_blank_only_and_at_its_first_place) {
  EXPECT_EQ(tag_value("x: PARTUUID=\"1\" UUID=\"2\" UUID=\"3\"", "UUID", 16), (Tag_Value{0, "2", 1}));
  EXPECT_EQ(tag_value("UUID=\"1\"", "UUID", 16), (Tag_Value{-ENODATA, "?", 16}));
  EXPECT_EQ(tag_value("x: UUID_SUB=\"1\" UUID=2 ", "UUID", 16), (Tag_Value{-ENODATA, "?", 16}));
}

TEST(Tag_Of_A_Line, Without_a_closing_quote_is_none) {
  EXPECT_EQ(tag_value("x: UUID=\"12", "UUID", 16), (Tag_Value{-ENODATA, "?", 16}));
  EXPECT_EQ(tag_value("x: UUID=\"", "UUID", 16), (Tag_Value{-ENODATA, "?", 16}));
}

TEST(Tag_Of_A_Line, That_does_not_fit_tells_its_length_and_copies_nothing) {
  EXPECT_EQ(tag_value(" A=\"1234\"", "A", 5), (Tag_Value{0, "1234", 4}));
  EXPECT_EQ(tag_value(" A=\"1234\"", "A", 4), (Tag_Value{-EOVERFLOW, "?", 4}));
  EXPECT_EQ(tag_value(" A=\"1234567\"", "A", 1), (Tag_Value{-EOVERFLOW, "?", 7}));
}

TEST(Tag_Of_A_Line, Without_a_length_is_copied_whole) {
  char buffer[300];
  const std::string value(280, 'v');
  EXPECT_EQ(tarn::Get_Blkid_Tag_Value((" A=\"" + value + "\"").c_str(), "A", buffer, nullptr), 0);
  EXPECT_EQ(buffer, value);
  EXPECT_EQ(tarn::Get_Blkid_Tag_Value("", "A", buffer, nullptr), -ENODATA);
}

// ----------------------------------------------------------------------------------------------------------- the list

struct Device {
  std::string device, uuid, type, type2;

  bool operator==(const Device &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Device &device) {
  return out << device.device << " uuid " << device.uuid << " type " << device.type << " type2 " << device.type2;
}

// The queries of a process without a free descriptor, which cannot start a program.
template <typename Call>
int without_descriptors(Call call) {
  rlimit before;
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none = {0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const int status = call();
  setrlimit(RLIMIT_NOFILE, &before);
  return status;
}

class Block_Device_Test : public Descriptor_Count {
 protected:
  ~Block_Device_Test() override { remove_block_id(); }
  Log_Capture log_;
};

class Block_Device_List : public Block_Device_Test {
 protected:
  ~Block_Device_List() override { give_back(); }

  void give_back() {
    while (list_ != nullptr) {
      Block_Device *const next = list_->next;
      free(list_);
      list_ = next;
    }
  }

  std::vector<Device> devices() const {
    std::vector<Device> found;
    for (const Block_Device *one = list_; one != nullptr; one = one->next) {
      found.push_back({one->device, one->uuid, one->type, one->type2});
    }
    return found;
  }

  std::vector<Device> scan(const std::string &output) {
    use_block_id_that_prints(output);
    give_back();
    EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
    EXPECT_EQ(log_.text(), "");
    return devices();
  }

  Block_Device *list_ = nullptr;
};

TEST_F(Block_Device_List, Needs_a_holder) {
  use_block_id_script("touch /tmp/ran");
  EXPECT_EQ(Scan_Block_Device_Info(nullptr), -EINVAL);
  EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(Block_Device_List, Has_a_device_for_each_line_and_the_last_line_first) {
  EXPECT_THAT(
      scan("/dev/sda1: LABEL=\"a\" UUID=\"0a-1\" TYPE=\"ext4\"\n"
           "/dev/mapper/cachedev1: UUID=\"2b-3\" TYPE=\"btrfs\"\n"),
      ElementsAre(Device{"/dev/mapper/cachedev1", "2b-3", "btrfs", ""}, Device{"/dev/sda1", "0a-1", "ext4", ""}));
}

TEST_F(Block_Device_List, Goes_to_the_front_of_what_the_caller_has) {
  scan("/dev/a: UUID=\"1\"\n");
  use_block_id_that_prints("/dev/b: UUID=\"2\"\n/dev/c: UUID=\"3\"\n");
  EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
  EXPECT_THAT(devices(),
              ElementsAre(Device{"/dev/c", "3", "", ""}, Device{"/dev/b", "2", "", ""}, Device{"/dev/a", "1", "", ""}));
}

TEST_F(Block_Device_List, Holds_each_device_in_one_block_with_the_texts_in_their_order) {
  scan("/dev/sda1: UUID=\"0a-1\" TYPE=\"ext4\" PTTYPE=\"dos\"\n");
  ASSERT_NE(list_, nullptr);
  EXPECT_STREQ(list_->type2, "os");
  EXPECT_EQ(list_->type, list_->type2 + sizeof "os");
  EXPECT_EQ(list_->uuid, list_->type + sizeof "ext4");
  EXPECT_EQ(list_->device, list_->uuid + sizeof "0a-1");
}

TEST_F(Block_Device_List, Skips_lines_without_a_colon_and_empty_lines) {
  EXPECT_THAT(scan("no device UUID=\"1\" TYPE=\"ext4\"\n\n/dev/a: UUID=\"2\"\n\n"),
              ElementsAre(Device{"/dev/a", "2", "", ""}));
}

TEST_F(Block_Device_List, Ends_a_device_at_the_first_colon) {
  EXPECT_THAT(scan("/dev/a:b: UUID=\"1\"\n: UUID=\"2\"\nUUID=\"3\": TYPE=\"x\"\n"),
              ElementsAre(Device{"UUID=\"3\"", "", "x", ""}, Device{"", "2", "", ""}, Device{"/dev/a", "1", "", ""}));
}

TEST_F(Block_Device_List, Leaves_what_is_missing_empty) {
  EXPECT_THAT(scan("/dev/a:\n/dev/b: TYPE=\"swap\"\n/dev/c: UUID=\"\" TYPE=\"\"\n/dev/d: LABEL=\"x\"\n"),
              ElementsAre(Device{"/dev/d", "", "", ""}, Device{"/dev/c", "", "", ""}, Device{"/dev/b", "", "swap", ""},
                          Device{"/dev/a", "", "", ""}));
}

TEST_F(Block_Device_List, Takes_the_types_from_behind_the_uuid) {
  EXPECT_THAT(scan("/dev/a: TYPE=\"swap\" UUID=\"1\"\n/dev/b: SEC_TYPE=\"msdos\" UUID=\"2\" TYPE=\"vfat\"\n"),
              ElementsAre(Device{"/dev/b", "2", "vfat", ""}, Device{"/dev/a", "1", "", ""}));
}

// Callers depend on it: the list was never as strict as the queries.
TEST_F(Block_Device_List, Takes_tags_whose_names_end_in_uuid_or_type_too) {
  EXPECT_THAT(scan("/dev/a: PARTUUID=\"p\" UUID=\"u\" SEC_TYPE=\"msdos\" TYPE=\"vfat\"\n"),
              ElementsAre(Device{"/dev/a", "p", "msdos", "fat"}));
}

TEST_F(Block_Device_List, Drops_the_first_character_of_a_second_type) {
  EXPECT_THAT(scan("/dev/a: UUID=\"1\" TYPE=\"ext4\" PTTYPE=\"dos\" TYPE=\"third\"\n"
                   "/dev/b: TYPE=\"swap\" TYPE=\"x\"\n"),
              ElementsAre(Device{"/dev/b", "", "swap", ""}, Device{"/dev/a", "1", "ext4", "os"}));
}

// What is skipped of an empty second type is its closing quote.
TEST_F(Block_Device_List, Runs_an_empty_second_type_on_to_a_later_quote) {
  EXPECT_THAT(scan("/dev/a: TYPE=\"ext4\" TYPE=\"\" LABEL=\"x\"\n/dev/b: TYPE=\"ext4\" TYPE=\"\"\n"),
              ElementsAre(Device{"/dev/a", "", "ext4", " LABEL="}));
}

class Block_Device_Line_Without_An_End : public Block_Device_List, public testing::WithParamInterface<const char *> {};
INSTANTIATE_TEST_SUITE_P(, Block_Device_Line_Without_An_End,
                         testing::Values("UUID=\"", "UUID=\"12", "UUID=\"1\" TYPE=\"", "UUID=\"1\" TYPE=\"ext4",
                                         "TYPE=\"", "TYPE=\"ext4\" TYPE=\"", "TYPE=\"ext4\" TYPE=\"x",
                                         "TYPE=\"ext4\" TYPE=\"\""));

TEST_P(Block_Device_Line_Without_An_End, Is_skipped) {
  const std::string line = std::string("/dev/a: ") + GetParam();
  EXPECT_THAT(scan(line + "\n/dev/b: UUID=\"2\"\n"), ElementsAre(Device{"/dev/b", "2", "", ""}));
  EXPECT_THAT(scan(line), IsEmpty()) << "also as the last line";
}

TEST_F(Block_Device_List, Takes_a_last_line_without_newline) {
  EXPECT_THAT(scan("/dev/a: UUID=\"1\" TYPE=\"ext4\""), ElementsAre(Device{"/dev/a", "1", "ext4", ""}));
}

TEST_F(Block_Device_List, Sees_255_characters_of_a_line) {
  const std::string tail = "\" TYPE=\"ext4\"";
  const std::string head = "/dev/a: UUID=\"";
  const std::string fits(255 - head.size() - tail.size(), 'u');
  EXPECT_THAT(scan(head + fits + tail + "\n"), ElementsAre(Device{"/dev/a", fits, "ext4", ""}));
  EXPECT_THAT(scan(head + fits + "u" + tail + "\n"), IsEmpty());
}

// A label comes with a disk that somebody plugs in.
TEST_F(Block_Device_List, Takes_nothing_in_the_middle_of_a_line_for_a_device) {
  const std::string head = "/dev/sdb1: LABEL=\"";
  const std::string forged = "/dev/sda1: UUID=\"forged\" TYPE=\"ext4\" ";
  for (const size_t piece : {254, 255, 256, 510, 511}) {
    const std::string label = std::string(piece - head.size(), 'x') + forged;
    EXPECT_THAT(scan(head + label + "\" UUID=\"1\"\n/dev/c: UUID=\"2\"\n"),
                ElementsAre(Device{"/dev/c", "2", "", ""}, Device{"/dev/sdb1", "", "", ""}))
        << piece;
  }
}

TEST_F(Block_Device_List, Takes_any_bytes_as_they_are) {
  const std::string odd = "\x01\x7f\x80\xff%s%n$(x)'";
  EXPECT_THAT(scan("/dev/" + odd + ": UUID=\"" + odd + "\" TYPE=\"" + odd + "\" TYPE=\"." + odd + "\"\n"),
              ElementsAre(Device{"/dev/" + odd, odd, odd, odd}));
}

TEST_F(Block_Device_List, Ends_a_line_at_a_nul_and_goes_on_with_the_next) {
  const std::string nul(1, '\0');
  EXPECT_THAT(scan("/dev/a: UUID=\"1\" " + nul + "TYPE=\"x\"\n" + nul + "/dev/b: UUID=\"2\"\n/dev/c: UUID=\"3\"\n"),
              ElementsAre(Device{"/dev/c", "3", "", ""}, Device{"/dev/a", "1", "", ""}));
}

TEST_F(Block_Device_List, Shows_nothing_of_the_line_before) {
  EXPECT_THAT(scan("/dev/sda1: UUID=\"0123456789\" TYPE=\"ext4\" TYPE=\"second\"\n/dev/b:\n/dev/c: UUID=\"1\n"
                   "/dev/sda1: UUID=\"0123456789\" TYPE=\"ext4\" TYPE=\"second\"\n/dev/d: TYPE=\"x\" TYPE=\"\n"),
              ElementsAre(Device{"/dev/sda1", "0123456789", "ext4", "econd"}, Device{"/dev/b", "", "", ""},
                          Device{"/dev/sda1", "0123456789", "ext4", "econd"}));
}

TEST_F(Block_Device_List, Is_empty_without_the_tool) {
  scan("/dev/a: UUID=\"1\"\n");
  remove_block_id();
  EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
  EXPECT_EQ(without_descriptors([&] { return Scan_Block_Device_Info(&list_); }), 0) << "no program can be started";
  EXPECT_THAT(devices(), ElementsAre(Device{"/dev/a", "1", "", ""})) << "and what was there stays";
}

TEST_F(Block_Device_List, Keeps_what_was_read_when_memory_ends) {
  use_block_id_that_prints("/dev/a: UUID=\"1\" TYPE=\"ext4\"\n/dev/b: UUID=\"22\"\n/dev/c: UUID=\"3\"\n");
  // popen and its stream come first, then the three devices.
  std::vector<std::vector<Device>> kept;
  with_each_allocation_failing([&] { return Scan_Block_Device_Info(&list_); },
                               [&](int status, int) {
                                 if (status == -ENOMEM) kept.push_back(devices());
                                 EXPECT_THAT(status, testing::AnyOf(0, -ENOMEM));
                                 give_back();
                               });
  const Device a = {"/dev/a", "1", "ext4", ""}, b = {"/dev/b", "22", "", ""};
  EXPECT_THAT(kept, ElementsAre(IsEmpty(), ElementsAre(a), ElementsAre(b, a)));
  const auto line = [](size_t size) {
    return error_line("Scan_Block_Device_Info", "Can't allocate " + std::to_string(size) + " bytes memory!");
  };
  EXPECT_THAT(log_.lines(), ElementsAre(line(32 + 7 + 2 + 5 + 1), line(32 + 7 + 3 + 1 + 1), line(32 + 7 + 2 + 1 + 1)));
}

TEST_F(Block_Device_List, Is_whole_with_20000_devices) {
  std::string output;
  for (int i = 0; i < 20000; ++i) output += "/dev/d" + std::to_string(i) + ": UUID=\"" + std::to_string(i) + "\"\n";
  EXPECT_THAT(scan(output), SizeIs(20000));
}

TEST_F(Block_Device_List, Does_not_need_the_callers_child_signals) {
  const auto before = signal(SIGCHLD, SIG_IGN);
  EXPECT_THAT(scan("/dev/a: UUID=\"1\"\n"), SizeIs(1));
  signal(SIGCHLD, before);
}

// The command's redirection names a file that is none of the system's; it has always been so.
TEST_F(Block_Device_List, Sends_what_the_tool_complains_of_to_a_file_of_its_own) {
  use_block_id_script("echo complaint >&2; echo \"/dev/a: UUID=\\\"$#\\\"\"");
  EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
  EXPECT_THAT(devices(), ElementsAre(Device{"/dev/a", "0", "", ""})) << "run without arguments";
  EXPECT_EQ(read_file("/dev/NULL"), "complaint\n");
  EXPECT_EQ(unlink("/dev/NULL"), 0);
}

TEST_F(Block_Device_List, Is_empty_when_that_file_cannot_be_made) {
  unlink("/dev/NULL");
  ASSERT_EQ(mkdir("/dev/NULL", 0700), 0);
  EXPECT_THAT(scan("/dev/a: UUID=\"1\"\n"), IsEmpty());
  char uuid[40], label[16], type[12];
  EXPECT_EQ(Query_Block_Info_By_Path("/dev/a", uuid, label, type), -ENODEV);
  EXPECT_EQ(rmdir("/dev/NULL"), 0);
}

// -------------------------------------------------------------------------------------------- the queries of a device

// A text of the smallest size that is asked for, with a guard behind it; it holds something else before.
class Text {
 public:
  explicit Text(size_t size) : size_(size), bytes_(size + sizeof guard, 'x') {
    memcpy(bytes_.data() + size, guard, sizeof guard);
  }
  ~Text() { EXPECT_STREQ(bytes_.data() + size_, guard) << "written behind a text"; }
  Text(const Text &) = delete;
  Text &operator=(const Text &) = delete;

  char *data() { return bytes_.data(); }
  std::string text() const { return std::string(bytes_.data(), strnlen(bytes_.data(), size_)); }
  bool is_untouched() const { return text() == std::string(size_, 'x'); }

 private:
  static constexpr char guard[] = "guard";
  const size_t size_;
  std::vector<char> bytes_;
};

struct Answer {
  Text uuid{40}, device{24}, label{16}, type{12};

  bool is_untouched() const {
    return uuid.is_untouched() && device.is_untouched() && label.is_untouched() && type.is_untouched();
  }
};

struct Facts {
  int status;
  std::string id;  // the UUID or the device, whichever was asked for
  std::string label, type;

  bool operator==(const Facts &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Facts &facts) {
  return out << facts.status << " id " << facts.id << " label " << facts.label << " type " << facts.type;
}

const Facts nothing = {-ENODEV, "", "", ""};

Facts by_path(const std::string &path) {
  Answer to;
  const int status = Query_Block_Info_By_Path(path.c_str(), to.uuid.data(), to.label.data(), to.type.data());
  return {status, to.uuid.text(), to.label.text(), to.type.text()};
}

Facts by_id(const std::string &uuid) {
  Answer to;
  const int status = Query_Block_Info_By_Id(uuid.c_str(), to.device.data(), to.label.data(), to.type.data());
  return {status, to.device.text(), to.label.text(), to.type.text()};
}

using Block_Info_By_Path = Block_Device_Test;
using Block_Info_By_Id = Block_Device_Test;

TEST_F(Block_Info_By_Path, Refuses_missing_arguments_before_anything_is_done) {
  use_block_id_script("touch /tmp/ran");
  Answer answer;
  char *const uuid = answer.uuid.data(), *const label = answer.label.data(), *const type = answer.type.data();
  EXPECT_EQ(Query_Block_Info_By_Path(nullptr, uuid, label, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Path("/dev/a", nullptr, label, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Path("/dev/a", uuid, nullptr, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Path("/dev/a", uuid, label, nullptr), -EINVAL);
  EXPECT_TRUE(answer.is_untouched());
  EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(Block_Info_By_Path, Tells_uuid_label_and_type) {
  use_block_id_that_prints(
      "/dev/sda1: LABEL=\"one\" UUID=\"0a-1\" TYPE=\"ext4\"\n"
      "/dev/sda2: LABEL=\"two words\" UUID=\"0a-2\" TYPE=\"btrfs\"\n");
  EXPECT_EQ(by_path("/dev/sda2"), (Facts{0, "0a-2", "two words", "btrfs"}));
  EXPECT_EQ(by_path("/dev/sda1"), (Facts{0, "0a-1", "one", "ext4"}));
}

TEST_F(Block_Info_By_Path, Compares_the_whole_path_at_the_lines_beginning) {
  use_block_id_that_prints(
      " /dev/sda: UUID=\"1\"\n/dev/sda1: UUID=\"2\"\nx/dev/sda: UUID=\"3\"\n"
      "/dev/sdb: LABEL=\"/dev/sda: UUID=\" UUID=\"4\"\n/dev/sda UUID=\"5\"\n/dev/SDA: UUID=\"6\"\n");
  EXPECT_EQ(by_path("/dev/sda"), nothing);
  EXPECT_EQ(by_path("/dev/sd"), nothing);
  EXPECT_EQ(by_path(""), nothing);
}

TEST_F(Block_Info_By_Path, Takes_the_first_line_of_a_device) {
  use_block_id_that_prints("/dev/a: TYPE=\"one\"\n/dev/a: UUID=\"2\" LABEL=\"two\" TYPE=\"two\"\n");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "", "", "one"}));
}

TEST_F(Block_Info_By_Path, Takes_no_tag_whose_name_only_ends_alike) {
  use_block_id_that_prints(
      "/dev/a: PARTUUID=\"p\" PARTLABEL=\"p\" SEC_TYPE=\"s\"\n"
      "/dev/b: SEC_TYPE=\"s\" LABEL_FATBOOT=\"l\" LABEL=\"L\" UUID_SUB=\"s\" UUID=\"U\" TYPE=\"T\"\n");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "", "", ""}));
  EXPECT_EQ(by_path("/dev/b"), (Facts{0, "U", "L", "T"}));
}

TEST_F(Block_Info_By_Path, Leaves_empty_what_does_not_fit) {
  const auto line = [](size_t uuid, size_t label, size_t type) {
    return "/dev/a: UUID=\"" + std::string(uuid, 'u') + "\" LABEL=\"" + std::string(label, 'l') + "\" TYPE=\"" +
           std::string(type, 't') + "\"\n";
  };
  const std::string uuid(39, 'u'), label(15, 'l'), type(11, 't');
  use_block_id_that_prints(line(39, 15, 11));
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, uuid, label, type}));
  use_block_id_that_prints(line(40, 15, 11));
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "", label, type}));
  use_block_id_that_prints(line(39, 16, 11));
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, uuid, "", type}));
  use_block_id_that_prints(line(39, 15, 12));
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, uuid, label, ""}));
}

TEST_F(Block_Info_By_Path, Leaves_empty_what_has_no_closing_quote) {
  use_block_id_that_prints("/dev/a: UUID=\"1\" LABEL=\"x\" TYPE=\"ext4\n");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "1", "x", ""}));
}

TEST_F(Block_Info_By_Path, Ends_a_value_at_any_quote) {
  use_block_id_that_prints("/dev/a: LABEL=\"a\\\"b\" UUID=\"1\"\n");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "1", "a\\", ""}));
}

TEST_F(Block_Info_By_Path, Finds_devices_of_up_to_22_characters) {
  const std::string path = "/dev/mapper/0123456789";
  ASSERT_EQ(path.size(), 22u);
  use_block_id_that_prints(path + ": UUID=\"1\"\n" + path + "x: UUID=\"2\"\n");
  EXPECT_EQ(by_path(path), (Facts{0, "1", "", ""}));
  EXPECT_EQ(by_path(path + "x"), nothing);
  EXPECT_EQ(by_path(std::string(100'000, '/')), nothing);
}

TEST_F(Block_Info_By_Path, Fails_with_empty_texts_without_the_tool) {
  remove_block_id();
  EXPECT_EQ(by_path("/dev/a"), nothing);
  use_block_id_that_prints("/dev/a: UUID=\"1\"\n");
  Facts found = {};
  without_descriptors([&] { return found = by_path("/dev/a"), 0; });
  EXPECT_EQ(found, nothing) << "no program can be started";
  use_block_id_that_prints("");
  EXPECT_EQ(by_path("/dev/a"), nothing);
}

TEST_F(Block_Info_By_Path, Reads_a_line_of_any_usual_length_to_its_end) {
  use_block_id_that_prints("/dev/a: LABEL=\"" + std::string(1000, 'l') + "\" UUID=\"1\" PARTLABEL=\"" +
                           std::string(1000, 'p') + "\" TYPE=\"ext4\"\n");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "1", "", "ext4"}));
  EXPECT_EQ(by_id("1"), (Facts{0, "/dev/a", "", "ext4"}));
}

TEST_F(Block_Info_By_Path, Takes_nothing_in_the_middle_of_a_line_for_a_device) {
  const std::string head = "/dev/sdb1: LABEL=\"", forged = "/dev/sda1: UUID=\"forged\" ";
  for (const size_t piece : {254, 255, 256, 510, 1023, 4095, 8190, 8191, 8192, 16382}) {
    use_block_id_that_prints(head + std::string(piece - head.size(), 'x') + forged + "\n/dev/c: UUID=\"2\"\n");
    EXPECT_EQ(by_path("/dev/sda1"), nothing) << piece;
    EXPECT_THAT(by_id("forged").id, testing::Not("/dev/sda1")) << piece;
    EXPECT_EQ(by_path("/dev/c"), (Facts{0, "2", "", ""})) << piece;
  }
}

TEST_F(Block_Info_By_Path, Runs_the_tool_once_and_hands_it_nothing) {
  use_block_id_script("echo \"run with $# $*\" >> /tmp/runs; echo '/dev/a: UUID=\"1\" LABEL=\"2\" TYPE=\"3\"'");
  EXPECT_EQ(by_path("/dev/a"), (Facts{0, "1", "2", "3"}));
  EXPECT_EQ(by_id("1"), (Facts{0, "/dev/a", "2", "3"}));
  EXPECT_EQ(by_path("/dev/$(id);`id`"), nothing);
  EXPECT_EQ(by_id("\"; id #"), nothing);
  EXPECT_EQ(read_file("/tmp/runs"), "run with 0 \nrun with 0 \nrun with 0 \nrun with 0 \n");
  unlink("/tmp/runs");
}

TEST_F(Block_Info_By_Id, Refuses_missing_arguments_before_anything_is_done) {
  use_block_id_script("touch /tmp/ran");
  Answer answer;
  char *const device = answer.device.data(), *const label = answer.label.data(), *const type = answer.type.data();
  EXPECT_EQ(Query_Block_Info_By_Id(nullptr, device, label, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Id("1", nullptr, label, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Id("1", device, nullptr, type), -EINVAL);
  EXPECT_EQ(Query_Block_Info_By_Id("1", device, label, nullptr), -EINVAL);
  EXPECT_TRUE(answer.is_untouched());
  EXPECT_FALSE(exists("/tmp/ran"));
}

TEST_F(Block_Info_By_Id, Tells_device_label_and_type_of_the_first_line_with_the_uuid) {
  use_block_id_that_prints(
      "/dev/a: UUID=\"1\" TYPE=\"swap\"\n/dev/b: LABEL=\"two\" UUID=\"2\" TYPE=\"ext4\"\n"
      "/dev/c: LABEL=\"three\" UUID=\"2\" TYPE=\"xfs\"\n");
  EXPECT_EQ(by_id("2"), (Facts{0, "/dev/b", "two", "ext4"}));
  EXPECT_EQ(by_id("1"), (Facts{0, "/dev/a", "", "swap"}));
}

TEST_F(Block_Info_By_Id, Compares_the_whole_uuid_and_the_very_tag) {
  use_block_id_that_prints(
      "/dev/a: PARTUUID=\"12\"\n/dev/b: UUID_SUB=\"12\"\n/dev/c: UUID=\"123\"\n"
      "/dev/d: UUID=\"012\"\n/dev/e:UUID=\"12\"\n");
  EXPECT_EQ(by_id("12"), nothing);
  EXPECT_EQ(by_id(""), nothing);
  EXPECT_EQ(by_id("1.*"), nothing);
  EXPECT_EQ(by_id("%s"), nothing);
}

TEST_F(Block_Info_By_Id, Finds_uuids_of_up_to_39_characters) {
  const std::string uuid(39, 'u');
  use_block_id_that_prints("/dev/a: UUID=\"" + uuid + "\"\n/dev/b: UUID=\"" + uuid + "u\"\n");
  EXPECT_EQ(by_id(uuid), (Facts{0, "/dev/a", "", ""}));
  EXPECT_EQ(by_id(uuid + "u"), nothing);
  EXPECT_EQ(by_id(std::string(100'000, 'u')), nothing);
}

// One character more than the query by path takes: such a device is found by its UUID only.
TEST_F(Block_Info_By_Id, Passes_over_devices_of_24_characters_and_goes_on) {
  const std::string path = "/dev/mapper/01234567890";
  ASSERT_EQ(path.size(), 23u);
  use_block_id_that_prints(path + "x: UUID=\"1\"\n UUID=\"1\" without a device\n" + path + ": UUID=\"1\"\n");
  EXPECT_EQ(by_id("1"), (Facts{0, path, "", ""}));
  EXPECT_EQ(by_path(path), nothing);
}

TEST_F(Block_Info_By_Id, Leaves_empty_what_does_not_fit) {
  use_block_id_that_prints("/dev/a: LABEL=\"" + std::string(16, 'l') + "\" UUID=\"1\" TYPE=\"" + std::string(12, 't') +
                           "\"\n/dev/b: LABEL=\"" + std::string(15, 'l') + "\" UUID=\"2\" TYPE=\"" +
                           std::string(11, 't') + "\"\n");
  EXPECT_EQ(by_id("1"), (Facts{0, "/dev/a", "", ""}));
  EXPECT_EQ(by_id("2"), (Facts{0, "/dev/b", std::string(15, 'l'), std::string(11, 't')}));
}

TEST_F(Block_Info_By_Id, Fails_with_empty_texts_without_the_tool) {
  remove_block_id();
  EXPECT_EQ(by_id("1"), nothing);
  use_block_id_that_prints("/dev/a: UUID=\"1\"\n");
  Facts found = {};
  without_descriptors([&] { return found = by_id("1"), 0; });
  EXPECT_EQ(found, nothing) << "no program can be started";
}

// ------------------------------------------------------------------------------------------------------ the real tool

struct File_System {
  const char *type, *label;
};

void PrintTo(const File_System &file_system, std::ostream *out) {
  *out << file_system.type;
}

class Real_Block_Id : public Block_Device_List, public testing::WithParamInterface<File_System> {};
INSTANTIATE_TEST_SUITE_P(, Real_Block_Id,
                         testing::Values(File_System{"ext4", "a disk"}, File_System{"vfat", "STICK"},
                                         File_System{"btrfs", "data_1"}, File_System{"swap", "spare"},
                                         File_System{"iso9660", "CD 1"}),
                         [](const auto &test) { return test.param.type; });

TEST_P(Real_Block_Id, Tells_a_file_system_by_device_by_uuid_and_in_the_list) {
  if (!kernel_lends_loop_devices()) GTEST_SKIP() << "the kernel lends no loop device";
  use_real_block_id();
  const Temporary_Folder folder;
  const auto [type, label] = GetParam();
  const Loop_Device loop(make_image(folder, type, label));

  const Facts found = by_path(loop.path());
  EXPECT_EQ(found.status, 0);
  EXPECT_EQ(found.label, label);
  EXPECT_EQ(found.type, type);
  EXPECT_THAT(found.id, testing::MatchesRegex("[-0-9A-Fa-f]+"));
  EXPECT_EQ(by_id(found.id), (Facts{0, loop.path(), label, type}));
  EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
  EXPECT_THAT(devices(), Contains(Device{loop.path(), found.id, type, ""}));
}

TEST_F(Block_Device_List, Sees_less_of_a_disk_with_a_long_label_than_the_queries) {
  if (!kernel_lends_loop_devices()) GTEST_SKIP() << "the kernel lends no loop device";
  use_real_block_id();
  const Temporary_Folder folder;
  const Loop_Device loop(make_image(folder, "btrfs", std::string(255, 'l')));
  EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
  EXPECT_THAT(devices(), Contains(Device{loop.path(), "", "", ""}));
  const Facts found = by_path(loop.path());
  EXPECT_EQ(found.type, "btrfs");
  EXPECT_EQ(found.label, "");
  EXPECT_THAT(found.id, SizeIs(36));
}

TEST_F(Block_Device_List, Is_not_misled_by_a_real_label_that_poses_as_a_line) {
  if (!kernel_lends_loop_devices()) GTEST_SKIP() << "the kernel lends no loop device";
  use_real_block_id();
  const Temporary_Folder folder;
  const std::string forged = "/dev/sda1: UUID=\"forged\" TYPE=\"ext4\"";
  const size_t length = 255 - std::string("/dev/loop0: LABEL=\"").size();
  for (const size_t extra : {0, 1, 2}) {
    const std::string label = std::string(length - 2 + extra - forged.size(), 'x') + forged;
    const Loop_Device loop(make_image(folder, "btrfs", label));
    use_real_block_id();
    give_back();
    EXPECT_EQ(Scan_Block_Device_Info(&list_), 0);
    for (const Device &device : devices()) EXPECT_NE(device.device, "/dev/sda1");
    EXPECT_EQ(by_path("/dev/sda1"), nothing);
    EXPECT_EQ(by_id("forged"), nothing);
    unlink((folder / "btrfs").c_str());
  }
}

// --------------------------------------------------------------------------------------------------------- /sys/block

struct Disk_Facts {
  int status;
  uint64_t size;
  unsigned int partition;
  std::string vendor, model;

  bool operator==(const Disk_Facts &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Disk_Facts &facts) {
  return out << facts.status << " size " << facts.size << " partition " << facts.partition << " vendor \""
             << facts.vendor << "\" model \"" << facts.model << '"';
}

class Block_Device_Facts : public Block_Device_Test {
 protected:
  // A disk sda with two partitions, vendor and model.
  void add_usual_disk() {
    disks_.add("sda/size", "1000\n");
    disks_.add("sda/sda1/size", "300\n");
    disks_.add("sda/sda2/size", "600\n");
    disks_.add("sda/device/vendor", "ACME    \n");
    disks_.add("sda/device/model", "Fast Disk 7     \n");
  }

  // The texts have the smallest sizes, and hold something else before.
  static Disk_Facts facts_of(const std::string &path) {
    uint64_t size = 7;
    unsigned int partition = 7;
    Text vendor(33), model(32);
    const int status = Query_Block_Device_Info(path.c_str(), &size, &partition, vendor.data(), model.data());
    return {status, size, partition, vendor.text(), model.text()};
  }

  Made_Up_Disks disks_;
};

TEST_F(Block_Device_Facts, Need_all_outputs_before_anything_is_done) {
  add_usual_disk();
  uint64_t size = 7;
  unsigned int partition = 7;
  char vendor[36] = "v", model[32] = "m";
  EXPECT_EQ(Query_Block_Device_Info(nullptr, &size, &partition, vendor, model), -EINVAL);
  EXPECT_EQ(Query_Block_Device_Info("/dev/sda", nullptr, &partition, vendor, model), -EINVAL);
  EXPECT_EQ(Query_Block_Device_Info("/dev/sda", &size, nullptr, vendor, model), -EINVAL);
  EXPECT_EQ(Query_Block_Device_Info("/dev/sda", &size, &partition, nullptr, model), -EINVAL);
  EXPECT_EQ(Query_Block_Device_Info("/dev/sda", &size, &partition, vendor, nullptr), -EINVAL);
  EXPECT_EQ(size, 7u);
  EXPECT_EQ(partition, 7u);
  EXPECT_STREQ(vendor, "v");
  EXPECT_STREQ(model, "m");
}

TEST_F(Block_Device_Facts, Of_a_disk_and_its_partitions) {
  add_usual_disk();
  EXPECT_EQ(facts_of("/dev/sda"), (Disk_Facts{0, 512'000, 0, "ACME", "Fast Disk 7"}));
  EXPECT_EQ(facts_of("/dev/sda1"), (Disk_Facts{0, 153'600, 1, "ACME", "Fast Disk 7"}));
  EXPECT_EQ(facts_of("/dev/sda2"), (Disk_Facts{0, 307'200, 2, "ACME", "Fast Disk 7"}));
  EXPECT_EQ(facts_of("/dev/sda12"), (Disk_Facts{0, 0, 12, "ACME", "Fast Disk 7"}));
}

// Callers depend on it: a disk's only partition is shown without a number.
TEST_F(Block_Device_Facts, Count_a_disks_only_partition_as_none) {
  disks_.add("sda/sda1/size", "300\n");
  disks_.add("sda/device/vendor", "ACME\n");
  EXPECT_EQ(facts_of("/dev/sda1"), (Disk_Facts{0, 153'600, 0, "ACME", ""}));
  disks_.add("sda/sda2", "a file");
  EXPECT_EQ(facts_of("/dev/sda1").partition, 0u);
  ASSERT_EQ(unlink((disks_ / "sda/sda2").c_str()), 0);
  ASSERT_EQ(symlink(".", (disks_ / "sda/sda2").c_str()), 0);
  EXPECT_EQ(facts_of("/dev/sda1").partition, 0u) << "a link";
  ASSERT_EQ(unlink((disks_ / "sda/sda2").c_str()), 0);
  disks_.add_folder("sda/sda2");
  EXPECT_EQ(facts_of("/dev/sda1").partition, 1u);
}

TEST_F(Block_Device_Facts, Of_a_mapped_device) {
  disks_.add("cachedev/cachedev1/size", "8\n");
  disks_.add_folder("cachedev/cachedev2");
  disks_.add("cachedev/device/vendor", "DM\n");
  EXPECT_EQ(facts_of("/dev/mapper/cachedev1"), (Disk_Facts{0, 4096, 1, "DM", ""}));
}

TEST_F(Block_Device_Facts, Take_one_leading_folder_from_the_path) {
  add_usual_disk();
  EXPECT_EQ(facts_of("sda1").size, 153'600u);
  EXPECT_EQ(facts_of("/dev/mapper/sda1").size, 153'600u);
  EXPECT_EQ(facts_of("/dev/dev/sda1"), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
  EXPECT_EQ(facts_of("/dev/mapper//dev/sda1"), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
  EXPECT_EQ(facts_of("x/dev/sda1"), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
}

TEST_F(Block_Device_Facts, End_a_disks_name_at_the_first_byte_that_is_no_small_letter) {
  disks_.add("nvme/nvme0n1/size", "2\n");
  disks_.add("nvme/device/vendor", "V\n");
  disks_.add("vg/vg-lv1/size", "4\n");
  disks_.add("vg/device/vendor", "V\n");
  disks_.add("md/md7/size", "6\n");
  disks_.add("md/device/vendor", "V\n");
  EXPECT_EQ(facts_of("/dev/nvme0n1"), (Disk_Facts{0, 1024, 0, "V", ""}));
  EXPECT_EQ(facts_of("/dev/mapper/vg-lv1"), (Disk_Facts{0, 2048, 0, "V", ""}));
  EXPECT_EQ(facts_of("/dev/md7"), (Disk_Facts{0, 3072, 7, "V", ""}));
  EXPECT_EQ(facts_of("/dev/md7-x"), (Disk_Facts{0, 0, 7, "V", ""}));
  EXPECT_EQ(facts_of("/dev/SDA1"), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
  EXPECT_EQ(facts_of("/dev/md\xe4"), (Disk_Facts{0, 0, 0, "V", ""})) << "no letter, whatever the locale";
  EXPECT_EQ(facts_of("/dev/"), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
  EXPECT_EQ(facts_of(""), (Disk_Facts{-ENOENT, 0, 0, "", ""}));
}

TEST_F(Block_Device_Facts, Cut_a_partition_number_to_32_bits) {
  add_usual_disk();
  EXPECT_EQ(facts_of("/dev/sda4294967295").partition, 4294967295u);
  EXPECT_EQ(facts_of("/dev/sda4294967301").partition, 5u);
}

TEST_F(Block_Device_Facts, Fail_only_without_a_vendor) {
  disks_.add("vda/size", "10\n");
  disks_.add("vda/vda2/size", "10\n");
  disks_.add("vda/device/model", "Virtual\n");
  EXPECT_EQ(facts_of("/dev/vda2"), (Disk_Facts{-ENOENT, 5120, 2, "", "Virtual"}));
  disks_.add_folder("vda/device/vendor");
  EXPECT_EQ(facts_of("/dev/vda"), (Disk_Facts{-EISDIR, 5120, 0, "", "Virtual"}));
}

TEST_F(Block_Device_Facts, Leave_empty_what_cannot_be_read) {
  disks_.add("sda/device/vendor", "ACME\n");
  EXPECT_EQ(facts_of("/dev/sda1"), (Disk_Facts{0, 0, 0, "ACME", ""}));
  disks_.add_folder("sda/device/model");
  disks_.add_folder("sda/sda1/size");
  EXPECT_EQ(facts_of("/dev/sda1"), (Disk_Facts{0, 0, 0, "ACME", ""}));
}

TEST_F(Block_Device_Facts, Read_64_bytes_of_a_size) {
  add_usual_disk();
  disks_.add("sda/size", "36028797018963967");
  EXPECT_EQ(facts_of("/dev/sda").size, 36028797018963967u * 512);
  disks_.add("sda/size", std::string(62, '0') + "12345\n");
  EXPECT_EQ(facts_of("/dev/sda").size, 12u * 512);
  disks_.add("sda/size", "");
  EXPECT_EQ(facts_of("/dev/sda").size, 0u);
  disks_.add("sda/size", "x1\n");
  EXPECT_EQ(facts_of("/dev/sda").size, 0u);
}

TEST_F(Block_Device_Facts, Have_no_blanks_at_the_end_of_vendor_and_model) {
  add_usual_disk();
  const auto texts = [&](const std::string &text) {
    disks_.add("sda/device/vendor", text);
    disks_.add("sda/device/model", text);
    const Disk_Facts found = facts_of("/dev/sda");
    EXPECT_EQ(found.status, 0);
    EXPECT_EQ(found.vendor, found.model);
    return found.vendor;
  };
  EXPECT_EQ(texts("  two words  \n"), "  two words");
  EXPECT_EQ(texts("x   "), "x");
  EXPECT_EQ(texts("tab\t\n"), "tab\t");
  EXPECT_EQ(texts("       \n"), "");
  EXPECT_EQ(texts(std::string(40, ' ')), "");
  EXPECT_EQ(texts("\n"), "");
  EXPECT_EQ(texts(""), "");
  EXPECT_EQ(texts("a \n \n"), "a \n");
  EXPECT_EQ(texts(std::string("a  \0b", 5)), "a");
}

TEST_F(Block_Device_Facts, Hold_32_characters_of_the_vendor_and_31_of_the_model) {
  add_usual_disk();
  const std::string text = "0123456789abcdefghijklmnopqrstuvwxyz";
  disks_.add("sda/device/vendor", text + "\n");
  disks_.add("sda/device/model", text + "\n");
  EXPECT_EQ(facts_of("/dev/sda"), (Disk_Facts{0, 512'000, 0, text.substr(0, 32), text.substr(0, 31)}));
  disks_.add("sda/device/model", "a" + std::string(30, ' ') + "b\n");
  EXPECT_EQ(facts_of("/dev/sda").model, "a") << "no blanks at the end of what was cut either";
}

TEST_F(Block_Device_Facts, Of_a_path_of_any_length_stay_in_their_fields) {
  add_usual_disk();
  for (const size_t length : {255, 256, 1000, 4000, 4085, 4086, 4095, 5000, 100'000}) {
    const std::string disk(length, 'd');
    EXPECT_EQ(facts_of("/dev/" + disk + "7"), (Disk_Facts{length > 255 ? -ENAMETOOLONG : -ENOENT, 0, 7, "", ""}));
    EXPECT_EQ(facts_of("/dev/" + disk + "1").partition, 0u);
    EXPECT_EQ(facts_of("/dev/sda" + std::string(length, '0') + "2"), (Disk_Facts{0, 0, 2, "ACME", "Fast Disk 7"}));
  }
  EXPECT_EQ(facts_of("/dev/sda/../sda/sda1").size, 0u);
}

TEST_F(Block_Device_Facts, Of_two_devices_do_not_mix) {
  add_usual_disk();
  uint64_t size;
  unsigned int partition;
  char vendor[36], model[32];
  EXPECT_EQ(Query_Block_Device_Info("/dev/sda2", &size, &partition, vendor, model), 0);
  EXPECT_EQ(Query_Block_Device_Info("/dev/sdb", &size, &partition, vendor, model), -ENOENT);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(partition, 0u);
  EXPECT_STREQ(vendor, "");
  EXPECT_STREQ(model, "");
}

// A disk of the machine's own, whatever it is; a virtual one has no vendor.
TEST_F(Block_Device_Test, Facts_of_a_real_disk_are_the_kernels) {
  int seen = 0;
  for (const std::string &disk : names_in("/sys/block")) {
    if (!std::ranges::all_of(disk, [](char c) { return c >= 'a' && c <= 'z'; })) continue;
    uint64_t size = 0;
    unsigned int partition = 7;
    char vendor[36], model[32];
    const int status = Query_Block_Device_Info(("/dev/" + disk).c_str(), &size, &partition, vendor, model);
    EXPECT_EQ(size, std::stoull(read_file("/sys/block/" + disk + "/size")) * 512) << disk;
    EXPECT_EQ(partition, 0u);
    EXPECT_EQ(status == 0, exists("/sys/block/" + disk + "/device/vendor")) << disk;
    ++seen;
  }
  if (seen == 0) GTEST_SKIP() << "no disk here with a name of letters";
}

}  // namespace
