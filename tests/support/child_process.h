// Parts of a test that need a process of their own: other rights, other mounts, or code that may hang or crash.
#pragma once

#include <functional>
#include <string>

namespace tarn::test {

// Whether this is a root made by tests/appliance, where nothing can be harmed.
bool on_a_throw_away_root();

// Runs the body in a child. Answers 0 when it came to its end within 60 seconds without a failed expectation.
int in_child(const std::function<void()> &body);

// For use inside in_child.

void become_nobody();  // gives up root's rights for good

// The process has no other rights than the user nobody while this lives.
class As_Nobody {
 public:
  As_Nobody();
  ~As_Nobody();
  As_Nobody(const As_Nobody &) = delete;
  As_Nobody &operator=(const As_Nobody &) = delete;
};

void mount_tmpfs(const std::string &path, const std::string &options);  // seen by this process only
void make_read_only(const std::string &path);                           // what mount_tmpfs mounted

}  // namespace tarn::test
