// A lock that another, living process holds.
#pragma once

#include <sys/types.h>

#include <string>

namespace tarn::test {

// Holds the owned lock of a base name in the name of a child process, until the end of this object's life.
class Held_Lock {
 public:
  explicit Held_Lock(const std::string &base_name);
  ~Held_Lock();
  Held_Lock(const Held_Lock &) = delete;
  Held_Lock &operator=(const Held_Lock &) = delete;
  bool is_untouched() const;  // the lock file still holds the owner's record

 private:
  pid_t owner_;
  std::string path_;
  std::string record_;
};

}  // namespace tarn::test
