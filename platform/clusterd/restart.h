// A service whose part in the cluster has changed begins anew, as the same process.
#ifndef TARN_PLATFORM_CLUSTERD_RESTART_H
#define TARN_PLATFORM_CLUSTERD_RESTART_H

#include <csignal>

namespace tarn::platform {

// The signal by which the service tells itself; of its own, since two of one kind may arrive as one and SIGTERM must
// not be taken for this.
constexpr int kRestartSignal = SIGUSR2;

// Has the service end and start again. From any thread.
void request_restart();
bool is_restart_requested();

// Somebody wants it to end, which counts more.
void cancel_restart();

}  // namespace tarn::platform

#endif
