#include "platform/clusterd/worker_pool.h"

#include <chrono>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr std::chrono::seconds kIdleLife(10);

// Memory that ends costs the task at hand, not the service.
void run(const Worker_Pool::Task &task) {
  try {
    task();
  } catch (const std::exception &failure) {
    log_line("a task failed: %s", failure.what());
  }
}

}  // namespace

bool Worker_Pool::submit(Task task) {
  std::unique_lock lock(mutex_);
  if (stopped_ || tasks_.size() >= waiting_limit_) return false;
  if (idle_ <= tasks_.size() && threads_ < thread_limit_ && !start_thread() && threads_ == 0) return false;
  tasks_.push_back(std::move(task));
  wake_.notify_one();
  return true;
}

bool Worker_Pool::start_thread() {
  try {
    std::thread(&Worker_Pool::work, this).detach();
  } catch (const std::system_error &failure) {
    log_line("cannot start a thread: %s", failure.what());
    return false;
  }
  ++threads_;
  return true;
}

void Worker_Pool::work() {
  std::unique_lock lock(mutex_);
  while (!stopped_) {
    if (tasks_.empty()) {
      ++idle_;
      const bool woken = wake_.wait_for(lock, kIdleLife, [this] { return stopped_ || !tasks_.empty(); });
      --idle_;
      if (!woken) break;
      continue;
    }
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    run(task);
    task = nullptr;
    lock.lock();
  }
  --threads_;
  ended_.notify_all();
}

void Worker_Pool::stop() {
  std::unique_lock lock(mutex_);
  stopped_ = true;
  tasks_.clear();
  wake_.notify_all();
  ended_.wait(lock, [this] { return threads_ == 0; });
}

}  // namespace tarn::platform
