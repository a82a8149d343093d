// Decides whether this program's fdatasync and fsync do anything: a figure of the code is wanted without the disk's
// share, and then once with it.
#pragma once

namespace tarn::bench {

class Synchronised {
 public:
  Synchronised();
  ~Synchronised();
  Synchronised(const Synchronised &) = delete;
  Synchronised &operator=(const Synchronised &) = delete;
};

}  // namespace tarn::bench
