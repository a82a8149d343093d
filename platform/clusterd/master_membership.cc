#include "platform/clusterd/master_membership.h"

#include <algorithm>
#include <cerrno>

#include "platform/clusterd/bus_address.h"
#include "platform/clusterd/command.h"
#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/json_text.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/member_records.h"
#include "platform/clusterd/own_address.h"

namespace tarn::platform {

namespace {

using std::chrono::seconds;

// A slave that has said nothing for so long is down.
constexpr seconds kSilence(7);

constexpr int kConnectMs = 5000;
constexpr int kJoinMs = 25000;
constexpr int kLeaveMs = 5000;
constexpr int kTellMs = 3000;
constexpr seconds kTellAllMs(10);
constexpr seconds kComesUp(5);
constexpr seconds kHandOutAgainAfter(30);  // a list that the slave could not store

constexpr size_t kLongestGreeting = 4096;
constexpr int kLargestPort = 65535;

std::string reply_with_id(const std::string &id) {
  const Json object(json_object_new_object());
  add_number(object.get(), "return", 0);
  add_text(object.get(), "slave_id", id);
  return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

bool is_in(const Member_List &list, const std::string &id) {
  return std::any_of(list.begin(), list.end(), [&id](const Member_Entry &entry) { return entry.id == id; });
}

// A code from the other side is taken for no more than it may be.
int code_in(const Message &answer) {
  return answer.kind == Wire_Kind::reply && answer.value <= 0 ? answer.value : -EPROTO;
}

int exchange(Tls_Peer &peer, const Message &question, Message *answer) {
  int result = peer.send(question);
  if (result == 0) result = peer.receive(answer, kLongestGreeting);
  return result == 0 ? code_in(*answer) : result;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ records, presence

int Master_Membership::prepare() {
  restore_lost_copies();
  const std::string id = authority_.undo_unsettled();
  if (!id.empty()) {
    delete_member(id);
    authority_.update_bus();
  }
  const int result = ensure_own_record();
  if (result != 0) log_line("the master's own record cannot be kept (%d)", result);
  refresh_list();
  mark_all(false);
  return 0;
}

int Master_Membership::ensure_own_record() {
  const std::string name = identity_.own_name();
  std::string address;
  int port = 0;
  int result = 0;
  if (read_master_address(name, &address) != 0) {
    std::string url;
    result = read_bus_url(options_.bus_folder, identity_, &url);
    if (result == 0 && !parse_bus_url(url, &address, &port)) result = -EINVAL;
    if (result == 0) result = write_master_address(name, address);
  }
  return result == 0 ? add_member({name, address, own_host_name(), 0}, true) : result;
}

void Master_Membership::refresh_list() {
  Member_List list;
  if (read_members(&list) != 0) return;
  const std::scoped_lock lock(mutex_);
  list_text_ = text_of_list(list);
  list_digest_ = digest_of_list(list);
  list_ = std::move(list);
}

Member_List Master_Membership::current_list() {
  const std::scoped_lock lock(mutex_);
  return list_;
}

bool Master_Membership::is_up(const std::string &id) {
  const std::scoped_lock lock(mutex_);
  const auto entry = last_hello_.find(id);
  return entry != last_hello_.end() && Clock::now() - entry->second < kSilence;
}

void Master_Membership::look_around() {
  refresh_list();
  mark_all(false);
  hand_out_missed_lists();
}

int Master_Membership::mark_all(bool is_ending) {
  std::map<std::string, bool> up;
  for (const Member_Entry &entry : current_list())
    up[entry.id] = !is_ending && (entry.id == identity_.own_name() || is_up(entry.id));
  const bool is_marked = up == marked_ && marked_state_ == state_of_members_file();
  if (is_marked) return 0;
  const int result = mark_presence(up);
  if (result != 0) return result;  // the next look around tries again
  marked_state_ = state_of_members_file();
  {
    const std::scoped_lock lock(mutex_);
    marked_ = std::move(up);
  }
  said_hello_.notify_all();
  return 0;
}

void Master_Membership::conclude() {
  mark_all(true);
}

Message Master_Membership::take_hello(const std::string &sender, const Message &hello) {
  const bool was_up = is_up(sender);
  const std::scoped_lock lock(mutex_);
  const bool is_listed = is_in(list_, sender);
  if (is_listed) {
    last_hello_[sender] = Clock::now();
    lists_told_of_[sender] = hello.more;
  }
  if (is_listed && !was_up) wake();
  return reply_of(0, hello.text == list_digest_ || list_.empty() ? "" : list_text_);
}

// Has the marks been set, too.
bool Master_Membership::comes_up(const std::string &id, Deadline deadline) {
  std::unique_lock lock(mutex_);
  return said_hello_.wait_until(lock, deadline, [this, &id] {
    const auto entry = marked_.find(id);
    return entry != marked_.end() && entry->second;
  });
}

// A slave that was away when a share list was passed on, or joined later, gets it now.
void Master_Membership::hand_out_missed_lists() {
  std::map<std::string, std::string> told;
  {
    const std::scoped_lock lock(mutex_);
    told.swap(lists_told_of_);
  }
  if (told.empty()) return;
  const Deadline end = Clock::now() + kTellAllMs;
  const Member_List list = current_list();
  const Share_List_Digests own = share_lists_.look(list);
  std::erase_if(missed_lists_, [&list](const auto &missed) { return !is_in(list, missed.first.first); });
  for (const auto &[slave, text] : told) {
    const Share_List_Digests theirs = parse_digests(text);
    for (const auto &[id, digest] : own) {
      const auto entry = theirs.find(id);
      if (id == slave || (entry != theirs.end() && entry->second == digest)) {
        missed_lists_.erase({slave, id});
      } else if (is_to_be_handed_out(slave, id, digest) && remaining_ms(end) > 0) {
        hand_out_list(slave, id);
      }
    }
  }
}

// A list that differs may be on its way: it is handed out when the slave still lacks it by the next hello.
bool Master_Membership::is_to_be_handed_out(const std::string &slave, const std::string &id,
                                            const std::string &digest) {
  const Clock::time_point now = Clock::now();
  Missed_List &missed = missed_lists_[{slave, id}];
  if (missed.digest != digest) {
    missed = {digest, now};
    return false;
  }
  if (now < missed.next_try) return false;
  missed.next_try = now + kHandOutAgainAfter;
  return true;
}

void Master_Membership::hand_out_list(const std::string &slave, const std::string &id) {
  Message command;
  Message answer;
  int result = make_list_command(id, slave, &command);
  command.value = kTellMs;
  if (result == 0) result = bus_->request(slave, command, deadline_after(kTellMs), &answer);
  if (result == 0) result = answer.value;
  log_line("%s had missed the share list of %s; it was handed out (%d)", slave.c_str(), id.c_str(), result);
}

// Whoever is not reached asks for the list by the next hello.
void Master_Membership::tell_slaves(const std::string &except) {
  const Deadline end = Clock::now() + kTellAllMs;
  Message message;
  message.kind = Wire_Kind::member_list;
  {
    const std::scoped_lock lock(mutex_);
    message.text = list_text_;
  }
  for (const Member_Entry &entry : current_list()) {
    if (entry.id == identity_.own_name() || entry.id == except || !is_up(entry.id) || remaining_ms(end) == 0) continue;
    Message answer;
    bus_->request(entry.id, message, deadline_after(kTellMs), &answer);
  }
}

// ------------------------------------------------------------------------------------------------ requests

Message Master_Membership::handle_member(const std::string &sender, const Message &request) {
  if (request.kind == Wire_Kind::hello) return take_hello(sender, request);
  if (request.kind == Wire_Kind::network_info) return take_network_info(sender, request);
  return reply_of(-EINVAL);
}

Message Master_Membership::take_network_info(const std::string &sender, const Message &info) {
  if (!is_numeric_address(info.text) || !is_address(info.text)) return reply_of(-EINVAL);
  const int result = set_address(sender, info.text);
  refresh_list();
  return reply_of(result);
}

// Of the slave on this appliance.
Message Master_Membership::update_network_info(Deadline) {
  std::string address;
  int result = read_master_address(identity_.own_name(), &address);
  if (result == 0) result = set_address(identity_.own_name(), address);
  return result == 0 ? reply_of(0, plain_reply()) : reply_of(result);
}

Message Master_Membership::answer_visitor(Tls_Peer &peer, const Message &request) {
  if (request.kind != Wire_Kind::ask_membership) return Membership::answer_visitor(peer, request);
  std::string name;
  int result = check_client(peer.session(), request.text, request.more, authority_.certificate(), &name);
  if (result == 0) result = authority_.judge(name, request.text);
  return reply_of(result);
}

Message Master_Membership::control(const Message &request) {
  int op_code = 0;
  const int result = parse_control_command(request.text, &op_code);
  if (result != 0) return reply_of(result);
  if (op_code != kOpAddSlave && op_code != kOpRemoveSlave) return reply_of(-ENOSYS);
  if (!authority_.is_here()) return reply_of(-ENOKEY);
  const Deadline deadline = std::min(deadline_after(request.value), deadline_after(kJoinMs));
  const std::unique_lock lock(changing_, deadline);
  if (!lock) return reply_of(-EBUSY);
  if (op_code == kOpAddSlave) return add(request.more, deadline);

  const Json command = parse_object(request.text);
  const Json argument = parse_object(request.more);
  const std::optional<std::string> id = text_member(command.get(), "slave_id");
  if (!argument || !id || id != text_member(argument.get(), "slave_id")) return reply_of(-EINVAL);
  return remove(*id);
}

// ------------------------------------------------------------------------------------------------ adding

int Master_Membership::parse_add_argument(const std::string &text, Add_Argument *argument) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  argument->address = text_member(object.get(), "Address").value_or("");
  argument->port = number_member(object.get(), "Port").value_or(0);
  argument->user = text_member(object.get(), "User").value_or("");
  argument->password = text_member(object.get(), "Password").value_or("");
  const bool is_good = is_address(argument->address) && argument->port >= 1 && argument->port <= kLargestPort;
  return is_good ? 0 : -EINVAL;
}

Message Master_Membership::add(const std::string &text, Deadline deadline) {
  Add_Argument argument;
  int result = parse_add_argument(text, &argument);
  if (result != 0) return reply_of(result);
  Tls_Peer peer(watch_);
  Member_Entry slave;
  result = peer.connect(argument.address, argument.port, options_.certificate, options_.certificate,
                        std::min(deadline, deadline_after(kConnectMs)));
  if (result == 0) {
    peer.set_deadline(deadline);
    result = log_in(peer, argument, &slave);
  }
  if (result != 0) {
    log_line("%s was not added (%d)", argument.address.c_str(), result);
    return reply_of(result);
  }
  result = hand_over(peer, slave);
  peer.close();
  if (result == 0) result = admit(slave);
  if (result != 0) {
    log_line("%s was not added (%d)", argument.address.c_str(), result);
    undo_add(slave.id);
    return reply_of(result);
  }
  log_line("%s was added as %s", slave.address.c_str(), slave.id.c_str());
  tell_slaves(slave.id);
  // For the caller to find the slave up; one that takes longer comes all the same.
  if (bus_->is_connected()) comes_up(slave.id, std::min(deadline, Clock::now() + kComesUp));
  return reply_of(0, reply_with_id(slave.id));
}

int Master_Membership::log_in(Tls_Peer &peer, const Add_Argument &argument, Member_Entry *slave) {
  const Json object(json_object_new_object());
  add_text(object.get(), "User", argument.user);
  add_text(object.get(), "Password", argument.password);
  Message login;
  login.kind = Wire_Kind::login;
  login.text = json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
  Message answer;
  const int result = exchange(peer, login, &answer);
  if (result != 0) return result;

  const Json greeting = parse_object(answer.text);
  slave->id = authority_.make_id();
  slave->address = peer.address();
  if (greeting) slave->host_name = text_member(greeting.get(), "host_name").value_or("");
  if (!is_host_name(slave->host_name)) slave->host_name.clear();
  slave->number = 0;
  for (const Member_Entry &entry : current_list()) slave->number = std::max(slave->number, entry.number + 1);
  return slave->id.empty() || !is_address(slave->address) ? -EIO : 0;
}

int Master_Membership::make_invitation(const Member_Entry &slave, Invitation *invitation) {
  invitation->slave_id = slave.id;
  invitation->listener_port = options_.listener_port;
  invitation->members = current_list();
  if (invitation->members.empty() || invitation->members.front().id != identity_.own_name()) return -ENODATA;
  invitation->members.push_back(slave);
  const int result = read_bus_url(options_.bus_folder, identity_, &invitation->bus_url);
  return result == 0 ? authority_.add_member(slave.id, &invitation->credentials) : result;
}

int Master_Membership::hand_over(Tls_Peer &peer, const Member_Entry &slave) {
  refresh_list();
  Invitation invitation;
  const int result = make_invitation(slave, &invitation);
  if (result != 0) return result;
  Message message;
  message.kind = Wire_Kind::join;
  message.text = text_of_invitation(invitation);
  Message answer;
  return exchange(peer, message, &answer);
}

int Master_Membership::admit(const Member_Entry &slave) {
  int result = add_member(slave);
  refresh_list();
  if (result == 0) result = authority_.update_bus();
  return result == 0 ? authority_.settle() : result;
}

// The appliance that said yes finds out when the bus refuses it.
void Master_Membership::undo_add(const std::string &id) {
  authority_.undo_unsettled();
  const int deleted = delete_member(id);
  refresh_list();
  if (deleted != -ENOANO) authority_.update_bus();
}

// ------------------------------------------------------------------------------------------------ removing

Message Master_Membership::remove(const std::string &id) {
  if (!is_slave_id(id)) return reply_of(-EINVAL);
  if (id == identity_.own_name() || id == kMasterId) return reply_of(-EPERM);
  refresh_list();
  if (!is_in(current_list(), id) && !authority_.has_member(id)) return reply_of(-ENOANO);

  // While the bus still lets it in. One that is down learns it when it returns.
  Message message;
  message.kind = Wire_Kind::leave;
  Message answer;
  const int told = bus_->request(id, message, deadline_after(kLeaveMs), &answer);
  int result = authority_.remove_member(id);
  keep_first(&result, authority_.update_bus());
  const int deleted = delete_member(id);
  if (deleted != -ENOANO) keep_first(&result, deleted);
  delete_share_list(id);
  {
    const std::scoped_lock lock(mutex_);
    last_hello_.erase(id);
    lists_told_of_.erase(id);
  }
  refresh_list();
  tell_slaves(id);
  log_line("%s was removed (%d); it was told so (%d)", id.c_str(), result, told == 0 ? answer.value : told);
  return result == 0 ? reply_of(0, reply_with_id(id)) : reply_of(result);
}

}  // namespace tarn::platform
