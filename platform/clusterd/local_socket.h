// The socket at which this member's programs give their commands.
#ifndef TARN_PLATFORM_CLUSTERD_LOCAL_SOCKET_H
#define TARN_PLATFORM_CLUSTERD_LOCAL_SOCKET_H

#include <functional>
#include <string>

#include "platform/clusterd/io.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {

class Local_Socket {
 public:
  // Called on a thread of its own for each request, with the socket of the program that waits for the answer.
  using Receiver = std::function<Message(const Message &request, int caller_fd)>;

  Local_Socket(std::string path, Receiver receiver) : path_(std::move(path)), receiver_(std::move(receiver)) {}
  ~Local_Socket() { stop(); }

  // Answers 0; -EADDRINUSE when another service listens there; -errno.
  int start();

  // Takes the programs that have connected; to be called when fd() is readable.
  void accept_programs();

  // Removes the socket and returns when every request has been answered.
  void stop();

  int fd() const { return fd_.get(); }

 private:
  static constexpr int kRequestsAtOnce = 256;
  static constexpr int kRequestsWaiting = 4096;

  void serve(int fd);

  const std::string path_;
  const Receiver receiver_;
  Descriptor fd_;
  Worker_Pool threads_{kRequestsAtOnce, kRequestsWaiting};
};

}  // namespace tarn::platform

#endif
