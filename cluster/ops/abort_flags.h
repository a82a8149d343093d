// The flags that the calling program registers.
#pragma once

#include <atomic>

#include "include/tarncluster_util.h"

namespace tarn {

// Read anew at every wait: the flag's owner may set it from another thread or a signal handler, or register another.
inline int abort_flag() {
  int *flag = std::atomic_ref<int *>(g_pbAbort).load(std::memory_order_relaxed);
  return flag != nullptr ? std::atomic_ref<int>(*flag).load(std::memory_order_relaxed) : 0;
}

}  // namespace tarn
