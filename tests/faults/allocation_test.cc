// Every exported function with each of its allocations failing in turn.
#include <gmock/gmock.h>

#include <regex>
#include <set>
#include <utility>

#include "tests/cluster/ops/json_text.h"
#include "tests/faults/scenario.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;

std::set<std::string> functions_of_the_header() {
  const std::string header = read_file(TARN_PUBLIC_HEADER);
  const std::regex declaration(R"(\n(?:extern )?TARN_API [^;(]*?(\w+)\()");
  std::set<std::string> names;
  for (std::sregex_iterator match(header.begin(), header.end(), declaration), end; match != end; ++match) {
    names.insert((*match)[1]);
  }
  return names;
}

TEST(Fault_Table, Has_every_exported_function_and_no_other) {
  const std::set<std::string> exported = functions_of_the_header();
  ASSERT_GE(exported.size(), 80u);
  std::set<std::string> proven;
  for (const Scenario &scenario : scenarios()) proven.insert(scenario.function);
  for (const Pure_Function &pure : pure_functions()) {
    EXPECT_FALSE(proven.contains(pure.function)) << pure.function << " stands in both lists";
    proven.insert(pure.function);
  }
  for (const std::string &name : exported) EXPECT_TRUE(proven.contains(name)) << name << " has no entry";
  for (const std::string &name : proven) EXPECT_TRUE(exported.contains(name)) << name << " is not exported";
}

TEST(Fault_Table, Functions_listed_as_pure_allocate_nothing_and_make_no_system_call) {
  for (const Pure_Function &pure : pure_functions()) {
    pure.call();  // the C library looks at the time zone once
    {
      const Allocation_Failure failure(1);
      pure.call();
    }
    EXPECT_FALSE(allocation_failed()) << pure.function;
    EXPECT_TRUE(run_watched(pure.call).calls.empty()) << pure.function;
  }
}

class Each_Allocation : public testing::TestWithParam<Scenario> {};

INSTANTIATE_TEST_SUITE_P(, Each_Allocation, testing::ValuesIn(scenarios()),
                         [](const auto &test) { return title(test.param); });

int call_with_failure(Stage *stage, const std::function<int(World &)> &call, int nth) {
  const Allocation_Failure failure(nth);
  return call(stage->world());
}

int allocations_of(Stage *stage, const std::function<int(World &)> &call) {
  const auto has = [&](int nth) {
    stage->set();
    call_with_failure(stage, call, nth);
    return allocation_failed();
  };
  int made = 0, not_made = 1;
  while (has(not_made)) made = std::exchange(not_made, 2 * not_made);
  while (not_made - made > 1) {
    const int middle = (made + not_made) / 2;
    (has(middle) ? made : not_made) = middle;
  }
  return made;
}

TEST_P(Each_Allocation, That_fails_is_told_and_leaves_nothing_behind) {
  const Scenario &scenario = GetParam();
  const Log_Capture log;
  Stage stage(scenario);
  stage.expect_success(scenario.call(stage.world()));
  const int sparse = scenario.first_part ? allocations_of(&stage, scenario.first_part) : 0;
  for (int nth = 1;; nth += nth < sparse ? 29 : 1) {
    SCOPED_TRACE("allocation " + std::to_string(nth));
    ASSERT_LT(nth, 30'000);
    const Parsed parsed = scenario.parses.empty() ? Parsed::whole : parsed_with_failure(scenario.parses, nth);
    // The JSON library itself crashes at some, and loses pieces at others without telling.
    if (parsed == Parsed::crashed || parsed == Parsed::broken) continue;
    stage.set();
    const int status = call_with_failure(&stage, scenario.call, nth);
    if (!allocation_failed()) {
      stage.expect_success(status);
      break;
    }
    stage.expect_old_or_new(status, {});
    if (HasFailure()) break;
  }
  expect_no_leak();
}

}  // namespace
