#include "cluster/ops/wire_checks.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "conf/nodes.h"
#include "foundation/report.h"

namespace tarn {

bool is_member_id(const char *text, size_t longest) {
  const auto may_stand_in_id = [](char c) { return c > ' ' && c < 0x7f && c != '/' && c != '[' && c != ']'; };
  const std::string_view id = text;
  return !id.empty() && id.size() <= longest && std::all_of(id.begin(), id.end(), may_stand_in_id) && id != "." &&
         id != "..";
}

const char *find_member_id(const json_object *object, const char *key) {
  const char *text = find_text(object, key);
  return text != nullptr && is_member_id(text) ? text : nullptr;
}

const char *find_line(const json_object *object, const char *key) {
  const char *text = find_text(object, key);
  return text != nullptr && !has_newline(text) ? text : nullptr;
}

bool is_address_text(const char *text, size_t size) {
  const std::string_view address = text;
  return address.size() < size && std::none_of(address.begin(), address.end(),
                                               [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; });
}

const char *find_subject_id(const char *function, const json_object *object) {
  const char *id = find_member_id(object, "slave_id");
  if (id == nullptr) TARN_ERROR_AS(function, "Can't get slave id! (%d)", -EINVAL);
  return id;
}

}  // namespace tarn
