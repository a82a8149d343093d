// Where the handlers of backup_handlers.cc note what they see of a worker, and look for its abort flag; on the member.
#pragma once

namespace tarn::test {

inline constexpr char kWorkerFile[] = "/run/backup.worker";  // its process id and group
inline constexpr char kExitFile[] = "/run/backup.exit";      // its exit status, or the negative number of a signal
inline constexpr char kAbortFlagFile[] = "/run/backup.abort";

}  // namespace tarn::test
