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
};

// While it lives, the nth call (1 is the next one) runs the hook first. When the hook answers other than 0, the call is
// not made and fails with that errno. Calls that the hook makes itself are not hooked.
class Before_Call {
 public:
  Before_Call(System_Call call, int nth, std::function<int()> hook);
  ~Before_Call();
  Before_Call(const Before_Call &) = delete;
  Before_Call &operator=(const Before_Call &) = delete;

  bool happened() const { return *happened_; }  // whether the hook has run

 private:
  std::shared_ptr<bool> happened_ = std::make_shared<bool>(false);
};

}  // namespace tarn::test
