#include "platform/clusterd/share_lists.h"

#include <cerrno>
#include <memory>
#include <sstream>

#include "platform/clusterd/digest.h"
#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/json_text.h"
#include "platform/clusterd/member_paths.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

constexpr size_t kLongestList = kLargestBody;

struct Sections_Release {
  void operator()(Sect_Node *sections) const { Free_Sect_Node(sections); }
};
using Sections = std::unique_ptr<Sect_Node, Sections_Release>;

std::string path_of(const std::string &id) {
  return std::string(kShareListFolder) + "/" + id;
}

std::string digest_of_file(const std::string &path) {
  std::string text;
  if (read_text(path, kLongestList, &text) != 0 || text.empty()) return {};
  Digest digest;
  digest.add(text);
  return digest.finish_as_text();
}

// Null when the share lacks a key.
Json object_of(const Sect_Node &share) {
  Json object(json_object_new_object());
  add_text(object.get(), "share_name", share.name);
  for (const char *key : {"invalid users", "read list", "write list", "path"}) {
    const char *value = nullptr;
    if (Get_Pair_String_Buffer(share.pairs, key, &value) != 0) return nullptr;
    add_text(object.get(), key, value);
  }
  return object;
}

// Null when there is no share, or one that lacks a key.
Json array_of(const Sect_Node *shares) {
  Json array(shares != nullptr ? json_object_new_array() : nullptr);
  for (; shares != nullptr; shares = shares->next) {
    Json share = object_of(*shares);
    if (!share) return nullptr;
    json_object_array_add(array.get(), share.release());
  }
  return array;
}

std::string plain_text_of(const Json &object) {
  return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace

Share_List_Digests Share_Lists::look(const Member_List &members) {
  std::map<std::string, Known> known;
  Share_List_Digests digests;
  for (const Member_Entry &member : members) {
    const std::string path = path_of(member.id);
    Known entry = {state_of_file(path), {}};
    const auto before = known_.find(member.id);
    entry.digest =
        before != known_.end() && before->second.state == entry.state ? before->second.digest : digest_of_file(path);
    if (!entry.digest.empty()) digests[member.id] = entry.digest;
    known[member.id] = std::move(entry);
  }
  known_ = std::move(known);
  return digests;
}

std::string text_of_digests(const Share_List_Digests &digests) {
  std::string text;
  for (const auto &[id, digest] : digests) text.append(id).append(" ").append(digest).append("\n");
  return text;
}

Share_List_Digests parse_digests(const std::string &text) {
  std::istringstream words(text);
  Share_List_Digests digests;
  for (std::string id, digest; words >> id >> digest && digests.size() < kLongestMemberList;) digests[id] = digest;
  return digests;
}

int make_list_command(const std::string &id, const std::string &slave, Message *command) {
  Sect_Node *raw = nullptr;
  const int count = Read_Conf_File(path_of(id).c_str(), &raw);
  const Sections shares(raw);
  if (count < 0) return count;
  Json array = array_of(shares.get());
  if (!array) return -ENODATA;

  const Json argument(json_object_new_object());
  add_text(argument.get(), "slave_id", id);
  json_object_object_add(argument.get(), "share_list", array.release());
  const Json object(json_object_new_object());
  add_number(object.get(), "op_code", 1);
  add_text(object.get(), "fname", "Tarn_Cluster_Send_Share_List_Cb");
  add_text(object.get(), "slave_id", slave);
  command->kind = Wire_Kind::command;
  command->text = plain_text_of(object);
  command->more = plain_text_of(argument);
  return 0;
}

}  // namespace tarn::platform
