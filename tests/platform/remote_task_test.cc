// The request that has another appliance's web pages note a background task: by the real curl, at a real web server
// with a page like the appliance's, which notes the task.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "tarncluster_util.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/program.h"
#include "tests/support/standard_output.h"

namespace tarn::test {
namespace {

using testing::EndsWith;

constexpr char kPage[] = R"SH(#!/bin/sh
value() { printf '%s' "$QUERY_STRING" | tr '&' '\n' | sed -n "s/^$1=//p" | head -n 1; }
printf '%s\n' "$QUERY_STRING" >> /tmp/www.asked
printf 'Content-Type: application/json\r\n\r\n'
if [ "$(value func)" != tarn_cluster_backup_restore_bg_task ] || [ "$(value sid)" != abc123 ]; then
  echo '{ "status": -1 }'
  exit
fi
file=/tmp/druvosrv/tarn_backup.conf
task=$(value name)_$([ "$(value backup)" = 1 ] && echo b || echo r)
if [ "$(value create_bg)" != 1 ] && ! grep -q "^\[$task\]$" "$file" 2> /dev/null; then
  echo '{ "status": -55 }'
  exit
fi
printf '[%s]\nstatus = 1\nprogress = %s\n\n' "$task" "$(value progress)" > "$file"
echo '{ "status": 0 }'
)SH";

const std::string www = "/tmp/www";
const std::string page = www + "/cgi-bin/druvo/druvosrv.cgi";
constexpr char kTaskFile[] = "/tmp/druvosrv/tarn_backup.conf";
constexpr char kEvil[] = "/tmp/evil";
constexpr int kPort = 8088;
constexpr int kUntouched = -4711;

class Remote_Task : public testing::Test {
 protected:
  Remote_Task() {
    if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
    std::filesystem::create_directories("/tmp/druvosrv");
    std::filesystem::create_directories(std::filesystem::path(page).parent_path());
    for (const char *file : {kTaskFile, kEvil, "/tmp/www.asked"}) std::filesystem::remove(file);
    write_file(page, kPage);
    chmod(page.c_str(), 0755);
    if (!exists("/sbin/curl")) std::filesystem::create_symlink("/usr/bin/curl", "/sbin/curl");
    server_.emplace(std::initializer_list<std::string>{"busybox", "httpd", "-f", "-p",
                                                       "127.0.0.1:" + std::to_string(kPort), "-h", www});
    alarm(120);
    while (ask("somebody") == "" && status_ == kUntouched) usleep(20000);  // until the server listens
  }
  ~Remote_Task() override { alarm(0); }

  // Answers what is printed.
  std::string ask(const char *sid, const char *extra = nullptr, int create = 0, int progress = 0, int backup = 1) {
    status_ = kUntouched;
    return output_of([&] {
      EXPECT_EQ(backup_restore_set_remote_bg_task("127.0.0.1", sid, kPort, backup, create, progress, extra, &status_),
                -1);
    });
  }
  static double progress_of(const char *task) {
    Backgrnd_Task_Conf *found = nullptr;
    if (Backgrnd_Task_Get(kTaskFile, task, &found) != 0 || found == nullptr) return -1;
    const double progress = found->progress;
    Release_Backgrnd_Task_Conf(found);
    return progress;
  }

  int status_ = kUntouched;
  std::optional<Program> server_;
};

TEST_F(Remote_Task, Is_Made_And_Updated_On_The_Other_Appliance) {
  EXPECT_EQ(ask("abc123", "name=QN1", 1, 0), "");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(progress_of("QN1_b"), 0);
  EXPECT_EQ(ask("abc123", "name=QN1", 0, 42), "");
  EXPECT_EQ(status_, 0);
  EXPECT_EQ(progress_of("QN1_b"), 42);
  EXPECT_EQ(ask("abc123", "name=QN1", 1, 7, 0), "");
  EXPECT_EQ(progress_of("QN1_r"), 7);
  EXPECT_THAT(
      read_file("/tmp/www.asked"),
      EndsWith("sid=abc123&func=tarn_cluster_backup_restore_bg_task&backup=0&create_bg=1&progress=7&name=QN1\n"));
}

TEST_F(Remote_Task, Is_Refused_With_The_Status_Of_The_Other_Appliance) {
  ask("nobody", "name=QN1", 1);
  EXPECT_EQ(status_, -1);
  ask("abc123", "name=QN1", 0, 10);
  EXPECT_EQ(status_, -55) << "there is none to update";
  EXPECT_FALSE(exists(kTaskFile));
}

TEST_F(Remote_Task, At_An_Appliance_Without_The_Page_Is_Said_To_Be_Impossible) {
  std::filesystem::remove(page);
  EXPECT_EQ(ask("abc123", "name=QN1", 1), "[Tarn] Can't set background task\n");
  EXPECT_EQ(status_, kUntouched);
}

TEST_F(Remote_Task, Whatever_Its_Texts_Hold_Runs_As_Code_On_Neither_Side) {
  const std::string command = std::string("touch ") + kEvil;
  for (const std::string &text :
       {"'; " + command + "; '", "$(" + command + ")", "'$(" + command + ")'", "x\n" + command + "\n", "\"; " + command,
        "x|" + command, "-o " + std::string(kEvil), "abc123'$(touch${IFS}" + std::string(kEvil) + ")'"}) {
    SCOPED_TRACE(text);
    ask(text.c_str(), ("name=" + text).c_str(), 1);
    ask("abc123", ("name=" + text).c_str(), 1);
    EXPECT_FALSE(exists(kEvil));
  }
}

}  // namespace
}  // namespace tarn::test
