#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/appliance.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/cluster/ops/record_answers.h"
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

constexpr char send_name[] = "Tarn_Cluster_Send_Slave_Info";
constexpr char handler_name[] = "Tarn_Cluster_Send_Slave_Info_Cb";

// ------------------------------------------------------------------------------------------------------------- sender

const std::string own_record =
    "[QNself01]\nHostName = old\nAddress = 10.77.0.7\nID = 5\nUsrCnt = 7\nType = -3\nStatus = 1\nWebPort = 1\n"
    "SslWebPort = 2\nQuota = 9\nSID = sid1\nModel = old\nFirmware = old\n\n";

class Info_Sender : public testing::Test {
 protected:
  Info_Sender() {
    Appliance::be_slave();
    Appliance::set_id("QNself01");
    write_file(slaves_file, "[QNother1]\nType = 1\n\n" + own_record);
    configure("Server Name = nas1\nVersion = 4.3.6\nWeb Access Port = 8081\n", "Enable = 1\nPort = 444\n");
    write_file(quota_file, "User Enable = TRUE\nUser Size = 1000\n");
    platform_.answer_model(0, std::string("Model X\0", 8));
  }
  ~Info_Sender() override { free(reply_); }

  static void configure(const std::string &system, const std::string &stunnel) {
    write_file(system_file, "[System]\n" + system + "\n[Stunnel]\n" + stunnel);
  }

  int send() {
    free(reply_);
    reply_ = nullptr;
    return Tarn_Cluster_Send_Slave_Info("0", &reply_);
  }

  // A value as it is sent, in JSON.
  std::string sent(const std::string &key) {
    log_.clear();
    EXPECT_EQ(send(), 0);
    if (platform_.calls().empty()) return "";
    for (const auto &[name, value] : json_members(platform_.calls().back().argument)) {
      if (name == key) return value;
    }
    return "";
  }

  std::vector<Log_Line> lines() const { return lines_of(log_, send_name); }
  static Log_Line line(const std::string &text) { return error_line(send_name, text); }

  void expect_nothing_sent() {
    EXPECT_THAT(platform_.calls(), IsEmpty());
    EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  }

  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

TEST_F(Info_Sender, The_Description_Is_Sent_In_A_Fixed_Order_Under_The_Handlers_Name) {
  platform_.answer(0, R"({"return": 0})");
  EXPECT_EQ(send(), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Slave_Cmd");
  EXPECT_FALSE(calls[0].timeout_ms.has_value());
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Send_Slave_Info_Cb\""),
                          Pair("master_id", "\"0\"")));
  EXPECT_THAT(json_members(calls[0].argument),
              ElementsAre(Pair("slave_id", "\"QNself01\""), Pair("Type", "-3"), Pair("WebPort", "8081"),
                          Pair("SslWebPort", "444"), Pair("UsrCnt", "7"), Pair("Quota", "1000"),
                          Pair("Address", "\"10.77.0.7\""), Pair("MSKey", "\"QNself01\""), Pair("SID", "\"sid1\""),
                          Pair("HostName", "\"nas1\""), Pair("Model", "\"Model X\""), Pair("Firmware", "\"4.3.6\"")));
  EXPECT_STREQ(reply_, R"({"return": 0})");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Info_Sender, The_Own_Record_Is_Not_Changed) {
  const auto before = Appliance::all_files();
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(Appliance::all_files(), before);
}

TEST_F(Info_Sender, What_The_Own_Record_Lacks_Is_Sent_As_0_Or_Empty) {
  write_file(slaves_file, "[QNself01]\nID = 1\n");
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(json_members(platform_.calls().at(0).argument),
              testing::AllOf(Contains(Pair("Type", "0")), Contains(Pair("UsrCnt", "0")),
                             Contains(Pair("Address", "\"\"")), Contains(Pair("SID", "\"\"")), SizeIs(12)));
}

TEST_F(Info_Sender, The_Sync_Service_Is_Reloaded_Once_And_Not_Waited_For) {
  {
    const Sync_Service_Held held;
    EXPECT_EQ(send(), 0);
  }
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded));
}

TEST_F(Info_Sender, A_Host_Name_Shorter_Than_15_Characters_Is_Taken) {
  configure("Server Name = abcdefghijklmn\nVersion = 1\nWeb Access Port = 1\n", "Enable = 1\n");
  EXPECT_EQ(sent("HostName"), "\"abcdefghijklmn\"");
  EXPECT_THAT(lines(), IsEmpty());
  configure("Server Name =\nVersion = 1\nWeb Access Port = 1\n", "Enable = 1\n");
  EXPECT_EQ(sent("HostName"), "\"\"");
  for (const char *name : {"abcdefghijklmno", "a host name that is much longer than any field"}) {
    configure(std::string("Server Name = ") + name + "\nVersion = 1\nWeb Access Port = 1\n", "Enable = 1\n");
    EXPECT_EQ(sent("HostName"), "\"Unknown Host\"");
    EXPECT_THAT(lines(), ElementsAre(line("Buffer overflow when get Server Name! (-75)")));
  }
}

TEST_F(Info_Sender, A_Version_Shorter_Than_32_Characters_Is_Taken) {
  const std::string longest(31, 'v');
  configure("Server Name = n\nVersion = " + longest + "\nWeb Access Port = 1\n", "Enable = 1\n");
  EXPECT_EQ(sent("Firmware"), "\"" + longest + "\"");
  EXPECT_THAT(lines(), IsEmpty());
  configure("Server Name = n\nVersion = " + longest + "v\nWeb Access Port = 1\n", "Enable = 1\n");
  EXPECT_EQ(sent("Firmware"), "\"Unknown Firmware Version\"");
  EXPECT_THAT(lines(), ElementsAre(line("Buffer overflow when get Version! (-75)")));
}

TEST_F(Info_Sender, Missing_Keys_Leave_The_Defaults_And_Are_Said_In_Order) {
  configure("", "");
  EXPECT_EQ(sent("HostName"), "\"Unknown Host\"");
  EXPECT_THAT(lines(),
              ElementsAre(line("Can't get NAS host name! (-61)"), line("Can't get NAS version! (-61)"),
                          line("Can't get NAS web access port! (-61)"), line("Can't get NAS web access port! (-61)")));
  EXPECT_EQ(sent("Firmware"), "\"Unknown Firmware Version\"");
  EXPECT_EQ(sent("WebPort"), "8080");
  EXPECT_EQ(sent("SslWebPort"), "-1");
}

TEST_F(Info_Sender, Missing_Sections_Leave_The_Defaults_And_Are_Said) {
  write_file(system_file, "[Other]\nServer Name = x\n");
  EXPECT_EQ(sent("HostName"), "\"Unknown Host\"");
  EXPECT_THAT(lines(),
              ElementsAre(line("Can't get NAS host name! (-55)"), line("Can't get NAS version! (-55)"),
                          line("Can't get NAS web access port! (-55)"), line("Can't get NAS web access port! (-55)")));
  write_file(system_file, "");
  EXPECT_EQ(sent("WebPort"), "8080");
  EXPECT_THAT(lines(), SizeIs(4));
}

TEST_F(Info_Sender, The_Web_Port_Is_Read_As_A_Decimal_Number) {
  for (const auto &[text, number] : std::vector<std::pair<std::string, std::string>>{
           {"80", "80"}, {"0", "0"}, {"010", "10"}, {"-5", "-5"}, {"80x", "80"}, {"x", "0"}, {"", "0"}}) {
    configure("Server Name = n\nVersion = 1\nWeb Access Port = " + text + "\n", "Enable = 1\n");
    EXPECT_EQ(sent("WebPort"), number) << text;
    EXPECT_THAT(lines(), IsEmpty());
  }
}

TEST_F(Info_Sender, The_Secure_Web_Port_Counts_When_It_Is_Enabled) {
  const std::string system = "Server Name = n\nVersion = 1\nWeb Access Port = 1\n";
  for (const auto &[text, number] :
       std::vector<std::pair<std::string, std::string>>{{"Enable = 1\n", "443"},
                                                        {"Enable = 1\nPort = 8443\n", "8443"},
                                                        {"Enable = -2\nPort = 8443\n", "8443"},
                                                        {"Enable = 0\nPort = 8443\n", "-1"},
                                                        {"Enable = 0\n", "-1"},
                                                        {"Enable = TRUE\nPort = 8443\n", "-1"},
                                                        {"Enable =\n", "-1"},
                                                        {"Enable = 1\nPort = x\n", "0"}}) {
    configure(system, text);
    EXPECT_EQ(sent("SslWebPort"), number) << text;
    EXPECT_THAT(lines(), IsEmpty());
  }
  configure(system, "Port = 8443\n");
  EXPECT_EQ(sent("SslWebPort"), "-1");
  EXPECT_THAT(lines(), ElementsAre(line("Can't get NAS web access port! (-61)")));
}

TEST_F(Info_Sender, The_Model_Is_What_The_Platform_Says_When_It_Says_0) {
  EXPECT_EQ(sent("Model"), "\"Model X\"");
  EXPECT_THAT(platform_.model_rooms(), ElementsAre(64));
  for (const int code : {-1, 1}) {
    platform_.answer_model(code, std::string("Model X\0", 8));
    EXPECT_EQ(sent("Model"), "\"Unkown Model\"");
    EXPECT_THAT(lines(), IsEmpty());
  }
}

TEST_F(Info_Sender, A_Long_Model_Is_Cut_And_Reaches_No_Other_Field) {
  platform_.answer_model(0, std::string(31, 'm') + std::string(1, '\0'));
  EXPECT_EQ(sent("Model"), "\"" + std::string(31, 'm') + "\"");
  // 64 bytes, and no terminator among them.
  for (const size_t length : {32u, 63u, 64u}) {
    platform_.answer_model(0, std::string(length, 'm') + std::string(length < 64 ? 1 : 0, '\0'));
    EXPECT_EQ(sent("Model"), "\"" + std::string(31, 'm') + "\"");
    EXPECT_EQ(sent("Firmware"), "\"4.3.6\"");
  }
}

TEST_F(Info_Sender, The_Quota_Counts_When_It_Is_Enabled_By_Just_TRUE) {
  EXPECT_EQ(sent("Quota"), "1000");
  for (const char *text : {"User Enable = true\nUser Size = 5\n", "User Enable = TRUE1\nUser Size = 5\n",
                           "User Enable = 1\nUser Size = 5\n", "User Enable =\nUser Size = 5\n", "User Size = 5\n", "",
                           "[user]\nUser Enable = TRUE\nUser Size = 5\n"}) {
    write_file(quota_file, text);
    EXPECT_EQ(sent("Quota"), "0") << text;
    EXPECT_THAT(lines(), IsEmpty());
  }
}

TEST_F(Info_Sender, A_Missing_Quota_File_Leaves_0_Without_A_Word_And_A_Missing_Size_Is_Said) {
  std::filesystem::remove(quota_file);
  EXPECT_EQ(sent("Quota"), "0");
  EXPECT_THAT(lines(), IsEmpty());
  std::filesystem::create_directory(quota_file);
  EXPECT_EQ(sent("Quota"), "0");
  EXPECT_THAT(lines(), IsEmpty());
  std::filesystem::remove(quota_file);
  write_file(quota_file, "User Enable = TRUE\n");
  EXPECT_EQ(sent("Quota"), "0");
  EXPECT_THAT(lines(), ElementsAre(line("Can't get user quota! (-61)")));
}

// It travels in 32 bits: older members read no more.
TEST_F(Info_Sender, A_Quota_Is_Cut_To_32_Bits) {
  for (const auto &[text, number] : std::vector<std::pair<std::string, std::string>>{{"2147483647", "2147483647"},
                                                                                     {"2147483648", "-2147483648"},
                                                                                     {"4294967295", "-1"},
                                                                                     {"4294967296", "0"},
                                                                                     {"5000000000", "705032704"},
                                                                                     {"-5", "-5"},
                                                                                     {"-4294967297", "-1"},
                                                                                     {"9223372036854775807", "-1"},
                                                                                     {"x", "0"}}) {
    write_file(quota_file, "User Enable = TRUE\nUser Size = " + text + "\n");
    EXPECT_EQ(sent("Quota"), number) << text;
  }
}

TEST_F(Info_Sender, Without_An_Own_Id_Nothing_Is_Sent) {
  for (const auto &[text, status] : std::vector<std::pair<std::string, int>>{
           {"", -ENOANO}, {"[global]\nx = y\n", -ENODATA}, {"[global]\nMSKey = ninechars\n", -EOVERFLOW}}) {
    log_.clear();
    write_file(identity_file, text);
    EXPECT_EQ(send(), status);
    EXPECT_THAT(lines(), ElementsAre(line("Can't read the slave id from config file "
                                          "/mnt/tarncluster/config/tarn_cluster_s.conf! (" +
                                          std::to_string(status) + ")")));
  }
  expect_nothing_sent();
}

TEST_F(Info_Sender, A_Slave_That_Is_No_Member_Is_Noted_In_The_Removals_Words) {
  write_file(slaves_file, "[QNother1]\nType = 1\n");
  EXPECT_EQ(send(), -ENOANO);
  EXPECT_THAT(lines(), ElementsAre(debug_line(send_name, "Remove a slave which doesn't exist.")));
  expect_nothing_sent();
}

TEST_F(Info_Sender, An_Unreadable_List_Of_Members_Is_Said) {
  std::filesystem::remove(slaves_file);
  EXPECT_EQ(send(), -ENOENT);
  EXPECT_THAT(lines(),
              ElementsAre(line("Can't read service config file /mnt/tarncluster/config/tarn_service_s.conf! (-2)")));
  expect_nothing_sent();
}

TEST_F(Info_Sender, A_Look_Up_That_Finds_No_Record_Ends_It_With_0) {
  const Get_Answer nothing(0);
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(lines(), IsEmpty());
  expect_nothing_sent();
}

TEST_F(Info_Sender, An_Unreadable_System_Configuration_Is_Said_And_Nothing_Is_Sent) {
  std::filesystem::remove(system_file);
  EXPECT_EQ(send(), -ENOENT);
  std::filesystem::create_directory(system_file);
  EXPECT_EQ(send(), -ENOMEDIUM);
  EXPECT_THAT(lines(), ElementsAre(line("Can't read conf /etc/config/Gavrix.conf ! (-2)"),
                                   line("Can't read conf /etc/config/Gavrix.conf ! (-123)")));
  expect_nothing_sent();
}

TEST_F(Info_Sender, The_Platforms_Code_Is_Logged_And_Returned_Unchanged) {
  for (const int code : {-EHOSTUNREACH, 3}) {
    log_.clear();
    platform_.answer(code, "{}");
    EXPECT_EQ(send(), code);
    EXPECT_STREQ(reply_, "{}");
    EXPECT_THAT(lines(), ElementsAre(line("Can't send cluster command! (" + std::to_string(code) + ")")));
  }
}

TEST_F(Info_Sender, The_Reply_Is_Null_When_There_Is_None) {
  char before[] = "left over";
  for (const bool is_member : {true, false}) {
    if (!is_member) write_file(slaves_file, "[x]\nType = 1\n");
    char *reply = before;
    EXPECT_EQ(Tarn_Cluster_Send_Slave_Info("0", &reply), is_member ? 0 : -ENOANO);
    EXPECT_EQ(reply, nullptr);
  }
}

TEST_F(Info_Sender, A_Missing_Argument_Is_Refused) {
  EXPECT_EQ(Tarn_Cluster_Send_Slave_Info(nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Send_Slave_Info("0", nullptr), -EINVAL);
  EXPECT_THAT(log_.lines(), IsEmpty());
  expect_nothing_sent();
}

TEST_F(Info_Sender, When_Memory_Ends_The_Description_Is_Sent_Whole_Or_Not_At_All) {
  int refused = 0;
  with_each_allocation_failing([&] { return send(); },
                               [&](int, int nth) {
                                 SCOPED_TRACE(nth);
                                 refused +=
                                     lines_of(log_, send_name) == std::vector{line("Can't create json object! (-12)")};
                                 log_.clear();
                               });
  EXPECT_GE(refused, 12);
  for (const Platform_Call &call : platform_.calls()) {
    EXPECT_THAT(json_members(call.argument), SizeIs(12));
    EXPECT_THAT(json_members(call.command), SizeIs(3));
  }
}

// ------------------------------------------------------------------------------------------------------------ handler

using Values = std::vector<std::pair<std::string, std::string>>;  // values in JSON

// What QNslave1 says of itself; the changes replace a key's value, or leave the key out when they are empty.
std::string description(const Values &changes = {}) {
  Values values = {{"slave_id", "\"QNslave1\""},
                   {"Type", "11"},
                   {"WebPort", "12"},
                   {"SslWebPort", "-13"},
                   {"UsrCnt", "14"},
                   {"Quota", "15"},
                   {"Address", "\"10.77.0.77\""},
                   {"MSKey", "\"QNslave1\""},
                   {"SID", "\"newsid\""},
                   {"HostName", "\"newhost\""},
                   {"Model", "\"new model\""},
                   {"Firmware", "\"new firmware\""}};
  for (const auto &[key, value] : changes) {
    for (auto &[own_key, own_value] : values) {
      if (own_key == key) own_value = value;
    }
  }
  std::string text;
  for (const auto &[key, value] : values) {
    if (!value.empty()) text += (text.empty() ? "{\"" : ",\"") + key + "\":" + value;
  }
  return text + "}";
}

// A member's section with every key, some of which the description changes.
std::string full_section(const std::string &name, const std::string &host, const std::string &address,
                         const std::string &numbers, const std::string &texts) {
  return "[" + name + "]\nHostName = " + host + "\nAddress = " + address + "\nID = 1\nPID = 2\nUsrCnt = " + numbers +
         "4\nType = " + numbers + "1\nStatus = 3\nWebPort = " + numbers + "2\nSslWebPort = -" + numbers +
         "3\nBackupResult = 4\nRestoreResult = 5\nBackupProgress = 6\nRestoreProgress = 7\nRestorePID = 8\n"
         "LastBackup = 9\nLastRestore = 10\nQuota = " +
         numbers + "5\nLeaveTime = 99\nSID = " + texts + "sid\nModel = " + texts + " model\nFirmware = " + texts +
         " firmware\nLastRestoreFile = file\n\n";
}

std::string old_section(const std::string &name = "QNslave1") {
  return full_section(name, "oldhost", "10.0.0.1", "3", "old");
}

std::string new_section(const std::string &name = "QNslave1") {
  return full_section(name, "newhost", "10.77.0.77", "1", "new");
}

class Info_Handler : public testing::Test {
 protected:
  Info_Handler() {
    Appliance::be_slave();
    write_file(slaves_file, section_of({"QNother1"}) + old_section());
    write_file(kept_slaves_file, old_section() + "[QNkept1]\nType = 1\n\n");
    platform_.answer(0, R"({"return": 0})");
  }

  static std::string handle(const std::string &argument) {
    return answer_of(Tarn_Cluster_Send_Slave_Info_Cb, argument);
  }

  std::vector<Log_Line> lines() const { return lines_of(log_, handler_name); }
  static Log_Line line(const std::string &text) { return error_line(handler_name, text); }
  static Log_Line unset_line(const std::string &path, int status, const std::string &id = "QNslave1") {
    return line("Can't set service " + id + " to config file " + path + "! (" + std::to_string(status) + ")");
  }

  void expect_refused(const std::string &argument, int code, const std::string &text) {
    SCOPED_TRACE(argument.substr(0, 300));
    const auto before = Appliance::all_files();
    log_.clear();
    EXPECT_EQ(handle(argument), answers(code));
    EXPECT_THAT(lines(), ElementsAre(line(text)));
    EXPECT_EQ(Appliance::all_files(), before);
    EXPECT_THAT(platform_.calls(), IsEmpty());
    EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  }

  // The record that is stored; all zero when there is none.
  static Tarn_Serv_Conf stored(const std::string &path = slaves_file, const std::string &name = "QNslave1") {
    Tarn_Serv_Conf *found = nullptr;
    Tarn_Serv_Conf record = {};
    if (Tarn_Cluster_Service_Get(path.c_str(), name.c_str(), &found) == 0) record = *found;
    Release_Serv_List_Conf(found);
    return record;
  }

  Appliance appliance_;
  Platform_Doubles platform_;
  Log_Capture log_;
};

TEST_F(Info_Handler, The_Description_Goes_Into_Both_Copies_And_Leaves_The_Other_Fields) {
  EXPECT_EQ(handle(description()), answers(0));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}) + new_section());
  EXPECT_EQ(read_file(kept_slaves_file), new_section() + "[QNkept1]\nType = 1\n\n");
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty()) << "a slave passes nothing on";
}

// The kept copy gets the working copy's record, whole.
TEST_F(Info_Handler, A_Kept_Copy_That_Lacks_The_Member_Gets_It_And_One_That_Is_Missing_Is_Made) {
  write_file(kept_slaves_file, "[QNkept1]\nType = 1\n\n");
  EXPECT_EQ(handle(description()), answers(0));
  EXPECT_EQ(read_file(kept_slaves_file), "[QNkept1]\nType = 1\n\n" + new_section());
  std::filesystem::remove(kept_slaves_file);
  EXPECT_EQ(handle(description()), answers(0));
  EXPECT_EQ(read_file(kept_slaves_file), new_section());
}

TEST_F(Info_Handler, Every_Key_Is_There_Afterwards) {
  write_file(slaves_file, "[QNslave1]\nStatus = 1\n");
  EXPECT_EQ(handle(description()), answers(0));
  for (const std::string &path : {slaves_file, kept_slaves_file}) {
    EXPECT_EQ(stored(path).fields | TARN_SERV_NAME, 0x7FFFFFu);
  }
  EXPECT_EQ(stored().Status, 1);
  EXPECT_EQ(stored().LastBackup, 0);
}

TEST_F(Info_Handler, Another_Key_Renames_The_Members_Section_In_Both_Copies) {
  EXPECT_EQ(handle(description({{"MSKey", "\"QNnew001\""}})), answers(0));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}) + new_section("QNnew001"));
  EXPECT_EQ(read_file(kept_slaves_file), new_section("QNnew001") + "[QNkept1]\nType = 1\n\n");
}

TEST_F(Info_Handler, A_Quota_Beyond_32_Bits_Is_Stored_As_Its_Low_32_Bits) {
  for (const auto &[text, number] : std::vector<std::pair<std::string, int64_t>>{{"2147483647", 2147483647},
                                                                                 {"2147483648", -2147483648LL},
                                                                                 {"4294967295", -1},
                                                                                 {"4294967296", 0},
                                                                                 {"5000000000", 705032704},
                                                                                 {"-4294967297", -1},
                                                                                 {"-7", -7}}) {
    EXPECT_EQ(handle(description({{"Quota", text}})), answers(0));
    EXPECT_EQ(stored().Quota, number) << text;
    EXPECT_EQ(stored(kept_slaves_file).Quota, number) << text;
  }
}

TEST_F(Info_Handler, A_Missing_Number_Counts_As_0) {
  EXPECT_EQ(handle(description({{"Type", ""}, {"WebPort", ""}, {"SslWebPort", "null"}, {"UsrCnt", ""}, {"Quota", ""}})),
            answers(0));
  const Tarn_Serv_Conf record = stored();
  EXPECT_EQ(record.Type, 0);
  EXPECT_EQ(record.WebPort, 0);
  EXPECT_EQ(record.SslWebPort, 0);
  EXPECT_EQ(record.UsrCnt, 0);
  EXPECT_EQ(record.Quota, 0);
  EXPECT_EQ(record.fields | TARN_SERV_NAME, 0x7FFFFFu);
}

TEST_F(Info_Handler, Numbers_Of_Other_Types_Or_Out_Of_Range_Are_Survived) {
  const auto lines_before = std::ranges::count(read_file(slaves_file), '\n');
  for (const char *value :
       {"\"x\"", "[]", "{}", "true", "1e300", "-1e300", "99999999999999999999999", "1.5", "\"12\""}) {
    EXPECT_EQ(handle(description({{"Type", value}, {"WebPort", value}, {"UsrCnt", value}, {"Quota", value}})),
              answers(0));
    EXPECT_EQ(std::ranges::count(read_file(slaves_file), '\n'), lines_before) << value;
  }
}

TEST_F(Info_Handler, A_Text_That_Is_Missing_Or_Would_Leave_Its_Line_Refuses_The_Description) {
  for (const char *key : {"Address", "SID", "HostName", "Model", "Firmware", "MSKey"}) {
    for (const char *value : {"", "null", "5", "[]", "{}", "\"a\\nb\"", "\"a\\u0000b\"", "\"\\n[root]\\nType = 1\""}) {
      expect_refused(description({{key, value}}), -EINVAL, "Can't get slave information! (-22)");
    }
  }
}

TEST_F(Info_Handler, A_Key_That_Cannot_Be_A_Members_Name_Refuses_The_Description) {
  for (const char *value :
       {"\"\"", "\"../x\"", "\"a/b\"", "\"a]b\"", "\"a b\"", "\".\"", "\"ninechars\"", "\"\\u00e4\""}) {
    expect_refused(description({{"MSKey", value}}), -EINVAL, "Can't get slave information! (-22)");
  }
}

TEST_F(Info_Handler, Long_Texts_Are_Cut_At_The_End_Of_Their_Own_Fields) {
  const std::string x = "\"" + std::string(5000, 'x') + "\"";
  EXPECT_EQ(handle(description({{"Address", x}, {"SID", x}, {"HostName", x}, {"Model", x}, {"Firmware", x}})),
            answers(0));
  const Tarn_Serv_Conf record = stored();
  EXPECT_EQ(record.Address, std::string(63, 'x'));
  EXPECT_EQ(record.SID, std::string(8, 'x'));
  EXPECT_EQ(record.HostName, std::string(14, 'x'));
  EXPECT_EQ(record.Model, std::string(31, 'x'));
  EXPECT_EQ(record.Firmware, std::string(31, 'x'));
  EXPECT_EQ(record.LastRestoreFile, std::string("file"));
}

TEST_F(Info_Handler, Texts_That_Only_Look_Like_Something_Else_Are_Stored_And_May_Be_Empty) {
  for (const char *text : {"", "[root]", "# none", "a = b", "%s%n"}) {
    const std::string value = json_quoted(text);
    EXPECT_EQ(handle(description({{"Address", value}, {"SID", value}, {"HostName", value}})), answers(0));
    EXPECT_EQ(stored().HostName, std::string(text));
    EXPECT_EQ(stored().SID, std::string(text));
    EXPECT_EQ(stored().Address, std::string(text));
    EXPECT_EQ(stored(slaves_file, "QNother1").Status, 1);
  }
}

TEST_F(Info_Handler, Without_A_Slaves_Id_Nothing_Is_Stored) {
  Appliance::be_master();
  for (const char *id : {"", "null", "5", "[]", "{}", "\"\"", "\"..\"", "\"../x\"", "\"a\\nb\"", "\"a\\u0000b\"",
                         "\"a]b\"", "\"ninechars\""}) {
    expect_refused(description({{"slave_id", id}}), -EINVAL, "Can't get slave id! (-22)");
    expect_refused(description({{"slave_id", id}, {"MSKey", "\"NULL\""}}), -EINVAL, "Can't get slave id! (-22)");
  }
  for (const char *argument : {"{}", "[]", "5", "\"x\"", "true"}) {
    expect_refused(argument, -EINVAL, "Can't get slave id! (-22)");
  }
}

TEST_F(Info_Handler, An_Argument_That_Is_No_JSON_Has_No_Answer) {
  for (const std::string &argument : {std::string(), std::string("{"), std::string("null"), json_nested(1000)}) {
    log_.clear();
    EXPECT_EQ(handle(argument), "(null)");
    EXPECT_THAT(log_.lines(), ElementsAre(line("Can't create json object! (-12)")));
  }
  EXPECT_EQ(Tarn_Cluster_Send_Slave_Info_Cb(nullptr), nullptr);
}

TEST_F(Info_Handler, The_Sync_Service_Is_Reloaded_Once_And_Not_Waited_For) {
  for (const char *key : {"\"QNslave1\"", "\"NULL\""}) {
    std::filesystem::remove("/tmp/druvosrv.runs");
    {
      const Sync_Service_Held held;
      EXPECT_EQ(handle(description({{"MSKey", key}})), answers(0));
    }
    EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded)) << key;
  }
}

// ------------------------------------------------------------------------------------ a member that is not on the list

TEST_F(Info_Handler, A_Stranger_Is_Noted_And_Deleted_From_The_Kept_Copy_Only) {
  Appliance::be_master();
  const std::string working = section_of({"QNother1"});
  write_file(slaves_file, working);
  EXPECT_EQ(handle(description()), answers(0));
  EXPECT_EQ(read_file(slaves_file), working) << "it is never added";
  EXPECT_EQ(read_file(kept_slaves_file), "[QNkept1]\nType = 1\n\n");
  EXPECT_EQ(lines().at(0), (Log_Line{"info", handler_name, "Can't find slave id QNslave1!"}));
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded));
  EXPECT_THAT(platform_.calls(), SizeIs(1)) << "the others are told all the same";
}

TEST_F(Info_Handler, The_Note_Of_A_Stranger_Is_Written_From_Level_2_On) {
  write_file(slaves_file, section_of({"QNother1"}));
  for (const int level : {1, 2}) {
    write_file(kept_slaves_file, old_section());
    const Log_Capture log(level);
    EXPECT_EQ(handle(description()), answers(0));
    EXPECT_THAT(log.lines(), SizeIs(level == 2 ? 1 : 0));
  }
}

TEST_F(Info_Handler, A_Stranger_To_Both_Copies_Fails_And_Ends_It) {
  Appliance::be_master();
  write_file(slaves_file, section_of({"QNother1"}));
  write_file(kept_slaves_file, "[QNkept1]\nType = 1\n\n");
  const auto before = Appliance::all_files();
  EXPECT_EQ(handle(description()), answers(-ENOANO));
  EXPECT_EQ(Appliance::all_files(), before);
  EXPECT_THAT(lines(), ElementsAre(Log_Line{"info", handler_name, "Can't find slave id QNslave1!"},
                                   unset_line(kept_slaves_file, -55)));
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Info_Handler, An_Unreadable_Working_Copy_Is_Said_And_Counts_As_No_Record) {
  std::filesystem::remove(slaves_file);
  EXPECT_EQ(handle(description()), answers(0));
  EXPECT_THAT(lines(), ElementsAre(line("Can't read Tarn service file! (-2)")));
  EXPECT_FALSE(exists(slaves_file));
  EXPECT_EQ(read_file(kept_slaves_file), "[QNkept1]\nType = 1\n\n");
}

// The branch is there for a look-up that succeeds without a record; none does.
TEST_F(Info_Handler, A_Look_Up_Without_Record_Changes_No_Working_Copy) {
  const std::string before = read_file(slaves_file);
  const Get_Answer nothing(0);
  handle(description());
  EXPECT_EQ(read_file(slaves_file), before);
}

// --------------------------------------------------------------------------------------------------- locks and writes

// Both copies have one lock file, since it is named by the base name.
TEST_F(Info_Handler, A_Lock_That_Stays_Taken_Is_Said_Twice_And_Nothing_Changes) {
  Appliance::be_master();
  const auto before = Appliance::all_files();
  {
    Virtual_Clock clock(static_cast<int64_t>(Rough_Tick()));
    const Held_Lock lock("tarn_service_s.conf");
    clock.on_read([&] { clock.advance(100); });
    EXPECT_EQ(handle(description()), answers(-ENOLCK));
    EXPECT_TRUE(lock.is_untouched());
  }
  EXPECT_EQ(Appliance::all_files(), before);
  EXPECT_THAT(lines(), ElementsAre(line("Can't get file lock of /mnt/tarncluster/config/tarn_service_s.conf error!"),
                                   unset_line(kept_slaves_file, -37)));
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Info_Handler, A_Lock_That_Comes_Free_Too_Late_Lets_The_Member_Go_From_The_Kept_Copy) {
  const std::string before = read_file(slaves_file);
  {
    Virtual_Clock clock(static_cast<int64_t>(Rough_Tick()));
    auto lock = std::make_unique<Held_Lock>("tarn_service_s.conf");
    clock.on_read([&] {
      clock.advance(100);
      if (!lines().empty()) lock.reset();
    });
    EXPECT_EQ(handle(description()), answers(0));
  }
  EXPECT_EQ(read_file(slaves_file), before);
  EXPECT_EQ(read_file(kept_slaves_file), "[QNkept1]\nType = 1\n\n");
  EXPECT_THAT(lines(), ElementsAre(line("Can't get file lock of /mnt/tarncluster/config/tarn_service_s.conf error!")));
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded));
}

TEST_F(Info_Handler, A_Working_Copy_That_Cannot_Be_Written_Ends_It_Before_The_Kept_Copy) {
  Appliance::be_master();
  const Unwritable working(slaves_file);
  expect_refused(description(), -EISDIR,
                 "Can't set service QNslave1 to config file /mnt/tarncluster/config/tarn_service_s.conf! (-21)");
}

TEST_F(Info_Handler, A_Kept_Copy_That_Cannot_Be_Written_Ends_It_With_The_Working_Copy_Changed) {
  Appliance::be_master();
  const std::string kept = read_file(kept_slaves_file);
  const Unwritable copy(kept_slaves_file);
  EXPECT_EQ(handle(description()), answers(-EISDIR));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}) + new_section());
  EXPECT_EQ(read_file(kept_slaves_file), kept);
  EXPECT_THAT(lines(), ElementsAre(unset_line(kept_slaves_file, -21)));
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------------ leaving

TEST_F(Info_Handler, A_Leaving_Member_Is_Deleted_From_Both_Copies_And_The_Others_Are_Told) {
  Appliance::be_master();
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(0));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}));
  EXPECT_EQ(read_file(kept_slaves_file), "[QNkept1]\nType = 1\n\n");
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded));
  ASSERT_THAT(platform_.calls(), SizeIs(1));
  EXPECT_THAT(json_members(platform_.calls()[0].command), Contains(Pair("slave_id", "\"QNother1\"")));
  EXPECT_THAT(lines(), ElementsAre(debug_line(handler_name, "Broadcast send slave info to slave QNother1, result: 0")));
}

TEST_F(Info_Handler, Only_Id_And_Key_Count_When_A_Member_Leaves) {
  EXPECT_EQ(handle(R"({"slave_id":"QNslave1","MSKey":"NULL","Address":"a\nb"})"), answers(0));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}));
}

TEST_F(Info_Handler, Only_Just_NULL_Is_Leaving) {
  expect_refused(R"({"slave_id":"QNother1","MSKey":null})", -EINVAL, "Can't get slave information! (-22)");
  EXPECT_EQ(handle(description({{"MSKey", "\"null\""}})), answers(0));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}) + new_section("null"));
}

TEST_F(Info_Handler, The_Working_Copys_Code_Counts_When_A_Member_Leaves) {
  write_file(kept_slaves_file, "[QNkept1]\nType = 1\n\n");
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(0));
  EXPECT_THAT(lines(), ElementsAre(unset_line(kept_slaves_file, -55)));
  EXPECT_EQ(read_file(slaves_file), section_of({"QNother1"}));

  log_.clear();
  write_file(kept_slaves_file, old_section());
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(-ENOANO));
  EXPECT_THAT(lines(), ElementsAre(unset_line(slaves_file, -55)));
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(reloaded, reloaded));
}

TEST_F(Info_Handler, The_Kept_Copy_Goes_First) {
  const Unwritable working(slaves_file), kept(kept_slaves_file);
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(-EISDIR));
  EXPECT_THAT(lines(), ElementsAre(unset_line(kept_slaves_file, -21), unset_line(slaves_file, -21)));
}

TEST_F(Info_Handler, A_Leaving_Member_That_Cannot_Be_Deleted_Is_Passed_On_All_The_Same) {
  Appliance::be_master();
  write_file(slaves_file, section_of({"QNother1"}));
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(0)) << "the last send's code";
  EXPECT_THAT(platform_.calls(), SizeIs(1));
}

TEST_F(Info_Handler, The_Last_Members_Leaving_Leaves_An_Empty_List_Which_Is_Said_With_0) {
  Appliance::be_master();
  write_file(slaves_file, old_section());
  EXPECT_EQ(handle(description({{"MSKey", "\"NULL\""}})), answers(0));
  EXPECT_EQ(read_file(slaves_file), "");
  EXPECT_THAT(lines(),
              ElementsAre(line("Can't read Tarn service file /mnt/tarncluster/config/tarn_service_s.conf! (0)")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------------------- memory

TEST_F(Info_Handler, When_Memory_Ends_Both_Copies_Are_Old_Or_New_And_It_Is_Said) {
  const std::string working = read_file(slaves_file), kept = read_file(kept_slaves_file);
  const std::string new_working = section_of({"QNother1"}) + new_section();
  const std::string new_kept = new_section() + "[QNkept1]\nType = 1\n\n";
  const std::string argument = description();
  int failed = 0;
  with_each_whole_parse_allocation_failing(
      argument, [&] { return Owned_Text(Tarn_Cluster_Send_Slave_Info_Cb(argument.c_str())); },
      [&](const Owned_Text &answer, int nth) {
        SCOPED_TRACE(nth);
        const auto said = lines();
        log_.clear();
        const std::string working_now = read_file(slaves_file), kept_now = read_file(kept_slaves_file);
        write_file(slaves_file, working);
        write_file(kept_slaves_file, kept);
        EXPECT_THAT(working_now, AnyOf(working, new_working));
        // Not having read the record, the handler takes the member for a stranger.
        EXPECT_THAT(kept_now, AnyOf(kept, new_kept, "[QNkept1]\nType = 1\n\n"));
        if (answer != nullptr && answer.get() == answers(0)) return;
        ++failed;
        EXPECT_THAT(said, Not(IsEmpty()));
      });
  EXPECT_GE(failed, 10);
}

}  // namespace
}  // namespace tarn::test
