// The flag by which a caller, from any thread, stops a transfer or a walk.
#pragma once

#include <atomic>

namespace tarn {

class Abort_Flag {
 public:
  explicit Abort_Flag(unsigned int *flag) : flag_(flag) {}

  // Looked at anew each time; without a flag nobody aborts.
  bool is_set() const { return load() != 0; }
  int value() const { return static_cast<int>(load()); }

 private:
  unsigned int load() const {
    return flag_ != nullptr ? std::atomic_ref<unsigned int>(*flag_).load(std::memory_order_relaxed) : 0;
  }

  unsigned int *flag_;
};

}  // namespace tarn
