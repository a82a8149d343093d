#include "platform/clusterd/slave_membership.h"

#include <cerrno>

#include "platform/clusterd/bus_address.h"
#include "platform/clusterd/certificates.h"
#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/enrolment.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/member_paths.h"
#include "platform/clusterd/member_records.h"
#include "platform/clusterd/own_address.h"
#include "platform/clusterd/restart.h"

namespace tarn::platform {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds kHelloEvery(2);
constexpr int kHelloMs = 3000;
constexpr seconds kSilence(7);

// How long the bus must be out of reach before the master is asked by another way, and how often.
constexpr seconds kCutOff(5);
constexpr seconds kQuestionEvery(15);
constexpr int kQuestionMs = 10000;

// For the answer to get out.
constexpr milliseconds kRestartAfter(500);

constexpr size_t kLongestPem = 65536;

}  // namespace

int Slave_Membership::prepare() {
  restore_lost_copies();
  const auto now = Clock::now();
  next_hello_ = cut_off_since_ = last_answer_ = now;
  next_question_ = now + kCutOff;
  mark_master(false);
  return 0;
}

void Slave_Membership::look_around() {
  const auto now = Clock::now();
  {
    const std::scoped_lock lock(records_mutex_);
    if (has_left_) {
      if (now >= restart_at_) request_restart();
      return;
    }
  }
  if (bus_->is_connected()) {
    cut_off_since_ = Clock::time_point::max();
    if (now >= next_hello_) say_hello();
  } else {
    if (cut_off_since_ == Clock::time_point::max()) cut_off_since_ = now;
    mark_master(false);
    if (now >= cut_off_since_ + kCutOff && now >= next_question_) ask_about_membership();
  }
}

void Slave_Membership::say_hello() {
  Member_List list;
  read_members(&list);
  Message hello;
  hello.kind = Wire_Kind::hello;
  hello.text = digest_of_list(list);
  Share_List_Digests share_lists = share_lists_.look(list);
  share_lists.erase(identity_.slave_id);  // which the master has from here
  hello.more = text_of_digests(share_lists);
  Message answer;
  const int result = bus_->request(kMasterId, hello, deadline_after(kHelloMs), &answer);
  const auto now = Clock::now();
  next_hello_ = now + kHelloEvery;
  if (result == 0 && answer.value == 0) {
    last_answer_ = now;
    if (!answer.text.empty()) take_list(answer.text);
  } else if (result == -ETIME) {
    // A connection over which nothing comes back may be one to an address that the master no longer has.
    bus_->doubt_address();
  }
  mark_master(now - last_answer_ < kSilence);
}

// By the first record, which is the master's.
void Slave_Membership::mark_master(bool is_up) {
  const std::scoped_lock lock(records_mutex_);
  if (has_left_ || (is_up == is_marked_up_ && marked_state_ == state_of_members_file())) return;
  Member_List list;
  int result = read_members(&list);
  if (result == 0 && !list.empty() && list.front().id != identity_.slave_id)
    result = mark_presence({{list.front().id, is_up}});
  if (result != 0) return;  // the next look around tries again
  is_marked_up_ = is_up;
  marked_state_ = state_of_members_file();
}

int Slave_Membership::take_list(const std::string &text) {
  Member_List list;
  int result = parse_list(text, &list);
  const std::scoped_lock lock(records_mutex_);
  if (result == 0 && !has_left_) result = apply_list(list);
  if (result != 0) log_line("the list of members could not be taken (%d)", result);
  return result;
}

// ------------------------------------------------------------------------------------------------ leaving

int Slave_Membership::leave_cluster() {
  const std::scoped_lock lock(records_mutex_);
  if (has_left_) return 0;
  const int result = leave(options_.bus_folder);
  if (result != 0) return result;
  has_left_ = true;
  restart_at_ = Clock::now() + kRestartAfter;
  log_line("%s is no member of the cluster any more", identity_.slave_id.c_str());
  return 0;
}

void Slave_Membership::ask_about_membership() {
  next_question_ = Clock::now() + kQuestionEvery;
  if (ask_master() != -ENOANO) return;
  if (leave_cluster() == 0) wake();
}

// Answers -ENOANO when the master, and nobody else, says that this is no member.
int Slave_Membership::ask_master() {
  const std::string &folder = options_.bus_folder;
  std::string host;
  int port = 0;
  Message question;
  question.kind = Wire_Kind::ask_membership;
  std::string key;
  int result = read_master_listener(folder, identity_, &host, &port);
  if (result == 0) result = read_text(folder + "/member.crt", kLongestPem, &question.text);
  if (result == 0) result = read_text(folder + "/member.key", kLongestPem, &key);
  Tls_Peer peer(watch_);
  const Deadline deadline = deadline_after(kQuestionMs);
  if (result == 0) result = peer.connect(host, port, options_.certificate, folder + "/ca.crt", deadline);
  if (result == 0) result = check_server(peer.session(), kMasterId);
  if (result != 0) return result == -ENOANO ? -EIO : result;
  question.more = sign_session(peer.session(), key);
  Message answer;
  result = peer.send(question);
  if (result == 0) result = peer.receive(&answer, 0);
  if (result != 0 || answer.kind != Wire_Kind::reply) return -EIO;
  return answer.value;
}

void Slave_Membership::conclude() {
  mark_master(false);
}

// ------------------------------------------------------------------------------------------------ requests

Message Slave_Membership::handle_member(const std::string &, const Message &request) {
  if (request.kind == Wire_Kind::member_list) return reply_of(take_list(request.text));
  if (request.kind != Wire_Kind::leave) return reply_of(-EINVAL);
  const int result = leave_cluster();
  wake();
  return reply_of(result);
}

// The address that was chosen for this member, while it has it; else the one from which it reaches the master.
Message Slave_Membership::update_network_info(Deadline deadline) {
  std::string address;
  Member_List list;
  read_members(&list);
  for (const Member_Entry &entry : list) {
    if (entry.id == identity_.slave_id && is_own_address(entry.address)) address = entry.address;
  }
  std::string host;
  int port = 0;
  int result = read_master_listener(options_.bus_folder, identity_, &host, &port);
  if (result == 0 && address.empty()) result = find_address_towards(host, &address);
  if (result != 0) return reply_of(result);

  Message info;
  info.kind = Wire_Kind::network_info;
  info.text = address;
  Message answer;
  result = bus_->request(kMasterId, info, deadline, &answer);
  if (result == 0) result = answer.value;
  if (result != 0) return reply_of(result);
  const std::scoped_lock lock(records_mutex_);
  if (!has_left_) set_address(identity_.slave_id, address);
  return reply_of(0, plain_reply());
}

}  // namespace tarn::platform
