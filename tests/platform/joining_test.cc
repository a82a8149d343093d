// How a cluster forms, grows and shrinks: appliances that a master adds and removes, and what each member then holds.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "tests/platform/joined_cluster.h"
#include "tests/platform/tls_client.h"

namespace tarn::test {
namespace {

using platform::Wire_Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

bool found_cluster(const std::string &more) {
  return run_cluster_script("found --address 127.0.0.1 --tools " TARN_BIN_DIR " " + more) == 0;
}

using Tree = std::map<std::string, std::string>;

// Every file below the folders where members differ, with what it holds.
Tree files_of(const Member &member) {
  Tree tree;
  for (const char *folder : {"/etc/config", "/mnt/tarncluster/config", "/var/zopel"}) {
    const std::string root = member.path(folder);
    if (!exists(root)) continue;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
      if (entry.is_regular_file()) tree[folder + entry.path().string().substr(root.size())] = read_file(entry.path());
    }
  }
  return tree;
}

std::vector<std::string> names_in(const Tree &tree) {
  std::vector<std::string> names;
  for (const auto &[name, text] : tree) names.push_back(name);
  return names;
}

std::string text_of(const Member &member, const std::string &path) {
  const std::string place = member.path(path);
  try {
    return exists(place) ? read_file(place) : "";
  } catch (const std::exception &) {
    return "";  // replaced or removed meanwhile
  }
}

class Joining : public testing::Test {
 protected:
  Joining() { make_administrator(); }

  void start_master() {
    master.start_bus();
    master.start();
    ASSERT_TRUE(master.comes_to_be_connected());
  }

  Outcome control(int op_code, const std::string &more, const std::string &argument) const {
    const std::string command = "{\"op_code\": " + std::to_string(op_code) + more + "}";
    return master.call([&](char **reply) { return Cluster_Master_Ctrl_Cmd(command.c_str(), argument.c_str(), reply); });
  }
  Outcome add_at(int port, const std::string &password = kPassword, const std::string &user = kAdministrator,
                 const std::string &address = "127.0.0.1") const {
    return control(2, "",
                   R"({"Address": ")" + address + R"(", "Port": )" + std::to_string(port) + R"(, "User": ")" + user +
                       R"(", "Password": ")" + password + "\"}");
  }
  Outcome remove(const std::string &id) const {
    return control(3, R"(, "slave_id": ")" + id + "\"", R"({"slave_id": ")" + id + "\"}");
  }

  // The id that the appliance has been given; empty when it was not added.
  std::string add(const Member &appliance) const {
    const Outcome outcome = add_at(appliance.listener_port());
    const std::string text = outcome.code == 0 ? id_in(outcome.reply) : "";
    EXPECT_EQ(outcome.reply, "{\"return\":0,\"slave_id\":\"" + text + "\"}");
    return text;
  }
  std::string record_on(const Member &member, const std::string &id, const std::string &key) const {
    return member.on_member([&] {
      char text[100];
      int size = sizeof(text);
      return Get_Conf_File_String_Value(kMembersFile, id.c_str(), key.c_str(), text, &size) == 0 ? std::string(text)
                                                                                                 : "none";
    });
  }
  std::string pid_of(const Member &member) const { return std::to_string(member.service().pid()); }
  bool comes_to_be_no_member(const Member &member) const {
    return comes_true([&] { return names_in(files_of(member)) == no_member; });
  }

  const std::vector<std::string> no_member = {"/etc/config/tarn_cluster/appliance.pem"};
  Member master{"master", [] { return found_cluster(""); }};
};

TEST_F(Joining, gives_the_appliance_all_that_makes_it_a_slave) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  EXPECT_EQ(id.size(), 8u);
  ASSERT_TRUE(slave.comes_to_be_connected());

  EXPECT_TRUE(exists(slave.path("/var/zopel/tarn_cluster_s.enable")));
  EXPECT_FALSE(exists(slave.path("/var/zopel/tarn_cluster_m.enable")));
  for (const char *folder : {"/mnt/tarncluster/config", "/etc/config/tarn_cluster"}) {
    EXPECT_EQ(text_of(slave, std::string(folder) + "/tarn_cluster_s.conf"), "[global]\nMSKey = " + id + "\n");
    EXPECT_EQ(text_of(slave, std::string(folder) + "/tarn_service_m.conf"), "[" + id + "]\nAddress = 127.0.0.1\n");
    EXPECT_THAT(sections_in(text_of(slave, std::string(folder) + "/tarn_service_s.conf")), ElementsAre("0", id));
    EXPECT_THAT(sections_in(text_of(master, std::string(folder) + "/tarn_service_s.conf")), ElementsAre("0", id));
    EXPECT_EQ(text_of(master, std::string(folder) + "/tarn_service_m.conf"), "[0]\nAddress = 127.0.0.1\n");
    EXPECT_EQ(text_of(master, std::string(folder) + "/tarn_cluster_s.conf"), "[global]\nMSKey = 0\n");
  }
  EXPECT_EQ(mode_of(slave.path("/etc/config/tarn_cluster/bus")), 0700u);
  for (const char *file : {"bus.conf", "ca.crt", "member.crt", "member.key"})
    EXPECT_EQ(mode_of(slave.path(std::string("/etc/config/tarn_cluster/bus/") + file)), 0600u) << file;
  EXPECT_EQ(record_on(master, id, "Address"), "127.0.0.1");
  EXPECT_FALSE(exists(slave.path("/etc/config/tarn_cluster/unfinished")));
  EXPECT_FALSE(exists(master.path("/etc/config/tarn_cluster/authority/unsettled")));

  EXPECT_EQ(master.echo(0, id, "text").code, 0);
  EXPECT_EQ(slave.echo(1, "0", "text").code, 0);
}

TEST_F(Joining, authority_s_key_stays_on_the_master) {
  start_master();
  EXPECT_EQ(mode_of(master.path("/etc/config/tarn_cluster/authority")), 0700u);
  const std::string key = read_file(master.path("/etc/config/tarn_cluster/authority/ca.key"));
  Member slave("first");
  slave.start();
  ASSERT_NE(add(slave), "");
  for (const auto &[name, text] : files_of(slave)) EXPECT_THAT(text, Not(HasSubstr(key))) << name;
}

TEST_F(Joining, slave_comes_back_after_a_restart) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  slave.service().end(SIGKILL);
  slave.start();
  ASSERT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(master.echo(0, id, "text").code, 0);
}

TEST_F(Joining, every_member_learns_of_a_new_one_in_the_order_of_joining) {
  start_master();
  Member first("first");
  Member second("second");
  Member third("third");
  for (Member *member : {&first, &second, &third}) member->start();
  std::vector<std::string> ids = {"0"};
  for (Member *member : {&first, &second, &third}) ids.push_back(add(*member));
  for (const Member *member : {&master, &first, &second, &third}) {
    for (const char *file : {kMembersFile, kKeptMembersFile})
      EXPECT_TRUE(comes_true([&] { return sections_in(text_of(*member, file)) == ids; })) << text_of(*member, file);
  }
}

TEST_F(Joining, slave_that_was_away_learns_the_others_when_it_returns) {
  start_master();
  Member first("first");
  Member second("second");
  first.start();
  second.start();
  const std::string first_id = add(first);
  ASSERT_TRUE(first.comes_to_be_connected());
  first.service().end(SIGTERM);
  const std::string second_id = add(second);
  first.start();
  EXPECT_TRUE(comes_true([&] {
    return sections_in(text_of(first, kMembersFile)) == std::vector<std::string>{"0", first_id, second_id};
  })) << text_of(first, kMembersFile);
}

TEST_F(Joining, fields_of_records_that_are_there_stay) {
  start_master();
  Member first("first");
  Member second("second");
  first.start();
  second.start();
  const std::string first_id = add(first);
  ASSERT_TRUE(first.comes_to_be_connected());
  first.on_member([&] {
    Set_Conf_File_String_Value(kMembersFile, first_id.c_str(), "Model", "NAS 9");
    return "";
  });
  const std::string second_id = add(second);
  ASSERT_TRUE(comes_true([&] { return sections_in(text_of(first, kMembersFile)).size() == 3; }));
  EXPECT_EQ(record_on(first, first_id, "Model"), "NAS 9");
}

// ------------------------------------------------------------------------------------------------ refusals

// What no attempt may leave behind on either side.
class Refusal : public Joining {
 protected:
  void SetUp() override {
    start_master();
    appliance.start();
    master_before = unchanging(files_of(master));
    appliance_before = files_of(appliance);
  }
  void expect_nothing_written() {
    EXPECT_EQ(unchanging(files_of(master)), master_before);
    EXPECT_EQ(files_of(appliance), appliance_before);
    EXPECT_TRUE(exists("/proc/" + pid_of(appliance)));
  }
  static Tree unchanging(Tree tree) {
    tree.erase(kMembersFile);  // holds who is up
    return tree;
  }

  Member appliance{"appliance"};
  Tree master_before;
  Tree appliance_before;
};

TEST_F(Refusal, wrong_password) {
  EXPECT_EQ(add_at(appliance.listener_port(), "wrong").code, -EBADSLT);
  expect_nothing_written();
}

TEST_F(Refusal, no_password) {
  const Outcome outcome = control(
      2, "",
      R"({"Address": "127.0.0.1", "Port": )" + std::to_string(appliance.listener_port()) + R"(, "User": "joiner"})");
  EXPECT_EQ(outcome.code, -EBADSLT);
  expect_nothing_written();
}

TEST_F(Refusal, unknown_user) {
  EXPECT_EQ(add_at(appliance.listener_port(), kPassword, "nobody_here").code, -ENOANO);
  expect_nothing_written();
}

TEST_F(Refusal, address_that_nobody_answers_at) {
  EXPECT_EQ(add_at(61999).code, -EHOSTUNREACH);
  EXPECT_EQ(add_at(61999, kPassword, kAdministrator, "no-such-host.invalid").code, -EHOSTUNREACH);
  expect_nothing_written();
}

TEST_F(Refusal, malformed_arguments) {
  EXPECT_EQ(control(2, "", "{}").code, -EINVAL);
  EXPECT_EQ(control(2, "", R"({"Address": 5, "Port": 62695, "User": "joiner"})").code, -EINVAL);
  EXPECT_EQ(control(2, "", R"({"Address": "a b", "Port": 62695, "User": "joiner"})").code, -EINVAL);
  EXPECT_EQ(control(2, "", R"({"Address": "127.0.0.1", "Port": 70000, "User": "joiner"})").code, -EINVAL);
  EXPECT_EQ(control(2, "", "[]").code, -EINVAL);
  EXPECT_EQ(control(3, "", "{}").code, -EINVAL);
  EXPECT_EQ(control(3, R"(, "slave_id": "../x")", R"({"slave_id": "../x"})").code, -EINVAL);
  EXPECT_EQ(control(3, R"(, "slave_id": "ABCD1234")", R"({"slave_id": "ABCD1235"})").code, -EINVAL);
  EXPECT_EQ(control(9, "", "{}").code, -ENOSYS);
  expect_nothing_written();
}

TEST_F(Refusal, member_already) {
  ASSERT_NE(add(appliance), "");
  ASSERT_TRUE(appliance.comes_to_be_connected());
  const Tree slave_before = files_of(appliance);
  const Tree before = unchanging(files_of(master));
  EXPECT_EQ(add_at(appliance.listener_port()).code, -EEXIST);
  EXPECT_EQ(add_at(appliance.listener_port(), "wrong").code, -EEXIST) << "a member tells nothing about passwords";
  EXPECT_EQ(add_at(master.listener_port()).code, -EEXIST);
  EXPECT_EQ(unchanging(files_of(master)), before);
  EXPECT_EQ(unchanging(files_of(appliance)), unchanging(slave_before));
}

TEST_F(Refusal, by_somebody_who_is_no_appliance) {
  const Process impostor = serve_one_session(61998, [](Tls_Client &client) {
    client.receive();
    client.send("HTTP/1.1 400 Bad Request\r\n\r\n and so on, and so on");
  });
  EXPECT_LT(add_at(61998).code, 0);
  expect_nothing_written();
}

TEST_F(Refusal, appliance_that_is_gone_before_it_said_yes_leaves_nothing_on_the_master) {
  Process appliance_that_dies = serve_one_session(61997, [](Tls_Client &client) {
    client.receive();
    client.send(message_bytes(Wire_Kind::reply, R"({"host_name": "gone"})"));
    client.receive();
    _exit(9);
  });
  EXPECT_LT(add_at(61997).code, 0);
  EXPECT_EQ(appliance_that_dies.wait(), 9 << 8);
  expect_nothing_written();
  EXPECT_THAT(sections_in(text_of(master, kMembersFile)), ElementsAre("0"));
}

TEST_F(Refusal, program_on_a_slave) {
  ASSERT_NE(add(appliance), "");
  const Outcome outcome =
      appliance.call([](char **reply) { return Cluster_Master_Ctrl_Cmd(R"({"op_code": 2})", "{}", reply); });
  EXPECT_TRUE(outcome.code == -EPERM || outcome.code == -ECONNREFUSED) << outcome.code;
  ASSERT_TRUE(appliance.comes_to_be_connected());
  EXPECT_EQ(appliance.call([](char **reply) { return Cluster_Master_Ctrl_Cmd(R"({"op_code": 2})", "{}", reply); }).code,
            -EPERM);
}

TEST_F(Refusal, password_is_nowhere_to_be_read) {
  EXPECT_EQ(add_at(appliance.listener_port(), "a wrong password 1").code, -EBADSLT);
  ASSERT_NE(add(appliance), "");
  for (const Member *member : {&master, &appliance}) {
    EXPECT_THAT(member->log(), Not(HasSubstr(kPassword)));
    EXPECT_THAT(member->log(), Not(HasSubstr("a wrong password 1")));
    for (const auto &[name, text] : files_of(*member)) EXPECT_THAT(text, Not(HasSubstr(kPassword))) << name;
  }
}

TEST_F(Refusal, repeated_wrong_passwords_are_slowed_down) {
  for (int i = 0; i < 3; ++i) EXPECT_EQ(add_at(appliance.listener_port(), "wrong").code, -EBADSLT);
  EXPECT_EQ(add_at(appliance.listener_port()).code, -EBUSY) << "even the right one is not looked at for a while";
  expect_nothing_written();
  EXPECT_TRUE(comes_true([&] { return add_at(appliance.listener_port()).code == 0; }));
}

// ------------------------------------------------------------------------------------------------ what does not fit

// Plays the master towards a real appliance, with an authority of the test's own.
class False_Master : public Joining {
 protected:
  False_Master() {
    appliance.start();
    before = files_of(appliance);
    EXPECT_EQ(run_cluster_script("create " + store + " --address 127.0.0.1"), 0);
    for (const char *id : {"AAAA1111", "BBBB2222"}) EXPECT_EQ(run_cluster_script("add " + store + " " + id), 0);
  }

  std::string file(const std::string &name) const { return read_file(store + "/" + name); }

  struct Invitation {
    std::string id = "AAAA1111", certificate, key, authority, bus = "tls://127.0.0.1:4222";
    std::string list = R"({"members":[{"id":"0","address":"127.0.0.1","host_name":"","number":0},)"
                       R"({"id":"AAAA1111","address":"127.0.0.1","host_name":"","number":1}]})";
  };
  Invitation good() const {
    Invitation invitation;
    invitation.certificate = file("members/AAAA1111/member.crt");
    invitation.key = file("members/AAAA1111/member.key");
    invitation.authority = file("ca.crt");
    return invitation;
  }
  int join(const Invitation &invitation) const {
    json_object *object = json_object_new_object();
    json_object_object_add(object, "slave_id", json_object_new_string(invitation.id.c_str()));
    json_object_object_add(object, "certificate", json_object_new_string(invitation.certificate.c_str()));
    json_object_object_add(object, "key", json_object_new_string(invitation.key.c_str()));
    json_object_object_add(object, "authority", json_object_new_string(invitation.authority.c_str()));
    json_object_object_add(object, "bus", json_object_new_string(invitation.bus.c_str()));
    json_object_object_add(object, "listener", json_object_new_int(62695));
    json_object_object_add(object, "list", json_tokener_parse(invitation.list.c_str()));
    const std::string text = json_object_to_json_string(object);
    json_object_put(object);
    Tls_Client client(appliance.listener_port());
    const Tls_Answer login =
        client.ask(Wire_Kind::login, std::string(R"({"User": "joiner", "Password": ")") + kPassword + "\"}");
    return login.code != 0 ? login.code : client.ask(Wire_Kind::join, text).code;
  }
  void expect_refused(const Invitation &invitation, int code) {
    EXPECT_EQ(join(invitation), code);
    EXPECT_EQ(files_of(appliance), before);
  }

  Temporary_Folder folder;
  const std::string store = folder / "store";
  Member appliance{"appliance"};
  Tree before;
};

TEST_F(False_Master, certificate_of_another_member_is_refused) {
  Invitation invitation = good();
  invitation.certificate = file("members/BBBB2222/member.crt");
  invitation.key = file("members/BBBB2222/member.key");
  expect_refused(invitation, -EKEYREJECTED);
}

TEST_F(False_Master, key_of_another_certificate_is_refused) {
  Invitation invitation = good();
  invitation.key = file("members/BBBB2222/member.key");
  expect_refused(invitation, -EKEYREJECTED);
}

TEST_F(False_Master, certificate_of_another_authority_is_refused) {
  const std::string other = folder / "other";
  ASSERT_EQ(run_cluster_script("create " + other + " --address 127.0.0.1"), 0);
  Invitation invitation = good();
  invitation.authority = read_file(other + "/ca.crt");
  expect_refused(invitation, -EKEYREJECTED);
}

TEST_F(False_Master, certificate_that_has_expired_is_refused) {
  const std::string command =
      "cd " + store +
      " && openssl req -new -key members/AAAA1111/member.key -subj /CN=x 2>/dev/null > x.csr && "
      "echo subjectAltName=DNS:AAAA1111 > x.ext && openssl x509 -req -in x.csr -CA ca.crt -CAkey ca.key -set_serial 7 "
      "-days -1 "
      "-extfile x.ext > expired.crt 2>/dev/null";
  ASSERT_EQ(system(command.c_str()), 0);
  Invitation invitation = good();
  invitation.certificate = file("expired.crt");
  expect_refused(invitation, -EKEYREJECTED);
}

TEST_F(False_Master, malformed_invitations_are_refused) {
  for (const char *id : {"", "0", "123456789", "../x", "A.B"}) {
    Invitation invitation = good();
    invitation.id = id;
    expect_refused(invitation, -EINVAL);
  }
  for (const char *bus :
       {"", "nats://127.0.0.1:4222", "tls://127.0.0.1", "tls://a b:1", "tls://a:1\nx = 1", "tls://a:99999"}) {
    Invitation invitation = good();
    invitation.bus = bus;
    expect_refused(invitation, -EINVAL);
  }
  for (
      const char *list :
      {"{}", R"({"members":[]})", R"({"members":[{"id":"0","address":"127.0.0.1","number":0}]})",
       R"({"members":[{"id":"0","address":"1.1.1.1\n[x]","number":0},{"id":"AAAA1111","address":"1.1.1.1","number":1}]})",
       R"({"members":[{"id":"../0","address":"1.1.1.1","number":0},{"id":"AAAA1111","address":"1.1.1.1","number":1}]})",
       R"({"members":[{"id":"0","address":"1.1.1.1","number":0},{"id":"AAAA1111","address":"1.1.1.1","number":1},{"id":"AAAA1111","address":"1.1.1.1","number":1}]})"}) {
    Invitation invitation = good();
    invitation.list = list;
    expect_refused(invitation, -EINVAL);
  }
}

TEST_F(False_Master, invitation_without_a_login_is_refused) {
  Tls_Client client(appliance.listener_port());
  EXPECT_EQ(client.ask(Wire_Kind::join, "{}").code, -ENOSYS);
  EXPECT_EQ(files_of(appliance), before);
}

TEST_F(False_Master, files_that_cannot_be_written_leave_the_appliance_as_it_was) {
  appliance.on_member([] {
    return std::to_string(
        system("mkdir -p /var/zopel/tarn_cluster_s.enable.new/x"));  // what is in the way of the last file
  });
  EXPECT_LT(join(good()), 0);
  EXPECT_EQ(names_in(files_of(appliance)), no_member);
}

TEST_F(False_Master, join_that_was_cut_off_by_a_kill_is_undone_at_the_next_start) {
  EXPECT_EQ(join(good()), 0);
  ASSERT_TRUE(comes_true([&] { return exists(appliance.path("/run/tarncluster/command.sock")); }));
  appliance.service().end(SIGKILL);
  appliance.on_member([] {
    write_file("/etc/config/tarn_cluster/unfinished", "");
    return "";
  });
  appliance.start();
  EXPECT_EQ(names_in(files_of(appliance)), no_member);
  EXPECT_EQ(join(good()), 0) << "it can be joined again";
}

// ------------------------------------------------------------------------------------------------ removing

TEST_F(Joining, removal_undoes_all_on_both_sides) {
  start_master();
  const Tree before = files_of(master);
  Member slave("first");
  Member other("other");
  slave.start();
  other.start();
  const std::string other_id = add(other);
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  ASSERT_TRUE(other.comes_to_be_connected());
  for (const Member *member : {&master, &slave, &other}) {
    member->on_member([&] {
      std::filesystem::create_directories("/mnt/tarncluster/config/share_list");
      write_file("/mnt/tarncluster/config/share_list/" + id, "[x]\npath = /x\n");
      return "";
    });
  }
  const Outcome outcome = remove(id);
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, "{\"return\":0,\"slave_id\":\"" + id + "\"}");
  EXPECT_TRUE(comes_to_be_no_member(slave)) << testing::PrintToString(names_in(files_of(slave)));
  EXPECT_TRUE(comes_true([&] { return slave.log().find("waiting at port") != std::string::npos; })) << slave.log();

  for (const Member *member : {&master, &other}) {
    for (const char *file : {kMembersFile, kKeptMembersFile})
      EXPECT_TRUE(comes_true([&] {
        return sections_in(text_of(*member, file)) == std::vector<std::string>{"0", other_id};
      }));
    EXPECT_FALSE(exists(member->path("/mnt/tarncluster/config/share_list/" + id)));
  }
  EXPECT_FALSE(exists(master.path("/etc/config/tarn_cluster/authority/members/" + id)));
  EXPECT_THAT(text_of(master, "/etc/config/tarn_cluster/bus/server.conf"), Not(HasSubstr(id)));
  EXPECT_EQ(master.echo(0, id, "text").code, -EHOSTUNREACH);
  EXPECT_EQ(master.echo(0, other_id, "text").code, 0);

  const std::string next = add(slave);
  EXPECT_NE(next, id);
  ASSERT_TRUE(comes_true([&] { return slave.is_connected(); }));
  EXPECT_EQ(master.echo(0, next, "text").code, 0);
}

TEST_F(Joining, slave_that_was_down_when_it_was_removed_finds_out_when_it_returns) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  slave.service().end(SIGKILL);
  EXPECT_EQ(remove(id).code, 0);
  EXPECT_THAT(sections_in(text_of(master, kMembersFile)), ElementsAre("0"));
  slave.start();
  EXPECT_TRUE(comes_to_be_no_member(slave)) << testing::PrintToString(names_in(files_of(slave)));
  EXPECT_TRUE(comes_true([&] { return add_at(slave.listener_port()).code == 0; }));
}

TEST_F(Joining, removal_of_nobody_is_refused) {
  start_master();
  EXPECT_EQ(remove("ABCD1234").code, -ENOANO);
  EXPECT_EQ(remove("0").code, -EPERM);
}

TEST_F(Joining, nobody_but_the_master_can_tell_a_slave_that_it_is_no_member) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  master.service().end(SIGTERM);
  master.bus().end(SIGTERM);
  // Somebody else answers at the master's port, and says "no such member".
  Temporary_Folder folder;
  const std::string called = folder / "called";
  const Process impostor = serve_one_session(master.listener_port(), [&](Tls_Client &client) {
    write_file(called, "");
    client.receive();
    client.send(message_bytes(Wire_Kind::reply, "", "", -ENOANO));
  });
  EXPECT_TRUE(comes_true([&] { return exists(called); }));
  master.start_bus();
  master.start();
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(master.echo(0, id, "text").code, 0);
}

TEST_F(Joining, question_without_the_member_s_key_is_not_answered) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  const std::string certificate =
      read_file(master.path("/etc/config/tarn_cluster/authority/members/" + id + "/member.crt"));
  Tls_Client client(master.listener_port());
  EXPECT_EQ(client.ask_bytes(message_bytes(Wire_Kind::ask_membership, certificate, "no signature")).code,
            -EKEYREJECTED);
}

TEST_F(Joining, master_that_was_killed_while_it_added_a_slave_keeps_nothing_of_it) {
  start_master();
  master.on_member([] {
    write_file("/etc/config/tarn_cluster/authority/unsettled", "HALF1234");
    run_cluster_script("add /etc/config/tarn_cluster/authority HALF1234");
    return "";
  });
  master.service().end(SIGKILL);
  master.start();
  EXPECT_FALSE(exists(master.path("/etc/config/tarn_cluster/authority/members/HALF1234")));
  EXPECT_FALSE(exists(master.path("/etc/config/tarn_cluster/authority/unsettled")));
}

// ------------------------------------------------------------------------------------------------ presence, addresses

TEST_F(Joining, presence_of_a_slave_is_marked_on_the_master) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  EXPECT_EQ(record_on(master, id, "Status"), "1") << "by the time that it has been added";
  EXPECT_EQ(record_on(master, id, "PID"), pid_of(master));
  EXPECT_EQ(record_on(master, "0", "Status"), "1");
  slave.service().end(SIGKILL);
  EXPECT_TRUE(
      comes_true([&] { return record_on(master, id, "Status") == "0" && record_on(master, id, "PID") == "0"; }));
  slave.start();
  EXPECT_TRUE(comes_true(
      [&] { return record_on(master, id, "Status") == "1" && record_on(master, id, "PID") == pid_of(master); }));
}

TEST_F(Joining, presence_of_the_master_is_marked_on_the_slave) {
  start_master();
  Member slave("first");
  slave.start();
  ASSERT_NE(add(slave), "");
  EXPECT_TRUE(comes_true(
      [&] { return record_on(slave, "0", "Status") == "1" && record_on(slave, "0", "PID") == pid_of(slave); }));
  master.service().end(SIGKILL);
  EXPECT_TRUE(
      comes_true([&] { return record_on(slave, "0", "Status") == "0" && record_on(slave, "0", "PID") == "0"; }));
  master.start();
  EXPECT_TRUE(comes_true([&] { return record_on(slave, "0", "Status") == "1"; }));
  master.bus().end(SIGKILL);
  EXPECT_TRUE(comes_true([&] { return record_on(slave, "0", "Status") == "0"; }));
}

TEST_F(Joining, presence_is_not_written_when_nothing_changes) {
  start_master();
  Member slave("first");
  slave.start();
  ASSERT_NE(add(slave), "");
  ASSERT_TRUE(comes_true([&] { return record_on(slave, "0", "Status") == "1"; }));
  const ino_t on_master = inode_of(master.path(kMembersFile));
  const ino_t on_slave = inode_of(slave.path(kMembersFile));
  sleep(5);  // several hellos
  EXPECT_EQ(inode_of(master.path(kMembersFile)), on_master);
  EXPECT_EQ(inode_of(slave.path(kMembersFile)), on_slave);
}

TEST_F(Joining, nobody_is_up_after_the_master_s_service_has_ended) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  master.service().end(SIGTERM);
  EXPECT_EQ(record_on(master, id, "Status"), "0");
  EXPECT_EQ(record_on(master, id, "PID"), "0");
}

class Network_Info : public Joining {
 protected:
  void SetUp() override {
    start_master();
    slave.start();
    id = add(slave);
    ASSERT_TRUE(slave.comes_to_be_connected());
    set_on(master, "10.9.9.9");
  }
  void set_on(const Member &member, const std::string &address) const {
    member.on_member([&] {
      for (const char *file : {kMembersFile, kKeptMembersFile})
        Set_Conf_File_String_Value(file, id.c_str(), "Address", address.c_str());
      return "";
    });
  }
  Outcome update() const { return slave.slave_command(R"({"op_code": 4, "master_id": "0"})", R"({"master_id": "0"})"); }

  Member slave{"first"};
  std::string id;
};

TEST_F(Network_Info, refreshes_the_slave_s_address_on_the_master) {
  const Outcome outcome = update();
  EXPECT_EQ(outcome.code, 0);
  EXPECT_EQ(outcome.reply, "{\"return\":0}");
  EXPECT_EQ(record_on(master, id, "Address"), "127.0.0.1");
  EXPECT_THAT(text_of(master, kKeptMembersFile), Not(HasSubstr("10.9.9.9")));
}

TEST_F(Network_Info, states_the_address_that_was_chosen_for_the_slave) {
  set_on(slave, "127.0.0.77");
  EXPECT_EQ(update().code, 0);
  EXPECT_EQ(record_on(master, id, "Address"), "127.0.0.77");
}

TEST_F(Network_Info, states_the_route_s_address_when_the_chosen_one_is_gone) {
  set_on(slave, "10.8.8.8");
  EXPECT_EQ(update().code, 0);
  EXPECT_EQ(record_on(master, id, "Address"), "127.0.0.1");
}

TEST_F(Network_Info, of_a_master_is_refused) {
  EXPECT_NE(master.master_command(R"({"op_code": 4, "slave_id": ")" + id + "\"}", "{}").code, 0);
}

// Whether somebody is connected to the bus at this address.
bool is_bus_used_at(const std::string &address) {
  char place[32];
  snprintf(place, sizeof(place), " %08X:%04X 01 ", inet_addr(address.c_str()), 4222);
  return read_file("/proc/net/tcp").find(place) != std::string::npos;
}

TEST_F(Joining, slave_follows_the_master_to_its_new_address) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  slave.on_member([&] {
    for (const char *folder : {"/etc/config/tarn_cluster", "/mnt/tarncluster/config"})
      Set_Conf_File_String_Value((std::string(folder) + "/tarn_service_m.conf").c_str(), id.c_str(), "Address",
                                 "127.0.0.55");
    return std::to_string(system("cp " TARN_BIN_DIR "/druvosrv_c.sh /run/ && /run/druvosrv_c.sh restart"));
  });
  // A command that meets the change is lost, and costs its time-out.
  ASSERT_TRUE(comes_true([] { return is_bus_used_at("127.0.0.55"); }));
  ASSERT_TRUE(
      comes_true([&] { return slave.log().rfind("tarnclusterd: connected") > slave.log().rfind("not connected"); }));
  EXPECT_TRUE(comes_true([&] { return master.echo(0, id, "text").code == 0; }));
  EXPECT_EQ(slave.echo(1, "0", "text").code, 0);
}

TEST_F(Joining, slave_that_lost_the_bus_looks_for_it_at_the_master_s_new_address) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  slave.on_member([&] {
    Set_Conf_File_String_Value("/etc/config/tarn_cluster/tarn_service_m.conf", id.c_str(), "Address", "127.0.0.55");
    return "";
  });
  master.bus().end(SIGKILL);
  ASSERT_TRUE(comes_true([&] { return !slave.is_connected(); }));
  master.start_bus();
  EXPECT_TRUE(comes_true([] { return is_bus_used_at("127.0.0.55"); }));
  EXPECT_TRUE(comes_true([&] { return master.echo(0, id, "text").code == 0; }));
}

TEST_F(Joining, reload_script_is_harmless_without_a_service) {
  for (const char *word : {"reload", "restart"}) {
    EXPECT_EQ(master.on_member(
                  [&] { return std::to_string(system((std::string(TARN_BIN_DIR "/druvosrv_c.sh ") + word).c_str())); }),
              "0");
  }
  const std::string foreign = master.on_member([] {
    std::filesystem::create_directories("/run/tarncluster");
    write_file("/run/tarncluster/tarnclusterd.pid", std::to_string(getpid()) + "\n");
    return std::to_string(system(TARN_BIN_DIR "/druvosrv_c.sh reload"));
  });
  EXPECT_EQ(foreign, "0") << "a process that is no service was sent a signal";
}

// ------------------------------------------------------------------------------------------------ who speaks for whom

TEST_F(Joining, slave_cannot_publish_in_another_s_name) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  for (const char *handler : {"Tarn_Cluster_Send_Share_List_Cb", "Tarn_Cluster_Send_Slave_Info_Cb"}) {
    const auto code_for = [&](const std::string &argument) {
      return slave.slave_command(handler_of_master(handler), argument).code;
    };
    EXPECT_EQ(code_for(R"({"slave_id": "ABCD1234", "share_list": []})"), -EPERM);
    EXPECT_EQ(code_for(R"({"slave_id": "0", "share_list": []})"), -EPERM);
    EXPECT_EQ(code_for(R"({"slave_id": 12345678, "share_list": []})"), -EPERM);
    EXPECT_EQ(code_for("{\"slave_id\": \"ABCD1234\\u0000\", \"share_list\": []}"), -EPERM);
    EXPECT_EQ(code_for(R"({"slave_id": ")" + id + R"(", "slave_id": "ABCD1234", "share_list": []})"), -EPERM);
    EXPECT_EQ(code_for(R"({"slave_id": "ABCD1234", "filler": ")" + std::string(100000, 'x') + "\"}"), -EPERM);
    EXPECT_NE(code_for(R"({"slave_id": ")" + id + R"(", "share_list": []})"), -EPERM);
  }
}

TEST_F(Joining, master_that_is_a_slave_as_well_leads_the_list_by_its_own_id) {
  Member both("both", [] { return found_cluster("--slave-id QN1local"); });
  both.start_bus();
  both.start();
  ASSERT_TRUE(both.comes_to_be_connected());
  EXPECT_THAT(sections_in(text_of(both, kMembersFile)), ElementsAre("QN1local"));
  const Outcome outcome = both.slave_command(R"({"op_code": 4, "master_id": "0"})", R"({"master_id": "0"})");
  EXPECT_EQ(outcome.code, 0);
}

TEST_F(Joining, lost_working_copies_are_taken_from_the_kept_ones) {
  start_master();
  Member slave("first");
  slave.start();
  const std::string id = add(slave);
  ASSERT_TRUE(slave.comes_to_be_connected());
  slave.service().end(SIGTERM);
  slave.on_member([] { return std::to_string(system("rm -rf /mnt/tarncluster/config/*")); });
  slave.start();
  EXPECT_TRUE(slave.comes_to_be_connected());
  EXPECT_EQ(text_of(slave, "/mnt/tarncluster/config/tarn_cluster_s.conf"), "[global]\nMSKey = " + id + "\n");
  EXPECT_THAT(sections_in(text_of(slave, kMembersFile)), ElementsAre("0", id));
}

}  // namespace
}  // namespace tarn::test
