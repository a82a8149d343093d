#include "platform/clusterd/command.h"

#include <json-c/json.h>

#include <cerrno>
#include <memory>

namespace tarn::platform {

namespace {

struct Json_Release {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Json_Release>;

Json parse_object(const std::string &text) {
  Json object(json_tokener_parse(text.c_str()));
  return json_object_is_type(object.get(), json_type_object) ? std::move(object) : nullptr;
}

// A text that holds a NUL would be another one for whoever takes it as a C string.
std::optional<std::string> text_member(const Json &object, const char *key) {
  json_object *member = nullptr;
  if (!json_object_object_get_ex(object.get(), key, &member) || !json_object_is_type(member, json_type_string))
    return {};
  std::string text(json_object_get_string(member), static_cast<size_t>(json_object_get_string_len(member)));
  if (text.find('\0') != std::string::npos) return {};
  return text;
}

std::optional<int> number_member(const Json &object, const char *key) {
  json_object *member = nullptr;
  if (!json_object_object_get_ex(object.get(), key, &member) || !json_object_is_type(member, json_type_int)) return {};
  return json_object_get_int(member);
}

bool is_absolute(const std::optional<std::string> &path) {
  return path && path->starts_with('/');
}

}  // namespace

int parse_command(const std::string &text, Command *command) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<int> op_code = number_member(object, "op_code");
  command->slave_id = text_member(object, "slave_id");
  command->master_id = text_member(object, "master_id");
  if (!op_code || command->slave_id.has_value() == command->master_id.has_value()) return -EINVAL;

  command->op_code = *op_code;
  if (command->op_code != kOpCallHandler) return 0;
  const std::optional<std::string> fname = text_member(object, "fname");
  if (!fname) return -EINVAL;
  command->fname = *fname;
  return 0;
}

int parse_control_command(const std::string &text, int *op_code) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<int> number = number_member(object, "op_code");
  if (!number) return -EINVAL;
  *op_code = *number;
  return 0;
}

int parse_file_argument(const std::string &text, File_Argument *argument) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  const std::optional<std::string> source = text_member(object, "src_path");
  const std::optional<std::string> destination = text_member(object, "dst_path");
  if (!is_absolute(source) || !is_absolute(destination)) return -EINVAL;

  argument->source_path = *source;
  argument->destination_path = *destination;
  argument->progress = text_member(object, "progress");
  return argument->progress && !is_absolute(argument->progress) ? -EINVAL : 0;
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
