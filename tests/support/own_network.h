// A network of the test's own.
#pragma once

#include <string>
#include <vector>

namespace tarn::test {

// Moves the process into a fresh network namespace, for good: there is nothing in it but "lo", which is down.
void enter_fresh_network();

// Runs commands of ip(8), as "link set lo up"; throws when one fails.
void ip(const std::vector<std::string> &commands);

// A pair of connected interfaces without addresses, both up. No address comes to them by itself.
void make_pair(const std::string &name, const std::string &peer);

}  // namespace tarn::test
