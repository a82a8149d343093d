// Replacing a file whole: new content in a temporary file beside it, on the disk before it takes the file's name.
#pragma once

#include <sys/types.h>

#include <climits>

#include "foundation/owners.h"
#include "fsutil/lock_file.h"

namespace tarn {

// The permission bits that a file keeps when it is replaced; those of the file that a link points to, since the link's
// own would open the new file to everybody.
struct Kept_Mode {
  bool known = false;
  mode_t bits = 0;
};

Kept_Mode kept_mode(const char *path);

// Gives the replaced file its bits back; reports a failure for the function.
int restore_mode(const char *function, const char *path, const Kept_Mode &mode);

// A file that is removed at the end of its owner's life unless it was renamed away.
class Temporary_File {
 public:
  Temporary_File() = default;
  ~Temporary_File();
  Temporary_File(const Temporary_File &) = delete;
  Temporary_File &operator=(const Temporary_File &) = delete;

  // Names the file "PATH.tmp", or "PATH.tmp.NUMBER" for a number of 0 or more. -ENAMETOOLONG: cut, the name may be that
  // of another file.
  int set_name(const char *path, int number = -1);
  const char *name() const { return name_; }

  // Makes the file anew and opens it for writing, never through a link that somebody planted at its predictable name.
  // Until it is renamed it is no more open to others than the file that it replaces. Null with errno set on failure.
  Stream open(const Kept_Mode &mode);

  // 0 or -errno; on success the file is nobody's to remove any more.
  int rename_to(const char *path);

 private:
  char name_[PATH_MAX] = "";
  bool exists_ = false;
};

// The lock of a file that is to be replaced. Where the lock was that of a process that is gone, the temporary files go,
// too, which that process may have left behind.
class Replacement_Lock : public File_Lock {
 public:
  explicit Replacement_Lock(const char *path);
};

// Brings what was written to the disk and closes the stream: 0, or -errno of the first trouble, that of earlier writes
// included.
int finish_stream(Stream stream);

}  // namespace tarn
