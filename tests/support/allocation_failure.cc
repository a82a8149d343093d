#include "tests/support/allocation_failure.h"

#include <cerrno>
#include <cstddef>

// The real allocator, behind the ones defined here: glibc's own, or the sanitizer's interceptors.
#if defined(__SANITIZE_ADDRESS__)
#define REAL(name) __interceptor_##name
#else
#define REAL(name) __libc_##name
#endif

extern "C" {
void *REAL(malloc)(size_t size);
void *REAL(calloc)(size_t count, size_t size);
void *REAL(realloc)(void *block, size_t size);
}

namespace {

thread_local int countdown = -1;
thread_local bool failed = false;

bool fails_now() {
  if (countdown <= 0 || --countdown > 0) return false;
  countdown = -1;
  failed = true;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" {

void *malloc(size_t size) {
  return fails_now() ? nullptr : REAL(malloc)(size);
}
void *calloc(size_t count, size_t size) {
  return fails_now() ? nullptr : REAL(calloc)(count, size);
}
void *realloc(void *block, size_t size) {
  return fails_now() ? nullptr : REAL(realloc)(block, size);
}

}  // extern "C"

namespace tarn::test {

Allocation_Failure::Allocation_Failure(int nth) {
  failed = false;
  countdown = nth;
}

Allocation_Failure::~Allocation_Failure() {
  countdown = -1;
}

bool allocation_failed() {
  return failed;
}

}  // namespace tarn::test
