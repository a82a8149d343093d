#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/appliance.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/held_lock.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr char send_name[] = "Tarn_Cluster_Send_Share_List";
constexpr char handler_name[] = "Tarn_Cluster_Send_Share_List_Cb";

// ------------------------------------------------------------------------------------------------------------- sender

class Share_Sender : public testing::Test {
 protected:
  Share_Sender() {
    Appliance::be_slave();
    Appliance::set_id("QNself01");
  }
  ~Share_Sender() override { free(reply_); }

  int send() {
    free(reply_);
    reply_ = nullptr;
    return Tarn_Cluster_Send_Share_List("0", &reply_);
  }

  // What the list of shares looks like on the wire, for this samba configuration.
  std::string sent(const std::string &samba) {
    write_file(samba_file, samba);
    EXPECT_EQ(send(), 0);
    const auto members = json_members(platform_.calls().back().argument);
    if (members.size() != 2 || members[1].first != "share_list") return platform_.calls().back().argument;
    return members[1].second;
  }

  const std::string own_file_ = share_folder + "/QNself01";
  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

TEST_F(Share_Sender, The_Master_Is_Told_By_Name_Of_The_Handler) {
  platform_.answer(0, R"({"return": 0})");
  EXPECT_EQ(send(), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd");
  EXPECT_FALSE(calls[0].timeout_ms.has_value());
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Send_Share_List_Cb\""),
                          Pair("master_id", "\"0\"")));
  EXPECT_STREQ(reply_, R"({"return": 0})");
}

TEST_F(Share_Sender, The_Own_Id_Comes_Before_The_Shares_In_The_Files_Order_And_Their_Keys_In_The_Wires) {
  EXPECT_EQ(sent("[b]\npath = /share/b\nwrite list = w1,@w2\ntarn = yes\nread list = r1\ninvalid users = i1\n"
                 "[a]\ntarn = yes\ninvalid users = i2\npath = /share/a\nread list = r2\nwrite list = w3\n"),
            R"([{"share_name":"b","invalid users":"i1","read list":"r1","write list":"w1,@w2","path":"/share/b"},)"
            R"({"share_name":"a","invalid users":"i2","read list":"r2","write list":"w3","path":"/share/a"}])");
  EXPECT_EQ(json_members(platform_.calls().back().argument).at(0),
            std::pair(std::string("slave_id"), std::string("\"QNself01\"")));
}

TEST_F(Share_Sender, Keys_That_A_Share_Lacks_Are_Left_Out_On_The_Wire_And_In_The_Own_File) {
  EXPECT_EQ(sent("[none]\ntarn = yes\n[some]\ntarn = yes\nwrite list = w\n[empty]\ntarn = yes\nread list =\n"),
            R"([{"share_name":"none"},{"share_name":"some","write list":"w"},{"share_name":"empty","read list":""}])");
  EXPECT_EQ(read_file(own_file_), "[none]\n\n[some]\nwrite list = w\n\n[empty]\nread list = \n\n");
}

TEST_F(Share_Sender, The_Own_File_Holds_The_Same_Shares_And_Nothing_Of_Before) {
  write_file(own_file_, "[old]\nread list = x\n\n");
  chmod(own_file_.c_str(), 0640);
  sent(
      "[b]\npath = /share/b\nwrite list = w1\ntarn = yes\nread list = r1\ninvalid users = i1\ncomment = no\n"
      "[no]\npath = /share/no\n[a]\ntarn = yes\npath = /share/a\n");
  EXPECT_EQ(read_file(own_file_),
            "[b]\nread list = r1\nwrite list = w1\ninvalid users = i1\npath = /share/b\n\n[a]\npath = /share/a\n\n");
  EXPECT_EQ(mode_of(own_file_), 0640u);
  EXPECT_THAT(lines_of(log_, send_name), SizeIs(1)) << "the list, at debug level";
}

TEST_F(Share_Sender, A_Share_Takes_Part_When_Its_Key_Says_Yes_In_Any_Case) {
  for (const char *value : {"yes", "YES", "Yes", "yEs", "  yes\t"}) {
    EXPECT_EQ(sent(std::string("[s]\ntarn = ") + value + "\n"), R"([{"share_name":"s"}])") << value;
  }
  for (const char *value : {"1", "no", "true", "", "ye", "yess", "\"yes\"", "yes no", "y"}) {
    EXPECT_EQ(sent(std::string("[s]\ntarn = ") + value + "\n"), "[]") << value;
  }
  EXPECT_EQ(sent("[s]\npath = /s\n"), "[]");
  EXPECT_EQ(sent("[s]\nTarn = yes\n"), "[]");
  EXPECT_EQ(sent("[s]\ntarn = no\ntarn = yes\n"), "[]") << "the first line of a key is the one that counts";
}

TEST_F(Share_Sender, The_Global_Section_And_Keys_Before_Any_Section_Are_No_Shares) {
  EXPECT_EQ(sent("tarn = yes\npath = /top\n[global]\ntarn = yes\npath = /g\n[]\ntarn = yes\n[s]\ntarn = yes\n"),
            R"([{"share_name":"s"}])");
  EXPECT_EQ(read_file(own_file_), "[s]\n\n");
}

TEST_F(Share_Sender, Without_Shares_An_Empty_List_Is_Sent_And_The_Own_File_Stays) {
  write_file(own_file_, "[old]\nread list = x\n\n");
  EXPECT_EQ(sent("[global]\nworkgroup = w\n[s]\npath = /s\n"), "[]");
  EXPECT_EQ(sent(""), "[]");
  EXPECT_EQ(read_file(own_file_), "[old]\nread list = x\n\n");
  std::filesystem::remove(own_file_);
  EXPECT_EQ(sent(""), "[]");
  EXPECT_FALSE(exists(own_file_));
}

TEST_F(Share_Sender, A_Missing_Samba_Configuration_Counts_As_No_Shares) {
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(json_members(platform_.calls().at(0).argument),
              ElementsAre(Pair("slave_id", "\"QNself01\""), Pair("share_list", "[]")));
  EXPECT_THAT(names_in(share_folder), IsEmpty());
  EXPECT_THAT(lines_of(log_, send_name), SizeIs(1));
}

TEST_F(Share_Sender, An_Unreadable_Samba_Configuration_Is_Said_And_Nothing_Is_Sent) {
  std::filesystem::create_directory(samba_file);
  EXPECT_EQ(send(), -ENOMEDIUM);
  EXPECT_THAT(lines_of(log_, send_name),
              ElementsAre(error_line(send_name, "Can't read the samba config file /etc/config/smb.conf! (-123)")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(names_in(share_folder), IsEmpty());
}

TEST_F(Share_Sender, Bad_Lines_Of_The_Samba_Configuration_Are_Passed_Over) {
  EXPECT_EQ(sent("[s]\nnonsense\n= x\n[bad\ntarn = yes\npath = /s\n"), R"([{"share_name":"s","path":"/s"}])");
}

// What identifies this slave, and what sending then results in.
TEST_F(Share_Sender, Without_An_Own_Id_Nothing_Is_Sent) {
  struct Case {
    const char *text;  // null: there is no file
    int status;
  };
  write_file(samba_file, "[s]\ntarn = yes\n");
  for (const Case &c : {Case{nullptr, -ENOENT},
                        {"", -ENOANO},
                        {"[global]\nx = y\n", -ENODATA},
                        {"[global]\nMSKey = ninechars\n", -EOVERFLOW}}) {
    log_.clear();
    std::filesystem::remove(identity_file);
    if (c.text != nullptr) write_file(identity_file, c.text);
    EXPECT_EQ(send(), c.status);
    EXPECT_THAT(lines_of(log_, send_name), ElementsAre(error_line(send_name,
                                                                  "Can't read the slave id from config file "
                                                                  "/mnt/tarncluster/config/tarn_cluster_s.conf! (" +
                                                                      std::to_string(c.status) + ")")));
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(names_in(share_folder), IsEmpty());
}

TEST_F(Share_Sender, An_Own_Id_That_Would_Leave_The_Folder_Names_No_File) {
  for (const char *id : {"../x", "..", ".", "a/b", "", "/tmp/x"}) {
    SCOPED_TRACE(id);
    Appliance::set_id(id);
    write_file(samba_file, "[s]\ntarn = yes\n");
    const auto before = Appliance::all_files();
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(Appliance::all_files(), before);
  }
}

TEST_F(Share_Sender, A_List_That_Cannot_Be_Kept_Here_Is_Sent_All_The_Same) {
  std::filesystem::remove_all(share_folder);
  EXPECT_EQ(sent("[s]\ntarn = yes\n"), R"([{"share_name":"s"}])");
  EXPECT_THAT(lines_of(log_, send_name),
              Contains(error_line(send_name,
                                  "Write share list config /mnt/tarncluster/config/share_list/QNself01 error! (-2)")));
}

TEST_F(Share_Sender, Long_Names_And_Values_Travel_Whole_And_Are_Cut_In_The_Own_File_As_Its_Records_Are) {
  const std::string name(70, 'n'), path = "/" + std::string(5000, 'p'), list(5000, 'l');
  EXPECT_EQ(sent("[" + name + "]\ntarn = yes\ninvalid users = " + list + "\npath = " + path + "\n"),
            "[{\"share_name\":\"" + name + "\",\"invalid users\":\"" + list + "\",\"path\":\"" + path + "\"}]");
  EXPECT_EQ(read_file(own_file_),
            "[" + name.substr(0, 64) + "]\ninvalid users = " + list + "\npath = " + path.substr(0, 4095) + "\n\n");
}

TEST_F(Share_Sender, Odd_Characters_Are_Escaped_On_The_Wire_And_Kept_In_The_Own_File) {
  const std::string odd = "DOM\\user \"a b\", caf\xc3\xa9 = x;#\ty";
  EXPECT_EQ(sent("[s\\\"]\ntarn = yes\nread list = " + odd + "\n"),
            "[{\"share_name\":\"s\\\\\\\"\",\"read list\":" + json_quoted(odd) + "}]");
  EXPECT_EQ(read_file(own_file_), "[s\\\"]\nread list = " + odd + "\n\n");
}

TEST_F(Share_Sender, The_Argument_Is_Logged_At_Debug_Level) {
  sent("[s]\ntarn = yes\n");
  EXPECT_THAT(lines_of(log_, send_name),
              ElementsAre(debug_line(send_name, "share list:\n" + platform_.calls().at(0).argument)));
  const Log_Capture quiet(2);
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(quiet.lines(), IsEmpty());
}

TEST_F(Share_Sender, The_Platforms_Code_Is_Logged_And_Returned_Unchanged) {
  const Log_Capture errors(1);
  for (const int code : {-EHOSTUNREACH, 3}) {
    platform_.answer(code, "{}");
    EXPECT_EQ(send(), code);
    EXPECT_STREQ(reply_, "{}");
    EXPECT_EQ(errors.lines().back(),
              error_line(send_name, "Can't send cluster command! (" + std::to_string(code) + ")"));
  }
  EXPECT_THAT(errors.lines(), SizeIs(2));
}

TEST_F(Share_Sender, The_Reply_Is_Null_When_There_Is_None) {
  char before[] = "left over";
  char *reply = before;
  EXPECT_EQ(Tarn_Cluster_Send_Share_List("0", &reply), 0);
  EXPECT_EQ(reply, nullptr);
}

TEST_F(Share_Sender, A_Missing_Argument_Is_Refused) {
  EXPECT_EQ(Tarn_Cluster_Send_Share_List(nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Send_Share_List("0", nullptr), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Share_Sender, Ten_Thousand_Shares_Are_Sent_And_Kept) {
  std::string samba, kept;
  for (int i = 0; i < 10'000; ++i) {
    const std::string name = "share" + std::to_string(i);
    samba += "[" + name + "]\ntarn = yes\npath = /share/" + name + "\n";
    kept += "[" + name + "]\npath = /share/" + name + "\n\n";
  }
  const Log_Capture quiet(1);
  const std::string list = sent(samba);
  EXPECT_TRUE(list.starts_with(R"([{"share_name":"share0","path":"/share/share0"},)"));
  EXPECT_TRUE(list.ends_with(R"(,{"share_name":"share9999","path":"/share/share9999"}])"));
  EXPECT_EQ(read_file(own_file_), kept);
}

TEST_F(Share_Sender, When_Memory_Ends_Either_All_Shares_Are_Sent_Or_Nothing_And_It_Is_Said) {
  const std::string samba = "[a]\ntarn = yes\npath = /a\nread list = r\n[b]\ntarn = yes\nwrite list = w\n";
  const std::string whole = sent(samba);
  const std::string file = read_file(own_file_);
  int no_json = 0, no_element = 0, no_record = 0;
  with_each_allocation_failing([&] { return send(); },
                               [&](int status, int nth) {
                                 SCOPED_TRACE(nth);
                                 const auto lines = lines_of(log_, send_name);
                                 log_.clear();
                                 if (status == 0) return;
                                 EXPECT_EQ(status, -ENOMEM);
                                 ASSERT_THAT(lines, Not(IsEmpty()));
                                 no_json += lines.back().text == "Can't create json object! (-12)";
                                 no_element += lines.back().text ==
                                               "Can't allocate memory for local command return string! (-12)";
                                 no_record += lines.back().text == "Can't allocate memory for service browsing! (-12)";
                               });
  EXPECT_GE(no_json, 5);
  EXPECT_GE(no_element, 8);  // two elements and their members
  EXPECT_GE(no_record, 5);   // two records and three values
  for (const Platform_Call &call : platform_.calls()) {
    EXPECT_EQ(json_members(call.argument).at(1).second, whole);
    EXPECT_THAT(json_members(call.command), SizeIs(3));
  }
  EXPECT_EQ(read_file(own_file_), file);
}

// ------------------------------------------------------------------------------------------------------------ handler

std::string argument_of(const std::string &list, const std::string &id = "QNslave1") {
  return R"({"slave_id":")" + id + R"(","share_list":)" + list + "}";
}

std::string element(const std::string &name, const std::string &value = "x") {
  const std::string v = json_quoted(value);
  return "{\"share_name\":" + json_quoted(name) + ",\"invalid users\":" + v + ",\"read list\":" + v +
         ",\"write list\":" + v + ",\"path\":" + v + "}";
}

std::string section(const std::string &name, const std::string &value = "x") {
  return "[" + name + "]\nread list = " + value + "\nwrite list = " + value + "\ninvalid users = " + value +
         "\npath = " + value + "\n\n";
}

class Share_Handler : public testing::Test {
 protected:
  Share_Handler() { Appliance::be_slave(); }

  static std::string handle(const std::string &argument) {
    return answer_of(Tarn_Cluster_Send_Share_List_Cb, argument);
  }

  // Errors only: the walk's debug lines have a test of their own.
  std::vector<Log_Line> errors() const {
    std::vector<Log_Line> found;
    for (const Log_Line &line : lines_of(log_, handler_name)) {
      if (line.level != "debug") found.push_back(line);
    }
    return found;
  }

  // The answer is the code, with this line, and nothing has changed but what was there before.
  void expect_refused(const std::string &argument, int code, const std::string &line) {
    SCOPED_TRACE(argument.substr(0, 200));
    const auto before = Appliance::all_files();
    log_.clear();
    EXPECT_EQ(handle(argument), answers(code));
    EXPECT_THAT(errors(), ElementsAre(error_line(handler_name, line)));
    EXPECT_EQ(Appliance::all_files(), before);
    EXPECT_THAT(platform_.calls(), IsEmpty());
  }

  void be_master_with_a_slave() {
    Appliance::be_master();
    Appliance::set_members({{"QNother1"}});
    platform_.answer(0, R"({"return": 0})");
  }

  const std::string file_ = share_folder + "/QNslave1";
  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
};

TEST_F(Share_Handler, The_Shares_Are_Stored_Under_The_Slaves_Id_In_Their_Order) {
  EXPECT_EQ(
      handle(argument_of(R"([{"share_name":"b","invalid users":"i","read list":"r","write list":"w","path":"/b"},)"
                         R"({"path":"/a","write list":"","read list":"","invalid users":"","share_name":"a"}])")),
      answers(0));
  EXPECT_EQ(read_file(file_),
            "[b]\nread list = r\nwrite list = w\ninvalid users = i\npath = /b\n\n"
            "[a]\nread list = \nwrite list = \ninvalid users = \npath = /a\n\n");
  EXPECT_THAT(names_in(share_folder), ElementsAre("QNslave1"));
  EXPECT_THAT(errors(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Share_Handler, What_Was_Stored_Before_Is_Replaced_Whole) {
  write_file(file_, section("old1") + section("old2"));
  chmod(file_.c_str(), 0640);
  EXPECT_EQ(handle(argument_of("[" + element("new") + "]")), answers(0));
  EXPECT_EQ(read_file(file_), section("new"));
  EXPECT_EQ(mode_of(file_), 0640u);
}

TEST_F(Share_Handler, Other_Slaves_Lists_Stay) {
  write_file(share_folder + "/QNslave2", section("other"));
  EXPECT_EQ(handle(argument_of("[" + element("new") + "]")), answers(0));
  EXPECT_EQ(read_file(share_folder + "/QNslave2"), section("other"));
}

// The wire's values come with backslashes that the platform put in; a name does not.
TEST_F(Share_Handler, Backslashes_Are_Taken_Out_Of_The_Values_And_Left_In_The_Name) {
  EXPECT_EQ(handle(argument_of("[" + element("a\\b", "\\/share\\\\x\\") + "]")), answers(0));
  EXPECT_EQ(read_file(file_), section("a\\b", "/sharex"));
}

TEST_F(Share_Handler, Every_Key_Is_Required_And_Looked_For_In_A_Fixed_Order) {
  write_file(file_, section("old"));
  expect_refused(argument_of("[{}]"), -ENOENT, "Can't get share folder name! (-2)");
  expect_refused(argument_of(R"([{"read list":"","write list":"","invalid users":"","path":""}])"), -ENOENT,
                 "Can't get share folder name! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s"}])"), -ENOENT, "Can't get read list! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s","write list":"","invalid users":"","path":""}])"), -ENOENT,
                 "Can't get read list! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s","read list":""}])"), -ENOENT, "Can't get write list! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s","read list":"","invalid users":"","path":""}])"), -ENOENT,
                 "Can't get write list! (-2)");
  // The line of another key: those who search the logs know it so.
  expect_refused(argument_of(R"([{"share_name":"s","read list":"","write list":""}])"), -ENOENT,
                 "Can't get write list! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s","read list":"","write list":"","path":""}])"), -ENOENT,
                 "Can't get write list! (-2)");
  expect_refused(argument_of(R"([{"share_name":"s","read list":"","write list":"","invalid users":""}])"), -ENOENT,
                 "Can't get path! (-2)");
}

TEST_F(Share_Handler, One_Bad_Share_Fails_The_Whole_List_On_The_Master_As_Well) {
  be_master_with_a_slave();
  write_file(file_, section("old"));
  expect_refused(argument_of("[" + element("good") + R"(,{"share_name":"bad"},{}])"), -ENOENT,
                 "Can't get read list! (-2)");
  expect_refused(R"({"slave_id":"QNslave1","empty":[],"share_list":[{}]})", -ENOENT,
                 "Can't get share folder name! (-2)");
}

// As an older slave sends a share without "invalid users".
TEST_F(Share_Handler, What_A_Sender_Leaves_Out_Is_Missing_Here) {
  Appliance::set_id("QNself01");
  write_file(samba_file, "[s]\ntarn = yes\nread list = r\nwrite list = w\npath = /s\n");
  char *reply = nullptr;
  EXPECT_EQ(Tarn_Cluster_Send_Share_List("0", &reply), 0);
  const std::string argument = platform_.calls().at(0).argument;
  EXPECT_EQ(handle(argument), answers(-ENOENT));
}

TEST_F(Share_Handler, What_A_Slave_Sends_Of_Whole_Shares_Is_Stored_As_The_Slave_Itself_Keeps_It) {
  Appliance::set_id("QNself01");
  write_file(samba_file,
             "[s]\ntarn = yes\nread list = r\nwrite list = w\ninvalid users = i\npath = /s\n"
             "[t]\ntarn = yes\nread list =\nwrite list = \"a b\"\ninvalid users =\npath = /t/u\n");
  char *reply = nullptr;
  EXPECT_EQ(Tarn_Cluster_Send_Share_List("0", &reply), 0);
  const std::string own = read_file(share_folder + "/QNself01");
  std::filesystem::remove(share_folder + "/QNself01");
  EXPECT_EQ(handle(platform_.calls().at(0).argument), answers(0));
  EXPECT_EQ(read_file(share_folder + "/QNself01"), own);
  EXPECT_THAT(own, Not(IsEmpty()));
}

TEST_F(Share_Handler, An_Explicitly_Empty_List_Empties_The_File_Where_It_Stands_And_Nobody_Is_Told) {
  be_master_with_a_slave();
  write_file(file_, section("old"));
  chmod(file_.c_str(), 0640);
  const ino_t inode = inode_of(file_);
  EXPECT_EQ(handle(argument_of("[]")), answers(0));
  EXPECT_EQ(read_file(file_), "");
  EXPECT_EQ(inode_of(file_), inode);
  EXPECT_EQ(mode_of(file_), 0640u);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Share_Handler, An_Explicitly_Empty_List_Makes_No_File) {
  EXPECT_EQ(handle(argument_of("[]")), answers(0));
  EXPECT_THAT(names_in(share_folder), IsEmpty());
  std::filesystem::remove_all(share_folder);
  EXPECT_EQ(handle(argument_of("[]")), answers(0));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Share_Handler, A_File_That_Cannot_Be_Emptied_Is_Said) {
  be_master_with_a_slave();
  std::filesystem::create_directory(file_);
  expect_refused(argument_of("[]"), -EISDIR,
                 "Can't truncate config /mnt/tarncluster/config/share_list/QNslave1! (-21)");
}

TEST_F(Share_Handler, An_Empty_Array_Beside_A_Filled_One_Empties_Nothing) {
  for (const std::string &argument : {"{\"slave_id\":\"QNslave1\",\"a\":[],\"b\":[" + element("new") + "]}",
                                      "{\"slave_id\":\"QNslave1\",\"a\":[" + element("new") + "],\"b\":[]}"}) {
    write_file(file_, section("old"));
    EXPECT_EQ(handle(argument), answers(0));
    EXPECT_EQ(read_file(file_), section("new"));
  }
}

TEST_F(Share_Handler, Every_Array_Holds_Shares_Whatever_Its_Name) {
  EXPECT_EQ(handle("{\"x\":[" + element("a") + "," + element("b") + "],\"slave_id\":\"QNslave1\",\"n\":1,\"y\":[" +
                   element("c") + "],\"o\":{\"share_list\":[" + element("d") + "]}}"),
            answers(0));
  EXPECT_EQ(read_file(file_), section("a") + section("b") + section("c"));
}

// A slave's information is passed on to this handler too, and must do nothing here.
TEST_F(Share_Handler, Without_An_Array_Nothing_Is_Stored_And_Nobody_Is_Told) {
  be_master_with_a_slave();
  write_file(file_, section("old"));
  for (const char *argument :
       {R"({"slave_id":"QNslave1"})", R"({"slave_id":"QNslave1","Type":1,"MSKey":"QNslave1"})",
        R"({"slave_id":"QNslave1","share_list":null})", R"({"slave_id":"QNslave1","share_list":{}})",
        R"({"slave_id":"QNslave1","share_list":"[]"})"}) {
    EXPECT_EQ(handle(argument), answers(0));
    EXPECT_EQ(read_file(file_), section("old"));
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(lines_of(log_, handler_name), IsEmpty());
}

TEST_F(Share_Handler, The_Walk_Is_Logged_At_Debug_Level) {
  EXPECT_EQ(handle("{\"slave_id\":\"QNslave1\",\"a\":[" + element("s") + "," + element("t") + "],\"b\":[]}"),
            answers(0));
  EXPECT_THAT(
      lines_of(log_, handler_name),
      ElementsAre(debug_line(handler_name, "Array Length: 2"),
                  debug_line(handler_name, R"(value[0]: { "share_name": "s", "invalid users": "x", "read list": "x", )"
                                           R"("write list": "x", "path": "x" })"),
                  debug_line(handler_name, R"(value[1]: { "share_name": "t", "invalid users": "x", "read list": "x", )"
                                           R"("write list": "x", "path": "x" })"),
                  debug_line(handler_name, "Array Length: 0")));
  log_.clear();
  EXPECT_EQ(handle(argument_of("[null]")), answers(-ENOENT));
  EXPECT_THAT(lines_of(log_, handler_name),
              ElementsAre(debug_line(handler_name, "Array Length: 1"), debug_line(handler_name, "value[0]: null"),
                          error_line(handler_name, "Can't get share folder name! (-2)")));
}

TEST_F(Share_Handler, A_Failing_Write_Is_Said_And_Answered) {
  std::filesystem::remove_all(share_folder);
  expect_refused(argument_of("[" + element("s") + "]"), -ENOENT,
                 "Write share list config /mnt/tarncluster/config/share_list/QNslave1 error! (-2)");
}

TEST_F(Share_Handler, A_Failing_Write_Does_Not_Keep_The_Master_From_Passing_The_List_On) {
  be_master_with_a_slave();
  std::filesystem::remove_all(share_folder);
  EXPECT_EQ(handle(argument_of("[" + element("s") + "]")), answers(0)) << "the last send's code";
  EXPECT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_THAT(errors(),
              ElementsAre(error_line(
                  handler_name, "Write share list config /mnt/tarncluster/config/share_list/QNslave1 error! (-2)")));
}

TEST_F(Share_Handler, A_Lock_That_Stays_Taken_Fails_The_Write) {
  Virtual_Clock clock(static_cast<int64_t>(Rough_Tick()));
  const Held_Lock lock("QNslave1");
  clock.on_read([&] { clock.advance(100); });
  expect_refused(argument_of("[" + element("s") + "]"), -ENOLCK,
                 "Write share list config /mnt/tarncluster/config/share_list/QNslave1 error! (-37)");
  EXPECT_TRUE(lock.is_untouched());
}

TEST_F(Share_Handler, An_Argument_That_Is_No_JSON_Has_No_Answer) {
  for (const std::string &argument : {std::string(), std::string("{"), std::string("null"), json_nested(1000),
                                      argument_of("[" + element("s") + "]").substr(0, 100)}) {
    SCOPED_TRACE(argument.substr(0, 50));
    log_.clear();
    EXPECT_EQ(handle(argument), "(null)");
    EXPECT_THAT(log_.lines(), ElementsAre(error_line(handler_name, "Can't create json object! (-12)")));
  }
  EXPECT_EQ(Tarn_Cluster_Send_Share_List_Cb(nullptr), nullptr);
  EXPECT_THAT(names_in(share_folder), IsEmpty());
}

TEST_F(Share_Handler, Without_A_Slaves_Id_Nothing_Is_Stored) {
  be_master_with_a_slave();
  write_file(share_folder + "/QNslave1", section("old"));
  write_file(cluster_folder + "/x", "untouched");
  for (const char *id : {"null",           "5",
                         "true",           "[]",
                         "[\"QNslave1\"]", "{}",
                         "\"\"",           "\".\"",
                         "\"..\"",         "\"../x\"",
                         "\"a/b\"",        "\"/x\"",
                         "\"a\\nb\"",      "\"a\\u0000b\"",
                         "\"a]b\"",        "\"[a\"",
                         "\"a b\"",        "\"ninechars\"",
                         "\"\\u00e4\"",    "\"\\u007f\""}) {
    expect_refused("{\"slave_id\":" + std::string(id) + ",\"share_list\":[" + element("s") + "]}", -EINVAL,
                   "Can't get slave id! (-22)");
    expect_refused("{\"slave_id\":" + std::string(id) + ",\"share_list\":[]}", -EINVAL, "Can't get slave id! (-22)");
  }
  for (const std::string &argument :
       {std::string("{}"), "{\"share_list\":[" + element("s") + "]}", std::string("[]"), std::string("5"),
        std::string("\"slave_id\""), "[" + argument_of("[]") + "]", std::string("true")}) {
    expect_refused(argument, -EINVAL, "Can't get slave id! (-22)");
  }
}

TEST_F(Share_Handler, A_Value_That_Is_No_String_Or_Would_Leave_Its_Line_Counts_As_Missing) {
  write_file(file_, section("old"));
  const std::pair<const char *, const char *> keys[] = {{"share_name", "Can't get share folder name! (-2)"},
                                                        {"read list", "Can't get read list! (-2)"},
                                                        {"write list", "Can't get write list! (-2)"},
                                                        {"invalid users", "Can't get write list! (-2)"},
                                                        {"path", "Can't get path! (-2)"}};
  for (const auto &[bad_key, line] : keys) {
    for (const char *value : {"null", "5", "false", "[]", "[\"x\"]", "{}", "\"a\\nb\"", "\"x\\n[root]\\npath = /\"",
                              "\"a\\u0000b\"", "\"\\n\""}) {
      std::string share = "{";
      for (const auto &[key, unused] : keys) {
        share += std::string(share.size() > 1 ? "," : "") + "\"" + key + "\":" + (key == bad_key ? value : "\"x\"");
      }
      expect_refused(argument_of("[" + share + "}]"), -ENOENT, line);
    }
  }
}

TEST_F(Share_Handler, A_Name_That_Cannot_Head_A_Section_Counts_As_Missing) {
  for (const char *name : {"", "a]b", "]"}) {
    expect_refused(argument_of("[" + element(name) + "]"), -ENOENT, "Can't get share folder name! (-2)");
  }
}

TEST_F(Share_Handler, Names_And_Values_That_Only_Look_Like_Something_Else_Are_Stored) {
  for (const char *text :
       {"../x", "[root]", "# no comment", "; none", "a = b", "caf\xc3\xa9", "%s%n", "$(id)", "a\tb"}) {
    const std::string name = strchr(text, ']') == nullptr ? text : "name";
    EXPECT_EQ(handle(argument_of("[" + element(name, text) + "]")), answers(0));
    EXPECT_EQ(read_file(file_), section(name, text));
    EXPECT_THAT(names_in(share_folder), ElementsAre("QNslave1"));
  }
}

TEST_F(Share_Handler, A_Long_Name_Or_Path_Is_Cut_As_Its_Field_Is_And_A_List_Is_Stored_Whole) {
  const std::string long_text(6000, 'v');
  EXPECT_EQ(handle(argument_of("[" + element(std::string(70, 'n'), long_text) + "," + element("next") + "]")),
            answers(0));
  EXPECT_EQ(read_file(file_), "[" + std::string(64, 'n') + "]\nread list = " + long_text +
                                  "\nwrite list = " + long_text + "\ninvalid users = " + long_text +
                                  "\npath = " + std::string(4095, 'v') + "\n\n" + section("next"));
}

TEST_F(Share_Handler, Elements_Of_Other_Types_Are_No_Shares) {
  for (const char *list : {"[null]", "[1]", "[\"s\"]", "[[]]", "[true]", "[[{\"share_name\":\"s\"}]]"}) {
    expect_refused(argument_of(list), -ENOENT, "Can't get share folder name! (-2)");
  }
}

TEST_F(Share_Handler, Ten_Thousand_Shares_Are_Stored_And_Passed_On_Unchanged) {
  be_master_with_a_slave();
  std::string list, file;
  for (int i = 0; i < 10'000; ++i) {
    const std::string name = "share" + std::to_string(i);
    list += (i > 0 ? "," : "") + element(name, "/share/" + name);
    file += section(name, "/share/" + name);
  }
  const Log_Capture quiet(1);
  const std::string argument = argument_of("[" + list + "]");
  EXPECT_EQ(handle(argument), answers(0));
  EXPECT_EQ(read_file(file_), file);
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_EQ(platform_.calls()[0].argument, argument);
}

TEST_F(Share_Handler, The_Answer_Is_A_Heap_Block_Of_Just_Its_Size) {
  const Owned_Text reply(Tarn_Cluster_Send_Share_List_Cb(argument_of("[]").c_str()));
  ASSERT_NE(reply, nullptr);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(malloc_usable_size(reply.get()), strlen(reply.get()) + 1);
#else
  EXPECT_LE(malloc_usable_size(reply.get()), strlen(reply.get()) + 1 + 24);  // the allocator's rounding
#endif
}

TEST_F(Share_Handler, Errors_Are_Written_From_Level_1_On_And_The_Walk_From_Level_3_On) {
  for (const int level : {0, 1, 2, 3}) {
    const Log_Capture log(level);
    EXPECT_EQ(handle(argument_of("[{}]")), answers(-ENOENT));
    EXPECT_THAT(log.lines(), SizeIs(level == 0 ? 0 : level < 3 ? 1 : 3));
  }
}

TEST_F(Share_Handler, When_Memory_Ends_The_File_Is_The_Old_Or_The_New_One_And_It_Is_Said) {
  const std::string argument = argument_of("[" + element("a") + "," + element("b") + "]");
  int no_record = 0, no_answer = 0;
  write_file(file_, section("old"));
  with_each_whole_parse_allocation_failing(
      argument, [&] { return Owned_Text(Tarn_Cluster_Send_Share_List_Cb(argument.c_str())); },
      [&](const Owned_Text &answer, int nth) {
        SCOPED_TRACE(nth);
        const auto said = errors();
        log_.clear();
        const std::string stored = read_file(file_);
        write_file(file_, section("old"));
        EXPECT_THAT(stored, AnyOf(section("old"), section("a") + section("b")));
        if (answer != nullptr && answer.get() == answers(0)) {
          EXPECT_EQ(stored, section("a") + section("b"));
          return;
        }
        ASSERT_THAT(said, Not(IsEmpty()));
        EXPECT_THAT(said.back().text, HasSubstr("(-12)"));
        no_record += said.back().text == "Can't allocate memory for service browsing! (-12)";
        no_answer += said.back().text == "Can't create memory for return string! (-12)" && answer == nullptr;
      });
  EXPECT_EQ(no_record, 10);  // two records, and four values of each
  EXPECT_EQ(no_answer, 1);
}

}  // namespace
}  // namespace tarn::test
