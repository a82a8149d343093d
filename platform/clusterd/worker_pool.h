// Threads that do what may block: they come when there is work, up to a limit, and leave after a while without any.
#ifndef TARN_PLATFORM_CLUSTERD_WORKER_POOL_H
#define TARN_PLATFORM_CLUSTERD_WORKER_POOL_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace tarn::platform {

class Worker_Pool {
 public:
  using Task = std::function<void()>;

  Worker_Pool(size_t thread_limit, size_t waiting_limit) : thread_limit_(thread_limit), waiting_limit_(waiting_limit) {}
  ~Worker_Pool() { stop(); }

  // False when too much is waiting already, no thread can be had at all, or the pool has stopped.
  bool submit(Task task);

  // Drops what is waiting and returns when all threads have ended; what they do must end by itself.
  void stop();

 private:
  void work();
  bool start_thread();

  const size_t thread_limit_;
  const size_t waiting_limit_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable ended_;
  std::deque<Task> tasks_;
  size_t threads_ = 0;
  size_t idle_ = 0;
  bool stopped_ = false;
};

}  // namespace tarn::platform

#endif
