// Answers at the listener of an appliance that is in no cluster yet: to a master that wants it.
#ifndef TARN_PLATFORM_CLUSTERD_JOIN_DESK_H
#define TARN_PLATFORM_CLUSTERD_JOIN_DESK_H

#include <mutex>
#include <string>

#include "platform/clusterd/password_gate.h"
#include "platform/clusterd/tls_peer.h"

namespace tarn::platform {

class Join_Desk {
 public:
  explicit Join_Desk(std::string bus_folder) : bus_folder_(std::move(bus_folder)) {}

  // The whole of a conversation, which begins with the request. After a join the service is to begin anew.
  void receive(Tls_Peer &peer, const Message &request);

 private:
  int check_login(const std::string &address, const std::string &text);
  int take_invitation(Tls_Peer &peer, std::string *slave_id);

  const std::string bus_folder_;
  Password_Gate gate_;
  std::mutex joining_;
};

}  // namespace tarn::platform

#endif
