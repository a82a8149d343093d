// Disks in the test's hands: the block-id tool, loop devices, what the kernel tells of disks. All of it needs a
// throw-away root.
#pragma once

#include <string>

#include "foundation/owners.h"
#include "tests/support/files.h"

namespace tarn::test {

inline constexpr char block_id_path[] = "/usr/local/sbin/blkid";

// What stands at the block-id tool's path.
void use_real_block_id();
void use_block_id_that_prints(const std::string &output);  // a file's content, so any bytes
void use_block_id_script(const std::string &script);       // of the shell
void remove_block_id();

// A file as a block device; the kernel takes it back when the process ends, however it ends.
class Loop_Device {
 public:
  explicit Loop_Device(const std::string &image);  // throws when the kernel lends none
  const std::string &path() const { return path_; }
  int number() const { return number_; }

 private:
  bool claim(const Descriptor &image);

  Descriptor fd_;
  int number_ = -1;
  std::string path_;
};

bool kernel_lends_loop_devices();

// A new file with a file system of a type: ext4, vfat, btrfs, swap or iso9660.
std::string make_image(const Temporary_Folder &folder, const std::string &type, const std::string &label);

// Stands in place of /sys/block while it lives.
class Made_Up_Disks {
 public:
  Made_Up_Disks();
  ~Made_Up_Disks();
  Made_Up_Disks(const Made_Up_Disks &) = delete;
  Made_Up_Disks &operator=(const Made_Up_Disks &) = delete;

  void add_folder(const std::string &name) const;
  void add(const std::string &name, const std::string &text) const;  // a file, with the folders above it
  void show(const Loop_Device &loop) const;                          // the real tool looks for it here
  std::string operator/(const std::string &name) const { return folder_ / name; }

 private:
  const Temporary_Folder folder_;
};

}  // namespace tarn::test
