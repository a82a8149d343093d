// Owners of descriptors, streams and heap memory: what they hold goes back on every path out.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace tarn {

// An owner of something that a function gives back.
template <auto give_back>
struct Give_Back {
  template <typename Held>
  void operator()(Held *held) const {
    give_back(held);
  }
};

template <typename Held>
using Heap = std::unique_ptr<Held, Give_Back<std::free>>;

using Heap_Text = Heap<char>;

// Closes quietly; who must know whether closing worked calls fclose(stream.release()).
using Stream = std::unique_ptr<FILE, Give_Back<std::fclose>>;

using Folder = std::unique_ptr<DIR, Give_Back<closedir>>;

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace tarn
