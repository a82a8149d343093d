// What getaddrinfo answers, owned, with the library's status for its failures.
#pragma once

#include <netdb.h>

#include <memory>

#include "foundation/owners.h"

namespace tarn {

using Address_List = std::unique_ptr<addrinfo, Give_Back<freeaddrinfo>>;

// TCP addresses of a host; null means all addresses of this machine when flags hold AI_PASSIVE. Reports a failure under
// the exported function's name and returns it: -EHOSTUNREACH, or -errno where the resolver set one.
int resolve(const char *function, const char *host, const char *service, int flags, Address_List *list);

}  // namespace tarn
