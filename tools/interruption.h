// Ctrl-C, or another wish of the user's that the tool end: work stops at the next place where nothing is left
// half-done.
#pragma once

namespace tool {

// While one lives, such a signal sets its flag and does not end the tool. One at a time.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption &) = delete;
  Interruption &operator=(const Interruption &) = delete;

  static bool has_come();
  static unsigned int *flag();  // for the library's functions, to which it is the abort flag
};

}  // namespace tool
