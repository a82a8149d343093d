#include "cluster/ops/backup_worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cluster/ops/abort_flags.h"
#include "cluster/ops/members.h"
#include "cluster/records/task_records.h"
#include "foundation/bounded_text.h"
#include "foundation/owners.h"
#include "foundation/program.h"
#include "foundation/report.h"

namespace tarn {

int backup_stall_limit_ms = 3600000;

namespace {

constexpr char function[] = "Tarn_Cluster_Backup_Cb";  // the worker reports under its handler's name
constexpr char master_id[] = "0";
constexpr char backup_folder[] = "/etc/config/tarn_cluster/home/backup";
constexpr int removed_from_cluster = -1;
constexpr int all_packed = 100;
constexpr int task_running = 1;
constexpr unsigned poll_interval_ms = 1000;

// ---------------------------------------------------------------------------------------------------------- the task

// Nobody's link at this predictable path leads elsewhere.
void recreate_task_file() {
  Druvo_Really_Unlink(task_file);
  const Descriptor file(open(task_file, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
}

int store_task(const char *id) {
  Backgrnd_Task_Conf task;
  Backgrnd_Task_Conf_Preset(&task);
  const Task_Name name(id, true);
  copy_bounded(task.task_id, name.text());
  // It names the product and not the slave: the web pages look for this text.
  snprintf(task.task_name, sizeof task.task_name, "Backup slave %s to master", "Druvo Cluster");
  copy_bounded(task.type_name, "Tarn cluster backup");
  copy_bounded(task.slave_id, id);
  task.status = task_running;
  task.fields =
      TARN_TASK_PROGRESS | TARN_TASK_STATUS | TARN_TASK_SLAVE_ID | TARN_TASK_TYPE_NAME | TARN_TASK_ID | TARN_TASK_NAME;
  return Backgrnd_Task_Set(task_file, name.text(), &task);
}

void announce(const char *id) {
  recreate_task_file();
  const int status = store_task(id);
  if (status == 0) {
    SendNoticeToLogEngine(6, 0, 0, "", 19, "", 0, -1, 0, "---", "---", "---", "---", 0, 0,
                          "[Druvo] Druvo slave cluster backup");
  } else {
    TARN_ERROR_AS(function, "Can't set background task for cluster %s! (%d)", id, status);
  }
}

// ------------------------------------------------------------------------------------------------------------ packing

int make_folder(const char *path) {
  if (mkdir(path, 0700) == 0 || errno == EEXIST) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "mkdir %s error!(%d)", path, failure);
  return failure;
}

int make_folders(const char *id) {
  char own_folder[PATH_MAX];
  snprintf(own_folder, sizeof own_folder, "%s/%s", backup_folder, id);
  const int status = make_folder(backup_folder);
  return status == 0 ? make_folder(own_folder) : status;
}

// A text as one word of the shell, whatever is in it; null when memory ends.
Heap_Text quote(const char *text) {
  constexpr char quoted_quote[] = "'\\''";
  Heap_Text word(static_cast<char *>(malloc(strlen(text) * (sizeof quoted_quote - 1) + sizeof "''")));
  if (word == nullptr) return word;
  char *end = word.get();
  *end++ = '\'';
  for (; *text != '\0'; ++text) {
    if (*text == '\'') {
      end = stpcpy(end, quoted_quote);
    } else {
      *end++ = *text;
    }
  }
  *end++ = '\'';
  *end = '\0';
  return word;
}

// What the shell answers is not looked at: without the packer there is no progress, and that tells.
void start_packing(const char *path) {
  run_command("/bin/rm /etc/config/tarn_cluster/home/backup/*.img 1>/dev/null 2>&1");
  const Heap_Text word = quote(path);
  char *command = nullptr;
  if (word == nullptr || asprintf(&command, "/sbin/druvosrv_tool -b %s 1>/dev/null 2>&1 &", word.get()) < 0) return;
  const Heap_Text owner(command);
  run_command(command);
}

// The number of a line like "progress: 40%". Sets only_percent_missing when the line lacks nothing else.
bool read_percent(const char *line, int *percent, bool *only_percent_missing) {
  const char *word = strstr(line, "progress");
  const char *colon = word != nullptr ? strchr(word, ':') : nullptr;
  if (colon == nullptr) return false;
  char *end = nullptr;
  errno = 0;
  const long number = strtol(colon + 1, &end, 10);
  if (end == colon + 1 || errno != 0 || number < INT_MIN || number > INT_MAX) return false;
  *percent = static_cast<int>(number);
  *only_percent_missing = *end != '%';
  return *end == '%';
}

int report_malformed(const char *path, bool only_percent_missing) {
  TARN_ERROR_AS(function, "Pack backup file progress mal-form! (%d)", -EBFONT);
  if (only_percent_missing) Druvo_Really_Unlink(path);
  return -EBFONT;
}

// Asks the packer how far it is. Returns 0, or the code that ends the packing.
int query_progress(const char *path, int *percent) {
  const Command query(popen("/sbin/druvosrv_tool -P 2>/dev/null", "re"));
  if (query == nullptr) {
    TARN_ERROR_AS(function, "Can't execute check progress util! (%d)", -ENOEXEC);
    return -ENOEXEC;
  }
  char line[32];
  if (fgets(line, sizeof line, query.get()) == nullptr) return -ENODATA;
  bool only_percent_missing = false;
  if (!read_percent(line, percent, &only_percent_missing)) return report_malformed(path, only_percent_missing);
  if (*percent < 0) TARN_ERROR_AS(function, "Error happens when pack backup file! (%d)", *percent);
  return *percent < 0 ? *percent : 0;
}

// Each side keeps its own scale of the first half.
void tell_progress(const char *id, int percent) {
  char *reply = nullptr;
  Tarn_Cluster_Backup_Set_Pack_Prg(master_id, percent, &reply);
  free(reply);
  const int half = percent / 2;
  Set_Backgrnd_Task_Progress(id, 1, half / 100.0);
}

struct Outcome {
  int code;
  bool removed;  // from the cluster in the meantime
};

Outcome stop_for_removed(const char *id) {
  TARN_ERROR_AS(function, "Stop backup task cause's slave %s is removed...", id);
  run_command("killall druvosrv_tool 1>/dev/null 2>&1");
  return {removed_from_cluster, true};
}

// Follows the packer to its end. The abort flag is looked at anew each time: it may lie in memory that others share.
Outcome follow_packing(const char *id, const char *path) {
  uint64_t last_change = Rough_Tick();
  int last_percent = 0;
  while (abort_flag() == 0) {
    if (Check_File(master_file) == 0) return stop_for_removed(id);
    int percent = 0;
    const int code = query_progress(path, &percent);
    if (code != 0) return {code, false};
    if (percent != last_percent) {
      tell_progress(id, percent);
      if (percent == all_packed) return {0, false};
      last_percent = percent;
      last_change = Rough_Tick();
    } else if (Rough_Tick_Diff(last_change) > static_cast<uint64_t>(backup_stall_limit_ms)) {
      TARN_ERROR_AS(function, "Pack backup file Timeout! (%d)", -ETIME);
      return {-ETIME, false};
    }
    Sleep_MSec(poll_interval_ms);
  }
  return {abort_flag(), false};
}

// ------------------------------------------------------------------------------------------------------------- result

int write_result(const char *path, int result) {
  const Descriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!file) {
    const int failure = -errno;
    TARN_ERROR_AS(function, "Can't open result file %s to write result %d! (%d)", path, result, failure);
    return failure;
  }
  char text[16];
  const int length = snprintf(text, sizeof text, "%d", result);
  errno = 0;
  if (write(file.get(), text, static_cast<size_t>(length)) == length) return 0;
  const int failure = errno != 0 ? -errno : -EIO;
  TARN_ERROR_AS(function, "Can't write result %d to file %s! (%d)", result, path, failure);
  return failure;
}

void send_result(const char *path) {
  char *text = nullptr;
  int status = Tarn_Cluster_Send_File(1, master_id, path, path, nullptr, &text);
  const Heap_Text reply(text);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't send \"send file\" command to cluster for file %s! (%d)", path, status);
    return;
  }
  int command_status = 0;
  status = Parse_Cluster_Cmd_Status(text, &command_status);
  if (status == 0) {
    TARN_DEBUG_AS(function, "Send result file command status: %d", command_status);
  } else {
    TARN_ERROR_AS(function, "Can't parse result file %s! (%d)", path, status);
  }
}

// Nobody is to find a result that is not one.
void take_result_back(const char *path, int wait_code) {
  const int flag = abort_flag();
  write_result(path, flag != 0 ? flag : wait_code);
  int ignored = 0;
  const int status = Polling_Int_Result(path, &ignored);
  if (status != 0) TARN_ERROR_AS(function, "Can't send file %s! (%d)", path, status);
  Druvo_Really_Unlink(path);
}

// Returns what the worker ends with. A result that was handed over is a success of the worker's, whatever it says: the
// master reads it.
int hand_over_result(const char *id, const Outcome &outcome) {
  char path[PATH_MAX];
  snprintf(path, sizeof path, "%s/%s.result", backup_folder, id);
  const int status = write_result(path, outcome.code);
  if (status != 0) return status;
  if (slave_on_master_flag() != 0) return outcome.code;  // the master reads the file where it is
  const int waited = Polling_Result(path, -1);
  if (waited != 0) {
    take_result_back(path, waited);
    return outcome.code;
  }
  send_result(path);
  return outcome.removed ? outcome.code : 0;
}

int back_up(const char *id, const char *path) {
  announce(id);
  const int status = make_folders(id);
  if (status != 0) return status;
  start_packing(path);
  return hand_over_result(id, follow_packing(id, path));
}

}  // namespace

int run_backup_worker(const char *slave_id, const char *backup_path) {
  signal(SIGCHLD, SIG_DFL);  // a parent that ignores its children's ends would hide those of the commands
  const int code = back_up(slave_id, backup_path);
  Update_Backgrnd_Task_Status(slave_id, 1, code);
  return code;
}

}  // namespace tarn
