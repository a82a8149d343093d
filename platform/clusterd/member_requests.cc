#include "platform/clusterd/member_requests.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tarn::platform {

void Member_Requests::take(const std::string &sender, const Nats_Message &bytes) {
  const auto request = std::make_shared<Message>();
  if (!Bus::decode_message(bytes, request.get())) return answer(bytes, reply_of(-EINVAL));
  if (begin(sender, bytes, *request)) return;
  leave_to_a_thread(bytes, [this, sender, bytes, request] { answer(bytes, router_->handle_member(sender, *request)); });
}

bool Member_Requests::begin(const std::string &sender, const Nats_Message &bytes, const Message &request) {
  const auto command = std::make_shared<Command_At_Work>();
  command->bytes = bytes;
  command->deadline = deadline_after(request.value);
  if (!router_->begin_member(sender, request, &command->running)) return false;
  const int socket = command->running.socket();
  at_work_[socket] = command;
  if (loop_->watch(socket, [this, command] { take_answer(command); }) == 0) return true;
  forget(command);
  leave_to_a_thread(bytes, [this, command] { finish(command); });
  return true;
}

void Member_Requests::take_answer(const Shared_Command &command) {
  const Arrival arrival = arrival_at(command->running.socket());
  if (arrival == Arrival::nothing) return;
  forget(command);
  if (arrival == Arrival::whole) {
    finish(command);
  } else {
    leave_to_a_thread(command->bytes, [this, command] { finish(command); });
  }
}

void Member_Requests::forget(const Shared_Command &command) {
  loop_->forget(command->running.socket());
  at_work_.erase(command->running.socket());
}

void Member_Requests::finish(const Shared_Command &command) {
  Message message;
  message.value = handlers_->finish(&command->running, command->deadline, &message.text);
  answer(command->bytes, message);
}

Deadline Member_Requests::next_deadline() const {
  Deadline next = Deadline::max();
  for (const auto &[socket, command] : at_work_) next = std::min(next, command->deadline);
  return next;
}

void Member_Requests::end_late_commands() {
  const Deadline now = Clock::now();
  for (auto entry = at_work_.begin(); entry != at_work_.end();) {
    const Shared_Command command = (entry++)->second;
    if (command->deadline > now) continue;
    forget(command);
    finish(command);
  }
}

void Member_Requests::leave_to_a_thread(const Nats_Message &bytes, Worker_Pool::Task task) {
  if (!threads_.submit(std::move(task))) bus_->answer(bytes, reply_of(-EBUSY));
}

void Member_Requests::answer(const Nats_Message &bytes, const Message &message) {
  bus_->answer(bytes, fits(message) ? message : reply_of(-EMSGSIZE));
}

void Member_Requests::stop() {
  for (const auto &[socket, command] : at_work_) loop_->forget(socket);
  at_work_.clear();
  threads_.stop();
}

}  // namespace tarn::platform
