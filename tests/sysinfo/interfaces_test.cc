#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_calls.h"
#include "tests/support/own_network.h"

namespace {

using namespace tarn::test;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr char scan_name[] = "Scan_Network_Interface";

// ---------------------------------------------------------------------------------------- a scan's records, as values

struct Ipv6 {
  std::string address;
  int prefix;

  bool operator==(const Ipv6 &) const = default;
};

struct Interface {
  std::string name;
  int index;
  std::string ipv4;
  int prefix;
  std::vector<Ipv6> ipv6;
  std::string mac;
  unsigned int flags;

  bool operator==(const Interface &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Ipv6 &address) {
  return out << address.address << "/" << address.prefix;
}

std::ostream &operator<<(std::ostream &out, const Interface &interface) {
  out << interface.index << " " << interface.name << " " << interface.mac << " flags 0x" << std::hex << interface.flags
      << std::dec << " " << interface.ipv4 << "/" << interface.prefix;
  for (const Ipv6 &address : interface.ipv6) out << " " << address;
  return out;
}

std::vector<Interface> values_of(const Net_Interface *list) {
  std::vector<Interface> found;
  for (; list != nullptr; list = list->next) {
    found.push_back({list->name, list->index, list->ipv4, list->prefix, {}, list->mac, list->flags});
    for (const Net_Ipv6_Addr *entry = list->ipv6; entry != nullptr; entry = entry->next) {
      found.back().ipv6.push_back({entry->address, entry->prefix});
    }
  }
  return found;
}

Log_Line looks_at(int index, const std::string &name) {
  return debug_line(scan_name, "Get the address of " + std::to_string(index) + "-th netif: " + name);
}

Log_Line finds_no_addresses(const std::string &name, int status) {
  return debug_line(scan_name, "Can't get IP addresses of " + name + "! (" + std::to_string(status) + ")");
}

class Scan : public Descriptor_Count {
 protected:
  ~Scan() override { EXPECT_TRUE(calls_.all_lists_given_back()); }

  // The outputs hold something else before.
  int scan() {
    static Net_Interface nothing_of_the_kind;
    Net_Interface *list = &nothing_of_the_kind;
    int count = -7;
    const int status = Scan_Network_Interface(&list, &count);
    EXPECT_NE(list, &nothing_of_the_kind) << "the list is set whatever happens";
    if (list == &nothing_of_the_kind) list = nullptr;
    found_ = values_of(list);
    EXPECT_EQ(count, static_cast<int>(found_.size()));
    Free_Network_Interface(list);
    return status;
  }

  Log_Capture log_;
  Network_Calls calls_;
  std::vector<Interface> found_;
};

// ---------------------------------------------------------------------------------------------------- a host made up

struct Fake_Interface {
  std::string name;
  unsigned short flags = IFF_UP;  // SIOCGIFFLAGS
  std::array<unsigned char, 6> mac;
  int flags_error = 0;
  int mac_error = 0;
};

// What the kernel and the C library tell of a host, entry by entry.
class Fake_Host {
 public:
  explicit Fake_Host(Network_Calls *calls) {
    calls->ioctl = [this](int fd, unsigned long request, void *argument) { return answer(fd, request, argument); };
    calls->getifaddrs = [this](ifaddrs **list) {
      *list = entries_.empty() ? nullptr : &entries_.front().raw;
      return 0;
    };
  }

  // The nth one has the hardware address 02:00:00:00:00:n.
  Fake_Interface &add_interface(const std::string &name) {
    const auto number = static_cast<unsigned char>(interfaces_.size() + 1);
    interfaces_.push_back({.name = name, .mac = {2, 0, 0, 0, 0, number}});
    return interfaces_.back();
  }

  // No mask: a null pointer.
  void add_address(const std::string &name, const char *address, const char *mask, unsigned int flags = IFF_UP) {
    Entry &entry = add_entry(name, flags);
    entry.raw.ifa_addr = store(address, &entry.address);
    if (mask != nullptr) entry.raw.ifa_netmask = store(mask, &entry.mask);
  }

  void add_entry_of_family(const std::string &name, int family) {
    Entry &entry = add_entry(name, 0);
    entry.address.ss_family = static_cast<sa_family_t>(family);
    entry.raw.ifa_addr = reinterpret_cast<sockaddr *>(&entry.address);
  }

  void add_entry_without_address(const std::string &name) { add_entry(name, 0); }

  int names_error = 0;  // SIOCGIFCONF

 private:
  struct Entry {
    std::string name;
    ifaddrs raw = {};
    sockaddr_storage address = {};
    sockaddr_storage mask = {};
  };

  Entry &add_entry(const std::string &name, unsigned int flags) {
    entries_.emplace_back();
    Entry &entry = entries_.back();
    entry.name = name;
    entry.raw.ifa_name = entry.name.data();
    entry.raw.ifa_flags = flags;
    if (entries_.size() > 1) entries_[entries_.size() - 2].raw.ifa_next = &entry.raw;
    return entry;
  }

  static sockaddr *store(const char *text, sockaddr_storage *address) {
    auto *ipv4 = reinterpret_cast<sockaddr_in *>(address);
    auto *ipv6 = reinterpret_cast<sockaddr_in6 *>(address);
    address->ss_family = strchr(text, ':') != nullptr ? AF_INET6 : AF_INET;
    void *bytes = address->ss_family == AF_INET ? static_cast<void *>(&ipv4->sin_addr) : &ipv6->sin6_addr;
    EXPECT_EQ(inet_pton(address->ss_family, text, bytes), 1) << text;
    ipv6->sin6_scope_id = address->ss_family == AF_INET6 ? 1 : 0;
    return reinterpret_cast<sockaddr *>(address);
  }

  int answer(int fd, unsigned long request, void *argument) {
    check_socket(fd);
    if (request == SIOCGIFCONF) return list_names(static_cast<ifconf *>(argument));
    auto *asked = static_cast<ifreq *>(argument);
    const auto interface = std::ranges::find_if(interfaces_, [&](const Fake_Interface &one) {
      return strncmp(one.name.c_str(), asked->ifr_name, IFNAMSIZ - 1) == 0;
    });
    if (interface == interfaces_.end()) return fail(ENODEV);
    if (request == SIOCGIFFLAGS) return tell_flags(*interface, asked);
    if (request == SIOCGIFHWADDR) return tell_mac(*interface, asked);
    return fail(EINVAL);
  }

  static void check_socket(int fd) {
    int family = 0, type = 0;
    socklen_t length = sizeof family;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length), 0);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length), 0);
    EXPECT_EQ(family, AF_INET);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  }

  int list_names(ifconf *names) const {
    if (names_error != 0) return fail(names_error);
    EXPECT_EQ(names->ifc_len, 720);
    const size_t number = std::min<size_t>(18, interfaces_.size());
    names->ifc_len = static_cast<int>(number * sizeof(ifreq));
    memset(names->ifc_buf, 'x', 720);  // nothing behind the returned length is an interface
    for (size_t i = 0; i < number; ++i) {
      names->ifc_req[i] = {};
      memcpy(names->ifc_req[i].ifr_name, interfaces_[i].name.data(), interfaces_[i].name.size());
    }
    return 0;
  }

  static int tell_flags(const Fake_Interface &interface, ifreq *answer) {
    if (interface.flags_error != 0) return fail(interface.flags_error);
    answer->ifr_flags = static_cast<short>(interface.flags);
    return 0;
  }

  static int tell_mac(const Fake_Interface &interface, ifreq *answer) {
    if (interface.mac_error != 0) return fail(interface.mac_error);
    std::ranges::copy(interface.mac, answer->ifr_hwaddr.sa_data);
    return 0;
  }

  static int fail(int error) {
    errno = error;
    return -1;
  }

  std::deque<Fake_Interface> interfaces_;
  std::deque<Entry> entries_;
};

class Scan_Of_A_Fake_Host : public Scan {
 protected:
  Fake_Host host_{&calls_};
};

// ----------------------------------------------------------------------------------------------------- the whole scan

TEST_F(Scan, Refuses_missing_outputs_before_anything_is_done) {
  calls_.getifaddrs = [](ifaddrs **) {
    ADD_FAILURE() << "asked for addresses";
    return -1;
  };
  static Net_Interface untouched;
  Net_Interface *list = &untouched;
  int count = -7;

  EXPECT_EQ(Scan_Network_Interface(nullptr, &count), -EINVAL);
  EXPECT_EQ(Scan_Network_Interface(&list, nullptr), -EINVAL);
  EXPECT_EQ(Scan_Network_Interface(nullptr, nullptr), -EINVAL);

  EXPECT_EQ(list, &untouched);
  EXPECT_EQ(count, -7);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scan, Without_readable_addresses_is_a_silent_failure) {
  calls_.getifaddrs = [](ifaddrs **) {
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(scan(), -EIO);
  EXPECT_THAT(found_, IsEmpty());
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scan, Without_a_free_descriptor_is_a_failure) {
  Net_Interface *list = nullptr;
  int count = -7;
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none = {0, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int status = Scan_Network_Interface(&list, &count);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);

  EXPECT_EQ(status, -EMFILE);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(Scan_Of_A_Fake_Host, Without_a_socket_finds_nothing_and_is_no_failure) {
  host_.add_interface("eth0");
  host_.add_address("eth0", "10.0.0.1", "255.0.0.0");
  const Before_Call no_socket(System_Call::socket, 1, [] { return EMFILE; });

  EXPECT_EQ(scan(), 0);

  EXPECT_TRUE(no_socket.happened());
  EXPECT_THAT(found_, IsEmpty());
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scan_Of_A_Fake_Host, Without_a_list_of_names_is_a_logged_failure) {
  host_.add_interface("eth0");
  host_.add_address("eth0", "10.0.0.1", "255.0.0.0");
  host_.names_error = ENODEV;

  EXPECT_EQ(scan(), -ENODEV);

  EXPECT_THAT(found_, IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(error_line(scan_name, "Can't get the netif name list! (-19)")));
}

TEST_F(Scan_Of_A_Fake_Host, Lists_every_interface_in_the_order_of_the_names_with_all_that_belongs_to_it) {
  host_.add_interface("eth1").mac = {0x02, 0xfe, 0xdc, 0xba, 0x98, 0x80};
  host_.add_interface("eth0").mac = {0x00, 0x1b, 0x21, 0x3c, 0x4d, 0x5e};
  host_.add_address("eth0", "192.168.1.7", "255.255.255.0", 0x11043);
  host_.add_address("eth1", "10.0.0.1", "255.255.240.0", 0x1003);
  host_.add_address("eth0", "fd00::2", "ffff:ffff:ffff:ffff::", 0x11043);
  host_.add_address("eth1", "fe80::1", "ffff:ffff:ffff:ffff::", 0x1003);
  host_.add_address("eth0", "fd00::1", "ffff:ffff:ffff:ff80::", 0x11043);

  EXPECT_EQ(scan(), 0);

  EXPECT_THAT(
      found_,
      ElementsAre(
          Interface{"eth1", 0, "10.0.0.1", 20, {{"fe80::1", 64}}, "02:FE:DC:BA:98:80", 0x1003},
          Interface{"eth0", 1, "192.168.1.7", 24, {{"fd00::2", 64}, {"fd00::1", 57}}, "00:1B:21:3C:4D:5E", 0x11043}));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "eth1"), looks_at(1, "eth0")));
}

TEST_F(Scan_Of_A_Fake_Host, Lists_at_most_18) {
  for (int i = 0; i < 20; ++i) host_.add_interface("eth" + std::to_string(i));
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, SizeIs(18));
}

TEST_F(Scan_Of_A_Fake_Host, Keeps_an_interface_that_is_down_but_has_an_address) {
  host_.add_interface("eth0").flags = 0;
  host_.add_address("eth0", "10.0.0.1", "255.0.0.0", 0x1002);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "10.0.0.1", 8, {}, "02:00:00:00:00:01", 0x1002}));
}

TEST_F(Scan_Of_A_Fake_Host, Takes_the_flags_of_the_last_address) {
  host_.add_interface("eth0").flags = 0x4444;
  host_.add_address("eth0", "10.0.0.1", "255.0.0.0", 0x80000001);
  host_.add_address("eth0", "fd00::1", "ffff::", 0x80000003);
  host_.add_interface("eth1").flags = 0x4444;
  host_.add_address("eth1", "fd00::2", "ffff::", 0x10003);
  host_.add_address("eth1", "10.0.0.2", "255.0.0.0", 0x10001);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Field(&Interface::flags, 0x80000003U), Field(&Interface::flags, 0x10001U)));
}

TEST_F(Scan_Of_A_Fake_Host, Takes_the_last_of_several_ipv4_addresses_and_its_prefix) {
  host_.add_interface("eth0");
  host_.add_address("eth0", "10.0.0.100", "255.255.255.0");
  host_.add_address("eth0", "10.1.0.2", "255.255.0.0");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "10.1.0.2", 16, {}, "02:00:00:00:00:01", IFF_UP}));
}

TEST_F(Scan_Of_A_Fake_Host, Starts_every_record_empty) {
  host_.add_interface("eth0");
  host_.add_interface("eth1");
  host_.add_interface("eth2");
  host_.add_address("eth0", "10.0.0.1", "255.255.255.0");
  host_.add_address("eth1", "fd00::1", "ffff:ffff:ffff:ffff::");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "10.0.0.1", 24, {}, "02:00:00:00:00:01", IFF_UP},
                                  Interface{"eth1", 1, "", 0, {{"fd00::1", 64}}, "02:00:00:00:00:02", IFF_UP},
                                  Interface{"eth2", 2, "", 0, {}, "02:00:00:00:00:03", IFF_UP}));
}

TEST_F(Scan_Of_A_Fake_Host, Takes_addresses_of_exactly_the_same_name) {
  host_.add_interface("eth1");
  for (const char *other : {"eth10", "eth", "ETH1", "eth1:0", ""}) {
    host_.add_address(other, "10.0.0.1", "255.0.0.0");
    host_.add_address(other, "fd00::1", "ffff::");
  }
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth1", 0, "", 0, {}, "02:00:00:00:00:01", IFF_UP}));
}

TEST_F(Scan_Of_A_Fake_Host, Passes_over_entries_without_an_ip_address) {
  host_.add_interface("tun0");
  host_.add_entry_without_address("tun0");
  host_.add_entry_of_family("tun0", AF_PACKET);
  host_.add_entry_of_family("tun0", AF_UNIX);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "tun0"), finds_no_addresses("tun0", -ENODEV)));

  host_.add_address("tun0", "10.0.0.1", "255.0.0.0", 0x11);
  host_.add_entry_of_family("tun0", AF_PACKET);
  host_.add_entry_without_address("tun0");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"tun0", 0, "10.0.0.1", 8, {}, "02:00:00:00:00:01", 0x11}));
}

TEST_F(Scan_Of_A_Fake_Host, Keeps_an_address_without_a_mask_with_prefix_0) {
  host_.add_interface("eth0");
  host_.add_address("eth0", "10.0.0.1", nullptr);
  host_.add_address("eth0", "fd00::1", nullptr);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "10.0.0.1", 0, {{"fd00::1", 0}}, "02:00:00:00:00:01", IFF_UP}));
}

TEST_F(Scan_Of_A_Fake_Host, Has_room_for_the_longest_texts) {
  const std::string name(15, 'n');
  host_.add_interface(name).mac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
  host_.add_address(name, "255.255.255.255", "255.255.255.255");
  host_.add_address(name, "1111:2222:3333:4444:5555:6666:7777:8888", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
  host_.add_address(name, "::ffff:111.122.133.144", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:fffe");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_,
              ElementsAre(Interface{name,
                                    0,
                                    "255.255.255.255",
                                    32,
                                    {{"1111:2222:3333:4444:5555:6666:7777:8888", 128}, {"::ffff:111.122.133.144", 127}},
                                    "FF:FF:FF:FF:FF:FF",
                                    IFF_UP}));
}

TEST_F(Scan_Of_A_Fake_Host, Cuts_a_name_without_an_end_at_15_characters) {
  host_.add_interface("abcdefghijklmnop");
  host_.add_address("abcdefghijklmno", "10.0.0.1", "255.0.0.0");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"abcdefghijklmno", 0, "10.0.0.1", 8, {}, "02:00:00:00:00:01", IFF_UP}));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "abcdefghijklmno")));
}

// ------------------------------------------------------------------------------------------------------------ prefixes

std::string ipv4_mask(int prefix) {
  const in_addr mask = {htonl(prefix == 0 ? 0 : ~0U << (32 - prefix))};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &mask, text, sizeof text);
}

std::string ipv6_mask(int prefix) {
  in6_addr mask = {};
  for (int i = 0; i < prefix; ++i)
    mask.s6_addr[i / 8] = static_cast<unsigned char>(mask.s6_addr[i / 8] | 0x80 >> i % 8);
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, &mask, text, sizeof text);
}

TEST_F(Scan, Finds_every_ipv4_prefix) {
  for (int prefix = 0; prefix <= 32; ++prefix) {
    Fake_Host host(&calls_);
    host.add_interface("eth0");
    host.add_address("eth0", "10.0.0.1", ipv4_mask(prefix).c_str());
    EXPECT_EQ(scan(), 0);
    EXPECT_THAT(found_, ElementsAre(Field(&Interface::prefix, prefix))) << ipv4_mask(prefix);
  }
}

TEST_F(Scan, Finds_every_ipv6_prefix) {
  for (int prefix = 0; prefix <= 128; ++prefix) {
    Fake_Host host(&calls_);
    host.add_interface("eth0");
    host.add_address("eth0", "fd00::1", ipv6_mask(prefix).c_str());
    EXPECT_EQ(scan(), 0);
    EXPECT_THAT(found_, ElementsAre(Field(&Interface::ipv6, ElementsAre(Ipv6{"fd00::1", prefix}))))
        << ipv6_mask(prefix);
  }
}

// Read off the text: callers know these results for masks that are none.
struct Mask_Case {
  const char *mask;
  int prefix;
};

std::ostream &operator<<(std::ostream &out, const Mask_Case &mask) {
  return out << mask.mask;
}

class Ipv4_Mask_With_Holes : public Scan, public testing::WithParamInterface<Mask_Case> {};

TEST_P(Ipv4_Mask_With_Holes, Has_the_prefix_of_its_text) {
  Fake_Host host(&calls_);
  host.add_interface("eth0");
  host.add_address("eth0", "10.0.0.1", GetParam().mask);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Field(&Interface::prefix, GetParam().prefix)));
}

INSTANTIATE_TEST_SUITE_P(Masks, Ipv4_Mask_With_Holes,
                         testing::Values(Mask_Case{"255.0.255.0", 8}, Mask_Case{"255.255.0.255", 16},
                                         Mask_Case{"0.255.0.0", 0}, Mask_Case{"1.0.0.0", 1}, Mask_Case{"100.0.0.0", 1},
                                         Mask_Case{"129.0.0.0", 2}, Mask_Case{"200.0.0.0", 3},
                                         Mask_Case{"255.1.0.0", 9}, Mask_Case{"255.255.253.0", 23},
                                         Mask_Case{"254.255.255.255", 7}));

class Ipv6_Mask_With_Holes : public Scan, public testing::WithParamInterface<Mask_Case> {};

TEST_P(Ipv6_Mask_With_Holes, Has_the_prefix_of_its_text) {
  Fake_Host host(&calls_);
  host.add_interface("eth0");
  host.add_address("eth0", "fd00::1", GetParam().mask);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Field(&Interface::ipv6, ElementsAre(Ipv6{"fd00::1", GetParam().prefix}))));
}

INSTANTIATE_TEST_SUITE_P(Masks, Ipv6_Mask_With_Holes,
                         testing::Values(Mask_Case{"ffff:0:ffff::", 16}, Mask_Case{"ffff:ff0f::", 24},
                                         Mask_Case{"fe00:ffff::", 7}, Mask_Case{"fd00::", 4}, Mask_Case{"ec00::", 3},
                                         Mask_Case{"c800::", 2}, Mask_Case{"88ff::", 1}, Mask_Case{"7fff::", 0},
                                         Mask_Case{"f00::", 4}, Mask_Case{"fff::", 12}, Mask_Case{"::ffff", 0},
                                         Mask_Case{"0:ffff:ffff:ffff:ffff::", 0},
                                         Mask_Case{"ffff:ffff:ffff:0:ffff::", 48},
                                         Mask_Case{"ffff:ffff:ffff:ffff:0:ffff:ffff:ffff", 64}));

// ------------------------------------------------------------------------------------- trouble with a single interface

TEST_F(Scan_Of_A_Fake_Host, Keeps_an_interface_without_addresses_that_is_up) {
  host_.add_interface("eth0").flags = 0x9043;
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "", 0, {}, "02:00:00:00:00:01", 0x9043}))
      << "the flags are not extended by their sign";
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "eth0"), finds_no_addresses("eth0", -ENODEV)));
}

TEST_F(Scan_Of_A_Fake_Host, Passes_over_an_interface_without_addresses_that_is_down) {
  host_.add_interface("eth0").flags = 0xfffe;
  host_.add_interface("eth1");
  host_.add_address("eth1", "10.0.0.1", "255.0.0.0");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth1", 1, "10.0.0.1", 8, {}, "02:00:00:00:00:02", IFF_UP}));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "eth0"), finds_no_addresses("eth0", -ENODEV), looks_at(1, "eth1")));
}

TEST_F(Scan_Of_A_Fake_Host, Passes_over_an_interface_without_addresses_and_flags) {
  host_.add_interface("eth0").flags_error = EPERM;
  host_.add_interface("eth1");
  host_.add_address("eth1", "10.0.0.1", "255.0.0.0");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"eth1", 1, "10.0.0.1", 8, {}, "02:00:00:00:00:02", IFF_UP}));
  EXPECT_THAT(log_.lines(),
              ElementsAre(looks_at(0, "eth0"), finds_no_addresses("eth0", -ENODEV),
                          debug_line(scan_name, "Can't get the flags of eth0! (-1)"), looks_at(1, "eth1")));
}

TEST_F(Scan_Of_A_Fake_Host, Asks_for_the_flags_of_interfaces_without_addresses_only) {
  host_.add_interface("eth0").flags_error = EPERM;
  host_.add_address("eth0", "fd00::1", "ffff::", 0x3);
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Field(&Interface::flags, 0x3U)));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "eth0")));
}

TEST_F(Scan_Of_A_Fake_Host, Ends_at_an_interface_without_a_readable_hardware_address) {
  host_.add_interface("eth0");
  host_.add_interface("eth1").mac_error = EADDRNOTAVAIL;
  host_.add_interface("eth2");
  for (const char *name : {"eth0", "eth1", "eth2"}) {
    host_.add_address(name, "10.0.0.1", "255.0.0.0");
    host_.add_address(name, "fd00::1", "ffff::");  // of eth1 too: it must not leak
  }

  EXPECT_EQ(scan(), 0);

  EXPECT_THAT(found_, ElementsAre(Interface{"eth0", 0, "10.0.0.1", 8, {{"fd00::1", 16}}, "02:00:00:00:00:01", IFF_UP}));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "eth0"), looks_at(1, "eth1"),
                                        error_line(scan_name, "Can't get the MAC address of eth1! (99)")));
}

TEST_F(Scan_Of_A_Fake_Host, That_ends_at_the_first_interface_is_empty) {
  host_.add_interface("eth0").mac_error = EADDRNOTAVAIL;
  host_.add_interface("eth1");
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, IsEmpty());
}

// ------------------------------------------------------------------------------------------------------ out of memory

struct Damaged_Scan {
  std::vector<Interface> found;
  std::vector<Log_Line> troubles;

  bool operator==(const Damaged_Scan &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Damaged_Scan &scan) {
  for (const Interface &interface : scan.found) out << interface << "; ";
  for (const Log_Line &line : scan.troubles) out << line << "; ";
  return out;
}

TEST_F(Scan_Of_A_Fake_Host, Out_of_memory_keeps_what_it_has_of_interfaces_that_are_up) {
  // eth0 is up, eth1 is down.
  host_.add_interface("eth0").flags = 0x41;
  host_.add_interface("eth1").flags = 0x40;
  host_.add_address("eth0", "fd00::1", "ffff::", 0x10043);
  host_.add_address("eth0", "10.0.0.1", "255.0.0.0", 0x10043);
  host_.add_address("eth0", "fd00::2", "ffff::", 0x10043);
  host_.add_address("eth0", "10.0.0.2", "255.0.0.0", 0x10043);
  host_.add_address("eth1", "10.0.0.3", "255.0.0.0", 0x10040);
  host_.add_address("eth1", "fd00::3", "ffff::", 0x10040);
  const Interface eth0 = {"eth0", 0, "10.0.0.2", 8, {{"fd00::1", 16}, {"fd00::2", 16}}, "02:00:00:00:00:01", 0x10043};
  const Interface eth1 = {"eth1", 1, "10.0.0.3", 8, {{"fd00::3", 16}}, "02:00:00:00:00:02", 0x10040};
  const Interface eth0_without_any = {"eth0", 0, "", 0, {}, eth0.mac, 0x41};
  const Interface eth0_as_far_as_it_came = {"eth0", 0, "10.0.0.1", 8, {{"fd00::1", 16}}, eth0.mac, 0x41};
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(eth0, eth1));

  log_.clear();
  Net_Interface *list = nullptr;
  int count = -7;
  std::vector<Damaged_Scan> scans;
  const int allocations = with_each_allocation_failing(
      [&] { return Scan_Network_Interface(&list, &count); },
      [&](int status, int) {
        EXPECT_EQ(status, 0);
        scans.push_back({values_of(list), log_.lines()});
        EXPECT_EQ(count, static_cast<int>(scans.back().found.size()));
        std::erase_if(scans.back().troubles, [](const Log_Line &line) { return line.text.starts_with("Get the"); });
        Free_Network_Interface(list);
        log_.clear();
      });
  Free_Network_Interface(list);

  EXPECT_EQ(allocations, 5);
  EXPECT_THAT(scans,
              UnorderedElementsAre(Damaged_Scan{{eth0_without_any, eth1}, {finds_no_addresses("eth0", -ENOMEM)}},
                                   Damaged_Scan{{eth0_as_far_as_it_came, eth1}, {finds_no_addresses("eth0", -ENOMEM)}},
                                   Damaged_Scan{{eth1}, {}},  // no record for eth0
                                   Damaged_Scan{{eth0}, {finds_no_addresses("eth1", -ENOMEM)}},
                                   Damaged_Scan{{eth0}, {}}));  // no record for eth1
}

// ------------------------------------------------------------------------------------------------------ a real network

class Scan_Of_A_Real_Network : public Scan {
 protected:
  Scan_Of_A_Real_Network() { enter_fresh_network(); }
};

TEST_F(Scan_Of_A_Real_Network, Finds_nothing_where_no_interface_has_an_address) {
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, IsEmpty());
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scan_Of_A_Real_Network, Finds_loopback) {
  ip({"link set lo up"});
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Interface{"lo",
                                            0,
                                            "127.0.0.1",
                                            8,
                                            {{"::1", 128}},
                                            "00:00:00:00:00:00",
                                            IFF_UP | IFF_LOOPBACK | IFF_RUNNING | 0x10000}));
  EXPECT_THAT(log_.lines(), ElementsAre(looks_at(0, "lo")));
}

TEST_F(Scan_Of_A_Real_Network, Finds_interfaces_with_ipv4_and_ipv6_addresses_without_their_scope) {
  make_pair("va", "abcdefghijklmno");
  ip({"link set lo up", "link set va address 02:fe:dc:ba:98:80", "link set abcdefghijklmno address 02:00:00:00:00:0a",
      "address add 192.168.100.129/25 dev abcdefghijklmno", "address add 10.1.2.3/20 dev va",
      "address add fe80::1:2:3/64 dev va nodad", "address add fd00::57/57 dev va nodad"});

  EXPECT_EQ(scan(), 0);

  ASSERT_THAT(found_, SizeIs(3));
  EXPECT_EQ(found_[0].name, "lo");
  const auto &[va, peer] = found_[1].name == "va" ? std::tie(found_[1], found_[2]) : std::tie(found_[2], found_[1]);
  EXPECT_EQ(va.name, "va");
  EXPECT_EQ(va.ipv4, "10.1.2.3");
  EXPECT_EQ(va.prefix, 20);
  EXPECT_THAT(va.ipv6, UnorderedElementsAre(Ipv6{"fe80::1:2:3", 64}, Ipv6{"fd00::57", 57}));
  EXPECT_EQ(va.mac, "02:FE:DC:BA:98:80");
  EXPECT_EQ(va.flags & (IFF_UP | IFF_BROADCAST | IFF_MULTICAST | IFF_LOOPBACK),
            static_cast<unsigned int>(IFF_UP | IFF_BROADCAST | IFF_MULTICAST));
  EXPECT_EQ(peer.name, "abcdefghijklmno");
  EXPECT_EQ(peer.ipv4, "192.168.100.129");
  EXPECT_EQ(peer.prefix, 25);
  EXPECT_THAT(peer.ipv6, IsEmpty());
  EXPECT_EQ(peer.mac, "02:00:00:00:00:0A");
}

// The kernel's list names interfaces with an IPv4 address only.
TEST_F(Scan_Of_A_Real_Network, Does_not_see_an_interface_without_an_ipv4_address) {
  make_pair("va", "vb");
  ip({"address add fd00::1/64 dev va nodad", "address add 10.1.1.1/24 dev vb"});
  EXPECT_EQ(scan(), 0);
  EXPECT_THAT(found_, ElementsAre(Field(&Interface::name, "vb")));
}

TEST_F(Scan_Of_A_Real_Network, Finds_an_interface_with_an_address_that_is_down) {
  make_pair("va", "vb");
  ip({"address add 10.1.1.1/24 dev va", "link set va down"});
  EXPECT_EQ(scan(), 0);
  ASSERT_THAT(found_, ElementsAre(Field(&Interface::ipv4, "10.1.1.1")));
  EXPECT_EQ(found_[0].flags & IFF_UP, 0U);
}

// Callers are used to it: the list has a record for each address, and the search by name ends at the last one.
TEST_F(Scan_Of_A_Real_Network, Lists_an_interface_once_for_each_ipv4_address_every_time_with_the_last_one) {
  make_pair("va", "vb");
  ip({"address add 10.1.1.1/24 dev va", "address add 10.2.2.2/16 dev va", "address add fd00::1/64 dev va nodad"});

  EXPECT_EQ(scan(), 0);

  ASSERT_THAT(found_, SizeIs(2));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(found_[i].name, "va");
    EXPECT_EQ(found_[i].index, i);
    EXPECT_EQ(found_[i].ipv4, "10.2.2.2");
    EXPECT_EQ(found_[i].prefix, 16);
    EXPECT_THAT(found_[i].ipv6, ElementsAre(Ipv6{"fd00::1", 64}));
  }
}

TEST_F(Scan_Of_A_Real_Network, Lists_a_labelled_address_as_an_interface_of_its_own) {
  make_pair("va", "vb");
  ip({"link set va address 02:00:00:00:00:0a", "address add 10.1.1.1/24 dev va",
      "address add 10.2.2.2/16 dev va label va:1", "address add fd00::1/64 dev va nodad"});

  EXPECT_EQ(scan(), 0);

  ASSERT_THAT(found_, SizeIs(2));
  const unsigned int flags = found_[0].flags;
  EXPECT_THAT(found_, ElementsAre(Interface{"va", 0, "10.1.1.1", 24, {{"fd00::1", 64}}, "02:00:00:00:00:0A", flags},
                                  Interface{"va:1", 1, "10.2.2.2", 16, {}, "02:00:00:00:00:0A", flags}));
}

TEST_F(Scan_Of_A_Real_Network, Sees_the_first_18_interfaces_of_more) {
  std::vector<std::string> commands;
  for (int i = 0; i < 20; i += 2) {
    const std::string left = "v" + std::to_string(i), right = "v" + std::to_string(i + 1);
    commands.push_back("link add " + left + " type veth peer name " + right);
    commands.push_back("address add 10.0." + std::to_string(i) + ".1/24 dev " + left);
    commands.push_back("address add 10.0." + std::to_string(i + 1) + ".1/24 dev " + right);
  }
  ip(commands);

  EXPECT_EQ(scan(), 0);

  ASSERT_THAT(found_, SizeIs(18));
  for (int i = 0; i < 18; ++i) {
    EXPECT_EQ(found_[i].index, i);
    EXPECT_EQ(found_[i].ipv4, "10.0." + found_[i].name.substr(1) + ".1");
  }
  std::vector<Log_Line> looks;
  for (const Interface &interface : found_) looks.push_back(looks_at(interface.index, interface.name));
  EXPECT_EQ(log_.lines(), looks);
}

TEST_F(Scan_Of_A_Real_Network, Out_of_memory_at_any_moment_neither_fails_nor_leaks) {
  make_pair("va", "vb");
  ip({"link set lo up", "address add 10.1.1.1/24 dev va", "address add fd00::1/64 dev va nodad"});
  Net_Interface *list = nullptr;
  int count = -7;
  const int allocations = with_each_allocation_failing([&] { return Scan_Network_Interface(&list, &count); },
                                                       [&](int status, int) {
                                                         EXPECT_THAT(status, testing::AnyOf(0, -ENOMEM));
                                                         EXPECT_EQ(static_cast<int>(values_of(list).size()), count);
                                                         Free_Network_Interface(list);
                                                       });
  EXPECT_EQ(count, 2);
  EXPECT_GE(allocations, 4);
  Free_Network_Interface(list);
}

// ------------------------------------------------------------------------------------------------------------
// reporting

TEST_F(Scan_Of_A_Fake_Host, Reports_single_steps_to_those_who_debug_only) {
  const Log_Capture errors(1);
  host_.add_interface("eth0").flags_error = EPERM;
  host_.add_interface("eth1").mac_error = EPERM;
  EXPECT_EQ(scan(), 0);
  host_.names_error = EFAULT;
  EXPECT_EQ(scan(), -EFAULT);
  EXPECT_THAT(errors.lines(), ElementsAre(error_line(scan_name, "Can't get the MAC address of eth1! (1)"),
                                          error_line(scan_name, "Can't get the netif name list! (-14)")));
}

// ---------------------------------------------------------------------------------------------------------- giving
// back

TEST(Free_Network_Interface, Ignores_a_missing_list) {
  Free_Network_Interface(nullptr);
}

TEST(Free_Network_Interface, Frees_every_record_and_every_address) {
  auto *list = static_cast<Net_Interface *>(calloc(1, sizeof(Net_Interface)));
  list->next = static_cast<Net_Interface *>(calloc(1, sizeof(Net_Interface)));
  for (Net_Interface *record : {list, list->next}) {
    record->ipv6 = static_cast<Net_Ipv6_Addr *>(calloc(1, sizeof(Net_Ipv6_Addr)));
    record->ipv6->next = static_cast<Net_Ipv6_Addr *>(calloc(1, sizeof(Net_Ipv6_Addr)));
  }
  Free_Network_Interface(list);  // the leak detector has the last word
}

}  // namespace
