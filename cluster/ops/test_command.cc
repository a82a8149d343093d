#include <cerrno>

#include "cluster/ops/command.h"
#include "foundation/report.h"

int Tarn_Cluster_Test(int mode, const char *id, const char *text, char **reply) {
  if (!tarn::is_direction(mode) || id == nullptr || text == nullptr || reply == nullptr) return -EINVAL;
  *reply = nullptr;
  const auto direction = static_cast<tarn::Direction>(mode);
  char own_id[tarn::slave_id_size];
  const int status = tarn::read_own_slave_id(__func__, own_id);
  if (status != 0) return status;

  tarn::Json_Builder argument;
  argument.text("slave_id", own_id).text("Test", text);
  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::call_handler);
  command.text("fname", "Tarn_Cluster_Test_Cb").text(tarn::identity_key(direction), id);
  return tarn::send_command(__func__, direction, command, argument, tarn::no_timeout, reply);
}

char *Tarn_Cluster_Test_Cb(const char *argument) {
  const tarn::Json object = tarn::parse_json(argument);
  if (!object) {
    TARN_ERROR("Can't parse argument! (%d)", -EINVAL);
    return nullptr;
  }
  json_object *test = tarn::find_member(object.get(), "Test");
  if (test == nullptr) {
    TARN_ERROR("Can't get test string! (%d)", -EINVAL);
    return nullptr;
  }
  tarn::Json_Builder reply;
  reply.number("return", 0);
  if (json_object_is_type(test, json_type_string)) {
    reply.add("received", json_object_get(test));
  } else {
    reply.text("received", tarn::text_of(test));  // whatever was sent is echoed as a text
  }
  return tarn::handler_reply(__func__, reply);
}
