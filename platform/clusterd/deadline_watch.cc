#include "platform/clusterd/deadline_watch.h"

#include <sys/socket.h>

#include <algorithm>

namespace tarn::platform {

void Deadline_Watch::set(int fd, Deadline deadline) {
  const std::scoped_lock lock(mutex_);
  if (stopped_) {
    shutdown(fd, SHUT_RDWR);
    return;
  }
  deadlines_[fd] = deadline;
  if (!thread_.joinable()) thread_ = std::thread(&Deadline_Watch::run, this);
  changed_.notify_all();
}

void Deadline_Watch::clear(int fd) {
  const std::scoped_lock lock(mutex_);
  deadlines_.erase(fd);
}

void Deadline_Watch::run() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    Deadline next = Deadline::max();
    for (auto entry = deadlines_.begin(); entry != deadlines_.end();) {
      if (entry->second <= Clock::now()) {
        shutdown(entry->first, SHUT_RDWR);
        entry = deadlines_.erase(entry);
      } else {
        next = std::min(next, entry->second);
        ++entry;
      }
    }
    if (next == Deadline::max()) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, next);
    }
  }
}

void Deadline_Watch::stop() {
  std::thread thread;
  {
    const std::scoped_lock lock(mutex_);
    stopped_ = true;
    for (const auto &[fd, deadline] : deadlines_) shutdown(fd, SHUT_RDWR);
    deadlines_.clear();
    changed_.notify_all();
    thread.swap(thread_);
  }
  if (thread.joinable()) thread.join();
}

}  // namespace tarn::platform
