// The TCP port at which appliances reach one another before, and beside, the bus. Whoever connects costs a bounded time
// and one of a bounded number of descriptors and threads.
#ifndef TARN_PLATFORM_CLUSTERD_TLS_LISTENER_H
#define TARN_PLATFORM_CLUSTERD_TLS_LISTENER_H

#include <poll.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/clusterd/deadline_watch.h"
#include "platform/clusterd/io.h"
#include "platform/clusterd/tls_peer.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {

class Tls_Listener {
 public:
  // Called on a thread of its own with the first message of a peer.
  using Receptionist = std::function<void(Tls_Peer &peer, const Message &request)>;

  // The file holds the certificate and its key.
  Tls_Listener(int port, std::string certificate, Deadline_Watch *watch, Receptionist receptionist)
      : port_(port), certificate_(std::move(certificate)), watch_(watch), receptionist_(std::move(receptionist)) {}
  ~Tls_Listener() { stop(); }

  // Answers 0, -EADDRINUSE or another negative code; may be called again until it answers 0.
  int start();
  bool is_started() const { return thread_.joinable(); }

  // Returns when no peer is served any more. stop_waiting() has been called and the watch been stopped before.
  void stop();

 private:
  static constexpr int kPeersAtOnce = 8;
  static constexpr size_t kPeersHeld = 64;          // all connections that are open
  static constexpr size_t kPeersOfOneAddress = 16;  // of them

  // A connection from which nothing has come yet.
  struct Silent_Peer {
    std::shared_ptr<void> place;
    Descriptor socket;
    Deadline deadline;
  };

  void run();
  void accept_peers(int listener);
  void take_speaking_peers(const std::vector<pollfd> &entries);
  void serve(Descriptor socket);
  std::shared_ptr<void> admit(const std::string &origin);
  void dismiss(const std::string &origin);

  const int port_;
  const std::string certificate_;
  Deadline_Watch *const watch_;
  const Receptionist receptionist_;
  std::vector<Descriptor> listeners_;
  std::vector<Silent_Peer> silent_;  // of the listener's thread
  std::mutex mutex_;
  std::map<std::string, size_t> held_;  // connections by origin
  size_t held_in_all_ = 0;
  Worker_Pool threads_{kPeersAtOnce, kPeersHeld};
  std::thread thread_;
};

// What the connections from an address are counted under: an IPv6 address stands for its network of 64 bits, of which
// one host may have all addresses.
std::string origin_of(const std::string &address);

}  // namespace tarn::platform

#endif
