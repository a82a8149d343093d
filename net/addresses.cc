#include "include/tarncluster_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "foundation/owners.h"
#include "foundation/report.h"
#include "net/resolved.h"

namespace tarn {

int resolve(const char *function, const char *host, const char *service, int flags, Address_List *list) {
  addrinfo hints = {};
  hints.ai_flags = flags;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo *found = nullptr;
  errno = 0;  // the resolver need not set it
  if (getaddrinfo(host, service, &hints, &found) == 0) {
    list->reset(found);
    return 0;
  }
  const int failure = errno == 0 || errno == EINTR ? -EHOSTUNREACH : -errno;
  TARN_DEBUG_AS(function, "Can't getaddrinfo error! (%d)", failure);
  return failure;
}

namespace {

using Interface_List = std::unique_ptr<Net_Interface, Give_Back<Free_Network_Interface>>;

constexpr int address_size = 16;

// A name's text need only be the beginning of an interface's: callers depend on it.
bool begins(const char *interface_text, std::string_view text) {
  return strncmp(text.data(), interface_text, text.size()) == 0;
}

bool has_ipv4(const Net_Interface *list, std::string_view text) {
  for (const Net_Interface *record = list; record != nullptr; record = record->next) {
    if (begins(record->ipv4, text)) return true;
  }
  return false;
}

// Only the first interface's addresses are looked at: callers depend on it.
bool first_has_ipv6(const Net_Interface *first, std::string_view text) {
  for (const Net_Ipv6_Addr *entry = first->ipv6; entry != nullptr; entry = entry->next) {
    if (begins(entry->address, text)) return true;
  }
  return false;
}

// ------------------------------------------------------------------------------------------------ /proc/net/if_inet6

constexpr char if_inet6[] = "/proc/net/if_inet6";

// "fe80000000000000021b21fffe3c4d5e 02 40 20 80     eth0": fixed columns, as callers' kernels have always written them.
constexpr size_t index_column = 33;
constexpr size_t prefix_column = 36;
constexpr size_t shortest_line = 45;

unsigned char digit_value(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned char>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned char>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned char>(c - 'A' + 10);
  return 0;
}

unsigned char byte_at(std::string_view line, size_t position) {
  return static_cast<unsigned char>(digit_value(line[position]) << 4 | digit_value(line[position + 1]));
}

std::string_view last_field(std::string_view line) {
  constexpr std::string_view blanks = " \t";
  while (!line.empty() && blanks.find(line.back()) != blanks.npos) line.remove_suffix(1);
  const size_t blank = line.find_last_of(blanks);
  if (blank != line.npos) line.remove_prefix(blank + 1);
  return line;
}

bool holds_address(std::string_view line, const unsigned char *address) {
  unsigned char subnet[address_size];
  for (size_t i = 0; i < address_size; ++i) subnet[i] = byte_at(line, 2 * i);
  return IPv6_Check_Subnet(address, subnet, byte_at(line, prefix_column)) == 0;
}

int find_scope(std::string_view text, const unsigned char *address, unsigned int *scope_id) {
  for (size_t end; (end = text.find('\n')) != text.npos;) {
    const std::string_view line(text.data(), end);
    text.remove_prefix(end + 1);
    if (line.size() < shortest_line || last_field(line) == "lo") continue;
    if (!text.empty() && !holds_address(line, address)) continue;  // the last one listed is taken as it is
    *scope_id = byte_at(line, index_column);
    return 0;
  }
  return -ENODEV;
}

}  // namespace
}  // namespace tarn

int Domain_To_IP_Addr(const char *name, char *address, unsigned int *family) {
  if (name == nullptr || address == nullptr || family == nullptr) return -EINVAL;
  tarn::Address_List list;
  const int status = tarn::resolve(__func__, name, "0", AI_ALL, &list);
  if (status != 0) return status;

  *family = static_cast<unsigned int>(list->ai_family);
  const void *bytes = nullptr;
  if (list->ai_family == AF_INET) bytes = &reinterpret_cast<const sockaddr_in *>(list->ai_addr)->sin_addr;
  if (list->ai_family == AF_INET6) bytes = &reinterpret_cast<const sockaddr_in6 *>(list->ai_addr)->sin6_addr;
  if (bytes == nullptr) {
    address[0] = '\0';
    TARN_DEBUG("Unsupported family: %d", list->ai_family);
    return -EFAULT;
  }
  inet_ntop(list->ai_family, bytes, address, INET6_ADDRSTRLEN);
  return 0;
}

int Is_IP_Localhost(const char *name) {
  if (name == nullptr || name[0] == '\0') return -EINVAL;

  char text[INET6_ADDRSTRLEN] = "";
  unsigned int family = AF_INET;
  int status = Domain_To_IP_Addr(name, text, &family);
  if (status != 0) {
    TARN_ERROR("Can't translate donaim to IP! (%d)", status);
    return 0;
  }
  Net_Interface *first = nullptr;
  int count = 0;
  status = Scan_Network_Interface(&first, &count);
  const tarn::Interface_List list(first);
  if (status != 0) {
    TARN_ERROR("Can't get network interface! (%d)", status);
    return 0;
  }
  if (count < 1) return 0;
  return family == AF_INET ? tarn::has_ipv4(first, text) : tarn::first_has_ipv6(first, text);
}

int IPv6_Check_Subnet(const unsigned char *a, const unsigned char *b, int prefix_length) {
  // Only 0 to 3 are used.
  static constexpr unsigned char masks[] = {0x00, 0x80, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC, 0xFE};

  if (a == nullptr || b == nullptr || prefix_length < 1 || prefix_length > 128) return -EINVAL;
  const int whole = prefix_length / 8;
  if (memcmp(a, b, static_cast<size_t>(whole)) != 0) return EHOSTUNREACH;
  const int rest = prefix_length & 3;  // not 7: the members compare subnets this way
  if (rest == 0) return 0;
  return ((a[whole] ^ b[whole]) & masks[rest]) != 0 ? EHOSTUNREACH : 0;
}

int IPv6_Get_Scope_Id(const unsigned char *address, unsigned int *scope_id) {
  if (address == nullptr || scope_id == nullptr) return -EINVAL;

  *scope_id = 0xFFFFFFFF;
  const tarn::Descriptor file(open(tarn::if_inet6, O_RDONLY | O_CLOEXEC));
  if (!file) {
    TARN_DEBUG("Can't open %s for IPv6 interface!", tarn::if_inet6);
    return -ENODEV;
  }
  char text[1023];
  const ssize_t length = read(file.get(), text, sizeof text);
  if (length <= 0) {
    TARN_DEBUG("No IPv6 interface available!");
    return -ENODEV;
  }
  return tarn::find_scope({text, static_cast<size_t>(length)}, address, scope_id);
}
