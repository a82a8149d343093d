// The commands of the cluster's backup. The work itself is the worker's, see backup_worker.cc.
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cluster/ops/backup_worker.h"
#include "cluster/ops/members.h"
#include "cluster/ops/wire_checks.h"
#include "cluster/records/task_records.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char backup_handler[] = "Tarn_Cluster_Backup_Cb";
constexpr char progress_handler[] = "Tarn_Cluster_Backup_Set_Pack_Prg_Cb";

constexpr int own_id_size = 32;

// ------------------------------------------------------------------------------------------------------ start a backup

int check_own_id(const char *id) {
  char own_id[own_id_size];
  int size = own_id_size;
  const int status = Get_Conf_File_String_Value(slave_identity_file, "global", "MSKey", own_id, &size);
  if (status != 0) {
    TARN_ERROR_AS(backup_handler, "Can't read mskey from config %s! (%d)", slave_identity_file, status);
    return status;
  }
  // The id names files.
  if (strcmp(id, own_id) == 0 && is_member_id(id, own_id_size - 1)) return 0;
  TARN_ERROR_AS(backup_handler, "Invalid slave ID %s!", id);
  return -EINVAL;
}

int start_backup(const json_object *object) {
  const char *id = find_text(object, "slave_id");
  if (id == nullptr) {
    TARN_ERROR_AS(backup_handler, "Can't get slave id! (%d)", -EINVAL);
    return -EINVAL;
  }
  const char *path = find_text(object, "bak_path");
  if (path == nullptr) {
    TARN_ERROR_AS(backup_handler, "Can't get backup path! (%d)", -EINVAL);
    return -EINVAL;
  }
  const int status = check_own_id(id);
  if (status != 0) return status;
  // A path that begins with a dash would be an option of the tool.
  if (path[0] == '\0' || path[0] == '-') {
    TARN_ERROR_AS(backup_handler, "Invalid backup file path!\n!");
    return -EINVAL;
  }
  // Nobody waits for the worker; a backup that could not be started is one that never shows any progress. It must not
  // return into its parent's program, nor flush what that has buffered.
  if (fork() == 0) _exit(run_backup_worker(id, path));
  return 0;
}

// ------------------------------------------------------------------------------------------------------------ progress

int store_member(const char *id, const Tarn_Serv_Conf &record) {
  for (const char *file : {kept_slaves_file, slaves_file}) {
    const int status = Tarn_Cluster_Service_Set(file, id, &record);
    if (status == 0) continue;
    TARN_ERROR_AS(progress_handler, "Can't set service %s to config file %s! (%d)", id, file, status);
    return status;
  }
  return 0;
}

int store_progress(const json_object *object) {
  const char *id = find_subject_id(progress_handler, object);
  if (id == nullptr) return -EINVAL;
  const int half = json_object_get_int(find_member(object, "progress")) / 2;

  Member_List record;
  int status = read_member(progress_handler, id, &record);
  if (status == -ENOANO) return -EINVAL;
  if (status != 0 || record == nullptr) return status;
  record->BackupProgress = half;
  record->fields |= TARN_SERV_BACKUP_PROGRESS;
  status = store_member(id, *record);
  if (status != 0) return status;
  return change_task_progress(progress_handler, id, true, half, TARN_TASK_PROGRESS);
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Backup(const char *slave_id, const char *backup_path, char **reply) {
  if (slave_id == nullptr || backup_path == nullptr || reply == nullptr) return -EINVAL;

  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::call_handler);
  command.text("fname", tarn::backup_handler).text("slave_id", slave_id);
  tarn::Json_Builder argument;
  argument.text("slave_id", slave_id).text("bak_path", backup_path);
  return tarn::send_command(__func__, tarn::Direction::master_to_slave, command, argument, tarn::no_timeout, reply);
}

char *Tarn_Cluster_Backup_Cb(const char *argument) {
  return tarn::run_handler(__func__, argument, tarn::start_backup);
}

int Tarn_Cluster_Backup_Set_Pack_Prg(const char *master_id, int progress, char **reply) {
  if (master_id == nullptr || reply == nullptr) return -EINVAL;

  *reply = nullptr;
  char own_id[tarn::slave_id_size];
  const int status = tarn::read_own_slave_id(__func__, own_id);
  if (status != 0) return status;
  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::call_handler);
  command.text("fname", tarn::progress_handler).text("master_id", master_id);
  tarn::Json_Builder argument;
  argument.text("slave_id", own_id).number("progress", progress);
  return tarn::send_command(__func__, tarn::Direction::slave_to_master, command, argument, tarn::no_timeout, reply);
}

char *Tarn_Cluster_Backup_Set_Pack_Prg_Cb(const char *argument) {
  return tarn::run_handler(__func__, argument, tarn::store_progress);
}
