// A bar on the terminal for work that takes its time.
#pragma once

#include <functional>
#include <thread>

namespace tool {

// Whether anybody sees a bar: standard error is a terminal, and none of the library's lines go there.
bool shows_progress();

// Draws a bar while it lives, from a thread of its own that asks how many percent are done. Nothing where nobody sees
// it.
class Progress_Bar {
 public:
  explicit Progress_Bar(std::function<int()> percent);

 private:
  std::jthread drawer_;
};

}  // namespace tool
