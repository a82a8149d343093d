#include <tarncluster_util.h>

#include <iostream>

#include "report.h"

namespace tool {
namespace {

using Shares = std::unique_ptr<Tarn_Share_Conf, decltype(&Release_Share_List_Conf)>;

constexpr const char *share_folder = "/mnt/tarncluster/config/share_list/";

std::string text_of(const char *list) {
  return list != nullptr ? list : "";
}

Json to_json(const Tarn_Share_Conf &share) {
  Json object(json_object_new_object());
  const auto put = [&](const char *key, const char *value) {
    if (value != nullptr) json_object_object_add(object.get(), key, json_object_new_string(value));
  };
  put("name", share.Name);
  put("path", (share.fields & TARN_SHARE_PATH) != 0 ? share.path : nullptr);
  put("read list", share.read_list);
  put("write list", share.write_list);
  put("invalid users", share.invalid_users);
  return object;
}

void list_shares(const std::string &member, bool as_json) {
  const std::string file = share_folder + member;
  if (member.empty() || member.find('/') != member.npos) throw Failure("a member's name has 1 to 8 characters");
  Tarn_Share_Conf *first = nullptr;
  check(Tarn_Cluster_Share_Conf_Read(file.c_str(), &first), "cannot read the shares of " + member);
  const Shares shares(first, Release_Share_List_Conf);
  Json list(json_object_new_array());
  std::vector<std::vector<std::string>> rows;
  for (const Tarn_Share_Conf *share = first; share != nullptr; share = share->next) {
    json_object_array_add(list.get(), to_json(*share).release());
    rows.push_back({share->Name, share->path, text_of(share->read_list), text_of(share->write_list),
                    text_of(share->invalid_users)});
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table({"SHARE", "PATH", "READ", "WRITE", "INVALID"}, rows);
  }
}

void publish_shares(bool as_json) {
  char *reply = nullptr;
  const int status = Tarn_Cluster_Send_Share_List(master_id, &reply);
  check_reply(status, reply, "cannot publish the shares", as_json);
}

}  // namespace

void add_share_commands(CLI::App &app, const Settings &settings) {
  CLI::App *share = app.add_subcommand("share", "The shared folders of the cluster's members");
  share->require_subcommand(1);

  CLI::App *publish = share->add_subcommand("publish", "Tell the cluster which shares of this slave take part");
  publish->footer(
      "A share takes part when its section of /etc/config/smb.conf says \"tarn = yes\".\n\n"
      "Example: tarncluster share publish");
  publish->callback([&settings] { publish_shares(settings.json); });

  auto member = std::make_shared<std::string>();
  CLI::App *list = share->add_subcommand("list", "List a member's shares, as this member knows them");
  list->add_option("MEMBER", *member, "The member")->required();
  list->footer("Example: tarncluster share list QN2a1b3c");
  list->callback([member, &settings] { list_shares(*member, settings.json); });
}

}  // namespace tool
