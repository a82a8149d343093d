// What the C library tells of interfaces and addresses, in the test's hands.
#pragma once

#include <ifaddrs.h>
#include <netdb.h>

#include <functional>
#include <vector>

namespace tarn::test {

// While it lives, these functions answer in place of the C library's; what is not set goes to the real one. The lists
// that are handed out, the test's own included, are followed until they are given back.
class Network_Calls {
 public:
  Network_Calls();
  ~Network_Calls();
  Network_Calls(const Network_Calls &) = delete;
  Network_Calls &operator=(const Network_Calls &) = delete;

  std::function<int(int fd, unsigned long request, void *argument)> ioctl;
  std::function<int(ifaddrs **list)> getifaddrs;
  std::function<int(const char *host, const char *service, const addrinfo *hints, addrinfo **list)> getaddrinfo;

  // Whether every list was given back, once, and nothing else was.
  bool all_lists_given_back() const { return handed_out_.empty() && !stray_; }

  void hand_out(const void *list, bool real);
  bool take_back(const void *list);  // whether the real function made it

 private:
  struct List {
    const void *head;
    bool real;
  };

  std::vector<List> handed_out_;
  bool stray_ = false;
};

// The C library's own.
int real_ioctl(int fd, unsigned long request, void *argument);
int real_getifaddrs(ifaddrs **list);

}  // namespace tarn::test
