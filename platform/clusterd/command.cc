#include "platform/clusterd/command.h"

#include <cerrno>

#include "platform/clusterd/json_text.h"

namespace tarn::platform {

namespace {

bool is_absolute(const std::optional<std::string> &path) {
  return path && path->starts_with('/');
}

}  // namespace

int parse_command(const std::string &text, Command *command) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<int> op_code = number_member(object.get(), "op_code");
  command->slave_id = text_member(object.get(), "slave_id");
  command->master_id = text_member(object.get(), "master_id");
  if (!op_code || command->slave_id.has_value() == command->master_id.has_value()) return -EINVAL;

  command->op_code = *op_code;
  if (command->op_code != kOpCallHandler) return 0;
  const std::optional<std::string> fname = text_member(object.get(), "fname");
  if (!fname) return -EINVAL;
  command->fname = *fname;
  return 0;
}

int parse_control_command(const std::string &text, int *op_code) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<int> number = number_member(object.get(), "op_code");
  if (!number) return -EINVAL;
  *op_code = *number;
  return 0;
}

int parse_file_argument(const std::string &text, File_Argument *argument) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<std::string> source = text_member(object.get(), "src_path");
  const std::optional<std::string> destination = text_member(object.get(), "dst_path");
  if (!is_absolute(source) || !is_absolute(destination)) return -EINVAL;

  argument->source_path = *source;
  argument->destination_path = *destination;
  argument->progress = text_member(object.get(), "progress");
  return argument->progress && !is_absolute(argument->progress) ? -EINVAL : 0;
}

// One that says nothing is the handler's to judge. A number, say, would be taken as the text of it there.
bool speaks_for(const std::string &argument, const std::string &slave_id) {
  const Json object = parse_object(argument);
  json_object *member = nullptr;
  if (!object || !json_object_object_get_ex(object.get(), "slave_id", &member)) return true;
  return text_member(object.get(), "slave_id") == slave_id;
}

std::string file_reply(const Command &command, const std::string &result_path) {
  const Json reply(json_object_new_object());
  json_object_object_add(reply.get(), "return", json_object_new_int(0));
  json_object_object_add(reply.get(), "cluster_cmd_status", json_object_new_string("0"));
  json_object *member = json_object_new_object();
  const bool is_slave = command.slave_id.has_value();
  json_object_object_add(member, is_slave ? "slave_id" : "master_id",
                         json_object_new_string((is_slave ? command.slave_id : command.master_id)->c_str()));
  json_object_object_add(member, "result_path", json_object_new_string(result_path.c_str()));
  json_object *members = json_object_new_array();
  json_object_array_add(members, member);
  json_object_object_add(reply.get(), "members", members);
  return json_object_to_json_string(reply.get());
}

}  // namespace tarn::platform
