// Listing the interfaces of a machine that has many.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/support/own_network.h"

namespace tarn::bench {
namespace {

constexpr int interface_count = 18;
constexpr int ipv6_addresses = 3;  // beside one IPv4 address

Descriptor current_network() {
  return Descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
}

void make_interfaces() {
  std::vector<std::string> addresses;
  for (int i = 0; i < interface_count; i += 2) {
    const std::string names[2] = {"bench" + std::to_string(i), "bench" + std::to_string(i + 1)};
    test::make_pair(names[0], names[1]);
    for (int end = 0; end < 2; ++end) {
      const std::string network = std::to_string(i + end), device = " dev " + names[end];
      addresses.push_back("address add 10.9." + network + ".1/24" + device);
      for (int number = 1; number <= ipv6_addresses; ++number) {
        addresses.push_back("address add fd00:" + network + "::" + std::to_string(number) + "/64" + device + " nodad");
      }
    }
  }
  test::ip(addresses);
}

// The calling thread is in a network of its own with these interfaces as long as this lives; it is made once.
class Many_Interfaces {
 public:
  Many_Interfaces() : before_(current_network()) {
    static const Descriptor network = [] {
      test::enter_fresh_network();
      make_interfaces();
      return current_network();
    }();
    setns(network.get(), CLONE_NEWNET);
  }
  ~Many_Interfaces() { setns(before_.get(), CLONE_NEWNET); }
  Many_Interfaces(const Many_Interfaces &) = delete;
  Many_Interfaces &operator=(const Many_Interfaces &) = delete;

 private:
  const Descriptor before_;
};

void scan_ours(benchmark::State &state) {
  const Many_Interfaces network;
  for (auto _ : state) {
    Net_Interface *list = nullptr;
    int count = 0;
    if (Scan_Network_Interface(&list, &count) != 0 || count != interface_count) state.SkipWithError("no list");
    Free_Network_Interface(list);
  }
}

// The calls alone: nothing is put together from what they tell.
void scan_bare(benchmark::State &state) {
  const Many_Interfaces network;
  for (auto _ : state) {
    ifaddrs *addresses = nullptr;
    if (getifaddrs(&addresses) != 0) state.SkipWithError("no addresses");
    const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq interfaces[interface_count] = {};
    ifconf names = {};
    names.ifc_len = sizeof interfaces;
    names.ifc_req = interfaces;
    if (ioctl(socket.get(), SIOCGIFCONF, &names) != 0 || names.ifc_len != sizeof interfaces) {
      state.SkipWithError("no names");
    }
    for (ifreq &interface : interfaces) {
      if (ioctl(socket.get(), SIOCGIFHWADDR, &interface) != 0) state.SkipWithError("no hardware address");
    }
    freeifaddrs(addresses);
  }
}

BENCHMARK(scan_ours);
BENCHMARK(scan_bare);

}  // namespace
}  // namespace tarn::bench
