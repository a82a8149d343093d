#include "platform/clusterd/join_desk.h"

#include <cerrno>

#include "platform/clusterd/enrolment.h"
#include "platform/clusterd/json_text.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/own_address.h"
#include "platform/clusterd/restart.h"
#include "platform/clusterd/tls_listener.h"

namespace tarn::platform {

namespace {

// For the master to make a certificate, and for this side to write its files.
constexpr int kInvitationMs = 20000;
constexpr int kAnswerMs = 10000;
constexpr size_t kLongestInvitation = size_t{2} << 20;

std::string greeting() {
  const Json object(json_object_new_object());
  add_text(object.get(), "host_name", own_host_name());
  return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace

void Join_Desk::receive(Tls_Peer &peer, const Message &request) {
  const std::string address = peer.address();
  if (request.kind != Wire_Kind::login) {
    peer.send(reply_of(-ENOSYS));
    return;
  }
  peer.set_deadline(deadline_after(kAnswerMs));
  std::string slave_id;
  int result = check_login(address, request.text);
  if (result == 0) result = take_invitation(peer, &slave_id);
  peer.set_deadline(deadline_after(kAnswerMs));
  peer.send(reply_of(result));
  peer.close();
  if (result != 0) return log_line("a join asked for by %s was refused (%d)", address.c_str(), result);
  log_line("joined as %s, by the master at %s", slave_id.c_str(), address.c_str());
  request_restart();
}

int Join_Desk::check_login(const std::string &address, const std::string &text) {
  if (is_member()) return -EEXIST;
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  return gate_.check(origin_of(address), text_member(object.get(), "User").value_or(""),
                     text_member(object.get(), "Password").value_or(""));
}

int Join_Desk::take_invitation(Tls_Peer &peer, std::string *slave_id) {
  const std::unique_lock lock(joining_, std::try_to_lock);
  if (!lock) return -EBUSY;
  if (is_member()) return -EEXIST;
  peer.set_deadline(deadline_after(kInvitationMs));
  int result = peer.send(reply_of(0, greeting()));
  Message message;
  if (result == 0) result = peer.receive(&message, kLongestInvitation);
  if (result == -EBADMSG || (result == 0 && message.kind != Wire_Kind::join)) return -EINVAL;
  if (result != 0) return result;
  Invitation invitation;
  result = read_invitation(message.text, &invitation);
  if (result != 0) return result;
  *slave_id = invitation.slave_id;
  return platform::join(invitation, bus_folder_);
}

}  // namespace tarn::platform
