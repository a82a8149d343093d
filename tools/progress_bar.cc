#include "progress_bar.h"

#include <tarncluster_util.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

// Draws over the line that it drew before.
void draw(int percent) {
  constexpr int width = 40;
  const int filled = std::clamp(percent, 0, 100) * width / 100;
  std::cerr << "\r[" << std::string(filled, '#') << std::string(width - filled, ' ') << "] " << percent << "%"
            << std::flush;
}

void draw_until(const std::stop_token &end, const std::function<int()> &percent) {
  constexpr Clock::duration usual_pause = std::chrono::milliseconds(200);
  std::mutex mutex;
  std::unique_lock lock(mutex);
  std::condition_variable_any ended;
  while (!end.stop_requested()) {
    const Clock::time_point start = Clock::now();
    draw(percent());
    // Where the question takes long itself, most of the time is left to the work.
    ended.wait_for(lock, end, std::max(usual_pause, 10 * (Clock::now() - start)), [] { return false; });
  }
  draw(percent());
  std::cerr << "\n";
}

}  // namespace

bool shows_progress() {
  return isatty(STDERR_FILENO) == 1 && g_ptslLog == nullptr;
}

Progress_Bar::Progress_Bar(std::function<int()> percent) {
  if (!shows_progress()) return;
  draw(0);
  drawer_ = std::jthread([percent = std::move(percent)](const std::stop_token &end) { draw_until(end, percent); });
}

}  // namespace tool
