// The folders in which the library keeps what it knows of backups and background tasks, and which it does not make.
#ifndef TARN_PLATFORM_CLUSTERD_BACKUP_FOLDERS_H
#define TARN_PLATFORM_CLUSTERD_BACKUP_FOLDERS_H

namespace tarn::platform {

constexpr char kTaskFolder[] = "/tmp/druvosrv";
constexpr char kBackupFolder[] = "/etc/config/tarn_cluster/home/backup";

// A member works without them; what fails is said in the log.
void make_backup_folders();

}  // namespace tarn::platform

#endif
