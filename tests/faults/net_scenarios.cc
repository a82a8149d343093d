// Addresses, sockets, exact transfers and interfaces.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/faults/families.h"
#include "tests/support/own_network.h"
#include "tests/support/sockets.h"

namespace tarn::test {
namespace {

constexpr char message[] = "exactly this";
constexpr int message_length = sizeof message - 1;
constexpr int timeout_ms = 2000;
constexpr int64_t file_length = 20'000;

constexpr char local_name[] = "tarn-faults.example";
constexpr unsigned char ipv6_address[16] = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};

void make_name(World &) {
  write_file("/etc/hosts", std::string("127.0.0.1 localhost ") + local_name + "\n");
}

// Beside "lo", once for the whole program.
void make_interface(World &) {
  static const bool made = [] {
    ip({"link add tarn0 index 50 type veth peer name tarn1 index 51", "link set tarn0 addrgenmode none",
        "address add 10.1.2.3/24 dev tarn0", "address add fd00::1/64 dev tarn0 nodad",
        "address add fd00::2/64 dev tarn0 nodad", "address add fd00::3/64 dev tarn0 nodad", "link set tarn0 up"});
    return true;
  }();
  (void)made;
}

// What a scan may find when something fails: an interface is passed over, or the list ends before it, or its IPv6
// addresses end early.
std::vector<std::string> lesser_lists() {
  const std::vector<std::string> first = {"", "lo 127.0.0.1/8;", "lo 127.0.0.1/8 ::1/128;"};
  std::vector<std::string> second = {""};
  std::string text = "tarn0 10.1.2.3/24";
  for (const char *address : {" fd00::3/64", " fd00::2/64", " fd00::1/64", ""}) {
    second.push_back(text + ";");
    text += address;
  }
  std::vector<std::string> lists;
  for (const std::string &one : first) {
    for (const std::string &other : second) lists.push_back(one + other);
  }
  return lists;
}

void listen_for(World &w) {
  w.given_fd = listen_on_loopback(0);
  w.port = local_port_of(w.given_fd);
}
void listen_for_ipv6(World &w) {
  int fds[2];
  w.port = free_port();
  TCP_Socket_Listen("::1", w.port, 1, fds, 1);
  w.given_fd = Descriptor(fds[0]);
}
void listen_locally(World &w) {
  int fd = -1;
  Domain_Socket_Listen(w.socket_path.c_str(), &fd, 0);
  w.given_fd = Descriptor(fd);
}
void leave_stale_socket(World &w) {
  listen_locally(w);
  w.given_fd = Descriptor();
}
void choose_port(World &w) {
  w.port = free_port();
}
void connect_pair(World &w) {
  Connection connection = local_connection();
  w.given_fd = std::move(connection.ours);
  w.far_end = std::move(connection.theirs);
}
void connect_pair_with_message(World &w) {
  connect_pair(w);
  send_text(w.far_end, message);
}
void connect_pair_with_file(World &w) {
  connect_pair(w);
  send_text(w.far_end, std::string(file_length, 'x'));
  w.source_fd = Descriptor(open(w.path(), O_WRONLY | O_CLOEXEC));
}

int connect_from(World &w, const char *local_address, const char *host) {
  return TCP_Socket_Connect(local_address, host, w.port, timeout_ms, &w.socket);
}
int listen_at_path(World &w) {
  return Domain_Socket_Listen(w.socket_path.c_str(), &w.socket, 1);
}

}  // namespace

std::vector<Scenario> addresses() {
  const auto resolve = [](World &w, const char *name) {
    unsigned int family = 0;
    const int status = Domain_To_IP_Addr(name, w.buffer, &family);
    return w.size = static_cast<int>(family), status;
  };
  return {
      in_memory(
          "Domain_To_IP_Addr", nullptr, [=](World &w) { return resolve(w, "10.0.0.1"); }, "10.0.0.1/2"),
      {.function = "Domain_To_IP_Addr",
       .situation = "of a name",
       .prepare = make_name,
       .call = [=](World &w) { return resolve(w, local_name); },
       .result = "127.0.0.1/2",
       .out_of_memory = {any_error},
       .answer = any_error},
      {.function = "Is_IP_Localhost",
       .prepare = make_interface,
       .call = [](World &) { return Is_IP_Localhost("10.1.2.3"); },
       .success = 1,
       .out_of_memory = {0},
       .answer = 0},
      {.function = "IPv6_Get_Scope_Id",
       .prepare = make_interface,
       .call =
           [](World &w) {
             unsigned int scope = 0;
             const int status = IPv6_Get_Scope_Id(ipv6_address, &scope);
             return w.number = status == 0 ? scope : 0, status;
           },
       .result = "50",
       .answer = -ENODEV},
  };
}

std::vector<Scenario> sockets() {
  return {
      {.function = "TCP_Socket_Connect",
       .prepare = listen_for,
       .call = [](World &w) { return connect_from(w, nullptr, "127.0.0.1"); },
       .result = "socket;"},
      {.function = "TCP_Socket_Connect",
       .situation = "from an address",
       .prepare = listen_for,
       .call = [](World &w) { return connect_from(w, "127.0.0.1", "127.0.0.1"); },
       .result = "socket;"},
      {.function = "TCP_Socket_Connect",
       .situation = "to a name",
       .prepare = [](World &w) { make_name(w), listen_for(w); },
       .call = [](World &w) { return connect_from(w, nullptr, local_name); },
       .result = "socket;",
       .out_of_memory = {any_error},
       .answer = any_error},
      {.function = "TCP_Socket_Connect",
       .situation = "to IPv6 with a look for its scope",
       .prepare = listen_for_ipv6,
       .call = [](World &w) { return connect_from(w, nullptr, "0:0:0:0:0:0:0:1"); },
       .result = "socket;"},
      {.function = "TCP_Socket_Listen",
       .prepare = choose_port,
       .call = [](World &w) { return TCP_Socket_Listen("127.0.0.1", w.port, 16, w.listening, 3); },
       .result = "listening;"},
      {.function = "TCP_Socket_Listen",
       .situation = "to all addresses",
       .prepare = choose_port,
       .call = [](World &w) { return TCP_Socket_Listen(nullptr, w.port, 16, w.listening, 3); },
       .result = "listening;listening;",
       .lesser_results = {"listening;"}},
      {.function = "Domain_Sock_Set_Nonblocking",
       .prepare = connect_pair,
       .call = [](World &w) { return Domain_Sock_Set_Nonblocking(w.given_fd.get()); }},
      {.function = "Domain_Socket_Listen", .call = listen_at_path, .result = "socket;", .also_made = {"socket"}},
      {.function = "Domain_Socket_Listen",
       .situation = "where an old socket lies",
       .prepare = leave_stale_socket,
       .call = listen_at_path,
       .result = "socket;",
       .answers = {{Call::unlink, Place::other, -EADDRINUSE}},
       .also_made = {"socket"}},
      {.function = "Domain_Socket_Connect",
       .prepare = listen_locally,
       .call = [](World &w) { return Domain_Socket_Connect(w.socket_path.c_str(), &w.socket, timeout_ms); },
       .result = "socket;",
       .leaves_open = Call::set_option,
       .also_made = {"socket"}},
      {.function = "Is_Socket_Ready_To_Recv",
       .prepare = connect_pair_with_message,
       .call = [](World &w) { return Is_Socket_Ready_To_Recv(w.given_fd.get(), timeout_ms); },
       .success = 1},
      {.function = "Is_Socket_Ready_To_Send",
       .prepare = connect_pair,
       .call = [](World &w) { return Is_Socket_Ready_To_Send(w.given_fd.get(), timeout_ms); },
       .success = 1},
      {.function = "Is_FD_Ready_To_Read",
       .prepare = connect_pair_with_message,
       .call = [](World &w) { return Is_FD_Ready_To_Read(w.given_fd.get(), timeout_ms); },
       .success = 1},
      {.function = "Is_Any_Socket_Ready",
       .prepare = connect_pair_with_message,
       .call =
           [](World &w) {
             const int fds[] = {w.far_end.get(), w.given_fd.get()};
             int ready = -1, index = 0;
             const int status = Is_Any_Socket_Ready(fds, 2, timeout_ms, &ready, &index);
             return w.number = index, status;
           },
       .success = 1,
       .result = "1"},
  };
}

std::vector<Scenario> exact_transfer() {
  return {
      {.function = "Exactly_Recv",
       .prepare = connect_pair_with_message,
       .call = [](World &w) { return Exactly_Recv(w.given_fd.get(), w.buffer, message_length, timeout_ms); },
       .success = message_length,
       .result = "exactly this/0"},
      {.function = "Exactly_Send",
       .prepare = connect_pair,
       .call = [](World &w) { return Exactly_Send(w.given_fd.get(), message, message_length, MSG_NOSIGNAL); },
       .success = message_length,
       .result = message},
      {.function = "File_Send_Bulk",
       .before = message,
       .after = message,
       .prepare =
           [](World &w) {
             connect_pair(w);
             w.source_fd = Descriptor(open(w.path(), O_RDONLY | O_CLOEXEC));
           },
       .call =
           [](World &w) {
             return File_Send_Bulk(w.source_fd.get(), w.given_fd.get(), message_length, nullptr, &w.number);
           },
       .result = std::string("12") + message},
      {.function = "File_Write_Bulk",
       .before = "",
       .after = message,
       .prepare = [](World &w) { w.given_fd = Descriptor(open(w.path(), O_WRONLY | O_CLOEXEC)); },
       .call = [](World &w) { return File_Write_Bulk(w.given_fd.get(), message, message_length, &w.number); },
       .result = "12",
       .promise = Promise::none},
      {.function = "Recv_File",
       .before = "",
       .after = std::string(file_length, 'x'),
       .prepare = connect_pair_with_file,
       .call = [](World &w) { return Recv_File(w.given_fd.get(), w.source_fd.get(), nullptr, file_length, &w.number); },
       .result = "20000",
       .may_be_cut = true,
       // A piece that was written in part ends it without an errno: the count tells.
       .lesser_results = {"", "8192", "16384"},
       .promise = Promise::none},
  };
}

std::vector<Scenario> interfaces() {
  return {
      {.function = "Scan_Network_Interface",
       .prepare = make_interface,
       .call =
           [](World &w) {
             int count = 0;
             return Scan_Network_Interface(&w.interfaces, &count);
           },
       .result = "lo 127.0.0.1/8 ::1/128;tarn0 10.1.2.3/24 fd00::3/64 fd00::2/64 fd00::1/64;",
       .lesser_results = lesser_lists()},
  };
}

}  // namespace tarn::test
