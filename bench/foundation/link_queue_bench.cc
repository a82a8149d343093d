// The link queue with its caller's mutex, beside other queues of pointers.
#include <benchmark/benchmark.h>
#include <glib.h>
#include <pthread.h>

#include <cstdlib>
#include <deque>
#include <memory>
#include <vector>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr int batch = 100;

// Nodes that go in and come out again: making them is no queue's work.
class Nodes {
 public:
  Nodes() {
    for (int i = 0; i < batch; ++i) {
      auto *node = static_cast<Link_Queue_Node *>(calloc(1, sizeof(Link_Queue_Node) + 64));
      node->size = 64;
      nodes_.emplace_back(node);
    }
  }
  Link_Queue_Node *operator[](int i) const { return nodes_[static_cast<size_t>(i)].get(); }

 private:
  std::vector<Heap<Link_Queue_Node>> nodes_;
};

void queue_in_and_out(benchmark::State &state, pthread_cond_t *condition) {
  const Nodes nodes;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  Link_Queue queue;
  Link_Queue_Init(&queue, 0, &mutex, condition);
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) Link_Queue_Push_Node(&queue, nodes[i]);
    for (int i = 0; i < batch; ++i) {
      Link_Queue_Node *node = nullptr;
      if (Link_Queue_Pop_Node(&queue, &node) != 1 || node != nodes[i]) state.SkipWithError("another node came out");
    }
  }
}

void queue_ours(benchmark::State &state) {
  queue_in_and_out(state, nullptr);
}

void queue_ours_with_condition(benchmark::State &state) {
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  queue_in_and_out(state, &condition);
}

class Locked {
 public:
  explicit Locked(pthread_mutex_t *mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
  ~Locked() { pthread_mutex_unlock(mutex_); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

void queue_deque(benchmark::State &state) {
  const Nodes nodes;
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::deque<Link_Queue_Node *> queue;
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) {
      const Locked locked(&mutex);
      queue.push_back(nodes[i]);
    }
    for (int i = 0; i < batch; ++i) {
      const Locked locked(&mutex);
      if (queue.empty() || queue.front() != nodes[i]) state.SkipWithError("another node came out");
      queue.pop_front();
    }
  }
}

void queue_glib(benchmark::State &state) {
  const Nodes nodes;
  GAsyncQueue *queue = g_async_queue_new();
  for (auto _ : state) {
    for (int i = 0; i < batch; ++i) g_async_queue_push(queue, nodes[i]);
    for (int i = 0; i < batch; ++i) {
      if (g_async_queue_try_pop(queue) != nodes[i]) state.SkipWithError("another node came out");
    }
  }
  g_async_queue_unref(queue);
}

BENCHMARK(queue_ours);
BENCHMARK(queue_ours_with_condition);
BENCHMARK(queue_deque);
BENCHMARK(queue_glib);

}  // namespace
}  // namespace tarn::bench
