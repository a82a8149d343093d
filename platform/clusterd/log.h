// The services' own log lines, on standard error: systemd keeps them, and whoever starts a service by hand sees them.
#ifndef TARN_PLATFORM_CLUSTERD_LOG_H
#define TARN_PLATFORM_CLUSTERD_LOG_H

namespace tarn::platform {

// Writes one line, the program's name before it. Control characters in what came from outside become "?".
[[gnu::format(printf, 1, 2)]] void log_line(const char *format, ...);

}  // namespace tarn::platform

#endif
