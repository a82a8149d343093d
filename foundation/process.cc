#include "include/tarncluster_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "foundation/owners.h"
#include "foundation/program.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr int first_capacity = 64;
constexpr int line_limit = 4095;
constexpr int climb_limit = 4194304;  // the kernel's greatest number of processes: a climb that long is a circle

constexpr char get_all_pids[] = "Get_All_Pids";

class Pid_Array {
 public:
  int reserve_first() { return grow(first_capacity); }
  int append(int pid);
  int count() const { return count_; }
  int *release() { return pids_.release(); }

 private:
  int grow(int capacity);

  Heap<int> pids_;
  int capacity_ = 0;
  int count_ = 0;
};

int Pid_Array::grow(int capacity) {
  const size_t size = static_cast<size_t>(capacity) * sizeof(int);
  Heap<int> grown(static_cast<int *>(malloc(size)));
  if (grown == nullptr) {
    TARN_ERROR_AS(get_all_pids, "Can't allocate memory of %d bytes!", static_cast<int>(size));
    return -ENOMEM;
  }
  if (count_ > 0) memcpy(grown.get(), pids_.get(), static_cast<size_t>(count_) * sizeof(int));
  pids_ = std::move(grown);
  capacity_ = capacity;
  return 0;
}

int Pid_Array::append(int pid) {
  if (count_ == capacity_) {
    TARN_DEBUG_AS(get_all_pids, "Array is not big enough, it will be re-allocated. (%d=>%d)", capacity_, 2 * capacity_);
    const int status = grow(2 * capacity_);
    if (status != 0) return status;
  }
  pids_.get()[count_++] = pid;
  return 0;
}

bool is_number(const char *name) {
  return name[0] != '\0' && name[strspn(name, "0123456789")] == '\0';
}

bool is_process_folder(int proc, const char *entry) {
  struct stat status;
  if (fstatat(proc, entry, &status, AT_SYMLINK_NOFOLLOW) == 0) return S_ISDIR(status.st_mode);
  const int failure = -errno;
  TARN_DEBUG_AS(get_all_pids, "WARNING: Can't stat the file \"/proc/%s\". (%d)", entry, failure);
  return false;
}

// The bytes up to the line's end; kernel threads and zombies have none, and a command line holds NULs.
std::string_view first_line(const char *text, ssize_t length) {
  if (length <= 0) return {};
  const void *newline = memchr(text, '\n', static_cast<size_t>(length));
  return {text, newline != nullptr ? static_cast<size_t>(static_cast<const char *>(newline) - text)
                                   : static_cast<size_t>(length)};
}

bool has_name(const char *entry, std::string_view name) {
  const bool whole_command = name.front() == '/';
  char path[64];
  snprintf(path, sizeof path, "/proc/%.32s/%s", entry, whole_command ? "cmdline" : "comm");
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    const int failure = -errno;
    TARN_DEBUG_AS(get_all_pids, "WARNING: Can't open the file \"%s\" for reading. (%d)", path, failure);
    return false;
  }
  char text[line_limit];
  std::string_view line = first_line(text, read(file.get(), text, sizeof text));
  if (whole_command) return line.size() >= name.size() && memcmp(line.data(), name.data(), name.size()) == 0;
  const size_t slash = line.find('/');
  if (slash != line.npos) line.remove_suffix(line.size() - slash);
  return line == name;
}

int gather_pids(DIR *folder, int proc, const char *name, Pid_Array *pids) {
  while (const dirent *entry = readdir(folder)) {
    if (!is_number(entry->d_name) || !is_process_folder(proc, entry->d_name) || !has_name(entry->d_name, name)) {
      continue;
    }
    const int pid = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    const int status = pids->append(pid);
    if (status != 0) return status;
    TARN_DEBUG_AS(get_all_pids, "%d is a \"%s\" process.", pid, name);
  }
  return 0;
}

ssize_t read_once(FILE *stream, char *buffer, int size) {
  ssize_t length;
  do {
    length = read(fileno(stream), buffer, static_cast<size_t>(size));
  } while (length < 0 && errno == EINTR);
  return std::max<ssize_t>(length, 0);
}

}  // namespace
}  // namespace tarn

int Is_Process_Existed(int pid) {
  if (pid < 1) return 0;
  if (kill(pid, 0) == 0) return 1;
  return errno == ESRCH ? 0 : -errno;
}

int Get_Parent_Pid(int pid, int *parent) {
  if (parent == nullptr) return -EINVAL;
  *parent = -1;
  if (pid < 0) return -EINVAL;

  char path[32];
  snprintf(path, sizeof path, "/proc/%d/stat", pid);
  const tarn::Stream stream(fopen(path, "re"));
  if (stream == nullptr) return -ESRCH;
  int own = 0;
  char name[256];
  char state = 0;
  int found = 0;
  // Stops inside a name that holds a blank: callers know such a process as not found.
  // NOLINTNEXTLINE(cert-err34-c): the kernel wrote the numbers
  if (fscanf(stream.get(), "%d %255s %c %d", &own, name, &state, &found) != 4) return -ESRCH;
  *parent = found;
  return 0;
}

int Get_All_Pids(const char *name, int **pids, int *count) {
  if (name == nullptr || name[0] == '\0' || pids == nullptr || count == nullptr) return -EINVAL;
  *pids = nullptr;
  *count = 0;

  tarn::Pid_Array found;
  int status = found.reserve_first();
  if (status != 0) return status;
  const tarn::Folder folder(opendir("/proc"));
  if (folder == nullptr) {
    const int failure = -errno;
    TARN_ERROR("Can't open the folder \"/proc\"! (%d)", failure);
    return failure;
  }
  const int proc = dirfd(folder.get());
  if (proc < 0) {
    const int failure = -errno;
    TARN_ERROR("Can't get the fd of \"/proc\" folder. (%d)", failure);
    return failure;
  }
  status = tarn::gather_pids(folder.get(), proc, name, &found);
  if (status != 0) return status;
  if (found.count() == 0) return -ENODATA;
  *count = found.count();
  *pids = found.release();
  return 0;
}

int Get_Ancestry_Pid(const char *name, int *pid) {
  if (pid == nullptr) return -EINVAL;
  *pid = -1;
  int *pids = nullptr;
  int count = 0;
  const int status = Get_All_Pids(name, &pids, &count);
  if (status != 0) return status;
  const tarn::Heap<int> owner(pids);

  int current = pids[0];
  int parent = -1;
  for (int step = 0; step < tarn::climb_limit && Get_Parent_Pid(current, &parent) == 0 && parent != 1; ++step) {
    current = parent;
  }
  *pid = current;
  return 0;
}

int Get_Program_Output(const char *command, char *buffer, int *size) {
  if (command == nullptr || buffer == nullptr || size == nullptr || *size < 1) return -EINVAL;

  errno = 0;
  const tarn::Command stream(popen(command, "re"));
  if (stream == nullptr) return errno != 0 ? -errno : -ENOMEM;
  ssize_t length = tarn::read_once(stream.get(), buffer, *size);
  if (length > 0 && buffer[length - 1] == '\n') --length;
  buffer[length] = '\0';
  *size = static_cast<int>(length);
  return 0;
}
