// The desk's packer by itself: what it packs, what it answers, and what it leaves behind however it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kPacker[] = "/sbin/druvosrv_tool";
constexpr char kSettings[] = "/etc/config/druvosrv_tool.conf";
const std::string folder = "/tmp/images";

class Packer : public testing::Test {
 protected:
  Packer() {
    if (!on_a_throw_away_root()) throw std::runtime_error("this would change the machine's own files");
    std::filesystem::copy_file(TARN_SOURCE_DIR "/platform/services/druvosrv_tool", kPacker,
                               std::filesystem::copy_options::overwrite_existing);
    for (const char *name : {"/etc/config", "/run/druvosrv_tool"}) run(std::string("rm -rf ") + name + "/*");
    std::filesystem::create_directories(folder);
    std::filesystem::create_directories("/etc/config/tarn_cluster/home/backup");
    write_file("/etc/config/smb.conf", "[global]\n");
    write_file("/etc/config/tarn_cluster/home/backup/older.img", "");
    alarm(120);
  }
  ~Packer() override {
    alarm(0);
    run("killall druvosrv_tool 2>/dev/null");
    EXPECT_EQ(run("sleep 0.3; pgrep -x druvosrv_tool; pgrep -x tar"), "");
    std::filesystem::remove_all(folder);
  }

  // By a shell in a process group of its own, as a handler has one; answers what is printed.
  static std::string run(const std::string &command) {
    write_file("/tmp/command", command);
    FILE *output = popen("setsid bash /tmp/command", "re");
    std::string text;
    char buffer[256];
    while (fgets(buffer, sizeof(buffer), output) != nullptr) text += buffer;
    pclose(output);
    return text;
  }
  static std::string start(const std::string &path) {
    return std::string(kPacker) + " -b '" + path + "' > /dev/null 2>&1 &\n";
  }
  static std::string ask() { return std::string(kPacker) + " -P\n"; }
  static std::string ask_until(const std::string &answer) {
    return "until r=$(" + std::string(kPacker) + " -P); [ \"$r\" = \"" + answer + "\" ]; do sleep 0.1; done; echo $r\n";
  }
  static void set(const std::string &settings) { write_file(kSettings, settings); }
};

TEST_F(Packer, Packs_The_Configuration_Without_Earlier_Backups_For_Root_Only) {
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("progress:100%")), "progress:100%\n");
  EXPECT_EQ(run("tar -tf /tmp/images/a.img | sort"), "./\n./smb.conf\n./tarn_cluster/\n");
  EXPECT_EQ(mode_of(folder + "/a.img"), 0600u);
  EXPECT_THAT(names_in(folder), ElementsAre("a.img"));
}

TEST_F(Packer, The_Progress_Follows_The_Time_And_The_File_Has_Its_Name_Only_At_100) {
  set("seconds=60\n");
  const std::string percent = "$(" + std::string(kPacker) + " -P | tr -dc 0-9)";
  EXPECT_EQ(run(start(folder + "/a.img") + "until [ " + percent + " -ge 3 ]; do sleep 0.1; done; ls /tmp/images"),
            "a.img.part.img\n");
}

TEST_F(Packer, An_End_Is_Told_Once_And_Only_To_Those_Who_Started_It) {
  run(start(folder + "/a.img") + "until [ -e /tmp/images/a.img ]; do sleep 0.1; done");
  EXPECT_EQ(run(ask()), "") << "of another group";
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("progress:100%") + ask()), "progress:100%\n");
}

TEST_F(Packer, A_Path_Is_A_Path_Whatever_Is_In_It) {
  for (const char *name : {"a b", "-x", "$(id)", "a\nb\n", "x:y"}) {
    SCOPED_TRACE(name);
    run("cd /tmp/images\n" + start(folder + "/" + name) + ask_until("progress:100%"));
    EXPECT_THAT(names_in(folder), ElementsAre(name));
    std::filesystem::remove(folder + "/" + name);
  }
}

TEST_F(Packer, What_Fails_Is_A_Negative_Number_And_Leaves_Nothing) {
  EXPECT_EQ(run(start("/nowhere/a.img") + ask_until("progress:-2%")), "progress:-2%\n");
  std::filesystem::create_directories(folder + "/small");
  ASSERT_EQ(mount("tarn-test", (folder + "/small").c_str(), "tmpfs", 0, "size=8k"), 0);
  write_file("/etc/config/big", std::string(100000, 'x'));
  EXPECT_EQ(run(start(folder + "/small/a.img") + ask_until("progress:-28%")), "progress:-28%\n");
  EXPECT_THAT(names_in(folder + "/small"), IsEmpty());
  umount((folder + "/small").c_str());
  std::filesystem::create_directories(folder + "/is-a-folder");
  EXPECT_EQ(run(start(folder + "/is-a-folder") + ask_until("progress:-5%")), "progress:-5%\n");
}

TEST_F(Packer, A_New_One_Ends_The_One_That_Is_Still_At_Work) {
  set("seconds=60\n");
  run(start(folder + "/old.img") + "until [ -e /tmp/images/old.img.part.img ]; do sleep 0.1; done");
  set("");
  EXPECT_EQ(run(start(folder + "/new.img") + ask_until("progress:100%")), "progress:100%\n");
  EXPECT_THAT(names_in(folder), ElementsAre("new.img"));
}

TEST_F(Packer, A_Signal_Ends_It_And_What_It_Wrote_Is_Gone) {
  set("seconds=60\n");
  run(start(folder + "/a.img") +
      "until [ -e /tmp/images/a.img.part.img ]; do sleep 0.1; done; killall druvosrv_tool; wait");
  EXPECT_THAT(names_in(folder), IsEmpty());
}

TEST_F(Packer, A_Killed_One_Tells_Nothing_And_Does_Not_Stand_In_The_Way) {
  set("seconds=60\n");
  EXPECT_EQ(
      run(start(folder + "/a.img") +
          "until [ -e /tmp/images/a.img.part.img ]; do sleep 0.1; done; killall -9 druvosrv_tool; wait\n" + ask()),
      "");
  set("");
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("progress:100%")), "progress:100%\n");
  EXPECT_THAT(names_in(folder), ElementsAre("a.img"));
}

TEST_F(Packer, Fails_Stalls_And_Talks_Nonsense_When_It_Is_Told_To) {
  set("seconds=1\nat=30\nthen=fail -17\n");
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("progress:-17%")), "progress:-17%\n");
  set("seconds=1\nat=30\nthen=stall\n");
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("progress:30%") + "sleep 1.5\n" + ask()),
            "progress:30%\nprogress:30%\n");
  set("seconds=1\nat=30\nthen=say what?\n");
  EXPECT_EQ(run(start(folder + "/a.img") + ask_until("what?")), "what?\n");
  set("then=say\n");
  EXPECT_EQ(run(start(folder + "/a.img") + "sleep 0.3\n" + ask()), "");
}

TEST_F(Packer, Other_Words_Are_Refused_With_A_Description) {
  for (const char *words : {"", "-b", "-b ''", "-b a b", "-x"}) {
    SCOPED_TRACE(words);
    EXPECT_EQ(run(std::string(kPacker) + " " + words + " 2>&1 | head -n 1; echo ${PIPESTATUS[0]}"),
              "usage: druvosrv_tool -b PATH | -P\n2\n");
  }
}

}  // namespace
}  // namespace tarn::test
