#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/cluster/ops/backup_slave.h"
#include "tests/cluster/ops/json_text.h"
#include "tests/cluster/ops/platform_doubles.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/pinned_file.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

const std::string slaves_file = "/mnt/tarncluster/config/tarn_service_s.conf";
const std::string kept_slaves_file = "/etc/config/tarn_cluster/tarn_service_s.conf";

constexpr char no_json[] = "Can't create json object! (-12)";

class Backup : public testing::Test {
 protected:
  ~Backup() override {
    EXPECT_EQ(open_descriptors(), descriptors_) << "descriptors leak";
    free(reply_);
  }

  int ask(const char *slave_id, const char *path) {
    free(std::exchange(reply_, nullptr));
    return Tarn_Cluster_Backup(slave_id, path, &reply_);
  }
  int tell(const char *master_id, int progress) {
    free(std::exchange(reply_, nullptr));
    return Tarn_Cluster_Backup_Set_Pack_Prg(master_id, progress, &reply_);
  }

  std::string answer_of(char *(*handler)(const char *), const std::string &argument) {
    free(std::exchange(reply_, handler(argument.c_str())));
    return reply_ != nullptr ? reply_ : "(null)";
  }
  static std::string answers(int code) { return "{ \"return\": " + std::to_string(code) + " }"; }

  std::vector<Log_Line> lines_of(const std::string &function) const {
    std::vector<Log_Line> found;
    for (const Log_Line &line : log_.lines()) {
      if (line.function == function) found.push_back(line);
    }
    return found;
  }

  Backup_Slave slave_;
  Platform_Doubles platform_;
  Log_Capture log_;
  char *reply_ = nullptr;
  const int descriptors_ = open_descriptors();
};

// ------------------------------------------------------------------------------------------------------------- senders

constexpr char backup_name[] = "Tarn_Cluster_Backup";
constexpr char progress_name[] = "Tarn_Cluster_Backup_Set_Pack_Prg";

TEST_F(Backup, The_Master_Asks_A_Slave_By_Name_Of_The_Handler) {
  platform_.answer(0, "the reply");
  EXPECT_EQ(ask("QNs1", "/share/a b\"c"), 0);
  EXPECT_STREQ(reply_, "the reply");
  const auto calls = platform_.calls();
  ASSERT_THAT(calls, SizeIs(1));
  EXPECT_EQ(calls[0].function, "Cluster_Master_Cmd");
  EXPECT_THAT(
      json_members(calls[0].command),
      ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Backup_Cb\""), Pair("slave_id", "\"QNs1\"")));
  EXPECT_THAT(json_members(calls[0].argument),
              ElementsAre(Pair("slave_id", "\"QNs1\""), Pair("bak_path", R"("/share/a b\"c")")));
}

TEST_F(Backup, A_Slave_Tells_Its_Own_Id_And_The_Percentage) {
  platform_.answer(0, "the reply");
  for (const int progress : {0, 100, -1, 12345}) {
    EXPECT_EQ(tell("0", progress), 0);
    EXPECT_STREQ(reply_, "the reply");
    const Platform_Call call = platform_.calls().back();
    EXPECT_EQ(call.function, "Cluster_Slave_Cmd");
    EXPECT_THAT(json_members(call.command),
                ElementsAre(Pair("op_code", "1"), Pair("fname", "\"Tarn_Cluster_Backup_Set_Pack_Prg_Cb\""),
                            Pair("master_id", "\"0\"")));
    EXPECT_THAT(json_members(call.argument),
                ElementsAre(Pair("slave_id", "\"" + own_id + "\""), Pair("progress", std::to_string(progress))));
  }
}

TEST_F(Backup, A_Command_That_Is_Not_Taken_Is_Said_And_Told) {
  platform_.answer(-111);
  EXPECT_EQ(ask("QNs1", "/p"), -111);
  EXPECT_EQ(tell("0", 1), -111);
  EXPECT_EQ(reply_, nullptr);
  const char *text = "Can't send cluster command! (-111)";
  EXPECT_THAT(lines_of(backup_name), testing::Contains(error_line(backup_name, text)));
  EXPECT_THAT(lines_of(progress_name), testing::Contains(error_line(progress_name, text)));
}

TEST_F(Backup, Without_An_Own_Id_Or_With_One_That_Is_Too_Long_Nothing_Is_Told) {
  const std::string text = "Can't read the slave id from config file " + identity_file + "! (";
  write_file(identity_file, "[global]\nMSKey = 123456789\n");
  EXPECT_EQ(tell("0", 1), -EOVERFLOW);
  write_file(identity_file, "[global]\n");
  const int missing = tell("0", 1);
  EXPECT_LT(missing, 0);
  std::filesystem::remove(identity_file);
  EXPECT_EQ(tell("0", 1), -ENOENT);
  EXPECT_THAT(lines_of(progress_name), ElementsAre(error_line(progress_name, text + "-75)"),
                                                   error_line(progress_name, text + std::to_string(missing) + ")"),
                                                   error_line(progress_name, text + "-2)")));
  EXPECT_THAT(platform_.calls(), IsEmpty());
}

TEST_F(Backup, Missing_Arguments_Of_The_Senders_Are_Refused) {
  EXPECT_EQ(Tarn_Cluster_Backup(nullptr, "/p", &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Backup("QNs1", nullptr, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Backup("QNs1", "/p", nullptr), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Backup_Set_Pack_Prg(nullptr, 1, &reply_), -EINVAL);
  EXPECT_EQ(Tarn_Cluster_Backup_Set_Pack_Prg("0", 1, nullptr), -EINVAL);
  EXPECT_THAT(platform_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Backup, Senders_Without_Memory_Say_So_And_Send_Nothing) {
  with_each_allocation_failing([&] { return ask("QNs1", "/p"); },
                               [&](int status, int nth) {
                                 SCOPED_TRACE(nth);
                                 EXPECT_EQ(status, -ENOMEM);
                                 EXPECT_EQ(lines_of(backup_name).back(), error_line(backup_name, no_json));
                                 EXPECT_THAT(platform_.calls(), IsEmpty());
                               });
  EXPECT_THAT(platform_.calls(), SizeIs(1));
  int said = 0;
  with_each_allocation_failing([&] { return tell("0", 1); },
                               [&](int status, int) {
                                 EXPECT_NE(status, 0);
                                 EXPECT_THAT(platform_.calls(), SizeIs(1));
                                 said += lines_of(progress_name).back() == error_line(progress_name, no_json);
                                 log_.clear();
                               });
  EXPECT_GT(said, 5);
}

// --------------------------------------------------------------------------------------------------- handler on the
// slave

constexpr char handler_name[] = "Tarn_Cluster_Backup_Cb";

class Backup_Handler : public Backup {
 protected:
  std::string handle(const std::string &argument) { return answer_of(Tarn_Cluster_Backup_Cb, argument); }

  void expect_refused(const std::string &argument, int code, const std::string &line) {
    SCOPED_TRACE(argument);
    log_.clear();
    EXPECT_EQ(handle(argument), answers(code));
    EXPECT_THAT(lines_of(handler_name), ElementsAre(error_line(handler_name, line)));
    EXPECT_THAT(slave_.children(), IsEmpty()) << "a worker was started";
    EXPECT_FALSE(exists(task_file));
  }
};

TEST_F(Backup_Handler, What_Is_Missing_In_The_Request_Is_Said_And_Starts_Nothing) {
  for (const char *argument : {"{}", R"({"bak_path":"/p"})", R"({"slave_id":7,"bak_path":"/p"})", "[]", "7",
                               R"({"slave_id":null,"bak_path":"/p"})"}) {
    expect_refused(argument, -EINVAL, "Can't get slave id! (-22)");
  }
  for (const char *argument :
       {R"({"slave_id":"QNself01"})", R"({"slave_id":"QNself01","bak_path":["/p"]})", R"({"slave_id":"other"})"}) {
    expect_refused(argument, -EINVAL, "Can't get backup path! (-22)");
  }
}

TEST_F(Backup_Handler, Another_Slaves_Backup_Is_Refused_By_The_Id_That_Came) {
  for (const std::string id : {"QNother1", "QNself0", "QNself011", "qnself01", "", "%s%n"}) {
    expect_refused(R"({"slave_id":")" + id + R"(","bak_path":"/p"})", -EINVAL, "Invalid slave ID " + id + "!");
  }
}

TEST_F(Backup_Handler, An_Own_Id_That_Leads_Out_Of_A_Folder_Names_No_Files) {
  for (const std::string id : {"..", "a/b", "../../x"}) {
    write_file(identity_file, "[global]\nMSKey = " + id + "\n");
    expect_refused(R"({"slave_id":")" + id + R"(","bak_path":"/p"})", -EINVAL, "Invalid slave ID " + id + "!");
  }
}

TEST_F(Backup_Handler, An_Own_Id_That_Cannot_Be_Read_Is_Said) {
  const std::string argument = R"({"slave_id":"QNself01","bak_path":"/p"})";
  write_file(identity_file, "[global]\nMSKey = " + std::string(32, 'x') + "\n");
  expect_refused(argument, -EOVERFLOW, "Can't read mskey from config " + identity_file + "! (-75)");
  std::filesystem::remove(identity_file);
  expect_refused(argument, -ENOENT, "Can't read mskey from config " + identity_file + "! (-2)");
}

TEST_F(Backup_Handler, A_Path_That_Is_Empty_Or_Could_Be_An_Option_Is_Refused) {
  for (const char *path : {"", "-P", "--help", "-"}) {
    expect_refused(std::string(R"({"slave_id":"QNself01","bak_path":")") + path + R"("})", -EINVAL,
                   "Invalid backup file path!\n!");
  }
}

TEST_F(Backup_Handler, No_Json_Is_No_Answer) {
  for (const char *argument : {"", "{", "null"}) {
    log_.clear();
    EXPECT_EQ(handle(argument), "(null)");
    EXPECT_THAT(lines_of(handler_name), ElementsAre(error_line(handler_name, no_json)));
  }
  EXPECT_EQ(Tarn_Cluster_Backup_Cb(nullptr), nullptr);
  EXPECT_THAT(slave_.children(), IsEmpty());
}

// Ids have at most 8 characters elsewhere.
TEST_F(Backup_Handler, The_Own_Id_May_Have_31_Characters_Here) {
  const std::string id(31, 'x');
  write_file(identity_file, "[global]\nMSKey = " + id + "\n");
  EXPECT_EQ(handle(R"({"slave_id":")" + id + R"(","bak_path":"/p"})"), answers(0));
  slave_.wait_for_all();
  EXPECT_EQ(read_file(backup_folder + "/" + id + ".result"), "0");
  EXPECT_THAT(names_in(backup_folder), ElementsAre(id, id + ".result"));
}

// --------------------------------------------------------------------------------------------------- handler on the
// master

constexpr char store_name[] = "Tarn_Cluster_Backup_Set_Pack_Prg_Cb";

class Progress_Handler : public Backup {
 protected:
  Progress_Handler() {
    for (const std::string &file : {slaves_file, kept_slaves_file}) {
      write_file(file, "[QNs1]\nStatus = 1\n\n[QNs2]\nStatus = 2\nBackupProgress = 1\n\n");
    }
    write_file(task_file, "[QNs1_r]\nstatus = 1\n\n[QNs1_b]\nstatus = 2\n\n[QNs2_b]\nprogress = 1.0\n\n");
  }

  std::string store(const std::string &id, const std::string &progress) {
    return answer_of(Tarn_Cluster_Backup_Set_Pack_Prg_Cb,
                     "{\"slave_id\":\"" + id + "\",\"progress\":" + progress + "}");
  }
  void expect_untouched(const std::string &file) {
    EXPECT_EQ(read_file(file), "[QNs1]\nStatus = 1\n\n[QNs2]\nStatus = 2\nBackupProgress = 1\n\n") << file;
  }
};

TEST_F(Progress_Handler, Half_Of_The_Percentage_Is_Stored_With_The_Member_Twice_And_With_Its_Task) {
  EXPECT_EQ(store("QNs2", "100"), answers(0));
  for (const std::string &file : {slaves_file, kept_slaves_file}) {
    EXPECT_EQ(read_file(file), "[QNs1]\nStatus = 1\n\n[QNs2]\nStatus = 2\nBackupProgress = 50\n\n");
  }
  EXPECT_EQ(read_file(task_file), "[QNs1_r]\nstatus = 1\n\n[QNs1_b]\nstatus = 2\n\n[QNs2_b]\nprogress = 50.000000\n\n");
  EXPECT_THAT(lines_of(store_name), IsEmpty());
}

TEST_F(Progress_Handler, Records_That_Had_No_Progress_Get_One) {
  EXPECT_EQ(store("QNs1", "41"), answers(0));
  for (const std::string &file : {slaves_file, kept_slaves_file}) {
    EXPECT_EQ(read_file(file), "[QNs1]\nStatus = 1\nBackupProgress = 20\n\n[QNs2]\nStatus = 2\nBackupProgress = 1\n\n");
  }
  EXPECT_EQ(read_file(task_file),
            "[QNs1_r]\nstatus = 1\n\n[QNs1_b]\nstatus = 2\nprogress = 20.000000\n\n[QNs2_b]\nprogress = 1.0\n\n");
}

TEST_F(Progress_Handler, The_Percentage_Is_Read_As_An_Integer_Whatever_It_Is) {
  struct Case {
    const char *progress;
    const char *stored;
  };
  for (const Case &c : {Case{"\"50\"", "25"}, Case{"7.9", "3"}, Case{"-3", "-1"}, Case{"null", "0"}, Case{"[]", "0"},
                        Case{"1", "0"}, Case{"true", "0"}}) {
    EXPECT_EQ(store("QNs2", c.progress), answers(0));
    EXPECT_THAT(read_file(slaves_file), testing::HasSubstr("BackupProgress = " + std::string(c.stored) + "\n"));
    EXPECT_THAT(read_file(task_file), testing::HasSubstr("progress = " + std::string(c.stored) + ".000000\n"));
  }
  EXPECT_EQ(store("QNs2", "100"), answers(0));
  EXPECT_EQ(answer_of(Tarn_Cluster_Backup_Set_Pack_Prg_Cb, R"({"slave_id":"QNs2"})"), answers(0));
  EXPECT_THAT(read_file(slaves_file), testing::HasSubstr("BackupProgress = 0\n"));
}

TEST_F(Progress_Handler, A_Missing_Id_Or_None_Is_Said_And_Stores_Nothing) {
  for (const char *argument : {"{}", R"({"slave_id":1})", R"({"slave_id":"","progress":1})", "[]",
                               R"({"slave_id":"a/b"})", R"({"slave_id":"x]\n[QNs1"})", R"({"slave_id":"123456789"})"}) {
    SCOPED_TRACE(argument);
    log_.clear();
    EXPECT_EQ(answer_of(Tarn_Cluster_Backup_Set_Pack_Prg_Cb, argument), answers(-EINVAL));
    EXPECT_THAT(lines_of(store_name), ElementsAre(error_line(store_name, "Can't get slave id! (-22)")));
  }
  expect_untouched(slaves_file);
}

TEST_F(Progress_Handler, No_Json_Is_No_Answer) {
  EXPECT_EQ(answer_of(Tarn_Cluster_Backup_Set_Pack_Prg_Cb, "{"), "(null)");
  EXPECT_THAT(lines_of(store_name), ElementsAre(error_line(store_name, no_json)));
}

TEST_F(Progress_Handler, A_Slave_That_Is_No_Member_Is_Refused_With_An_Info_Line) {
  EXPECT_EQ(store("QNs9", "10"), answers(-EINVAL));
  EXPECT_THAT(lines_of(store_name), ElementsAre(Log_Line{"info", store_name, "Can't find slave id QNs9!"}));
  expect_untouched(slaves_file);
  expect_untouched(kept_slaves_file);
}

TEST_F(Progress_Handler, Members_That_Cannot_Be_Read_Are_Said) {
  std::filesystem::remove(slaves_file);
  EXPECT_EQ(store("QNs1", "10"), answers(-ENOENT));
  EXPECT_THAT(lines_of(store_name), ElementsAre(error_line(store_name, "Can't read Tarn service file! (-2)")));
  expect_untouched(kept_slaves_file);
}

TEST_F(Progress_Handler, The_Kept_Copy_Is_Written_First_And_Its_Failure_Ends_It) {
  {
    const Pinned_File pinned(kept_slaves_file);
    EXPECT_EQ(store("QNs1", "10"), answers(-EBUSY));
  }
  EXPECT_THAT(lines_of(store_name), ElementsAre(error_line(store_name, "Can't set service QNs1 to config file " +
                                                                           kept_slaves_file + "! (-16)")));
  expect_untouched(slaves_file);
  expect_untouched(kept_slaves_file);
  log_.clear();
  {
    const Pinned_File pinned(slaves_file);
    EXPECT_EQ(store("QNs1", "10"), answers(-EBUSY));
  }
  EXPECT_THAT(lines_of(store_name),
              ElementsAre(error_line(store_name, "Can't set service QNs1 to config file " + slaves_file + "! (-16)")));
  expect_untouched(slaves_file);
  EXPECT_THAT(read_file(kept_slaves_file), testing::HasSubstr("Status = 1\nBackupProgress = 5\n"));
  EXPECT_THAT(read_file(task_file), testing::Not(testing::HasSubstr("5.0")));
}

TEST_F(Progress_Handler, A_Task_That_Is_Missing_Or_Cannot_Be_Written_Is_Said_And_The_Member_Is_Stored_All_The_Same) {
  {
    const Pinned_File pinned(task_file);
    EXPECT_EQ(store("QNs1", "20"), answers(-EBUSY));
  }
  write_file(task_file, "[QNs1_r]\nprogress = 1\n\n");
  EXPECT_EQ(store("QNs1", "22"), answers(-ENOANO));
  std::filesystem::remove(task_file);
  EXPECT_EQ(store("QNs1", "24"), answers(-ENOENT));
  EXPECT_THAT(lines_of(store_name),
              ElementsAre(error_line(store_name, "Can't write background task config file " + task_file + "! (-16)"),
                          error_line(store_name, "Can't read background task confi file! (-55)"),
                          error_line(store_name, "Can't read background task confi file! (-2)")));
  EXPECT_THAT(read_file(slaves_file), testing::HasSubstr("BackupProgress = 12\n"));
  EXPECT_FALSE(exists(task_file));
}

TEST_F(Progress_Handler, When_Memory_Ends_It_Does_Not_Answer_That_All_Is_Stored) {
  const std::string argument = R"({"slave_id":"QNs2","progress":100})", stored = answers(0);
  const std::string before = read_file(slaves_file), tasks_before = read_file(task_file);
  const auto reset = [&] {
    for (const std::string &file : {slaves_file, kept_slaves_file}) write_file(file, before);
    write_file(task_file, tasks_before);
  };
  with_each_parse_allocation_failing(
      argument,
      [&] {
        free(std::exchange(reply_, Tarn_Cluster_Backup_Set_Pack_Prg_Cb(argument.c_str())));
        return reply_;
      },
      [&](const char *answer, Parsed parsed, int nth) {
        SCOPED_TRACE(nth);
        EXPECT_EQ(open_descriptors(), descriptors_);
        if (parsed != Parsed::broken && answer != nullptr && answer == stored) {
          EXPECT_THAT(read_file(slaves_file), testing::HasSubstr("BackupProgress = 50\n"));
          EXPECT_THAT(read_file(task_file), testing::HasSubstr("progress = 50.000000\n"));
        }
        reset();
      });
  EXPECT_EQ(store("QNs2", "100"), answers(0));
}

}  // namespace
}  // namespace tarn::test
