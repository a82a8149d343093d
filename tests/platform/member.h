// A cluster for tests: its members are mount namespaces of this root with folders of their own where members differ
// (/etc/config, /mnt/tarncluster/config, /var/zopel, /run, /var/lib), on one network. /tmp is common to all of them.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/files.h"

namespace tarn::test {

// Waits until the condition holds; false when it does not within a generous deadline.
bool comes_true(const std::function<bool()> &condition, int seconds = 60);

// A process that is killed and waited for when its owner lets go of it.
class Process {
 public:
  Process() = default;
  explicit Process(pid_t pid) : pid_(pid) {}
  ~Process() { end(9); }
  Process(Process &&other) noexcept;
  Process &operator=(Process &&other) noexcept;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  int end(int number);  // sends the signal and answers the wait status
  int wait();           // answers the wait status

 private:
  pid_t pid_ = -1;
};

// What a command function answered.
struct Outcome {
  int code = 0;
  std::string reply;
  bool has_reply = false;
};

// The folder that holds the certificates, with scripts/cluster around it.
class Cluster {
 public:
  explicit Cluster(const std::vector<std::string> &slaves);
  const std::string &store() const { return store_; }
  std::string certificates_of(const std::string &id) const { return store_ + "/members/" + id; }

 private:
  Temporary_Folder folder_;
  std::string store_;
};

// Runs scripts/cluster with these words; answers its exit status.
int run_cluster_script(const std::string &words);

class Member {
 public:
  // An appliance in no cluster, on which the setup has been done.
  explicit Member(
      const std::string &name, const std::function<bool()> &setup = [] { return true; });

  // Provisions a member of the cluster; more goes to "scripts/cluster provision".
  Member(const Cluster &cluster, const std::string &id, const std::string &more = "");
  ~Member();
  Member(const Member &) = delete;
  Member &operator=(const Member &) = delete;

  void start_bus();                    // returns when it listens
  void start();                        // starts the cluster service; returns when it serves
  bool comes_to_be_connected() const;  // to the bus
  bool is_connected() const;
  Process &bus() { return bus_; }
  Process &service() { return service_; }
  const Process &service() const { return service_; }
  std::string log() const;  // of the service
  int listener_port() const { return listener_port_; }
  std::string path(const std::string &inside) const;  // where this process sees a file of the member's

  // Runs the body in a process of its own on this member, and answers what it answers.
  std::string on_member(const std::function<std::string()> &body) const;
  Process start_on_member(const std::function<void()> &body) const;
  Outcome call(const std::function<int(char **reply)> &function) const;

  // The library's senders, called on this member.
  Outcome echo(int mode, const std::string &id, const std::string &text) const;
  Outcome send_file(int mode, const std::string &id, const std::string &source, const std::string &destination,
                    const char *progress = nullptr) const;
  Outcome fetch_file(int mode, const std::string &id, const std::string &source, const std::string &destination,
                     const char *progress = nullptr) const;
  Outcome master_command(const std::string &command, const std::string &argument, int timeout_ms = 60000) const;
  Outcome slave_command(const std::string &command, const std::string &argument, int timeout_ms = 60000) const;

 private:
  void make(const std::function<bool()> &setup);

  const std::string id_;
  const std::string log_path_;
  const int listener_port_;
  int namespace_fd_ = -1;
  Process bus_;
  Process service_;
};

// A command object that calls a handler on a slave, and one on the master.
std::string handler_of_slave(const std::string &id, const std::string &name);
std::string handler_of_master(const std::string &name);

// A master with its bus and one slave "S1", all running and connected.
struct Pair_Of_Members {
  Cluster cluster{{"S1", "S2"}};
  Member master{cluster, "0"};
  Member slave{cluster, "S1"};
  Pair_Of_Members();
};

}  // namespace tarn::test
