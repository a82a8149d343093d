#include <gmock/gmock.h>
#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <random>
#include <thread>
#include <vector>

#include "include/tarncluster_util.h"

namespace {

// Nodes are of a size that nothing else here allocates, so that they are known when they are freed.
constexpr size_t node_size = 3000;
std::atomic<int> freed_nodes = 0;

void note_freed(size_t size) {
  if (size == node_size) ++freed_nodes;
}

}  // namespace

extern "C" {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
size_t __sanitizer_get_allocated_size(const volatile void *block);
void __sanitizer_free_hook(const volatile void *block);

void __sanitizer_free_hook(const volatile void *block) {
  note_freed(__sanitizer_get_allocated_size(block));
}
#else
void __libc_free(void *block);

void free(void *block) {
  note_freed(malloc_usable_size(block));
  __libc_free(block);
}
#endif

}  // extern "C"

namespace {

using testing::ElementsAre;

// Programs compiled earlier keep queues and nodes in their own memory.
static_assert(sizeof(Link_Queue) == 48);
static_assert(offsetof(Link_Queue, capacity) == 0 && offsetof(Link_Queue, count) == 4);
static_assert(offsetof(Link_Queue, total) == 8 && offsetof(Link_Queue, flags) == 12);
static_assert(offsetof(Link_Queue, mutex) == 16 && offsetof(Link_Queue, condition) == 24);
static_assert(offsetof(Link_Queue, head) == 32);
static_assert(offsetof(Link_Queue_Node, next) == 0 && offsetof(Link_Queue_Node, prev) == 8);
static_assert(offsetof(Link_Queue_Node, unused) == 16 && sizeof(Link_Queue_Node::unused) == 2);
static_assert(offsetof(Link_Queue_Node, size) == 18 && sizeof(Link_Queue_Node::size) == 2);
static_assert(offsetof(Link_Queue_Node, payload) == 20);

constexpr int default_capacity = 32767;

Link_Queue_Node *make_node(int number, uint16_t size = 1) {
  auto *node = static_cast<Link_Queue_Node *>(malloc(node_size));
  node->unused = 0xabcd;
  node->size = size;
  memcpy(node->payload, &number, sizeof number);
  return node;
}

int number_of(const Link_Queue_Node *node) {
  int number;
  memcpy(&number, node->payload, sizeof number);
  return number;
}

// Frees a node that was taken and answers its number.
int take_apart(Link_Queue_Node *node) {
  const int number = number_of(node);
  free(node);
  return number;
}

int pop_number(Link_Queue *queue) {
  Link_Queue_Node *node = nullptr;
  const int status = Link_Queue_Pop_Node(queue, &node);
  return status == 1 ? take_apart(node) : status - 1000;
}

// Frees a chain of Pop_Nodes; a ring in both directions.
std::vector<int> numbers_of_ring(Link_Queue_Node *first) {
  std::vector<int> numbers;
  std::vector<Link_Queue_Node *> nodes;
  Link_Queue_Node *node = first;
  do {
    EXPECT_EQ(node->next->prev, node);
    EXPECT_EQ(node->prev->next, node);
    numbers.push_back(number_of(node));
    nodes.push_back(node);
    node = node->next;
  } while (node != first && nodes.size() < 100'000);
  for (Link_Queue_Node *each : nodes) free(each);
  return numbers;
}

std::vector<int> numbers_in(const Link_Queue &queue) {
  std::vector<int> numbers;
  const auto *head = reinterpret_cast<const Link_Queue_Node *>(&queue.head);
  for (const Link_Queue_Node *node = queue.head.next; node != head; node = node->next) {
    EXPECT_EQ(node->prev->next, node);
    numbers.push_back(number_of(node));
  }
  return numbers;
}

class Queue : public testing::Test {
 protected:
  Queue() {
    memset(&queue, 0xee, sizeof queue);
    EXPECT_EQ(Link_Queue_Init(&queue, 100, nullptr, nullptr), 0);
    freed_nodes = 0;
  }
  ~Queue() override { EXPECT_EQ(Link_Queue_Destroy(&queue), 0); }

  void push(std::initializer_list<int> numbers) {
    for (const int number : numbers) EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(number)), 0);
  }

  Link_Queue queue;
};

// ---------------------------------------------------------------------------------------------------------------- init

TEST_F(Queue, Init_makes_an_empty_queue_of_whatever_was_there) {
  pthread_mutex_t mutex;
  pthread_cond_t condition;
  memset(&queue, 0xff, sizeof queue);

  EXPECT_EQ(Link_Queue_Init(&queue, 7, &mutex, &condition), 0);

  EXPECT_EQ(queue.capacity, 7u);
  EXPECT_EQ(queue.count, 0u);
  EXPECT_EQ(queue.total, 0u);
  EXPECT_EQ(queue.flags, 1);
  EXPECT_EQ(queue.mutex, &mutex);
  EXPECT_EQ(queue.condition, &condition);
  EXPECT_EQ(static_cast<void *>(queue.head.next), &queue.head);
  EXPECT_EQ(static_cast<void *>(queue.head.prev), &queue.head);
}

TEST_F(Queue, Capacities_of_0_and_less_mean_32767) {
  const auto capacity = [&](int request) {
    EXPECT_EQ(Link_Queue_Init(&queue, request, nullptr, nullptr), 0);
    return queue.capacity;
  };
  EXPECT_EQ(capacity(0), 32767u);
  EXPECT_EQ(capacity(-1), 32767u);
  EXPECT_EQ(capacity(INT_MIN), 32767u);
  EXPECT_EQ(capacity(1), 1u);
  EXPECT_EQ(capacity(40000), 40000u);
  EXPECT_EQ(capacity(INT_MAX), 2147483647u);
}

TEST(Queue_Arguments, A_missing_queue_is_refused_everywhere) {
  Link_Queue_Node *node = make_node(1);
  Link_Queue_Node *out = node;
  freed_nodes = 0;

  EXPECT_EQ(Link_Queue_Init(nullptr, 1, nullptr, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Destroy(nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Reset(nullptr, 1), -EINVAL);
  EXPECT_EQ(Link_Queue_Mark(nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Get_Size(nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Get_Number(nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Push_Node(nullptr, node), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Node(nullptr, &out), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(nullptr, &out), -EINVAL);

  EXPECT_EQ(freed_nodes, 0);
  EXPECT_EQ(out, node);
  free(node);
}

// The rest of such a record means nothing: its mutex is not touched either.
TEST(Queue_Arguments, A_record_that_is_not_initialised_is_refused_and_left_alone) {
  Link_Queue queue;
  memset(&queue, 0xee, sizeof queue);
  queue.flags = ~1;
  const Link_Queue before = queue;
  Link_Queue_Node *node = make_node(1);
  Link_Queue_Node *out = node;
  freed_nodes = 0;

  EXPECT_EQ(Link_Queue_Reset(&queue, 1), -EINVAL);
  EXPECT_EQ(Link_Queue_Mark(&queue), -EINVAL);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), -EINVAL);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), -EINVAL);
  EXPECT_EQ(Link_Queue_Push_Node(&queue, node), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, &out), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &out), -EINVAL);
  EXPECT_EQ(Link_Queue_Destroy(&queue), 0);

  EXPECT_EQ(memcmp(&queue, &before, sizeof queue), 0);
  EXPECT_EQ(freed_nodes, 0);
  EXPECT_EQ(out, node);
  free(node);
}

TEST_F(Queue, Missing_nodes_and_outputs_are_refused) {
  push({1});
  EXPECT_EQ(Link_Queue_Push_Node(&queue, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, nullptr), -EINVAL);
  EXPECT_THAT(numbers_in(queue), ElementsAre(1));

  Link_Queue_Mark(&queue);  // arguments come first
  EXPECT_EQ(Link_Queue_Push_Node(&queue, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, nullptr), -EINVAL);
}

TEST_F(Queue, A_push_without_a_node_does_not_close_a_full_queue) {
  Link_Queue_Reset(&queue, 1);
  push({1});
  EXPECT_EQ(Link_Queue_Push_Node(&queue, nullptr), -EINVAL);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 1);
}

// ------------------------------------------------------------------------------------------------------- push and pops

TEST_F(Queue, Nodes_come_out_in_the_order_in_which_they_went_in) {
  push({1, 2, 3});
  EXPECT_EQ(pop_number(&queue), 1);
  push({4});
  EXPECT_EQ(pop_number(&queue), 2);
  EXPECT_EQ(pop_number(&queue), 3);
  EXPECT_EQ(pop_number(&queue), 4);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 0);
  push({5});
  EXPECT_EQ(pop_number(&queue), 5);
}

TEST_F(Queue, A_popped_node_is_linked_to_itself_and_otherwise_as_it_was) {
  Link_Queue_Node *pushed = make_node(9, 77);
  Link_Queue_Push_Node(&queue, pushed);
  push({10});
  Link_Queue_Node *node = nullptr;

  EXPECT_EQ(Link_Queue_Pop_Node(&queue, &node), 1);

  ASSERT_EQ(node, pushed);
  EXPECT_EQ(node->next, node);
  EXPECT_EQ(node->prev, node);
  EXPECT_EQ(node->unused, 0xabcd);
  EXPECT_EQ(node->size, 77);
  EXPECT_EQ(freed_nodes, 0);
  free(node);
}

TEST_F(Queue, Pops_of_an_empty_queue_answer_0_and_leave_the_output) {
  Link_Queue_Node untouched;
  Link_Queue_Node *out = &untouched;
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, &out), 0);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &out), 0);
  EXPECT_EQ(out, &untouched);
}

TEST_F(Queue, Pop_Nodes_hands_out_a_ring_in_the_order_of_pushing) {
  push({1, 2, 3});
  Link_Queue_Node *first = nullptr;

  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &first), 3);

  EXPECT_THAT(numbers_of_ring(first), ElementsAre(1, 2, 3));
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 0);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 0);
  EXPECT_THAT(numbers_in(queue), ElementsAre());
  push({4, 5});
  EXPECT_THAT(numbers_in(queue), ElementsAre(4, 5));
}

TEST_F(Queue, Pop_Nodes_of_one_node_hands_out_a_ring_of_it) {
  push({1});
  Link_Queue_Node *first = nullptr;
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &first), 1);
  EXPECT_THAT(numbers_of_ring(first), ElementsAre(1));
}

TEST_F(Queue, Total_follows_the_sizes_through_pushes_and_pops) {
  const auto push_of = [&](uint16_t size) { EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(0, size)), 0); };
  push_of(10);
  push_of(65535);
  push_of(0);
  push_of(300);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 65845);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 4);
  pop_number(&queue);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 65835);
  pop_number(&queue);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 300);
  EXPECT_EQ(Link_Queue_Reset(&queue, 0), 0);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 0);
}

// A greater one would read as an error.
TEST_F(Queue, Get_Size_answers_INT_MAX_for_a_total_beyond_it) {
  queue.total = 2147483647u;
  EXPECT_EQ(Link_Queue_Get_Size(&queue), INT_MAX);
  queue.total = 2147483648u;
  EXPECT_EQ(Link_Queue_Get_Size(&queue), INT_MAX);
  queue.total = 0xffffffffu;
  EXPECT_EQ(Link_Queue_Get_Size(&queue), INT_MAX);
  EXPECT_EQ(queue.total, 0xffffffffu);
  queue.total = 2147483640u;
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(0, 65535)), 0);
  EXPECT_EQ(queue.total, 2147549175u);
  pop_number(&queue);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 2147483640);
}

// ------------------------------------------------------------------------------------------------------------- closing

// The consumer learns in this way that the producer outran it.
TEST_F(Queue, A_full_queue_closes_itself_and_frees_the_node_that_was_too_much) {
  Link_Queue_Reset(&queue, 2);
  push({1, 2});
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 2);

  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(3)), -EXFULL);

  EXPECT_EQ(freed_nodes, 1);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), -EXFULL);
  EXPECT_EQ(queue.flags, 3);
  EXPECT_EQ(queue.count, 2u);
  EXPECT_EQ(queue.total, 2u);
  EXPECT_THAT(numbers_in(queue), ElementsAre(1, 2));
}

TEST_F(Queue, A_closed_queue_answers_EXFULL_to_all_but_Reset) {
  push({1, 2});
  EXPECT_EQ(Link_Queue_Mark(&queue), 0);
  EXPECT_EQ(Link_Queue_Mark(&queue), 0);
  Link_Queue_Node untouched;
  Link_Queue_Node *out = &untouched;

  EXPECT_EQ(Link_Queue_Get_Size(&queue), -EXFULL);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), -EXFULL);
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(3)), -EXFULL);
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, &out), -EXFULL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &out), -EXFULL);

  EXPECT_EQ(freed_nodes, 1);
  EXPECT_EQ(out, &untouched);
  EXPECT_THAT(numbers_in(queue), ElementsAre(1, 2));
}

TEST_F(Queue, An_empty_closed_queue_answers_EXFULL_too) {
  Link_Queue_Mark(&queue);
  Link_Queue_Node *out = nullptr;
  EXPECT_EQ(Link_Queue_Pop_Node(&queue, &out), -EXFULL);
  EXPECT_EQ(Link_Queue_Pop_Nodes(&queue, &out), -EXFULL);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), -EXFULL);
}

TEST_F(Queue, Reset_frees_the_nodes_opens_the_queue_and_sets_the_capacity) {
  Link_Queue_Reset(&queue, 3);
  push({1, 2, 3});
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(4)), -EXFULL);

  EXPECT_EQ(Link_Queue_Reset(&queue, 1), 0);

  EXPECT_EQ(freed_nodes, 4);
  EXPECT_EQ(queue.flags, 1);
  EXPECT_EQ(queue.capacity, 1u);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 0);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 0);
  push({5});
  EXPECT_EQ(pop_number(&queue), 5);
  push({6});
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(7)), -EXFULL);
}

TEST_F(Queue, Reset_keeps_mutex_and_condition_and_takes_0_and_less_as_32767) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  Link_Queue_Init(&queue, 1, &mutex, &condition);
  for (const int request : {0, -5, INT_MIN}) {
    queue.capacity = 1;
    EXPECT_EQ(Link_Queue_Reset(&queue, request), 0);
    EXPECT_EQ(queue.capacity, 32767u) << request;
  }
  EXPECT_EQ(queue.mutex, &mutex);
  EXPECT_EQ(queue.condition, &condition);
}

TEST_F(Queue, The_default_capacity_holds_32767_nodes_and_no_more) {
  Link_Queue_Reset(&queue, 0);
  for (int number = 0; number < default_capacity; ++number) {
    ASSERT_EQ(Link_Queue_Push_Node(&queue, make_node(number)), 0) << number;
  }
  EXPECT_EQ(Link_Queue_Get_Number(&queue), default_capacity);
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(0)), -EXFULL);
  EXPECT_EQ(Link_Queue_Reset(&queue, 0), 0);
  EXPECT_EQ(freed_nodes, default_capacity + 1);
}

// ------------------------------------------------------------------------------------------------------------- destroy

TEST_F(Queue, Destroy_frees_the_nodes_and_leaves_the_rest_of_the_record) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  Link_Queue_Init(&queue, 5, &mutex, &condition);
  push({1, 2, 3});
  Link_Queue_Mark(&queue);

  EXPECT_EQ(Link_Queue_Destroy(&queue), 0);

  EXPECT_EQ(freed_nodes, 3);
  EXPECT_EQ(queue.flags, 2);
  EXPECT_EQ(queue.capacity, 5u);
  EXPECT_EQ(queue.count, 3u);
  EXPECT_EQ(queue.total, 3u);
  EXPECT_EQ(queue.mutex, &mutex);
  EXPECT_EQ(queue.condition, &condition);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), -EINVAL);
}

TEST_F(Queue, A_destroyed_queue_can_be_destroyed_again_and_made_anew) {
  push({1, 2});
  EXPECT_EQ(Link_Queue_Destroy(&queue), 0);
  EXPECT_EQ(Link_Queue_Destroy(&queue), 0);
  EXPECT_EQ(freed_nodes, 2);

  EXPECT_EQ(Link_Queue_Init(&queue, 1, nullptr, nullptr), 0);
  push({3});
  EXPECT_EQ(pop_number(&queue), 3);
}

// ------------------------------------------------------------------------------------------------ mutex and condition

// A mutex that tells when it is unlocked too often, and a condition with a waiter.
class Locked_Queue : public testing::Test {
 protected:
  Locked_Queue() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    Link_Queue_Init(&queue, 2, &mutex, &condition);
  }
  ~Locked_Queue() override {
    Link_Queue_Destroy(&queue);
    pthread_mutex_destroy(&mutex);
    pthread_cond_destroy(&condition);
  }

  bool mutex_is_free() {
    if (pthread_mutex_trylock(&mutex) != 0) return false;
    pthread_mutex_unlock(&mutex);
    return true;
  }

  // Whether the call waits while another thread has the mutex.
  template <typename Call>
  bool waits_for_mutex(Call call) {
    std::atomic<bool> ended = false;
    pthread_mutex_lock(&mutex);
    std::jthread other([&] {
      call();
      ended = true;
    });
    for (int i = 0; i < 30 && !ended; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const bool waited = !ended;
    pthread_mutex_unlock(&mutex);
    return waited;
  }

  // Waits in two threads, calls, and answers how many of them were woken, for which they have two seconds.
  template <typename Call>
  int woken_by(Call call, int expected) {
    std::atomic<int> waiting = 0, woken = 0;
    bool over = false;
    std::vector<std::jthread> waiters;
    for (int i = 0; i < 2; ++i) {
      waiters.emplace_back([&] {
        pthread_mutex_lock(&mutex);
        ++waiting;
        pthread_cond_wait(&condition, &mutex);
        if (!over) ++woken;
        pthread_mutex_unlock(&mutex);
      });
    }
    for (bool ready = false; !ready;) {
      pthread_mutex_lock(&mutex);  // had while both are inside the wait
      ready = waiting == 2;
      pthread_mutex_unlock(&mutex);
      std::this_thread::yield();
    }
    call();
    const int patience = expected > 0 ? 2000 : 50;
    for (int i = 0; i < patience && woken != 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    pthread_mutex_lock(&mutex);
    over = true;
    pthread_cond_broadcast(&condition);
    pthread_mutex_unlock(&mutex);
    waiters.clear();
    return woken;
  }

  pthread_mutex_t mutex;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  Link_Queue queue;
};

TEST_F(Locked_Queue, Every_call_but_Init_and_Destroy_holds_the_mutex) {
  Link_Queue_Node *node = nullptr;
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Push_Node(&queue, make_node(1)); }));
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Get_Number(&queue); }));
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Get_Size(&queue); }));
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Pop_Node(&queue, &node); }));
  free(node);
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Pop_Nodes(&queue, &node); }));
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Mark(&queue); }));
  EXPECT_TRUE(waits_for_mutex([&] { Link_Queue_Reset(&queue, 1); }));
  Link_Queue_Push_Node(&queue, make_node(1));

  pthread_mutex_lock(&mutex);
  EXPECT_EQ(Link_Queue_Destroy(&queue), 0);
  EXPECT_EQ(Link_Queue_Init(&queue, 2, &mutex, &condition), 0);
  pthread_mutex_unlock(&mutex);
}

TEST_F(Locked_Queue, The_mutex_is_unlocked_on_every_way_out) {
  Link_Queue_Node *node = nullptr;
  const auto is_unlocked_after = [&](int status, int expected) {
    EXPECT_EQ(status, expected);
    return mutex_is_free();
  };
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Node(&queue, &node), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Nodes(&queue, &node), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(1)), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Node(&queue, &node), 1));
  free(node);
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(1)), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Nodes(&queue, &node), 1));
  free(node);
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(1)), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(2)), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Get_Number(&queue), 2));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Get_Size(&queue), 2));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(3)), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, make_node(3)), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Push_Node(&queue, nullptr), -EINVAL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Node(&queue, &node), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Pop_Nodes(&queue, &node), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Get_Number(&queue), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Get_Size(&queue), -EXFULL));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Mark(&queue), 0));
  EXPECT_TRUE(is_unlocked_after(Link_Queue_Reset(&queue, 2), 0));
}

TEST_F(Locked_Queue, The_first_node_wakes_all_who_wait) {
  EXPECT_EQ(woken_by([&] { Link_Queue_Push_Node(&queue, make_node(1)); }, 2), 2);
  Link_Queue_Node *node = nullptr;
  Link_Queue_Pop_Nodes(&queue, &node);
  free(node);
  EXPECT_EQ(woken_by([&] { Link_Queue_Push_Node(&queue, make_node(1)); }, 2), 2);
}

// Callers wait for the first node only, and look at a closed queue by themselves.
TEST_F(Locked_Queue, Nothing_else_wakes_anybody) {
  Link_Queue_Push_Node(&queue, make_node(1));
  EXPECT_EQ(woken_by([&] { Link_Queue_Push_Node(&queue, make_node(2)); }, 0), 0);
  EXPECT_EQ(woken_by([&] { Link_Queue_Push_Node(&queue, make_node(3)); }, 0), 0);  // closes
  EXPECT_EQ(woken_by([&] { Link_Queue_Mark(&queue); }, 0), 0);
  EXPECT_EQ(woken_by([&] { Link_Queue_Reset(&queue, 2); }, 0), 0);
}

TEST_F(Locked_Queue, Works_with_a_mutex_and_no_condition) {
  Link_Queue_Init(&queue, 2, &mutex, nullptr);
  EXPECT_EQ(Link_Queue_Push_Node(&queue, make_node(8)), 0);
  EXPECT_EQ(pop_number(&queue), 8);
}

TEST_F(Locked_Queue, Works_with_a_condition_and_no_mutex) {
  Link_Queue_Init(&queue, 2, nullptr, &condition);
  EXPECT_EQ(woken_by([&] { Link_Queue_Push_Node(&queue, make_node(8)); }, 2), 2);
  EXPECT_EQ(pop_number(&queue), 8);
}

// ------------------------------------------------------------------------------------------------------------- threads

constexpr int producers = 4, consumers = 4, nodes_each = 20'000;

class Storm : public Locked_Queue {
 protected:
  // A producer stops when the queue is closed; what it still had to push is not made.
  void produce(int producer) {
    for (int i = 0; i < nodes_each; ++i) {
      const int status = Link_Queue_Push_Node(&queue, make_node(producer * nodes_each + i));
      status == 0 ? ++pushed : ++refused;
      if (status != 0) return;
    }
  }

  // A consumer takes nodes by one or all at once until all have come or the queue is closed.
  void consume(bool all_at_once) {
    std::vector<int> last(producers, -1);
    for (;;) {
      Link_Queue_Node *first = nullptr;
      const int taken = all_at_once ? Link_Queue_Pop_Nodes(&queue, &first) : Link_Queue_Pop_Node(&queue, &first);
      if (taken < 0) return;
      if (taken > 0) {
        std::vector<int> numbers = numbers_of_ring(first);
        EXPECT_EQ(numbers.size(), static_cast<size_t>(taken));
        for (const int number : numbers) {
          EXPECT_GT(number, last[number / nodes_each]) << "a producer's nodes are out of order";
          last[number / nodes_each] = number;
        }
        popped += taken;
        continue;
      }
      pthread_mutex_lock(&mutex);
      while (queue.count == 0 && !no_more) pthread_cond_wait(&condition, &mutex);
      const bool over = queue.count == 0;
      pthread_mutex_unlock(&mutex);
      if (over) return;
    }
  }

  void run() {
    pushed = refused = popped = freed_nodes = 0;
    no_more = false;
    std::vector<std::jthread> takers, makers;
    for (int i = 0; i < consumers; ++i) takers.emplace_back([this, i] { consume(i % 2 == 0); });
    for (int i = 0; i < producers; ++i) makers.emplace_back([this, i] { produce(i); });
    makers.clear();
    pthread_mutex_lock(&mutex);
    no_more = true;
    pthread_cond_broadcast(&condition);  // closing wakes nobody, so those who wait are told
    pthread_mutex_unlock(&mutex);
    takers.clear();
  }

  std::atomic<int> pushed = 0, refused = 0, popped = 0;
  bool no_more = false;
};

TEST_F(Storm, Producers_and_consumers_lose_no_node) {
  Link_Queue_Reset(&queue, producers * nodes_each);
  run();
  EXPECT_EQ(pushed, producers * nodes_each);
  EXPECT_EQ(popped, producers * nodes_each);
  EXPECT_EQ(freed_nodes, producers * nodes_each);
  EXPECT_EQ(Link_Queue_Get_Number(&queue), 0);
  EXPECT_EQ(Link_Queue_Get_Size(&queue), 0);
}

TEST_F(Storm, A_queue_closed_by_overflow_is_reset_and_used_again_and_every_node_is_counted) {
  int overflows = 0;
  for (int round = 0; round < 20; ++round) {
    Link_Queue_Reset(&queue, 50);
    run();
    const int left = static_cast<int>(queue.count);
    EXPECT_EQ(pushed, popped + left);
    EXPECT_EQ(freed_nodes, popped + refused);
    const bool closed = refused > 0;
    EXPECT_EQ(Link_Queue_Get_Number(&queue), closed ? -EXFULL : left);
    overflows += closed ? 1 : 0;
    EXPECT_EQ(Link_Queue_Reset(&queue, 50), 0);
    EXPECT_EQ(freed_nodes, pushed + refused);
    EXPECT_EQ(Link_Queue_Get_Number(&queue), 0);
  }
  EXPECT_GT(overflows, 0);
}

TEST_F(Storm, Producers_alone_overflow_the_queue_exactly) {
  Link_Queue_Reset(&queue, 1000);
  freed_nodes = 0;
  std::vector<std::jthread> makers;
  for (int i = 0; i < 8; ++i) makers.emplace_back([this] { produce(0); });
  makers.clear();
  EXPECT_EQ(pushed, 1000);
  EXPECT_EQ(refused, 8);
  EXPECT_EQ(freed_nodes, 8);
  EXPECT_EQ(queue.count, 1000u);
  EXPECT_EQ(numbers_in(queue).size(), 1000u);
}

// --------------------------------------------------------------------------------------------------------------- model

// What a queue does, said with a deque.
class Model {
 public:
  int push(int number, int size) {
    if (nodes_.size() == capacity_) closed_ = true;
    if (closed_) return -EXFULL;
    nodes_.push_back({number, size});
    return 0;
  }
  std::vector<int> pop(size_t most) {
    std::vector<int> taken;
    while (taken.size() < most && !nodes_.empty()) {
      taken.push_back(nodes_.front().number);
      nodes_.pop_front();
    }
    return taken;
  }
  void reset(int capacity) {
    nodes_.clear();
    closed_ = false;
    capacity_ = capacity > 0 ? static_cast<size_t>(capacity) : default_capacity;
  }
  void close() { closed_ = true; }
  bool closed() const { return closed_; }
  int number() const { return closed_ ? -EXFULL : static_cast<int>(nodes_.size()); }
  int size() const {
    int sum = 0;
    for (const auto &node : nodes_) sum += node.size;
    return closed_ ? -EXFULL : sum;
  }

 private:
  struct Node {
    int number, size;
  };
  std::deque<Node> nodes_;
  size_t capacity_ = 1;
  bool closed_ = false;
};

void run_against_model(unsigned int seed) {
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::cout << "seed " << seed << "\n";
  std::mt19937 random(seed);
  const auto below = [&](unsigned int limit) { return random() % limit; };
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  Link_Queue queue;
  Link_Queue_Init(&queue, 1, &mutex, nullptr);
  Model model;
  int made = 0, popped = 0;
  freed_nodes = 0;

  for (int step = 0; step < 100'000 && !testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const unsigned int choice = below(100);
    if (choice < 50) {
      const int size = static_cast<int>(below(65536));
      const int expected = model.push(++made, size);
      ASSERT_EQ(Link_Queue_Push_Node(&queue, make_node(made, static_cast<uint16_t>(size))), expected);
    } else if (choice < 92) {
      Link_Queue_Node *node = nullptr;
      const bool all = choice >= 88;
      const int status = all ? Link_Queue_Pop_Nodes(&queue, &node) : Link_Queue_Pop_Node(&queue, &node);
      const std::vector<int> expected = model.closed() ? std::vector<int>() : model.pop(all ? SIZE_MAX : 1);
      ASSERT_EQ(status, model.closed() ? -EXFULL : static_cast<int>(expected.size()));
      ASSERT_EQ(node != nullptr ? numbers_of_ring(node) : std::vector<int>(), expected);
      popped += static_cast<int>(expected.size());
    } else if (choice < 93) {
      model.close();
      ASSERT_EQ(Link_Queue_Mark(&queue), 0);
    } else if (choice < 98 ? model.closed() : choice == 99) {
      const int capacity = static_cast<int>(below(60)) - 3;
      model.reset(capacity);
      ASSERT_EQ(Link_Queue_Reset(&queue, capacity), 0);
    }
    ASSERT_EQ(Link_Queue_Get_Number(&queue), model.number());
    ASSERT_EQ(Link_Queue_Get_Size(&queue), model.size());
  }

  Link_Queue_Destroy(&queue);
  EXPECT_EQ(freed_nodes, made);
  EXPECT_GT(popped, 1000);
}

TEST(Queue_Model, Random_operations_do_what_a_deque_does) {
  for (const unsigned int seed : {1u, 2u, 3u, 4u, std::random_device()()}) run_against_model(seed);
}

}  // namespace
