// The tool on members that run: what a person does with a cluster, from the first appliance that is found to its
// removal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "tests/platform/member.h"
#include "tests/support/child_process.h"
#include "tests/support/command.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kBrowser[] = "/usr/sbin/avahi-browse";
constexpr char kPasswordFile[] = "/tmp/password";
constexpr char kAddress[] = "127.0.0.2";  // this machine's, but of no interface: an announcer's own address is left out

// All members of these tests share the shadow database and the browser of this root.
void make_surroundings() {
  ASSERT_TRUE(on_a_throw_away_root());
  ASSERT_EQ(system("hash=$(echo secret | openssl passwd -6 -stdin) && echo \"admin:$hash:19000::::::\" >> /etc/shadow"),
            0);
  write_file(kPasswordFile, "secret\n");
  write_file(kBrowser, "#!/bin/sh\ncat /tmp/announced\n");
  std::filesystem::permissions(kBrowser, std::filesystem::perms(0755));
}

std::string announcement(const std::string &host, int port) {
  return "   hostname = [" + host + ".local]\n   address = [" + kAddress + "]\n   port = [" + std::to_string(port) +
         "]\n   txt = [\"webport=8080,sslwebport=8443,master=0\"]\n";
}

class Tool_On_Members : public testing::Test {
 protected:
  static void SetUpTestSuite() { make_surroundings(); }

  Tool_On_Members() {
    for (Member *member : {&slave, &other}) member->start();
    master.start_bus();
    master.start();
    EXPECT_TRUE(master.comes_to_be_connected());
  }

  // What the tool prints on a member, errors included, in front of its exit status.
  static std::string run(const Member &member, const std::string &words) {
    return member.on_member([&] {
      const Command_Result result = run_command(TARN_BIN_DIR "/tarncluster " + words + " 2>&1");
      return result.output + std::to_string(result.status);
    });
  }
  static std::string add(const std::string &words) {
    return "member add --password-file " + std::string(kPasswordFile) + " " + words;
  }
  // What it prints for programs, in a Python expression of d.
  static std::string from_json(const Member &member, const std::string &words, const std::string &expression) {
    return member.on_member([&] {
      return run_command(TARN_BIN_DIR "/tarncluster --json " + words +
                         " | python3 -c 'import json, sys; d = json.load(sys.stdin); print(" + expression + ")'")
          .output;
    });
  }
  std::string add_slave() const {
    const std::string printed =
        run(master, add(std::string(kAddress) + " --port " + std::to_string(slave.listener_port())));
    EXPECT_THAT(printed, MatchesRegex("[0-9A-Za-z]{8}\n0"));
    EXPECT_TRUE(slave.comes_to_be_connected());
    return printed.substr(0, 8);
  }
  // The master passes commands on to slaves that it has marked as running.
  bool comes_to_be_marked(const std::string &id) const {
    return comes_true([&] { return from_json(master, "member show " + id, "d.get(\"Status\")") == "1\n"; });
  }

  Member slave{"slave"}, other{"other"};
  Member master{"master", [] { return run_cluster_script("found --address 127.0.0.1 --tools " TARN_BIN_DIR) == 0; }};
};

TEST_F(Tool_On_Members, adds_the_only_appliance_that_is_found_and_knows_it_afterwards) {
  write_file("/tmp/announced", announcement("nas1", slave.listener_port()));
  const std::string printed = run(master, add("--discovered"));
  ASSERT_THAT(printed, MatchesRegex("[0-9A-Za-z]{8}\n0"));
  const std::string id = printed.substr(0, 8);
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(from_json(master, "member show " + id, "d[\"Address\"]"), std::string(kAddress) + "\n");
  EXPECT_EQ(run(master, add("--discovered")),
            "tarncluster: no appliance is announced that is in no cluster; see: tarncluster browse\n1");
  EXPECT_EQ(run(master, add("--discovered nas1")),
            "tarncluster: cannot add 127.0.0.2: it is a member of a cluster already (-17)\n1");
}

TEST_F(Tool_On_Members, adds_all_appliances_that_are_found_and_tells_which_it_could_not_add) {
  write_file("/tmp/announced", announcement("nas1", slave.listener_port()) + announcement("gone", 61999) +
                                   announcement("nas2", other.listener_port()));
  EXPECT_THAT(run(master, add("--discovered --all")),
              MatchesRegex("HOST  ADDRESS    NAME\n"
                           "nas1  127.0.0.2  [0-9A-Za-z]{8}\n"
                           "nas2  127.0.0.2  [0-9A-Za-z]{8}\n"
                           "tarncluster: cannot add 127.0.0.2: nobody answers there \\(-113\\)\n1"));
  EXPECT_EQ(from_json(master, "member list", "len(d)"), "3\n");
}

TEST_F(Tool_On_Members, prints_the_reply_of_a_new_member_for_programs) {
  write_file("/tmp/announced",
             announcement("nas1", slave.listener_port()) + announcement("nas2", other.listener_port()));
  EXPECT_EQ(from_json(master, add("--discovered nas1"), "d[\"return\"], len(d[\"slave_id\"])"), "0 8\n");
  EXPECT_EQ(from_json(master, add("--discovered nas2"), "sorted(d)"), "['return', 'slave_id']\n");
}

TEST_F(Tool_On_Members, wrong_password_is_told_as_such) {
  write_file("/tmp/wrong", "wrong\n");
  EXPECT_EQ(
      run(master, "member add 127.0.0.2 --password-file /tmp/wrong --port " + std::to_string(slave.listener_port())),
      "tarncluster: cannot add 127.0.0.2: wrong password (-57)\n1");
}

TEST_F(Tool_On_Members, texts_and_files_go_both_ways) {
  const std::string id = add_slave();
  EXPECT_EQ(run(master, "test --to " + id + " hello"), "hello\n0");
  EXPECT_EQ(run(slave, "test 'hello, master'"), "hello, master\n0");
  EXPECT_EQ(from_json(slave, "test hello", "d[\"received\"]"), "hello\n");
  EXPECT_EQ(run(master, "test --to QN9 hello"), "tarncluster: no echo from member QN9: nobody answers there (-113)\n1");

  write_file("/tmp/original", std::string(100000, 'x'));
  EXPECT_EQ(run(master, "file send --to " + id + " --progress /tmp/percent /tmp/original /etc/config/copy"), "0");
  EXPECT_EQ(read_file("/tmp/percent"), "100");
  EXPECT_EQ(read_file(slave.path("/etc/config/copy")), read_file("/tmp/original"));
  EXPECT_EQ(run(master, "file fetch --to " + id + " /etc/config/copy /tmp/back"), "0");
  EXPECT_EQ(read_file("/tmp/back"), read_file("/tmp/original"));
  EXPECT_EQ(run(master, "file fetch --to " + id + " /etc/config/missing /tmp/none"),
            "tarncluster: cannot move /etc/config/missing to /tmp/none: No such file or directory (-2)\n1");
  EXPECT_FALSE(exists("/tmp/none"));
}

TEST_F(Tool_On_Members, slave_publishes_its_shares_and_describes_itself) {
  const std::string id = add_slave();
  ASSERT_TRUE(comes_to_be_marked(id));
  write_file(slave.path("/etc/config/smb.conf"),
             "[docs]\npath = /share/docs\ntarn = yes\nread list = a\nwrite list = b\ninvalid users = c\n");
  EXPECT_EQ(run(slave, "share publish"), "0");
  EXPECT_EQ(run(master, "share list " + id),
            "SHARE  PATH         READ  WRITE  INVALID\ndocs   /share/docs  a     b      c\n0");

  write_file(
      slave.path("/etc/config/Gavrix.conf"),
      "[System]\nServer Name = nas1\nVersion = 4.2.1\nWeb Access Port = 8080\n\n[Stunnel]\nEnable = 1\nPort = 8443\n");
  EXPECT_EQ(run(slave, "info send"), "0");
  EXPECT_EQ(from_json(master, "member show " + id, "d[\"HostName\"], d[\"SslWebPort\"]"), "nas1 8443\n");
  EXPECT_THAT(run(master, "member list"), HasSubstr("\n" + id + "  nas1"));
}

TEST_F(Tool_On_Members, addresses_are_changed_and_reported) {
  const std::string id = add_slave();
  ASSERT_TRUE(comes_to_be_marked(id));
  EXPECT_EQ(run(master, "bind set " + id + " 127.0.0.1"), "0");
  EXPECT_EQ(from_json(slave, "member show " + id, "d[\"Address\"]"), "127.0.0.1\n");
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_TRUE(comes_true([&] { return run(slave, "bind report") == "0"; }));
  EXPECT_THAT(run(master, "bind set " + id + " 10.99.0.1"),
              MatchesRegex("tarncluster: cannot bind " + id + " to 10.99.0.1: .* \\(-[0-9]+\\)\n1"));
}

TEST_F(Tool_On_Members, removed_slave_is_forgotten) {
  const std::string id = add_slave();
  EXPECT_EQ(run(master, "member remove " + id), "0");
  EXPECT_EQ(from_json(master, "member list", "[m[\"Name\"] for m in d]"), "['0']\n");
  EXPECT_EQ(run(master, "member remove " + id),
            "tarncluster: cannot remove " + id + ": no such section or member (-55)\n1");
}

constexpr char kImage[] = "/etc/config/tarn_cluster/home/image.img";

class Tool_Backs_Up : public Tool_On_Members {
 protected:
  Tool_Backs_Up() : id(add_slave()) {
    EXPECT_TRUE(comes_to_be_marked(id));
    std::filesystem::create_directories(slave.path("/etc/config/tarn_cluster/home"));
  }
  void let_packer(const std::string &settings) const {
    write_file(slave.path("/etc/config/druvosrv_tool.conf"), settings);
  }
  std::string state() const {
    return from_json(master, "backup status " + id, "d[\"status\"], d[\"progress\"], d.get(\"result\")");
  }
  bool is_under_way() const {
    const std::string told = state();
    return told.starts_with("running") && !told.starts_with("running 0.0");
  }

  const std::string id;
};

TEST_F(Tool_Backs_Up, follows_the_slave_to_the_end_and_fetches_the_file) {
  let_packer("seconds=1\n");
  EXPECT_EQ(run(master, "backup start " + id + " " + kImage + " --wait --fetch /tmp/image"), "0");
  EXPECT_THAT(run_command("tar -tf /tmp/image").output, HasSubstr("druvosrv_tool.conf\n"));
  EXPECT_EQ(from_json(master, "backup status " + id, "d[\"status\"], d[\"result\"]"), "finished 0\n");
  EXPECT_EQ(from_json(master, "task list", "d[0][\"id\"], d[0][\"member\"], d[0][\"status\"]"),
            id + "_b " + id + " finished\n");
}

TEST_F(Tool_Backs_Up, tells_that_the_backup_failed) {
  let_packer("then=fail -28\n");
  EXPECT_EQ(run(master, "backup start " + id + " " + kImage + " --wait"),
            "tarncluster: the backup of " + id + " failed: No space left on device (-28)\n1");
  EXPECT_EQ(from_json(master, "backup status " + id, "d[\"status\"], d[\"result\"]"), "failed -28\n");
}

TEST_F(Tool_Backs_Up, interrupted_leaves_the_backup_running) {
  let_packer("seconds=3\n");
  const std::string start = std::string("env --default-signal=INT " TARN_BIN_DIR "/tarncluster backup start ") + id +
                            " " + kImage + " --wait";
  const std::string interrupt = start + " > /tmp/said 2>&1 & pid=$!\n" +
                                "until [ -e /tmp/interrupt ]; do sleep 0.05; done\n" +
                                "kill -INT $pid; wait $pid; echo $? >> /tmp/said";
  Process terminal = master.start_on_member([&] { run_command(interrupt); });
  EXPECT_TRUE(comes_true([&] { return is_under_way(); })) << state();
  write_file("/tmp/interrupt", "");
  terminal.wait();
  EXPECT_EQ(read_file("/tmp/said"), "tarncluster: interrupted; the backup of " + id +
                                        " goes on, see: tarncluster backup status " + id + "\n1\n");
  EXPECT_TRUE(comes_true([&] { return exists(slave.path(kImage)); }));
  EXPECT_TRUE(comes_true([&] { return state().find(" 0\n") != std::string::npos; })) << state();
}

}  // namespace
}  // namespace tarn::test
