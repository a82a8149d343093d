#include <tarncluster_util.h>

#include "listing.h"
#include "password.h"
#include "record_fields.h"

namespace tool {
namespace {

using Record = Tarn_Backup_Conf;

#define SETTING(field, bit, kind) TOOL_RECORD_FIELD(Record, field, bit, kind)

constexpr Record_Field fields[] = {
    SETTING(Schedule, TARN_BACKUP_SCHEDULE, int32),
    SETTING(Status, TARN_BACKUP_STATUS, int32),
    SETTING(PID, TARN_BACKUP_PID, int32),
    SETTING(LastBackup, TARN_BACKUP_LAST_BACKUP, int64),
    SETTING(LastRestore, TARN_BACKUP_LAST_RESTORE, int64),
    SETTING(ScheduleTime, TARN_BACKUP_SCHEDULE_TIME, text),
    SETTING(Address, TARN_BACKUP_ADDRESS, text),
    SETTING(Password, TARN_BACKUP_PASSWORD, secret),
    SETTING(BackupPath, TARN_BACKUP_PATH, text),
    SETTING(BackupFile, TARN_BACKUP_FILE, text),
    SETTING(RestorePath, TARN_BACKUP_RESTORE_PATH, text),
};

#undef SETTING

constexpr const Record_Field &password_field = fields[7];
static_assert(password_field.kind == Record_Field::Kind::secret);

void show_settings(const std::string &file, bool as_json) {
  Record record;
  Tarn_Backup_Conf_Preset(&record);
  check(Tarn_Backup_Conf_Read(file.c_str(), &record), "cannot read " + file);
  if (!as_json) return print_table({"KEY", "VALUE"}, rows_of(&record, record.fields, fields));
  const Json object(json_object_new_object());
  add_to_json(object.get(), &record, record.fields, fields);
  print_json(object);
}

struct Arguments {
  std::string file, password_file;
  std::vector<std::string> assignments;
};

// The file is written whole, so what it has is read first.
void set_settings(const Arguments &arguments) {
  const std::string &file = arguments.file;
  if (arguments.assignments.empty() && arguments.password_file.empty()) throw Failure("say which settings: KEY=VALUE");
  Record record;
  Tarn_Backup_Conf_Preset(&record);
  const int status = Tarn_Backup_Conf_Read(file.c_str(), &record);
  if (status != -ENOENT) check(status, "cannot read " + file);
  for (const std::string &assignment : arguments.assignments) {
    assign(&record, &record.fields, fields, assignment, "a backup");
  }
  if (!arguments.password_file.empty()) {
    put_text(&record, &record.fields, password_field, read_password(arguments.password_file));
  }
  check(Tarn_Backup_Conf_Write(file.c_str(), &record), "cannot write " + file);
}

}  // namespace

void add_settings_commands(CLI::App &app, const Settings &settings) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App *noun = app.add_subcommand("settings", "The settings of the scheduled backup");
  noun->require_subcommand(1);

  CLI::App *show = noun->add_subcommand("show", "Print the settings in a file; the password is not shown");
  show->add_option("FILE", arguments->file, "The file")->required();
  show->footer("Example: tarncluster settings show /etc/config/backup.conf");
  show->callback([arguments, &settings] { show_settings(arguments->file, settings.json); });

  CLI::App *set = noun->add_subcommand("set", "Change settings in a file");
  set->add_option("FILE", arguments->file, "The file")->required();
  set->add_option("KEY=VALUE", arguments->assignments, "The settings");
  set->add_option("--password-file", arguments->password_file,
                  "Set Password to the first line of a file; - for standard input");
  set->footer("Example: tarncluster settings set /etc/config/backup.conf Schedule=1 BackupPath=/share/backup");
  set->callback([arguments] { set_settings(*arguments); });
}

}  // namespace tool
