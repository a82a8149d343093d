// The service's one thread that waits for events. What needs no further waiting is done on it, so that a command costs
// no hand-over between threads.
#ifndef TARN_PLATFORM_CLUSTERD_EVENT_LOOP_H
#define TARN_PLATFORM_CLUSTERD_EVENT_LOOP_H

#include <functional>
#include <memory>
#include <unordered_map>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Event_Loop {
 public:
  using Task = std::function<void()>;

  // Answers 0 or -errno.
  int start();

  // Has the task called whenever there is something to read at the descriptor, until forget(). The task may be called
  // for nothing. Answers 0 or -errno.
  int watch(int fd, Task task);
  void forget(int fd);

  // Waits for events until the deadline and calls their tasks. Answers how many there were, or -errno.
  int wait(Deadline deadline);

 private:
  Descriptor epoll_;
  std::unordered_map<int, std::shared_ptr<const Task>> tasks_;
};

}  // namespace tarn::platform

#endif
