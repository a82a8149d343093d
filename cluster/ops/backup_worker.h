// The process that packs a slave's configuration and hands the result to the master.
#pragma once

namespace tarn {

// How long the packer may show the same progress; tests lower it.
extern int backup_stall_limit_ms;

// Returns the process's exit status: what became of the backup.
int run_backup_worker(const char *slave_id, const char *backup_path);

}  // namespace tarn
