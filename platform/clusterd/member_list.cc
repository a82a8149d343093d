#include "platform/clusterd/member_list.h"

#include <algorithm>
#include <cerrno>
#include <set>

#include "platform/clusterd/digest.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/json_text.h"

namespace tarn::platform {

namespace {

constexpr size_t kLongestAddress = 63;
constexpr size_t kLongestHostName = 14;

bool has_only(std::string_view text, std::string_view others) {
  return std::all_of(text.begin(), text.end(), [others](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           others.find(c) != std::string_view::npos;
  });
}

bool is_good(const Member_Entry &entry) {
  return is_slave_id(entry.id) && is_address(entry.address) && is_host_name(entry.host_name) && entry.number >= 0;
}

}  // namespace

bool is_address(std::string_view text) {
  return !text.empty() && text.size() <= kLongestAddress && text.front() != '-' && has_only(text, ".:_-%");
}

bool is_host_name(std::string_view text) {
  return text.size() <= kLongestHostName && has_only(text, "._-");
}

std::string text_of_list(const Member_List &list) {
  const Json object(json_object_new_object());
  json_object *members = json_object_new_array();
  for (const Member_Entry &entry : list) {
    json_object *member = json_object_new_object();
    add_text(member, "id", entry.id);
    add_text(member, "address", entry.address);
    add_text(member, "host_name", entry.host_name);
    add_number(member, "number", entry.number);
    json_object_array_add(members, member);
  }
  json_object_object_add(object.get(), "members", members);
  return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

int parse_list(const std::string &text, Member_List *list) {
  const Json object = parse_object(text);
  json_object *members = nullptr;
  if (!object || !json_object_object_get_ex(object.get(), "members", &members) ||
      !json_object_is_type(members, json_type_array))
    return -EINVAL;
  const size_t count = json_object_array_length(members);
  if (count == 0 || count > kLongestMemberList) return -EINVAL;
  Member_List read;
  std::set<std::string> ids;
  for (size_t i = 0; i < count; ++i) {
    json_object *member = json_object_array_get_idx(members, i);
    if (!json_object_is_type(member, json_type_object)) return -EINVAL;
    const Member_Entry entry = {text_member(member, "id").value_or(""), text_member(member, "address").value_or(""),
                                text_member(member, "host_name").value_or(""),
                                number_member(member, "number").value_or(-1)};
    if (!is_good(entry) || !ids.insert(entry.id).second) return -EINVAL;
    read.push_back(entry);
  }
  *list = std::move(read);
  return 0;
}

std::string digest_of_list(const Member_List &list) {
  Digest digest;
  for (const Member_Entry &entry : list) digest.add(entry.id + "\n");
  return digest.finish_as_text();
}

}  // namespace tarn::platform
