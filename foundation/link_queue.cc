#include "include/tarncluster_util.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>

static_assert(sizeof(Link_Queue) == 48 && offsetof(Link_Queue, head) == 32);
static_assert(offsetof(Link_Queue_Node, payload) == 20);
// The head stands for a node in the ring: of both, only the links are used then.
static_assert(offsetof(Link_Queue_Node, next) == offsetof(Link_Queue_Head, next) &&
              offsetof(Link_Queue_Node, prev) == offsetof(Link_Queue_Head, prev));

namespace tarn {
namespace {

constexpr int initialised = 1;
constexpr int marked = 2;
constexpr unsigned int default_capacity = 32767;

// Holds the queue's mutex, when it has one.
class Queue_Lock {
 public:
  explicit Queue_Lock(const Link_Queue *queue) : mutex_(queue->mutex) {
    if (mutex_ != nullptr) pthread_mutex_lock(mutex_);
  }
  ~Queue_Lock() {
    if (mutex_ != nullptr) pthread_mutex_unlock(mutex_);
  }
  Queue_Lock(const Queue_Lock &) = delete;
  Queue_Lock &operator=(const Queue_Lock &) = delete;

 private:
  pthread_mutex_t *mutex_;
};

// Asked before the mutex is known to be there, while another thread may close the queue: hence the atomic flags.
bool is_ready(const Link_Queue *queue) {
  return queue != nullptr && (__atomic_load_n(&queue->flags, __ATOMIC_RELAXED) & initialised) != 0;
}

bool is_marked(const Link_Queue *queue) {
  return (queue->flags & marked) != 0;
}

void set(Link_Queue *queue, int flag) {
  __atomic_fetch_or(&queue->flags, flag, __ATOMIC_RELAXED);
}

void clear(Link_Queue *queue, int flag) {
  __atomic_fetch_and(&queue->flags, ~flag, __ATOMIC_RELAXED);
}

unsigned int capacity_of(int request) {
  return request > 0 ? static_cast<unsigned int>(request) : default_capacity;
}

Link_Queue_Node *head_of(Link_Queue *queue) {
  return reinterpret_cast<Link_Queue_Node *>(&queue->head);
}

void make_empty(Link_Queue *queue) {
  queue->head = {head_of(queue), head_of(queue)};
}

void free_nodes(Link_Queue *queue) {
  for (Link_Queue_Node *node = queue->head.next; node != head_of(queue);) {
    Link_Queue_Node *next = node->next;
    free(node);
    node = next;
  }
  make_empty(queue);
}

void append(Link_Queue *queue, Link_Queue_Node *node) {
  node->next = head_of(queue);
  node->prev = queue->head.prev;
  queue->head.prev->next = node;
  queue->head.prev = node;
}

}  // namespace
}  // namespace tarn

int Link_Queue_Init(Link_Queue *queue, int capacity, pthread_mutex_t *mutex, pthread_cond_t *condition) {
  if (queue == nullptr) return -EINVAL;
  *queue = {.capacity = tarn::capacity_of(capacity),
            .count = 0,
            .total = 0,
            .flags = tarn::initialised,
            .mutex = mutex,
            .condition = condition,
            .head = {}};
  tarn::make_empty(queue);
  return 0;
}

int Link_Queue_Destroy(Link_Queue *queue) {
  if (queue == nullptr) return -EINVAL;
  if (!tarn::is_ready(queue)) return 0;
  tarn::clear(queue, tarn::initialised);
  tarn::free_nodes(queue);
  return 0;
}

int Link_Queue_Reset(Link_Queue *queue, int capacity) {
  if (!tarn::is_ready(queue)) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  tarn::free_nodes(queue);
  tarn::clear(queue, tarn::marked);
  queue->capacity = tarn::capacity_of(capacity);
  queue->count = 0;
  queue->total = 0;
  return 0;
}

int Link_Queue_Mark(Link_Queue *queue) {
  if (!tarn::is_ready(queue)) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  tarn::set(queue, tarn::marked);
  return 0;
}

int Link_Queue_Get_Size(Link_Queue *queue) {
  if (!tarn::is_ready(queue)) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  // More would read as an error.
  return tarn::is_marked(queue) ? -EXFULL : static_cast<int>(std::min<unsigned int>(queue->total, INT_MAX));
}

int Link_Queue_Get_Number(Link_Queue *queue) {
  if (!tarn::is_ready(queue)) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  return tarn::is_marked(queue) ? -EXFULL : static_cast<int>(queue->count);
}

int Link_Queue_Push_Node(Link_Queue *queue, Link_Queue_Node *node) {
  if (!tarn::is_ready(queue) || node == nullptr) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  // A full queue closes itself: the consumer learns that the producer outran it.
  if (queue->count == queue->capacity) tarn::set(queue, tarn::marked);
  if (tarn::is_marked(queue)) {
    free(node);
    return -EXFULL;
  }
  tarn::append(queue, node);
  queue->total += node->size;
  if (++queue->count == 1 && queue->condition != nullptr) pthread_cond_broadcast(queue->condition);
  return 0;
}

int Link_Queue_Pop_Node(Link_Queue *queue, Link_Queue_Node **node) {
  if (!tarn::is_ready(queue) || node == nullptr) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  if (tarn::is_marked(queue)) return -EXFULL;
  if (queue->count == 0) return 0;
  Link_Queue_Node *first = queue->head.next;
  queue->head.next = first->next;
  first->next->prev = tarn::head_of(queue);
  --queue->count;
  queue->total -= first->size;
  first->next = first;
  first->prev = first;
  *node = first;
  return 1;
}

int Link_Queue_Pop_Nodes(Link_Queue *queue, Link_Queue_Node **first) {
  if (!tarn::is_ready(queue) || first == nullptr) return -EINVAL;
  const tarn::Queue_Lock lock(queue);
  if (tarn::is_marked(queue)) return -EXFULL;
  if (queue->count == 0) return 0;
  const int taken = static_cast<int>(queue->count);
  *first = queue->head.next;
  queue->head.next->prev = queue->head.prev;
  queue->head.prev->next = queue->head.next;
  tarn::make_empty(queue);
  queue->count = 0;
  queue->total = 0;
  return taken;
}
