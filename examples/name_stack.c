/* Reads names, one a line, and prints them as a set or as a stack:
 *
 *     name_stack set      each name once, in order, with how often it came
 *     name_stack stack    the last one first
 *
 * A set is a sorted list with an object in front of each string: here a count. */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "tarncluster_util.h"

enum { sorted = 1, stack = 2, first_size = 4096 };

/* Counts a name that the set has, and adds it otherwise. */
static int count_name(Str_List **set, const char *name) {
  void *object = NULL;
  uint32_t count = 1;
  const int index = Str_Obj_List_Find(*set, name, &object);
  if (index == -ENOENT) return Str_Obj_List_Add(set, name, &count);
  if (index < 0) return index;
  memcpy(&count, object, sizeof count);
  ++count;
  memcpy(object, &count, sizeof count);
  return index;
}

static void print_set(const Str_List *set) {
  for (char *const *name = set->pointers; *name != NULL; ++name) {
    uint32_t count;
    memcpy(&count, *name - sizeof count, sizeof count);
    printf("%u %s\n", (unsigned int)count, *name);
  }
}

static void print_stack(Str_List *names) {
  const char *name;
  while (Str_List_Pop(names, &name) >= 0) puts(name);
}

int main(int argc, char **argv) {
  const int is_set = argc == 2 && strcmp(argv[1], "set") == 0;
  if (!is_set && (argc != 2 || strcmp(argv[1], "stack") != 0)) {
    fprintf(stderr, "usage: %s set|stack\n", argv[0]);
    return 2;
  }
  Str_List *names = NULL;
  char line[1024];
  int status = is_set ? Str_Obj_List_Init(&names, first_size, sorted, sizeof(uint32_t))
                      : Str_List_Init(&names, first_size, stack);
  while (status >= 0 && fgets(line, sizeof line, stdin) != NULL) {
    line[strcspn(line, "\n")] = '\0';
    if (line[0] != '\0') status = is_set ? count_name(&names, line) : Str_List_Push(&names, line);
  }
  if (status < 0) fprintf(stderr, "cannot keep the names: %d\n", status);
  if (status >= 0 && is_set) print_set(names);
  if (status >= 0 && !is_set) print_stack(names);
  Str_List_Free(names);
  return status < 0;
}
