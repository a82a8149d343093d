// The platform's own functions and programs: pelk_exec and log_tool.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "tarncluster_util.h"
#include "tests/platform/member.h"
#include "tests/support/child_process.h"

namespace tarn::test {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;

TEST(Pelk_Exec, hands_arguments_over_as_they_are) {
  Temporary_Folder folder;
  const std::string script = folder / "script";
  write_file(script, "#!/bin/sh\nfor word in \"$@\"; do printf '%s\\n' \"$word\"; done > " + (folder / "out") + "\n");
  chmod(script.c_str(), 0755);
  EXPECT_EQ(pelk_exec(0, 0, 0, script.c_str(), "two words", "\"quoted\" 'both'", "$HOME `id` $(id)", "a;b|c&d>e", "",
                      "*", nullptr),
            0);
  EXPECT_EQ(read_file(folder / "out"), "two words\n\"quoted\" 'both'\n$HOME `id` $(id)\na;b|c&d>e\n\n*\n");
}

TEST(Pelk_Exec, runs_a_program_without_arguments) {
  EXPECT_EQ(pelk_exec(0, 0, 0, "/bin/true", nullptr), 0);
}

TEST(Pelk_Exec, answers_the_wait_status) {
  const int exited = pelk_exec(0, 0, 0, "/bin/sh", "-c", "exit 42", nullptr);
  EXPECT_TRUE(WIFEXITED(exited));
  EXPECT_EQ(WEXITSTATUS(exited), 42);
  EXPECT_EQ(exited >> 8, 42);
  const int signalled = pelk_exec(0, 0, 0, "/bin/sh", "-c", "kill -9 $$", nullptr);
  EXPECT_TRUE(WIFSIGNALED(signalled));
  EXPECT_EQ(WTERMSIG(signalled), 9);
}

TEST(Pelk_Exec, program_that_cannot_be_run_exits_with_127) {
  Temporary_Folder folder;
  write_file(folder / "no_program", "no program");
  EXPECT_EQ(pelk_exec(0, 0, 0, "/no/such/program", "x", nullptr), 127 << 8);
  EXPECT_EQ(pelk_exec(0, 0, 0, (folder / "no_program").c_str(), nullptr), 127 << 8);
  EXPECT_EQ(pelk_exec(0, 0, 0, "true", nullptr), 127 << 8) << "a bare name is not looked up";
}

TEST(Pelk_Exec, null_program_is_refused) {
  EXPECT_EQ(pelk_exec(0, 0, 0, nullptr, nullptr), -EINVAL);
}

TEST(Pelk_Exec, takes_many_arguments) {
  EXPECT_EQ(pelk_exec(0, 0, 0, "/bin/sh", "-c", "test $# = 12 && test ${12} = l", "0", "a", "b", "c", "d", "e", "f",
                      "g", "h", "i", "j", "k", "l", nullptr),
            0);
}

TEST(Pelk_Exec, leaves_no_child_and_no_descriptor) {
  const int before = open_descriptors();
  pelk_exec(0, 0, 0, "/bin/true", nullptr);
  pelk_exec(0, 0, 0, "/no/such/program", nullptr);
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

constexpr char kEventLog[] = "/var/log/tarncluster_events.log";

class Log_Tool : public testing::Test {
 protected:
  void SetUp() override { unlink(kEventLog); }
  void TearDown() override { unlink("/sbin/log_tool"); }
  static int run(const char *text, const char *type, const char *user) {
    return pelk_exec(0, 0, 0, TARN_BIN_DIR "/log_tool", "-a", text, "-t", type, "-u", user, nullptr);
  }
};

TEST_F(Log_Tool, appends_one_line_for_each_event) {
  EXPECT_EQ(run("first event", "0", "admin"), 0);
  EXPECT_EQ(run("second event", "2", "somebody"), 0);
  const std::string date = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} ";
  EXPECT_THAT(read_file(kEventLog),
              MatchesRegex(date + "type 0 user admin: first event\n" + date + "type 2 user somebody: second event\n"));
}

TEST_F(Log_Tool, an_event_stays_on_one_line) {
  EXPECT_EQ(run("one\ntwo\r\nthree", "1", "a\nb"), 0);
  EXPECT_THAT(read_file(kEventLog), EndsWith("type 1 user a b: one two  three\n"));
}

TEST_F(Log_Tool, event_of_the_library_reads_as_it_was_given) {
  ASSERT_EQ(system("install -m 0755 " TARN_BIN_DIR "/log_tool /sbin/log_tool"), 0);
  EXPECT_EQ(System_Log_Append(1, "DOMAIN\\user", "cost: $5 \"net\" of %s", "C:\\share"), 0);
  EXPECT_THAT(read_file(kEventLog), EndsWith("type 1 user DOMAIN\\user: cost: $5 \"net\" of C:\\share\n"));
}

TEST_F(Log_Tool, notice_is_an_event_of_the_system_s) {
  ASSERT_EQ(system("install -m 0755 " TARN_BIN_DIR "/log_tool /sbin/log_tool"), 0);
  const auto post = [](const char *message) {
    return SendNoticeToLogEngine(6, 0, 0, "", 19, "", 0, -1, 0, "---", "---", "---", "---", 0, 0, message);
  };
  EXPECT_EQ(post("[Druvo] a $notice"), 0);
  EXPECT_THAT(read_file(kEventLog), EndsWith("type 0 user System: [Druvo] a $notice\n"));
  EXPECT_EQ(post(nullptr), -EINVAL);
}

TEST_F(Log_Tool, refuses_what_it_does_not_understand) {
  EXPECT_EQ(run("text", "3", "user"), 2 << 8);
  EXPECT_EQ(run("text", "", "user"), 2 << 8);
  EXPECT_EQ(pelk_exec(0, 0, 0, TARN_BIN_DIR "/log_tool", "-a", "text", nullptr), 2 << 8);
  EXPECT_EQ(pelk_exec(0, 0, 0, TARN_BIN_DIR "/log_tool", "-a", "x", "-t", "0", "-u", "u", "more", nullptr), 2 << 8);
  EXPECT_FALSE(exists(kEventLog));
}

TEST_F(Log_Tool, tells_when_it_cannot_write) {
  ASSERT_EQ(mkdir(kEventLog, 0755), 0);
  EXPECT_EQ(run("text", "0", "user"), 1 << 8);
  rmdir(kEventLog);
}

// ------------------------------------------------------------------------------------------------ the model's name

std::string model_name(int size) {
  std::string buffer(64, '#');
  const int code = Get_Display_Model_Name(buffer.data(), size);
  if (code != 0) return std::to_string(code);
  EXPECT_EQ(buffer[static_cast<size_t>(size)], '#') << "written behind the end";
  return buffer.c_str();
}

TEST(Model_Name, is_the_first_line_of_the_administrator_s_file) {
  ASSERT_TRUE(on_a_throw_away_root());
  write_file("/etc/tarncluster-model", "Tower 4\nsecond line\n");
  EXPECT_EQ(model_name(60), "Tower 4");
  EXPECT_EQ(model_name(5), "Towe");
  EXPECT_EQ(model_name(1), "");
  unlink("/etc/tarncluster-model");
}

TEST(Model_Name, is_never_empty_where_nobody_gave_one) {
  EXPECT_NE(model_name(60), "");
}

TEST(Model_Name, needs_a_buffer) {
  EXPECT_EQ(Get_Display_Model_Name(nullptr, 10), -EINVAL);
  EXPECT_EQ(model_name(0), std::to_string(-EINVAL));
}

TEST(Platform_Libraries, export_their_functions_only_and_need_no_cxx_runtime) {
  const auto output_of = [](const std::string &command) {
    FILE *stream = popen(command.c_str(), "r");
    std::string text;
    char buffer[4096];
    while (fgets(buffer, sizeof(buffer), stream) != nullptr) text += buffer;
    pclose(stream);
    return text;
  };
  const std::string names = "nm -D --defined-only --format=just-symbols ";
  EXPECT_EQ(
      output_of(names + TARN_INTERFACE_LIBRARY),
      "Cluster_Master_Cmd\nCluster_Master_Cmd_Ex\nCluster_Master_Ctrl_Cmd\nCluster_Slave_Cmd\nCluster_Slave_Cmd_Ex\n");
  EXPECT_EQ(output_of(names + TARN_SERVICES_LIBRARY), "Get_Display_Model_Name\nSendNoticeToLogEngine\npelk_exec\n");
  for (const char *library : {TARN_INTERFACE_LIBRARY, TARN_SERVICES_LIBRARY}) {
    const std::string entries = output_of(std::string("readelf -d ") + library);
    EXPECT_THAT(entries, testing::Not(testing::HasSubstr("libstdc++")));
    EXPECT_THAT(entries, testing::ContainsRegex("SONAME.*\\.so\\.1]"));
  }
}

}  // namespace
}  // namespace tarn::test
