#include "bench/support/sync_switch.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool synchronises = false;

}  // namespace

// Linked into the program, these stand before the C library's for the library's objects too.
extern "C" int fdatasync(int fd) {
  return synchronises ? static_cast<int>(syscall(SYS_fdatasync, fd)) : 0;
}

extern "C" int fsync(int fd) {
  return synchronises ? static_cast<int>(syscall(SYS_fsync, fd)) : 0;
}

namespace tarn::bench {

Synchronised::Synchronised() {
  synchronises = true;
}

Synchronised::~Synchronised() {
  synchronises = false;
}

}  // namespace tarn::bench
