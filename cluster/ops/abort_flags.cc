#include "cluster/ops/abort_flags.h"

int g_bAbort = 0;
int *g_pbAbort = &g_bAbort;
int g_bSlaveOnMaster = 0;
int *g_pbSlaveOnMaster = &g_bSlaveOnMaster;

void Set_Abort(int *flag) {
  std::atomic_ref<int *>(g_pbAbort).store(flag, std::memory_order_relaxed);
}

void Set_Slave_On_Master(int *flag) {
  std::atomic_ref<int *>(g_pbSlaveOnMaster).store(flag, std::memory_order_relaxed);
}
