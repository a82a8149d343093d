// What becomes of a cluster's work when a member is killed, or its link is cut, in the middle of it: the others go on,
// and every member ends up with the same records.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>

#include "tarncluster_util.h"
#include "tests/platform/joined_cluster.h"

namespace tarn::test {
namespace {

using testing::AnyOf;

constexpr int kShares = 200;

class Broken_Links : public testing::Test {
 protected:
  bool comes_to_be_listed_everywhere(const std::vector<std::string> &ids) {
    return comes_true([&] {
      for (const Linked_Member *member : everybody()) {
        if (!member->id.empty() && member->listed() != ids) return false;
      }
      return true;
    });
  }
  std::vector<Linked_Member *> everybody() {
    std::vector<Linked_Member *> members = cluster.slaves();
    members.insert(members.begin(), &cluster.master());
    return members;
  }
  bool cluster_is_of(size_t count) {
    for (const Linked_Member *member : everybody()) {
      if (!member->id.empty() && member->listed().size() != count) return false;
    }
    return true;
  }
  static bool comes_to_hold(const Linked_Member &member, const std::string &id, const std::string &text) {
    return comes_true([&] { return member.text_of(share_file_of(id)) == text; });
  }
  std::string published_by(const Linked_Member &slave) { return slave.text_of(share_file_of(slave.id)); }

  // Publishes in the background, and stops where a slave is to store the list: its lock is held there.
  void publish_as_far_as(const Linked_Member &obstacle, const Linked_Member &publisher) {
    lock = obstacle->start_on_member([&] {
      if (Get_File_Lock(share_file_of(publisher.id).c_str(), 1000) != 1) _exit(1);
      write_file("/run/lock_is_held", "");
      for (;;) pause();
    });
    ASSERT_TRUE(comes_true([&] { return exists(obstacle->path("/run/lock_is_held")); }));
    publishing = publisher->start_on_member([] {
      char *reply = nullptr;
      const int code = Tarn_Cluster_Send_Share_List("0", &reply);
      write_file("/run/published", std::to_string(code) + " " + (reply != nullptr ? reply : "none"));
    });
    ASSERT_TRUE(comes_true([&] {
      const std::string text = published_by(publisher);
      return !text.empty() && cluster.master().text_of(share_file_of(publisher.id)) == text;
    }));
    usleep(500000);  // for the master's word to reach the slave
  }
  std::string end_of_publishing(const Linked_Member &publisher) {
    publishing.wait();
    return publisher.text_of("/run/published");
  }
  void expect_nobody_to_keep_scraps() {
    const std::vector<std::string> ids = cluster.ids();
    for (const Linked_Member *member : everybody()) {
      const std::string scraps = (*member)->on_member([&] {
        std::string found;
        for (const std::string &name : names_in("/mnt/tarncluster/config/share_list")) {
          if (std::find(ids.begin(), ids.end(), name) == ids.end()) found += " " + name;
        }
        for (const std::string &name : names_in("/mnt/tarncluster/config")) {
          if (!known_files.contains(name)) found += " " + name;
        }
        return found;
      });
      EXPECT_EQ(scraps, "") << "on " << member->name();
    }
  }

  const std::set<std::string> known_files = {"share_list", "tarn_cluster_s.conf", "tarn_service_m.conf",
                                             "tarn_service_s.conf"};
  Joined_Cluster cluster{3};
  Linked_Member &first = cluster.slave(0);
  Linked_Member &second = cluster.slave(1);
  Linked_Member &third = cluster.slave(2);
  Process lock;
  Process publishing;
};

// ------------------------------------------------------------------------------------------------ a slave that dies

TEST_F(Broken_Links, slave_that_is_killed_while_it_is_told_a_share_list_keeps_it_from_nobody_else) {
  set_shares(third, "late", kShares);
  publish_as_far_as(first, third);
  first->service().end(SIGKILL);
  EXPECT_TRUE(comes_to_hold(second, third.id, published_by(third)));
  EXPECT_EQ(end_of_publishing(third), R"(0 { "return": 0 })");
  EXPECT_EQ(first.text_of(share_file_of(third.id)), "");
  EXPECT_TRUE(cluster.are_down({&first}));
  EXPECT_TRUE(cluster.are_running({&second, &third}));

  lock.end(SIGKILL);
  first.start();
  EXPECT_TRUE(cluster.are_running({&first, &second, &third}));
  EXPECT_TRUE(comes_to_hold(first, third.id, published_by(third)));
  expect_nobody_to_keep_scraps();
}

// Whoever restarts it faster than anybody misses it: what it was told is lost all the same.
TEST_F(Broken_Links, slave_that_is_restarted_at_once_while_it_is_told_a_share_list_keeps_it_from_nobody_else) {
  set_shares(third, "late", kShares);
  publish_as_far_as(first, third);
  first->service().end(SIGTERM);
  lock.end(SIGKILL);
  first.start();
  EXPECT_TRUE(comes_to_hold(second, third.id, published_by(third)));
  EXPECT_EQ(end_of_publishing(third), R"(0 { "return": 0 })");
  EXPECT_TRUE(comes_to_hold(first, third.id, published_by(third)));
  expect_nobody_to_keep_scraps();
}

TEST_F(Broken_Links, slave_that_was_away_when_members_came_and_went_agrees_with_the_others_after_its_return) {
  set_shares(third, "old", kShares);
  EXPECT_EQ(publish_shares(third).code, 0);
  EXPECT_TRUE(comes_to_hold(first, third.id, published_by(third)));
  first->service().end(SIGKILL);
  Linked_Member &fourth = cluster.raise_appliance();
  EXPECT_EQ(cluster.add(&fourth).code, 0);
  const std::string gone = std::exchange(third.id, "");
  EXPECT_EQ(cluster.remove(gone).code, 0);
  first.start();
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", first.id, second.id, fourth.id}));
  EXPECT_EQ(first.text_of(share_file_of(gone)), "");
  expect_nobody_to_keep_scraps();
}

TEST_F(Broken_Links, slave_that_joins_late_gets_the_share_lists_that_were_passed_on_before) {
  set_shares(third, "early", kShares);
  EXPECT_EQ(publish_shares(third).code, 0);
  Linked_Member &fourth = cluster.raise_appliance();
  EXPECT_EQ(cluster.add(&fourth).code, 0);
  EXPECT_TRUE(comes_to_hold(fourth, third.id, published_by(third)));
}

// Nobody is told of a list that became empty but the master.
TEST_F(Broken_Links, share_list_that_was_emptied_is_not_handed_out) {
  set_shares(third, "early", kShares);
  EXPECT_EQ(publish_shares(third).code, 0);
  const std::string before = published_by(third);
  EXPECT_TRUE(comes_to_hold(first, third.id, before));
  set_shares(third, "none", 0);
  EXPECT_EQ(publish_shares(third).code, 0);
  EXPECT_EQ(cluster.master().text_of(share_file_of(third.id)), "");
  sleep(6);  // several hellos
  EXPECT_EQ(first.text_of(share_file_of(third.id)), before);
}

// What is read of a list at any moment is one of those that were published, to the last share.
TEST_F(Broken_Links, share_lists_are_never_there_by_halves_while_members_are_killed) {
  std::set<std::string> whole = {""};
  for (const char *name : {"one", "other"}) {
    set_shares(third, name, kShares);
    ASSERT_EQ(publish_shares(third).code, 0);
    whole.insert(published_by(third));
  }
  ASSERT_EQ(whole.size(), 3u);
  const Process publisher = third->start_on_member([this] {
    for (int i = 0;; ++i) {
      set_shares(third, i % 2 == 0 ? "one" : "other", kShares);
      char *reply = nullptr;
      Tarn_Cluster_Send_Share_List("0", &reply);
      free(reply);
    }
  });
  for (int kill = 0; kill < 9; ++kill) {
    Linked_Member &victim = kill % 3 == 2 ? cluster.master() : cluster.slave(static_cast<size_t>(kill % 3));
    for (int look = 0; look < 20; ++look) {
      usleep(static_cast<useconds_t>(1000 + 7000 * kill));
      for (const Linked_Member *member : {&first, &second, &cluster.master()})
        ASSERT_TRUE(whole.contains(member->text_of(share_file_of(third.id)))) << "on " << member->name();
    }
    victim->service().end(SIGKILL);
    ASSERT_TRUE(whole.contains(victim.text_of(share_file_of(third.id)))) << "on " << victim.name();
    victim.start();
  }
}

// ------------------------------------------------------------------------------------------------ the master restarts

class Master_Restart : public Broken_Links, public testing::WithParamInterface<int> {};

TEST_P(Master_Restart, in_the_middle_of_a_broadcast_leaves_nobody_with_another_list_for_good) {
  set_shares(third, "late", kShares);
  publish_as_far_as(first, third);
  Linked_Member &master = cluster.master();
  const int status = master->service().end(GetParam());
  EXPECT_TRUE(GetParam() == SIGKILL || (WIFEXITED(status) && WEXITSTATUS(status) == 0));
  lock.end(SIGKILL);
  master.start();
  EXPECT_THAT(end_of_publishing(third), AnyOf("-104 none", "-113 none"));
  EXPECT_TRUE(cluster.are_running({&first, &second, &third}));
  EXPECT_EQ(master.text_of(share_file_of(third.id)), published_by(third));
  for (const Linked_Member *slave : {&first, &second})
    EXPECT_TRUE(comes_to_hold(*slave, third.id, published_by(third))) << "on " << slave->name();
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", first.id, second.id, third.id}));
  expect_nobody_to_keep_scraps();
}

TEST_P(Master_Restart, in_the_middle_of_adding_a_member_ends_with_the_same_records_everywhere) {
  Linked_Member &fourth = cluster.raise_appliance();
  Linked_Member &master = cluster.master();
  for (const useconds_t delay : {0, 40000, 120000, 250000}) {
    const Process adding = master->start_on_member([&] {
      const Outcome outcome = cluster.add(&fourth);
      write_file("/run/added", std::to_string(outcome.code));
    });
    usleep(delay);
    master->service().end(GetParam());
    master.start();
    ASSERT_TRUE(cluster.are_running({&first, &second, &third}));
    // The appliance may be a member by now or not, but all must be of one mind.
    ASSERT_TRUE(comes_true([&] {
      const std::vector<std::string> ids = master.listed();
      fourth.id = ids.size() == 5 ? ids.back() : "";
      for (const Linked_Member *member : {&first, &second, &third}) {
        if (member->listed() != ids) return false;
      }
      const bool has_joined = fourth.text_of("/var/zopel/tarn_cluster_s.enable") == "" &&
                              !fourth.text_of("/mnt/tarncluster/config/tarn_cluster_s.conf").empty();
      return ids.size() == 5 ? fourth.listed() == ids : ids.size() == 4 && !has_joined;
    })) << "killed after "
        << delay << " us; " << testing::PrintToString(master.listed());
    if (!fourth.id.empty()) {
      ASSERT_EQ(cluster.remove(std::exchange(fourth.id, "")).code, 0);
    }
    ASSERT_TRUE(comes_true([&] { return fourth.text_of(kMembersFile).empty() && cluster_is_of(4); }));
  }
  EXPECT_TRUE(comes_true([&] { return cluster.add(&fourth).code == 0; }));
  EXPECT_TRUE(comes_to_be_listed_everywhere(cluster.ids()));
  expect_nobody_to_keep_scraps();
}

TEST_P(Master_Restart, in_the_middle_of_removing_a_member_can_be_made_good_by_removing_it_again) {
  Linked_Member &master = cluster.master();
  const std::string gone = std::exchange(third.id, "");
  const Process removing = master->start_on_member([&] { cluster.remove(gone); });
  usleep(30000);
  master->service().end(GetParam());
  master.start();
  EXPECT_TRUE(cluster.are_running({&first, &second}));
  EXPECT_THAT(cluster.remove(gone).code, AnyOf(0, -ENOANO));
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", first.id, second.id}));
  EXPECT_TRUE(comes_true([&] { return third.text_of(kMembersFile).empty(); }));
  expect_nobody_to_keep_scraps();
}

INSTANTIATE_TEST_SUITE_P(Signals, Master_Restart, testing::Values(SIGTERM, SIGKILL),
                         [](const auto &parameter) { return parameter.param == SIGTERM ? "orderly" : "killed"; });

// ------------------------------------------------------------------------------------------------ a link is cut

TEST_F(Broken_Links, slave_behind_a_cut_link_keeps_a_share_list_from_nobody_else) {
  set_shares(third, "late", kShares);
  publish_as_far_as(first, third);  // the master waits for it, and believes it to be up
  first.link().cut();
  EXPECT_TRUE(comes_to_hold(second, third.id, published_by(third)));
  EXPECT_EQ(end_of_publishing(third), R"(0 { "return": 0 })");
  lock.end(SIGKILL);
  EXPECT_TRUE(cluster.are_down({&first}));
  EXPECT_TRUE(cluster.are_running({&second, &third}));
  EXPECT_TRUE(comes_true([&] { return first.record("0", "Status") == "0" && first.record("0", "PID") == "0"; }));

  set_shares(second, "later", kShares);
  EXPECT_EQ(publish_shares(second).code, 0);
  EXPECT_TRUE(comes_to_hold(third, second.id, published_by(second)));

  first.link().mend();
  EXPECT_TRUE(cluster.are_running({&first, &second, &third}));
  EXPECT_TRUE(comes_true([&] { return first.record("0", "Status") == "1"; }));
  for (const Linked_Member *slave : {&second, &third})
    EXPECT_TRUE(comes_to_hold(first, slave->id, published_by(*slave))) << "of " << slave->name();
  expect_nobody_to_keep_scraps();
}

TEST_F(Broken_Links, members_that_came_and_went_behind_a_cut_link_are_known_after_its_return) {
  first.link().cut();
  Linked_Member &fourth = cluster.raise_appliance();
  EXPECT_EQ(cluster.add(&fourth).code, 0);
  const std::string gone = std::exchange(third.id, "");
  EXPECT_EQ(cluster.remove(gone).code, 0);
  EXPECT_EQ(cluster.master()->echo(0, fourth.id, "text").code, 0);
  first.link().mend();
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", first.id, second.id, fourth.id}));
  EXPECT_TRUE(cluster.are_running({&first, &second, &fourth}));
  expect_nobody_to_keep_scraps();
}

TEST_F(Broken_Links, slave_that_was_removed_behind_a_cut_link_finds_out_after_its_return) {
  first.link().cut();
  EXPECT_EQ(cluster.remove(std::exchange(first.id, "")).code, 0);
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", second.id, third.id}));
  first.link().mend();
  EXPECT_TRUE(
      comes_true([&] { return first.text_of(kMembersFile).empty() && first.text_of(kKeptMembersFile).empty(); }));
}

TEST_F(Broken_Links, master_behind_a_cut_link_is_missed_by_all_and_found_again) {
  cluster.master().link().cut();
  EXPECT_TRUE(cluster.are_down({&first, &second, &third}));
  for (const Linked_Member *slave : {&first, &second, &third})
    EXPECT_TRUE(comes_true([&] { return slave->record("0", "Status") == "0"; })) << "on " << slave->name();
  set_shares(third, "unheard", kShares);
  EXPECT_LT(publish_shares(third).code, 0);
  cluster.master().link().mend();
  EXPECT_TRUE(cluster.are_running({&first, &second, &third}));
  for (const Linked_Member *slave : {&first, &second, &third})
    EXPECT_TRUE(comes_true([&] { return slave->record("0", "Status") == "1"; })) << "on " << slave->name();
  EXPECT_EQ(publish_shares(third).code, 0);
  for (const Linked_Member *member : {&first, &second, &cluster.master()})
    EXPECT_TRUE(comes_to_hold(*member, third.id, published_by(third))) << "on " << member->name();
  EXPECT_TRUE(comes_to_be_listed_everywhere({"0", first.id, second.id, third.id}));
}

}  // namespace
}  // namespace tarn::test
