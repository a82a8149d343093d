// Runs command handlers in processes of their own, through the handler host.
#ifndef TARN_PLATFORM_CLUSTERD_HANDLER_RUNNER_H
#define TARN_PLATFORM_CLUSTERD_HANDLER_RUNNER_H

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Handler_Runner {
 public:
  // The host's program, and the libraries in which it looks handlers up.
  Handler_Runner(std::string program, std::vector<std::string> libraries)
      : program_(std::move(program)), libraries_(std::move(libraries)) {}
  ~Handler_Runner() { stop(); }

  // Answers 0 with the handler's reply; -ENOSYS for a name that is no handler's; -ETIME (the handler has been ended);
  // -EIO when it crashed; -EPROTO when it gave no reply; -EMSGSIZE; -EAGAIN when no process can be had.
  int run(const std::string &name, const std::string &argument, Deadline deadline, std::string *reply);

  // Starts the host when it does not run. Answers 0 or -errno.
  int start();

  // Has processes forked that wait for the commands to come, so that the next command need not wait for its fork. To be
  // called when nobody waits for it: after a command has been answered.
  void prepare();

  // Ends the processes in waiting when no command has come for a while; to be called now and then.
  void rest();

  // To be called after SIGCHLD: a host that ended is started anew by the next command.
  void reap();

  // Ends the host and every handler that still runs.
  void stop();

 private:
  static constexpr int kHandlersAtOnce = 64;
  static constexpr size_t kInWaiting = 4;
  static constexpr std::chrono::seconds kIdleLife{1};

  // A process of the host's that waits for its command.
  struct Process {
    uint64_t id = 0;
    Descriptor socket;
  };

  int spawn_host(int orders_fd);
  int fork_process(Process *process);  // to be called with the lock
  int take_process(Process *process);
  void send_end(uint64_t id);
  int converse(const Descriptor &socket, const Message &request, Deadline deadline, std::string *reply);

  const std::string program_;
  const std::vector<std::string> libraries_;
  std::counting_semaphore<kHandlersAtOnce> free_handlers_{kHandlersAtOnce};
  std::mutex mutex_;
  uint64_t next_id_ = 1;
  std::vector<Process> in_waiting_;
  Clock::time_point last_command_;
  Descriptor orders_;
  pid_t host_ = 0;
};

}  // namespace tarn::platform

#endif
