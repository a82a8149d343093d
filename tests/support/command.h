// Real programs that the test runs to their end.
#pragma once

#include <string>

namespace tarn::test {

struct Command_Result {
  int status = -1;  // the exit status; 124: it did not end within 60 seconds
  std::string output;

  bool operator==(const Command_Result &) const = default;
};

// Runs a shell command to its end; what it says on standard error goes to the test's own.
Command_Result run_command(const std::string &command);

}  // namespace tarn::test
