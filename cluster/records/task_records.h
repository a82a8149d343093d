// The background tasks of the cluster's members, as the backup's programs keep them.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr const char *task_file = "/tmp/druvosrv/tarn_backup.conf";

// The name of a member's task, "%s_%c": the member and "b" for its backup or "r" for its restore.
class Task_Name {
 public:
  Task_Name(const char *member, bool is_backup);
  const char *text() const { return text_; }
  bool fits() const { return length_ >= 0 && length_ < static_cast<int>(sizeof text_); }

 private:
  char text_[130];
  int length_;
};

// As Set_Backgrnd_Task_Progress, and reports under the name of the exported function that is handed in. The bits are
// added to the task's own: with that of progress, a task without a progress gets one.
int change_task_progress(const char *function, const char *member, bool is_backup, double progress, unsigned bits);

}  // namespace tarn
