#include "tests/cluster/ops/json_text.h"

#include <fcntl.h>
#include <json-c/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace tarn::test {
namespace {

struct Put {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Owned_Json = std::unique_ptr<json_object, Put>;

std::string plain_text(json_object *value) {
  return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

Parsed parse_with_failure(const char *text, int nth) {
  json_object *object = nullptr;
  {
    Allocation_Failure failure(nth);
    object = json_tokener_parse(text);
  }
  if (object == nullptr) return Parsed::none;
  return plain_text(object) == plain_text(json_tokener_parse(text)) ? Parsed::whole : Parsed::broken;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> json_members(const std::string &text) {
  const Owned_Json object(json_tokener_parse(text.c_str()));
  if (!json_object_is_type(object.get(), json_type_object)) throw std::runtime_error("not a JSON object: " + text);
  std::vector<std::pair<std::string, std::string>> members;
  json_object_object_foreach(object.get(), key, value) members.emplace_back(key, plain_text(value));
  return members;
}

std::string json_quoted(const std::string &text) {
  const Owned_Json value(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
  return plain_text(value.get());
}

std::string json_nested(int levels) {
  return std::string(levels, '[') + std::string(levels, ']');
}

Parsed parsed_with_failure(const std::string &text, int nth) {
  const pid_t child = fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);  // nobody wants to see it crash
    _exit(static_cast<int>(parse_with_failure(text.c_str(), nth)));
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) throw std::system_error(errno, std::generic_category(), "waitpid");
  if (!WIFEXITED(status) || WEXITSTATUS(status) > static_cast<int>(Parsed::broken)) return Parsed::crashed;
  return static_cast<Parsed>(WEXITSTATUS(status));
}

}  // namespace tarn::test
