// Handlers that start a backup as the library's own does, and keep an eye on its worker: on what it ends with, which
// nobody else learns, and with an abort flag that the test can set.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cluster/ops/backup_worker.h"
#include "tarncluster_util.h"
#include "tests/platform/backup_handlers.h"

namespace tarn::test {
namespace {

void note(const char *path, const std::string &text) {
  const std::string fresh = std::string(path) + ".new";
  FILE *file = fopen(fresh.c_str(), "we");
  if (file == nullptr) _exit(1);
  fputs(text.c_str(), file);
  if (fclose(file) != 0 || rename(fresh.c_str(), path) != 0) _exit(1);
}

pid_t only_child() {
  const std::string path = "/proc/self/task/" + std::to_string(gettid()) + "/children";
  FILE *file = fopen(path.c_str(), "re");
  pid_t child = 0;
  if (file != nullptr && fscanf(file, "%d", &child) != 1) child = 0;
  if (file != nullptr) fclose(file);
  return child;
}

int *shared_abort_flag() {
  const int fd = open(kAbortFlagFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0 || ftruncate(fd, sizeof(int)) != 0) _exit(1);
  void *memory = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (memory == MAP_FAILED) _exit(1);
  return static_cast<int *>(memory);
}

using Backup_Handler = char *(*)(const char *argument);
using Flag_Setter = void (*)(int *flag);

// Starts the backup as the worker's parent, hands on its answer, and stays for the worker's end.
[[noreturn]] void keep_worker(Backup_Handler backup, Flag_Setter set_abort, const char *argument, int answer_fd) {
  set_abort(shared_abort_flag());
  const char *reply = backup(argument);
  const pid_t worker = only_child();
  note(kWorkerFile, std::to_string(worker) + " " + std::to_string(getpgrp()));
  if (reply == nullptr || write(answer_fd, reply, strlen(reply)) < 0) _exit(1);
  close(answer_fd);
  int status = 0;
  if (worker > 0 && waitpid(worker, &status, 0) == worker) {
    note(kExitFile, std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status)));
  }
  _exit(0);
}

char *start_kept_backup(Backup_Handler backup, Flag_Setter set_abort, const char *argument) {
  int answer[2];
  if (pipe2(answer, O_CLOEXEC) != 0) return nullptr;
  if (fork() == 0) keep_worker(backup, set_abort, argument, answer[1]);
  close(answer[1]);
  // One piece; the end comes only with the worker's.
  char buffer[1024];
  const ssize_t count = read(answer[0], buffer, sizeof(buffer));
  close(answer[0]);
  return count > 0 ? strndup(buffer, static_cast<size_t>(count)) : nullptr;
}

}  // namespace
}  // namespace tarn::test

extern "C" {

// By the library that the service has loaded.
char *Kept_Backup_Cb(const char *argument) {
  void *library = dlopen("libtarncluster_util.so.1", RTLD_NOW | RTLD_NOLOAD);
  if (library == nullptr) return nullptr;
  const auto backup = reinterpret_cast<tarn::test::Backup_Handler>(dlsym(library, "Tarn_Cluster_Backup_Cb"));
  const auto set_abort = reinterpret_cast<tarn::test::Flag_Setter>(dlsym(library, "Set_Abort"));
  if (backup == nullptr || set_abort == nullptr) return nullptr;
  return tarn::test::start_kept_backup(backup, set_abort, argument);
}

// By this library's own copy of it, whose packer may show no change for three seconds instead of an hour.
char *Impatient_Backup_Cb(const char *argument) {
  tarn::backup_stall_limit_ms = 3000;
  if (Simp_Log_Create(nullptr, &g_ptslLog, 24, 3, 0) != 0) return nullptr;
  return tarn::test::start_kept_backup(Tarn_Cluster_Backup_Cb, Set_Abort, argument);
}

}  // extern "C"
