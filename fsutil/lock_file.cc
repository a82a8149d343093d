#include "fsutil/lock_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>
#include <type_traits>

#include "foundation/deadline.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr const char *lock_folder = "/var/lock";
constexpr size_t lock_path_size = 256;         // terminator included
constexpr uint64_t stale_age_ms = 599999;      // a lock older than this is stale
constexpr uint64_t invalid_content_ms = 2000;  // a lock without proper content is stale after longer than this
constexpr unsigned poll_interval_ms = 1;

// What a lock file holds. Other programs read and write it byte for byte.
struct Lock_Record {
  int64_t stamp;  // milliseconds since the epoch at which the owner began to wait
  int pid;
  int reserved;  // zero; readers ignore it
};
static_assert(sizeof(Lock_Record) == 16 && std::is_trivially_copyable_v<Lock_Record>);

class Lock_Path {
 public:
  static Lock_Path owned(const char *path) { return Lock_Path(path, "/_"); }
  static Lock_Path foreign(const char *path) { return Lock_Path(path, "/"); }

  // False when the name is too long: cut, it would be the lock of other files, too.
  bool fits() const { return fits_; }
  const char *text() const { return text_; }

 private:
  Lock_Path(const char *path, const char *mark) {
    const char *name = path;
    Get_Filename(path, &name);
    // Not by snprintf, which would add a tenth to what a lock costs.
    char *end = text_;
    fits_ = append(&end, lock_folder) && append(&end, mark) && append(&end, name) && append(&end, ".lck");
    *end = '\0';
  }

  // Leaves room for the terminator.
  bool append(char **end, std::string_view part) {
    if (part.size() >= static_cast<size_t>(text_ + sizeof text_ - *end)) return false;
    memcpy(*end, part.data(), part.size());
    *end += part.size();
    return true;
  }

  char text_[lock_path_size];
  bool fits_;
};

bool names_file(const char *path, const struct stat &file) {
  struct stat status;
  return lstat(path, &status) == 0 && status.st_dev == file.st_dev && status.st_ino == file.st_ino;
}

// A claim whose maker was killed would keep a stale lock for ever. Making it has set the file's change time.
void drop_abandoned_claim(const char *claim) {
  constexpr time_t claim_seconds = 2;
  struct stat status;
  if (lstat(claim, &status) == 0 && time(nullptr) - status.st_ctim.tv_sec > claim_seconds) Druvo_Really_Unlink(claim);
}

// Takes the judged file away from a path that may by now name another file, a lock in use. Of several waiters that
// judged the same file one wins: the one that makes the claim, a link to it. Nobody else removes the file then, so the
// path that still names it can be removed without harm; and a lock in use is never moved, not even for a moment, in
// which its owner could give it back. What is to be done first is done while the file is claimed. Returns whether the
// path may be free now.
template <typename Action>
bool take_away(const char *path, const struct stat &judged, Action do_first) {
  if (S_ISDIR(judged.st_mode)) return false;
  const char *name = path;
  Get_Filename(path, &name);
  char claim[lock_path_size + 16];
  snprintf(claim, sizeof claim, "%s/.%s.stale", lock_folder, name);
  const bool claimed = link(path, claim) == 0;
  if (!claimed && errno == ENOENT) return true;
  if (!claimed && errno == EEXIST) {
    drop_abandoned_claim(claim);
    return false;
  }
  // Where links are not to be had, the look at the path has to do.
  bool may_be_free = !names_file(path, judged);
  if (!may_be_free) {
    do_first();
    may_be_free = Druvo_Really_Unlink(path) == 0 || errno == ENOENT;
  }
  if (claimed) Druvo_Really_Unlink(claim);
  return may_be_free;
}

// One call that waits for a lock file to go, and what it has seen so far.
class Lock_Wait {
 public:
  Lock_Wait(const char *function, const char *path, const Lock_Path &lock_path, int timeout_ms,
            Dead_Owner_Action action)
      : function_(function),
        path_(path),
        lock_path_(lock_path.text()),
        timeout_ms_(timeout_ms),
        action_(action),
        start_(Rough_Tick()) {}

  uint64_t start() const { return start_; }

  // Looks at the lock file once; true when it was stale and taken away.
  bool removes_stale_lock();

  // Waits a little; false when the time is over.
  bool sleeps_within_limit() const;

 private:
  bool judge_record(const Lock_Record &record, const struct stat &status) const;
  bool judge_invalid_content(const struct stat &status);

  const char *function_;
  const char *path_;  // of the protected file
  const char *lock_path_;
  int timeout_ms_;
  Dead_Owner_Action action_;
  uint64_t start_;
  uint64_t first_seen_ = 0;  // when content that is not valid was first seen
  int32_t seen_mtime_ = 0;   // and the file's modification time then
};

bool Lock_Wait::removes_stale_lock() {
  // Never blocks on a FIFO and never follows a link that somebody planted in the world-writable folder.
  const Descriptor file(open(lock_path_, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY));
  if (!file) return false;
  Lock_Record record;
  const bool valid = read(file.get(), &record, sizeof record) == static_cast<ssize_t>(sizeof record);
  struct stat status;
  if (fstat(file.get(), &status) != 0) return false;
  return valid ? judge_record(record, status) : judge_invalid_content(status);
}

bool Lock_Wait::judge_record(const Lock_Record &record, const struct stat &status) const {
  // The clock is read after the file: a lock taken in between would seem to come from the future. The difference is
  // unsigned on purpose: a stamp that does lie in the future counts as expired.
  const uint64_t age = Rough_Tick() - static_cast<uint64_t>(record.stamp);
  if (age <= stale_age_ms && Is_Process_Existed(record.pid) == 1) return false;
  const int owner = Is_Process_Existed(record.pid);
  if (owner != 1) {
    TARN_DEBUG_AS(function_, "Remove \"%s\" because proc %d is not existed!", lock_path_, record.pid);
  } else {
    TARN_DEBUG_AS(function_, "Remove \"%s\" because time expired (%lld)!", lock_path_, static_cast<long long>(age));
  }
  // An owner that may not be asked after counts as gone, but may be at work all the same.
  return take_away(lock_path_, status, [&] {
    if (owner == 0 && action_ != nullptr) action_(path_, record.pid);
  });
}

bool Lock_Wait::judge_invalid_content(const struct stat &status) {
  const uint64_t now = Rough_Tick();
  const auto mtime = static_cast<int32_t>(status.st_mtim.tv_sec);
  const bool watched_long_enough = first_seen_ != 0 && now - first_seen_ > invalid_content_ms;
  if (first_seen_ == 0 || (watched_long_enough && mtime != seen_mtime_)) {
    first_seen_ = now;
    seen_mtime_ = mtime;
    return false;
  }
  if (!watched_long_enough) return false;
  // The writer died between making the file and filling it. The number printed means nothing; it is kept for those who
  // know the line.
  TARN_DEBUG_AS(function_, "Remove \"%s\" because invalid content and timeout (%lld)!", lock_path_,
                static_cast<long long>(now) - 100LL * mtime);
  return take_away(lock_path_, status, [] {});
}

bool Lock_Wait::sleeps_within_limit() const {
  const uint64_t elapsed = Rough_Tick_Diff(start_);
  if (is_past(elapsed, timeout_ms_)) {
    TARN_ERROR_AS(function_, "Get lock file \"%s\" timeout! (%lld < %d)", lock_path_, static_cast<long long>(elapsed),
                  timeout_ms_);
    return false;
  }
  Sleep_MSec(poll_interval_ms);
  return true;
}

// Fills the new lock file; without its content it must not stay.
bool write_record(const char *function, const char *lock_path, int fd, uint64_t start) {
  const Lock_Record record = {static_cast<int64_t>(start), getpid(), 0};
  if (write(fd, &record, sizeof record) == static_cast<ssize_t>(sizeof record)) return true;
  TARN_ERROR_AS(function, "Can't write lock file \"%s\" content error!", lock_path);
  Druvo_Really_Unlink(lock_path);
  return false;
}

}  // namespace

int take_file_lock(const char *path, int timeout_ms, Dead_Owner_Action action) {
  constexpr const char *function = "Get_File_Lock";
  if (path == nullptr) return 0;
  const Lock_Path lock_path = Lock_Path::owned(path);
  if (!lock_path.fits()) return 0;

  Lock_Wait wait(function, path, lock_path, timeout_ms, action);
  do {
    do {
      const Descriptor file(open(lock_path.text(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0777));
      if (file) return write_record(function, lock_path.text(), file.get(), wait.start()) ? 1 : 0;
    } while (wait.removes_stale_lock());
  } while (wait.sleeps_within_limit());
  return 0;
}

}  // namespace tarn

int Get_File_Lock(const char *path, int timeout_ms) {
  return tarn::take_file_lock(path, timeout_ms, nullptr);
}

int Release_File_Lock(const char *path) {
  if (path == nullptr) return 0;
  const tarn::Lock_Path lock_path = tarn::Lock_Path::owned(path);
  if (lock_path.fits()) Druvo_Really_Unlink(lock_path.text());
  return 1;
}

int Check_File_Lock(const char *path, int timeout_ms) {
  if (path == nullptr) return 0;
  const tarn::Lock_Path lock_path = tarn::Lock_Path::foreign(path);
  if (!lock_path.fits()) return 0;

  tarn::Lock_Wait wait(__func__, path, lock_path, timeout_ms, nullptr);
  struct stat status;
  do {
    do {
      if (stat(lock_path.text(), &status) != 0) return 0;
    } while (wait.removes_stale_lock());
  } while (wait.sleeps_within_limit());
  return 0;
}

int Open_Shared_File(const char *path, const char *mode, FILE **stream) {
  if (path == nullptr || mode == nullptr || stream == nullptr) return -EINVAL;
  *stream = nullptr;
  if (Get_File_Lock(path, tarn::file_lock_wait_ms) != 1) {
    TARN_DEBUG("Can't get file lock of %s error!", path);
    return -ETIME;
  }
  *stream = fopen(path, mode);
  if (*stream == nullptr) {
    const int status = -errno;  // the release below changes errno
    Release_File_Lock(path);
    return status;
  }
  fcntl(fileno(*stream), F_SETFD, FD_CLOEXEC);
  return 0;
}

int Close_Shared_File(const char *path, FILE *stream) {
  if (path == nullptr || stream == nullptr) return -EINVAL;
  Release_File_Lock(path);
  return fclose(stream) == 0 ? 0 : -errno;
}
