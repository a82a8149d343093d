#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
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
#include "tests/support/network_calls.h"
#include "tests/support/virtual_clock.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

constexpr char send_name[] = "Tarn_Cluster_Update_Bind_Addr";
constexpr char handler_name[] = "Tarn_Cluster_Update_Bind_Addr_Cb";

constexpr char master_id[] = "QNmaster";
const std::string old_address = "10.77.0.200";
const std::string far_address = "10.99.0.1";  // of no interface here

// With a comment and a key of its own, which must survive.
std::string stored(const std::string &section, const std::string &address, const std::string &status = "1") {
  return "# kept\n[" + section + "]\nStatus = " + status + "\nAddress = " + address + "\nOther = x\n";
}

class Bind_Address : public testing::Test {
 protected:
  ~Bind_Address() override { free(reply_); }

  std::vector<Log_Line> lines(const std::string &function) const { return lines_of(log_, function); }

  // A scan that fails, or that finds no interface.
  void fail_scan() {
    calls_.getifaddrs = [](ifaddrs **) { return errno = EMFILE, -1; };
  }
  void find_no_interface() {
    calls_.ioctl = [](int fd, unsigned long request, void *argument) {
      const int result = real_ioctl(fd, request, argument);
      if (request == SIOCGIFCONF) static_cast<ifconf *>(argument)->ifc_len = 0;
      return result;
    };
  }

  Appliance appliance_;
  Platform_Doubles platform_;
  Network_Calls calls_;
  Log_Capture log_;
  char *reply_ = nullptr;
};

// ------------------------------------------------------------------------------------------------------------- sender

class Bind_Sender : public Bind_Address {
 protected:
  int update(const std::string &id, const std::string &address) {
    free(reply_);
    reply_ = nullptr;
    return Tarn_Cluster_Update_Bind_Addr(id.c_str(), address.c_str(), &reply_);
  }

  // Nothing but this line is the result, and nothing is changed or sent.
  void expect_refused(const std::string &id, const std::string &address, int code, const std::vector<Log_Line> &said) {
    const auto before = Appliance::all_files();
    log_.clear();
    EXPECT_EQ(update(id, address), code);
    EXPECT_EQ(lines(send_name), said);
    EXPECT_EQ(reply_, nullptr);
    EXPECT_EQ(Appliance::all_files(), before);
    EXPECT_THAT(platform_.calls(), IsEmpty());
    EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  }

  static Log_Line line(const std::string &text) { return error_line(send_name, text); }
};

TEST_F(Bind_Sender, A_Missing_Argument_Is_Refused) {
  Appliance::be_master();
  Appliance::set_id(master_id);
  EXPECT_EQ(Tarn_Cluster_Update_Bind_Addr(nullptr, "a", &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Update_Bind_Addr("a", nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Update_Bind_Addr("a", "b", nullptr), -EINVAL);
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Bind_Sender, An_Appliance_Of_No_Cluster_Is_Told_So) {
  Appliance::set_id(master_id);
  expect_refused(master_id, own_address, -EBADRQC, {line("I'm not druvo cluster! (-56)")});
}

TEST_F(Bind_Sender, On_A_Slave_The_Own_Id_Does_Nothing_And_Any_Other_Is_Refused) {
  Appliance::be_slave();
  Appliance::set_id("QNself01");
  Appliance::set_members({{"QNself01"}, {"QNother1"}});
  expect_refused("QNself01", own_address, 0, {});
  expect_refused("QNself01", far_address, 0, {});
  for (const char *id : {"QNother1", "QNself0", "QNself011", "qnself01", ""}) {
    expect_refused(id, own_address, -EBADRQC, {line("Bad request, invalid slave ID! (-56)")});
  }
}

TEST_F(Bind_Sender, Without_An_Own_Id_It_Fails_On_Both_Roles) {
  for (const bool on_the_master : {false, true}) {
    if (on_the_master) Appliance::be_master();
    Appliance::be_slave();
    expect_refused(master_id, own_address, -ENOENT,
                   {line("Can't read config /mnt/tarncluster/config/tarn_cluster_s.conf! (-2)")});
  }
  write_file(identity_file, "[global]\nMSKey = ninechars\n");
  expect_refused("ninechars", own_address, -EOVERFLOW,
                 {line("Can't read config /mnt/tarncluster/config/tarn_cluster_s.conf! (-75)")});
}

// -------------------------------------------------------------------------------------------------- a slave's change

class Slave_Change : public Bind_Sender {
 protected:
  Slave_Change() {
    Appliance::be_master();
    Appliance::be_slave();  // the master's role comes first
    Appliance::set_id(master_id);
    Appliance::set_members({{master_id}, {"QNslave1", "10.77.0.101", 0, 0}});
  }
};

TEST_F(Slave_Change, The_Slave_Is_Told_Whatever_Its_State_And_Its_Answer_Is_The_Callers) {
  const auto before = Appliance::all_files();
  platform_.answer(0, R"({ "return": -22, "x": 1 })");
  EXPECT_EQ(update("QNslave1", "10.77.0.102"), 0);
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Cmd");
  EXPECT_THAT(json_members(calls[0].command),
              ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Update_Bind_Addr_Cb\""),
                          Pair("slave_id", "\"QNslave1\"")));
  EXPECT_THAT(json_members(calls[0].argument),
              ElementsAre(Pair("slave_id", "\"QNslave1\""), Pair("Address", "\"10.77.0.102\"")));
  EXPECT_STREQ(reply_, R"({ "return": -22, "x": 1 })");
  EXPECT_THAT(lines(send_name),
              ElementsAre(debug_line(send_name, "Broadcast update bind to slave QNslave1, result: -22")));
  EXPECT_EQ(Appliance::all_files(), before) << "the slave stores it";
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
}

TEST_F(Slave_Change, The_Address_That_It_Has_Already_Is_Not_Sent) {
  expect_refused("QNslave1", "10.77.0.101", 0, {});
}

TEST_F(Slave_Change, A_Stranger_Is_Refused) {
  for (const char *id : {"QNslave2", "", "../x"}) {
    expect_refused(id, "10.77.0.102", -ENOANO, {line(std::string("Invalid cluster id ") + id + "! (-55)")});
  }
  std::filesystem::remove(slaves_file);
  expect_refused("QNslave1", "10.77.0.102", -ENOENT, {line("Invalid cluster id QNslave1! (-2)")});
}

TEST_F(Slave_Change, A_Look_Up_That_Finds_No_Record_Is_A_Strangers) {
  const Get_Answer nothing(0);
  expect_refused("QNslave1", "10.77.0.102", -ENOANO, {line("Invalid cluster id QNslave1! (-55)")});
}

TEST_F(Slave_Change, A_Failure_To_Send_Is_Said_And_Returned) {
  for (const int code : {-EHOSTUNREACH, 3}) {
    log_.clear();
    platform_.answer(code);
    EXPECT_EQ(update("QNslave1", "10.77.0.102"), code);
    EXPECT_EQ(reply_, nullptr);
    EXPECT_THAT(lines(send_name), ElementsAre(line("Can't send cluster command! (" + std::to_string(code) + ")")));
  }
  log_.clear();
  platform_.answer(-5, "{}");
  EXPECT_EQ(update("QNslave1", "10.77.0.102"), -5);
  EXPECT_STREQ(reply_, "{}") << "an answer that came is handed over";
}

TEST_F(Slave_Change, No_Answer_And_No_Failure_Is_A_Success) {
  char before[] = "left over";
  char *reply = before;
  EXPECT_EQ(Tarn_Cluster_Update_Bind_Addr("QNslave1", "10.77.0.102", &reply), 0);
  EXPECT_EQ(reply, nullptr);
  EXPECT_THAT(lines(send_name), IsEmpty());
}

TEST_F(Slave_Change, An_Answer_That_Is_No_JSON_Is_Not_Handed_Over) {
  for (const char *answer : {"", "{", "null", "nonsense"}) {
    log_.clear();
    platform_.answer(0, answer);
    EXPECT_EQ(update("QNslave1", "10.77.0.102"), -ENOMEM);
    EXPECT_EQ(reply_, nullptr);
    EXPECT_THAT(lines(send_name), ElementsAre(line("Can't allocate memory for broadcast update bind! (-12)")));
  }
}

TEST_F(Slave_Change, An_Answer_Without_A_Code_Is_Logged_As_0) {
  platform_.answer(0, "[1]");
  EXPECT_EQ(update("QNslave1", "10.77.0.102"), 0);
  EXPECT_STREQ(reply_, "[1]");
  EXPECT_THAT(lines(send_name),
              ElementsAre(debug_line(send_name, "Broadcast update bind to slave QNslave1, result: 0")));
}

TEST_F(Slave_Change, When_Memory_Ends_The_Whole_Command_Is_Sent_Or_None) {
  int no_json = 0, no_command = 0;
  with_each_allocation_failing(
      [&] { return update("QNslave1", "10.77.0.102"); },
      [&](int, int nth) {
        SCOPED_TRACE(nth);
        const auto said = lines(send_name);
        log_.clear();
        no_json += said == std::vector{line("Can't create json object! (-12)")};
        no_command += said == std::vector{line("Can't allocate memory for broadcast update bind! (-12)")};
      });
  EXPECT_GE(no_json, 3);
  EXPECT_GE(no_command, 4);
  for (const Platform_Call &call : platform_.calls()) {
    EXPECT_THAT(json_members(call.command), SizeIs(3));
    EXPECT_THAT(json_members(call.argument), SizeIs(2));
  }
}

// ------------------------------------------------------------------------------------------------ the master's change

class Master_Change : public Bind_Sender {
 protected:
  Master_Change() {
    Appliance::be_master();
    Appliance::set_id(master_id);
    for (const std::string &file : files_) write_file(file, stored(master_id, old_address));
    platform_.answer(0, R"({ "return": 0 })");
  }

  const std::vector<std::string> files_ = {kept_master_file, master_file, kept_slaves_file, slaves_file};
};

TEST_F(Master_Change, All_Four_Files_Get_The_Address_And_Keep_The_Rest) {
  EXPECT_EQ(update(master_id, own_address), 0);
  for (const std::string &file : files_) EXPECT_EQ(read_file(file), stored(master_id, own_address)) << file;
  EXPECT_STREQ(reply_, R"({ "result_list": [ ] })");
  EXPECT_THAT(lines(send_name), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(restarted));
}

TEST_F(Master_Change, The_Sync_Service_Is_Not_Waited_For) {
  const Sync_Service_Held held;
  EXPECT_EQ(update(master_id, own_address), 0);
}

TEST_F(Master_Change, The_Running_Slaves_Are_Told_And_Their_Answers_Are_The_Callers) {
  write_file(slaves_file, stored(master_id, old_address) + "\n" + section_of({"QNslave2"}) + section_of({"QNslave1"}) +
                              section_of({"QNdown01", "10.77.9.9", 0}) + section_of({"QNslave3"}));
  platform_.answer_for("QNslave2", 0, R"({ "return": 0, "who": "two" })");
  platform_.answer_for("QNslave1", -110);
  platform_.answer_for("QNslave3", 0, R"({ "return": -22 })");
  EXPECT_EQ(update(master_id, own_address), 0);
  EXPECT_STREQ(reply_, R"({ "result_list": [ { "return": 0, "who": "two" }, { "return": -22 } ] })");
  ASSERT_THAT(platform_.calls(), SizeIs(3));
  EXPECT_THAT(json_members(platform_.calls()[0].argument),
              ElementsAre(Pair("slave_id", json_quoted(master_id)), Pair("Address", json_quoted(own_address))));
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(restarted));
}

TEST_F(Master_Change, An_Answer_That_Is_No_JSON_Is_Not_In_The_List) {
  write_file(slaves_file, stored(master_id, old_address) + "\n" + section_of({"QNslave1"}) + section_of({"QNslave2"}));
  platform_.answer_for("QNslave1", 0, "nonsense");
  EXPECT_EQ(update(master_id, own_address), 0);
  EXPECT_STREQ(reply_, R"({ "result_list": [ { "return": 0 } ] })");
}

TEST_F(Master_Change, The_Last_Slaves_Failure_Is_The_Code_And_All_Is_Done) {
  write_file(slaves_file, stored(master_id, old_address) + "\n" + section_of({"QNslave1"}));
  platform_.answer(-110);
  EXPECT_EQ(update(master_id, own_address), -110);
  EXPECT_STREQ(reply_, R"({ "result_list": [ ] })");
  EXPECT_EQ(read_file(kept_master_file), stored(master_id, own_address));
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(restarted));
}

TEST_F(Master_Change, The_Address_That_It_Has_Already_Changes_Nothing) {
  for (const std::string &address : {own_address, far_address}) {
    write_file(master_file, stored(master_id, address));
    expect_refused(master_id, address, 0, {});
  }
}

TEST_F(Master_Change, The_Present_Address_Is_That_Of_The_Masters_Own_Entry) {
  write_file(master_file, "");
  expect_refused(master_id, own_address, -ENOANO,
                 {line("Can't read address from config /mnt/tarncluster/config/tarn_service_m.conf! (-55)")});
  write_file(master_file, stored("QNother1", old_address));
  expect_refused(master_id, own_address, -ENOANO,
                 {line("Can't read address from config /mnt/tarncluster/config/tarn_service_m.conf! (-55)")});
  write_file(master_file, "[QNmaster]\nStatus = 1\n");
  expect_refused(master_id, own_address, -ENODATA,
                 {line("Can't read address from config /mnt/tarncluster/config/tarn_service_m.conf! (-61)")});
  write_file(master_file, stored(master_id, std::string(64, '1')));
  expect_refused(master_id, own_address, -EOVERFLOW,
                 {line("Can't read address from config /mnt/tarncluster/config/tarn_service_m.conf! (-75)")});
  write_file(master_file, stored(master_id, std::string(63, '1')));
  EXPECT_EQ(update(master_id, own_address), 0);
}

TEST_F(Master_Change, An_Address_Of_No_Interface_Is_Refused) {
  for (const std::string &address :
       {far_address, std::string(), std::string("10.77.0.2"), std::string("10.77.0.250"), std::string("nonsense"),
        own_address + " ", own_address + "\n[x]", std::string("fd00:77:0::25"), std::string("FD00:77::25")}) {
    expect_refused(master_id, address, -EINVAL, {line("Update a not exist address! (-22)")});
  }
}

// As the system writes it: other spellings of it are other texts.
TEST_F(Master_Change, Every_Address_Of_Every_Interface_Will_Do) {
  for (const std::string &address :
       {own_address, other_own_address, own_ipv6_address, std::string("fd00:77::24"), std::string("127.0.0.1")}) {
    EXPECT_EQ(update(master_id, address), 0);
    EXPECT_EQ(read_file(master_file), stored(master_id, address));
  }
}

TEST_F(Master_Change, A_Scan_That_Fails_Or_Finds_Nothing_Is_Said_And_Is_The_Code) {
  fail_scan();
  expect_refused(master_id, own_address, -EMFILE, {line("Can't scan network interface! (-24)")});
  calls_.getifaddrs = nullptr;
  find_no_interface();
  expect_refused(master_id, own_address, 0, {line("Can't scan network interface! (0)")});
}

TEST_F(Master_Change, An_Interface_Without_An_Address_Does_Not_Make_The_Empty_One_Its_Own) {
  calls_.getifaddrs = [](ifaddrs **list) { return *list = nullptr, 0; };
  expect_refused(master_id, "", -EINVAL, {line("Update a not exist address! (-22)")});
}

TEST_F(Master_Change, The_Files_Are_Written_In_Order_And_The_First_Failure_Ends_It) {
  for (size_t bad = 0; bad < files_.size(); ++bad) {
    SCOPED_TRACE(files_[bad]);
    log_.clear();
    for (const std::string &file : files_) write_file(file, stored(master_id, old_address));
    {
      const Unwritable kept_from_writing(files_[bad]);
      EXPECT_EQ(update(master_id, own_address), -EISDIR);
    }
    for (size_t i = 0; i < files_.size(); ++i) {
      EXPECT_EQ(read_file(files_[i]), stored(master_id, i < bad ? own_address : old_address)) << files_[i];
    }
    EXPECT_THAT(lines(send_name),
                ElementsAre(line("Can't update address " + own_address + " to config " + files_[bad] + "! (-21)")));
    EXPECT_EQ(reply_, nullptr);
  }
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
}

TEST_F(Master_Change, Files_That_Lack_The_Master_Get_An_Entry) {
  std::filesystem::remove(kept_master_file);
  write_file(slaves_file, section_of({"QNdown01", "10.77.9.9", 0}));
  EXPECT_EQ(update(master_id, own_address), 0);
  EXPECT_EQ(read_file(kept_master_file), "[QNmaster]\nAddress = 10.77.0.25\n");
  EXPECT_THAT(read_file(slaves_file), HasSubstr("[QNmaster]\nAddress = 10.77.0.25\n"));
}

TEST_F(Master_Change, Members_That_Cannot_Be_Read_End_It_After_The_Writing) {
  write_file(slaves_file, "[no keys]\n\n" + stored(master_id, old_address));
  EXPECT_EQ(update(master_id, own_address), -EINVAL);
  EXPECT_EQ(read_file(kept_slaves_file), stored(master_id, own_address));
  EXPECT_EQ(reply_, nullptr);
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  const Read_Answer none(0);
  EXPECT_EQ(update(master_id, other_own_address), 0);
  EXPECT_EQ(reply_, nullptr);
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
}

TEST_F(Master_Change, A_Lock_That_Stays_Taken_Fails_The_Write) {
  Virtual_Clock clock(static_cast<int64_t>(Rough_Tick()));
  const Held_Lock lock("tarn_service_m.conf");
  clock.on_read([&] { clock.advance(100); });
  const auto before = Appliance::all_files();
  EXPECT_EQ(update(master_id, own_address), -ENOLCK);
  EXPECT_EQ(Appliance::all_files(), before);
  EXPECT_TRUE(lock.is_untouched());
  EXPECT_THAT(
      lines(send_name),
      ElementsAre(line("Can't update address 10.77.0.25 to config /etc/config/tarn_cluster/tarn_service_m.conf! "
                       "(-37)")));
}

// ------------------------------------------------------------------------------------------------------------ handler

std::string argument_of(const std::string &id, const std::string &address) {
  return "{\"slave_id\":" + json_quoted(id) + ",\"Address\":" + json_quoted(address) + "}";
}

// On a slave of the master; both have an entry in every file.
class Bind_Handler : public Bind_Address {
 protected:
  Bind_Handler() {
    Appliance::be_slave();
    Appliance::set_id("QNself01");
    write_file(slaves_file, members(old_address));
    write_file(kept_slaves_file, members(old_address));
    write_file(master_file, stored("QNself01", old_address));
    write_file(kept_master_file, stored("QNself01", old_address));
  }

  static std::string members(const std::string &own, const std::string &masters = "10.77.0.1") {
    return stored(master_id, masters) + "\n" + stored("QNself01", own);
  }

  static std::string handle(const std::string &argument) {
    return answer_of(Tarn_Cluster_Update_Bind_Addr_Cb, argument);
  }

  void expect_refused(const std::string &argument, int code, const std::vector<Log_Line> &said) {
    SCOPED_TRACE(argument);
    const auto before = Appliance::all_files();
    log_.clear();
    EXPECT_EQ(handle(argument), answers(code));
    EXPECT_EQ(lines(handler_name), said);
    EXPECT_EQ(Appliance::all_files(), before);
    EXPECT_THAT(platform_.calls(), IsEmpty());
    EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
  }

  static Log_Line line(const std::string &text) { return error_line(handler_name, text); }
};

TEST_F(Bind_Handler, An_Own_Change_Goes_Into_Both_Copies_Of_The_Members) {
  const std::string master = read_file(master_file);
  EXPECT_EQ(handle(argument_of("QNself01", own_address)), answers(0));
  EXPECT_EQ(read_file(slaves_file), members(own_address));
  EXPECT_EQ(read_file(kept_slaves_file), members(own_address));
  EXPECT_EQ(read_file(master_file), master);
  EXPECT_EQ(read_file(kept_master_file), master);
  EXPECT_THAT(lines(handler_name), IsEmpty());
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(Appliance::sync_service_runs(), ElementsAre(restarted));
}

TEST_F(Bind_Handler, The_Sync_Service_Is_Not_Waited_For) {
  const Sync_Service_Held held;
  EXPECT_EQ(handle(argument_of("QNself01", own_address)), answers(0));
}

TEST_F(Bind_Handler, Every_Own_Address_Will_Do) {
  for (const std::string &address : {other_own_address, own_ipv6_address, std::string("127.0.0.1")}) {
    EXPECT_EQ(handle(argument_of("QNself01", address)), answers(0));
    EXPECT_EQ(read_file(slaves_file), members(address));
  }
}

TEST_F(Bind_Handler, An_Address_Of_No_Interface_Is_Refused) {
  for (const std::string &address : {far_address, std::string("10.77.0.2"), std::string("FD00:77::25")}) {
    expect_refused(argument_of("QNself01", address), -EINVAL, {line("Update invalid address " + address + "! (-22)")});
  }
}

TEST_F(Bind_Handler, A_Scan_That_Fails_Is_Said_And_Answered) {
  fail_scan();
  expect_refused(argument_of("QNself01", own_address), -EMFILE, {line("Can't scan network interface! (-24)")});
}

TEST_F(Bind_Handler, Without_Any_Interface_No_Address_Is_Own) {
  find_no_interface();
  expect_refused(argument_of("QNself01", own_address), -EINVAL,
                 {line("Update invalid address " + own_address + "! (-22)")});
}

TEST_F(Bind_Handler, The_Kept_Copy_Of_The_Members_Comes_First_And_A_Failure_Ends_It) {
  {
    const Unwritable kept(kept_slaves_file);
    expect_refused(argument_of("QNself01", own_address), -EISDIR,
                   {line("Can't update address 10.77.0.25 to config /etc/config/tarn_cluster/tarn_service_s.conf! "
                         "(-21)")});
  }
  log_.clear();
  const Unwritable working(slaves_file);
  EXPECT_EQ(handle(argument_of("QNself01", own_address)), answers(-EISDIR));
  EXPECT_EQ(read_file(kept_slaves_file), members(own_address)) << "what was written before stays";
  EXPECT_EQ(read_file(slaves_file), members(old_address));
  EXPECT_THAT(lines(handler_name),
              ElementsAre(line("Can't update address 10.77.0.25 to config /mnt/tarncluster/config/tarn_service_s.conf! "
                               "(-21)")));
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
}

// The first member is the master; its address is not looked for here.
TEST_F(Bind_Handler, The_Masters_Change_Goes_Into_Both_Copies_Of_Its_Entry_Under_The_Own_Id) {
  EXPECT_EQ(handle(argument_of(master_id, far_address)), answers(0));
  EXPECT_EQ(read_file(master_file), stored("QNself01", far_address));
  EXPECT_EQ(read_file(kept_master_file), stored("QNself01", far_address));
  EXPECT_EQ(read_file(slaves_file), members(old_address));
  EXPECT_EQ(read_file(kept_slaves_file), members(old_address));
  EXPECT_THAT(lines(handler_name), IsEmpty());
  EXPECT_THAT(Appliance::sync_service_runs(), IsEmpty());
}

TEST_F(Bind_Handler, The_Masters_Change_Stands_Under_The_Kept_Own_Id) {
  write_file(identity_file, "[global]\nMSKey = QNwrong1\n");
  EXPECT_EQ(handle(argument_of(master_id, far_address)), answers(0));
  EXPECT_EQ(read_file(master_file), stored("QNself01", far_address));

  std::filesystem::remove(kept_identity_file);
  expect_refused(argument_of(master_id, own_address), -ENOENT,
                 {line("Can't read config /etc/config/tarn_cluster/tarn_cluster_s.conf! (-2)")});
}

TEST_F(Bind_Handler, The_Kept_Copy_Of_The_Masters_Entry_Comes_First_And_A_Failure_Ends_It) {
  {
    const Unwritable kept(kept_master_file);
    expect_refused(argument_of(master_id, far_address), -EISDIR,
                   {line("Can't update address 10.99.0.1 to config /etc/config/tarn_cluster/tarn_service_m.conf! "
                         "(-21)")});
  }
  log_.clear();
  const Unwritable working(master_file);
  EXPECT_EQ(handle(argument_of(master_id, far_address)), answers(-EISDIR));
  EXPECT_EQ(read_file(kept_master_file), stored("QNself01", far_address));
  EXPECT_EQ(read_file(master_file), stored("QNself01", old_address));
  EXPECT_THAT(lines(handler_name),
              ElementsAre(line("Can't update address 10.99.0.1 to config /mnt/tarncluster/config/tarn_service_m.conf! "
                               "(-21)")));
}

TEST_F(Bind_Handler, A_Members_Name_Must_Be_The_First_Ones_To_Be_The_Masters) {
  for (const char *id : {"QNmaste", "qnmaster"}) {
    expect_refused(argument_of(id, far_address), -EINVAL, {line("Update invalid address 10.99.0.1! (-22)")});
  }
}

TEST_F(Bind_Handler, On_The_Master_Nothing_Is_Done) {
  Appliance::be_master();
  for (const std::string &argument : {argument_of("QNself01", own_address), argument_of(master_id, far_address),
                                      std::string(R"({"slave_id":"QNself01"})")}) {
    expect_refused(argument, 0, {});
  }
}

TEST_F(Bind_Handler, An_Appliance_Of_No_Cluster_Says_So) {
  std::filesystem::remove("/var/zopel/tarn_cluster_s.enable");
  expect_refused(R"({"slave_id":"QNself01"})", -EBADRQC, {line("I'm not druvo cluster! (-56)")});
}

TEST_F(Bind_Handler, Without_A_Slaves_Id_Nothing_Is_Done_On_Any_Role) {
  for (const bool on_the_master : {false, true}) {
    if (on_the_master) Appliance::be_master();
    for (const char *id : {"null", "5", "[]", "{}", "\"\"", "\"..\"", "\"../x\"", "\"a\\nb\"", "\"a\\u0000b\"",
                           "\"a]b\"", "\"ninechars\""}) {
      expect_refused("{\"slave_id\":" + std::string(id) + ",\"Address\":\"10.77.0.25\"}", -EINVAL,
                     {line("Can't get slave id! (-22)")});
    }
    for (const char *argument : {"{}", "[]", "5", "true", R"({"Address":"10.77.0.25"})"}) {
      expect_refused(argument, -EINVAL, {line("Can't get slave id! (-22)")});
    }
  }
}

TEST_F(Bind_Handler, Without_An_Address_Nothing_Is_Done) {
  expect_refused(R"({"slave_id":"QNself01"})", -EINVAL, {line("Can't get address! (-22)")});
  for (const char *address : {"null", "5", "[]", "{}", "\"a\\u0000b\""}) {
    expect_refused("{\"slave_id\":\"QNmaster\",\"Address\":" + std::string(address) + "}", -EINVAL,
                   {line("Can't get address! (-22)")});
  }
}

// The master's own change is not held against any interface here, so what goes into the files must be harmless.
TEST_F(Bind_Handler, An_Address_That_Is_Empty_Or_Could_Not_Be_Read_Back_Is_Refused) {
  for (const std::string &address : {std::string(), std::string("1\n[x]"), std::string("\t1"), std::string("1\x7f"),
                                     std::string("1\r"), std::string(64, '1'), std::string(5000, '1')}) {
    for (const char *id : {master_id, "QNself01"}) {
      expect_refused(argument_of(id, address), -EINVAL, {line("Invalid address! (-22)")});
    }
  }
  EXPECT_EQ(handle(argument_of(master_id, std::string(63, '1'))), answers(0));
  EXPECT_EQ(read_file(master_file), stored("QNself01", std::string(63, '1')));
}

TEST_F(Bind_Handler, Members_That_Cannot_Be_Read_Or_Are_None_Are_Said_And_End_It) {
  write_file(slaves_file, "");
  expect_refused(argument_of("QNself01", own_address), 0,
                 {line("Can't read config /mnt/tarncluster/config/tarn_service_s.conf! (0)")});
  write_file(slaves_file, "[no keys]\n");
  expect_refused(argument_of("QNself01", own_address), -EINVAL,
                 {line("Can't read config /mnt/tarncluster/config/tarn_service_s.conf! (-22)")});
  std::filesystem::remove(slaves_file);
  expect_refused(argument_of("QNself01", own_address), -ENOENT,
                 {line("Can't read config /mnt/tarncluster/config/tarn_service_s.conf! (-2)")});
}

TEST_F(Bind_Handler, An_Argument_That_Is_No_JSON_Has_No_Answer) {
  for (const std::string &argument : {std::string(), std::string("{"), std::string("null"), json_nested(1000)}) {
    log_.clear();
    EXPECT_EQ(handle(argument), "(null)");
    EXPECT_THAT(log_.lines(), ElementsAre(line("Can't create json object! (-12)")));
  }
  EXPECT_EQ(Tarn_Cluster_Update_Bind_Addr_Cb(nullptr), nullptr);
}

TEST_F(Bind_Handler, Errors_Are_Written_From_Level_1_On) {
  for (const int level : {0, 1}) {
    const Log_Capture log(level);
    handle("{}");
    EXPECT_THAT(log.lines(), SizeIs(level));
  }
}

TEST_F(Bind_Handler, When_Memory_Ends_Each_File_Is_The_Old_Or_The_New_One) {
  const std::string argument = argument_of("QNself01", own_address);
  int failed = 0;
  with_each_whole_parse_allocation_failing(
      argument, [&] { return Owned_Text(Tarn_Cluster_Update_Bind_Addr_Cb(argument.c_str())); },
      [&](const Owned_Text &answer, int nth) {
        SCOPED_TRACE(nth);
        // A read for which memory ends at the first section finds no members, which is said and answered with 0.
        const bool found_none = lines(handler_name) ==
                                std::vector{line("Can't read config /mnt/tarncluster/config/tarn_service_s.conf! (0)")};
        const bool done = answer != nullptr && answer.get() == answers(0) && !found_none;
        log_.clear();
        failed += !done;
        for (const std::string &file : {slaves_file, kept_slaves_file}) {
          const std::string now = read_file(file);
          write_file(file, members(old_address));
          EXPECT_THAT(now, testing::AnyOf(members(own_address), members(old_address)));
          if (done) {
            EXPECT_EQ(now, members(own_address));
          }
        }
      });
  EXPECT_GE(failed, 5);
}

}  // namespace
}  // namespace tarn::test
