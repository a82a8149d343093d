#include "platform/clusterd/unjoined_service.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "platform/clusterd/announcement.h"
#include "platform/clusterd/join_desk.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/restart.h"
#include "platform/clusterd/tls_listener.h"

namespace tarn::platform {

namespace {

bool is_to_end(int signals_fd, Announcement *announcement) {
  signalfd_siginfo signal;
  bool is_end = false;
  while (read(signals_fd, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo == SIGTERM || signal.ssi_signo == SIGINT) {
      cancel_restart();
      is_end = true;
    }
    if (signal.ssi_signo == SIGHUP) announcement->refresh();
  }
  return is_end || is_restart_requested();
}

void wait_for_end(int signals_fd, Announcement *announcement) {
  do {
    pollfd entry = {signals_fd, POLLIN, 0};
    if (poll(&entry, 1, -1) < 0 && errno != EINTR) return;
  } while (!is_to_end(signals_fd, announcement));
}

}  // namespace

int run_unjoined_service(const Membership_Options &options, int signals_fd) {
  Deadline_Watch watch;
  Join_Desk desk(options.bus_folder);
  Tls_Listener listener(options.listener_port, options.certificate, &watch,
                        [&desk](Tls_Peer &peer, const Message &request) { desk.receive(peer, request); });
  Announcement announcement(options.announcement, options.listener_port, false);
  const int result = listener.start();
  if (result == 0) {
    log_line("ready; no member of a cluster, waiting at port %d to be joined", options.listener_port);
    announcement.refresh();
    wait_for_end(signals_fd, &announcement);
  } else {
    log_line("cannot listen at port %d (%d)", options.listener_port, result);
  }
  stop_waiting();
  watch.stop();
  listener.stop();
  return result;
}

}  // namespace tarn::platform
