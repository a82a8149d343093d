#include "tests/support/pinned_file.h"

#include <sys/mount.h>

#include <cerrno>
#include <system_error>

namespace tarn::test {
Pinned_File::Pinned_File(const std::string &path) : path_(path) {
  if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "bind " + path);
  }
}

Pinned_File::~Pinned_File() {
  umount2(path_.c_str(), MNT_DETACH);
}

}  // namespace tarn::test
