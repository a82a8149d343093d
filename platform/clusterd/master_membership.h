// The master's part: it adds and removes slaves, and knows which of them are up.
#ifndef TARN_PLATFORM_CLUSTERD_MASTER_MEMBERSHIP_H
#define TARN_PLATFORM_CLUSTERD_MASTER_MEMBERSHIP_H

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "platform/clusterd/authority.h"
#include "platform/clusterd/enrolment.h"
#include "platform/clusterd/member_list.h"
#include "platform/clusterd/membership.h"
#include "platform/clusterd/share_lists.h"

namespace tarn::platform {

class Master_Membership : public Membership {
 public:
  Master_Membership(const Identity &identity, Bus *bus, Deadline_Watch *watch, Membership_Options options)
      : Membership(identity, bus, watch, std::move(options)),
        authority_(options_.authority_folder, options_.setup_program, options_.run_folder) {}
  ~Master_Membership() override { stop(); }

  Message control(const Message &request) override;
  Message update_network_info(Deadline deadline) override;
  Message handle_member(const std::string &sender, const Message &request) override;
  Message answer_visitor(Tls_Peer &peer, const Message &request) override;

 protected:
  int prepare() override;
  void look_around() override;
  void conclude() override;

 private:
  struct Add_Argument {
    std::string address;
    int port = 0;
    std::string user;
    std::string password;
  };
  static int parse_add_argument(const std::string &text, Add_Argument *argument);

  Message add(const std::string &argument, Deadline deadline);
  int log_in(Tls_Peer &peer, const Add_Argument &argument, Member_Entry *slave);
  int hand_over(Tls_Peer &peer, const Member_Entry &slave);
  int make_invitation(const Member_Entry &slave, Invitation *invitation);
  int admit(const Member_Entry &slave);
  void undo_add(const std::string &id);
  Message remove(const std::string &id);
  int ensure_own_record();

  Message take_hello(const std::string &sender, const Message &hello);
  Message take_network_info(const std::string &sender, const Message &info);
  void refresh_list();
  Member_List current_list();
  bool is_up(const std::string &id);
  bool comes_up(const std::string &id, Deadline deadline);
  void tell_slaves(const std::string &except);
  int mark_all(bool is_ending);
  void hand_out_missed_lists();
  bool is_to_be_handed_out(const std::string &slave, const std::string &id, const std::string &digest);
  void hand_out_list(const std::string &slave, const std::string &id);

  Authority authority_;
  std::timed_mutex changing_;  // one change of who belongs to the cluster at a time
  std::mutex mutex_;           // for what follows
  std::condition_variable said_hello_;
  Member_List list_;
  std::string list_text_;
  std::string list_digest_;
  std::map<std::string, Clock::time_point> last_hello_;
  std::map<std::string, std::string> lists_told_of_;  // by slaves, since the thread looked last
  // Of the thread.
  struct Missed_List {
    std::string digest;
    Clock::time_point next_try;
  };
  Share_Lists share_lists_;
  std::map<std::pair<std::string, std::string>, Missed_List> missed_lists_;  // by slave and whose list it is
  std::map<std::string, bool> marked_;
  std::string marked_state_;
};

}  // namespace tarn::platform

#endif
