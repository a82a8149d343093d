#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/program.h"
#include "tests/support/standard_output.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

const std::string curl = "/sbin/curl";
const std::string arguments_file = "/tmp/curl.arguments", answer_file = "/tmp/curl.answer";

const std::string refusal = "[Tarn] Can't set background task\n";

constexpr int untouched = -4711;

// Notes its arguments, each ended by a NUL, and prints what the test says.
class Remote_Task : public Descriptor_Count {
 protected:
  Remote_Task() {
    if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
    remove_files();
    install("#!/bin/sh\nprintf '%s\\0' \"$@\" >> /tmp/curl.arguments\ncat /tmp/curl.answer\n");
    answer("{\"status\": 0}\n");
    alarm(120);
  }
  ~Remote_Task() override {
    alarm(0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process was left";
    remove_files();
  }

  static void install(const std::string &script) {
    write_file(curl, script);
    chmod(curl.c_str(), 0755);
  }
  static void answer(const std::string &text) { write_file(answer_file, text); }
  static void remove_files() {
    for (const std::string &file : {curl, arguments_file, answer_file}) std::filesystem::remove(file);
  }

  static std::vector<std::string> arguments() {
    std::vector<std::string> found;
    if (!exists(arguments_file)) return found;
    std::istringstream notes(read_file(arguments_file));
    for (std::string argument; std::getline(notes, argument, '\0');) found.push_back(argument);
    return found;
  }

  // What is printed.
  std::string ask(const char *host = "10.0.0.7", const char *sid = "sid1", const char *extra = nullptr) {
    status_ = untouched;
    return output_of([&] { result_ = backup_restore_set_remote_bg_task(host, sid, 8080, 1, 0, 55, extra, &status_); });
  }

  int result_ = untouched;
  int status_ = untouched;
};

std::string url(const std::string &host, const std::string &sid, const std::string &rest = "") {
  return "http://" + host + ":8080/cgi-bin/druvo/druvosrv.cgi?sid=" + sid +
         "&func=tarn_cluster_backup_restore_bg_task&backup=1&create_bg=0&progress=55" + rest;
}

TEST_F(Remote_Task, The_Command_Has_Each_Of_Its_Words_And_The_Address_As_One) {
  EXPECT_EQ(ask(), "");
  EXPECT_THAT(arguments(), ElementsAre("-L", "-k", "--retry", "1", "--connect-timeout", "10", "-m", "10", "-s",
                                       url("10.0.0.7", "sid1")));
}

TEST_F(Remote_Task, Numbers_Are_Taken_As_They_Are_And_The_Extra_Text_Comes_Last) {
  EXPECT_EQ(backup_restore_set_remote_bg_task("h", "", -1, -2, 256, 1000, "a=1&b=2", &status_), -1);
  EXPECT_EQ(arguments().back(),
            "http://h:-1/cgi-bin/druvo/druvosrv.cgi?sid=&func=tarn_cluster_backup_restore_bg_task&backup=-2"
            "&create_bg=256&progress=1000&a=1&b=2");
}

TEST_F(Remote_Task, An_Empty_Extra_Text_Still_Has_Its_Separator) {
  ask("h", "s", "");
  EXPECT_EQ(arguments().back(), url("h", "s", "&"));
}

TEST_F(Remote_Task, The_Answers_Status_Is_Stored_And_The_Result_Is_Minus_1_All_The_Same) {
  struct Case {
    const char *answer;
    int status;
  };
  for (const Case &c : {Case{"{\"status\": 0}\n", 0}, Case{"{\"status\":-7,\"x\":1}", -7},
                        Case{"{\"x\":{\"status\":1},\"status\":2}\nmore\n", 2}, Case{"{\"status\":\"9\"}", 9},
                        Case{"{\"status\":true}", 1}, Case{"{\"status\":3.9}", 3}, Case{"{\"status\":\"x\"}", 0}}) {
    SCOPED_TRACE(c.answer);
    answer(c.answer);
    EXPECT_EQ(ask(), "");
    EXPECT_EQ(status_, c.status);
    EXPECT_EQ(result_, -1);
  }
}

TEST_F(Remote_Task, An_Answer_Without_A_Status_Is_Printed_As_A_Refusal) {
  for (const char *bad : {"{}", "{\"Status\":1}", "[\"status\"]", "1", "\"status\"", "{\"status\":", "<html>", "\n",
                          "\n{\"status\":1}\n", "null", "{\"x\":{\"status\":1}}"}) {
    SCOPED_TRACE(bad);
    answer(bad);
    EXPECT_EQ(ask(), refusal);
    EXPECT_EQ(status_, untouched);
    EXPECT_EQ(result_, -1);
  }
}

TEST_F(Remote_Task, Only_The_First_255_Characters_Of_A_Line_Are_Read) {
  const std::string beginning = "{\"status\":6,\"x\":\"", end = "\"}";
  const std::string longest = beginning + std::string(255 - beginning.size() - end.size(), 'x') + end;
  ASSERT_THAT(longest, SizeIs(255));
  answer(longest + "\n");
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(status_, 6);
  answer(beginning + "x" + longest.substr(beginning.size()) + "\n");
  EXPECT_EQ(ask(), refusal);
  EXPECT_EQ(status_, untouched);
}

TEST_F(Remote_Task, Without_Any_Output_Nothing_Is_Printed_And_The_Status_Stays) {
  answer("");
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(status_, untouched);
  EXPECT_EQ(result_, -1);
  EXPECT_THAT(arguments(), SizeIs(10));
}

TEST_F(Remote_Task, Nobody_Has_To_Take_The_Status) {
  answer("{\"status\": 1}");
  const auto ask_without = [] {
    EXPECT_EQ(backup_restore_set_remote_bg_task("h", "s", 1, 1, 1, 1, nullptr, nullptr), -1);
  };
  EXPECT_EQ(output_of(ask_without), "");
  answer("{}");
  EXPECT_EQ(output_of(ask_without), refusal);
}

TEST_F(Remote_Task, A_Host_That_Is_Missing_Or_Could_Be_A_Command_Is_Refused_And_Nothing_Runs) {
  for (const char *host : {static_cast<const char *>(nullptr), "h;reboot", ";", "`id`", "h`"}) {
    EXPECT_EQ(ask(host), "");
    EXPECT_EQ(result_, -1);
  }
  EXPECT_EQ(ask("h", nullptr), "");
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(status_, untouched);
  EXPECT_THAT(arguments(), IsEmpty());
}

TEST_F(Remote_Task, Whatever_The_Texts_Hold_Runs_Not_As_Code) {
  const std::string evil = "/tmp/evil";
  for (const std::string text : {"'$(touch /tmp/evil)'", "' && touch /tmp/evil && '", "\ntouch /tmp/evil\n",
                                 "\" | touch /tmp/evil \"", "a b\tc", "$IFS", "*", "%s%n%d", "\\'"}) {
    SCOPED_TRACE(text);
    std::filesystem::remove(arguments_file);
    ask(text.c_str(), text.c_str(), text.c_str());
    EXPECT_THAT(arguments(), SizeIs(10));
    EXPECT_EQ(arguments().back(), url(text, text, "&" + text));
    EXPECT_EQ(status_, 0);
    EXPECT_FALSE(exists(evil));
  }
  const std::string code = ";touch /tmp/evil;`touch /tmp/evil`";
  ask("h", code.c_str(), code.c_str());
  EXPECT_EQ(arguments().back(), url("h", code, "&" + code));
  EXPECT_FALSE(exists(evil));
}

// A cut request would be another one.
TEST_F(Remote_Task, A_Command_Of_More_Than_511_Characters_Is_Not_Run) {
  const std::string without = "/sbin/curl -L -k --retry 1 --connect-timeout 10 -m 10 -s '" + url("h", "s", "&") + "'";
  const std::string fits(511 - without.size(), 'x'), too_long = fits + "x", endless(100'000, 'x');
  ask("h", "s", fits.c_str());
  EXPECT_EQ(arguments().back(), url("h", "s", "&" + fits));
  EXPECT_EQ(status_, 0);
  std::filesystem::remove(arguments_file);
  for (const std::string &text : {too_long, endless}) {
    EXPECT_EQ(ask("h", "s", text.c_str()), "");
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(status_, untouched);
  }
  // Without the extra text and its separator there is room for one more, and the "s" gives way.
  const std::string longest_sid = fits + "xx", too_long_sid = longest_sid + "x";
  ask("h", too_long_sid.c_str());
  ask(too_long_sid.c_str(), "s");
  ask("h", endless.c_str());
  ask(endless.c_str());
  EXPECT_THAT(arguments(), IsEmpty());
  ask("h", longest_sid.c_str());
  EXPECT_EQ(arguments().back(), url("h", longest_sid));
}

TEST_F(Remote_Task, A_Missing_Program_Is_As_One_That_Says_Nothing) {
  std::filesystem::remove(curl);
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(result_, -1);
  write_file(curl, "not to be executed");
  chmod(curl.c_str(), 0644);
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(status_, untouched);
}

TEST_F(Remote_Task, Without_A_Pipe_Or_Memory_For_The_Process_It_Is_Told) {
  {
    const Before_Call pipe(System_Call::pipe2, 1, [] { return EMFILE; });
    ask();
    EXPECT_TRUE(pipe.happened());
    EXPECT_EQ(result_, -ENOENT);
  }
  answer("");
  int told = 0;
  with_each_allocation_failing([] { return backup_restore_set_remote_bg_task("h", "s", 1, 1, 1, 1, nullptr, nullptr); },
                               [&](int result, int) {
                                 EXPECT_THAT(result, testing::AnyOf(-1, -ENOENT));
                                 told += result == -ENOENT;
                               });
  EXPECT_EQ(told, 2);  // the list of what the process is to do, and the stream
}

TEST_F(Remote_Task, A_Program_That_Never_Stops_Talking_Ends_When_Nobody_Listens) {
  install("#!/bin/sh\necho '{\"status\": 4}'\nexec yes\n");
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(status_, 4);
}

TEST_F(Remote_Task, The_Programs_Failure_Changes_Nothing) {
  install("#!/bin/sh\necho '{\"status\": 4}'\nexit 7\n");
  EXPECT_EQ(ask(), "");
  EXPECT_EQ(status_, 4);
  EXPECT_EQ(result_, -1);
}

// ------------------------------------------------------------------------------------------------- a real web server

// Sends the asker on to another page, which answers; prints its port and what it is asked for.
const char server_script[] = R"PY(
import http.server
class Page(http.server.BaseHTTPRequestHandler):
  def do_GET(self):
    print(self.command, self.path)
    moved = self.path.startswith('/moved')
    self.send_response(200 if moved else 302)
    if not moved: self.send_header('Location', '/moved')
    self.end_headers()
    if moved: self.wfile.write(b'{ "status": 12 }\n')
  def log_message(self, *_): pass
server = http.server.HTTPServer(('127.0.0.1', 0), Page)
print('port', server.server_port, '.')
server.serve_forever()
)PY";

TEST_F(Remote_Task, The_Real_Program_Gets_The_Answer_Of_A_Web_Server_And_Follows_It) {
  std::filesystem::remove(curl);
  std::filesystem::create_symlink("/usr/bin/curl", curl);
  Program server({"python3", "-u", "-c", server_script});
  ASSERT_TRUE(server.prints(" .\n"));
  int port = 0;
  ASSERT_EQ(sscanf(server.output().c_str(), "port %d", &port), 1);
  int result = 0;
  const auto ask = [&](const char *extra) {
    result = backup_restore_set_remote_bg_task("127.0.0.1", "abc", port, 1, 1, 42, extra, &status_);
  };
  EXPECT_EQ(output_of([&] { ask("name=x"); }), "");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(status_, 12);
  EXPECT_TRUE(
      server.prints("GET /cgi-bin/druvo/druvosrv.cgi?sid=abc&func=tarn_cluster_backup_restore_bg_task&backup=1"
                    "&create_bg=1&progress=42&name=x\nGET /moved\n"));
}

TEST_F(Remote_Task, The_Real_Program_Without_A_Server_Says_Nothing) {
  std::filesystem::remove(curl);
  std::filesystem::create_symlink("/usr/bin/curl", curl);
  EXPECT_EQ(output_of([&] { result_ = backup_restore_set_remote_bg_task("127.0.0.1", "s", 1, 1, 1, 1, "", &status_); }),
            "");
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(status_, untouched);
}

}  // namespace
}  // namespace tarn::test
