#include "platform/clusterd/durable_files.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clusterd/io.h"

namespace tarn::platform {

namespace {

constexpr mode_t kParentPermissions = 0755;

std::string folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

int sync_folder(const std::string &folder) {
  const Descriptor fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return fd && fsync(fd.get()) == 0 ? 0 : -errno;
}

int write_all(int fd, const std::string &text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t count = write(fd, text.data() + done, text.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -errno;
    done += static_cast<size_t>(count);
  }
  return fsync(fd) == 0 ? 0 : -errno;
}

int write_new_file(const std::string &path, const std::string &text, mode_t permissions) {
  unlink(path.c_str());  // left by a service that was killed
  const Descriptor fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!fd) return -errno;
  const int result = write_all(fd.get(), text);
  if (result != 0) return result;
  return fchmod(fd.get(), permissions) == 0 ? 0 : -errno;
}

}  // namespace

bool is_there(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

std::string state_of_file(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return "none";
  return std::to_string(status.st_ino) + " " + std::to_string(status.st_size) + " " +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

int make_folder(const std::string &path, mode_t permissions) {
  if (mkdir(path.c_str(), permissions) == 0) {
    // The mask must not take away what is meant.
    if (chmod(path.c_str(), permissions) != 0) return -errno;
    return sync_folder(folder_of(path));
  }
  if (errno == EEXIST) return 0;
  if (errno != ENOENT || path == "/") return -errno;
  const int result = make_folder(folder_of(path), kParentPermissions);
  return result == 0 ? make_folder(path, permissions) : result;
}

int write_durably(const std::string &path, const std::string &text, mode_t permissions) {
  const std::string fresh = path + ".new";
  int result = write_new_file(fresh, text, permissions);
  if (result == 0 && rename(fresh.c_str(), path.c_str()) != 0) result = -errno;
  if (result != 0) {
    unlink(fresh.c_str());
    return result;
  }
  return sync_folder(folder_of(path));
}

int remove_durably(const std::string &path) {
  if (unlink(path.c_str()) != 0) return errno == ENOENT || errno == ENOTDIR ? 0 : -errno;
  return sync_folder(folder_of(path));
}

int read_text(const std::string &path, size_t limit, std::string *text) {
  const Descriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return -errno;
  std::string bytes;
  char buffer[8192];
  for (;;) {
    const ssize_t count = read(fd.get(), buffer, sizeof(buffer));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -errno;
    if (count == 0) break;
    bytes.append(buffer, static_cast<size_t>(count));
    if (bytes.size() > limit) return -EFBIG;
  }
  *text = std::move(bytes);
  return 0;
}

// The service blocks signals and ignores some; a program starts without that.
int run_program(const std::vector<std::string> &words) {
  std::vector<char *> list;
  for (const std::string &word : words) list.push_back(const_cast<char *>(word.c_str()));
  list.push_back(nullptr);

  sigset_t none;
  sigemptyset(&none);
  sigset_t ignored;
  sigemptyset(&ignored);
  for (const int number : {SIGPIPE, SIGXFSZ}) sigaddset(&ignored, number);
  posix_spawnattr_t attributes;
  if (posix_spawnattr_init(&attributes) != 0) return 127;
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &ignored);
  pid_t pid = 0;
  const int failure = posix_spawn(&pid, list[0], nullptr, &attributes, list.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (failure != 0) return 127;

  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 127;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace tarn::platform
