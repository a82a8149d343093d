// The files at both ends of a transfer, and the file that shows its progress.
#ifndef TARN_PLATFORM_CLUSTERD_TRANSFER_FILES_H
#define TARN_PLATFORM_CLUSTERD_TRANSFER_FILES_H

#include <optional>
#include <string>
#include <string_view>

#include "platform/clusterd/digest.h"
#include "platform/clusterd/io.h"

namespace tarn::platform {

// A regular file that is read from start to end, as long as it was when it was opened.
class Outgoing_File {
 public:
  // Answers 0; -EINVAL or -EISDIR for what is no regular file; -errno.
  int open(const std::string &path);

  // Reads the next piece of this many bytes. Answers 0; -EIO when the file has become shorter; -errno.
  int read(size_t wanted, std::string *bytes);

  uint64_t size() const { return size_; }
  uint64_t position() const { return position_; }
  uint32_t permissions() const { return permissions_; }
  std::string digest() { return digest_.finish(); }

 private:
  Descriptor fd_;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  uint32_t permissions_ = 0;
  Digest digest_;
};

// Where a killed service's temporary files are known by: a folder of links, one to each file that is being received.
class Partial_Files {
 public:
  explicit Partial_Files(std::string folder) : folder_(std::move(folder)) {}

  // Removes the temporary files that an earlier service left, and makes the folder.
  int clean_up();

  // Makes the link to a temporary file, and removes it again.
  int add(const std::string &name, const std::string &path) const;
  void remove(const std::string &name) const;

 private:
  const std::string folder_;
};

// A file that comes in piece by piece under a temporary name beside its destination. Unless committed, nothing of it is
// left when its owner lets go of it.
class Incoming_File {
 public:
  explicit Incoming_File(const Partial_Files &partial_files) : partial_files_(partial_files) {}
  ~Incoming_File() { discard(); }
  Incoming_File(const Incoming_File &) = delete;
  Incoming_File &operator=(const Incoming_File &) = delete;

  // Answers 0; -EISDIR when the destination is a folder; -ENOSPC when it cannot be as large as announced; -errno.
  int open(const std::string &destination, uint64_t size, uint32_t permissions);

  // Appends a piece. Answers 0; -EPROTO when it is not the next one, or too much; -errno.
  int write(uint64_t offset, std::string_view bytes);

  // Puts the file in its place when length and digest agree with what was read at the other end. Answers 0; -EIO;
  // -errno.
  int commit(uint64_t length, const std::string &digest);

  // Removes what there is of it.
  void discard();

 private:
  const Partial_Files &partial_files_;
  Descriptor fd_;
  std::string destination_;
  std::string folder_;
  std::string temporary_;
  std::string name_;
  uint64_t size_ = 0;
  uint64_t written_ = 0;
  Digest digest_;
};

// A file that holds the percentage done, replaced whenever it grows. 100 is written when the file is in its place.
class Progress_File {
 public:
  explicit Progress_File(std::optional<std::string> path) : path_(std::move(path)) {}

  // Answers 0 or -errno.
  int show(uint64_t done, uint64_t size);
  int show_complete() { return write(100); }

 private:
  int write(int percent);

  const std::optional<std::string> path_;
  int shown_ = -1;
};

}  // namespace tarn::platform

#endif
