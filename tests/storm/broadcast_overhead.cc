// What a broadcast to many running slaves costs beside the same requests put on the bus by one bare client, one after
// another; what a service holds in memory; and what long share lists cost. Members are real, each with a network of its
// own. Prints medians, of the long lists the least of several times. To be run by tests/appliance.
//
// usage: broadcast_overhead [--check] [SLAVES [ROUNDS]]
// With --check the exit status is 1 when the bound does not hold for so many slaves.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tarncluster_util.h"
#include "tests/platform/joined_cluster.h"
#include "tests/storm/bare_requests.h"

namespace tarn::test {
namespace {

constexpr double kBound = 1.3;
constexpr char kBusFolder[] = "/etc/config/tarn_cluster/bus";
constexpr char kArgument[] =
    R"({ "slave_id": "nobody", "share_list": [ { "share_name": "small", "invalid users": "nobody", "read list": "guest", )"
    R"("write list": "admin, @staff", "path": "\/share\/small" } ] })";

Bus_Place place_of(const Linked_Member &master) {
  return {"tls://" + master.address() + ":4222", std::string(kBusFolder) + "/ca.crt", kBusFolder};
}

std::string bare_subject_of(const Linked_Member &slave) {
  return "tarn.slave." + slave.id + ".bare";
}

// Beside every slave's service one that only answers, with the slave's certificate.
std::vector<Process> start_responders(Joined_Cluster *cluster) {
  std::vector<Process> responders;
  for (const Linked_Member *slave : cluster->slaves()) {
    const Network_Link::Stay there(slave->link());
    responders.push_back((*slave)->start_on_member(
        [&] { answer_for_ever(connect_as(slave->id, place_of(cluster->master())), bare_subject_of(*slave)); }));
  }
  sleep(1);
  return responders;
}

bool is_success(const char *reply, size_t length) {
  return reply != nullptr && std::string(reply, length).find(R"("return": 0)") != std::string::npos;
}

bool broadcast() {
  char *reply = Tarn_Cluster_Send_Share_List_Cb(kArgument);
  const bool is_good = reply != nullptr && is_success(reply, strlen(reply));
  free(reply);
  return is_good;
}

// Each round of requests goes to every slave once.
class Meter {
 public:
  Meter(const std::vector<Linked_Member *> &slaves, const Linked_Member &master)
      : slaves_(slaves), connection_(connect_as("0", place_of(master))) {
    for (const Linked_Member *slave : slaves)
      commands_.push_back(command_bytes(handler_of_slave(slave->id, "Tarn_Cluster_Send_Share_List_Cb"), kArgument));
  }
  ~Meter() { natsConnection_Destroy(connection_); }
  Meter(const Meter &) = delete;
  Meter &operator=(const Meter &) = delete;

  bool measure(int rounds);  // prints; answers whether the bound holds

 private:
  // Answered at once by somebody who does nothing.
  bool ask_responders() const {
    for (size_t i = 0; i < slaves_.size(); ++i) {
      if (ask(connection_, bare_subject_of(*slaves_[i]), commands_[i]).empty()) return false;
    }
    return true;
  }
  // Carried out by the slaves.
  bool command_slaves() const {
    for (size_t i = 0; i < slaves_.size(); ++i) {
      const std::string reply = ask(connection_, "tarn.slave." + slaves_[i]->id, commands_[i]);
      if (!is_success(reply.data(), reply.size())) return false;
    }
    return true;
  }
  void print(const char *what, double us, double broadcast_us) const {
    printf("%3zu slaves: %-58s %7.0f us, %4.0f each; the broadcast takes %.2f times that\n", slaves_.size(), what, us,
           us / static_cast<double>(slaves_.size()), broadcast_us / us);
  }

  const std::vector<Linked_Member *> slaves_;
  natsConnection *const connection_;
  std::vector<std::string> commands_;
};

bool Meter::measure(int rounds) {
  std::vector<double> ours;
  std::vector<double> idle;
  std::vector<double> same;
  microseconds_of([&] { return ask_responders() && command_slaves() && broadcast(); });
  for (int i = 0; i < rounds; ++i) {
    idle.push_back(microseconds_of([&] { return ask_responders(); }));
    same.push_back(microseconds_of([&] { return command_slaves(); }));
    ours.push_back(microseconds_of(broadcast));
  }
  const double ours_us = median(&ours);
  const double same_us = median(&same);
  print("broadcast of a small list", ours_us, ours_us);
  print("the same requests of a bare client, carried out", same_us, ours_us);
  print("the same bytes of a bare client, answered without any work", median(&idle), ours_us);
  return ours_us <= kBound * same_us;
}

// "VmRSS" and so on of a process, in KiB.
long memory_of(pid_t process, const std::string &file, const std::string &key) {
  std::ifstream lines("/proc/" + std::to_string(process) + "/" + file);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(key + ":", 0) == 0) return atol(line.c_str() + key.size() + 1);
  }
  return -1;
}

void print_memory(const char *who, const Member &member, size_t slaves) {
  const pid_t process = member.service().pid();
  printf("%3zu slaves: tarnclusterd of %s: %ld KiB resident, %ld KiB of it its own\n", slaves, who,
         memory_of(process, "status", "VmRSS"), memory_of(process, "smaps_rollup", "Private_Dirty"));
}

void print_memory(Joined_Cluster *cluster) {
  const std::vector<Linked_Member *> slaves = cluster->slaves();
  print_memory("the master", *cluster->master().operator->(), slaves.size());
  if (!slaves.empty()) print_memory("a slave", *slaves.front()->operator->(), slaves.size());
}

void grow(Joined_Cluster *cluster, size_t slaves) {
  while (cluster->slaves().size() < slaves) {
    if (cluster->add(&cluster->raise_appliance()).code != 0) {
      fprintf(stderr, "a slave did not join\n");
      exit(1);
    }
  }
  if (!cluster->are_running(cluster->slaves())) fprintf(stderr, "not all slaves came up\n");
}

// Processor time of all processes of this root until now, those that have ended included, in microseconds.
double processor_us() {
  double ticks = 0;
  for (const std::string &name : names_in("/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file("/proc/" + name + "/stat");
    std::string text;
    std::getline(file, text);
    const size_t end_of_name = text.rfind(')');
    if (end_of_name == std::string::npos) continue;  // it has ended meanwhile
    std::istringstream fields(text.substr(end_of_name + 1));
    std::string word;
    for (int i = 0; i < 11; ++i) fields >> word;
    double times[4] = {};  // its own, and those of its children that it has waited for
    for (double &time : times) fields >> time;
    for (const double time : times) ticks += time;
  }
  return ticks * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void measure_long_lists(int slaves, int rounds) {
  Joined_Cluster cluster(slaves);
  Linked_Member &publisher = cluster.slave(0);
  for (const int shares : {1000, 2000, 5000, 10000, 20000}) {
    set_shares(publisher, "share", shares);
    std::vector<double> times;
    const double before = processor_us();
    for (int i = 0; i < rounds; ++i) {
      times.push_back(microseconds_of([&] {
        const Outcome outcome = publish_shares(publisher);
        return outcome.code == 0 && outcome.reply == R"({ "return": 0 })";
      }));
    }
    const double us = *std::min_element(times.begin(), times.end());
    const double worked_us = (processor_us() - before) / rounds;
    printf(
        "%5d shares published, stored by the master and passed on to %d slaves: %.0f ms, %.1f us for each share; "
        "processor time of all members %.0f ms, %.1f us for each share\n",
        shares, slaves - 1, us / 1000, us / shares, worked_us / 1000, worked_us / shares);
  }
  print_memory(&cluster);
}

bool run(size_t slaves, int rounds) {
  Joined_Cluster cluster(0);
  print_memory(&cluster);
  bool holds = false;
  for (size_t count = 8; count <= slaves; count *= 2) {
    grow(&cluster, count);
    const std::vector<Process> responders = start_responders(&cluster);
    Process meter = cluster.master()->start_on_member([&] {
      const Network_Link::Stay there(cluster.master().link());
      const bool is_good = Meter(cluster.slaves(), cluster.master()).measure(rounds);
      fflush(stdout);
      _exit(is_good ? 0 : 1);
    });
    holds = meter.wait() == 0;
    print_memory(&cluster);
    fflush(stdout);
  }
  return holds;
}

}  // namespace
}  // namespace tarn::test

int main(int count, char **arguments) {
  const bool is_check = count > 1 && std::string(arguments[1]) == "--check";
  const std::vector<std::string> words(arguments + (is_check ? 2 : 1), arguments + count);
  const int slaves = words.empty() ? 64 : atoi(words[0].c_str());
  const int rounds = words.size() < 2 ? 50 : atoi(words[1].c_str());
  if (slaves < 8 || slaves > 900 || rounds <= 0) {
    fprintf(stderr, "usage: broadcast_overhead [--check] [SLAVES [ROUNDS]]\n");
    return 2;
  }
  const bool holds = tarn::test::run(static_cast<size_t>(slaves), rounds);
  tarn::test::measure_long_lists(8, 10);
  return is_check && !holds ? 1 : 0;
}
