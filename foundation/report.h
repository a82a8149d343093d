// How the library reports: one line on g_ptslLog under the name of the exported function that reports.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

// The least g_idLogLevel at which lines of a kind are written.
inline constexpr int error_level = 1;
inline constexpr int info_level = 2;
inline constexpr int debug_level = 3;

inline bool reports(int level) {
  return g_ptslLog != nullptr && g_idLogLevel >= level;
}

}  // namespace tarn

// Nothing is formatted, and no argument is evaluated, when the level gate is shut. Simp_Log_Write's declaration makes
// the compiler check the format.
#define TARN_REPORT(level, tag, name, format, ...)                                                            \
  do {                                                                                                        \
    if (tarn::reports(level)) {                                                                               \
      Simp_Log_Write(g_ptslLog, "[" tag "] %s(%d): " format "\n", name, __LINE__ __VA_OPT__(, ) __VA_ARGS__); \
    }                                                                                                         \
  } while (false)

#define TARN_ERROR(...) TARN_REPORT(tarn::error_level, "error", __func__, __VA_ARGS__)
#define TARN_DEBUG(...) TARN_REPORT(tarn::debug_level, "debug", __func__, __VA_ARGS__)

// For a helper that reports for several exported functions: it is handed the name.
#define TARN_ERROR_AS(name, ...) TARN_REPORT(tarn::error_level, "error", name, __VA_ARGS__)
#define TARN_INFO_AS(name, ...) TARN_REPORT(tarn::info_level, "info", name, __VA_ARGS__)
#define TARN_DEBUG_AS(name, ...) TARN_REPORT(tarn::debug_level, "debug", name, __VA_ARGS__)
