// A file system of its own with little room, for tests of the full disk. Needs a private mount namespace.
#pragma once

#include <string>

#include "tests/support/files.h"

namespace tarn::test {

class Small_Disk {
 public:
  Small_Disk();  // 64 KiB
  ~Small_Disk();
  Small_Disk(const Small_Disk &) = delete;
  Small_Disk &operator=(const Small_Disk &) = delete;
  std::string operator/(const std::string &name) const { return folder_ / name; }
  const std::string &path() const { return folder_.path(); }
  void fill();  // no byte is left afterwards; the file that took them is named "filler"

 private:
  Temporary_Folder folder_;
};

}  // namespace tarn::test
