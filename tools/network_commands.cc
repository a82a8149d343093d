#include <tarncluster_util.h>

#include "listing.h"

namespace tool {
namespace {

using Interfaces = std::unique_ptr<Net_Interface, decltype(&Free_Network_Interface)>;

constexpr unsigned up_flag = 0x1;

std::string with_prefix(const char *address, unsigned prefix) {
  return address[0] == '\0' ? "" : std::string(address) + "/" + std::to_string(prefix);
}

bool is_up(const Net_Interface &interface) {
  return (interface.flags & up_flag) != 0;
}

Cell ipv6_cell(const Net_Interface &interface) {
  Cell cell = {"", Json(json_object_new_array())};
  for (const Net_Ipv6_Addr *entry = interface.ipv6; entry != nullptr; entry = entry->next) {
    const std::string text = with_prefix(entry->address, entry->prefix);
    cell.text += (cell.text.empty() ? "" : " ") + text;
    json_object_array_add(cell.json.get(), json_object_new_string(text.c_str()));
  }
  return cell;
}

constexpr Column<Net_Interface> interface_columns[] = {
    {"INTERFACE", "name", [](const Net_Interface &interface) { return text_cell(interface.name); }},
    {"STATE", "up", [](const Net_Interface &interface) { return choice_cell(is_up(interface), "up", "down"); }},
    {"MAC", "mac", [](const Net_Interface &interface) { return text_cell(interface.mac); }},
    {"IPV4", "ipv4",
     [](const Net_Interface &interface) { return text_cell(with_prefix(interface.ipv4, interface.prefix)); }},
    {"IPV6", "ipv6", ipv6_cell},
};

void list_interfaces(bool as_json) {
  Net_Interface *first = nullptr;
  int count = 0;
  check(Scan_Network_Interface(&first, &count), "cannot list the interfaces");
  const Interfaces interfaces(first, Free_Network_Interface);
  print_list(first, interface_columns, as_json);
}

void send_info(bool as_json) {
  char *reply = nullptr;
  const int status = Tarn_Cluster_Send_Slave_Info(master_id, &reply);
  check_reply(status, reply, "cannot send this slave's description", as_json);
}

void update_network(bool as_json) {
  char *reply = nullptr;
  const int status = Tarn_Cluster_Update_Network_Info(master_id, &reply);
  check_reply(status, reply, "cannot tell the master", as_json);
}

struct Binding {
  std::string member, address;
};

// The master's own change is answered by every slave.
void check_results(const char *reply, const std::string &what) {
  const Json object(json_tokener_parse(reply != nullptr ? reply : ""));
  json_object *list = nullptr;
  if (!json_object_object_get_ex(object.get(), "result_list", &list)) return;
  for (size_t i = 0; i < json_object_array_length(list); ++i) {
    json_object *code = nullptr;
    json_object_object_get_ex(json_object_array_get_idx(list, i), "return", &code);
    check(json_object_get_int(code), what + ": a slave answered");
  }
}

void set_binding(const Binding &binding, bool as_json) {
  const std::string what = "cannot bind " + binding.member + " to " + binding.address;
  char *reply = nullptr;
  const int status = Tarn_Cluster_Update_Bind_Addr(binding.member.c_str(), binding.address.c_str(), &reply);
  Text owner(reply);
  check(status, what);
  check_results(reply, what);
  check_reply(0, owner.release(), what, as_json);
}

}  // namespace

void add_network_commands(CLI::App &app, const Settings &settings) {
  CLI::App *info = app.add_subcommand("info", "This slave's description");
  info->require_subcommand(1);
  CLI::App *send = info->add_subcommand("send", "Send host name, model, firmware, ports and quota to the master");
  send->footer("Example: tarncluster info send");
  send->callback([&settings] { send_info(settings.json); });

  auto binding = std::make_shared<Binding>();
  CLI::App *bind = app.add_subcommand("bind", "The addresses by which members are reached");
  bind->require_subcommand(1);
  CLI::App *set = bind->add_subcommand("set", "Change a member's address; on the master");
  set->add_option("MEMBER", binding->member, "A slave, or the master's own id 0")->required();
  set->add_option("ADDRESS", binding->address, "An address of one of the member's own interfaces")->required();
  set->footer("Example: tarncluster bind set QN2a1b3c 10.77.0.40");
  set->callback([binding, &settings] { set_binding(*binding, settings.json); });
  CLI::App *update = bind->add_subcommand("report", "Tell the master this slave's present address");
  update->footer("Example: tarncluster bind report");
  update->callback([&settings] { update_network(settings.json); });

  CLI::App *interface = app.add_subcommand("interface", "This appliance's network interfaces");
  interface->require_subcommand(1);
  CLI::App *list = interface->add_subcommand("list", "List the interfaces with their addresses");
  list->footer("Example: tarncluster interface list");
  list->callback([&settings] { list_interfaces(settings.json); });
}

}  // namespace tool
