#include "platform/clusterd/command_router.h"

#include <cerrno>

namespace tarn::platform {

namespace {

constexpr size_t kQuestionsAtOnce = 256;

bool is_transfer(const Command &command) {
  return command.op_code == kOpSendFile || command.op_code == kOpReceiveFile;
}

// Handlers whose argument says who speaks, and for long arguments a thread of their own.
bool tells_of_sender(const Command &command) {
  return command.op_code == kOpCallHandler &&
         (command.fname == "Tarn_Cluster_Send_Share_List_Cb" || command.fname == "Tarn_Cluster_Send_Slave_Info_Cb");
}

constexpr size_t kReadAtOnce = 65536;

bool is_network_info(const Message &request, const Command &command) {
  return request.kind == Wire_Kind::slave_command && command.op_code == kOpUpdateNetworkInfo;
}

// The request as it goes to the other member.
Message forwarded(const Message &request, Deadline deadline) {
  Message message = request;
  message.kind = Wire_Kind::command;
  message.value = remaining_ms(deadline);
  return message;
}

// The other side ends the command at its time-out and says so; wait a little longer for that.
Deadline with_grace(Deadline deadline) {
  return deadline + std::chrono::milliseconds(kBusGraceMs);
}

}  // namespace

int Command_Router::find_route(const Message &request, Route *route) const {
  route->deadline = deadline_after(request.value);
  const int result = parse_command(request.text, &route->command);
  return result == 0 ? find_receiver(request.kind, route->command, &route->receiver, &route->is_here) : result;
}

Message Command_Router::handle_program(const Message &request, int caller_fd) {
  if (request.kind == Wire_Kind::master_control) return membership_->control(request);
  Route route;
  int result = find_route(request, &route);
  if (result != 0) return reply_of(result);
  if (is_transfer(route.command)) return move_file(route, request, caller_fd);
  if (is_network_info(request, route.command)) return membership_->update_network_info(route.deadline);
  if (route.is_here) return carry_out(route.command, request.more, route.deadline);
  Message answer;
  result = bus_->request(route.receiver, forwarded(request, route.deadline), with_grace(route.deadline), &answer);
  return result == 0 ? answer : reply_of(result);
}

bool Command_Router::begin_program(const Message &request, const Answer_Receiver &receiver) {
  if (request.kind == Wire_Kind::master_control || bus_->open_questions() >= kQuestionsAtOnce) return false;
  Route route;
  int result = find_route(request, &route);
  if (result == 0 && (route.is_here || is_transfer(route.command) || is_network_info(request, route.command)))
    return false;
  if (result == 0) {
    result =
        bus_->ask(route.receiver, forwarded(request, route.deadline), with_grace(route.deadline),
                  [receiver](int code, Message &&answer) { receiver(code == 0 ? std::move(answer) : reply_of(code)); });
  }
  if (result != 0) receiver(reply_of(result));
  return true;
}

// Where a member is master and slave at once, a command from one to the other stays on this appliance.
int Command_Router::find_receiver(Wire_Kind function, const Command &command, std::string *receiver,
                                  bool *is_here) const {
  if (function == Wire_Kind::master_command) {
    if (!identity_.is_master) return -EPERM;
    if (!command.slave_id || !is_slave_id(*command.slave_id)) return -EINVAL;
    *receiver = *command.slave_id;
    *is_here = identity_.is_slave && *receiver == identity_.slave_id;
    return 0;
  }
  if (function != Wire_Kind::slave_command) return -EINVAL;
  if (!identity_.is_slave) return -EPERM;
  if (command.master_id && *command.master_id != kMasterId) return -EHOSTUNREACH;
  // A slave names itself when it speaks as the slave on the master's appliance; it cannot speak for another one.
  if (command.slave_id && *command.slave_id != identity_.slave_id && *command.slave_id != kMasterId) return -EPERM;
  *receiver = kMasterId;
  *is_here = identity_.is_master;
  return 0;
}

Message Command_Router::move_file(const Route &route, const Message &request, int caller_fd) {
  File_Argument files;
  int result = parse_file_argument(request.more, &files);
  if (result != 0) return reply_of(result);
  const Transfer_Limits limits = {route.deadline, caller_fd};
  if (route.is_here) {
    result = files_->copy_here(files, limits);
  } else if (route.command.op_code == kOpSendFile) {
    result = files_->send(route.receiver, files, limits);
  } else {
    result = files_->fetch(route.receiver, files, limits);
  }
  return result == 0 ? reply_of(0, file_reply(route.command, files.destination_path)) : reply_of(result);
}

int Command_Router::read_member_command(const std::string &sender, const Message &request, Command *command) const {
  if (request.kind != Wire_Kind::command) return -EINVAL;
  const int result = parse_command(request.text, command);
  if (result != 0) return result;
  if (identity_.is_master && tells_of_sender(*command) && !speaks_for(request.more, sender)) return -EPERM;
  return check_addressee(sender, *command);
}

Message Command_Router::handle_member(const std::string &sender, const Message &request) {
  if (request.kind == Wire_Kind::put_file || request.kind == Wire_Kind::get_file)
    return sessions_->open(sender, request);
  if (Membership::is_about_membership(request.kind)) return membership_->handle_member(sender, request);
  Command command;
  const int result = read_member_command(sender, request, &command);
  return result == 0 ? carry_out(command, request.more, deadline_after(request.value)) : reply_of(result);
}

bool Command_Router::begin_member(const std::string &sender, const Message &request, Handler_Runner::Running *running) {
  Command command;
  if (request.more.size() > kReadAtOnce) return false;
  return read_member_command(sender, request, &command) == 0 && command.op_code == kOpCallHandler &&
         handlers_->begin(command.fname, request.more, running);
}

// The sender is certain; what the command says must agree with it.
int Command_Router::check_addressee(const std::string &sender, const Command &command) const {
  if (!identity_.is_master) return command.slave_id == identity_.slave_id ? 0 : -EINVAL;
  if (command.master_id && *command.master_id != kMasterId) return -EINVAL;
  if (command.slave_id && *command.slave_id != sender && *command.slave_id != kMasterId) return -EPERM;
  return 0;
}

Message Command_Router::carry_out(const Command &command, const std::string &argument, Deadline deadline) {
  if (command.op_code != kOpCallHandler) return reply_of(-ENOSYS);
  Message answer;
  answer.value = handlers_->run(command.fname, argument, deadline, &answer.text);
  return answer;
}

}  // namespace tarn::platform
