#include "fsutil/bulk_transfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "foundation/deadline.h"
#include "foundation/owners.h"
#include "foundation/report.h"
#include "fsutil/path_checks.h"

namespace tarn {
namespace {

constexpr int64_t splice_step = 0x20000;
constexpr unsigned splice_pause_ms = 50;
constexpr unsigned growth_pause_ms = 5;
constexpr int new_file_mode = 0777;

bool is_offset(const int64_t *offset) {
  return offset == nullptr || *offset >= 0;
}

bool are_transfer_arguments(int in_fd, const int64_t *in_offset, int out_fd, const int64_t *out_offset,
                            int64_t length) {
  return in_fd >= 0 && out_fd >= 0 && is_offset(in_offset) && is_offset(out_offset) && length >= 0;
}

// ------------------------------------------------------------------------------------------------------------- splice

constexpr char splice_ext[] = "Splice_Ext";

// One length that is spliced until it is done.
struct Splice {
  int in_fd;
  int64_t *in_offset;
  int out_fd;
  int64_t *out_offset;
  int64_t length;
  int flags;
  int timeout_ms;
  Abort_Flag abort;

  int64_t left = length;
  uint64_t last_progress = Rough_Tick();
  uint64_t elapsed = 0;

  int run();
  int wait(ssize_t moved);
  void report_retry() const;
  int report_timeout(ssize_t moved) const;
};

void Splice::report_retry() const {
  TARN_DEBUG_AS(splice_ext,
                "Splice can't receive %lld bytes at once, it will retry later. (bytes left: %lld; time elapsed: %llu "
                "ms; timeout: %d ms)",
                static_cast<long long>(length), static_cast<long long>(left), static_cast<unsigned long long>(elapsed),
                timeout_ms);
}

int Splice::report_timeout(ssize_t moved) const {
  if (out_offset != nullptr) {
    TARN_ERROR_AS(splice_ext, "Can't finish the 'splice' of %lld bytes in %d milliseconds. (%d, %lld, %lld)",
                  static_cast<long long>(left), timeout_ms, -ETIME, static_cast<long long>(moved),
                  static_cast<long long>(*out_offset));
  } else {
    TARN_ERROR_AS(splice_ext, "Can't finish the 'splice' of %lld bytes in %d milliseconds. (%d, %lld)",
                  static_cast<long long>(left), timeout_ms, -ETIME, static_cast<long long>(moved));
  }
  return -ETIME;
}

// Nothing moved: 0 to try again after a pause, else the result.
int Splice::wait(ssize_t moved) {
  if (abort.is_set()) {
    const int value = abort.value();
    TARN_ERROR_AS(splice_ext, "Break 'splice' with iRet: %d.", value);
    return value;
  }
  elapsed = Rough_Tick_Diff(last_progress);
  if (is_past(elapsed, timeout_ms)) return report_timeout(moved);
  Sleep_MSec(splice_pause_ms);
  report_retry();
  return 0;
}

int Splice::run() {
  for (;;) {
    errno = 0;
    const ssize_t moved =
        splice(in_fd, in_offset, out_fd, out_offset, static_cast<size_t>(left), static_cast<unsigned int>(flags));
    if (moved == left) return 0;
    if (moved > 0) {
      left -= moved;
      last_progress = Rough_Tick();
      report_retry();
      continue;
    }
    if (moved < 0 && errno != EAGAIN) {
      const int result = errno != 0 ? -errno : abort.value();
      TARN_ERROR_AS(splice_ext, "Can't splice %lld bytes from the socket error! (%d, %lld)",
                    static_cast<long long>(left), result, -1LL);
      return result;
    }
    const int result = wait(moved);
    if (result != 0) return result;
  }
}

// --------------------------------------------------------------------------------------------------------------- copy

// One copy through a buffer: strict, or patient with a source that is still growing.
struct Copy {
  const char *function;
  bool patient;
  int in_fd;
  int out_fd;
  int64_t left;
  const Abort_Flag &abort;
  char *buffer;
  uint64_t *counter;

  int64_t copied = 0;

  int run();
  int step();
  int report_unread(int64_t wanted, ssize_t got, int error) const;
  int write_out(int64_t wanted, ssize_t got);
};

int Copy::report_unread(int64_t wanted, ssize_t got, int error) const {
  if (patient) {
    TARN_ERROR_AS(function, "Can't read %lld byte from the source file error! ", static_cast<long long>(got));
  } else {
    TARN_ERROR_AS(function, "Can't read %lld byte from the source file error! (%d, %lld)",
                  static_cast<long long>(wanted), -error, static_cast<long long>(got));
  }
  return -error;
}

int Copy::write_out(int64_t wanted, ssize_t got) {
  int64_t written = 0;
  const int status = File_Write_Bulk(out_fd, buffer, got, &written);
  if (status == 0 && written == got) {
    copied += got;
    if (counter != nullptr) *counter += static_cast<uint64_t>(got);
    return 0;
  }
  TARN_ERROR_AS(function, "Can't write %lld byte to the destination file error! (%d, %lld)",
                static_cast<long long>(wanted), status, static_cast<long long>(written));
  return status != 0 ? status : -EIO;
}

// Answers 0 to go on. A strict copy that reads less than it wants is done, with what it has: a last piece is dropped,
// as callers know it.
int Copy::step() {
  const int64_t wanted = std::min<int64_t>(left, copy_buffer_size);
  errno = 0;
  const ssize_t got = read(in_fd, buffer, static_cast<size_t>(wanted));
  const int error = errno;
  if (got < 0 || (got < wanted && !patient)) {
    left = 0;
    return report_unread(wanted, got, error);
  }
  left -= got;
  if (got > 0) return write_out(wanted, got);
  Sleep_MSec(growth_pause_ms);
  return 0;
}

int Copy::run() {
  while (left > 0 && !abort.is_set()) {
    const int status = step();
    if (status != 0) return status;
  }
  return abort.value();
}

int seek_to(const char *function, const char *side, int fd, const int64_t *offset) {
  if (offset == nullptr || lseek(fd, *offset, SEEK_SET) >= 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't seek the %s file to offset %lld error!", side, static_cast<long long>(*offset));
  return failure;
}

int copy_at_offsets(const char *function, bool patient, int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset,
                    int64_t length, unsigned int *abort_flag, uint64_t *counter) {
  if (!are_transfer_arguments(in_fd, in_offset, out_fd, out_offset, length)) return -EINVAL;
  int status = seek_to(function, "source", in_fd, in_offset);
  if (status == 0) status = seek_to(function, "destination", out_fd, out_offset);
  if (status != 0) return status;
  const Heap_Text buffer(static_cast<char *>(malloc(copy_buffer_size)));
  if (buffer == nullptr) {
    TARN_ERROR_AS(function, "Can't allocate %ld byte buffer for copying data error!",
                  static_cast<long>(copy_buffer_size));
    return -ENOMEM;
  }
  const Abort_Flag abort(abort_flag);
  Copy copy = {function, patient, in_fd, out_fd, length, abort, buffer.get(), counter};
  status = copy.run();
  if (in_offset != nullptr) *in_offset += copy.copied;
  if (out_offset != nullptr) *out_offset += copy.copied;
  return status;
}

int seek_when_given(const Descriptor &file, int64_t offset) {
  return offset == 0 || lseek(file.get(), offset, SEEK_SET) >= 0 ? 0 : -errno;
}

}  // namespace

int copy_data(int in_fd, int out_fd, int64_t length, char *buffer, const Abort_Flag &abort, uint64_t *counter) {
  Copy copy = {"Copy_File_Data", false, in_fd, out_fd, length, abort, buffer, counter};
  return copy.run();
}

}  // namespace tarn

int Splice_Ext(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length, int flags,
               int timeout_ms, unsigned int *abort_flag) {
  if (abort_flag == nullptr || length < 0) return -EINVAL;
  tarn::Splice splice = {in_fd, in_offset, out_fd, out_offset, length, flags, timeout_ms, tarn::Abort_Flag(abort_flag)};
  return splice.run();
}

int Splice_File_Data(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length, int timeout_ms,
                     unsigned int *abort_flag, uint64_t *counter) {
  if (!tarn::are_transfer_arguments(in_fd, in_offset, out_fd, out_offset, length)) return -EINVAL;
  unsigned int nobody_aborts = 0;
  const tarn::Abort_Flag abort(abort_flag);
  while (length > 0 && !abort.is_set()) {
    const int64_t step = std::min(length, tarn::splice_step);
    const int status = Splice_Ext(in_fd, in_offset, out_fd, out_offset, step, 0, timeout_ms,
                                  abort_flag != nullptr ? abort_flag : &nobody_aborts);
    if (status != 0) {
      // Both look-ups share one buffer, so the line shows one path twice; who reads the log knows it.
      TARN_ERROR("Can't splice the file '%s' into '%s' error! (%d, %d)", tarn::shown_path(in_fd),
                 tarn::shown_path(out_fd), static_cast<int>(step), status);
      return status;
    }
    if (counter != nullptr) *counter += static_cast<uint64_t>(step);
    length -= step;
  }
  return abort.value();
}

int Copy_File_Data(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length,
                   unsigned int *abort_flag, uint64_t *counter) {
  return tarn::copy_at_offsets(__func__, false, in_fd, in_offset, out_fd, out_offset, length, abort_flag, counter);
}

int Copy_File_Data_RTRR(int in_fd, int64_t *in_offset, int out_fd, int64_t *out_offset, int64_t length,
                        unsigned int *abort_flag, uint64_t *counter) {
  return tarn::copy_at_offsets(__func__, true, in_fd, in_offset, out_fd, out_offset, length, abort_flag, counter);
}

int Simple_Read_File(const char *path, char *buffer, int *size) {
  if (path == nullptr || buffer == nullptr || size == nullptr || *size < 0) return -EINVAL;
  const tarn::Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return -errno;
  ssize_t length = read(file.get(), buffer, static_cast<size_t>(*size));
  if (length < 0) return -errno;
  if (length > 0 && buffer[length - 1] == '\n') --length;
  if (length < *size) buffer[length] = '\0';
  *size = static_cast<int>(length);
  return 0;
}

int Read_File_To_Buffer(const char *path, void *buffer, int64_t *size, int64_t offset) {
  if (path == nullptr || buffer == nullptr || size == nullptr || *size < 1) return -EINVAL;
  const tarn::Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return -errno;
  const int status = tarn::seek_when_given(file, offset);
  if (status != 0) return status;
  const ssize_t length = read(file.get(), buffer, static_cast<size_t>(*size));
  if (length < 0) return -errno;
  *size = static_cast<int32_t>(length);
  return 0;
}

int Write_File_From_Buffer(const char *path, const void *buffer, int64_t *size, int64_t offset) {
  if (path == nullptr || buffer == nullptr || size == nullptr || *size < 1) return -EINVAL;
  const tarn::Descriptor file(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, tarn::new_file_mode));
  if (!file) return -errno;
  const int status = tarn::seek_when_given(file, offset);
  return status == 0 ? File_Write_Bulk(file.get(), buffer, *size, size) : status;
}
