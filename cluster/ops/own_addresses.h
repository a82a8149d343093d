// The addresses of this appliance's interfaces.
#pragma once

#include <string_view>

#include "include/tarncluster_util.h"

namespace tarn {

class Own_Addresses {
 public:
  Own_Addresses() : status_(Scan_Network_Interface(&interfaces_, &count_)) {}
  ~Own_Addresses() { Free_Network_Interface(interfaces_); }
  Own_Addresses(const Own_Addresses &) = delete;
  Own_Addresses &operator=(const Own_Addresses &) = delete;

  int status() const { return status_; }
  bool known() const { return status_ == 0 && interfaces_ != nullptr; }

  // Exactly as the system writes an address.
  bool holds(std::string_view address) const;

 private:
  Net_Interface *interfaces_ = nullptr;
  int count_ = 0;
  int status_;
};

}  // namespace tarn
