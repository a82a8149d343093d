// A member's part in keeping the cluster together: who is in it, who is up, where it is reached.
#ifndef TARN_PLATFORM_CLUSTERD_MEMBERSHIP_H
#define TARN_PLATFORM_CLUSTERD_MEMBERSHIP_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/deadline_watch.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/io.h"
#include "platform/clusterd/tls_peer.h"

namespace tarn::platform {

struct Membership_Options {
  int listener_port = 62695;
  std::string certificate;  // for sessions outside the bus
  std::string bus_folder;
  std::string authority_folder;  // of the master
  std::string setup_program;     // which keeps it
  std::string run_folder;
  std::string announcement;  // the file
};

class Membership {
 public:
  Membership(const Identity &identity, Bus *bus, Deadline_Watch *watch, Membership_Options options)
      : identity_(identity), bus_(bus), watch_(watch), options_(std::move(options)) {}
  virtual ~Membership() = default;
  Membership(const Membership &) = delete;
  Membership &operator=(const Membership &) = delete;

  // Answers 0 or a negative code.
  int start();

  // To be called after stop_waiting().
  void stop();

  // Each answers a request that is about membership: a program's (op codes 2 and 3; op code 4), another member's, which
  // the bus vouches for, and a visitor's at the listener.
  virtual Message control(const Message &request);
  virtual Message update_network_info(Deadline deadline) = 0;
  virtual Message handle_member(const std::string &sender, const Message &request) = 0;
  virtual Message answer_visitor(Tls_Peer &peer, const Message &request);

  static bool is_about_membership(Wire_Kind kind);

 protected:
  // Called once before the thread starts, and on it about once a second.
  virtual int prepare() = 0;
  virtual void look_around() = 0;
  virtual void conclude() {}

  // Has look_around() called at once.
  void wake();

  const Identity &identity_;
  Bus *const bus_;
  Deadline_Watch *const watch_;
  const Membership_Options options_;

 private:
  void run();

  std::mutex wake_mutex_;
  std::condition_variable wake_;
  bool is_woken_ = false;
  bool is_stopped_ = false;
  std::thread thread_;
};

// What an operation without any other result answers.
std::string plain_reply();

}  // namespace tarn::platform

#endif
