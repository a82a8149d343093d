// Catches what the code under test prints.
#pragma once

#include <functional>
#include <string>

namespace tarn::test {

// What the body writes to standard output.
std::string output_of(const std::function<void()> &body);

}  // namespace tarn::test
