// Where a member finds the bus: by its bus files, at the address that the master has now.
#ifndef TARN_PLATFORM_CLUSTERD_BUS_ADDRESS_H
#define TARN_PLATFORM_CLUSTERD_BUS_ADDRESS_H

#include <string>

#include "platform/clusterd/identity.h"

namespace tarn::platform {

// The bus's address: that of bus.conf, with the master's address of the master's file in it when there is one. Answers
// 0 or a negative code.
int read_bus_url(const std::string &bus_folder, const Identity &identity, std::string *url);

// Host and port of the master's TLS listener. Answers 0 or a negative code.
int read_master_listener(const std::string &bus_folder, const Identity &identity, std::string *host, int *port);

}  // namespace tarn::platform

#endif
