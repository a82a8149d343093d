#include "include/tarncluster_util.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string_view>

#include "foundation/owners.h"
#include "foundation/report.h"

static_assert(sizeof(Net_Ipv6_Addr) == 56 && offsetof(Net_Ipv6_Addr, address) == 10);
static_assert(sizeof(Net_Interface) == 80 && offsetof(Net_Interface, mac) == 16 && offsetof(Net_Interface, ipv6) == 72);

namespace tarn {
namespace {

constexpr int interface_limit = 18;  // what callers have room for

using Address_List = std::unique_ptr<ifaddrs, Give_Back<freeifaddrs>>;
using Interface_List = std::unique_ptr<Net_Interface, Give_Back<Free_Network_Interface>>;

void free_addresses(Net_Ipv6_Addr *first) {
  while (first != nullptr) {
    Net_Ipv6_Addr *next = first->next;
    free(first);
    first = next;
  }
}

// The interface under way: its IPv6 addresses go with it unless it is listed.
struct Record {
  Net_Interface fields = {};
  Net_Ipv6_Addr **ipv6_end = &fields.ipv6;

  Record() = default;
  Record(const Record &) = delete;
  Record &operator=(const Record &) = delete;
  ~Record() { free_addresses(fields.ipv6); }
};

bool skip(std::string_view *text, std::string_view beginning) {
  if (text->size() < beginning.size() || memcmp(text->data(), beginning.data(), beginning.size()) != 0) return false;
  text->remove_prefix(beginning.size());
  return true;
}

// The leading ones of a mask, or -1 when ones follow behind a zero. Its text would tell the same for any mask without
// holes, but making that text costs as much as all else that a scan does by itself.
int leading_ones(const void *mask, size_t size) {
  const std::span bytes(static_cast<const unsigned char *>(mask), size);
  int count = 0;
  bool ended = false;
  for (const unsigned char byte : bytes) {
    const int ones = std::countl_one(byte);
    if (ended ? byte != 0 : std::popcount(byte) != ones) return -1;
    count += ones;
    ended = ones < 8;
  }
  return count;
}

// 255.255.255.128 is 25. Read off the mask's text, so that a mask with holes gives what callers have always seen.
unsigned short ipv4_prefix(const char *mask) {
  std::string_view rest = mask;
  int prefix = 0;
  if (skip(&rest, "255.255.")) prefix += 16;
  if (skip(&rest, "255.")) prefix += 8;
  const long number = strtol(rest.data(), nullptr, 10);
  long sum = 0;
  for (long bit = 128; bit > 0 && sum < number; bit /= 2) {
    sum += bit;
    ++prefix;
  }
  return static_cast<unsigned short>(prefix);
}

// ffff:ffff:ffff:ff80:: is 57.
unsigned short ipv6_prefix(const char *mask) {
  std::string_view rest = mask;
  int prefix = 0;
  if (skip(&rest, "ffff:ffff:ffff:ffff:")) prefix += 64;
  if (skip(&rest, "ffff:ffff:")) prefix += 32;
  if (skip(&rest, "ffff:")) prefix += 16;
  for (int digits = 0; digits < 4 && skip(&rest, "f"); ++digits) prefix += 4;
  if (skip(&rest, "e")) {
    prefix += 3;
  } else if (skip(&rest, "c")) {
    prefix += 2;
  } else if (skip(&rest, "8")) {
    prefix += 1;
  }
  return static_cast<unsigned short>(prefix);
}

template <typename Mask>
unsigned short prefix_of(int family, const Mask &mask, unsigned short (*read_off)(const char *text)) {
  const int ones = leading_ones(&mask, sizeof mask);
  if (ones >= 0) return static_cast<unsigned short>(ones);
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, &mask, text, sizeof text);
  return read_off(text);
}

void take_ipv4(const ifaddrs &entry, Net_Interface *record) {
  const auto address_of = [](const sockaddr *address) {
    return &reinterpret_cast<const sockaddr_in *>(address)->sin_addr;
  };
  inet_ntop(AF_INET, address_of(entry.ifa_addr), record->ipv4, sizeof record->ipv4);
  record->prefix = 0;
  if (entry.ifa_netmask != nullptr) record->prefix = prefix_of(AF_INET, *address_of(entry.ifa_netmask), ipv4_prefix);
}

int take_ipv6(const ifaddrs &entry, Record *record) {
  const auto address_of = [](const sockaddr *address) {
    return &reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
  };
  auto *made = static_cast<Net_Ipv6_Addr *>(calloc(1, sizeof(Net_Ipv6_Addr)));
  if (made == nullptr) return -ENOMEM;
  inet_ntop(AF_INET6, address_of(entry.ifa_addr), made->address, sizeof made->address);
  if (entry.ifa_netmask != nullptr) made->prefix = prefix_of(AF_INET6, *address_of(entry.ifa_netmask), ipv6_prefix);
  *record->ipv6_end = made;
  record->ipv6_end = &made->next;
  return 0;
}

// -ENODEV when the interface has no address.
int take_addresses(const ifaddrs *entries, Record *record) {
  int status = -ENODEV;
  for (const ifaddrs *entry = entries; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || strcmp(entry->ifa_name, record->fields.name) != 0) continue;
    const int family = entry->ifa_addr->sa_family;
    if (family != AF_INET && family != AF_INET6) continue;
    if (family == AF_INET) take_ipv4(*entry, &record->fields);
    if (family == AF_INET6 && take_ipv6(*entry, record) != 0) return -ENOMEM;
    record->fields.flags = entry->ifa_flags;
    status = 0;
  }
  return status;
}

ifreq request_for(const Net_Interface &record) {
  ifreq request = {};
  memcpy(request.ifr_name, record.name, sizeof request.ifr_name);
  return request;
}

int read_flags(int socket, Net_Interface *record) {
  ifreq request = request_for(*record);
  if (ioctl(socket, SIOCGIFFLAGS, &request) != 0) return -errno;
  record->flags = static_cast<unsigned short>(request.ifr_flags);
  return 0;
}

// By hand: there is one for each interface, and snprintf takes as long as the request does.
void write_hardware_address(const unsigned char (&bytes)[6], char (&mac)[18]) {
  constexpr char digits[] = "0123456789ABCDEF";
  char *out = mac;
  for (const unsigned char byte : bytes) {
    *out++ = digits[byte >> 4];
    *out++ = digits[byte & 15];
    *out++ = ':';
  }
  out[-1] = '\0';  // in place of the last colon
}

int read_hardware_address(int socket, Net_Interface *record) {
  ifreq request = request_for(*record);
  if (ioctl(socket, SIOCGIFHWADDR, &request) != 0) return -errno;
  unsigned char bytes[6];
  memcpy(bytes, request.ifr_hwaddr.sa_data, sizeof bytes);
  write_hardware_address(bytes, record->mac);
  return 0;
}

// The list under construction.
struct Scan {
  const ifaddrs *addresses;
  int socket;
  Interface_List list;
  Net_Interface *last = nullptr;
  int count = 0;

  bool add(int index, const ifreq &interface);  // false ends the scan
  void append(Record *record);
};

constexpr char scan_name[] = "Scan_Network_Interface";

bool Scan::add(int index, const ifreq &interface) {
  Record record;
  record.fields.index = static_cast<unsigned short>(index);
  memcpy(record.fields.name, interface.ifr_name, sizeof record.fields.name - 1);
  TARN_DEBUG_AS(scan_name, "Get the address of %d-th netif: %s", index, record.fields.name);

  int status = take_addresses(addresses, &record);
  if (status != 0) {
    TARN_DEBUG_AS(scan_name, "Can't get IP addresses of %s! (%d)", record.fields.name, status);
    status = read_flags(socket, &record.fields);
    if (status != 0) {
      TARN_DEBUG_AS(scan_name, "Can't get the flags of %s! (%d)", record.fields.name, status);
      return true;
    }
    if ((record.fields.flags & IFF_UP) == 0) return true;
  }
  status = read_hardware_address(socket, &record.fields);
  if (status != 0) {
    TARN_ERROR_AS(scan_name, "Can't get the MAC address of %s! (%d)", record.fields.name, -status);
    return false;
  }
  append(&record);
  return true;
}

void Scan::append(Record *record) {
  auto *copy = static_cast<Net_Interface *>(malloc(sizeof(Net_Interface)));
  if (copy == nullptr) return;
  *copy = record->fields;
  record->fields.ipv6 = nullptr;
  if (last == nullptr) {
    list.reset(copy);
  } else {
    last->next = copy;
  }
  last = copy;
  ++count;
}

}  // namespace
}  // namespace tarn

int Scan_Network_Interface(Net_Interface **list, int *count) {
  if (list == nullptr || count == nullptr) return -EINVAL;
  *count = 0;
  *list = nullptr;

  ifaddrs *entries = nullptr;
  if (getifaddrs(&entries) != 0) return -errno;
  const tarn::Address_List addresses(entries);
  const tarn::Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return 0;

  ifreq interfaces[tarn::interface_limit] = {};
  static_assert(sizeof interfaces == 720);
  ifconf names = {};
  names.ifc_len = sizeof interfaces;
  names.ifc_req = interfaces;
  if (ioctl(socket.get(), SIOCGIFCONF, &names) != 0) {
    const int failure = -errno;
    TARN_ERROR("Can't get the netif name list! (%d)", failure);
    return failure;
  }

  tarn::Scan scan = {.addresses = entries, .socket = socket.get(), .list = nullptr};
  const int number = names.ifc_len / static_cast<int>(sizeof(ifreq));
  for (int i = 0; i < number && scan.add(i, interfaces[i]); ++i) continue;
  *count = scan.count;
  *list = scan.list.release();
  return 0;
}

void Free_Network_Interface(Net_Interface *list) {
  while (list != nullptr) {
    Net_Interface *next = list->next;
    tarn::free_addresses(list->ipv6);
    free(list);
    list = next;
  }
}
