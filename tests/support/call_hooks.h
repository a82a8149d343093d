// Runs a piece of the test right before a chosen system call of the code under test: what another process might do at
// the worst moment happens there every time.
#pragma once

#include <functional>
#include <memory>

namespace tarn::test {

enum class System_Call {
  kill,
  rename,
  link,
  unlink,
  name_change,  // any of rename, link and unlink
  nanosleep,
  chmod,
  fcntl,
  pipe2,  // not pipe, which a sanitizer calls for itself
  poll,
  write,
  socket,
  setsockopt,
  bind,
  listen,
  connect,
  send,
  recv,
  sendfile,
  splice,
};

// While it lives, the nth call (1 is the next one) runs the hook first. When the hook answers a number above 0, the
// call is not made and fails with that errno. Calls that the hook makes itself are not hooked, nor are those of other
// threads.
class Before_Call {
 public:
  static constexpr int every = -1;         // as nth: all calls
  static constexpr int answers_zero = -1;  // as a hook's answer: the call is not made and returns 0

  Before_Call(System_Call call, int nth, std::function<int()> hook);
  ~Before_Call();
  Before_Call(const Before_Call &) = delete;
  Before_Call &operator=(const Before_Call &) = delete;

  bool happened() const { return *happened_; }  // whether the hook has run

 private:
  std::shared_ptr<bool> happened_ = std::make_shared<bool>(false);
};

}  // namespace tarn::test
