#include <tarncluster_util.h>

#include "listing.h"

namespace tool {
namespace {

using Shares = std::unique_ptr<Tarn_Share_Conf, decltype(&Release_Share_List_Conf)>;

constexpr const char *share_folder = "/mnt/tarncluster/config/share_list/";

// What a share lacks is no value for programs.
Cell optional_cell(const char *text) {
  return text != nullptr ? text_cell(text) : Cell{};
}

constexpr Column<Tarn_Share_Conf> columns[] = {
    {"SHARE", "name", [](const Tarn_Share_Conf &share) { return text_cell(share.Name); }},
    {"PATH", "path",
     [](const Tarn_Share_Conf &share) {
       return optional_cell((share.fields & TARN_SHARE_PATH) != 0 ? share.path : nullptr);
     }},
    {"READ", "read list", [](const Tarn_Share_Conf &share) { return optional_cell(share.read_list); }},
    {"WRITE", "write list", [](const Tarn_Share_Conf &share) { return optional_cell(share.write_list); }},
    {"INVALID", "invalid users", [](const Tarn_Share_Conf &share) { return optional_cell(share.invalid_users); }},
};

void list_shares(const std::string &member, bool as_json) {
  const std::string file = share_folder + member;
  if (member.empty() || member.find('/') != member.npos) throw Failure("a member's name has 1 to 8 characters");
  Tarn_Share_Conf *first = nullptr;
  check(Tarn_Cluster_Share_Conf_Read(file.c_str(), &first), "cannot read the shares of " + member);
  const Shares shares(first, Release_Share_List_Conf);
  print_list(first, columns, as_json);
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
