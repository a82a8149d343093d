#include "cluster/ops/own_addresses.h"

namespace tarn {

bool Own_Addresses::holds(std::string_view address) const {
  for (const Net_Interface *interface = interfaces_; interface != nullptr; interface = interface->next) {
    if (interface->ipv4[0] != '\0' && address == interface->ipv4) return true;
    for (const Net_Ipv6_Addr *entry = interface->ipv6; entry != nullptr; entry = entry->next) {
      if (address == entry->address) return true;
    }
  }
  return false;
}

}  // namespace tarn
