// The progress of a background task, which is written each time that it has grown.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "bench/support/sample_files.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr char folder[] = "/tmp/druvosrv";
constexpr char name[] = "tarn_backup.conf";
constexpr char member[] = "S0000007";
constexpr int tasks = 16;

// A backup of each of some members, as the master keeps them.
std::string task_text() {
  std::string text;
  for (int i = 0; i < tasks; ++i) {
    char section[512];
    snprintf(section, sizeof section,
             "[S%07d_b]\nstatus = 3\nslave_id = S%07d\ntype_name = cluster_backup\ntask_id = S%07d_b\n"
             "task_name = Backup of member %d\nprogress = 12.500000\n\n",
             i, i, i, i);
    text += section;
  }
  return text;
}

class Task_File {
 public:
  Task_File() : made_(mkdir(folder, 0755) == 0 || errno == EEXIST), file_(folder, name, task_text()) {}
  const char *path() const { return file_.path(); }

 private:
  const bool made_;
  const Sample_File file_;
};

void task_progress(benchmark::State &state) {
  const Task_File file;
  double progress = 0;
  for (auto _ : state) {
    progress = progress < 100 ? progress + 0.5 : 0;
    if (Set_Backgrnd_Task_Progress(member, 1, progress) != 0) state.SkipWithError("the progress was not set");
  }
}

// The library's own lock, its reading of the file and its replacement of it, once each.
void task_file_replaced(benchmark::State &state) {
  const Task_File file;
  for (auto _ : state) {
    Sect_Node *sections = nullptr;
    if (Get_File_Lock(file.path(), 10000) != 1 || Read_Conf_File(file.path(), &sections) != tasks ||
        Update_Conf_File(file.path(), sections) != 0) {
      state.SkipWithError("the file was not replaced");
    }
    Free_Sect_Node(sections);
    Release_File_Lock(file.path());
  }
}

// The same by system calls: nothing in the file is looked at.
void task_file_bare(benchmark::State &state) {
  const Task_File file;
  const std::string lock = "/var/lock/_tarn_backup.conf.lck", temporary = std::string(file.path()) + ".tmp";
  const char record[16] = {};
  char buffer[16384];
  for (auto _ : state) {
    const int locked = open(lock.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
    bool good = write(locked, record, sizeof record) == sizeof record;
    close(locked);
    const int from = open(file.path(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = read(from, buffer, sizeof buffer);
    close(from);
    const int to = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    good = good && size > 0 && write(to, buffer, static_cast<size_t>(size)) == size;
    close(to);
    good = rename(temporary.c_str(), file.path()) == 0 && good;
    unlink(lock.c_str());
    if (!good) state.SkipWithError("the file was not replaced");
  }
}

BENCHMARK(task_progress);
BENCHMARK(task_file_replaced);
BENCHMARK(task_file_bare);

}  // namespace
}  // namespace tarn::bench
