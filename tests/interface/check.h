/* What the C test programs hold the library against. */
#ifndef TARN_TESTS_INTERFACE_CHECK_H
#define TARN_TESTS_INTERFACE_CHECK_H

#include <stdio.h>
#include <stdlib.h>

/* Ends the program when the condition does not hold, saying which one. */
#define CHECK(condition)                                                      \
  do {                                                                        \
    if (!(condition)) {                                                       \
      fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      exit(1);                                                                \
    }                                                                         \
  } while (0)

#endif
