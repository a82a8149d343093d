// Puts the wall clock of the library under test into the test's hands.
#pragma once

#include <cstdint>
#include <functional>

namespace tarn::test {

// While it lives, gettimeofday stands still at a time of the test's choice, in every thread.
class Virtual_Clock {
 public:
  explicit Virtual_Clock(int64_t milliseconds);
  ~Virtual_Clock();
  Virtual_Clock(const Virtual_Clock &) = delete;
  Virtual_Clock &operator=(const Virtual_Clock &) = delete;

  void set(int64_t milliseconds) { set_microseconds(milliseconds * 1000); }
  void set_microseconds(int64_t microseconds);
  void advance(int64_t milliseconds);
  int64_t now() const;  // milliseconds

  // Called right after each reading of the clock. Set it while no other thread reads the clock.
  void on_read(std::function<void()> call);

  // Waits until the clock has been read this often from now on: whoever polls has looked around meanwhile.
  // False after 20 seconds without.
  bool wait_for_reads(int count) const;
};

}  // namespace tarn::test
