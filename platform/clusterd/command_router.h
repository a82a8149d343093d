// Decides what becomes of a command: carried to another member, carried out here, or refused.
#ifndef TARN_PLATFORM_CLUSTERD_COMMAND_ROUTER_H
#define TARN_PLATFORM_CLUSTERD_COMMAND_ROUTER_H

#include <functional>
#include <string>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/command.h"
#include "platform/clusterd/file_transfer.h"
#include "platform/clusterd/handler_runner.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/membership.h"

namespace tarn::platform {

class Command_Router {
 public:
  Command_Router(const Identity &identity, Bus *bus, Handler_Runner *handlers, File_Transfer *files,
                 Transfer_Sessions *sessions, Membership *membership)
      : identity_(identity),
        bus_(bus),
        handlers_(handlers),
        files_(files),
        sessions_(sessions),
        membership_(membership) {}

  // A request of a program of this member, which waits at caller_fd.
  Message handle_program(const Message &request, int caller_fd);

  // The same without waiting, on the loop's thread, which calls the receiver with the answer when it is there. False
  // when that is not possible: handle_program() is to be called.
  using Answer_Receiver = std::function<void(Message &&answer)>;
  bool begin_program(const Message &request, const Answer_Receiver &receiver);

  // A request of another member, which the bus vouches for.
  Message handle_member(const std::string &sender, const Message &request);

  // The same without waiting, as far as the handler's process. False when that is not possible: handle_member() is to
  // be called.
  bool begin_member(const std::string &sender, const Message &request, Handler_Runner::Running *running);

 private:
  // Of a program's request: what is to be done where, by when.
  struct Route {
    Command command;
    std::string receiver;
    bool is_here = false;
    Deadline deadline;
  };
  int find_route(const Message &request, Route *route) const;
  int find_receiver(Wire_Kind function, const Command &command, std::string *receiver, bool *is_here) const;
  Message move_file(const Route &route, const Message &request, int caller_fd);
  int read_member_command(const std::string &sender, const Message &request, Command *command) const;
  int check_addressee(const std::string &sender, const Command &command) const;
  Message carry_out(const Command &command, const std::string &argument, Deadline deadline);

  const Identity &identity_;
  Bus *const bus_;
  Handler_Runner *const handlers_;
  File_Transfer *const files_;
  Transfer_Sessions *const sessions_;
  Membership *const membership_;
};

}  // namespace tarn::platform

#endif
