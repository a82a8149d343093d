#include "tests/platform/member.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tarncluster_util.h"
#include "tests/support/child_process.h"

namespace tarn::test {

namespace {

constexpr const char *kOwnFolders[] = {"/etc/config", "/mnt/tarncluster/config", "/var/zopel", "/run", "/var/lib"};

void check(bool is_good, const std::string &what) {
  if (!is_good) throw std::runtime_error(what + ": " + strerror(errno));
}

// In a child, before exec: nothing of it outlives the test.
void become_child() {
  setpgid(0, 0);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

void send_output_to(const std::string &path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  close(fd);
}

std::string read_all(int fd) {
  std::string text;
  char buffer[65536];
  ssize_t count;
  while ((count = read(fd, buffer, sizeof(buffer))) > 0) text.append(buffer, static_cast<size_t>(count));
  return text;
}

std::string text_of(const std::string &path) {
  return exists(path) ? read_file(path) : "";
}

Outcome outcome_from(const std::string &text) {
  Outcome outcome;
  if (text.size() < sizeof(int) + 1) throw std::runtime_error("the process of a command ended early");
  memcpy(&outcome.code, text.data(), sizeof(int));
  outcome.has_reply = text[sizeof(int)] != 0;
  outcome.reply = text.substr(sizeof(int) + 1);
  return outcome;
}

}  // namespace

bool comes_true(const std::function<bool()> &condition, int seconds) {
  for (int i = 0; i < seconds * 100; ++i) {
    if (condition()) return true;
    usleep(10000);
  }
  return condition();
}

Process::Process(Process &&other) noexcept : pid_(std::exchange(other.pid_, -1)) {}

Process &Process::operator=(Process &&other) noexcept {
  if (this != &other) {
    end(SIGKILL);
    pid_ = std::exchange(other.pid_, -1);
  }
  return *this;
}

void Process::signal(int number) const {
  kill(pid_, number);
}

int Process::end(int number) {
  if (pid_ <= 0) return 0;
  kill(pid_, number);
  return wait();
}

int Process::wait() {
  int status = 0;
  if (pid_ > 0) waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

int run_cluster_script(const std::string &words) {
  const int status = system((TARN_SOURCE_DIR "/scripts/cluster " + words).c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

Cluster::Cluster(const std::vector<std::string> &slaves) : store_(folder_ / "store") {
  if (!on_a_throw_away_root()) throw std::runtime_error("to be run by tests/appliance");
  check(run_cluster_script("create " + store_ + " --address 127.0.0.1") == 0, "cluster create");
  for (const std::string &id : slaves) check(run_cluster_script("add " + store_ + " " + id) == 0, "cluster add");
}

// Members are on one network here, where each needs a port of its own.
int next_listener_port() {
  static int port = 62695;
  return port++;
}

Member::Member(const std::string &name, const std::function<bool()> &setup)
    : id_(name),
      log_path_("/tmp/" + name + "." + std::to_string(getpid()) + ".log"),
      listener_port_(next_listener_port()) {
  make(setup);
}

Member::Member(const Cluster &cluster, const std::string &id, const std::string &more)
    : Member(id, [&] {
        return run_cluster_script("provision " + cluster.store() + " " + id + " / --tools " TARN_BIN_DIR " " + more) ==
               0;
      }) {}

void Member::make(const std::function<bool()> &setup) {
  unlink(log_path_.c_str());
  int ready[2];
  check(pipe2(ready, O_CLOEXEC) == 0, "pipe");
  Process builder(fork());
  if (builder.pid() == 0) {
    const bool is_built = unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0;
    for (const char *folder : kOwnFolders) {
      if (!is_built || mount("tarn-test", folder, "tmpfs", 0, "mode=755") != 0) _exit(1);
    }
    mkdir("/run/lock", 01777);
    if (!setup()) _exit(1);
    [[maybe_unused]] const ssize_t written = write(ready[1], "r", 1);
    pause();
  }
  close(ready[1]);
  char byte = 0;
  const bool is_ready = read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  check(is_ready, "setup of " + id_);
  namespace_fd_ = open(("/proc/" + std::to_string(builder.pid()) + "/ns/mnt").c_str(), O_RDONLY | O_CLOEXEC);
  check(namespace_fd_ >= 0, "namespace of " + id_);
}

Member::~Member() {
  const int status = service_.end(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the service of " << id_ << " ended with " << status;
  EXPECT_EQ(log().find("Sanitizer"), std::string::npos);
  bus_.end(SIGTERM);
  if (testing::Test::HasFailure()) fprintf(stderr, "log of %s:\n%s\n", id_.c_str(), log().c_str());
  unlink(log_path_.c_str());
  close(namespace_fd_);
}

Process Member::start_on_member(const std::function<void()> &body) const {
  fflush(nullptr);
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  if (pid > 0) return Process(pid);
  become_child();
  if (setns(namespace_fd_, CLONE_NEWNS) != 0) _exit(125);
  body();
  fflush(nullptr);
  _exit(0);
}

std::string Member::on_member(const std::function<std::string()> &body) const {
  int answer[2];
  check(pipe2(answer, O_CLOEXEC) == 0, "pipe");
  Process process = start_on_member([&] {
    const std::string text = body();
    size_t done = 0;
    while (done < text.size()) {
      const ssize_t count = write(answer[1], text.data() + done, text.size() - done);
      if (count <= 0) _exit(1);
      done += static_cast<size_t>(count);
    }
  });
  close(answer[1]);
  std::string text = read_all(answer[0]);
  close(answer[0]);
  process.wait();
  return text;
}

Outcome Member::call(const std::function<int(char **reply)> &function) const {
  return outcome_from(on_member([&] {
    char *reply = nullptr;
    const int code = function(&reply);
    std::string text(reinterpret_cast<const char *>(&code), sizeof(code));
    text += reply != nullptr ? '\1' : '\0';
    text += reply != nullptr ? reply : "";
    free(reply);
    return text;
  }));
}

void Member::start_bus() {
  const std::string log_path = log_path_ + ".bus";
  unlink(log_path.c_str());
  bus_ = start_on_member([&] {
    send_output_to(log_path);
    execl(TARN_SOURCE_DIR "/scripts/cluster", "cluster", "bus", nullptr);
    _exit(127);
  });
  check(comes_true([&] { return text_of(log_path).find("Server is ready") != std::string::npos; }), "bus server");
}

void Member::start() {
  unlink(log_path_.c_str());
  service_ = start_on_member([&] {
    send_output_to(log_path_);
    execl(TARN_BIN_DIR "/tarnclusterd", "tarnclusterd", "--handlers", "libtarncluster_util.so.1", "--handlers",
          TARN_TEST_HANDLERS, "--listener-port", std::to_string(listener_port_).c_str(), nullptr);
    _exit(127);
  });
  check(comes_true([&] { return log().find("tarnclusterd: ready") != std::string::npos; }), "tarnclusterd of " + id_);
}

bool Member::is_connected() const {
  return exists(path("/run/tarncluster/connected"));
}

bool Member::comes_to_be_connected() const {
  return comes_true([&] { return is_connected(); });
}

std::string Member::log() const {
  return text_of(log_path_);
}

std::string Member::path(const std::string &inside) const {
  return "/proc/" + std::to_string(service_.pid()) + "/root" + inside;
}

Outcome Member::echo(int mode, const std::string &id, const std::string &text) const {
  return call([&](char **reply) { return Tarn_Cluster_Test(mode, id.c_str(), text.c_str(), reply); });
}

Outcome Member::send_file(int mode, const std::string &id, const std::string &source, const std::string &destination,
                          const char *progress) const {
  return call([&](char **reply) {
    return Tarn_Cluster_Send_File(mode, id.c_str(), source.c_str(), destination.c_str(), progress, reply);
  });
}

Outcome Member::fetch_file(int mode, const std::string &id, const std::string &source, const std::string &destination,
                           const char *progress) const {
  return call([&](char **reply) {
    return Tarn_Cluster_Recv_File(mode, id.c_str(), source.c_str(), destination.c_str(), progress, reply);
  });
}

Outcome Member::master_command(const std::string &command, const std::string &argument, int timeout_ms) const {
  return call(
      [&](char **reply) { return Cluster_Master_Cmd_Ex(command.c_str(), argument.c_str(), timeout_ms, reply); });
}

Outcome Member::slave_command(const std::string &command, const std::string &argument, int timeout_ms) const {
  return call([&](char **reply) { return Cluster_Slave_Cmd_Ex(command.c_str(), argument.c_str(), timeout_ms, reply); });
}

std::string handler_of_slave(const std::string &id, const std::string &name) {
  return R"({"op_code": 1, "fname": ")" + name + R"(", "slave_id": ")" + id + "\"}";
}

std::string handler_of_master(const std::string &name) {
  return R"({"op_code": 1, "fname": ")" + name + R"(", "master_id": "0"})";
}

Pair_Of_Members::Pair_Of_Members() {
  master.start_bus();
  master.start();
  slave.start();
  check(master.comes_to_be_connected() && slave.comes_to_be_connected(), "connection to the bus");
}

}  // namespace tarn::test
