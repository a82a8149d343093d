#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/command.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/log_capture.h"
#include "tests/support/network_calls.h"
#include "tests/support/own_network.h"
#include "tests/support/sockets.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int untouched = 777;

// Everything that the library opens, descriptors and lists of addresses, is given back.
class Sockets : public Descriptor_Count {
 protected:
  ~Sockets() override { EXPECT_TRUE(network.all_lists_given_back()) << "lists of addresses leak"; }

  // A negative error leaves errno as it is.
  void let_resolver_fail(int result, int error) {
    network.getaddrinfo = [=](const char *, const char *, const addrinfo *, addrinfo **) {
      if (error >= 0) errno = error;
      return result;
    };
  }

  Network_Calls network;
  Log_Capture log;
};

struct Question {
  std::string host;  // "(all)" for none
  std::string service;
  int flags, family, type, protocol;

  bool operator==(const Question &) const = default;
};

// Keeps what the resolver is asked, and answers that there is no such host.
Question question;
int keep_question(const char *host, const char *service, const addrinfo *hints, addrinfo **) {
  question = {host != nullptr ? host : "(all)",
              service,
              hints->ai_flags,
              hints->ai_family,
              hints->ai_socktype,
              hints->ai_protocol};
  return EAI_NONAME;
}

std::string text_of(int number) {
  return std::to_string(number);
}

std::string in_brackets(int status) {
  return "(" + text_of(status) + ")";
}

int option_of(int fd, int level, int name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << strerror(errno);
  return value;
}

int64_t time_out_of(int fd, int name) {  // microseconds
  timeval value = {-1, -1};
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, name, &value, &length), 0) << strerror(errno);
  return value.tv_sec * 1'000'000 + value.tv_usec;
}

bool closes_on_exec(int fd) {
  return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

bool blocks(int fd) {
  return (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
}

sockaddr_in6 address_of(int fd, int (*get)(int, sockaddr *, socklen_t *)) {
  sockaddr_in6 address = {};
  socklen_t length = sizeof address;
  EXPECT_EQ(get(fd, reinterpret_cast<sockaddr *>(&address), &length), 0) << strerror(errno);
  return address;
}

std::string text_of_address(const sockaddr_in6 &address) {
  char text[INET6_ADDRSTRLEN] = "";
  const auto &ipv4 = reinterpret_cast<const sockaddr_in &>(address);
  const void *const bytes = address.sin6_family == AF_INET ? static_cast<const void *>(&ipv4.sin_addr)
                                                           : static_cast<const void *>(&address.sin6_addr);
  return inet_ntop(address.sin6_family, bytes, text, sizeof text);
}

std::string local_address_of(int fd) {
  return text_of_address(address_of(fd, getsockname));
}

std::string peer_address_of(int fd) {
  return text_of_address(address_of(fd, getpeername));
}

// Adds lines to the root's own table of hosts while it lives.
class Host_Lines {
 public:
  explicit Host_Lines(const std::string &lines) {
    if (!on_a_throw_away_root()) throw std::logic_error("this changes /etc/hosts: run it by tests/appliance");
    write_file(path, before_ + lines);
  }
  ~Host_Lines() { write_file(path, before_); }
  Host_Lines(const Host_Lines &) = delete;
  Host_Lines &operator=(const Host_Lines &) = delete;

 private:
  static constexpr char path[] = "/etc/hosts";
  const std::string before_ = read_file(path);
};

// --------------------------------------------------------------------------------------------- TCP_Socket_Connect

class Connect_By_TCP : public Sockets {
 protected:
  int connect(const char *host, int to, int timeout_ms = 20'000) {
    fd = untouched;
    const int status = TCP_Socket_Connect(nullptr, host, to, timeout_ms, &fd);
    if (status == 0) ours = Descriptor(fd);
    return status;
  }

  Log_Line told(const std::string &text, int status) const {
    return debug_line("TCP_Socket_Connect", text + " " + in_brackets(status));
  }

  const Descriptor listener = listen_on_loopback(0);
  const int port = local_port_of(listener);
  int fd = untouched;
  Descriptor ours;
};

TEST_F(Connect_By_TCP, Reaches_the_listener) {
  ASSERT_EQ(connect("127.0.0.1", port), 0);

  const Descriptor theirs = accept_one(listener);
  send_text(theirs, "hello");
  EXPECT_EQ(receive_text(ours, 5), "hello");
  EXPECT_EQ(peer_address_of(fd), "127.0.0.1");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Connect_By_TCP, Refuses_missing_arguments_and_ports_below_1_and_leaves_the_out_argument_alone) {
  fd = untouched;

  EXPECT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", port, 1000, nullptr), -EINVAL);
  EXPECT_EQ(TCP_Socket_Connect(nullptr, nullptr, port, 1000, &fd), -EINVAL);
  EXPECT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", 0, 1000, &fd), -EINVAL);
  EXPECT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", -1, 1000, &fd), -EINVAL);
  EXPECT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", INT_MIN, 1000, &fd), -EINVAL);

  EXPECT_EQ(fd, untouched);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Connect_By_TCP, Gives_a_blocking_socket_without_delay_that_closes_on_exec) {
  ASSERT_EQ(connect("127.0.0.1", port), 0);

  EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_NODELAY), 1);
  EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
  EXPECT_TRUE(closes_on_exec(fd));
  EXPECT_TRUE(blocks(fd));
}

TEST_F(Connect_By_TCP, Keeps_the_time_out_on_the_socket_in_both_directions) {
  ASSERT_EQ(connect("127.0.0.1", port, 1500), 0);

  EXPECT_EQ(time_out_of(fd, SO_RCVTIMEO), 1'500'000);
  EXPECT_EQ(time_out_of(fd, SO_SNDTIMEO), 1'500'000);
}

class Connect_By_TCP_Without_A_Time_Out : public Connect_By_TCP, public testing::WithParamInterface<int> {};

TEST_P(Connect_By_TCP_Without_A_Time_Out, Takes_120_seconds) {
  ASSERT_EQ(connect("127.0.0.1", port, GetParam()), 0);

  EXPECT_EQ(time_out_of(fd, SO_RCVTIMEO), 120'000'000);
  EXPECT_EQ(time_out_of(fd, SO_SNDTIMEO), 120'000'000);
}

INSTANTIATE_TEST_SUITE_P(Zero_And_Below, Connect_By_TCP_Without_A_Time_Out, testing::Values(0, -1, -500, INT_MIN));

TEST_F(Connect_By_TCP, Asks_the_resolver_for_TCP_addresses_of_both_families) {
  network.getaddrinfo = keep_question;

  EXPECT_EQ(connect("nas2", 62695), -EHOSTUNREACH);

  EXPECT_EQ(question, (Question{"nas2", "62695", AI_ALL, AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP}));
}

struct Resolver_Failure {
  const char *label;
  int result;
  int error;  // errno of the resolver; -1: not set
  int status;
};

constexpr Resolver_Failure resolver_failures[] = {
    {"Without_errno", EAI_NONAME, -1, -EHOSTUNREACH},  {"With_errno_0", EAI_NONAME, 0, -EHOSTUNREACH},
    {"Interrupted", EAI_SYSTEM, EINTR, -EHOSTUNREACH}, {"Server_unreachable", EAI_AGAIN, EAGAIN, -EAGAIN},
    {"Out_of_memory", EAI_MEMORY, ENOMEM, -ENOMEM},
};

constexpr auto label_of = [](const auto &info) { return std::string(info.param.label); };

class Connect_By_TCP_To_An_Unknown_Host : public Connect_By_TCP,
                                          public testing::WithParamInterface<Resolver_Failure> {};

TEST_P(Connect_By_TCP_To_An_Unknown_Host, Answers_the_resolvers_errno_or_that_the_host_is_unreachable) {
  let_resolver_fail(GetParam().result, GetParam().error);
  errno = EIO;  // of an earlier call

  EXPECT_EQ(connect("nas9", port), GetParam().status);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't getaddrinfo error!", GetParam().status)));
}

INSTANTIATE_TEST_SUITE_P(Resolver, Connect_By_TCP_To_An_Unknown_Host, testing::ValuesIn(resolver_failures), label_of);

TEST_F(Connect_By_TCP, Fails_for_a_name_that_the_real_resolver_does_not_know) {
  const int status = connect("no-such-host.invalid", port);

  EXPECT_LT(status, 0);
  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't getaddrinfo error!", status)));
}

TEST_F(Connect_By_TCP, Tries_the_first_address_only) {
  const Host_Lines hosts("::1 tarn-both\n127.0.0.1 tarn-both\n");

  EXPECT_EQ(connect("tarn-both", port), -ECONNREFUSED) << "127.0.0.1 is the second one, and listens";

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't connect socket error!", -ECONNREFUSED)));
}

TEST_F(Connect_By_TCP, Fails_without_a_socket) {
  const Before_Call failing(System_Call::socket, 1, [] { return EMFILE; });

  EXPECT_EQ(connect("127.0.0.1", port), -EMFILE);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't create socket error!", -EMFILE)));
}

TEST_F(Connect_By_TCP, Fails_with_each_socket_option_that_the_kernel_refuses) {
  const std::string texts[] = {"Can't set TCP socket nodelay error! (-92)", "Can't set TCP recv timeout error: -92",
                               "Can't set TCP send timeout error: -92"};
  for (int nth = 1; nth <= 3; ++nth) {
    log.clear();
    const Before_Call failing(System_Call::setsockopt, nth, [] { return ENOPROTOOPT; });

    EXPECT_EQ(connect("127.0.0.1", port), -ENOPROTOOPT);

    EXPECT_EQ(fd, -1);
    EXPECT_THAT(log.lines(), ElementsAre(error_line("TCP_Socket_Connect", texts[nth - 1])));
  }
}

TEST_F(Connect_By_TCP, Comes_from_the_local_address) {
  ASSERT_EQ(TCP_Socket_Connect("127.0.0.7", "127.0.0.1", port, 20'000, &fd), 0);
  ours = Descriptor(fd);

  const Descriptor theirs = accept_one(listener);

  EXPECT_EQ(peer_address_of(theirs.get()), "127.0.0.7");
}

TEST_F(Connect_By_TCP, Fails_with_a_local_address_that_is_not_this_machines) {
  EXPECT_EQ(TCP_Socket_Connect("192.0.2.1", "127.0.0.1", port, 20'000, &fd), -EADDRNOTAVAIL);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't bind socket error!", -EADDRNOTAVAIL)));
}

// What comes of a socket that was bound to 255.255.255.255, as kernels differ about it.
int connect_from_the_broadcast_address(int port) {
  const Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = INADDR_BROADCAST;
  if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return -errno;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return -errno;
  return 0;
}

TEST_F(Connect_By_TCP, Leaves_a_local_address_that_is_none_to_the_kernel_as_255_255_255_255) {
  const int status = TCP_Socket_Connect("eth0", "127.0.0.1", port, 20'000, &fd);
  if (status == 0) ours = Descriptor(fd);

  EXPECT_EQ(status, connect_from_the_broadcast_address(port));
}

TEST_F(Connect_By_TCP, Fails_from_an_IPv4_address_to_an_IPv6_host) {
  EXPECT_EQ(TCP_Socket_Connect("127.0.0.1", "::1", port, 20'000, &fd), -EINVAL);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't bind socket error!", -EINVAL)));
}

TEST_F(Connect_By_TCP, Is_refused_where_nobody_listens) {
  EXPECT_EQ(connect("127.0.0.1", free_port()), -ECONNREFUSED);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't connect socket error!", -ECONNREFUSED)));
}

TEST_F(Connect_By_TCP, Gives_up_in_progress_when_the_host_does_not_answer_in_time) {
  const Descriptor deaf = listen_on_loopback(0, 0);  // takes one connection, and drops the requests for more
  const int deaf_port = local_port_of(deaf);
  ASSERT_EQ(connect("127.0.0.1", deaf_port), 0);
  const Descriptor first = std::move(ours);

  EXPECT_EQ(connect("127.0.0.1", deaf_port, 100), -EINPROGRESS);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't connect socket error!", -EINPROGRESS)));
}

TEST_F(Connect_By_TCP, Leaves_nothing_open_when_memory_ends) {
  with_each_allocation_failing([&] { return connect("127.0.0.1", port); },
                               [&](int status, int nth) {
                                 EXPECT_EQ(status, -ENOMEM) << "allocation " << nth;
                                 EXPECT_EQ(fd, -1);
                               });
}

TEST_F(Connect_By_TCP, Reports_no_debug_line_below_level_3) {
  g_idLogLevel = 2;

  EXPECT_EQ(connect("127.0.0.1", free_port()), -ECONNREFUSED);

  EXPECT_THAT(log.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------ the scope of IPv6 hosts

// In a child: this process sees the text as the kernel's table of IPv6 addresses.
void show_as_table(const std::string &table) {
  mount_tmpfs("/proc/self/net", "");
  write_file("/proc/self/net/if_inet6", table);
}

struct Consulting_Case {
  const char *label;
  const char *host;
  bool consults;
};

class Connect_By_TCP_To_An_IPv6_Host : public Sockets, public testing::WithParamInterface<Consulting_Case> {};

TEST_P(Connect_By_TCP_To_An_IPv6_Host, Consults_the_table_of_scopes_depending_on_the_hosts_text) {
  const Log_Line table_was_read = debug_line("IPv6_Get_Scope_Id", "No IPv6 interface available!");
  const Host_Lines hosts("::1 tarn-six\n");
  const int port = free_port();
  int listeners[3];
  ASSERT_EQ(TCP_Socket_Listen(nullptr, port, 5, listeners, 2), 0);
  const Descriptor first(listeners[0]), second(listeners[1]);

  EXPECT_EQ(in_child([&] {
              show_as_table("");
              int fd = -1;
              EXPECT_EQ(TCP_Socket_Connect(nullptr, GetParam().host, port, 20'000, &fd), 0)
                  << "a scope that is not found is no failure";
              const Descriptor socket(fd);
              EXPECT_EQ(log.lines(),
                        GetParam().consults ? std::vector<Log_Line>{table_was_read} : std::vector<Log_Line>{});
            }),
            0);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Connect_By_TCP_To_An_IPv6_Host,
                         testing::Values(Consulting_Case{"Loopback_text", "::1", false},
                                         Consulting_Case{"Loopback_in_full", "0:0:0:0:0:0:0:1", true},
                                         Consulting_Case{"Name_of_loopback", "tarn-six", true},
                                         Consulting_Case{"IPv4_in_IPv6", "::ffff:127.0.0.1", false},
                                         Consulting_Case{"IPv4_in_IPv6_upper_case", "::FFFF:127.0.0.1", false},
                                         Consulting_Case{"Explicit_scope", "::1%1", false},
                                         Consulting_Case{"IPv4", "127.0.0.1", false}),
                         label_of);

// A pair of interfaces, tarn-a (fe80::a) and tarn-b (fe80::b), joined with each other.
class Link_Local_Hosts : public Sockets {
 protected:
  Link_Local_Hosts() {
    if (!on_a_throw_away_root()) throw std::logic_error("this makes interfaces: run it by tests/appliance");
    make_pair("tarn-a", "tarn-b");
    ip({"address add fe80::a/64 dev tarn-a nodad", "address add fe80::b/64 dev tarn-b nodad"});
    index_of_a = if_nametoindex("tarn-a");
    listener_port = free_port();
    EXPECT_EQ(TCP_Socket_Listen("::", listener_port, 5, listeners, 1), 0);
  }
  ~Link_Local_Hosts() override {
    close(listeners[0]);
    ip({"link delete tarn-a"});
  }

  // A line of the kernel's table for fe80::/64.
  static std::string table_line(unsigned index, const std::string &name) {
    char line[100];
    snprintf(line, sizeof line, "fe800000000000000000000000000001 %02x 40 20 80 %8s\n", index, name.c_str());
    return line;
  }

  unsigned index_of_a = 0;
  int listener_port = 0;
  int listeners[2];
};

TEST_F(Link_Local_Hosts, Are_reached_through_the_interface_of_the_table) {
  EXPECT_EQ(in_child([&] {
              show_as_table(table_line(index_of_a, "tarn-a"));
              int fd = -1;
              ASSERT_EQ(TCP_Socket_Connect(nullptr, "fe80::b", listener_port, 20'000, &fd), 0);
              const Descriptor socket(fd);
              EXPECT_EQ(address_of(fd, getpeername).sin6_scope_id, index_of_a);
              EXPECT_THAT(log.lines(), IsEmpty());
            }),
            0);
}

TEST_F(Link_Local_Hosts, Are_reached_through_the_real_table) {
  int fd = -1;

  ASSERT_EQ(TCP_Socket_Connect(nullptr, "fe80::b", listener_port, 20'000, &fd), 0);

  const Descriptor socket(fd);
  EXPECT_NE(address_of(fd, getpeername).sin6_scope_id, 0u);
}

TEST_F(Link_Local_Hosts, Are_reached_through_the_scope_of_the_hosts_text_whatever_the_table_says) {
  EXPECT_EQ(in_child([&] {
              show_as_table(table_line(250, "tarn-a"));
              int fd = -1;
              ASSERT_EQ(TCP_Socket_Connect(nullptr, "fe80::b%tarn-a", listener_port, 20'000, &fd), 0);
              const Descriptor socket(fd);
              EXPECT_EQ(address_of(fd, getpeername).sin6_scope_id, index_of_a);
            }),
            0);
}

TEST_F(Link_Local_Hosts, Keep_scope_0_when_the_table_has_none) {
  EXPECT_EQ(in_child([&] {
              show_as_table("");
              int fd = -1;
              EXPECT_EQ(TCP_Socket_Connect(nullptr, "fe80::b", listener_port, 20'000, &fd), -EINVAL)
                  << "what the kernel says without a scope; to one that is no interface's it says another thing";
              EXPECT_EQ(fd, -1);
              EXPECT_THAT(log.lines(), Contains(debug_line("TCP_Socket_Connect", "Can't connect socket error! (-22)")));
            }),
            0);
}

// ---------------------------------------------------------------------------------------------- TCP_Socket_Listen

class Listen_By_TCP : public Sockets {
 protected:
  Listen_By_TCP() { std::fill(std::begin(fds), std::end(fds), untouched); }
  ~Listen_By_TCP() override { close_all(); }

  void close_all() {
    for (const int fd : sockets()) close(fd);
    fds[0] = -1;
  }

  int listen(const char *host, int capacity = 20, int backlog = 5) {
    return TCP_Socket_Listen(host, port, backlog, fds, capacity);
  }

  // What stands in the array before the -1.
  std::vector<int> sockets() const {
    std::vector<int> found;
    for (const int fd : fds) {
      if (fd == -1 || fd == untouched) break;
      found.push_back(fd);
    }
    return found;
  }

  static Log_Line told(const std::string &text, int status) {
    return error_line("TCP_Socket_Listen", text + " " + in_brackets(status));
  }

  const int port = free_port();
  int fds[30];
};

TEST_F(Listen_By_TCP, Takes_all_addresses_of_both_families_without_a_host) {
  ASSERT_EQ(listen(nullptr, 2), 0);

  ASSERT_EQ(sockets().size(), 2u);
  EXPECT_EQ(fds[2], -1) << "the end of the list needs a place of its own";
  EXPECT_EQ(fds[3], untouched);
  std::vector<std::string> addresses;
  for (const int fd : sockets()) addresses.push_back(local_address_of(fd));
  EXPECT_THAT(addresses, testing::UnorderedElementsAre("0.0.0.0", "::"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Listen_By_TCP, Gives_listening_sockets_with_these_options) {
  ASSERT_EQ(listen(nullptr, 2), 0);

  for (const int fd : sockets()) {
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(option_of(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    if (option_of(fd, SOL_SOCKET, SO_DOMAIN) == AF_INET6) {
      EXPECT_EQ(option_of(fd, IPPROTO_IPV6, IPV6_V6ONLY), 1);
    }
    EXPECT_TRUE(closes_on_exec(fd));
    EXPECT_TRUE(blocks(fd));
    EXPECT_EQ(local_port_of(Descriptor(fcntl(fd, F_DUPFD_CLOEXEC, 0))), port);
  }
}

TEST_F(Listen_By_TCP, Takes_the_addresses_of_the_host_only) {
  ASSERT_EQ(listen("127.0.0.1"), 0);

  ASSERT_EQ(sockets().size(), 1u);
  EXPECT_EQ(local_address_of(fds[0]), "127.0.0.1");
  EXPECT_EQ(fds[1], -1);
}

TEST_F(Listen_By_TCP, Listens_with_the_callers_backlog) {
  for (const int backlog : {1, 17, 128}) {
    ASSERT_EQ(listen("127.0.0.1", 1, backlog), 0);
    tcp_info state = {};
    socklen_t length = sizeof state;
    ASSERT_EQ(getsockopt(fds[0], IPPROTO_TCP, TCP_INFO, &state, &length), 0);
    EXPECT_EQ(state.tcpi_sacked, static_cast<unsigned>(backlog)) << "where the kernel tells a listener's backlog";
    close_all();
  }
}

TEST_F(Listen_By_TCP, Refuses_bad_arguments_and_leaves_the_array_alone) {
  EXPECT_EQ(TCP_Socket_Listen(nullptr, port, 0, fds, 2), -EINVAL);
  EXPECT_EQ(TCP_Socket_Listen(nullptr, port, -1, fds, 2), -EINVAL);
  EXPECT_EQ(TCP_Socket_Listen(nullptr, port, 129, fds, 2), -EINVAL);
  EXPECT_EQ(TCP_Socket_Listen(nullptr, 0, 5, fds, 2), -EINVAL);
  EXPECT_EQ(TCP_Socket_Listen(nullptr, -1, 5, fds, 2), -EINVAL);
  EXPECT_EQ(TCP_Socket_Listen(nullptr, port, 5, nullptr, 2), -EINVAL);

  EXPECT_EQ(fds[0], untouched);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Listen_By_TCP, Leaves_nothing_open_when_the_array_is_too_small) {
  EXPECT_EQ(listen(nullptr, 1), -ENOMEM);

  EXPECT_EQ(fds[0], -1);
  EXPECT_EQ(fds[2], untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told("Insufficient array buffer for socket!", -ENOMEM)));
  ASSERT_EQ(listen(nullptr, 2), 0) << "the port is free again";
}

TEST_F(Listen_By_TCP, Refuses_a_capacity_of_0) {
  EXPECT_EQ(listen("127.0.0.1", 0), -ENOMEM);

  EXPECT_EQ(fds[0], -1);
  EXPECT_EQ(fds[1], untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told("Insufficient array buffer for socket!", -ENOMEM)));
}

TEST_F(Listen_By_TCP, Refuses_a_capacity_below_0_and_writes_nothing) {
  EXPECT_EQ(listen("127.0.0.1", -1), -ENOMEM);
  EXPECT_EQ(listen("127.0.0.1", INT_MIN), -ENOMEM);

  EXPECT_EQ(fds[0], untouched);
  const Log_Line full = told("Insufficient array buffer for socket!", -ENOMEM);
  EXPECT_THAT(log.lines(), ElementsAre(full, full));
}

TEST_F(Listen_By_TCP, Resolves_before_it_looks_at_the_capacity) {
  let_resolver_fail(EAI_NONAME, 0);

  EXPECT_EQ(listen("nas9", 0), -EHOSTUNREACH);
}

TEST_F(Listen_By_TCP, Takes_every_address_of_a_name) {
  std::string lines;
  for (int i = 1; i <= 17; ++i) lines += "127.0.0." + text_of(i) + " tarn-many\n";
  const Host_Lines hosts(lines);

  ASSERT_EQ(listen("tarn-many", 17), 0);
  EXPECT_EQ(sockets().size(), 17u);
  EXPECT_EQ(fds[17], -1);
  EXPECT_EQ(fds[18], untouched);
  close_all();

  EXPECT_EQ(listen("tarn-many", 16), -ENOMEM);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(fds[i], -1) << i;
  EXPECT_THAT(log.lines(), ElementsAre(told("Insufficient array buffer for socket!", -ENOMEM)));
}

TEST_F(Listen_By_TCP, Asks_the_resolver_for_addresses_to_listen_on) {
  network.getaddrinfo = keep_question;

  EXPECT_EQ(listen(nullptr), -EHOSTUNREACH);

  EXPECT_EQ(question, (Question{"(all)", text_of(port), AI_PASSIVE, AF_UNSPEC, SOCK_STREAM, IPPROTO_TCP}));
}

class Listen_By_TCP_For_An_Unknown_Host : public Listen_By_TCP, public testing::WithParamInterface<Resolver_Failure> {};

TEST_P(Listen_By_TCP_For_An_Unknown_Host, Answers_the_resolvers_errno_or_that_the_host_is_unreachable) {
  let_resolver_fail(GetParam().result, GetParam().error);
  errno = EIO;  // of an earlier call

  EXPECT_EQ(listen("nas9"), GetParam().status);

  EXPECT_EQ(fds[0], -1);
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("TCP_Socket_Listen",
                                                  "Can't getaddrinfo error! " + in_brackets(GetParam().status))));
}

INSTANTIATE_TEST_SUITE_P(Resolver, Listen_By_TCP_For_An_Unknown_Host, testing::ValuesIn(resolver_failures), label_of);

TEST_F(Listen_By_TCP, Succeeds_with_no_socket_when_the_host_has_no_address) {
  network.getaddrinfo = [](const char *, const char *, const addrinfo *, addrinfo **found) {
    *found = nullptr;
    return 0;
  };

  EXPECT_EQ(listen("nas9"), 0);

  EXPECT_EQ(fds[0], -1);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Listen_By_TCP, Passes_over_an_address_that_is_taken) {
  const Descriptor taken = listen_on_loopback(port);

  ASSERT_EQ(listen(nullptr, 2), 0);

  ASSERT_EQ(sockets().size(), 1u);
  EXPECT_EQ(local_address_of(fds[0]), "::");
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't bind socket!", -EADDRINUSE)));
}

TEST_F(Listen_By_TCP, Passes_over_an_address_that_is_taken_without_taking_its_place_in_the_array) {
  const Descriptor taken = listen_on_loopback(port);
  const Host_Lines hosts("127.0.0.1 tarn-two\n127.0.0.2 tarn-two\n");

  ASSERT_EQ(listen("tarn-two", 1), 0);

  ASSERT_EQ(sockets().size(), 1u);
  EXPECT_EQ(local_address_of(fds[0]), "127.0.0.2");
}

TEST_F(Listen_By_TCP, Answers_the_last_failure_when_no_address_is_left) {
  const Host_Lines hosts("127.0.0.1 tarn-two\n127.0.0.2 tarn-two\n");
  int failures = 0;
  const Before_Call failing(System_Call::bind, Before_Call::every,
                            [&] { return ++failures == 1 ? EADDRINUSE : EADDRNOTAVAIL; });

  EXPECT_EQ(listen("tarn-two"), -EADDRNOTAVAIL);

  EXPECT_EQ(fds[0], -1);
  EXPECT_THAT(log.lines(),
              ElementsAre(told("Can't bind socket!", -EADDRINUSE), told("Can't bind socket!", -EADDRNOTAVAIL)));
}

TEST_F(Listen_By_TCP, Passes_over_an_address_without_a_socket) {
  const Before_Call failing(System_Call::socket, 1, [] { return EAFNOSUPPORT; });

  ASSERT_EQ(listen(nullptr, 2), 0);

  EXPECT_EQ(sockets().size(), 1u);
  EXPECT_THAT(log.lines(), ElementsAre(debug_line("TCP_Socket_Listen", "Can't create socket! (-97)")));
}

TEST_F(Listen_By_TCP, Remembers_that_there_was_no_socket) {
  const Before_Call failing(System_Call::socket, Before_Call::every, [] { return EMFILE; });

  EXPECT_EQ(listen(nullptr, 2), -EMFILE);

  EXPECT_EQ(fds[0], -1);
  const Log_Line line = debug_line("TCP_Socket_Listen", "Can't create socket! (-24)");
  EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(Listen_By_TCP, Passes_over_an_address_with_each_socket_option_that_the_kernel_refuses) {
  const std::string texts[] = {"Can't set socket reuse address!", "Can't set socket IPv6 only!",
                               "Can't set TCP socket nodelay!"};
  for (int nth = 1; nth <= 3; ++nth) {
    log.clear();
    const Before_Call failing(System_Call::setsockopt, nth, [] { return ENOPROTOOPT; });

    EXPECT_EQ(listen("::1"), -ENOPROTOOPT);

    EXPECT_EQ(fds[0], -1);
    EXPECT_THAT(log.lines(), ElementsAre(told(texts[nth - 1], -ENOPROTOOPT)));
  }
}

TEST_F(Listen_By_TCP, Goes_on_with_the_next_address_after_a_refused_option) {
  const Before_Call failing(System_Call::setsockopt, 1, [] { return ENOPROTOOPT; });

  ASSERT_EQ(listen(nullptr), 0);

  EXPECT_EQ(sockets().size(), 1u);
}

TEST_F(Listen_By_TCP, Gives_up_when_one_of_the_sockets_cannot_listen) {
  const Before_Call failing(System_Call::listen, 2, [] { return EADDRINUSE; });

  EXPECT_EQ(listen(nullptr), -EADDRINUSE);

  EXPECT_EQ(fds[0], -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't listen socket!", -EADDRINUSE)));
}

TEST_F(Listen_By_TCP, Gives_up_without_trying_the_next_address_when_the_first_socket_cannot_listen) {
  const Before_Call failing(System_Call::listen, 1, [] { return EADDRINUSE; });

  EXPECT_EQ(listen(nullptr), -EADDRINUSE);

  EXPECT_EQ(fds[0], -1);
  EXPECT_THAT(log.lines(), ElementsAre(told("Can't listen socket!", -EADDRINUSE)));
}

TEST_F(Listen_By_TCP, Takes_a_port_again_that_an_ended_connection_still_holds) {
  ASSERT_EQ(listen("127.0.0.1"), 0);
  {
    int fd = -1;
    ASSERT_EQ(TCP_Socket_Connect(nullptr, "127.0.0.1", port, 20'000, &fd), 0);
    const Descriptor client(fd);
    const Descriptor server(accept4(fds[0], nullptr, nullptr, SOCK_CLOEXEC));
    end_sending(server);  // the side that ends first keeps the port for a minute
    EXPECT_EQ(receive_text(client), "");
  }
  close_all();

  EXPECT_EQ(listen("127.0.0.1"), 0);
}

// Serves as many connections as there are sockets, each with what the visitor asked for as text.
void serve_each_socket(const std::vector<int> &sockets) {
  for (size_t served = 0; served < sockets.size(); ++served) {
    int ready_fd = -1;
    ASSERT_EQ(Is_Any_Socket_Ready(sockets.data(), static_cast<int>(sockets.size()), 20'000, &ready_fd, nullptr), 1);
    const Descriptor visitor(accept4(ready_fd, nullptr, nullptr, SOCK_CLOEXEC));
    std::string request;
    while (!request.ends_with("\r\n\r\n")) {
      const std::string byte = receive_text(visitor, 1);
      ASSERT_EQ(byte.size(), 1u) << request;
      request += byte;
    }
    const std::string body = local_address_of(visitor.get()) + "\n";
    send_text(visitor, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  }
}

TEST_F(Listen_By_TCP, Serves_curl_on_both_families) {
  ASSERT_EQ(listen(nullptr, 2), 0);
  auto curl = std::async(std::launch::async, [&] {
    return run_command("curl --silent --show-error --globoff --noproxy '*' http://127.0.0.1:" + text_of(port) +
                       "/ http://[::1]:" + text_of(port) + "/");
  });

  serve_each_socket(sockets());

  EXPECT_EQ(curl.get().output, "127.0.0.1\n::1\n");
}

// --------------------------------------------------------------------------------------------- local-domain sockets

class Local_Sockets : public Sockets {
 protected:
  int listen(const std::string &where, int nonblocking = 0) {
    fd = untouched;
    const int status = Domain_Socket_Listen(where.c_str(), &fd, nonblocking);
    if (status == 0) listener = Descriptor(fd);
    return status;
  }

  int connect(const std::string &where, int timeout_ms = 20'000) {
    client_fd = untouched;
    const int status = Domain_Socket_Connect(where.c_str(), &client_fd, timeout_ms);
    if (status == 0) client = Descriptor(client_fd);
    return status;
  }

  // In the folder; "/tmp/tarn-test-XXXXXX/ppp..."
  std::string path_of_length(size_t length) const {
    const std::string start = folder / "";
    return start + std::string(length - start.size(), 'p');
  }

  static Log_Line told_by_listen(const std::string &text) { return error_line("Domain_Socket_Listen", text); }
  static Log_Line told_by_connect(const std::string &text) { return error_line("Domain_Socket_Connect", text); }

  const Temporary_Folder folder;
  const std::string path = folder / "control";
  int fd = untouched;
  int client_fd = untouched;
  Descriptor listener;
  Descriptor client;
};

TEST_F(Local_Sockets, Listen_and_connect_with_each_other) {
  ASSERT_EQ(listen(path), 0);
  ASSERT_EQ(connect(path), 0);

  const Descriptor server = accept_one(listener);
  send_text(client, "ping");
  EXPECT_EQ(receive_text(server, 4), "ping");
  send_text(server, "pong");
  EXPECT_EQ(receive_text(client, 4), "pong");
  EXPECT_EQ(option_of(fd, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
  EXPECT_TRUE(closes_on_exec(fd));
  EXPECT_TRUE(closes_on_exec(client_fd));
  EXPECT_TRUE(blocks(client_fd));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Local_Sockets, Refuse_missing_arguments_and_leave_the_out_argument_alone) {
  int out = untouched;

  EXPECT_EQ(Domain_Socket_Listen(nullptr, &out, 0), -EINVAL);
  EXPECT_EQ(Domain_Socket_Listen(path.c_str(), nullptr, 0), -EINVAL);
  EXPECT_EQ(Domain_Socket_Listen(path.c_str(), &out, -1), -EINVAL);
  EXPECT_EQ(Domain_Socket_Connect(nullptr, &out, 0), -EINVAL);
  EXPECT_EQ(Domain_Socket_Connect(path.c_str(), nullptr, 0), -EINVAL);

  EXPECT_EQ(out, untouched);
  EXPECT_FALSE(exists(path));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Local_Sockets, Refuse_an_empty_path_which_would_be_no_file) {
  EXPECT_EQ(listen(""), -EINVAL);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(connect(""), -EINVAL);
  EXPECT_EQ(client_fd, untouched);
}

TEST_F(Local_Sockets, Take_a_path_of_107_characters) {
  const std::string longest = path_of_length(107);

  ASSERT_EQ(listen(longest), 0);

  EXPECT_THAT(names_in(folder.path()), ElementsAre(longest.substr(folder.path().size() + 1)));
  EXPECT_EQ(mode_of(longest), 0666u);
  EXPECT_EQ(connect(longest), 0);
}

class Local_Sockets_With_Too_Long_A_Path : public Local_Sockets, public testing::WithParamInterface<size_t> {};

TEST_P(Local_Sockets_With_Too_Long_A_Path, Refuse_it_and_remove_nothing) {
  const std::string too_long = path_of_length(GetParam());
  const std::string where_it_would_be_cut[] = {too_long, too_long.substr(0, 107), too_long.substr(0, 108)};
  for (const std::string &place : where_it_would_be_cut) write_file(place, "mine");
  const auto names_before = names_in(folder.path());

  EXPECT_EQ(listen(too_long), -ENAMETOOLONG);
  EXPECT_EQ(fd, -1);
  EXPECT_EQ(connect(too_long), -ENAMETOOLONG);
  EXPECT_EQ(client_fd, untouched);

  EXPECT_EQ(names_in(folder.path()), names_before);
  for (const std::string &place : where_it_would_be_cut) EXPECT_EQ(read_file(place), "mine");
}

INSTANTIATE_TEST_SUITE_P(Lengths, Local_Sockets_With_Too_Long_A_Path, testing::Values(108, 109, 200));

TEST_F(Local_Sockets, Listen_where_a_socket_was_left) {
  ASSERT_EQ(listen(path), 0);
  listener = Descriptor();
  ASSERT_TRUE(exists(path));

  ASSERT_EQ(listen(path), 0);

  EXPECT_EQ(connect(path), 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Local_Sockets, Listen_where_any_file_was) {
  write_file(path, "not a socket");

  ASSERT_EQ(listen(path), 0);

  EXPECT_EQ(connect(path), 0);
}

TEST_F(Local_Sockets, Let_every_user_connect_whatever_the_umask) {
  const mode_t before = umask(077);
  const int status = listen(path);
  umask(before);

  ASSERT_EQ(status, 0);
  EXPECT_EQ(mode_of(path), 0666u);
}

TEST_F(Local_Sockets, Listen_although_the_mode_cannot_be_changed) {
  const Before_Call failing(System_Call::chmod, 1, [] { return EROFS; });

  ASSERT_EQ(listen(path), 0);

  EXPECT_THAT(log.lines(), ElementsAre(told_by_listen("Can't chmod for " + path + "!(-30)")));
  EXPECT_EQ(connect(path), 0);
}

TEST_F(Local_Sockets, Listen_without_a_place_fails) {
  EXPECT_EQ(listen(folder / "missing" + "/control"), -ENOENT);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), Contains(told_by_listen("Bind domain socket error!(-2)")));
}

TEST_F(Local_Sockets, Listen_where_a_folder_is_fails) {
  EXPECT_EQ(listen(folder.path()), -EADDRINUSE);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), Contains(told_by_listen("Bind domain socket error!(-98)")));
}

TEST_F(Local_Sockets, Listen_without_a_socket_fails) {
  const Before_Call failing(System_Call::socket, 1, [] { return EMFILE; });

  EXPECT_EQ(listen(path), -EMFILE);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_listen("Create socket error!(-24)")));
}

TEST_F(Local_Sockets, Listen_fails_with_the_kernels_listen) {
  const Before_Call failing(System_Call::listen, 1, [] { return EOPNOTSUPP; });

  EXPECT_EQ(listen(path), -EOPNOTSUPP);

  EXPECT_EQ(fd, -1);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_listen("Listen domain error!(-95)")));
}

TEST_F(Local_Sockets, Listen_blocking_or_not_as_told) {
  ASSERT_EQ(listen(path, 0), 0);
  EXPECT_TRUE(blocks(fd));
  ASSERT_EQ(listen(path, 1), 0);
  EXPECT_FALSE(blocks(fd));
  ASSERT_EQ(listen(path, 7), 0);
  EXPECT_FALSE(blocks(fd));
}

TEST_F(Local_Sockets, Listen_blocking_when_it_cannot_be_otherwise) {
  const Before_Call failing(System_Call::fcntl, 2, [] { return EPERM; });

  ASSERT_EQ(listen(path, 1), 0);

  EXPECT_TRUE(blocks(fd));
  EXPECT_THAT(log.lines(), ElementsAre(error_line("Domain_Sock_Set_Nonblocking", "Set fcntl error!(-1)"),
                                       told_by_listen("Can't set domain socket non-blocking! (-1)")));
}

// Connects without waiting until nobody more is taken in.
std::vector<Descriptor> fill_the_queue_of(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size());
  std::vector<Descriptor> clients;
  for (;;) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return clients;
    clients.push_back(std::move(socket));
  }
}

TEST_F(Local_Sockets, Let_129_clients_wait_as_a_backlog_of_128_does) {
  ASSERT_EQ(listen(path), 0);

  EXPECT_EQ(fill_the_queue_of(path).size(), 129u);
}

TEST_F(Local_Sockets, Connect_keeps_the_time_out_on_the_socket_in_both_directions) {
  ASSERT_EQ(listen(path), 0);

  ASSERT_EQ(connect(path, 2500), 0);

  EXPECT_EQ(time_out_of(client_fd, SO_RCVTIMEO), 2'500'000);
  EXPECT_EQ(time_out_of(client_fd, SO_SNDTIMEO), 2'500'000);
}

TEST_F(Local_Sockets, Connect_takes_0_as_no_time_out) {
  ASSERT_EQ(listen(path), 0);

  ASSERT_EQ(connect(path, 0), 0);

  EXPECT_EQ(time_out_of(client_fd, SO_RCVTIMEO), 0);
  EXPECT_EQ(time_out_of(client_fd, SO_SNDTIMEO), 0);
}

TEST_F(Local_Sockets, Connect_fails_where_nothing_is) {
  EXPECT_EQ(connect(path), -ENOENT);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Connect domain socket error!(-2)")));
}

TEST_F(Local_Sockets, Connect_is_refused_where_nobody_listens_any_more) {
  ASSERT_EQ(listen(path), 0);
  listener = Descriptor();

  EXPECT_EQ(connect(path), -ECONNREFUSED);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Connect domain socket error!(-111)")));
}

TEST_F(Local_Sockets, Connect_gives_up_when_it_is_not_taken_in_in_time) {
  ASSERT_EQ(listen(path), 0);
  const auto waiting = fill_the_queue_of(path);

  EXPECT_EQ(connect(path, 100), -EAGAIN);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Connect domain socket error!(-11)")));
}

TEST_F(Local_Sockets, Connect_without_a_socket_fails) {
  const Before_Call failing(System_Call::socket, 1, [] { return EMFILE; });

  EXPECT_EQ(connect(path), -EMFILE);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Create domain socket error!(-24)")));
}

// Callers know the socket to stay open after these two failures; it is the highest descriptor then.
void close_the_socket_that_stayed(int descriptors_before) {
  ASSERT_EQ(open_descriptors(), descriptors_before + 1);
  const Descriptor next(dup(0));
  const int candidate = next.get() - 1;
  EXPECT_EQ(option_of(candidate, SOL_SOCKET, SO_DOMAIN), AF_UNIX);
  EXPECT_EQ(close(candidate), 0);
}

TEST_F(Local_Sockets, Connect_leaves_the_socket_open_when_the_receive_time_out_is_refused) {
  ASSERT_EQ(listen(path), 0);
  const int before = open_descriptors();

  EXPECT_EQ(connect(path, -500), -EDOM);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Set domain socket recv timeout error!(-33)")));
  close_the_socket_that_stayed(before);
}

TEST_F(Local_Sockets, Connect_leaves_the_socket_open_when_the_send_time_out_is_refused) {
  ASSERT_EQ(listen(path), 0);
  const int before = open_descriptors();
  const Before_Call failing(System_Call::setsockopt, 2, [] { return EDOM; });

  EXPECT_EQ(connect(path), -EDOM);

  EXPECT_EQ(client_fd, untouched);
  EXPECT_THAT(log.lines(), ElementsAre(told_by_connect("Set domain socket send timeout error!(-33)")));
  close_the_socket_that_stayed(before);
}

TEST_F(Local_Sockets, Connect_takes_whole_negative_seconds_as_no_time_at_all) {
  ASSERT_EQ(listen(path), 0);

  ASSERT_EQ(connect(path, -2000), 0);

  char byte;
  EXPECT_EQ(recv(client_fd, &byte, 1, 0), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Local_Sockets, Speak_with_socat) {
  ASSERT_EQ(listen(path), 0);
  auto socat = std::async(std::launch::async,
                          [&] { return run_command("printf question | socat -t 20 - UNIX-CONNECT:" + path); });

  const Descriptor server = accept_one(listener);
  EXPECT_EQ(receive_text(server), "question");
  send_text(server, "answer");
  end_sending(server);

  EXPECT_EQ(socat.get(), (Command_Result{0, "answer"}));
}

TEST_F(Local_Sockets, Connect_to_socat) {
  auto socat = std::async(std::launch::async, [&] { return run_command("socat UNIX-LISTEN:" + path + " PIPE"); });
  int status = -ENOENT;
  for (int tries = 0; tries < 2000 && (status == -ENOENT || status == -ECONNREFUSED); ++tries) {
    Sleep_MSec(10);
    status = connect(path);
  }

  ASSERT_EQ(status, 0);
  send_text(client, "echo");
  EXPECT_EQ(receive_text(client, 4), "echo");
  client = Descriptor();
  EXPECT_EQ(socat.get().status, 0);
}

TEST_F(Local_Sockets, Become_nonblocking_and_keep_their_other_flags) {
  const Descriptor file(open((folder / "file").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600));

  ASSERT_EQ(Domain_Sock_Set_Nonblocking(file.get()), 0);

  EXPECT_FALSE(blocks(file.get()));
  EXPECT_NE(fcntl(file.get(), F_GETFL) & O_APPEND, 0);
  EXPECT_EQ(Domain_Sock_Set_Nonblocking(file.get()), 0) << "once more does no harm";
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Local_Sockets, Become_nonblocking_fails_for_a_closed_descriptor) {
  EXPECT_EQ(Domain_Sock_Set_Nonblocking(-1), -EBADF);
  EXPECT_EQ(Domain_Sock_Set_Nonblocking(900), -EBADF);

  const Log_Line line = error_line("Domain_Sock_Set_Nonblocking", "Get fcntl error!(-9)");
  EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(Local_Sockets, Become_nonblocking_fails_when_the_flags_cannot_be_set) {
  ASSERT_EQ(listen(path), 0);
  const Before_Call failing(System_Call::fcntl, 2, [] { return EPERM; });

  EXPECT_EQ(Domain_Sock_Set_Nonblocking(fd), -EPERM);

  EXPECT_THAT(log.lines(), ElementsAre(error_line("Domain_Sock_Set_Nonblocking", "Set fcntl error!(-1)")));
}

// ----------------------------------------------------------------------------------------------------------- waits

// Descriptors beyond what select can take may be opened while this lives.
class Many_Descriptors {
 public:
  Many_Descriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit many = {4096, std::max<rlim_t>(before_.rlim_max, 4096)};
    if (setrlimit(RLIMIT_NOFILE, &many) != 0) throw std::runtime_error("no 4096 descriptors");
  }
  ~Many_Descriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
  Many_Descriptors(const Many_Descriptors &) = delete;
  Many_Descriptors &operator=(const Many_Descriptors &) = delete;

 private:
  rlimit before_;
};

// Comes after a time without a restart of the interrupted call.
class Alarm {
 public:
  Alarm() {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &before_);
    const itimerval soon = {{0, 20'000}, {0, 20'000}};  // again and again: the first may come before the wait
    setitimer(ITIMER_REAL, &soon, nullptr);
  }
  ~Alarm() {
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    sigaction(SIGALRM, &before_, nullptr);
  }
  Alarm(const Alarm &) = delete;
  Alarm &operator=(const Alarm &) = delete;

 private:
  struct sigaction before_;
};

struct Wait_Case {
  const char *label;
  int (*wait)(int fd, int timeout_ms);
  bool for_sending;
  int lowest_fd;  // the descriptors that are waited for
};

// Every wait, with a descriptor that select could take and with one that it could not.
class Wait : public Sockets, public testing::WithParamInterface<Wait_Case> {
 protected:
  int wait(const Descriptor &socket, int timeout_ms = 20'000) {
    const Descriptor waited_for(fcntl(socket.get(), F_DUPFD_CLOEXEC, GetParam().lowest_fd));
    EXPECT_GE(waited_for.get(), GetParam().lowest_fd);
    return GetParam().wait(waited_for.get(), timeout_ms);
  }

  // Ready for the wait at hand, or not ready.
  void make_ready() {
    if (!GetParam().for_sending) send_text(connection.theirs, "x");
  }
  void make_busy() {
    if (GetParam().for_sending) fill(connection.ours);
  }

  const Many_Descriptors many;
  Connection connection = local_connection();
};

TEST_P(Wait, Answers_1_when_ready) {
  make_ready();

  EXPECT_EQ(wait(connection.ours), 1);
  EXPECT_EQ(wait(connection.ours, 0), 1);
  EXPECT_EQ(wait(connection.ours, INT_MAX), 1);
}

TEST_P(Wait, Answers_0_when_not_ready_in_time) {
  make_busy();

  EXPECT_EQ(wait(connection.ours, 0), 0);
  EXPECT_EQ(wait(connection.ours, 50), 0);
}

TEST_P(Wait, Sees_what_comes_while_it_waits) {
  make_busy();
  auto peer = std::async(std::launch::async, [&] {
    Sleep_MSec(50);
    if (GetParam().for_sending) {
      std::vector<char> block(1 << 20);
      while (recv(connection.theirs.get(), block.data(), block.size(), MSG_DONTWAIT) > 0) {
      }
    } else {
      send_text(connection.theirs, "x");
    }
  });

  EXPECT_EQ(wait(connection.ours), 1);
}

TEST_P(Wait, Answers_1_when_the_peer_has_closed) {
  connection.theirs = Descriptor();

  EXPECT_EQ(wait(connection.ours), 1);
}

TEST_P(Wait, Answers_1_when_the_peer_has_reset_the_connection) {
  connection = tcp_connection();
  reset(&connection.theirs);

  EXPECT_EQ(wait(connection.ours), 1);
}

TEST_P(Wait, Looks_at_its_own_direction_only) {
  if (GetParam().for_sending) {
    fill(connection.ours);
    send_text(connection.theirs, "x");
  }

  EXPECT_EQ(wait(connection.ours, 0), 0);
}

TEST_P(Wait, Takes_a_file_for_ready) {
  const Temporary_Folder folder;
  const Descriptor file(open((folder / "file").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));

  EXPECT_EQ(wait(file), 1);
}

TEST_P(Wait, Refuses_a_closed_descriptor) {
  EXPECT_EQ(GetParam().wait(GetParam().lowest_fd + 900, 20'000), -EBADF);
  EXPECT_EQ(GetParam().wait(-1, 20'000), -EBADF);
  EXPECT_EQ(GetParam().wait(INT_MIN, 20'000), -EBADF);
}

TEST_P(Wait, Refuses_a_negative_time_out) {
  make_ready();

  EXPECT_EQ(wait(connection.ours, -1), -EINVAL);
  EXPECT_EQ(wait(connection.ours, INT_MIN), -EINVAL);
}

TEST_P(Wait, Answers_that_a_signal_came) {
  make_busy();
  const Alarm alarm;

  EXPECT_EQ(wait(connection.ours), -EINTR);
}

TEST_P(Wait, Reports_nothing) {
  make_busy();
  wait(connection.ours, 0);
  GetParam().wait(-1, 0);
  wait(connection.ours, -1);

  EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Each, Wait,
                         testing::Values(Wait_Case{"Socket_to_receive", Is_Socket_Ready_To_Recv, false, 0},
                                         Wait_Case{"Socket_to_send", Is_Socket_Ready_To_Send, true, 0},
                                         Wait_Case{"Descriptor_to_read", Is_FD_Ready_To_Read, false, 0},
                                         Wait_Case{"Socket_to_receive_1024", Is_Socket_Ready_To_Recv, false, 1024},
                                         Wait_Case{"Socket_to_receive_2000", Is_Socket_Ready_To_Recv, false, 2000},
                                         Wait_Case{"Socket_to_send_2000", Is_Socket_Ready_To_Send, true, 2000},
                                         Wait_Case{"Descriptor_to_read_2000", Is_FD_Ready_To_Read, false, 2000}),
                         label_of);

TEST_F(Sockets, Is_FD_Ready_To_Read_takes_a_pipe) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);

  EXPECT_EQ(Is_FD_Ready_To_Read(reading.get(), 0), 0);
  writing = Descriptor();
  EXPECT_EQ(Is_FD_Ready_To_Read(reading.get(), 20'000), 1) << "the end of the stream is something to read";
}

// -------------------------------------------------------------------------------------------- Is_Any_Socket_Ready

class Any_Of_Several : public Sockets {
 protected:
  explicit Any_Of_Several(size_t count = 16) {
    for (size_t i = 0; i < count; ++i) {
      connections.push_back(local_connection());
      fds.push_back(connections[i].ours.get());
    }
  }

  int wait(int timeout_ms = 20'000) {
    return Is_Any_Socket_Ready(fds.data(), static_cast<int>(fds.size()), timeout_ms, &ready_fd, &index);
  }

  void expect_ready(int place, int timeout_ms = 20'000) {
    EXPECT_EQ(wait(timeout_ms), 1);
    EXPECT_EQ(index, place);
    EXPECT_EQ(ready_fd, fds[static_cast<size_t>(place)]);
  }

  std::vector<Connection> connections;
  std::vector<int> fds;
  int ready_fd = untouched;
  int index = untouched;
};

TEST_F(Any_Of_Several, Is_found_wherever_it_stands) {
  for (int place = 0; place < 16; ++place) {
    const Connection &connection = connections[static_cast<size_t>(place)];
    send_text(connection.theirs, "x");

    expect_ready(place);

    receive_text(connection.ours, 1);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Any_Of_Several, Is_the_first_one_in_the_array) {
  send_text(connections[11].theirs, "x");
  send_text(connections[5].theirs, "x");

  expect_ready(5, 0);
}

TEST_F(Any_Of_Several, Is_none_in_time) {
  EXPECT_EQ(wait(0), 0);
  EXPECT_EQ(wait(50), 0);

  EXPECT_EQ(ready_fd, untouched);
  EXPECT_EQ(index, untouched);
}

TEST_F(Any_Of_Several, Is_seen_when_it_becomes_ready_during_the_wait) {
  auto peer = std::async(std::launch::async, [&] {
    Sleep_MSec(50);
    send_text(connections[3].theirs, "x");
  });

  expect_ready(3);
}

TEST_F(Any_Of_Several, Is_ready_when_its_peer_hung_up) {
  connections[7].theirs = Descriptor();

  expect_ready(7);
}

TEST_F(Any_Of_Several, Is_ready_when_its_connection_was_reset) {
  connections[7] = tcp_connection();
  fds[7] = connections[7].ours.get();
  reset(&connections[7].theirs);

  expect_ready(7);
}

TEST_F(Any_Of_Several, Is_ready_when_it_is_a_pipe_that_nobody_reads) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const Descriptor writing(ends[1]);
  fds[7] = ends[1];
  EXPECT_EQ(wait(0), 0) << "room to write is not waited for";
  close(ends[0]);

  expect_ready(7);
}

TEST_F(Any_Of_Several, Is_ready_when_it_is_closed) {
  fds[9] = 900;

  expect_ready(9, 0);
}

TEST_F(Any_Of_Several, Is_never_a_negative_descriptor) {
  fds[0] = -1;
  fds[1] = INT_MIN;
  send_text(connections[2].theirs, "x");

  expect_ready(2);
}

TEST_F(Any_Of_Several, May_have_a_high_number) {
  const Many_Descriptors many;
  const Descriptor high(fcntl(fds[4], F_DUPFD_CLOEXEC, 2000));
  fds[4] = high.get();
  send_text(connections[4].theirs, "x");

  expect_ready(4);
}

TEST_F(Any_Of_Several, Needs_no_index) {
  send_text(connections[2].theirs, "x");

  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 16, 20'000, &ready_fd, nullptr), 1);

  EXPECT_EQ(ready_fd, fds[2]);
}

TEST_F(Any_Of_Several, Is_looked_for_among_count_descriptors_only) {
  send_text(connections[3].theirs, "x");

  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 3, 0, &ready_fd, &index), 0);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data() + 3, 1, 0, &ready_fd, &index), 1);
  EXPECT_EQ(index, 0);
}

TEST_F(Any_Of_Several, Refuses_bad_arguments_and_leaves_the_out_arguments_alone) {
  send_text(connections[0].theirs, "x");
  fds.push_back(fds[0]);

  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 17, 0, &ready_fd, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 0, 0, &ready_fd, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), -1, 0, &ready_fd, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(nullptr, 1, 0, &ready_fd, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 1, 0, nullptr, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 1, -1, &ready_fd, &index), -EINVAL);
  EXPECT_EQ(Is_Any_Socket_Ready(fds.data(), 1, INT_MIN, &ready_fd, &index), -EINVAL);

  EXPECT_EQ(ready_fd, untouched);
  EXPECT_EQ(index, untouched);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Any_Of_Several, Answers_that_a_signal_came) {
  const Alarm alarm;

  EXPECT_EQ(wait(), -EINTR);

  EXPECT_EQ(ready_fd, untouched);
}

TEST_F(Any_Of_Several, Answers_the_kernels_failure) {
  const Before_Call failing(System_Call::poll, 1, [] { return ENOMEM; });

  EXPECT_EQ(wait(), -ENOMEM);
}

}  // namespace
