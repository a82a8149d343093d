#include <tarncluster_util.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "interruption.h"
#include "listing.h"
#include "progress_bar.h"

namespace tool {
namespace {

using Task = Backgrnd_Task_Conf;
using Tasks = std::unique_ptr<Task, decltype(&Release_Backgrnd_Task_Conf)>;

constexpr const char *task_file = "/tmp/druvosrv/tarn_backup.conf";
constexpr const char *result_folder = "/etc/config/tarn_cluster/home/backup/";
constexpr int task_running = 1;

std::string status_text(int status) {
  switch (status) {
    case TARN_TASK_FINISHED:
      return "finished";
    case TARN_TASK_FAILED:
      return "failed";
    case task_running:
      return "running";
    default:
      return std::to_string(status);
  }
}

Cell progress_cell(const Task &task) {
  return {std::to_string(static_cast<int>(task.progress)) + "%", Json(json_object_new_double(task.progress))};
}

constexpr Column<Task> task_columns[] = {
    {"TASK", "id", [](const Task &task) { return text_cell(task.task_id); }},
    {"MEMBER", "member", [](const Task &task) { return text_cell(task.slave_id); }},
    {"STATUS", "status", [](const Task &task) { return text_cell(status_text(task.status)); }},
    {"PROGRESS", "progress", progress_cell},
    {nullptr, "type", [](const Task &task) { return text_cell(task.type_name); }},
    {"NAME", "name", [](const Task &task) { return text_cell(task.task_name); }},
};

void list_tasks(bool as_json) {
  Task *first = nullptr;
  const int status = Backgrnd_Task_Conf_Read(task_file, &first);
  if (status != -ENOENT) check(status, std::string("cannot read ") + task_file);
  const Tasks tasks(first, Release_Backgrnd_Task_Conf);
  print_list(first, task_columns, as_json);
}

// ------------------------------------------------------------------------------------------------------------- backup

struct Backup {
  std::string slave, path, destination;
  bool wait = false;
};

std::string task_name(const std::string &slave) {
  return slave + "_b";
}

std::string result_file(const std::string &slave) {
  return result_folder + slave + ".result";
}

// The record that the slave's reports are entered in.
void make_task(const std::string &slave) {
  Task task;
  Backgrnd_Task_Conf_Preset(&task);
  const std::string id = task_name(slave);
  if (slave.empty() || slave.size() >= sizeof task.slave_id) throw Failure("a slave's id has 1 to 8 characters");
  std::strcpy(task.slave_id, slave.c_str());
  std::strcpy(task.task_id, id.c_str());
  std::strcpy(task.task_name, ("Backup of " + slave).c_str());
  std::strcpy(task.type_name, "Tarn cluster backup");
  task.status = task_running;
  task.fields =
      TARN_TASK_PROGRESS | TARN_TASK_STATUS | TARN_TASK_SLAVE_ID | TARN_TASK_TYPE_NAME | TARN_TASK_ID | TARN_TASK_NAME;
  std::filesystem::create_directories(std::filesystem::path(task_file).parent_path());
  check(Backgrnd_Task_Set(task_file, id.c_str(), &task), std::string("cannot write ") + task_file);
}

double progress_of(const std::string &slave) {
  Task *found = nullptr;
  const int status = Backgrnd_Task_Get(task_file, task_name(slave).c_str(), &found);
  const Tasks task(found, Release_Backgrnd_Task_Conf);
  return status == 0 && found != nullptr ? found->progress : 0;
}

std::optional<int> result_of(const std::string &slave) {
  std::ifstream file(result_file(slave));
  int result = 0;
  if (!(file >> result)) return std::nullopt;
  return result;
}

// Packing is the first half, and ends with the slave's result.
int follow_packing(const std::string &slave) {
  const Interruption interruption;
  const Progress_Bar bar([&] { return static_cast<int>(progress_of(slave)); });
  for (;;) {
    if (const std::optional<int> result = result_of(slave)) return *result;
    if (Interruption::has_come()) {
      throw Failure("interrupted; the backup of " + slave + " goes on, see: tarncluster backup status " + slave);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

void fetch_image(const Backup &backup) {
  char *reply = nullptr;
  const std::string what = "cannot fetch " + backup.path + " of " + backup.slave;
  const int status =
      Tarn_Cluster_Recv_File(0, backup.slave.c_str(), backup.path.c_str(), backup.destination.c_str(), nullptr, &reply);
  check_reply(status, reply, what, false);
}

void start_backup(const Backup &backup, bool as_json) {
  make_task(backup.slave);
  std::error_code ignored;
  std::filesystem::create_directories(result_folder, ignored);
  std::filesystem::remove(result_file(backup.slave), ignored);
  char *reply = nullptr;
  const int status = Tarn_Cluster_Backup(backup.slave.c_str(), backup.path.c_str(), &reply);
  try {
    check_reply(status, reply, "cannot start a backup of " + backup.slave, as_json);
  } catch (const Failure &) {
    Backgrnd_Task_Set(task_file, task_name(backup.slave).c_str(), nullptr);  // nothing runs
    throw;
  }
  if (!backup.wait) return;

  const int result = follow_packing(backup.slave);
  Update_Backgrnd_Task_Status(backup.slave.c_str(), 1, result);
  check(result, "the backup of " + backup.slave + " failed");
  if (!backup.destination.empty()) fetch_image(backup);
}

// A task, and the result that its member sent.
struct Status {
  Task task;
  std::optional<int> result;
};

constexpr Column<Status> status_columns[] = {
    {"Member", "member", [](const Status &status) { return text_cell(status.task.slave_id); }},
    {"Status", "status", [](const Status &status) { return text_cell(status_text(status.task.status)); }},
    {"Progress", "progress", [](const Status &status) { return progress_cell(status.task); }},
    {"Result", "result", [](const Status &status) { return status.result ? number_cell(*status.result) : Cell{}; }},
};

void show_status(const std::string &slave, bool as_json) {
  Task *found = nullptr;
  const int status = Backgrnd_Task_Get(task_file, task_name(slave).c_str(), &found);
  check(status, "no backup of " + slave);
  const Tasks task(found, Release_Backgrnd_Task_Conf);
  print_record(Status{*found, result_of(slave)}, status_columns, as_json);
}

}  // namespace

void add_backup_commands(CLI::App &app, const Settings &settings) {
  auto backup = std::make_shared<Backup>();
  CLI::App *noun = app.add_subcommand("backup", "Backups of slaves; on the master");
  noun->require_subcommand(1);
  CLI::App *start = noun->add_subcommand("start", "Have a slave back itself up");
  start->add_option("SLAVE", backup->slave, "The slave")->required();
  start->add_option("PATH", backup->path, "The file to make, on the slave")->required();
  start->add_flag("--wait", backup->wait, "Follow it to its end; Ctrl-C leaves it running");
  start->add_option("--fetch", backup->destination, "Then fetch the file to this path")->needs("--wait");
  start->footer("Example: tarncluster backup start QN2a1b3c /etc/config/tarn_cluster/home/backup/nas2.img --wait");
  start->callback([backup, &settings] { start_backup(*backup, settings.json); });
  CLI::App *status = noun->add_subcommand("status", "Tell how far a slave's backup is");
  status->add_option("SLAVE", backup->slave, "The slave")->required();
  status->footer("Example: tarncluster backup status QN2a1b3c");
  status->callback([backup, &settings] { show_status(backup->slave, settings.json); });

  CLI::App *task = app.add_subcommand("task", "Background tasks");
  task->require_subcommand(1);
  CLI::App *list = task->add_subcommand("list", "List the background tasks");
  list->footer("Example: tarncluster task list");
  list->callback([&settings] { list_tasks(settings.json); });
}

}  // namespace tool
