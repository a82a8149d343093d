#include "platform/clusterd/own_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "platform/clusterd/io.h"
#include "platform/clusterd/member_list.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

constexpr in_port_t kAnyPort = 9;  // nothing is sent there

struct Place {
  sockaddr_storage address = {};
  socklen_t size = 0;
  const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address); }
};

bool parse(const std::string &text, in_port_t port, Place *place) {
  auto *four = reinterpret_cast<sockaddr_in *>(&place->address);
  if (inet_pton(AF_INET, text.c_str(), &four->sin_addr) == 1) {
    four->sin_family = AF_INET;
    four->sin_port = htons(port);
    place->size = sizeof(*four);
    return true;
  }
  auto *six = reinterpret_cast<sockaddr_in6 *>(&place->address);
  if (inet_pton(AF_INET6, text.c_str(), &six->sin6_addr) != 1) return false;
  six->sin6_family = AF_INET6;
  six->sin6_port = htons(port);
  place->size = sizeof(*six);
  return true;
}

std::string text_of(const Place &place) {
  char text[INET6_ADDRSTRLEN] = "";
  const int family = place.address.ss_family;
  const void *bytes = &reinterpret_cast<const sockaddr_in *>(&place.address)->sin_addr;
  if (family == AF_INET6) bytes = &reinterpret_cast<const sockaddr_in6 *>(&place.address)->sin6_addr;
  return inet_ntop(family, bytes, text, sizeof(text)) == nullptr ? "" : text;
}

}  // namespace

bool is_numeric_address(const std::string &text) {
  Place place;
  return parse(text, 0, &place);
}

bool is_own_address(const std::string &address) {
  Place place;
  if (!parse(address, 0, &place)) return false;
  const Descriptor probe(socket(place.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return probe && bind(probe.get(), place.get(), place.size) == 0;
}

int find_address_towards(const std::string &host, std::string *address) {
  char text[64];
  unsigned int family = 0;
  const int result = Domain_To_IP_Addr(host.c_str(), text, &family);
  if (result != 0) return result;
  Place there;
  if (!parse(text, kAnyPort, &there)) return -EINVAL;
  const Descriptor probe(socket(there.address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe || connect(probe.get(), there.get(), there.size) != 0) return -errno;
  Place here;
  here.size = sizeof(here.address);
  if (getsockname(probe.get(), reinterpret_cast<sockaddr *>(&here.address), &here.size) != 0) return -errno;
  *address = text_of(here);
  return address->empty() ? -EINVAL : 0;
}

std::string own_host_name() {
  char name[HOST_NAME_MAX + 1] = "";
  gethostname(name, sizeof(name) - 1);
  return is_host_name(name) ? name : "";
}

}  // namespace tarn::platform
