#include "platform/clusterd/backup_folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr mode_t kTaskFolderPermissions = 0755;  // the web pages show the tasks
constexpr mode_t kBackupFolderPermissions = 0700;

// Nobody else may put anything into it.
bool is_own_folder(const char *path) {
  struct stat status;
  return lstat(path, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == geteuid() &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The path is known to everybody, and in /tmp everybody may have been there first.
int put_aside(const char *path) {
  std::string aside = std::string(path) + ".foreign.XXXXXX";
  if (mkdtemp(aside.data()) == nullptr) return -errno;
  if (rename(path, (aside + "/druvosrv").c_str()) != 0) return -errno;
  log_line("%s was not ours; it is in %s now", path, aside.c_str());
  return 0;
}

int make_task_folder() {
  if (is_there(kTaskFolder) && !is_own_folder(kTaskFolder)) {
    const int result = put_aside(kTaskFolder);
    if (result != 0) return result;
  }
  const int result = make_folder(kTaskFolder, kTaskFolderPermissions);
  return result == 0 && !is_own_folder(kTaskFolder) ? -EEXIST : result;
}

void report(const char *path, int result) {
  if (result != 0) log_line("cannot make %s (%d)", path, result);
}

}  // namespace

void make_backup_folders() {
  report(kTaskFolder, make_task_folder());
  report(kBackupFolder, make_folder(kBackupFolder, kBackupFolderPermissions));
}

}  // namespace tarn::platform
