// Time-outs in milliseconds, as every waiting function takes them.
#pragma once

#include <cstdint>

namespace tarn {

// A negative time-out never passes.
inline bool is_past(uint64_t elapsed_ms, int timeout_ms) {
  return timeout_ms >= 0 && elapsed_ms > static_cast<uint64_t>(timeout_ms);
}

}  // namespace tarn
