#include "platform/clusterd/command_router.h"

#include <cerrno>

namespace tarn::platform {

Message Command_Router::handle_program(const Message &request, int caller_fd) {
  if (request.kind == Wire_Kind::master_control) return control(request);
  const Deadline deadline = deadline_after(request.value);
  Command command;
  std::string receiver;
  bool is_here = false;
  int result = parse_command(request.text, &command);
  if (result == 0) result = find_receiver(request.kind, command, &receiver, &is_here);
  if (result != 0) return reply_of(result);

  if (command.op_code == kOpSendFile || command.op_code == kOpReceiveFile) {
    return move_file(command, request, receiver, is_here, {deadline, caller_fd});
  }
  if (is_here) return carry_out(command, request.more, deadline);

  Message forwarded = request;
  forwarded.kind = Wire_Kind::command;
  forwarded.value = remaining_ms(deadline);
  Message answer;
  // The other side ends the command at its time-out and says so; wait a little longer for that.
  result = bus_->request(receiver, forwarded, deadline + std::chrono::milliseconds(kBusGraceMs), &answer);
  return result == 0 ? answer : reply_of(result);
}

// Adding and removing slaves is not served yet.
Message Command_Router::control(const Message &request) {
  if (!identity_.is_master) return reply_of(-EPERM);
  int op_code = 0;
  const int result = parse_control_command(request.text, &op_code);
  return reply_of(result == 0 ? -ENOSYS : result);
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

Message Command_Router::move_file(const Command &command, const Message &request, const std::string &receiver,
                                  bool is_here, const Transfer_Limits &limits) {
  File_Argument files;
  int result = parse_file_argument(request.more, &files);
  if (result != 0) return reply_of(result);
  if (is_here) {
    result = files_->copy_here(files, limits);
  } else if (command.op_code == kOpSendFile) {
    result = files_->send(receiver, files, limits);
  } else {
    result = files_->fetch(receiver, files, limits);
  }
  return result == 0 ? reply_of(0, file_reply(command, files.destination_path)) : reply_of(result);
}

Message Command_Router::handle_member(const std::string &sender, const Message &request) {
  if (request.kind == Wire_Kind::put_file || request.kind == Wire_Kind::get_file)
    return sessions_->open(sender, request);
  if (request.kind != Wire_Kind::command) return reply_of(-EINVAL);
  Command command;
  int result = parse_command(request.text, &command);
  if (result == 0) result = check_addressee(sender, command);
  return result == 0 ? carry_out(command, request.more, deadline_after(request.value)) : reply_of(result);
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
