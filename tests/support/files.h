// Files and folders for tests.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// A new folder under /tmp, removed with all it holds.
class Temporary_Folder {
 public:
  Temporary_Folder();
  ~Temporary_Folder();
  Temporary_Folder(const Temporary_Folder &) = delete;
  Temporary_Folder &operator=(const Temporary_Folder &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::string read_file(const std::string &path);  // throws when it cannot be read
void write_file(const std::string &path, const std::string &text);
bool exists(const std::string &path);     // of any type, links not followed
mode_t mode_of(const std::string &path);  // permission bits
ino_t inode_of(const std::string &path);
std::vector<std::string> names_in(const std::string &folder);  // sorted

int open_descriptors();  // of this process

// The lock files of a base name, and the 16 bytes that they hold.
std::string owned_lock(const std::string &base_name);
std::string foreign_lock(const std::string &base_name);
std::string lock_record(int64_t stamp, int pid);

int dead_pid();  // the id of a process that has ended and was reaped

}  // namespace tarn::test
