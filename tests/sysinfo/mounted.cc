#include "tests/sysinfo/mounted.h"

#include <dlfcn.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tests/support/files.h"

namespace fs = std::filesystem;

namespace {

constexpr char table[] = "/etc/mtab";

tarn::test::Statfs_Answers::Answer statfs_answer;

}  // namespace

extern "C" int statfs(const char *path, struct statfs *status) noexcept {
  return statfs_answer ? statfs_answer(path, status) : tarn::test::real_statfs(path, status);
}

namespace tarn::test {

Mounted::Mounted(const std::string &source, const std::string &target, const std::string &type, unsigned long flags,
                 const std::string &data)
    : target_(target) {
  fs::create_directories(target);
  if (mount(source.c_str(), target.c_str(), type.c_str(), flags, data.c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), "mount " + source + " " + target);
  }
}

Mounted::~Mounted() {
  umount2(target_.c_str(), MNT_DETACH);
}

void remove_mount_table() {
  fs::remove(table);
}

void use_real_mount_table() {
  remove_mount_table();
  fs::create_symlink("/proc/self/mounts", table);
}

void use_mount_table(const std::string &text) {
  remove_mount_table();
  write_file(table, text);
}

Statfs_Answers::Statfs_Answers(Answer answer) {
  statfs_answer = std::move(answer);
}

Statfs_Answers::~Statfs_Answers() {
  statfs_answer = nullptr;
}

int real_statfs(const char *path, struct statfs *status) {
  static const auto next = reinterpret_cast<int (*)(const char *, struct statfs *)>(dlsym(RTLD_NEXT, "statfs"));
  return next(path, status);
}

}  // namespace tarn::test
