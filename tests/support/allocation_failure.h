// Makes one chosen allocation of the calling thread fail: malloc, calloc or realloc, whoever calls it.
#pragma once

namespace tarn::test {

class Allocation_Failure {
 public:
  // The nth allocation (1 is the next one) from now on fails; -1 counts only.
  explicit Allocation_Failure(int nth);
  ~Allocation_Failure();
  Allocation_Failure(const Allocation_Failure &) = delete;
  Allocation_Failure &operator=(const Allocation_Failure &) = delete;
};

// Whether the last Allocation_Failure made an allocation fail.
bool allocation_failed();

// Runs call with the 1st, 2nd, ... allocation failing, until one run sees no failure. After each failed run, check is
// called with what call returned and the number of the allocation. Returns how many allocations a whole run makes.
template <typename Call, typename Check>
int with_each_allocation_failing(Call call, Check check) {
  for (int nth = 1;; ++nth) {
    const auto result = [&] {
      Allocation_Failure failure(nth);
      return call();
    }();
    if (!allocation_failed()) return nth - 1;
    check(result, nth);
  }
}

}  // namespace tarn::test
