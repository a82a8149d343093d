#include "tests/support/virtual_clock.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <utility>

namespace {

std::atomic<bool> is_virtual = false;
std::atomic<int64_t> virtual_microseconds = 0;
std::atomic<int64_t> reads = 0;
std::function<void()> after_read;

int64_t real_microseconds() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

}  // namespace

// Stands in for the C library's own: the library under test is linked into the test program.
extern "C" int gettimeofday(timeval *__restrict now, void *__restrict) noexcept {
  const int64_t microseconds = is_virtual ? virtual_microseconds.load() : real_microseconds();
  now->tv_sec = microseconds / 1'000'000;
  now->tv_usec = microseconds % 1'000'000;
  ++reads;
  if (is_virtual && after_read) after_read();
  return 0;
}

namespace tarn::test {

Virtual_Clock::Virtual_Clock(int64_t milliseconds) {
  set(milliseconds);
  is_virtual = true;
}

Virtual_Clock::~Virtual_Clock() {
  is_virtual = false;
  after_read = nullptr;
}

void Virtual_Clock::set_microseconds(int64_t microseconds) {
  virtual_microseconds = microseconds;
}

void Virtual_Clock::advance(int64_t milliseconds) {
  virtual_microseconds += milliseconds * 1000;
}

int64_t Virtual_Clock::now() const {
  return virtual_microseconds / 1000;
}

void Virtual_Clock::on_read(std::function<void()> call) {
  after_read = std::move(call);
}

bool Virtual_Clock::wait_for_reads(int count) const {
  const int64_t wanted = reads + count;
  for (int waited_ms = 0; reads < wanted; ++waited_ms) {
    if (waited_ms > 20'000) return false;
    const timespec pause{0, 1'000'000};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, nullptr);
  }
  return true;
}

}  // namespace tarn::test
