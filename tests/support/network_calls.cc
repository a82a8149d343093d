#include "tests/support/network_calls.h"

#include <dlfcn.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>

namespace {

using tarn::test::Network_Calls;

Network_Calls *active = nullptr;

template <typename Function>
Function *next(const char *name, Function *) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *const argument = va_arg(arguments, void *);
  va_end(arguments);
  if (active != nullptr && active->ioctl) return active->ioctl(fd, request, argument);
  return tarn::test::real_ioctl(fd, request, argument);
}

int getifaddrs(ifaddrs **list) noexcept {
  if (active == nullptr) return tarn::test::real_getifaddrs(list);
  const bool real = !active->getifaddrs;
  const int result = real ? tarn::test::real_getifaddrs(list) : active->getifaddrs(list);
  if (result == 0) active->hand_out(*list, real);
  return result;
}

void freeifaddrs(ifaddrs *list) noexcept {
  if (active == nullptr || active->take_back(list)) next("freeifaddrs", freeifaddrs)(list);
}

int getaddrinfo(const char *host, const char *service, const addrinfo *hints, addrinfo **list) {
  const auto ask = next("getaddrinfo", getaddrinfo);
  if (active == nullptr) return ask(host, service, hints, list);
  const bool real = !active->getaddrinfo;
  const int result = real ? ask(host, service, hints, list) : active->getaddrinfo(host, service, hints, list);
  if (result == 0) active->hand_out(*list, real);
  return result;
}

void freeaddrinfo(addrinfo *list) noexcept {
  if (active == nullptr || active->take_back(list)) next("freeaddrinfo", freeaddrinfo)(list);
}

}  // extern "C"

namespace tarn::test {

Network_Calls::Network_Calls() {
  handed_out_.reserve(16);  // no memory is taken between the calls of the code under test
  active = this;
}

Network_Calls::~Network_Calls() {
  active = nullptr;
}

void Network_Calls::hand_out(const void *list, bool real) {
  if (list != nullptr) handed_out_.push_back({list, real});
}

bool Network_Calls::take_back(const void *list) {
  if (list == nullptr) return false;
  const auto found = std::ranges::find(handed_out_, list, &List::head);
  if (found == handed_out_.end()) {
    stray_ = true;
    return false;
  }
  const bool real = found->real;
  handed_out_.erase(found);
  return real;
}

int real_ioctl(int fd, unsigned long request, void *argument) {
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

int real_getifaddrs(ifaddrs **list) {
  return next("getifaddrs", getifaddrs)(list);
}

}  // namespace tarn::test
