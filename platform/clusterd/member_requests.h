// The requests of other members: each is taken from the bus, carried out and answered.
#ifndef TARN_PLATFORM_CLUSTERD_MEMBER_REQUESTS_H
#define TARN_PLATFORM_CLUSTERD_MEMBER_REQUESTS_H

#include <map>
#include <memory>
#include <string>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/command_router.h"
#include "platform/clusterd/event_loop.h"
#include "platform/clusterd/handler_runner.h"
#include "platform/clusterd/worker_pool.h"

namespace tarn::platform {

// A command for which a handler's process waits goes to it at once, and its answer goes back, all on the loop's thread.
// Whatever would have to wait is left to a thread of its own.
class Member_Requests {
 public:
  Member_Requests(Event_Loop *loop, Bus *bus, Command_Router *router, Handler_Runner *handlers)
      : loop_(loop), bus_(bus), router_(router), handlers_(handlers) {}
  ~Member_Requests() { stop(); }

  // On the loop's thread.
  void take(const std::string &sender, const Nats_Message &bytes);

  // When end_late_commands() is to be called next, on the loop's thread.
  Deadline next_deadline() const;
  void end_late_commands();

  // Drops what has not been answered and returns when no thread has a request any more.
  void stop();

 private:
  static constexpr size_t kThreads = 128;
  static constexpr size_t kRequestsWaiting = 4096;

  // A command with a handler.
  struct Command_At_Work {
    Nats_Message bytes;
    Deadline deadline;
    Handler_Runner::Running running;
  };
  using Shared_Command = std::shared_ptr<Command_At_Work>;

  bool begin(const std::string &sender, const Nats_Message &bytes, const Message &request);
  void take_answer(const Shared_Command &command);
  void forget(const Shared_Command &command);
  void finish(const Shared_Command &command);
  void leave_to_a_thread(const Nats_Message &bytes, Worker_Pool::Task task);
  void answer(const Nats_Message &bytes, const Message &message);

  Event_Loop *const loop_;
  Bus *const bus_;
  Command_Router *const router_;
  Handler_Runner *const handlers_;
  std::map<int, Shared_Command> at_work_;  // by the socket of the handler's process
  Worker_Pool threads_{kThreads, kRequestsWaiting};
};

}  // namespace tarn::platform

#endif
