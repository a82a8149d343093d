// What the library, the interface, the services and the handler's process add to a bare request on the bus and its
// reply. Prints both medians, measured in turns, and their ratio. To be run by tests/appliance.
//
// usage: echo_overhead [--check] [ROUNDS]
// With --check the exit status is 1 when the bound does not hold.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tarncluster_util.h"
#include "tests/platform/member.h"
#include "tests/storm/bare_requests.h"

namespace tarn::test {
namespace {

constexpr double kBound = 1.5;
constexpr char kText[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

Bus_Place place_of(const Cluster &cluster, const std::string &id) {
  return {.authority = cluster.store() + "/ca.crt", .certificate = cluster.certificates_of(id)};
}

// Answers whether the bound holds.
bool measure(const Cluster &cluster, int rounds) {
  natsConnection *connection = connect_as("0", place_of(cluster, "0"));
  // The bytes that the services exchange for the same text: header, command object and argument object.
  const std::string payload =
      command_bytes(handler_of_slave("S1", "Tarn_Cluster_Test_Cb"), std::string(R"({ "Test": ")") + kText + "\" }");
  const auto ask_bare = [&] { return !ask(connection, "tarn.slave.S2", payload).empty(); };
  const auto echo = [] {
    char *reply = nullptr;
    const int code = Tarn_Cluster_Test(0, "S1", kText, &reply);
    free(reply);
    return code == 0;
  };
  // The parts of the way: as far as this member's service, and as far as the other one's, but not to a handler.
  const auto command = [](const char *text, int expected) {
    char *reply = nullptr;
    return Cluster_Master_Cmd(text, "{}", &reply) == expected;
  };
  const auto refused_here = [&] { return command(R"({"op_code": 1, "slave_id": "*", "fname": "x"})", -EINVAL); };
  const auto refused_there = [&] { return command(R"({"op_code": 99, "slave_id": "S1"})", -ENOSYS); };
  for (int i = 0; i < 100; ++i) microseconds_of([&] { return ask_bare() && echo(); });
  std::vector<double> bare;
  std::vector<double> ours;
  std::vector<double> here;
  std::vector<double> there;
  for (int i = 0; i < rounds; ++i) {
    bare.push_back(microseconds_of(ask_bare));
    ours.push_back(microseconds_of(echo));
    here.push_back(microseconds_of(refused_here));
    there.push_back(microseconds_of(refused_there));
  }
  const double bare_us = median(&bare);
  const double ours_us = median(&ours);
  printf("echo between two members: %.0f us; bare request and reply: %.0f us; ratio %.2f; bound %.2f; %s\n", ours_us,
         bare_us, ours_us / bare_us, kBound, ours_us <= kBound * bare_us ? "holds" : "NO");
  printf("  of that: to the own service and back %.0f us; to the other member's service and back %.0f us\n",
         median(&here), median(&there));
  natsConnection_Destroy(connection);
  return ours_us <= kBound * bare_us;
}

}  // namespace
}  // namespace tarn::test

int main(int count, char **arguments) {
  using namespace tarn::test;
  const bool is_check = count > 1 && std::string(arguments[1]) == "--check";
  const char *given_rounds = arguments[is_check ? 2 : 1];  // the list of arguments ends with a null pointer
  const int rounds = given_rounds != nullptr ? atoi(given_rounds) : 2000;
  if (rounds <= 0) {
    fprintf(stderr, "usage: echo_overhead [--check] [ROUNDS]\n");
    return 2;
  }
  Pair_Of_Members members;
  const Process responder = members.master.start_on_member(
      [&] { answer_for_ever(connect_as("S2", place_of(members.cluster, "S2")), "tarn.slave.S2"); });
  usleep(500000);
  Process meter = members.master.start_on_member([&] {
    const bool holds = measure(members.cluster, rounds);
    fflush(stdout);
    _exit(is_check && !holds ? 1 : 0);
  });
  return meter.wait() == 0 ? 0 : 1;
}
