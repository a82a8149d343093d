// Decides what becomes of a command: carried to another member, carried out here, or refused.
#ifndef TARN_PLATFORM_CLUSTERD_COMMAND_ROUTER_H
#define TARN_PLATFORM_CLUSTERD_COMMAND_ROUTER_H

#include <string>

#include "platform/clusterd/bus.h"
#include "platform/clusterd/command.h"
#include "platform/clusterd/file_transfer.h"
#include "platform/clusterd/handler_runner.h"
#include "platform/clusterd/identity.h"

namespace tarn::platform {

class Command_Router {
 public:
  Command_Router(const Identity &identity, Bus *bus, Handler_Runner *handlers, File_Transfer *files,
                 Transfer_Sessions *sessions)
      : identity_(identity), bus_(bus), handlers_(handlers), files_(files), sessions_(sessions) {}

  // A request of a program of this member, which waits at caller_fd.
  Message handle_program(const Message &request, int caller_fd);

  // A request of another member, which the bus vouches for.
  Message handle_member(const std::string &sender, const Message &request);

 private:
  Message control(const Message &request);
  int find_receiver(Wire_Kind function, const Command &command, std::string *receiver, bool *is_here) const;
  Message move_file(const Command &command, const Message &request, const std::string &receiver, bool is_here,
                    const Transfer_Limits &limits);
  int check_addressee(const std::string &sender, const Command &command) const;
  Message carry_out(const Command &command, const std::string &argument, Deadline deadline);

  const Identity &identity_;
  Bus *const bus_;
  Handler_Runner *const handlers_;
  File_Transfer *const files_;
  Transfer_Sessions *const sessions_;
};

}  // namespace tarn::platform

#endif
