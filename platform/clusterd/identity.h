// Who this member is in its cluster.
#ifndef TARN_PLATFORM_CLUSTERD_IDENTITY_H
#define TARN_PLATFORM_CLUSTERD_IDENTITY_H

#include <string>
#include <string_view>

namespace tarn::platform {

constexpr char kMasterId[] = "0";

struct Identity {
  bool is_master = false;
  bool is_slave = false;  // with is_master: a slave on the master's own appliance
  std::string slave_id;   // empty on a master that is no slave

  // The name under which the member speaks on the bus, which is that of its certificate.
  std::string bus_name() const { return is_master ? kMasterId : slave_id; }

  // The name of its own record, and of what it holds under its own id.
  std::string own_name() const { return slave_id.empty() ? kMasterId : slave_id; }
};

// A slave's id is 1 to 8 letters and digits: nothing that means something in a subject of the bus or in a path.
bool is_slave_id(std::string_view id);

// Reads the role flag files and the identity file. Answers 0; -ENOENT when the member has no role; the failure of
// reading the id; -EINVAL for an id that is none.
int load_identity(Identity *identity);

}  // namespace tarn::platform

#endif
