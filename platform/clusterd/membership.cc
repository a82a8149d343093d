#include "platform/clusterd/membership.h"

#include <cerrno>
#include <chrono>
#include <exception>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr std::chrono::seconds kLookAroundEvery(1);

}  // namespace

std::string plain_reply() {
  return R"({"return":0})";
}

bool Membership::is_about_membership(Wire_Kind kind) {
  return kind == Wire_Kind::hello || kind == Wire_Kind::member_list || kind == Wire_Kind::leave ||
         kind == Wire_Kind::network_info;
}

Message Membership::control(const Message &) {
  return reply_of(-EPERM);
}

Message Membership::answer_visitor(Tls_Peer &, const Message &request) {
  const bool is_invitation = request.kind == Wire_Kind::login || request.kind == Wire_Kind::join;
  return reply_of(is_invitation ? -EEXIST : -ENOSYS);
}

int Membership::start() {
  const int result = prepare();
  if (result == 0) thread_ = std::thread(&Membership::run, this);
  return result;
}

void Membership::run() {
  std::unique_lock lock(wake_mutex_);
  while (!is_stopped_) {
    is_woken_ = false;
    lock.unlock();
    try {
      look_around();
    } catch (const std::exception &failure) {
      log_line("membership: %s", failure.what());
    }
    lock.lock();
    wake_.wait_for(lock, kLookAroundEvery, [this] { return is_woken_ || is_stopped_; });
  }
}

void Membership::wake() {
  const std::scoped_lock lock(wake_mutex_);
  is_woken_ = true;
  wake_.notify_all();
}

void Membership::stop() {
  {
    const std::scoped_lock lock(wake_mutex_);
    is_stopped_ = true;
    wake_.notify_all();
  }
  if (!thread_.joinable()) return;
  thread_.join();
  conclude();
}

}  // namespace tarn::platform
