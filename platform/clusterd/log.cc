#include "platform/clusterd/log.h"

#include <errno.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace tarn::platform {

void log_line(const char *format, ...) {
  char line[1024];
  const int prefix = snprintf(line, sizeof(line) - 1, "%s: ", program_invocation_short_name);
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line + prefix, sizeof(line) - 1 - static_cast<size_t>(prefix), format, arguments);
  va_end(arguments);

  for (char *c = line; *c != '\0'; ++c) {
    if (static_cast<unsigned char>(*c) < ' ') *c = '?';
  }
  const size_t length = strlen(line);
  line[length] = '\n';
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line, length + 1);
}

}  // namespace tarn::platform
