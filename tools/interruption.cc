#include "interruption.h"

#include <array>
#include <atomic>
#include <csignal>

namespace tool {
namespace {

constexpr std::array signals = {SIGINT, SIGTERM, SIGHUP};

unsigned int wish = 0;
std::array<struct sigaction, signals.size()> before;

std::atomic_ref<unsigned int> shared_wish() {
  return std::atomic_ref<unsigned int>(wish);
}
static_assert(std::atomic_ref<unsigned int>::is_always_lock_free);  // a signal handler may use it

}  // namespace

// What the caller has the tool ignore stays ignored.
Interruption::Interruption() {
  shared_wish() = 0;
  struct sigaction action = {};
  action.sa_handler = [](int) { shared_wish() = 1; };
  action.sa_flags = SA_RESTART;
  for (size_t i = 0; i < signals.size(); ++i) {
    sigaction(signals[i], nullptr, &before[i]);
    if (before[i].sa_handler != SIG_IGN) sigaction(signals[i], &action, nullptr);
  }
}

Interruption::~Interruption() {
  for (size_t i = 0; i < signals.size(); ++i) sigaction(signals[i], &before[i], nullptr);
}

bool Interruption::has_come() {
  return shared_wish() != 0;
}

unsigned int *Interruption::flag() {
  return &wish;
}

}  // namespace tool
