#include <sys/wait.h>
#include <tarncluster_util.h>
#include <unistd.h>

#include "report.h"

namespace tool {
namespace {

struct Arguments {
  std::string file;
  int timeout_ms = 10000;
  std::vector<std::string> command;
};

class Lock {
 public:
  Lock(const std::string &file, int timeout_ms) : file_(file) {
    if (Get_File_Lock(file_.c_str(), timeout_ms) != 1) throw Failure("cannot get the lock of " + file_);
  }
  ~Lock() { Release_File_Lock(file_.c_str()); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

 private:
  std::string file_;
};

void run_locked(const Arguments &arguments) {
  const Lock lock(arguments.file, arguments.timeout_ms);
  std::vector<char *> words;
  for (const std::string &word : arguments.command) words.push_back(const_cast<char *>(word.c_str()));
  words.push_back(nullptr);

  const pid_t child = fork();
  if (child < 0) throw Failure("cannot start " + arguments.command.front());
  if (child == 0) {
    execvp(words[0], words.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw Failure(arguments.command.front() + " failed");
}

}  // namespace

void add_lock_commands(CLI::App &app) {
  CLI::App *lock = app.add_subcommand("lock", "Work with the locks of files");
  lock->require_subcommand(1);
  auto arguments = std::make_shared<Arguments>();
  CLI::App *run = lock->add_subcommand("run", "Run a command while holding a file's lock");
  run->add_option("--timeout", arguments->timeout_ms, "Milliseconds to wait for the lock")->capture_default_str();
  run->add_option("FILE", arguments->file, "The file")->required();
  run->add_option("COMMAND", arguments->command, "The command and its arguments, behind --")->required();
  run->footer("Example: tarncluster lock run /etc/config/smb.conf -- cp /etc/config/smb.conf /tmp/copy");
  run->callback([arguments] { run_locked(*arguments); });
}

}  // namespace tool
