// Checks the passwords of those who want to have this appliance join their cluster, ever more slowly.
#ifndef TARN_PLATFORM_CLUSTERD_PASSWORD_GATE_H
#define TARN_PLATFORM_CLUSTERD_PASSWORD_GATE_H

#include <map>
#include <mutex>
#include <string>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Password_Gate {
 public:
  // Answers 0; -ENOANO for a user without a password here; -EBADSLT for a wrong password; -EBUSY without a look at the
  // password, since too many were wrong; -EINVAL. A wrong one takes a second.
  int check(const std::string &origin, const std::string &user, const std::string &password);

 private:
  // Of one origin: after kFree wrong passwords it has to wait, twice as long each time.
  struct Failures {
    int count = 0;
    Clock::time_point next_try;
    Clock::time_point last;
  };
  static constexpr int kFree = 3;
  static constexpr size_t kOriginsKept = 256;
  static constexpr int kFailuresAMinute = 30;  // from everywhere together

  int check_now(const std::string &origin, const std::string &user, const std::string &password);
  bool has_to_wait(const std::string &origin);
  void note_failure(const std::string &origin);

  std::mutex mutex_;  // the check itself is not made for several threads
  std::map<std::string, Failures> failures_;
  int failures_of_minute_ = 0;
  Clock::time_point minute_end_;
};

}  // namespace tarn::platform

#endif
