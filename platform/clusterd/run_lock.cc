#include "platform/clusterd/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clusterd/durable_files.h"

namespace tarn::platform {

int Run_Lock::take(const std::string &folder) {
  const int result = make_folder(folder, 0700);
  if (result != 0) return result;
  if (chmod(folder.c_str(), 0700) != 0) return -errno;
  const std::string path = folder + "/tarnclusterd.pid";
  Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!file) return -errno;
  if (flock(file.get(), LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? -EADDRINUSE : -errno;
  const std::string id = std::to_string(getpid()) + "\n";
  if (ftruncate(file.get(), 0) != 0) return -errno;
  if (pwrite(file.get(), id.data(), id.size(), 0) != static_cast<ssize_t>(id.size())) return -EIO;
  file_ = std::move(file);
  return 0;
}

// The file stays: one that is made anew could be locked beside it. Without an id it names nobody.
Run_Lock::~Run_Lock() {
  if (file_) [[maybe_unused]]
    const int result = ftruncate(file_.get(), 0);
}

}  // namespace tarn::platform
