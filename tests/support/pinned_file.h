// A file that nothing can be renamed over. Needs a private mount namespace.
#pragma once

#include <string>

namespace tarn::test {

// Makes a file a mount point while it lives.
class Pinned_File {
 public:
  explicit Pinned_File(const std::string &path);
  ~Pinned_File();
  Pinned_File(const Pinned_File &) = delete;
  Pinned_File &operator=(const Pinned_File &) = delete;

 private:
  std::string path_;
};

}  // namespace tarn::test
