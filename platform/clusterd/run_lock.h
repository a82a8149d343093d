// One cluster service at a time on an appliance; and where others find its process.
#ifndef TARN_PLATFORM_CLUSTERD_RUN_LOCK_H
#define TARN_PLATFORM_CLUSTERD_RUN_LOCK_H

#include <string>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Run_Lock {
 public:
  Run_Lock() = default;
  ~Run_Lock();
  Run_Lock(const Run_Lock &) = delete;
  Run_Lock &operator=(const Run_Lock &) = delete;

  // Makes the folder and, in it, the file that holds this process's id for as long as this lives. Answers 0;
  // -EADDRINUSE when another service runs; -errno.
  int take(const std::string &folder);

 private:
  Descriptor file_;
};

}  // namespace tarn::platform

#endif
