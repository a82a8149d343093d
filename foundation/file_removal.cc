#include "include/tarncluster_util.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

#if defined(__aarch64__)
namespace {

constexpr long appliance_unlink = 391;  // the appliance kernel's own removal call
std::atomic<bool> appliance_call_missing{false};

}  // namespace
#endif

int Druvo_Really_Unlink(const char *path) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
#if defined(__aarch64__)
  if (!appliance_call_missing.load(std::memory_order_relaxed)) {
    if (syscall(appliance_unlink, path) == 0) return 0;
    // Another kernel answers ENOSYS, a container's filter EPERM. The removal that follows gives the answer.
    if (errno != ENOSYS && errno != EPERM) return -1;
    if (errno == ENOSYS) appliance_call_missing.store(true, std::memory_order_relaxed);
  }
#endif
  return unlink(path);
}

int Druvo_Unlinkat(int, const char *folder, const char *name, int flags) {
  if (folder == nullptr || name == nullptr) return -EINVAL;
  char path[PATH_MAX];
  const bool folder_alone = name[0] == '\0' && flags == 0;
  const int length = snprintf(path, sizeof path, "%s%s%s", folder, folder_alone ? "" : "/", name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
    errno = ENAMETOOLONG;  // a cut path may name something else
    return -1;
  }
  return (flags & AT_REMOVEDIR) != 0 ? rmdir(path) : unlink(path);
}
