#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr const char *log_tool = "/sbin/log_tool";
constexpr size_t message_size = 1024;
constexpr unsigned entry_types = 3;

// A copy with a backslash before every character that the tool takes for its own; null when memory ends.
Heap_Text escape(const char *text) {
  Heap_Text copy(static_cast<char *>(malloc(2 * strlen(text) + 1)));
  if (!copy) return copy;
  char *end = copy.get();
  for (; *text != '\0'; ++text) {
    if (strchr("\"$\\", *text) != nullptr) *end++ = '\\';
    *end++ = *text;
  }
  *end = '\0';
  return copy;
}

int run_log_tool(int type, const char *user, const char *message) {
  const Heap_Text escaped_message = escape(message);
  const Heap_Text escaped_user = escape(user);
  if (!escaped_message || !escaped_user) return -ENOMEM;
  char type_text[16];
  snprintf(type_text, sizeof type_text, "%d", type);
  const int wait_status = pelk_exec(0, 0, 0, log_tool, "-a", escaped_message.get(), "-t", type_text, "-u",
                                    escaped_user.get(), static_cast<char *>(nullptr));
  return wait_status >> 8;
}

}  // namespace
}  // namespace tarn

int System_Log_Append(int type, const char *user, const char *format, ...) {
  if (user == nullptr || format == nullptr || static_cast<unsigned>(type) >= tarn::entry_types) return -EINVAL;
  char message[tarn::message_size];
  va_list arguments;
  va_start(arguments, format);
  errno = 0;  // a stale value would be taken for the formatter's
  const int length = vsnprintf(message, sizeof message, format, arguments);
  const int formatter_errno = errno;
  va_end(arguments);
  if (length < 0 || static_cast<size_t>(length) >= sizeof message) {
    const int status = formatter_errno != 0 ? -formatter_errno : -EOVERFLOW;
    TARN_DEBUG("Can't generate the system log message ! (%d, %s)", status, format);
    return status;
  }
  return tarn::run_log_tool(type, user, message);
}
