// A slave's part: it tells the master that it is there, keeps its list of members, and finds out when it is none.
#ifndef TARN_PLATFORM_CLUSTERD_SLAVE_MEMBERSHIP_H
#define TARN_PLATFORM_CLUSTERD_SLAVE_MEMBERSHIP_H

#include <mutex>
#include <string>

#include "platform/clusterd/membership.h"
#include "platform/clusterd/share_lists.h"

namespace tarn::platform {

class Slave_Membership : public Membership {
 public:
  using Membership::Membership;
  ~Slave_Membership() override { stop(); }

  Message update_network_info(Deadline deadline) override;
  Message handle_member(const std::string &sender, const Message &request) override;

 protected:
  int prepare() override;
  void look_around() override;
  void conclude() override;

 private:
  void say_hello();
  void ask_about_membership();
  int ask_master();
  int leave_cluster();
  int take_list(const std::string &text);
  void mark_master(bool is_up);

  std::mutex records_mutex_;  // for what is written on this appliance
  bool has_left_ = false;
  Clock::time_point restart_at_ = Clock::time_point::max();
  // Of the thread.
  Clock::time_point next_hello_;
  Clock::time_point last_answer_;
  Clock::time_point cut_off_since_;
  Clock::time_point next_question_;
  std::string marked_state_;
  Share_Lists share_lists_;
  bool is_marked_up_ = false;
};

}  // namespace tarn::platform

#endif
