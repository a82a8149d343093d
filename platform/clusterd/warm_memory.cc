#include "platform/clusterd/warm_memory.h"

#include <linux/mman.h>
#include <sys/mman.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace tarn::platform {

namespace {

// What is larger is nobody's working set: a table that a library keeps, the shadow memory of a sanitizer.
constexpr size_t kLargestMapping = size_t{4} * 1024 * 1024;

struct File_Release {
  void operator()(FILE *file) const { fclose(file); }
};

}  // namespace

void Warm_Memory::find_mappings() {
  const std::unique_ptr<FILE, File_Release> list(fopen("/proc/self/maps", "re"));
  char line[512];
  while (list && fgets(line, sizeof(line), list.get()) != nullptr) {
    uintptr_t start = 0;
    uintptr_t end = 0;
    char permissions[5] = "";
    // A line that goes on beyond the buffer is one of a long path; its rest does not read as a mapping.
    if (sscanf(line, "%" SCNxPTR "-%" SCNxPTR " %4s", &start, &end, permissions) != 3) continue;
    const bool is_to_be_copied = permissions[0] == 'r' && permissions[1] == 'w' && permissions[3] == 'p';
    if (is_to_be_copied && end - start <= kLargestMapping)
      mappings_.push_back({reinterpret_cast<void *>(start), end - start});
  }
}

// A mapping that cannot be filled (the kernel's own, one that is gone) is none that matters.
void Warm_Memory::warm() const {
  for (const Mapping &mapping : mappings_) madvise(mapping.start, mapping.size, MADV_POPULATE_WRITE);
}

}  // namespace tarn::platform
