// Runs command handlers in processes of their own, through the handler host. A process carries out one command at a
// time; one that answered well, and of which nothing else runs, is kept for a while for the commands to come.
#ifndef TARN_PLATFORM_CLUSTERD_HANDLER_RUNNER_H
#define TARN_PLATFORM_CLUSTERD_HANDLER_RUNNER_H

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <vector>

#include "platform/clusterd/handler_orders.h"
#include "platform/clusterd/io.h"

namespace tarn::platform {

class Handler_Runner {
 public:
  // A command that has been handed to a process of its own.
  class Running {
   public:
    int socket() const { return socket_.get(); }

   private:
    friend class Handler_Runner;
    struct Release {
      void operator()(std::counting_semaphore<> *slots) const { slots->release(); }
    };
    std::unique_ptr<std::counting_semaphore<>, Release> slot_;
    uint64_t id_ = 0;
    Descriptor socket_;
    std::string name_;
  };

  // The host's program, and the libraries in which it looks handlers up.
  Handler_Runner(std::string program, std::vector<std::string> libraries)
      : program_(std::move(program)), libraries_(std::move(libraries)) {}
  ~Handler_Runner() { stop(); }

  // Answers 0 with the handler's reply; -ENOSYS for a name that is no handler's; -ETIME (the handler has been ended);
  // -EIO when it crashed; -EPROTO when it gave no reply; -EMSGSIZE; -EAGAIN when no process can be had.
  int run(const std::string &name, const std::string &argument, Deadline deadline, std::string *reply);

  // The same in two steps. begin() does not wait: it is false when the command would have to wait, or is none. When
  // something has come at the command's socket, or its deadline has passed, finish() is to be called; it may wait for
  // the rest of a long answer.
  bool begin(const std::string &name, const std::string &argument, Running *running);
  int finish(Running *running, Deadline deadline, std::string *reply);

  // Starts the host when it does not run. Answers 0 or -errno.
  int start();

  // Ends the processes in waiting when no command has come for a while; to be called now and then.
  void rest();

  // To be called after SIGCHLD: a host that ended is started anew by the next command.
  void reap();

  // Ends the host and every handler that still runs.
  void stop();

 private:
  static constexpr int kHandlersAtOnce = 64;
  static constexpr size_t kInWaiting = 4;
  static constexpr std::chrono::seconds kIdleLife{3};

  // A process of the host's that waits for its command.
  struct Process {
    uint64_t id = 0;
    Descriptor socket;
  };

  int spawn_host(int orders_fd);
  // To be called with the lock.
  int fork_process(Process *process);
  bool take_waiting_process(Process *process);

  int take_process(Process *process);
  void keep_process(Running *running);
  void send_end(uint64_t id);
  int conclude(const Running &running, int result);

  const std::string program_;
  const std::vector<std::string> libraries_;
  std::counting_semaphore<> free_handlers_{kHandlersAtOnce};
  std::mutex mutex_;
  uint64_t next_id_ = 1;
  std::vector<Process> in_waiting_;
  Clock::time_point last_command_;
  Descriptor orders_;
  pid_t host_ = 0;
};

}  // namespace tarn::platform

#endif
