#include "include/tarncluster_util.h"

#include <stdio_ext.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "foundation/date_time.h"
#include "foundation/report.h"

Simp_Log *g_ptslLog = nullptr;
int g_idLogLevel = 1;

namespace tarn {
namespace {

constexpr size_t message_limit = 4176;  // prefix and message, as far as they are kept
constexpr int lock_wait_ms = 10000;
constexpr size_t date_room = 12;
constexpr size_t time_position = 12;  // right behind "[", a 10-character date and a blank

// How deep the calls of Simp_Log_Write are nested in this thread: the writer, and what it calls, report to the log too.
thread_local int write_depth = 0;

class Write_Nesting {
 public:
  Write_Nesting() { ++write_depth; }
  ~Write_Nesting() { --write_depth; }
  Write_Nesting(const Write_Nesting &) = delete;
  Write_Nesting &operator=(const Write_Nesting &) = delete;
  bool outermost() const { return write_depth == 1; }
};

bool is_console(const Simp_Log *handle) {
  return handle->path[0] == '\0';
}

// Codes that a handle cannot hold mean the default, as every unknown code does.
uint16_t stored_code(int code) {
  return code >= 0 && code <= UINT16_MAX ? static_cast<uint16_t>(code) : uint16_t{0};
}

bool is_folder(const struct stat &status) {
  return S_ISDIR(status.st_mode);
}

int make_parent_folder(const char *folder) {
  struct stat status;
  const bool present = stat(folder, &status) == 0;
  if (present && is_folder(status)) return 0;
  if (present && Druvo_Really_Unlink(folder) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS("Simp_Log_Create", "Can't remove a file error! (%d, %s)", failure, folder);
    return failure;
  }
  if (mkdir(folder, 0755) == 0) return 0;
  const int failure = -errno;
  // Another process may have made it at this very moment.
  if (failure == -EEXIST && stat(folder, &status) == 0 && is_folder(status)) return 0;
  TARN_ERROR_AS("Simp_Log_Create", "Can't create the folder \"%s\"! (%d)", folder, failure);
  return failure;
}

int make_parent_folders(const char *path) {
  char work[PATH_MAX];
  const size_t length = strlen(path);
  if (length >= sizeof work) return -ENAMETOOLONG;
  memcpy(work, path, length + 1);
  if (length > 1 && work[length - 1] == '/') work[length - 1] = '\0';
  for (char *slash = strchr(work + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    const int status = make_parent_folder(work);
    if (status != 0) return status;
    *slash = '/';
  }
  return 0;
}

// Writes the line as one piece, so that lines of several processes do not mix. A stream would send a line that is
// longer than its buffer in two pieces, so such a line goes around it. Returns the bytes written.
size_t write_line(FILE *stream, const char *line, size_t length) {
  const size_t buffer_size = __fbufsize(stream);
  const int fd = fileno(stream);
  if (fd < 0 || buffer_size == 0 || length <= buffer_size) return fwrite(line, 1, length, stream);
  if (fflush(stream) != 0) return 0;
  const ssize_t written = write(fd, line, length);
  return written < 0 ? 0 : static_cast<size_t>(written);
}

int write_to_file(Simp_Log *handle, const char *line, size_t length, bool outermost) {
  // The lock check reports too; made from there, a line is written without checking again.
  if (outermost && Check_File_Lock(handle->path, lock_wait_ms) == 1) {
    TARN_ERROR_AS("Simp_Log_Write", "Can't write %d bytes to the log file. (%d)", static_cast<int>(length), -ETIME);
    return -ETIME;
  }
  const size_t written = write_line(handle->stream, line, length);
  if (written == length) {
    fflush(handle->stream);  // callers never learn of a full disk here: a failed flush is not a failed write
    return 0;
  }
  clearerr(handle->stream);
  // One report of a failed write may fail in turn; that one is not reported again.
  if (outermost) {
    TARN_ERROR_AS("Simp_Log_Write", "Can't write %d bytes to the log file. (%d)", static_cast<int>(length),
                  static_cast<int>(written));
  }
  return -EIO;
}

}  // namespace
}  // namespace tarn

int Simp_Log_Create(const char *path, Simp_Log **out, int hour_system, int date_format, int truncate) {
  if (out == nullptr || (path != nullptr && path[0] != '/')) return -EINVAL;
  *out = nullptr;
  if (path != nullptr) {
    const int status = tarn::make_parent_folders(path);
    if (status != 0) return status;
  }

  const char *text = path != nullptr ? path : "";
  const size_t text_size = strlen(text) + 1;
  const size_t size = offsetof(Simp_Log, path) + text_size;
  auto *handle = static_cast<Simp_Log *>(malloc(size));
  if (handle == nullptr) {
    TARN_ERROR("Can't allocate memory of %d bytes!", static_cast<int>(size));
    return -ENOMEM;
  }
  handle->stream = path != nullptr ? nullptr : stdout;
  handle->hour_system = tarn::stored_code(hour_system);
  handle->date_format = tarn::stored_code(date_format);
  memcpy(reinterpret_cast<char *>(handle) + offsetof(Simp_Log, path), text, text_size);

  // A file that cannot be emptied now is reported, and may yet be opened later.
  if (truncate != 0 && Simp_Log_Open(handle, 1) == 0) Simp_Log_Close(handle);
  *out = handle;
  return 0;
}

int Simp_Log_Open(Simp_Log *handle, int truncate) {
  if (handle == nullptr) return -EINVAL;
  if (tarn::is_console(handle)) return 0;
  Simp_Log_Close(handle);

  FILE *stream = fopen(handle->path, truncate != 0 ? "we" : "ae");
  if (stream == nullptr) {
    const int status = -errno;
    TARN_ERROR("Can't open the log file \"%s\"! (%d)", handle->path, status);
    return status;
  }
  setvbuf(stream, nullptr, _IOFBF, BUFSIZ);  // gets the buffer now, so that its size is known to the writer
  handle->stream = stream;
  return 0;
}

int Simp_Log_Close(Simp_Log *handle) {
  if (handle == nullptr) return -EINVAL;
  if (handle->stream == nullptr) return 0;
  if (tarn::is_console(handle)) {
    fflush(handle->stream);
    return 0;
  }
  // The stream is gone for everybody before it is closed.
  fclose(std::exchange(handle->stream, nullptr));
  return 0;
}

void Simp_Log_Release(Simp_Log *handle) {
  if (handle == nullptr) return;
  if (handle->stream != nullptr && handle->stream != stdout) fclose(handle->stream);
  free(handle);
}

int Simp_Log_Write(Simp_Log *handle, const char *format, ...) {
  if (format == nullptr) return -EINVAL;
  const tarn::Write_Nesting nesting;
  const bool closed = handle == nullptr || handle->stream == nullptr;

  char line[tarn::message_limit + 2];  // two spare bytes, for the newline and the terminator
  Log_DateTime_Format(time(nullptr), line, closed ? 24 : handle->hour_system, closed ? 3 : handle->date_format);
  const size_t prefix = strlen(line);

  va_list arguments;
  va_start(arguments, format);
  errno = 0;  // a stale value would be taken for the formatter's
  const int reported = vsnprintf(line + prefix, tarn::message_limit - prefix, format, arguments);
  const int formatter_errno = errno;
  va_end(arguments);
  if (reported < 0 || static_cast<size_t>(reported) >= tarn::message_limit) {
    const int status = formatter_errno != 0 ? -formatter_errno : -EOVERFLOW;
    TARN_ERROR("Can't generate the log message ! (%d, %d)", status, reported);
    return status;
  }

  size_t length = std::min(prefix + static_cast<size_t>(reported), tarn::message_limit - 1);
  if (line[length - 1] != '\n') {
    line[length++] = '\n';
    line[length] = '\0';
  }
  if (closed) {
    fwrite(line, 1, length, stdout);
    return 0;
  }
  return tarn::write_to_file(handle, line, length, nesting.outermost());
}

int Log_DateTime_Format(time_t t, char *buffer, int hour_system, int date_format) {
  if (buffer == nullptr) return -EINVAL;
  constexpr int any_mode_with_seconds = 0;
  char date[tarn::date_room] = "";
  char time_of_day[tarn::date_room] = "";
  struct tm local;
  if (localtime_r(&t, &local) != nullptr) {
    tarn::write_date(local, date, sizeof date, date_format);
    tarn::write_time(local, time_of_day, sizeof time_of_day, any_mode_with_seconds, hour_system);
  }

  // The time stands at a fixed place, whatever the date's length.
  memset(buffer, ' ', tarn::time_position);
  buffer[0] = '[';
  memcpy(buffer + 1, date, strlen(date));
  const size_t time_length = strlen(time_of_day);
  memcpy(buffer + tarn::time_position, time_of_day, time_length);
  memcpy(buffer + tarn::time_position + time_length, "] ", sizeof "] ");
  return 0;
}
