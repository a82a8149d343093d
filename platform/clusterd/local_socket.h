// The socket at which this member's programs give their commands.
#ifndef TARN_PLATFORM_CLUSTERD_LOCAL_SOCKET_H
#define TARN_PLATFORM_CLUSTERD_LOCAL_SOCKET_H

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/clusterd/event_loop.h"
#include "platform/clusterd/io.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {

class Local_Socket {
 public:
  // Called on a thread of its own for a request, with the socket of the program that waits for the answer.
  using Receiver = std::function<Message(const Message &request, int caller_fd)>;

  // Called on the loop's thread before that. True: the answer comes, on the same thread. False: it would have to wait.
  using Answer_Receiver = std::function<void(Message &&answer)>;
  using First_Receiver = std::function<bool(const Message &request, const Answer_Receiver &answer)>;

  Local_Socket(std::string path, Event_Loop *loop, First_Receiver first, Receiver receiver)
      : path_(std::move(path)), loop_(loop), first_(std::move(first)), receiver_(std::move(receiver)) {}
  ~Local_Socket() { stop(); }

  // Answers 0; -EADDRINUSE when another service listens there; -errno.
  int start();

  // Answers programs that have been silent for too long; to be called now and then, on the loop's thread.
  void drop_silent_programs();

  // Removes the socket and returns when every request that a thread has is answered. To be called after
  // stop_waiting().
  void stop();

 private:
  static constexpr int kRequestsAtOnce = 256;
  static constexpr int kRequestsWaiting = 4096;

  // A program, and its request once that has been read.
  struct Program {
    Descriptor socket;
    Deadline deadline;  // for its request to be there
    std::optional<Message> request;
  };
  using Shared_Program = std::shared_ptr<Program>;

  void accept_programs();
  void take_request(const Shared_Program &program);
  void begin_request(const Shared_Program &program);
  static bool read_request(const Shared_Program &program);
  void serve(const Shared_Program &program);
  void submit(const Shared_Program &program, Worker_Pool::Task task);
  void hand_over(const Shared_Program &program, Message &&answer);

  const std::string path_;
  Event_Loop *const loop_;
  const First_Receiver first_;
  const Receiver receiver_;
  Descriptor fd_;
  std::map<int, Shared_Program> silent_;  // programs whose request is not there yet
  Worker_Pool threads_{kRequestsAtOnce, kRequestsWaiting};
};

}  // namespace tarn::platform

#endif
