#define FUSE_USE_VERSION 31
#include "tests/faults/recorded_disk.h"

#include <fcntl.h>
#include <fuse.h>
#include <linux/loop.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "tests/support/files.h"

namespace tarn::test {
namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void require(bool done, const std::string &what) {
  if (!done) fail(what);
}

// ---------------------------------------------------------------------- in the serving process

std::string served;  // the disk's content
int log_fd = -1;

struct Record_Head {
  uint64_t offset, size;
};

bool record(uint64_t offset, const char *bytes, size_t size) {
  const Record_Head head = {offset, size};
  return write(log_fd, &head, sizeof head) == sizeof head && write(log_fd, bytes, size) == static_cast<ssize_t>(size);
}

bool is_disk(const char *path) {
  return strcmp(path, "/disk") == 0;
}

int get_attributes(const char *path, struct stat *status, fuse_file_info *) {
  memset(status, 0, sizeof *status);
  status->st_mode = is_disk(path) ? S_IFREG | 0600 : S_IFDIR | 0700;
  status->st_nlink = 1;
  status->st_size = is_disk(path) ? static_cast<off_t>(served.size()) : 0;
  return is_disk(path) || strcmp(path, "/") == 0 ? 0 : -ENOENT;
}

int open_disk(const char *path, fuse_file_info *info) {
  info->direct_io = 1;  // the kernel keeps no bytes back
  return is_disk(path) ? 0 : -ENOENT;
}

int read_disk(const char *, char *buffer, size_t size, off_t offset, fuse_file_info *) {
  const auto begin = std::min(static_cast<size_t>(offset), served.size());
  return static_cast<int>(served.copy(buffer, size, begin));
}

int write_disk(const char *, const char *buffer, size_t size, off_t offset, fuse_file_info *) {
  const auto begin = static_cast<size_t>(offset);
  if (begin + size > served.size()) return -ENOSPC;
  if (!record(begin, buffer, size)) return -EIO;
  served.replace(begin, size, buffer, size);
  return static_cast<int>(size);
}

int flush_disk(const char *, int, fuse_file_info *) {
  return record(0, nullptr, 0) ? 0 : -EIO;
}

// Ends with the file system's unmounting.
int serve(const std::string &mount_point) {
  fuse_operations operations = {};
  operations.getattr = get_attributes;
  operations.open = open_disk;
  operations.read = read_disk;
  operations.write = write_disk;
  operations.fsync = flush_disk;
  char name[] = "recorded-disk", foreground[] = "-f", one_thread[] = "-s";
  std::string target = mount_point;
  char *arguments[] = {name, foreground, one_thread, target.data(), nullptr};
  return fuse_main(4, arguments, &operations, nullptr);
}

// ---------------------------------------------------------------------- loop devices

int free_loop_device(const std::string &image) {
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  require(control >= 0, "/dev/loop-control");
  const int backing = open(image.c_str(), O_RDWR | O_CLOEXEC);
  require(backing >= 0, image);
  loop_config config = {};
  config.fd = static_cast<uint32_t>(backing);
  config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
  int device = -1;
  // Somebody else may take the free device first.
  for (int tries = 0; device < 0 && tries < 500; ++tries) {
    if (tries > 0) usleep(10'000);
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    device = number < 0 ? -1 : open(("/dev/loop" + std::to_string(number)).c_str(), O_RDWR | O_CLOEXEC);
    if (device >= 0 && ioctl(device, LOOP_CONFIGURE, &config) != 0) close(std::exchange(device, -1));
  }
  close(control);
  close(backing);
  require(device >= 0, "a loop device for " + image);
  return device;
}

}  // namespace

Recorded_Disk::Recorded_Disk(const std::string &folder, const std::string &image)
    : mount_point_(folder + "/recorded"), log_path_(folder + "/log") {
  require(mkdir(mount_point_.c_str(), 0700) == 0, mount_point_);
  server_ = fork();
  require(server_ >= 0, "fork");
  if (server_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    served = image;
    log_fd = open(log_path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    _exit(log_fd < 0 ? 1 : serve(mount_point_));
  }
  for (int tries = 0; !exists(path()); ++tries) {
    if (tries > 1000 || waitpid(server_, nullptr, WNOHANG) == server_) {
      errno = ENODEV;
      fail("a file system in user space");
    }
    usleep(10'000);
  }
}

Recorded_Disk::~Recorded_Disk() {
  umount2(mount_point_.c_str(), MNT_DETACH);
  waitpid(server_, nullptr, 0);
}

Disk_Log Recorded_Disk::log() const {
  const std::string bytes = read_file(log_path_);
  Disk_Log log;
  for (size_t at = 0; at + sizeof(Record_Head) <= bytes.size();) {
    Record_Head head;
    memcpy(&head, bytes.data() + at, sizeof head);
    at += sizeof head;
    log.push_back({head.offset, bytes.substr(at, head.size)});
    at += head.size;
  }
  return log;
}

Mounted_Image::Mounted_Image(const std::string &image, const std::string &mount_point, const char *options)
    : mount_point_(mount_point) {
  const int device = free_loop_device(image);
  char path[64] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(device);
  const ssize_t length = readlink(link.c_str(), path, sizeof path - 1);
  const bool mounted = length > 0 && mount(path, mount_point.c_str(), "ext4", 0, options) == 0;
  const int failure = errno;
  close(device);  // the mount keeps it
  errno = failure;
  require(mounted, "mount " + image);
}

Mounted_Image::~Mounted_Image() {
  umount2(mount_point_.c_str(), 0);
}

}  // namespace tarn::test
