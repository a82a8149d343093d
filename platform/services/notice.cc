// Notices of the appliance: here, a line in the member's list of events.
#include "tarncluster_util.h"

#include <errno.h>
#include <stddef.h>

int SendNoticeToLogEngine(int, int, int, const char *, int, const char *, int, int, int, const char *, const char *,
                          const char *, const char *, int, int, const char *message) {
  if (message == nullptr) return -EINVAL;
  // The numbers are the log engine's own; only the message means something to people.
  return pelk_exec(0, 0, 0, "/sbin/log_tool", "-a", message, "-t", "0", "-u", "System", static_cast<char *>(nullptr));
}
