/* A thread reads lines and hands them over a link queue to another, which counts them:
 *
 *     queue_threads CAPACITY [slowly]
 *
 * The producer waits while the queue is half full: a queue that fills up closes itself. With "slowly" the consumer
 * does not begin before all is read, and the producer does not wait, so that it can be seen how a closed queue looks.
 */
#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarncluster_util.h"

struct work {
  pthread_mutex_t mutex;
  pthread_cond_t filled; /* the queue broadcasts it when there is something again */
  pthread_cond_t taken;
  Link_Queue queue;
  int slowly;
  int at_end; /* nothing more comes */
  int lines;
  long bytes;
  int status;
};

static void wait_for_room(struct work *work) {
  pthread_mutex_lock(&work->mutex);
  while (work->queue.count > work->queue.capacity / 2) pthread_cond_wait(&work->taken, &work->mutex);
  pthread_mutex_unlock(&work->mutex);
}

static int push_line(struct work *work, const char *line) {
  const size_t length = strlen(line);
  Link_Queue_Node *node = malloc(sizeof *node + length + 1);
  if (node == NULL) return -ENOMEM;
  node->size = (uint16_t)length;
  memcpy(node->payload, line, length + 1);
  if (!work->slowly) wait_for_room(work);
  return Link_Queue_Push_Node(&work->queue, node); /* the node is the queue's now, whatever it answers */
}

/* Nobody is woken by a queue that closes, so the consumer is told by itself. */
static void end_work(struct work *work, int status) {
  pthread_mutex_lock(&work->mutex);
  work->at_end = 1;
  work->status = status;
  pthread_cond_broadcast(&work->filled);
  pthread_mutex_unlock(&work->mutex);
}

static void *produce(void *argument) {
  struct work *work = argument;
  char line[1024];
  int status = 0;
  while (status == 0 && fgets(line, sizeof line, stdin) != NULL) {
    line[strcspn(line, "\n")] = '\0';
    status = push_line(work, line);
  }
  end_work(work, status);
  return NULL;
}

/* Answers 0 when nothing more comes. */
static int wait_for_lines(struct work *work) {
  pthread_mutex_lock(&work->mutex);
  while ((work->queue.count == 0 || work->slowly) && !work->at_end) pthread_cond_wait(&work->filled, &work->mutex);
  const int more = work->queue.count > 0;
  pthread_mutex_unlock(&work->mutex);
  return more;
}

static void *consume(void *argument) {
  struct work *work = argument;
  Link_Queue_Node *node;
  while (wait_for_lines(work) && Link_Queue_Pop_Node(&work->queue, &node) == 1) {
    ++work->lines;
    work->bytes += node->size;
    free(node);
    pthread_mutex_lock(&work->mutex);
    pthread_cond_signal(&work->taken);
    pthread_mutex_unlock(&work->mutex);
  }
  return NULL;
}

int main(int argc, char **argv) {
  const int slowly = argc == 3 && strcmp(argv[2], "slowly") == 0;
  if (argc != 2 && !slowly) {
    fprintf(stderr, "usage: %s CAPACITY [slowly]\n", argv[0]);
    return 2;
  }
  struct work work = {
      .mutex = PTHREAD_MUTEX_INITIALIZER,
      .filled = PTHREAD_COND_INITIALIZER,
      .taken = PTHREAD_COND_INITIALIZER,
      .slowly = slowly,
  };
  Link_Queue_Init(&work.queue, atoi(argv[1]), &work.mutex, &work.filled);
  pthread_t producer, consumer;
  if (pthread_create(&consumer, NULL, consume, &work) != 0) return 1;
  const int failure = pthread_create(&producer, NULL, produce, &work);
  if (failure != 0) end_work(&work, -failure);
  if (failure == 0) pthread_join(producer, NULL);
  pthread_join(consumer, NULL);
  if (work.status == -EXFULL) puts("the queue overflowed");
  if (work.status == 0) printf("%d lines, %ld bytes\n", work.lines, work.bytes);
  Link_Queue_Destroy(&work.queue);
  return work.status != 0;
}
