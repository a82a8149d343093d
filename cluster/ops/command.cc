#include "cluster/ops/command.h"

#include <cerrno>

#include "foundation/report.h"

namespace tarn {
namespace {

int hand_to_platform(Direction direction, const char *command, const char *argument, int timeout_ms, char **reply) {
  if (direction == Direction::master_control) return Cluster_Master_Ctrl_Cmd(command, argument, reply);
  const bool from_master = direction == Direction::master_to_slave;
  if (timeout_ms == no_timeout) {
    return from_master ? Cluster_Master_Cmd(command, argument, reply) : Cluster_Slave_Cmd(command, argument, reply);
  }
  return from_master ? Cluster_Master_Cmd_Ex(command, argument, timeout_ms, reply)
                     : Cluster_Slave_Cmd_Ex(command, argument, timeout_ms, reply);
}

}  // namespace

int report_no_json(const char *function) {
  TARN_ERROR_AS(function, "Can't create json object! (%d)", -ENOMEM);
  return -ENOMEM;
}

const char *identity_key(Direction direction) {
  return direction == Direction::slave_to_master ? "master_id" : "slave_id";
}

Json_Builder command_object(Op_Code op_code) {
  Json_Builder command;
  command.number("op_code", static_cast<int>(op_code));
  return command;
}

int send_command(const char *function, Direction direction, const Json_Builder &command, const Json_Builder &argument,
                 int timeout_ms, char **reply) {
  *reply = nullptr;
  const char *command_text = command.serialised();
  const char *argument_text = argument.serialised();
  if (command_text == nullptr || argument_text == nullptr) return report_no_json(function);
  return send_texts(function, direction, command_text, argument_text, timeout_ms, reply);
}

int send_texts(const char *function, Direction direction, const char *command, const char *argument, int timeout_ms,
               char **reply) {
  *reply = nullptr;
  const int result = hand_to_platform(direction, command, argument, timeout_ms, reply);
  if (result != 0) TARN_ERROR_AS(function, "Can't send cluster command! (%d)", result);
  return result;
}

char *handler_reply(const char *function, const Json_Builder &reply) {
  const char *text = reply.serialised();
  if (text == nullptr) {
    report_no_json(function);
    return nullptr;
  }
  char *copy = nullptr;
  if (Clone_String(text, &copy, nullptr) != 0) {
    TARN_ERROR_AS(function, "Can't create memory for return string! (%d)", -ENOMEM);
  }
  return copy;
}

int read_own_slave_id(const char *function, char (&id)[slave_id_size]) {
  int size = slave_id_size;
  const int status = Get_Conf_File_String_Value(slave_identity_file, "global", "MSKey", id, &size);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't read the slave id from config file %s! (%d)", slave_identity_file, status);
  }
  return status;
}

}  // namespace tarn
