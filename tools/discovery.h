// Appliances that announce themselves on the local network.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct Appliance {
  std::string host, address;
  int port = 0;
  bool is_master = false;
};

// What is announced at present, in the order in which it is found.
std::vector<Appliance> announced_appliances();

// Picks those that are meant: by host name or address; without one, those that are in no cluster as far as this member
// knows. Each comes once. Throws when nothing is left, or when it remains open which is meant.
std::vector<Appliance> pick_appliances(std::vector<Appliance> announced, const std::string &name_or_address,
                                       bool takes_all);

}  // namespace tool
