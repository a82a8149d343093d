#include <tarncluster_util.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <thread>

#include "progress_bar.h"
#include "report.h"

namespace tool {
namespace {

using Task = Backgrnd_Task_Conf;
using Tasks = std::unique_ptr<Task, decltype(&Release_Backgrnd_Task_Conf)>;

constexpr const char *task_file = "/tmp/druvosrv/tarn_backup.conf";
constexpr const char *result_folder = "/etc/config/tarn_cluster/home/backup/";
constexpr int task_running = 1;

volatile std::sig_atomic_t interrupted = 0;

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

std::string percent_text(double percent) {
  return std::to_string(static_cast<int>(percent)) + "%";
}

Json to_json(const Task &task) {
  Json object(json_object_new_object());
  const auto put = [&](const char *key, const char *value) {
    json_object_object_add(object.get(), key, json_object_new_string(value));
  };
  put("id", task.task_id);
  put("name", task.task_name);
  put("type", task.type_name);
  put("member", task.slave_id);
  put("status", status_text(task.status).c_str());
  json_object_object_add(object.get(), "progress", json_object_new_double(task.progress));
  return object;
}

void list_tasks(bool as_json) {
  Task *first = nullptr;
  const int status = Backgrnd_Task_Conf_Read(task_file, &first);
  if (status != -ENOENT) check(status, std::string("cannot read ") + task_file);
  const Tasks tasks(first, Release_Backgrnd_Task_Conf);
  Json list(json_object_new_array());
  std::vector<std::vector<std::string>> rows;
  for (const Task *task = first; task != nullptr; task = task->next) {
    json_object_array_add(list.get(), to_json(*task).release());
    rows.push_back(
        {task->task_id, task->slave_id, status_text(task->status), percent_text(task->progress), task->task_name});
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table({"TASK", "MEMBER", "STATUS", "PROGRESS", "NAME"}, rows);
  }
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
  std::optional<int> result;
  while (interrupted == 0 && !(result = result_of(slave))) {
    draw_bar(static_cast<int>(progress_of(slave)));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  end_bar();
  if (!result)
    throw Failure("interrupted; the backup of " + slave + " goes on, see: tarncluster backup status " + slave);
  return *result;
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
  check_reply(status, reply, "cannot start a backup of " + backup.slave, as_json);
  if (!backup.wait) return;

  std::signal(SIGINT, [](int) { interrupted = 1; });
  const int result = follow_packing(backup.slave);
  Update_Backgrnd_Task_Status(backup.slave.c_str(), 1, result);
  check(result, "the backup of " + backup.slave + " failed");
  if (!backup.destination.empty()) fetch_image(backup);
}

void show_status(const std::string &slave, bool as_json) {
  Task *found = nullptr;
  const int status = Backgrnd_Task_Get(task_file, task_name(slave).c_str(), &found);
  check(status, "no backup of " + slave);
  const Tasks task(found, Release_Backgrnd_Task_Conf);
  const std::optional<int> result = result_of(slave);
  if (as_json) {
    Json object = to_json(*found);
    if (result) json_object_object_add(object.get(), "result", json_object_new_int(*result));
    print_json(object);
    return;
  }
  print_table(
      {"MEMBER", "STATUS", "PROGRESS", "RESULT"},
      {{slave, status_text(found->status), percent_text(found->progress), result ? std::to_string(*result) : ""}});
}

// ----------------------------------------------------------------------------------------------------------- settings

using Record = Tarn_Backup_Conf;

struct Setting {
  const char *name;
  unsigned bit;
  enum class Kind { int32, int64, text } kind;
  size_t offset;
  size_t size;
};

#define SETTING(field, bit, kind) \
  { #field, bit, Setting::Kind::kind, offsetof(Record, field), sizeof(Record::field) }

constexpr Setting setting_table[] = {
    SETTING(Schedule, TARN_BACKUP_SCHEDULE, int32),
    SETTING(Status, TARN_BACKUP_STATUS, int32),
    SETTING(PID, TARN_BACKUP_PID, int32),
    SETTING(LastBackup, TARN_BACKUP_LAST_BACKUP, int64),
    SETTING(LastRestore, TARN_BACKUP_LAST_RESTORE, int64),
    SETTING(ScheduleTime, TARN_BACKUP_SCHEDULE_TIME, text),
    SETTING(Address, TARN_BACKUP_ADDRESS, text),
    SETTING(Password, TARN_BACKUP_PASSWORD, text),
    SETTING(BackupPath, TARN_BACKUP_PATH, text),
    SETTING(BackupFile, TARN_BACKUP_FILE, text),
    SETTING(RestorePath, TARN_BACKUP_RESTORE_PATH, text),
};

#undef SETTING

// A password is never shown.
std::string value_of(const Record &record, const Setting &setting) {
  if (setting.bit == TARN_BACKUP_PASSWORD) return "(set)";
  const char *bytes = reinterpret_cast<const char *>(&record) + setting.offset;
  if (setting.kind == Setting::Kind::text) return {bytes, strnlen(bytes, setting.size)};
  int32_t narrow = 0;
  int64_t wide = 0;
  if (setting.kind == Setting::Kind::int64) {
    std::memcpy(&wide, bytes, sizeof wide);
  } else {
    std::memcpy(&narrow, bytes, sizeof narrow);
    wide = narrow;
  }
  return std::to_string(wide);
}

void show_settings(const std::string &file, bool as_json) {
  Record record;
  Tarn_Backup_Conf_Preset(&record);
  check(Tarn_Backup_Conf_Read(file.c_str(), &record), "cannot read " + file);
  Json object(json_object_new_object());
  std::vector<std::vector<std::string>> rows;
  for (const Setting &setting : setting_table) {
    if ((record.fields & setting.bit) == 0) continue;
    const std::string value = value_of(record, setting);
    json_object_object_add(object.get(), setting.name, json_object_new_string(value.c_str()));
    rows.push_back({setting.name, value});
  }
  if (as_json) {
    print_json(object);
  } else {
    print_table({"KEY", "VALUE"}, rows);
  }
}

void put_setting(Record *record, const Setting &setting, const std::string &value) {
  char *place = reinterpret_cast<char *>(record) + setting.offset;
  if (setting.kind == Setting::Kind::text) {
    if (value.size() >= setting.size) throw Failure(std::string(setting.name) + " is too long");
    std::memcpy(place, value.c_str(), value.size() + 1);
  } else {
    size_t end = 0;
    int64_t number = 0;
    try {
      number = std::stoll(value, &end);
    } catch (const std::exception &) {
      end = 0;
    }
    if (value.empty() || end != value.size()) throw Failure(value + " is no number for " + setting.name);
    const auto narrow = static_cast<int32_t>(number);
    std::memcpy(place, setting.kind == Setting::Kind::int64 ? static_cast<const void *>(&number) : &narrow,
                setting.size);
  }
  record->fields |= setting.bit;
}

// The file is written whole, so what it has is read first.
void set_settings(const std::string &file, const std::vector<std::string> &assignments) {
  Record record;
  Tarn_Backup_Conf_Preset(&record);
  const int status = Tarn_Backup_Conf_Read(file.c_str(), &record);
  if (status != -ENOENT) check(status, "cannot read " + file);
  for (const std::string &assignment : assignments) {
    const size_t equals = assignment.find('=');
    const Setting *found = nullptr;
    for (const Setting &setting : setting_table) {
      if (equals != assignment.npos && assignment.compare(0, equals, setting.name) == 0) found = &setting;
    }
    if (found == nullptr) throw Failure(assignment + " is not of the form KEY=VALUE with a key of the backup's");
    put_setting(&record, *found, assignment.substr(equals + 1));
  }
  check(Tarn_Backup_Conf_Write(file.c_str(), &record), "cannot write " + file);
}

// ---------------------------------------------------------------------------------------------------------- discovery

using Announcements = std::unique_ptr<Tarn_Browse_Serv, decltype(&Free_Browse_Serv)>;

void browse(bool as_json) {
  Tarn_Browse_Serv *first = nullptr;
  const int found = Tarn_Cluster_Browse_Slave(&first);
  const Announcements announcements(first, Free_Browse_Serv);
  if (found < 0) check(found, "cannot look for appliances");
  Json list(json_object_new_array());
  std::vector<std::vector<std::string>> rows;
  for (const Tarn_Browse_Serv *entry = first; entry != nullptr; entry = entry->next) {
    Json object(json_object_new_object());
    json_object_object_add(object.get(), "host", json_object_new_string(entry->hostname));
    json_object_object_add(object.get(), "address", json_object_new_string(entry->address));
    json_object_object_add(object.get(), "port", json_object_new_int(entry->port));
    json_object_object_add(object.get(), "webport", json_object_new_int(entry->webport));
    json_object_object_add(object.get(), "sslwebport", json_object_new_int(entry->sslwebport));
    json_object_object_add(object.get(), "master", json_object_new_boolean(entry->master != 0));
    json_object_array_add(list.get(), object.release());
    rows.push_back({entry->hostname, entry->address, std::to_string(entry->port), std::to_string(entry->webport),
                    std::to_string(entry->sslwebport), entry->master != 0 ? "master" : "-"});
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table({"HOST", "ADDRESS", "PORT", "WEB", "SECURE WEB", "ROLE"}, rows);
  }
}

void add_settings_commands(CLI::App &app, const Settings &settings) {
  struct Arguments {
    std::string file;
    std::vector<std::string> assignments;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App *noun = app.add_subcommand("settings", "The settings of the scheduled backup");
  noun->require_subcommand(1);
  CLI::App *show = noun->add_subcommand("show", "Print the settings in a file; the password is not shown");
  show->add_option("FILE", arguments->file, "The file")->required();
  show->footer("Example: tarncluster settings show /etc/config/backup.conf");
  show->callback([arguments, &settings] { show_settings(arguments->file, settings.json); });
  CLI::App *set = noun->add_subcommand("set", "Change settings in a file");
  set->add_option("FILE", arguments->file, "The file")->required();
  set->add_option("KEY=VALUE", arguments->assignments, "The settings")->required();
  set->footer("Example: tarncluster settings set /etc/config/backup.conf Schedule=1 BackupPath=/share/backup");
  set->callback([arguments] { set_settings(arguments->file, arguments->assignments); });
}

}  // namespace

void add_backup_commands(CLI::App &app, const Settings &settings) {
  CLI::App *look = app.add_subcommand("browse", "Look for appliances on the local network");
  look->footer("Example: tarncluster browse");
  look->callback([&settings] { browse(settings.json); });

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

  add_settings_commands(app, settings);
}

}  // namespace tool
