#include "platform/clusterd/restart.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>

namespace tarn::platform {

namespace {

std::atomic<bool> requested = false;
std::atomic<bool> cancelled = false;

}  // namespace

void request_restart() {
  requested = true;
  kill(getpid(), kRestartSignal);
}

bool is_restart_requested() {
  return requested && !cancelled;
}

void cancel_restart() {
  cancelled = true;
}

}  // namespace tarn::platform
