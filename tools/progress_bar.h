// A bar on the terminal for work that takes its time.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>

namespace tool {

inline bool has_terminal() {
  return isatty(STDERR_FILENO) == 1;
}

// Draws over the line that it drew before; nothing where standard error is no terminal.
inline void draw_bar(int percent) {
  constexpr int width = 40;
  if (!has_terminal()) return;
  const int filled = std::clamp(percent, 0, 100) * width / 100;
  std::cerr << "\r[" << std::string(filled, '#') << std::string(width - filled, ' ') << "] " << percent << "%"
            << std::flush;
}

inline void end_bar() {
  if (has_terminal()) std::cerr << "\n";
}

}  // namespace tool
