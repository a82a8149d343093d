// Ends sockets that are not done in time. A TLS session reads and writes with calls that block; shutting its socket
// down ends them, whatever the peer does.
#ifndef TARN_PLATFORM_CLUSTERD_DEADLINE_WATCH_H
#define TARN_PLATFORM_CLUSTERD_DEADLINE_WATCH_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Deadline_Watch {
 public:
  Deadline_Watch() = default;
  ~Deadline_Watch() { stop(); }
  Deadline_Watch(const Deadline_Watch &) = delete;
  Deadline_Watch &operator=(const Deadline_Watch &) = delete;

  // From the deadline on the socket is shut down. Replaces an earlier deadline of the socket.
  void set(int fd, Deadline deadline);

  // To be called before the socket is closed.
  void clear(int fd);

  // Shuts down every socket, also those that are set from now on.
  void stop();

 private:
  void run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, Deadline> deadlines_;
  bool stopped_ = false;
  std::thread thread_;
};

}  // namespace tarn::platform

#endif
