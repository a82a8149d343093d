// A disk whose every write is recorded in order, so that it can be had again as it was when the power went.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// What reached the disk: bytes at a place, or the order to make all bytes before it last (no bytes).
struct Disk_Write {
  uint64_t offset;
  std::string bytes;

  bool is_flush() const { return bytes.empty(); }
};

using Disk_Log = std::vector<Disk_Write>;

// Serves a file at PATH in a process of its own. What is written to the file is recorded; the file is the disk's image.
class Recorded_Disk {
 public:
  // The image to begin with; the folder is for what this needs itself. Throws when the machine cannot do it.
  Recorded_Disk(const std::string &folder, const std::string &image);
  ~Recorded_Disk();
  Recorded_Disk(const Recorded_Disk &) = delete;
  Recorded_Disk &operator=(const Recorded_Disk &) = delete;

  std::string path() const { return mount_point_ + "/disk"; }
  Disk_Log log() const;  // all so far

 private:
  std::string mount_point_;
  std::string log_path_;
  pid_t server_ = -1;
};

// A file system on a loop device over a file, while it lives.
class Mounted_Image {
 public:
  Mounted_Image(const std::string &image, const std::string &mount_point, const char *options);
  ~Mounted_Image();
  Mounted_Image(const Mounted_Image &) = delete;
  Mounted_Image &operator=(const Mounted_Image &) = delete;

 private:
  std::string mount_point_;
};

}  // namespace tarn::test
