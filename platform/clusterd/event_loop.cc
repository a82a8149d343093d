#include "platform/clusterd/event_loop.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tarn::platform {

int Event_Loop::start() {
  epoll_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
  return epoll_ ? 0 : -errno;
}

int Event_Loop::watch(int fd, Task task) {
  auto shared = std::make_shared<const Task>(std::move(task));
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) return -errno;
  tasks_[fd] = std::move(shared);
  return 0;
}

void Event_Loop::forget(int fd) {
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  tasks_.erase(fd);
}

int Event_Loop::wait(Deadline deadline) {
  epoll_event events[64];
  const auto left = std::max(std::chrono::nanoseconds(deadline - Clock::now()), std::chrono::nanoseconds(0));
  const timespec timeout = {static_cast<time_t>(left.count() / 1000000000),
                            static_cast<long>(left.count() % 1000000000)};
  const int count = epoll_pwait2(epoll_.get(), events, 64, &timeout, nullptr);
  if (count < 0) return errno == EINTR ? 0 : -errno;
  for (int i = 0; i < count; ++i) {
    const auto entry = tasks_.find(events[i].data.fd);
    if (entry == tasks_.end()) continue;                     // forgotten by a task before it
    const std::shared_ptr<const Task> task = entry->second;  // which may forget itself
    (*task)();
  }
  return count;
}

}  // namespace tarn::platform
