// Building a command and handing it to the platform; shared by every sender and handler.
#pragma once

#include "cluster/ops/json.h"

namespace tarn {

enum class Op_Code {
  call_handler = 1,
  add_slave = 2,
  remove_slave = 3,
  update_network_info = 4,
  send_file = 5,
  receive_file = 6,
};

// Who sends to whom; the first three are what the exported functions call the mode.
enum class Direction {
  master_to_slave = 0,
  slave_to_master = 1,
  slave_on_master = 2,  // the slave that runs on the master's own appliance
  master_control = 3,   // to the master's own service, about the membership
};

inline bool is_direction(int mode) {
  return mode >= 0 && mode <= 2;
}

// The member of a command object that names its peer.
const char *identity_key(Direction direction);

// A command object: what every command begins with.
Json_Builder command_object(Op_Code op_code);

inline constexpr int no_timeout = -1;  // the platform's own

// "Can't create json object!" under the function's name; returns -ENOMEM.
int report_no_json(const char *function);

// Sends a command and its argument, and reports failures under the function's name. The reply is the caller's; it is
// null when none came. Returns 0, -ENOMEM, or the platform's own code.
int send_command(const char *function, Direction direction, const Json_Builder &command, const Json_Builder &argument,
                 int timeout_ms, char **reply);

// The same with the argument's text.
int send_texts(const char *function, Direction direction, const char *command, const char *argument, int timeout_ms,
               char **reply);

// What a handler returns: a heap copy of its reply's text, or null with a report.
char *handler_reply(const char *function, const Json_Builder &reply);

// What every handler does: parses the argument, has step(object) done, and answers its code as "return". Null for an
// argument that is no JSON.
template <typename Step>
char *run_handler(const char *function, const char *argument, const Step &step) {
  const Json object = parse_json(argument);
  Json_Builder reply;
  if (object == nullptr || !reply.complete()) {
    report_no_json(function);
    return nullptr;
  }
  reply.number("return", step(object.get()));
  return handler_reply(function, reply);
}

inline constexpr const char *slave_identity_file = "/mnt/tarncluster/config/tarn_cluster_s.conf";
inline constexpr int slave_id_size = 9;

// The id of the slave that this appliance is. Returns 0 or the failure, reported under the function's name.
int read_own_slave_id(const char *function, char (&id)[slave_id_size]);

}  // namespace tarn
