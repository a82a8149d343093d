#include <strings.h>
#include <tarncluster_util.h>

#include <algorithm>

#include "discovery.h"
#include "listing.h"

namespace tool {
namespace {

using Announcement = Tarn_Browse_Serv;
using Announcements = std::unique_ptr<Announcement, decltype(&Free_Browse_Serv)>;
using Appliances = std::vector<Appliance>;

constexpr const char *browser = "/usr/sbin/avahi-browse";

constexpr Column<Announcement> columns[] = {
    {"HOST", "host", [](const Announcement &entry) { return text_cell(entry.hostname); }},
    {"ADDRESS", "address", [](const Announcement &entry) { return text_cell(entry.address); }},
    {"PORT", "port", [](const Announcement &entry) { return number_cell(entry.port); }},
    {"WEB", "webport", [](const Announcement &entry) { return number_cell(entry.webport); }},
    {"SECURE WEB", "sslwebport", [](const Announcement &entry) { return number_cell(entry.sslwebport); }},
    {"ROLE", "master", [](const Announcement &entry) { return choice_cell(entry.master != 0, "master", "-"); }},
};

Announcements browse() {
  need_program(browser);
  Announcement *first = nullptr;
  const int found = Tarn_Cluster_Browse_Slave(&first);
  Announcements announcements(first, Free_Browse_Serv);
  if (found < 0) check(found, "cannot look for appliances");
  return announcements;
}

bool is_same_host(const Appliance &one, const Appliance &other) {
  return strcasecmp(one.host.c_str(), other.host.c_str()) == 0;
}

std::vector<std::string> member_addresses() {
  Tarn_Serv_Conf *first = nullptr;
  const int status = Tarn_Cluster_Serv_Conf_Read(members_file, &first);
  const std::unique_ptr<Tarn_Serv_Conf, decltype(&Release_Serv_List_Conf)> records(first, Release_Serv_List_Conf);
  if (status != -ENOENT) check(status, std::string("cannot read ") + members_file);
  std::vector<std::string> addresses;
  for (const Tarn_Serv_Conf *record = first; record != nullptr; record = record->next) {
    addresses.emplace_back(record->Address);
  }
  return addresses;
}

// Leaves out masters and members, at whichever of their addresses they are announced.
void drop_members(Appliances *announced) {
  const std::vector<std::string> members = member_addresses();
  Appliances known;
  for (const Appliance &entry : *announced) {
    if (entry.is_master || std::ranges::count(members, entry.address) > 0) known.push_back(entry);
  }
  std::erase_if(*announced, [&](const Appliance &entry) {
    return std::ranges::any_of(known, [&](const Appliance &other) { return is_same_host(entry, other); });
  });
}

bool is_ipv6(const Appliance &entry) {
  return entry.address.find(':') != entry.address.npos;
}

// Of the places at which one host is announced: one; by IPv4 when it is announced by both protocols.
Appliance choose_place(Appliances places) {
  if (!std::ranges::all_of(places, is_ipv6)) std::erase_if(places, is_ipv6);
  const Appliance &first = places.front();
  for (const Appliance &other : places) {
    if (other.address == first.address && other.port == first.port) continue;
    throw Failure(first.host + " is announced at several places: " + first.address + " port " +
                  std::to_string(first.port) + ", " + other.address + " port " + std::to_string(other.port) +
                  "; say which: tarncluster member add ADDRESS --port PORT");
  }
  return first;
}

Appliances one_place_each(Appliances announced) {
  Appliances chosen;
  while (!announced.empty()) {
    const auto others = std::ranges::stable_partition(
        announced, [host = announced.front()](const Appliance &entry) { return is_same_host(entry, host); });
    chosen.push_back(choose_place({announced.begin(), others.begin()}));
    announced.erase(announced.begin(), others.begin());
  }
  return chosen;
}

std::string list_of(const Appliances &announced) {
  std::string text;
  for (const Appliance &entry : announced) text += (text.empty() ? "" : ", ") + entry.host + " (" + entry.address + ")";
  return text;
}

}  // namespace

Appliances announced_appliances() {
  Appliances found;
  const Announcements announcements = browse();
  for (const Announcement *entry = announcements.get(); entry != nullptr; entry = entry->next) {
    found.push_back({entry->hostname, entry->address, entry->port, entry->master != 0});
  }
  return found;
}

Appliances pick_appliances(Appliances announced, const std::string &name_or_address, bool takes_all) {
  if (name_or_address.empty()) {
    drop_members(&announced);
    if (announced.empty()) throw Failure("no appliance is announced that is in no cluster; see: tarncluster browse");
  } else {
    std::erase_if(announced, [&](const Appliance &entry) {
      return strcasecmp(entry.host.c_str(), name_or_address.c_str()) != 0 && entry.address != name_or_address;
    });
    if (announced.empty()) throw Failure(name_or_address + " is not announced; see: tarncluster browse");
  }
  Appliances chosen = one_place_each(std::move(announced));
  if (chosen.size() > 1 && !takes_all) {
    throw Failure("several appliances are announced: " + list_of(chosen) + "; name one, or give --all");
  }
  if (chosen.front().is_master) throw Failure(chosen.front().host + " is the master of a cluster");
  return chosen;
}

void add_discovery_commands(CLI::App &app, const Settings &settings) {
  CLI::App *look = app.add_subcommand("browse", "Look for appliances on the local network");
  look->footer("Example: tarncluster browse");
  look->callback([&settings] { print_list(browse().get(), columns, settings.json); });
}

}  // namespace tool
