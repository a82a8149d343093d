#include "tests/faults/families.h"

#include <cerrno>

namespace tarn::test {

const std::vector<Answer> chain_answers = {{Call::read, Place::file, -EINVAL}, {Call::write, Place::lock, -ENOLCK}};

Scenario in_memory(std::string function, std::function<void(World &)> prepare, std::function<int(World &)> call,
                   std::string result) {
  return {.function = function, .prepare = prepare, .call = call, .result = result};
}

Scenario reader(std::string function, std::string text, std::function<int(World &)> call, int success,
                std::string result) {
  return {.function = function, .before = text, .after = text, .call = call, .success = success, .result = result};
}

Scenario locked_writer(std::string function, std::string situation, std::optional<std::string> before,
                       std::optional<std::string> after, std::function<void(World &)> prepare,
                       std::function<int(World &)> call) {
  return {.function = function,
          .situation = situation,
          .before = before,
          .after = after,
          .prepare = prepare,
          .call = call,
          .answers = chain_answers,
          .without_lock = -ENOLCK,
          .on_full_disk = -ENOSPC};
}

Scenario writer(std::string function, std::optional<std::string> before, std::optional<std::string> after,
                std::function<void(World &)> prepare, std::function<int(World &)> call) {
  Scenario made = locked_writer(function, "", before, after, prepare, call);
  made.without_lock.reset();
  return made;
}

Scenario with(Scenario scenario, const std::function<void(Scenario &)> &change) {
  change(scenario);
  return scenario;
}

}  // namespace tarn::test
