#include "tests/support/files.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace tarn::test {
namespace {

[[noreturn]] void fail(const std::string &what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct stat status_of(const std::string &path) {
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) fail(path);
  return status;
}

}  // namespace

Temporary_Folder::Temporary_Folder() {
  char name[] = "/tmp/tarn-test-XXXXXX";
  if (mkdtemp(name) == nullptr) fail(name);
  path_ = name;
}

Temporary_Folder::~Temporary_Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  if (!stream) fail(path);
  std::ostringstream content;
  content << stream.rdbuf();  // in blocks: some files have megabytes
  return content.str();
}

void write_file(const std::string &path, const std::string &text) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream << text;
  stream.close();
  if (!stream) fail(path);
}

bool exists(const std::string &path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

mode_t mode_of(const std::string &path) {
  return status_of(path).st_mode & 07777;
}

ino_t inode_of(const std::string &path) {
  return status_of(path).st_ino;
}

std::vector<std::string> names_in(const std::string &folder) {
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

int open_descriptors() {
  return static_cast<int>(names_in("/proc/self/fd").size());
}

std::string owned_lock(const std::string &base_name) {
  return "/var/lock/_" + base_name + ".lck";
}

std::string foreign_lock(const std::string &base_name) {
  return "/var/lock/" + base_name + ".lck";
}

std::string lock_record(int64_t stamp, int pid) {
  std::string record(16, '\0');
  memcpy(record.data(), &stamp, sizeof stamp);
  memcpy(record.data() + 8, &pid, sizeof pid);
  return record;
}

int dead_pid() {
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) _exit(0);
  if (waitpid(child, nullptr, 0) != child) fail("waitpid");
  return child;
}

}  // namespace tarn::test
