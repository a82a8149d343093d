// The addresses of this appliance.
#ifndef TARN_PLATFORM_CLUSTERD_OWN_ADDRESS_H
#define TARN_PLATFORM_CLUSTERD_OWN_ADDRESS_H

#include <string>

namespace tarn::platform {

// Whether the text is an IPv4 or IPv6 address, not a name.
bool is_numeric_address(const std::string &text);

// Whether one of the interfaces has the address.
bool is_own_address(const std::string &address);

// The address from which this appliance reaches a host. Answers 0 or a negative code.
int find_address_towards(const std::string &host, std::string *address);

// The host's name as a record takes it; empty for one that is too long for it.
std::string own_host_name();

}  // namespace tarn::platform

#endif
