#include "tests/support/small_disk.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tarn::test {
namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Small_Disk::Small_Disk() {
  if (mount("tmpfs", path().c_str(), "tmpfs", 0, "size=64k") != 0) fail("mount " + path());
}

Small_Disk::~Small_Disk() {
  umount2(path().c_str(), MNT_DETACH);
}

void Small_Disk::fill() {
  const int filler = open((*this / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (filler < 0) fail("filler");
  const std::string page(4096, 'x');
  while (write(filler, page.data(), page.size()) > 0) continue;
  const bool full = errno == ENOSPC;
  close(filler);
  if (!full) fail("filler");
}

}  // namespace tarn::test
