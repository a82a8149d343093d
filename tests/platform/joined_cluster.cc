#include "tests/platform/joined_cluster.h"

#include <fcntl.h>
#include <json-c/json.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "tarncluster_util.h"
#include "tests/support/own_network.h"

namespace tarn::test {

namespace {

constexpr char kBridge[] = "tarn-bridge";

// The bridge, and a place for the names of namespaces that no other root sees.
void make_network() {
  static bool is_made = false;
  if (is_made) return;
  mkdir("/run/netns", 0755);
  if (mount("tarn-test", "/run/netns", "tmpfs", 0, "mode=755") != 0)
    throw std::system_error(errno, std::generic_category(), "/run/netns");
  ip({std::string("link add ") + kBridge + " type bridge", std::string("link set ") + kBridge + " up"});
  is_made = true;
}

int open_namespace(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
  return fd;
}

}  // namespace

void make_administrator() {
  const std::string command =
      std::string("grep -q '^") + kAdministrator + ":' /etc/shadow || { hash=$(printf '%s\\n' '" + kPassword +
      "' | openssl passwd -6 -stdin) && echo \"" + kAdministrator + ":$hash:19000::::::\" >> /etc/shadow; }";
  if (system(command.c_str()) != 0) throw std::runtime_error("administrator");
}

std::string id_in(const std::string &reply) {
  json_object *object = json_tokener_parse(reply.c_str());
  json_object *id = nullptr;
  const std::string text =
      json_object_object_get_ex(object, "slave_id", &id) ? json_object_get_string(id) : std::string();
  json_object_put(object);
  return text;
}

std::vector<std::string> sections_in(const std::string &text) {
  std::vector<std::string> names;
  for (size_t at = text.find('['); at != std::string::npos; at = text.find('[', at + 1))
    names.push_back(text.substr(at + 1, text.find(']', at) - at - 1));
  return names;
}

Network_Link::Network_Link(const std::string &name, const std::string &address) : name_(name) {
  make_network();
  if (system(("ip netns add " + name).c_str()) != 0) throw std::runtime_error("network of " + name);
  ip({"link add tarn-" + name + " type veth peer name eth0 netns " + name,
      "link set tarn-" + name + " master " + kBridge + " up"});
  namespace_ = open_namespace("/run/netns/" + name);
  const Stay here(*this);
  ip({"link set lo up", "link set eth0 up", "address add " + address + "/16 dev eth0"});
}

Network_Link::~Network_Link() {
  close(namespace_);
  [[maybe_unused]] const int ignored = system(("ip link del tarn-" + name_ + "; ip netns del " + name_).c_str());
}

void Network_Link::cut() const {
  ip({"link set tarn-" + name_ + " down"});
}

void Network_Link::mend() const {
  ip({"link set tarn-" + name_ + " up"});
}

Network_Link::Stay::Stay(const Network_Link &link) : home_(open_namespace("/proc/self/ns/net")) {
  if (setns(link.namespace_, CLONE_NEWNET) != 0)
    throw std::system_error(errno, std::generic_category(), "network of " + link.name_);
}

Network_Link::Stay::~Stay() {
  if (setns(home_, CLONE_NEWNET) != 0) abort();
  close(home_);
}

Linked_Member::Linked_Member(const std::string &name, const std::string &address, const std::function<bool()> &setup)
    : name_(name), address_(address), link_(name, address) {
  const Network_Link::Stay there(link_);
  member_.emplace(name, setup);
}

void Linked_Member::start_bus() {
  const Network_Link::Stay there(link_);
  member_->start_bus();
}

void Linked_Member::start() {
  const Network_Link::Stay there(link_);
  member_->start();
}

std::string Linked_Member::text_of(const std::string &path) const {
  return member_->on_member([&] { return exists(path) ? read_file(path) : ""; });
}

std::string Linked_Member::record(const std::string &member, const std::string &key) const {
  return member_->on_member([&] {
    char text[100];
    int size = sizeof(text);
    const int status = Get_Conf_File_String_Value(kMembersFile, member.c_str(), key.c_str(), text, &size);
    return status == 0 ? std::string(text) : "none";
  });
}

std::vector<std::string> Linked_Member::listed() const {
  const std::vector<std::string> ids = sections_in(text_of(kMembersFile));
  return ids == sections_in(text_of(kKeptMembersFile)) ? ids : std::vector<std::string>();
}

Joined_Cluster::Joined_Cluster(int slaves) {
  make_administrator();
  const std::string address = next_address();
  master_ = std::make_unique<Linked_Member>("master", address, [&] {
    return run_cluster_script("found --address " + address + " --tools " TARN_BIN_DIR) == 0;
  });
  master_->id = "0";
  master_->start_bus();
  master_->start();
  if (!(*master_)->comes_to_be_connected()) throw std::runtime_error("the master's connection");
  for (int i = 0; i < slaves; ++i) {
    Linked_Member &appliance = raise_appliance();
    if (add(&appliance).code != 0) throw std::runtime_error(appliance.name() + " did not join");
  }
  if (!are_running(this->slaves())) throw std::runtime_error("the slaves did not come up");
}

// None is the beginning of another: a member would take it for its own.
std::string Joined_Cluster::next_address() {
  return "10.77.0." + std::to_string(100 + addresses_++);
}

Linked_Member &Joined_Cluster::raise_appliance() {
  const std::string name = "nas" + std::to_string(slaves_.size() + 1);
  slaves_.push_back(std::make_unique<Linked_Member>(name, next_address()));
  slaves_.back()->start();
  return *slaves_.back();
}

Outcome Joined_Cluster::add(Linked_Member *appliance) {
  const Outcome outcome = (*master_)->call([&](char **reply) {
    return Tarn_Cluster_Add_Slave(appliance->address().c_str(), (*appliance)->listener_port(), kAdministrator,
                                  kPassword, reply);
  });
  if (outcome.code == 0) appliance->id = id_in(outcome.reply);
  return outcome;
}

Outcome Joined_Cluster::remove(const std::string &id) {
  return (*master_)->call([&](char **reply) { return Tarn_Cluster_Remove_Slave(id.c_str(), reply); });
}

std::vector<Linked_Member *> Joined_Cluster::slaves() const {
  std::vector<Linked_Member *> members;
  for (const auto &slave : slaves_) members.push_back(slave.get());
  return members;
}

std::vector<std::string> Joined_Cluster::ids() const {
  std::vector<std::string> ids = {master_->id};
  for (const auto &slave : slaves_) {
    if (!slave->id.empty()) ids.push_back(slave->id);
  }
  return ids;
}

bool Joined_Cluster::are_running(const std::vector<Linked_Member *> &members) {
  const std::string pid = std::to_string((*master_)->service().pid());
  return comes_true([&] {
    return std::all_of(members.begin(), members.end(), [&](const Linked_Member *member) {
      return master_->record(member->id, "Status") == "1" && master_->record(member->id, "PID") == pid;
    });
  });
}

bool Joined_Cluster::are_down(const std::vector<Linked_Member *> &members) {
  return comes_true([&] {
    return std::all_of(members.begin(), members.end(), [&](const Linked_Member *member) {
      return master_->record(member->id, "Status") == "0" && master_->record(member->id, "PID") == "0";
    });
  });
}

void set_shares(const Linked_Member &slave, const std::string &name, int count) {
  slave->on_member([&] {
    std::string text = "[global]\nworkgroup = TEST\n";
    for (int i = 0; i < count; ++i) {
      const std::string share = name + std::to_string(i);
      text += "\n[" + share + "]\npath = /share/" + share +
              "\ntarn = yes\nread list = guest\nwrite list = admin, @staff\ninvalid users = nobody\n";
    }
    write_file("/etc/config/smb.conf", text);
    return "";
  });
}

Outcome publish_shares(const Linked_Member &slave) {
  return slave->call([](char **reply) { return Tarn_Cluster_Send_Share_List("0", reply); });
}

std::string share_file_of(const std::string &id) {
  return "/mnt/tarncluster/config/share_list/" + id;
}

}  // namespace tarn::test
