#include "include/tarncluster_util.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "foundation/owners.h"
#include "foundation/report.h"
#include "fsutil/path_checks.h"

namespace tarn {
namespace {

constexpr char marker[] = "$$@#!$$";
constexpr int marker_length = sizeof marker - 1;
constexpr int last_number = 999999;
constexpr int no_folder = -1;
constexpr mode_t mode_bits = 0777;

// The names of one template, one after another: folder part and marker stand, the number changes.
class Candidate {
 public:
  // -EOVERFLOW when no name fits: cut, it would be one in another folder.
  int set_folder(const char *template_path);
  void set_number(int number, int digits);

  int folder_length() const { return folder_length_; }
  int length() const { return length_; }
  const char *text() const { return text_; }

 private:
  static constexpr int longest_number = 10;

  char text_[PATH_MAX];
  int folder_length_ = 0;
  int length_ = 0;
};

int Candidate::set_folder(const char *template_path) {
  const char *slash = strrchr(template_path, '/');
  const size_t length = slash != nullptr ? static_cast<size_t>(slash - template_path) + 1 : 0;
  if (length + marker_length + longest_number + 1 > sizeof text_) return -EOVERFLOW;
  memcpy(text_, template_path, length);
  memcpy(text_ + length, marker, marker_length);
  folder_length_ = static_cast<int>(length);
  return 0;
}

void Candidate::set_number(int number, int digits) {
  const int start = folder_length_ + marker_length;
  length_ = start + snprintf(text_ + start, longest_number + 1, "%0*d", digits, number);
}

int report_too_small(const char *function, int needed, int size) {
  TARN_ERROR_AS(function, "ERROR: The provided buffer is too small (%d, %d).", needed, size);
  return -EOVERFLOW;
}

int report_exhausted(const char *function, const char *name) {
  TARN_ERROR_AS(function, "ERROR: The number of the temporal filename has exceeded the maximum. (%s)", name);
  return -ERANGE;
}

// Room for the folder's part, the marker, a number of the least digits and a terminator; and, where the number has
// grown, for that.
int check_size(const char *function, const Candidate &candidate, int digits, int size) {
  const int least = candidate.folder_length() + marker_length + digits + 1;
  const int needed = candidate.length() >= least ? candidate.length() + 1 : least;
  return size >= needed ? 0 : report_too_small(function, needed, size);
}

// ----------------------------------------------------------------------------------------------- opening a unique file

// What differs between the two functions that open one.
struct Opening {
  const char *function;
  int dir_fd;
  int digits;
  int (*report_unopened)(const char *name);
  int (*give_up)(const char *name);
};

struct Request {
  const char *template_path;
  int flags;
  int mode;
  int size;
  char *name;
  int *fd;
};

// One attempt: 0, -EEXIST to go on, or the failure.
int open_candidate(const Opening &opening, const Request &request, const Candidate &candidate) {
  // Decided before the file is made, so that none is left behind.
  const int fits = request.name != nullptr ? check_size(opening.function, candidate, opening.digits, request.size) : 0;
  if (fits != 0) return fits;
  const int fd = openat(opening.dir_fd, candidate.text(), request.flags | O_CREAT | O_EXCL,
                        static_cast<mode_t>(request.mode) & mode_bits);
  if (fd < 0) return errno == EEXIST ? -EEXIST : opening.report_unopened(candidate.text());
  if (request.name != nullptr) memcpy(request.name, candidate.text(), static_cast<size_t>(candidate.length()) + 1);
  *request.fd = fd;
  return 0;
}

int open_unique(const Opening &opening, const Request &request) {
  if (request.fd == nullptr) return -EINVAL;
  *request.fd = -1;
  if (request.template_path == nullptr || opening.dir_fd == no_folder) return -EINVAL;
  Candidate candidate;
  int status = candidate.set_folder(request.template_path);
  for (int number = 0; status == 0 && number <= last_number; ++number) {
    candidate.set_number(number, opening.digits);
    const int opened = open_candidate(opening, request, candidate);
    if (opened != -EEXIST) return opened;
  }
  return status == 0 ? opening.give_up(candidate.text()) : status;
}

constexpr char open_at[] = "Open_Unique_Temp_File_At";
constexpr char open_plain[] = "Open_Unique_Temp_File";

int report_unopened_at(const char *name) {
  const int failure = -errno;
  TARN_DEBUG_AS(open_at, "Can't open the destination file %s error! (%d)", name, failure);
  return failure;
}

int report_unopened(const char *name) {
  const int failure = -errno;
  TARN_DEBUG_AS(open_plain, "Can't open the destination file %s! (%d)", name, failure);
  return failure;
}

// The last name is freed, whoever's it is: callers count on the next attempt.
int free_last_name(const char *name) {
  TARN_ERROR_AS(open_plain, "The number of the temporal filename has exceeded the maximum! (%s)", name);
  Druvo_Really_Unlink(name);
  return -ERANGE;
}

}  // namespace
}  // namespace tarn

int Check_Temp_Filename(const char *path) {
  const char *name = nullptr;
  if (Get_Filename(path, &name) != 0) return -EINVAL;
  return strncmp(name, tarn::marker, tarn::marker_length) == 0 ? 0 : 1;
}

int Generate_Temp_Filename(int dir_fd, const char *template_path, char *name, int size) {
  constexpr int digits = 3;
  if (dir_fd == tarn::no_folder || template_path == nullptr || name == nullptr) return -EINVAL;
  tarn::Candidate candidate;
  const int status = candidate.set_folder(template_path);
  if (status != 0) return status;
  for (int number = 0; number <= tarn::last_number; ++number) {
    candidate.set_number(number, digits);
    const int fits = tarn::check_size(__func__, candidate, digits, size);
    if (fits != 0) return fits;
    struct stat found;
    if (fstatat(dir_fd, candidate.text(), &found, AT_SYMLINK_NOFOLLOW) == 0) continue;
    memcpy(name, candidate.text(), static_cast<size_t>(candidate.length()) + 1);
    return 0;
  }
  return tarn::report_exhausted(__func__, candidate.text());
}

int Open_Unique_Temp_File_At(int dir_fd, const char *template_path, int flags, int mode, int size, char *name,
                             int *fd) {
  const auto give_up = [](const char *last) { return tarn::report_exhausted(tarn::open_at, last); };
  return tarn::open_unique({tarn::open_at, dir_fd, 3, tarn::report_unopened_at, give_up},
                           {template_path, flags, mode, size, name, fd});
}

int Open_Unique_Temp_File(const char *template_path, int flags, int mode, int size, char *name, int *fd) {
  return tarn::open_unique({tarn::open_plain, AT_FDCWD, 6, tarn::report_unopened, tarn::free_last_name},
                           {template_path, flags, mode, size, name, fd});
}
