// The memory of a process that was forked ahead of its work, made its own before the work comes: else its first steps
// cost a page fault each, for what it shares with its parent. Only what is written to: with the rest mapped as well,
// its end costs as much as its beginning saves.
#ifndef TARN_PLATFORM_CLUSTERD_WARM_MEMORY_H
#define TARN_PLATFORM_CLUSTERD_WARM_MEMORY_H

#include <cstddef>
#include <vector>

namespace tarn::platform {

class Warm_Memory {
 public:
  // In the parent, once all libraries are loaded: notes what there is.
  void find_mappings();

  // In the child.
  void warm() const;

 private:
  struct Mapping {
    void *start;
    size_t size;
  };
  std::vector<Mapping> mappings_;
};

}  // namespace tarn::platform

#endif
