// scripts/cluster: certificates, the bus's configuration, and a member's files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/platform/member.h"

namespace tarn::test {
namespace {

using testing::HasSubstr;
using testing::Not;

std::string output_of(const std::string &command) {
  FILE *stream = popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  while (fgets(buffer, sizeof(buffer), stream) != nullptr) text += buffer;
  pclose(stream);
  return text;
}

class Provisioning : public testing::Test {
 protected:
  int run(const std::string &words) const { return run_cluster_script(words + " 2>/dev/null"); }

  const Cluster cluster{{"S1", "QN2a1b3c"}};
  const std::string store = cluster.store();
  Temporary_Folder root;
};

TEST_F(Provisioning, slave_gets_its_role_identity_and_bus_files) {
  ASSERT_EQ(run("provision " + store + " QN2a1b3c " + root.path()), 0);
  EXPECT_TRUE(exists(root / "var/zopel/tarn_cluster_s.enable"));
  EXPECT_FALSE(exists(root / "var/zopel/tarn_cluster_m.enable"));
  EXPECT_EQ(read_file(root / "mnt/tarncluster/config/tarn_cluster_s.conf"), "[global]\nMSKey = QN2a1b3c\n");
  EXPECT_EQ(read_file(root / "etc/config/tarn_cluster/bus/bus.conf"), "[bus]\nurl = tls://127.0.0.1:4222\n");
  EXPECT_FALSE(exists(root / "etc/config/tarn_cluster/bus/server.conf"));
  EXPECT_FALSE(exists(root / "etc/config/tarn_cluster/bus/server.key"));
}

TEST_F(Provisioning, master_gets_the_bus_server_with_every_member_in_it) {
  ASSERT_EQ(run("provision " + store + " 0 " + root.path()), 0);
  EXPECT_TRUE(exists(root / "var/zopel/tarn_cluster_m.enable"));
  EXPECT_FALSE(exists(root / "var/zopel/tarn_cluster_s.enable"));
  const std::string configuration = read_file(root / "etc/config/tarn_cluster/bus/server.conf");
  for (const char *id : {"\"0\"", "\"S1\"", "\"QN2a1b3c\""})
    EXPECT_THAT(configuration, HasSubstr(std::string("user: ") + id));
  EXPECT_THAT(configuration, HasSubstr("verify_and_map: true"));
}

TEST_F(Provisioning, secrets_are_readable_by_their_owner_only) {
  ASSERT_EQ(run("provision " + store + " 0 " + root.path()), 0);
  EXPECT_EQ(output_of("find " + store + " " + (root / "etc/config/tarn_cluster/bus") + " -name '*.key' -perm /077"),
            "");
  EXPECT_NE(output_of("find " + store + " -name '*.key'"), "");
  EXPECT_EQ(mode_of(store), 0700u);
  EXPECT_EQ(mode_of(root / "etc/config/tarn_cluster/bus"), 0700u);
  EXPECT_EQ(output_of("find " + root.path() + " -name 'ca.key'"), "") << "the authority's key stays in the store";
}

TEST_F(Provisioning, certificates_bear_the_members_name_and_hold_under_the_authority) {
  const std::string certificate = cluster.certificates_of("QN2a1b3c") + "/member.crt";
  EXPECT_THAT(output_of("openssl verify -CAfile " + store + "/ca.crt " + certificate), HasSubstr("OK"));
  const std::string text = output_of("openssl x509 -noout -text -in " + certificate);
  EXPECT_THAT(text, HasSubstr("DNS:QN2a1b3c\n"));
  EXPECT_THAT(text, HasSubstr("TLS Web Server Authentication, TLS Web Client Authentication"));
  EXPECT_THAT(text, HasSubstr("NIST CURVE: P-256"));
  EXPECT_THAT(text, HasSubstr("CA:FALSE"));
}

TEST_F(Provisioning, ids_that_are_none_are_refused) {
  for (const char *id : {"0", "123456789", "a.b", "'*'", "'>'", "a/b", "''", "'a b'", "$'a\\nb'"}) {
    EXPECT_NE(run("add " + store + " " + id), 0) << id;
  }
  EXPECT_NE(run("add " + store + " S1"), 0) << "a member already";
  EXPECT_NE(run("provision " + store + " S7 " + root.path()), 0) << "no member";
  EXPECT_NE(run("remove " + store + " S7"), 0);
}

TEST_F(Provisioning, members_come_and_go) {
  const std::string members = TARN_SOURCE_DIR "/scripts/cluster members " + store;
  EXPECT_EQ(output_of(members), "0\nQN2a1b3c\nS1\n");
  ASSERT_EQ(run("remove " + store + " S1"), 0);
  EXPECT_EQ(output_of(members), "0\nQN2a1b3c\n");
  ASSERT_EQ(run("provision " + store + " 0 " + root.path()), 0);
  EXPECT_THAT(read_file(root / "etc/config/tarn_cluster/bus/server.conf"), Not(HasSubstr("\"S1\"")));
  ASSERT_EQ(run("add " + store + " S1"), 0);
  EXPECT_EQ(output_of(members), "0\nQN2a1b3c\nS1\n");
}

TEST_F(Provisioning, permit_writes_the_bus_server_s_configuration_and_nothing_else) {
  ASSERT_EQ(run("provision " + store + " 0 " + root.path() + " --slave-id QN1local"), 0);
  ASSERT_EQ(run("remove " + store + " S1"), 0);
  const std::string before =
      output_of("cd " + root.path() + " && find . -type f ! -name server.conf -exec sha256sum {} + | sort");
  ASSERT_EQ(run("permit " + store + " " + root.path()), 0);
  EXPECT_EQ(output_of("cd " + root.path() + " && find . -type f ! -name server.conf -exec sha256sum {} + | sort"),
            before);
  EXPECT_THAT(read_file(root / "etc/config/tarn_cluster/bus/server.conf"), Not(HasSubstr("\"S1\"")));
}

TEST_F(Provisioning, identity_is_kept_twice) {
  ASSERT_EQ(run("provision " + store + " QN2a1b3c " + root.path()), 0);
  EXPECT_EQ(read_file(root / "etc/config/tarn_cluster/tarn_cluster_s.conf"), "[global]\nMSKey = QN2a1b3c\n");
}

TEST_F(Provisioning, existing_cluster_is_not_made_anew) {
  const std::string key = read_file(store + "/ca.key");
  EXPECT_NE(run("create " + store + " --address 127.0.0.1"), 0);
  EXPECT_EQ(read_file(store + "/ca.key"), key);
}

TEST_F(Provisioning, master_may_be_a_slave_as_well) {
  ASSERT_EQ(run("provision " + store + " 0 " + root.path() + " --slave-id M1"), 0);
  EXPECT_TRUE(exists(root / "var/zopel/tarn_cluster_m.enable"));
  EXPECT_TRUE(exists(root / "var/zopel/tarn_cluster_s.enable"));
  EXPECT_EQ(read_file(root / "mnt/tarncluster/config/tarn_cluster_s.conf"), "[global]\nMSKey = M1\n");
}

TEST_F(Provisioning, installs_log_tool) {
  ASSERT_EQ(run("provision " + store + " S1 " + root.path() + " --tools " TARN_BIN_DIR), 0);
  EXPECT_EQ(mode_of(root / "usr/sbin/log_tool"), 0755u);
}

TEST_F(Provisioning, address_may_be_of_version_six) {
  const std::string other = root / "store6";
  ASSERT_EQ(run("create " + other + " --address fd00::1 --port 5222"), 0);
  ASSERT_EQ(run("provision " + other + " 0 " + (root / "m")), 0);
  EXPECT_EQ(read_file(root / "m/etc/config/tarn_cluster/bus/bus.conf"), "[bus]\nurl = tls://[fd00::1]:5222\n");
  EXPECT_THAT(read_file(root / "m/etc/config/tarn_cluster/bus/server.conf"), HasSubstr("listen: \"[::]:5222\""));
}

}  // namespace
}  // namespace tarn::test
