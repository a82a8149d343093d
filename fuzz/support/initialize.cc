// What every target begins with: the library formats each of its reports, at the highest level, and nobody keeps them.
#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  Simp_Log *log = nullptr;
  REQUIRE(Simp_Log_Create("/dev/null", &log, 24, 3, 0) == 0);
  REQUIRE(Simp_Log_Open(log, 0) == 0);
  g_ptslLog = log;
  g_idLogLevel = 3;
  return 0;
}
