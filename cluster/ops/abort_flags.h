// The flags that the calling program registers.
#pragma once

#include <atomic>

#include "include/tarncluster_util.h"

namespace tarn {

// Read anew at every wait: a flag's owner may set it from another thread or a signal handler, or register another.
inline int registered_flag(int *&pointer) {
  int *flag = std::atomic_ref<int *>(pointer).load(std::memory_order_relaxed);
  return flag != nullptr ? std::atomic_ref<int>(*flag).load(std::memory_order_relaxed) : 0;
}

inline int abort_flag() {
  return registered_flag(g_pbAbort);
}

inline int slave_on_master_flag() {
  return registered_flag(g_pbSlaveOnMaster);
}

}  // namespace tarn
