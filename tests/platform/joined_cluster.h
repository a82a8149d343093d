// A cluster that formed over a network: each member is an appliance in a network namespace of its own, whose link to
// the others can be cut, and joined with an administrator's password.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/platform/member.h"

namespace tarn::test {

inline constexpr char kMembersFile[] = "/mnt/tarncluster/config/tarn_service_s.conf";
inline constexpr char kKeptMembersFile[] = "/etc/config/tarn_cluster/tarn_service_s.conf";

// A user of every appliance: all members share the shadow database of this root.
inline constexpr char kAdministrator[] = "joiner";
inline constexpr char kPassword[] = "open sesame 4711";
void make_administrator();

// The id in the reply to a joining; empty when there is none.
std::string id_in(const std::string &reply);

std::vector<std::string> sections_in(const std::string &text);  // their names, in order

// A network namespace with one interface, which is linked to a bridge in the network of the test.
class Network_Link {
 public:
  Network_Link(const std::string &name, const std::string &address);
  ~Network_Link();
  Network_Link(const Network_Link &) = delete;
  Network_Link &operator=(const Network_Link &) = delete;

  void cut() const;   // as if the cable were pulled
  void mend() const;  // ... and put back

  // Moves the thread, and what it starts, into the namespace while this lives.
  class Stay {
   public:
    explicit Stay(const Network_Link &link);
    ~Stay();
    Stay(const Stay &) = delete;
    Stay &operator=(const Stay &) = delete;

   private:
    int home_;
  };

 private:
  const std::string name_;
  int namespace_ = -1;
};

class Linked_Member {
 public:
  Linked_Member(
      const std::string &name, const std::string &address, const std::function<bool()> &setup = [] { return true; });
  Member *operator->() { return &*member_; }
  const Member *operator->() const { return &*member_; }
  const Network_Link &link() const { return link_; }
  const std::string &name() const { return name_; }
  const std::string &address() const { return address_; }

  void start_bus();
  void start();

  std::string text_of(const std::string &path) const;  // of a file of the member's; empty when there is none
  std::string record(const std::string &id, const std::string &key) const;  // in the member's working copy
  std::vector<std::string> listed() const;  // the ids in the working copy, in order; nothing unless the kept one agrees

  std::string id;  // in the cluster; empty while it is in none

 private:
  const std::string name_;
  const std::string address_;
  const Network_Link link_;
  std::optional<Member> member_;
};

class Joined_Cluster {
 public:
  explicit Joined_Cluster(int slaves);  // which have joined, are connected, and are marked as running
  Linked_Member &master() { return *master_; }
  Linked_Member &slave(size_t number) { return *slaves_[number]; }
  std::vector<Linked_Member *> slaves() const;

  Linked_Member &raise_appliance();  // started, but in no cluster yet
  Outcome add(Linked_Member *appliance);
  Outcome remove(const std::string &id);
  std::vector<std::string> ids() const;                           // of all members, the master's first
  bool are_running(const std::vector<Linked_Member *> &members);  // comes to be so on the master
  bool are_down(const std::vector<Linked_Member *> &members);

 private:
  std::string next_address();

  int addresses_ = 0;
  std::unique_ptr<Linked_Member> master_;
  std::vector<std::unique_ptr<Linked_Member>> slaves_;
};

// Writes shares into the settings of Samba, as the slave would publish them; each has all that receivers want.
void set_shares(const Linked_Member &slave, const std::string &name, int count);
Outcome publish_shares(const Linked_Member &slave);
std::string share_file_of(const std::string &id);

}  // namespace tarn::test
