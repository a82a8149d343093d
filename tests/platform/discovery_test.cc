// Appliances that find one another: the cluster service's announcement, carried by a real avahi-daemon on each, and
// what the library makes of what the real browser prints.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "tarncluster_util.h"
#include "tests/platform/joined_cluster.h"

namespace tarn::test {
namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

constexpr char kAnnouncement[] = "/etc/avahi/services/tarncluster.service";
constexpr char kSettings[] = "/etc/config/Gavrix.conf";
constexpr char kEvil[] = "/tmp/evil";

using Setup = std::function<bool()>;
using Lines = std::vector<std::string>;

bool mount_own(const char *folder) {
  return mount("tarn-test", folder, "tmpfs", 0, "mode=755") == 0;
}

void send_output_to(const char *path) {
  if (freopen(path, "we", stdout) == nullptr || dup2(STDOUT_FILENO, STDERR_FILENO) < 0) _exit(1);
}

// An appliance with an avahi-daemon of its own.
class Neighbour {
 public:
  Neighbour(
      const std::string &name, const std::string &address, const Setup &setup = [] { return true; })
      : member_(name, address, [setup] { return mount_own("/etc/avahi/services") && setup(); }) {
    const Network_Link::Stay there(member_.link());
    discovery_ = member_->start_on_member([&] {
      if (unshare(CLONE_NEWUTS) != 0 || sethostname(name.data(), name.size()) != 0) _exit(1);
      send_output_to("/run/discovery.log");
      execl(TARN_SOURCE_DIR "/scripts/cluster", "cluster", "discovery", nullptr);
      _exit(127);
    });
    EXPECT_TRUE(comes_true([&] {
      return member_.text_of("/run/discovery.log").find("Server startup complete") != std::string::npos;
    })) << member_.text_of("/run/discovery.log");
  }
  // The script ends what it has started.
  ~Neighbour() { discovery_.end(SIGTERM); }
  Neighbour(const Neighbour &) = delete;
  Neighbour &operator=(const Neighbour &) = delete;

  Linked_Member &member() { return member_; }

  void start() { member_.start(); }

  // What the library lists here: "HOST ADDRESS PORT WEB-PORT SECURE-WEB-PORT MASTER" for each.
  Lines browse() const {
    const Network_Link::Stay there(member_.link());
    const std::string text = member_->on_member([] {
      Tarn_Browse_Serv *list = nullptr;
      const int count = Tarn_Cluster_Browse_Slave(&list);
      std::string lines;
      int length = 0;
      for (const Tarn_Browse_Serv *entry = list; entry != nullptr; entry = entry->next, ++length) {
        lines += std::string(entry->hostname) + " " + entry->address + " " + std::to_string(entry->port) + " " +
                 std::to_string(entry->webport) + " " + std::to_string(entry->sslwebport) + " " +
                 std::to_string(entry->master) + "\n";
      }
      Free_Browse_Serv(list);
      return count == length ? lines : "count " + std::to_string(count) + "\n";
    });
    Lines lines;
    for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1)
      lines.push_back(text.substr(at, end - at));
    return lines;
  }
  // Each look takes a second.
  bool comes_to_list(const std::function<bool(const Lines &listed)> &condition) const {
    for (int i = 0; i < 30; ++i) {
      if (condition(browse())) return true;
    }
    return false;
  }
  bool comes_to_list(const Lines &expected) const {
    return comes_to_list([&](const Lines &listed) {
      return std::is_permutation(listed.begin(), listed.end(), expected.begin(), expected.end());
    });
  }

  // As it is to be listed by others.
  std::string line(const std::string &rest = "8080 443 0") const {
    return member_.name() + " " + member_.address() + " " + std::to_string(member_->listener_port()) + " " + rest;
  }

  Process publish(const std::vector<std::string> &words) const {
    const Network_Link::Stay there(member_.link());
    return member_->start_on_member([&] {
      send_output_to("/run/publish.log");
      std::vector<char *> arguments;
      for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
      arguments.push_back(nullptr);
      execvp(arguments[0], arguments.data());
      _exit(127);
    });
  }

 private:
  Linked_Member member_;
  Process discovery_;
};

class Discovery : public testing::Test {
 protected:
  Discovery() {
    // What the library runs stands where it looks for it.
    EXPECT_EQ(run_cluster_script("tools " TARN_BIN_DIR " /"), 0);
  }
};

TEST_F(Discovery, What_The_Library_Runs_Is_Put_Where_It_Looks_For_It_And_Programs_That_Are_There_Stay) {
  const Temporary_Folder root;
  std::filesystem::create_directories(root / "usr/sbin");
  write_file(root / "usr/sbin/curl", "own");
  ASSERT_EQ(run_cluster_script("tools " TARN_BIN_DIR " " + root.path()), 0);
  EXPECT_THAT(names_in(root / "usr/sbin"), UnorderedElementsAre("avahi-browse", "curl", "druvosrv_tool", "log_tool"));
  EXPECT_EQ(std::filesystem::read_symlink(root / "usr/sbin/avahi-browse"), "/usr/bin/avahi-browse");
  EXPECT_EQ(read_file(root / "usr/sbin/curl"), "own");
  EXPECT_EQ(mode_of(root / "usr/sbin/druvosrv_tool"), 0755u);
  EXPECT_EQ(mode_of(root / "etc/init.d/druvosrv_c.sh"), 0755u);
}

TEST_F(Discovery, Appliances_That_Wait_Find_One_Another_And_Never_Themselves) {
  Neighbour first("nas1", "10.77.1.101");
  Neighbour second("nas2", "10.77.1.102");
  Neighbour third("nas3", "10.77.1.103");
  EXPECT_THAT(first.browse(), IsEmpty());
  for (Neighbour *neighbour : {&first, &second, &third}) neighbour->start();
  EXPECT_TRUE(first.comes_to_list({second.line(), third.line()})) << testing::PrintToString(first.browse());
  EXPECT_TRUE(second.comes_to_list({first.line(), third.line()})) << testing::PrintToString(second.browse());
  EXPECT_TRUE(third.comes_to_list({first.line(), second.line()})) << testing::PrintToString(third.browse());
}

TEST_F(Discovery, A_Master_Says_That_It_Is_One) {
  Neighbour master("boss", "10.77.1.101",
                   [] { return run_cluster_script("found --address 10.77.1.101 --tools " TARN_BIN_DIR) == 0; });
  Neighbour other("nas2", "10.77.1.102");
  master.start();
  EXPECT_TRUE(other.comes_to_list({master.line("8080 443 1")})) << testing::PrintToString(other.browse());
}

TEST_F(Discovery, The_Ports_Are_Those_Of_The_Settings_And_Follow_Them_When_The_Service_Is_Told) {
  const auto set = [](const std::string &text) {
    return [text] {
      write_file(kSettings, text);
      return true;
    };
  };
  Neighbour appliance("nas1", "10.77.1.101",
                      set("[System]\nWeb Access Port = 8001\n[Stunnel]\nEnable = 1\nPort = 8443\n"));
  Neighbour other("nas2", "10.77.1.102");
  appliance.start();
  EXPECT_TRUE(other.comes_to_list({appliance.line("8001 8443 0")})) << testing::PrintToString(other.browse());
  appliance.member()->on_member([&] {
    set("[System]\nWeb Access Port = 8002\n[Stunnel]\nEnable = 0\nPort = 8443\n")();
    return "";
  });
  appliance.member()->service().signal(SIGHUP);
  EXPECT_TRUE(other.comes_to_list({appliance.line("8002 -1 0")})) << testing::PrintToString(other.browse());
}

TEST_F(Discovery, A_Service_That_Ends_Takes_Its_Announcement_Back) {
  Neighbour appliance("nas1", "10.77.1.101");
  Neighbour other("nas2", "10.77.1.102");
  appliance.start();
  ASSERT_TRUE(other.comes_to_list({appliance.line()}));
  appliance.member()->service().end(SIGTERM);
  EXPECT_TRUE(other.comes_to_list(Lines())) << testing::PrintToString(other.browse());
  EXPECT_EQ(appliance.member().text_of(kAnnouncement), "");
}

TEST_F(Discovery, After_A_Service_That_Was_Killed_The_Next_One_Announces_The_Appliance_Once) {
  Neighbour appliance("nas1", "10.77.1.101");
  Neighbour other("nas2", "10.77.1.102");
  appliance.start();
  ASSERT_TRUE(other.comes_to_list({appliance.line()}));
  appliance.member()->service().end(SIGKILL);
  appliance.start();
  EXPECT_TRUE(other.comes_to_list({appliance.line()})) << testing::PrintToString(other.browse());
  EXPECT_THAT(names_in(appliance.member()->path("/etc/avahi/services")), UnorderedElementsAre("tarncluster.service"));
  EXPECT_EQ(mode_of(appliance.member()->path(kAnnouncement)), 0644u);
}

TEST_F(Discovery, A_Service_Without_Anybody_Who_Would_Announce_It_Starts_And_Says_Nothing) {
  Linked_Member appliance("nas1", "10.77.1.101", [] { return mount_own("/etc/avahi"); });
  appliance.start();
  EXPECT_THAT(appliance->log(), Not(HasSubstr("cannot announce")));
  EXPECT_EQ(appliance.text_of(kAnnouncement), "");
}

TEST_F(Discovery, Whatever_A_Neighbour_Announces_Is_Text_And_Hides_Nobody) {
  Neighbour appliance("nas1", "10.77.1.101");
  Neighbour stranger("evil", "10.77.1.102");
  Neighbour other("nas3", "10.77.1.103");
  unlink(kEvil);
  appliance.start();
  const std::string command = std::string("touch ") + kEvil;
  const std::string text = "webport=1,sslwebport=2,master=0";
  std::vector<Process> publishers;
  for (const std::string &name :
       {"'; " + command + " ;'", "$(" + command + ")", "`" + command + "`", "\"; " + command + "\n" + command,
        std::string("] hostname = [spoof.x] address = [1.2.3.4] port = [7]"), std::string("%s%n%s%n"),
        std::string(60, 'n')}) {
    publishers.push_back(stranger.publish({"avahi-publish", "-s", name, "_tarncluster._tcp", "77", text}));
  }
  for (const std::string &bad :
       {std::string("webport=99999999999999999999,sslwebport=2,master=0"), std::string(250, 'w'),
        "webport=" + std::string(240, '1'), std::string("webport=1,sslwebport=2,master"), std::string(",,,=,master=1"),
        std::string("webport=1,sslwebport=$(" + command + "),master=`" + command + "`")}) {
    publishers.push_back(stranger.publish(
        {"avahi-publish", "-s", "bad" + std::to_string(publishers.size()), "_tarncluster._tcp", "78", bad}));
  }
  EXPECT_TRUE(other.comes_to_list([&](const Lines &lines) {
    return std::count(lines.begin(), lines.end(), "evil 10.77.1.102 77 1 2 0") >= 5 &&
           std::count(lines.begin(), lines.end(), appliance.line()) == 1;
  })) << testing::PrintToString(other.browse());
  EXPECT_FALSE(exists(kEvil));
}

}  // namespace
}  // namespace tarn::test
