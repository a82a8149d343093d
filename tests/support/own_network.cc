#include "tests/support/own_network.h"

#include <sched.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "tests/support/command.h"
#include "tests/support/files.h"

namespace tarn::test {

void enter_fresh_network() {
  if (unshare(CLONE_NEWNET) != 0) throw std::system_error(errno, std::generic_category(), "unshare");
}

void ip(const std::vector<std::string> &commands) {
  const Temporary_Folder folder;
  std::string lines;
  for (const std::string &command : commands) lines += command + "\n";
  write_file(folder / "commands", lines);
  if (run_command("ip -batch " + folder / "commands").status != 0) throw std::runtime_error("ip: " + lines);
}

void make_pair(const std::string &name, const std::string &peer) {
  ip({"link add " + name + " type veth peer name " + peer, "link set " + name + " addrgenmode none",
      "link set " + peer + " addrgenmode none", "link set " + name + " up", "link set " + peer + " up"});
}

}  // namespace tarn::test
