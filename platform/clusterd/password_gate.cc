#include "platform/clusterd/password_gate.h"

#include <algorithm>
#include <cerrno>

#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

using std::chrono::seconds;

constexpr seconds kFailureTakes(1);
constexpr seconds kLongestWait(60);
constexpr seconds kForgottenAfter(600);

constexpr size_t kLongestUser = 256;
constexpr size_t kLongestPassword = 1024;

bool is_text(const std::string &text, size_t limit) {
  return text.size() <= limit && text.find('\0') == std::string::npos;
}

}  // namespace

int Password_Gate::check(const std::string &origin, const std::string &user, const std::string &password) {
  if (user.empty() || !is_text(user, kLongestUser) || !is_text(password, kLongestPassword)) return -EINVAL;
  const int result = check_now(origin, user, password);
  // The service's end is all that wakes this wait.
  if (result != 0 && result != -EBUSY) wait_ready(stop_fd(), 0, Clock::now() + kFailureTakes);
  return result;
}

int Password_Gate::check_now(const std::string &origin, const std::string &user, const std::string &password) {
  const std::scoped_lock lock(mutex_);
  if (has_to_wait(origin)) return -EBUSY;
  const int result = Authentication_Check(user.c_str(), password.c_str());
  if (result == 0) {
    failures_.erase(origin);
  } else {
    note_failure(origin);
  }
  return result;
}

bool Password_Gate::has_to_wait(const std::string &origin) {
  const Clock::time_point now = Clock::now();
  if (minute_end_ <= now) {
    minute_end_ = now + seconds(60);
    failures_of_minute_ = 0;
  }
  if (failures_of_minute_ >= kFailuresAMinute) return true;
  const auto entry = failures_.find(origin);
  return entry != failures_.end() && now < entry->second.next_try;
}

void Password_Gate::note_failure(const std::string &origin) {
  const Clock::time_point now = Clock::now();
  ++failures_of_minute_;
  std::erase_if(failures_, [now](const auto &entry) { return entry.second.last + kForgottenAfter < now; });
  // The minute's limit holds when the table is full.
  if (failures_.size() >= kOriginsKept && !failures_.contains(origin)) return;
  Failures &failures = failures_[origin];
  failures.last = now;
  if (++failures.count < kFree) return;
  const int doublings = std::min(failures.count - kFree, 10);
  failures.next_try = now + std::min(seconds(2) * (1 << doublings), kLongestWait);
}

}  // namespace tarn::platform
