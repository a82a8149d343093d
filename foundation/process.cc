#include "include/tarncluster_util.h"

#include <signal.h>

#include <cerrno>

int Is_Process_Existed(int pid) {
  if (pid < 1) return 0;
  if (kill(pid, 0) == 0) return 1;
  return errno == ESRCH ? 0 : -errno;
}
