#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_calls.h"
#include "tests/support/own_network.h"

namespace {

constexpr char interface_file[] = "/proc/net/if_inet6";
const char *in_place_of_the_interface_file = nullptr;
int flags_of_the_last_open = -1;

}  // namespace

extern "C" int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (strcmp(path, interface_file) == 0) {
    flags_of_the_last_open = flags;
    if (in_place_of_the_interface_file != nullptr) path = in_place_of_the_interface_file;
  }
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace {

using namespace tarn::test;
using testing::ElementsAre;

std::string number(int value) {
  return std::to_string(value);
}

Log_Line not_resolved(int status) {
  return debug_line("Domain_To_IP_Addr", "Can't getaddrinfo error! (" + number(status) + ")");
}

// What a resolver answers, address by address.
class Fake_Answer {
 public:
  void add(int family, const char *text) {
    entries_.emplace_back();
    Entry &entry = entries_.back();
    entry.raw.ai_family = family;
    entry.raw.ai_addr = reinterpret_cast<sockaddr *>(&entry.address);
    entry.raw.ai_addrlen = sizeof entry.address;
    entry.address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) inet_pton(family, text, &reinterpret_cast<sockaddr_in *>(&entry.address)->sin_addr);
    if (family == AF_INET6) inet_pton(family, text, &reinterpret_cast<sockaddr_in6 *>(&entry.address)->sin6_addr);
    if (entries_.size() > 1) entries_[entries_.size() - 2].raw.ai_next = &entry.raw;
  }

  addrinfo *list() { return &entries_.front().raw; }

 private:
  struct Entry {
    addrinfo raw = {};
    sockaddr_storage address = {};
  };

  std::deque<Entry> entries_;
};

class Addresses : public Descriptor_Count {
 protected:
  Addresses() {
    if (!on_a_throw_away_root()) throw std::runtime_error("to be run by tests/appliance");
    write_file("/etc/nsswitch.conf", "hosts: files\n");
  }
  ~Addresses() override { EXPECT_TRUE(calls_.all_lists_given_back()); }

  void answer_with(Fake_Answer *answer) {
    calls_.getaddrinfo = [=](const char *, const char *, const addrinfo *, addrinfo **list) {
      *list = answer->list();
      return 0;
    };
  }

  // Error 0: errno is left as it is.
  void fail_to_resolve(int result, int error) {
    calls_.getaddrinfo = [=](const char *, const char *, const addrinfo *, addrinfo **) {
      if (error != 0) errno = error;
      return result;
    };
  }

  Log_Capture log_;
  Network_Calls calls_;
};

// ---------------------------------------------------------------------------------------------------- name to address

constexpr unsigned int no_family = 4711;

class Resolving : public Addresses {
 protected:
  int resolve(const char *name) {
    auto text = std::make_unique<std::array<char, 46>>();  // no more than callers have
    strcpy(text->data(), "untouched");
    family_ = no_family;
    const int status = Domain_To_IP_Addr(name, text->data(), &family_);
    address_ = text->data();
    return status;
  }

  void expect_untouched() const {
    EXPECT_EQ(address_, "untouched");
    EXPECT_EQ(family_, no_family);
  }

  std::string address_;
  unsigned int family_;
};

TEST_F(Resolving, Refuses_missing_arguments_before_anything_is_done) {
  fail_to_resolve(EAI_NONAME, 0);
  char address[] = "untouched";
  unsigned int family = no_family;

  EXPECT_EQ(Domain_To_IP_Addr(nullptr, address, &family), -EINVAL);
  EXPECT_EQ(Domain_To_IP_Addr("127.0.0.1", nullptr, &family), -EINVAL);
  EXPECT_EQ(Domain_To_IP_Addr("127.0.0.1", address, nullptr), -EINVAL);

  EXPECT_STREQ(address, "untouched");
  EXPECT_EQ(family, no_family);
  EXPECT_EQ(log_.text(), "");
}

struct Name_Case {
  const char *name;
  const char *address;
  unsigned int family;
};

class Resolving_A_Name : public Resolving, public testing::WithParamInterface<Name_Case> {};

TEST_P(Resolving_A_Name, Gives_its_address_in_the_standard_form) {
  write_file("/etc/hosts", "10.9.8.7 tarn-nas tarn-nas.example\nfd00::00aB tarn-six\n");

  EXPECT_EQ(resolve(GetParam().name), 0);

  EXPECT_EQ(address_, GetParam().address);
  EXPECT_EQ(family_, GetParam().family);
  EXPECT_EQ(log_.text(), "");
}

INSTANTIATE_TEST_SUITE_P(
    Names, Resolving_A_Name,
    testing::Values(Name_Case{"127.0.0.1", "127.0.0.1", 2}, Name_Case{"255.255.255.255", "255.255.255.255", 2},
                    Name_Case{"10.1", "10.0.0.1", 2}, Name_Case{"0:0:0:0:0:0:0:1", "::1", 10},
                    Name_Case{"FD00:0::00Ab", "fd00::ab", 10}, Name_Case{"::FFFF:1.2.3.4", "::ffff:1.2.3.4", 10},
                    Name_Case{"1111:2222:3333:4444:5555:6666:7777:8888", "1111:2222:3333:4444:5555:6666:7777:8888", 10},
                    Name_Case{"fe80::1%lo", "fe80::1", 10}, Name_Case{"tarn-nas", "10.9.8.7", 2},
                    Name_Case{"tarn-nas.example", "10.9.8.7", 2}, Name_Case{"tarn-six", "fd00::ab", 10}));

TEST_F(Resolving, Asks_for_all_addresses_of_tcp) {
  Fake_Answer answer;
  answer.add(AF_INET, "10.0.0.1");
  int asked = 0;
  calls_.getaddrinfo = [&](const char *host, const char *service, const addrinfo *hints, addrinfo **list) {
    ++asked;
    EXPECT_STREQ(host, "some-name");
    EXPECT_STREQ(service, "0");
    EXPECT_EQ(hints->ai_flags, AI_ALL);
    EXPECT_EQ(hints->ai_family, AF_UNSPEC);
    EXPECT_EQ(hints->ai_socktype, SOCK_STREAM);
    EXPECT_EQ(hints->ai_protocol, IPPROTO_TCP);
    *list = answer.list();
    return 0;
  };

  EXPECT_EQ(resolve("some-name"), 0);
  EXPECT_EQ(asked, 1);
}

TEST_F(Resolving, Takes_the_first_address_only) {
  Fake_Answer ipv4_first, ipv6_first;
  ipv4_first.add(AF_INET, "10.0.0.1");
  ipv4_first.add(AF_INET6, "fd00::1");
  ipv6_first.add(AF_INET6, "fd00::2");
  ipv6_first.add(AF_INET, "10.0.0.2");

  answer_with(&ipv4_first);
  EXPECT_EQ(resolve("name"), 0);
  EXPECT_EQ(address_, "10.0.0.1");
  EXPECT_EQ(family_, 2U);

  answer_with(&ipv6_first);
  EXPECT_EQ(resolve("name"), 0);
  EXPECT_EQ(address_, "fd00::2");
  EXPECT_EQ(family_, 10U);
}

TEST_F(Resolving, Refuses_another_family_with_an_empty_text) {
  Fake_Answer answer;
  answer.add(AF_UNIX, "");
  answer.add(AF_INET, "10.0.0.1");
  answer_with(&answer);

  EXPECT_EQ(resolve("name"), -EFAULT);

  EXPECT_EQ(address_, "");
  EXPECT_EQ(family_, static_cast<unsigned int>(AF_UNIX));
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Domain_To_IP_Addr", "Unsupported family: 1")));
}

TEST_F(Resolving, Of_an_unknown_name_finds_no_route_to_it) {
  EXPECT_EQ(resolve("no-such-name.invalid"), -EHOSTUNREACH);
  expect_untouched();
  EXPECT_EQ(resolve(""), -EHOSTUNREACH);
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-113), not_resolved(-113)));
}

TEST_F(Resolving, With_an_unknown_scope_fails_with_the_resolvers_reason) {
  EXPECT_EQ(resolve("fe80::1%no-such"), -EINVAL);
  expect_untouched();
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-22)));
}

TEST_F(Resolving, That_fails_without_a_reason_is_not_given_an_earlier_one) {
  fail_to_resolve(EAI_NONAME, 0);
  errno = EBADF;
  EXPECT_EQ(resolve("name"), -EHOSTUNREACH);
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-113)));
}

TEST_F(Resolving, That_was_interrupted_finds_no_route) {
  fail_to_resolve(EAI_SYSTEM, EINTR);
  EXPECT_EQ(resolve("name"), -EHOSTUNREACH);
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-113)));
}

TEST_F(Resolving, Fails_with_the_resolvers_reason) {
  fail_to_resolve(EAI_AGAIN, EAGAIN);
  EXPECT_EQ(resolve("name"), -EAGAIN);
  expect_untouched();
  fail_to_resolve(EAI_MEMORY, ENOMEM);
  EXPECT_EQ(resolve("name"), -ENOMEM);
  expect_untouched();
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-11), not_resolved(-12)));
}

// ------------------------------------------------------------------------------------------------------- this machine

const Log_Line not_translated = error_line("Is_IP_Localhost", "Can't translate donaim to IP! (-113)");

class This_Machine : public Addresses {
 protected:
  This_Machine() { enter_fresh_network(); }

  // Without the debug lines of the scan.
  std::vector<Log_Line> own_lines() const {
    std::vector<Log_Line> lines = log_.lines();
    std::erase_if(lines, [](const Log_Line &line) { return line.function == "Scan_Network_Interface"; });
    return lines;
  }
};

TEST_F(This_Machine, Needs_a_name) {
  EXPECT_EQ(Is_IP_Localhost(nullptr), -EINVAL);
  EXPECT_EQ(Is_IP_Localhost(""), -EINVAL);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(This_Machine, Is_known_by_the_ipv4_address_of_any_interface) {
  make_pair("va", "vb");
  ip({"link set lo up", "address add 10.1.1.1/24 dev va", "address add 192.168.7.7/24 dev vb"});
  write_file("/etc/hosts", "192.168.7.7 tarn-nas\n192.168.7.8 tarn-other\n");

  EXPECT_EQ(Is_IP_Localhost("127.0.0.1"), 1);
  EXPECT_EQ(Is_IP_Localhost("10.1.1.1"), 1);
  EXPECT_EQ(Is_IP_Localhost("192.168.7.7"), 1);
  EXPECT_EQ(Is_IP_Localhost("tarn-nas"), 1);
  EXPECT_EQ(Is_IP_Localhost("tarn-other"), 0);
  EXPECT_EQ(Is_IP_Localhost("10.1.1.2"), 0);
  EXPECT_EQ(Is_IP_Localhost("127.0.0.2"), 0);
  EXPECT_EQ(own_lines(), std::vector<Log_Line>{});
}

// Callers depend on it: the comparison ends where the name's address ends.
TEST_F(This_Machine, Is_known_by_the_beginning_of_an_address) {
  make_pair("va", "vb");
  ip({"address add 10.0.0.12/24 dev va", "address add 10.7.7.1/24 dev vb"});

  EXPECT_EQ(Is_IP_Localhost("10.0.0.1"), 1);
  EXPECT_EQ(Is_IP_Localhost("10.0.0.12"), 1);
  EXPECT_EQ(Is_IP_Localhost("10.0.0.2"), 0) << "the beginning, not any part";
  EXPECT_EQ(Is_IP_Localhost("10.7.7.12"), 0) << "not the other way round";
}

TEST_F(This_Machine, Is_not_known_by_earlier_addresses_of_an_interface_with_several) {
  make_pair("va", "vb");
  ip({"address add 10.1.1.1/24 dev va", "address add 10.2.2.2/24 dev va"});
  EXPECT_EQ(Is_IP_Localhost("10.1.1.1"), 0);
  EXPECT_EQ(Is_IP_Localhost("10.2.2.2"), 1);
}

// Callers depend on it: the search for IPv6 addresses stays with the first interface.
TEST_F(This_Machine, Is_known_by_the_ipv6_addresses_of_the_first_interface_only) {
  make_pair("va", "vb");
  ip({"link set lo up", "address add fd00::12/128 dev lo nodad", "address add fd00::77/128 dev lo nodad",
      "address add 10.1.1.1/24 dev va", "address add fd00:1::1/64 dev va nodad"});

  EXPECT_EQ(Is_IP_Localhost("::1"), 1);
  EXPECT_EQ(Is_IP_Localhost("fd00::12"), 1);
  EXPECT_EQ(Is_IP_Localhost("FD00:0::77"), 1);
  EXPECT_EQ(Is_IP_Localhost("fd00::1"), 1) << "the beginning of an address";
  EXPECT_EQ(Is_IP_Localhost("fd00::123"), 0);
  EXPECT_EQ(Is_IP_Localhost("fd00:1::1"), 0) << "of the second interface";
  EXPECT_EQ(Is_IP_Localhost("::ffff:10.1.1.1"), 0);
  EXPECT_EQ(own_lines(), std::vector<Log_Line>{});
}

TEST_F(This_Machine, Is_known_by_the_ipv6_addresses_of_whatever_interface_comes_first) {
  make_pair("va", "vb");
  ip({"address add 10.1.1.1/24 dev va", "address add fd00:1::1/64 dev va nodad"});
  EXPECT_EQ(Is_IP_Localhost("fd00:1::1"), 1);
  EXPECT_EQ(Is_IP_Localhost("::1"), 0);
}

TEST_F(This_Machine, Is_not_known_by_interfaces_without_an_address) {
  ip({"link set lo up"});
  calls_.getifaddrs = [](ifaddrs **list) {
    *list = nullptr;
    return 0;
  };
  EXPECT_EQ(Is_IP_Localhost("127.0.0.1"), 0);
  EXPECT_EQ(Is_IP_Localhost("::1"), 0);
}

TEST_F(This_Machine, Is_not_known_by_a_name_that_does_not_resolve) {
  ip({"link set lo up"});
  EXPECT_EQ(Is_IP_Localhost("no-such-name.invalid"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(not_resolved(-113), not_translated));
}

TEST_F(This_Machine, Is_not_known_by_a_name_of_another_family) {
  Fake_Answer answer;
  answer.add(AF_UNIX, "");
  answer_with(&answer);
  ip({"link set lo up"});
  EXPECT_EQ(Is_IP_Localhost("name"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Domain_To_IP_Addr", "Unsupported family: 1"),
                                        error_line("Is_IP_Localhost", "Can't translate donaim to IP! (-14)")));
}

TEST_F(This_Machine, Is_not_known_when_its_interfaces_cannot_be_read) {
  calls_.getifaddrs = [](ifaddrs **) {
    errno = ENFILE;
    return -1;
  };
  EXPECT_EQ(Is_IP_Localhost("127.0.0.1"), 0);
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Is_IP_Localhost", "Can't get network interface! (-23)")));
}

TEST_F(This_Machine, Is_not_known_without_interfaces) {
  EXPECT_EQ(Is_IP_Localhost("127.0.0.1"), 0);
  EXPECT_EQ(Is_IP_Localhost("::1"), 0);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(This_Machine, Reports_why_it_is_not_known_at_error_level) {
  const Log_Capture errors(1);
  EXPECT_EQ(Is_IP_Localhost("no-such-name.invalid"), 0);
  EXPECT_THAT(errors.lines(), ElementsAre(not_translated));
}

// -------------------------------------------------------------------------------------------------------------- subnet

using Address = std::array<unsigned char, 16>;

Address address_of(const std::string &text) {
  Address bytes;
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) != 1) throw std::runtime_error(text);
  return bytes;
}

int compare(const std::string &a, const std::string &b, int prefix_length) {
  return IPv6_Check_Subnet(address_of(a).data(), address_of(b).data(), prefix_length);
}

TEST(Subnet, Of_two_addresses_is_compared_in_whole_bytes_and_the_prefix_lengths_two_low_bits) {
  for (int prefix = 1; prefix <= 128; ++prefix) {
    const int compared = prefix / 8 * 8 + prefix % 4;
    for (int bit = 0; bit < 128; ++bit) {
      const Address a = address_of("2001:db8:a5a5:5a5a:ff00:ff:1234:8765");
      Address b = a;
      b[bit / 8] = static_cast<unsigned char>(b[bit / 8] ^ (0x80 >> bit % 8));
      const int expected = bit < compared ? 113 : 0;
      EXPECT_EQ(IPv6_Check_Subnet(a.data(), b.data(), prefix), expected) << "/" << prefix << ", bit " << bit;
    }
  }
}

TEST(Subnet, Of_64_is_8_whole_bytes) {
  EXPECT_EQ(compare("fd00:0:0:1::1", "fd00:0:0:1:ffff::", 64), 0);
  EXPECT_EQ(compare("fd00:0:0:1::1", "fd00:0:0:2::1", 64), 113);
}

// The members compare subnets this way.
TEST(Subnet, Of_60_ignores_the_last_4_bits_and_of_62_looks_at_2_bits_of_the_last_byte) {
  EXPECT_EQ(compare("fd00:0:0:10::", "fd00:0:0:f0::", 60), 0);
  EXPECT_EQ(compare("fd00:0:0:100::", "fd00:0:0:200::", 60), 113);
  EXPECT_EQ(compare("fd00:0:0:10::", "fd00:0:0:3f::", 62), 0);
  EXPECT_EQ(compare("fd00:0:0:10::", "fd00:0:0:50::", 62), 113);
}

TEST(Subnet, Needs_two_addresses_and_a_prefix_length_from_1_to_128) {
  const Address address = address_of("::1");
  EXPECT_EQ(IPv6_Check_Subnet(nullptr, address.data(), 64), -EINVAL);
  EXPECT_EQ(IPv6_Check_Subnet(address.data(), nullptr, 64), -EINVAL);
  for (const int prefix : {0, 129, -1, 256, INT_MAX, INT_MIN}) {
    EXPECT_EQ(IPv6_Check_Subnet(address.data(), address.data(), prefix), -EINVAL) << prefix;
  }
  EXPECT_EQ(compare("::1", "::1", 1), 0);
  EXPECT_EQ(compare("::1", "::1", 128), 0);
}

// A page that nothing may touch lies behind each address.
TEST(Subnet, Of_128_looks_at_nothing_behind_the_addresses) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  unsigned char *ends[2];
  for (unsigned char *&end : ends) {
    void *pages = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    end = static_cast<unsigned char *>(pages) + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
  }

  EXPECT_EQ(IPv6_Check_Subnet(ends[0] - 16, ends[1] - 16, 128), 0);
  EXPECT_EQ(IPv6_Check_Subnet(ends[0] - 16, ends[1] - 16, 127), 0);
  ends[1][-1] = 1;
  EXPECT_EQ(IPv6_Check_Subnet(ends[0] - 16, ends[1] - 16, 128), 113);

  for (unsigned char *end : ends) munmap(end - page, 2 * page);
}

// ------------------------------------------------------------------------------------------------------------ scope id

constexpr unsigned int no_scope = 0xFFFFFFFF;

class Scope_Id : public Descriptor_Count {
 protected:
  ~Scope_Id() override { in_place_of_the_interface_file = nullptr; }

  // The status, and 4711 for an output that is not touched.
  std::tuple<int, unsigned int> scope_of(const std::string &address) const {
    unsigned int scope_id = 4711;
    const int status = IPv6_Get_Scope_Id(address_of(address).data(), &scope_id);
    return {status, scope_id};
  }

  std::tuple<int, unsigned int> scope_in(const std::string &content, const std::string &address) const {
    const std::string path = folder_ / "if_inet6";
    write_file(path, content);
    in_place_of_the_interface_file = path.c_str();
    const auto result = scope_of(address);
    in_place_of_the_interface_file = nullptr;
    return result;
  }

  static std::tuple<int, unsigned int> found(unsigned int scope_id) { return {0, scope_id}; }
  static std::tuple<int, unsigned int> not_found() { return {-ENODEV, no_scope}; }

  const Temporary_Folder folder_;
  const Log_Capture log_;
};

std::string hex(unsigned char byte) {
  char digits[3];
  snprintf(digits, sizeof digits, "%02x", byte);
  return digits;
}

// A line as the kernel writes it. Index and prefix length are text, for lines that it would not write.
std::string line(const std::string &address, const std::string &index, const std::string &prefix,
                 const std::string &name) {
  std::string text;
  for (const unsigned char byte : address_of(address)) text += hex(byte);
  return text + " " + index + " " + prefix + " 20 80 " + name + "\n";
}

const std::string loopback = line("::1", "01", "80", "      lo");
const std::string in_a = line("fd00:a::1", "02", "40", "    eth0");
const std::string in_b = line("fd00:b::1", "3e", "40", "    eth1");
const std::string in_c = line("fd00:c::1", "07", "40", "    eth2");

TEST_F(Scope_Id, Needs_an_address_and_an_output) {
  const Address address = address_of("::1");
  unsigned int scope_id = 4711;
  EXPECT_EQ(IPv6_Get_Scope_Id(nullptr, &scope_id), -EINVAL);
  EXPECT_EQ(IPv6_Get_Scope_Id(address.data(), nullptr), -EINVAL);
  EXPECT_EQ(scope_id, 4711U);
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scope_Id, Is_none_when_the_interfaces_cannot_be_opened) {
  const std::string missing = folder_ / "missing";
  in_place_of_the_interface_file = missing.c_str();
  EXPECT_EQ(scope_of("fd00:a::9"), not_found());
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug_line("IPv6_Get_Scope_Id", "Can't open /proc/net/if_inet6 for IPv6 interface!")));
}

TEST_F(Scope_Id, Is_none_when_nothing_can_be_read) {
  const Log_Line nothing = debug_line("IPv6_Get_Scope_Id", "No IPv6 interface available!");
  EXPECT_EQ(scope_in("", "fd00:a::9"), not_found());
  in_place_of_the_interface_file = "/proc/self/mem";  // reading it at 0 is an error
  EXPECT_EQ(scope_of("fd00:a::9"), not_found());
  EXPECT_THAT(log_.lines(), ElementsAre(nothing, nothing));
}

TEST_F(Scope_Id, Opens_the_file_for_reading_and_not_for_child_processes) {
  scope_in(in_a, "fd00:a::9");
  EXPECT_EQ(flags_of_the_last_open & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(flags_of_the_last_open & O_CLOEXEC, O_CLOEXEC);
}

TEST_F(Scope_Id, Is_that_of_the_first_subnet_that_holds_the_address) {
  EXPECT_EQ(scope_in(in_a + in_b + in_c, "fd00:a::9"), found(2));
  EXPECT_EQ(scope_in(in_a + in_b + in_c, "fd00:b::9"), found(0x3e));
  EXPECT_EQ(scope_in(loopback + in_b + line("fd00:b::2", "0f", "40", "eth9") + in_c, "fd00:b::9"), found(0x3e));
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scope_Id, Is_that_of_the_last_line_when_no_subnet_holds_the_address) {
  EXPECT_EQ(scope_in(in_a + in_b + in_c, "fd00:ffff::9"), found(7));
  EXPECT_EQ(scope_in(loopback + in_a, "2001:db8::1"), found(2));
  EXPECT_EQ(scope_in(in_a, "2001:db8::1"), found(2));
  EXPECT_EQ(scope_in(in_b + line("fd00:a::1", "02", "00", "eth0"), "2001:db8::1"), found(2)) << "with any prefix";
}

TEST_F(Scope_Id, Never_is_that_of_loopback) {
  EXPECT_EQ(scope_in(loopback, "::1"), not_found());
  EXPECT_EQ(scope_in(loopback + in_a, "::1"), found(2));
  EXPECT_EQ(scope_in(in_a + loopback, "fd00:a::9"), found(2));
  EXPECT_EQ(scope_in(in_a + loopback, "fd00:ffff::9"), not_found()) << "the last line is passed over and was the last";
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Scope_Id, Takes_no_other_name_for_loopback) {
  for (const char *name : {"lo0", "xlo", "l", "LO"}) {
    EXPECT_EQ(scope_in(line("fd00:a::1", "05", "40", name) + in_b, "fd00:a::9"), found(5)) << name;
  }
}

TEST_F(Scope_Id, Takes_the_last_field_of_a_line_for_the_name) {
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "40", "\tlo") + in_b, "fd00:a::9"), found(0x3e)) << "behind a tab";
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "40", "lo \t ") + in_b, "fd00:a::9"), found(0x3e)) << "before blanks";
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "40", "eth0 lo") + in_b, "fd00:a::9"), found(0x3e));
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "40", "lo eth0") + in_b, "fd00:a::9"), found(5));
}

TEST_F(Scope_Id, Passes_over_lines_of_44_characters_or_fewer) {
  const std::string of_44 = in_a.substr(0, 44) + "\n", of_45 = in_a.substr(0, 44) + "x\n";
  EXPECT_EQ(scope_in(of_44 + in_b, "fd00:a::9"), found(0x3e));
  EXPECT_EQ(scope_in(of_45 + in_b, "fd00:a::9"), found(2));
  EXPECT_EQ(scope_in(in_b + of_44, "fd00:a::9"), not_found());
  EXPECT_EQ(scope_in(in_b + of_45, "fd00:a::9"), found(2));
  EXPECT_EQ(scope_in("\n\n" + in_b + "\n", "fd00:a::9"), not_found());
  EXPECT_EQ(scope_in("\n", "fd00:a::9"), not_found());
}

TEST_F(Scope_Id, Does_not_see_a_line_without_an_end) {
  const std::string endless_b = in_b.substr(0, in_b.size() - 1);
  EXPECT_EQ(scope_in(endless_b, "fd00:b::9"), not_found());
  EXPECT_EQ(scope_in(in_a + endless_b, "fd00:b::9"), not_found()) << "nor is the line before it the last one";
  EXPECT_EQ(scope_in(in_a + endless_b, "fd00:a::9"), found(2));
}

TEST_F(Scope_Id, Passes_over_subnets_with_an_impossible_prefix_length) {
  for (const char *prefix : {"00", "81", "ff"}) {
    EXPECT_EQ(scope_in(line("fd00:a::1", "05", prefix, "eth0") + in_b, "fd00:a::1"), found(0x3e)) << prefix;
  }
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "80", "eth0") + in_b, "fd00:a::1"), found(5));
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "80", "eth0") + in_b, "fd00:a::2"), found(0x3e));
}

TEST_F(Scope_Id, Compares_subnets_as_all_members_do) {
  const std::string with_60 = line("fd00:0:0:10::", "05", "3c", "eth0");
  EXPECT_EQ(scope_in(with_60 + in_b, "fd00:0:0:f0::9"), found(5));
  EXPECT_EQ(scope_in(with_60 + in_b, "fd00:0:0:110::9"), found(0x3e));
}

TEST_F(Scope_Id, Reads_digits_of_both_cases_and_takes_others_for_zeros) {
  EXPECT_EQ(scope_in("FD00000A000000000000000000000001 aF 40 20 80 eth0\n" + in_b, "fd00:a::9"), found(0xaf));
  EXPECT_EQ(scope_in("fdxyg0-a/:`@G0000000000000000001 02 40 20 80 eth0\n" + in_b, "fd00:a::9"), found(2));
  EXPECT_EQ(scope_in(line("fd00:a::1", "g1", "40", "eth0"), "::"), found(1));
  EXPECT_EQ(scope_in(line("fd00:a::1", "2z", "40", "eth0"), "::"), found(0x20));
  EXPECT_EQ(scope_in(line("fd00:a::1", "2g", "40", "eth0"), "::"), found(0x20));
  EXPECT_EQ(scope_in(line("fd00:a::1", "2G", "40", "eth0"), "::"), found(0x20));
  EXPECT_EQ(scope_in(line("fd00:a::1", "05", "G8", "eth0") + in_b, "fdff::9"), found(5)) << "a prefix length of 8";
}

// The columns are fixed. Interfaces from 256 on have been found this way ever since.
TEST_F(Scope_Id, Reads_two_digits_of_an_index_of_three_and_a_prefix_length_that_always_holds) {
  EXPECT_EQ(scope_in(line("fd00:a::1", "1a3", "40", "eth0") + in_b, "2001:db8::1"), found(0x1a));
}

// The address of line i is fd01:i::1, its index i; each has 54 characters.
std::string many_lines(int count) {
  std::string text;
  for (unsigned char i = 1; i <= count; ++i) text += line("fd01:" + hex(i) + "::1", hex(i), "40", "    eth0");
  return text;
}

TEST_F(Scope_Id, Is_looked_for_in_the_first_1023_bytes) {
  EXPECT_EQ(scope_in(many_lines(18) + in_b, "fd01:12::9"), found(0x12)) << "the last whole line within";
  EXPECT_EQ(scope_in(many_lines(18) + in_b, "fd00:b::9"), not_found()) << "a line that is cut";
  EXPECT_EQ(scope_in(many_lines(25) + in_b, "fd00:ffff::9"), not_found());
}

TEST_F(Scope_Id, Is_that_of_the_line_that_ends_at_byte_1023_whatever_follows) {
  const std::string start = many_lines(18);
  const std::string of_51 = line("fd00:b::1", "3e", "40", "  eth"), of_52 = line("fd00:b::1", "3e", "40", "  eth1");
  ASSERT_EQ((start + of_51).size(), 1023U);
  EXPECT_EQ(scope_in(start + of_51 + in_c, "fd00:c::9"), found(0x3e));
  EXPECT_EQ(scope_in(start + of_52 + in_c, "fd00:c::9"), not_found()) << "one byte further it is cut";
}

class Real_Scope_Id : public Scope_Id {
 protected:
  Real_Scope_Id() { enter_fresh_network(); }
};

TEST_F(Real_Scope_Id, Is_none_where_no_interface_has_an_ipv6_address) {
  EXPECT_EQ(scope_of("fe80::1"), not_found());
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("IPv6_Get_Scope_Id", "No IPv6 interface available!")));
}

TEST_F(Real_Scope_Id, Is_none_where_there_is_loopback_only) {
  ip({"link set lo up"});
  EXPECT_EQ(scope_of("::1"), not_found());
  EXPECT_EQ(log_.text(), "");
}

TEST_F(Real_Scope_Id, Is_the_index_of_the_interface_in_the_addresss_subnet) {
  make_pair("va", "vb");
  ip({"address add fd00:a::1/64 dev va nodad", "address add fd00:b::1/64 dev vb nodad"});
  EXPECT_EQ(scope_of("fd00:a::9"), found(if_nametoindex("va")));
  EXPECT_EQ(scope_of("fd00:b::9"), found(if_nametoindex("vb")));
}

TEST_F(Real_Scope_Id, Of_a_link_local_address_is_the_interface_with_one) {
  make_pair("va", "vb");
  ip({"address add fe80::1/64 dev vb nodad"});
  EXPECT_EQ(scope_of("fe80::1234"), found(if_nametoindex("vb")));
}

}  // namespace
