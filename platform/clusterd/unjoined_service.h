// The cluster service of an appliance that is in no cluster: it waits for a master that wants it.
#ifndef TARN_PLATFORM_CLUSTERD_UNJOINED_SERVICE_H
#define TARN_PLATFORM_CLUSTERD_UNJOINED_SERVICE_H

#include "platform/clusterd/membership.h"

namespace tarn::platform {

// Runs until a signal ends it, or until the appliance has joined a cluster. Answers 0, or a negative code when it
// cannot start.
int run_unjoined_service(const Membership_Options &options, int signals_fd);

}  // namespace tarn::platform

#endif
