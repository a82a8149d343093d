#include "tests/fsutil/trees.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <thread>

#include "foundation/owners.h"
#include "tests/support/command.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

void require(bool done, const std::string &what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

Entry entry_of(const std::string &path) {
  struct stat status;
  require(lstat(path.c_str(), &status) == 0, path);
  Entry entry = {.mode = status.st_mode,
                 .user = status.st_uid,
                 .group = status.st_gid,
                 .seconds = status.st_mtim.tv_sec,
                 .nanoseconds = status.st_mtim.tv_nsec,
                 .content = {}};
  if (S_ISREG(status.st_mode)) entry.content = read_file(path);
  if (S_ISLNK(status.st_mode)) entry.content = fs::read_symlink(path);
  return entry;
}

void make_file(const std::string &path, const std::string &text, mode_t mode, uid_t user, gid_t group) {
  write_file(path, text);
  require(chown(path.c_str(), user, group) == 0 && chmod(path.c_str(), mode) == 0, path);
}

void make_socket(const std::string &path) {
  const Descriptor listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  require(bind(listening.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, path);
}

void make_sparse_file(const std::string &path) {
  write_file(path, "begin");
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  require(pwrite(file.get(), "end", 3, 3'000'000) == 3, path);
}

}  // namespace

std::ostream &operator<<(std::ostream &out, const Entry &entry) {
  out << std::oct << entry.mode << std::dec << " " << entry.user << ":" << entry.group << " " << entry.seconds << "."
      << entry.nanoseconds << " " << entry.content.size() << " bytes";
  if (entry.content.size() < 40) out << " '" << entry.content << "'";
  return out;
}

Tree tree_of(const std::string &root) {
  Tree tree = {{"", entry_of(root)}};
  for (const auto &found : fs::recursive_directory_iterator(root)) {
    const std::string path = found.path();
    tree[path.substr(root.size() + 1)] = entry_of(path);
  }
  return tree;
}

void set_times(const std::string &path, int64_t seconds, int64_t nanoseconds) {
  const timespec times[] = {{seconds + 1, 5}, {seconds, nanoseconds}};
  require(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0, path);
}

void make_odd_tree(const std::string &root) {
  const std::string names[] = {"plain",    "two words", "new\nline", "tab\t",    "-rf",
                               "*",        "%s%n%d",    "ü.txt",     "\xff\xfe", "back\\slash",
                               "quote\"'", "...",       " ",         ".hidden",  std::string(255, 'n')};
  require(mkdir(root.c_str(), 0755) == 0, root);
  for (const std::string &name : names) {
    make_file(root + "/" + name, "content of " + name, 0644, 0, 0);
    std::string folder = root + "/folder ";
    folder += name.substr(0, 240);
    require(mkdir(folder.c_str(), 0755) == 0, name);
    make_file(folder + "/" + name, name, 0600, 1000, 1001);
  }
  make_file(root + "/empty", "", 0400, 3, 4);
  make_file(root + "/large", std::string(200'001, 'x'), 0640, 0, 0);
  make_file(root + "/set user", "x", 04755, 1000, 0);
  make_file(root + "/set group", "x", 02755, 0, 1000);
  make_file(root + "/sticky", "x", 01666, 0, 0);
  make_file(root + "/no rights", "x", 0, 0, 0);
  make_sparse_file(root + "/sparse");
  require(link((root + "/plain").c_str(), (root + "/second name").c_str()) == 0, "link");
  require(symlink("plain", (root + "/link").c_str()) == 0, "link");
  require(symlink("/nowhere/at all", (root + "/dangling").c_str()) == 0, "link");
  require(symlink(".", (root + "/circle").c_str()) == 0, "link");
  require(symlink(std::string(4000, 't').c_str(), (root + "/long target").c_str()) == 0, "link");
  require(lchown((root + "/link").c_str(), 7, 8) == 0, "link");
  require(mkfifo((root + "/pipe").c_str(), 0666) == 0, "pipe");
  make_socket(root + "/socket");
  require(mkdir((root + "/shared").c_str(), 0755) == 0 && chown((root + "/shared").c_str(), 20, 30) == 0 &&
              chmod((root + "/shared").c_str(), 03777) == 0,
          "shared");
  require(mkdir((root + "/closed").c_str(), 0) == 0, "closed");
  require(fs::create_directories(root + "/a/b/c/d"), "a/b/c/d");
  make_file(root + "/a/b/file", "deeper", 0606, 5, 6);
  int64_t moment = 1'000'000'000;
  for (const auto &[name, entry] : tree_of(root)) {
    moment += 1'000'001;
    std::string path = root + "/";
    path += name;
    set_times(path, moment, moment % 1'000'000'000);
  }
}

void make_chain(const std::string &root, int depth) {
  require(mkdir(root.c_str(), 0755) == 0, root);
  Descriptor folder(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < depth; ++level) {
    require(mkdirat(folder.get(), "d", 0755) == 0, "d");
    folder = Descriptor(openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(folder.get() >= 0, "d");
  }
  const Descriptor file(openat(folder.get(), "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  require(write(file.get(), "deep", 4) == 4, "f");
}

int depth_of_chain(const std::string &root) {
  Descriptor folder(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int depth = 0;; ++depth) {
    Descriptor next(openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!next) return faccessat(folder.get(), "f", F_OK, 0) == 0 ? depth : -1;
    folder = std::move(next);
  }
}

Racing_Process::Racing_Process(const std::vector<std::string> &folders, const std::string &link_target) : pid_(fork()) {
  require(pid_ >= 0, "fork");
  if (pid_ > 0) return;
  alarm(60);
  for (;;) {
    for (const std::string &folder : folders) {
      static_cast<void>(!symlink(link_target.c_str(), "swap"));
      syscall(SYS_renameat2, AT_FDCWD, "swap", AT_FDCWD, folder.c_str(), 2U);  // exchanges the two
    }
  }
}

Racing_Process::~Racing_Process() {
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void abort_at_all_moments(unsigned int *flag, const std::function<void()> &prepare, const std::function<bool()> &work) {
  using Clock = std::chrono::steady_clock;
  constexpr int turns = 300, enough = 20;
  *flag = 0;
  prepare();
  const auto begun_whole = Clock::now();
  EXPECT_FALSE(work());
  const auto whole = Clock::now() - begun_whole;
  const auto deadline = Clock::now() + std::chrono::minutes(2);
  int aborted = 0;
  for (int turn = 0; turn < turns || (aborted < enough && Clock::now() < deadline); ++turn) {
    *flag = 0;
    prepare();
    std::atomic<bool> begun = false, ended = false;
    std::thread aborter([&] {
      while (!begun) std::this_thread::yield();
      const auto moment = Clock::now() + whole * (turn % 100) / 100;
      while (!ended && Clock::now() < moment) std::this_thread::yield();
      const std::atomic_ref<unsigned int> set(*flag);
      set = 8;
    });
    begun = true;
    if (work()) ++aborted;
    ended = true;
    aborter.join();
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_GE(aborted, enough);
}

void run(const std::string &command) {
  ASSERT_EQ(run_command(command).status, 0) << command;
}

}  // namespace tarn::test
