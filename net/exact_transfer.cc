#include "include/tarncluster_util.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "foundation/deadline.h"
#include "foundation/owners.h"
#include "foundation/report.h"
#include "fsutil/path_checks.h"

namespace tarn {
namespace {

constexpr int64_t splice_step = 8192;  // a pipe holds it whole, so the second splice drains what the first put in
constexpr int readiness_wait_ms = 1000;

void store(int64_t *out, int64_t value) {
  if (out != nullptr) *out = value;
}

struct Movement {
  int64_t total = 0;
  ssize_t last = 0;  // what the last call answered
  int error = 0;     // errno of the call that ended it early; 0: it moved nothing, and did not say why
};

// Calls move(total so far) while it moves something.
template <typename Move>
Movement move_all(int64_t length, const Move &move) {
  Movement movement;
  while (movement.total < length) {
    errno = 0;
    movement.last = move(movement.total);
    movement.error = errno;
    if (movement.last <= 0) break;
    movement.total += movement.last;
  }
  return movement;
}

// ------------------------------------------------------------------------------------------------------- Recv_File

constexpr char recv_file[] = "Recv_File";

struct Pipe {
  Descriptor read_end;
  Descriptor write_end;
};

int make_pipe(Pipe *made) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == 0) {
    made->read_end = Descriptor(ends[0]);
    made->write_end = Descriptor(ends[1]);
    return 0;
  }
  const int failure = -errno;
  TARN_ERROR_AS(recv_file, "Can't create a pipe error! (%d)", failure);
  return failure;
}

// True at the end of the peer's stream, and for what is no socket: nothing will come after it moved nothing.
bool has_ended(int socket_fd) {
  char next;
  const ssize_t seen = recv(socket_fd, &next, sizeof next, MSG_PEEK | MSG_DONTWAIT);
  return seen == 0 || (seen < 0 && errno == ENOTSOCK);
}

// Bytes that went into the pipe, 0 when there are none yet, or the failure. A wait before each step would take a fifth
// of the time; where the last step was a full one, the bytes behind it are there as a rule.
ssize_t fill_pipe(int socket_fd, const Pipe &pipe, int64_t chunk, bool waits) {
  const int ready = waits ? Is_Socket_Ready_To_Recv(socket_fd, readiness_wait_ms) : 1;
  if (ready < 0) {
    TARN_ERROR_AS(recv_file, "Can't check the socket is ready %d error! (%ld)", socket_fd, static_cast<long>(ready));
    return ready;
  }
  // Not ready means nothing here: the socket is asked all the same, and a blocking one waits in the kernel.
  errno = 0;
  const ssize_t got = splice(socket_fd, nullptr, pipe.write_end.get(), nullptr, static_cast<size_t>(chunk),
                             SPLICE_F_MOVE | SPLICE_F_NONBLOCK | SPLICE_F_MORE);
  if (got > 0) return got;
  if (got < 0 && errno == EAGAIN) return 0;
  if (got == 0 && !has_ended(socket_fd)) return 0;
  const int failure = got == 0 ? -EPIPE : -errno;
  TARN_ERROR_AS(recv_file, "Can't splice the socket %d error! (%ld, %ld, %d)", socket_fd, static_cast<long>(chunk),
                static_cast<long>(failure), failure);
  return failure;
}

bool drain_pipe(const Pipe &pipe, int destination_fd, int64_t *offset, ssize_t expected, int *failure) {
  errno = 0;
  const ssize_t moved = splice(pipe.read_end.get(), nullptr, destination_fd, offset, static_cast<size_t>(expected),
                               SPLICE_F_MOVE | SPLICE_F_MORE);
  if (moved == expected) return true;
  *failure = -errno;
  TARN_ERROR_AS(recv_file, "Can't splice the destination file %d error! (%ld, %ld, %d)", destination_fd,
                static_cast<long>(expected), static_cast<long>(*failure), *failure);
  return false;
}

// A last piece that was written in part is not counted: callers take the total for whole steps.
int receive_file(const Pipe &pipe, int socket_fd, int destination_fd, int64_t *offset, int64_t length, int64_t *total) {
  ssize_t got = 0;
  while (*total < length) {
    got = fill_pipe(socket_fd, pipe, std::min(length - *total, splice_step), got < splice_step);
    if (got < 0) return static_cast<int>(got);
    if (got == 0) continue;
    int failure = 0;
    if (!drain_pipe(pipe, destination_fd, offset, got, &failure)) return failure;
    *total += got;
  }
  return 0;
}

}  // namespace
}  // namespace tarn

int Exactly_Recv(int fd, void *buffer, int length, int timeout_ms) {
  if (buffer == nullptr) return -EINVAL;
  const uint64_t start = Rough_Tick();
  int received = 0;
  while (received < length) {
    const ssize_t result = recv(fd, static_cast<char *>(buffer) + received, static_cast<size_t>(length - received), 0);
    const int error = errno;
    if (result < 0) {
      TARN_ERROR("Can't receive error (%d, %d)!", -error, error);
      return -error;
    }
    // Nothing more will come, but callers depend on the wait.
    if (result == 0 && tarn::is_past(Rough_Tick_Diff(start), timeout_ms)) {
      TARN_ERROR("Exactly_SSL_Recv() timeout! Want %d bytes, got %d bytes! (%d)", length, received, error);
      errno = ETIME;
      return -ETIME;
    }
    received += static_cast<int>(result);
  }
  return received;
}

int Exactly_Send(int fd, const void *buffer, size_t length, int flags) {
  if (buffer == nullptr || length > INT_MAX) return -EINVAL;
  size_t sent = 0;
  while (sent < length) {
    const ssize_t result = send(fd, static_cast<const char *>(buffer) + sent, length - sent, flags);
    if (result < 0) {
      const int failure = -errno;
      TARN_ERROR("Can't send error! (%d)", failure);
      return failure;
    }
    sent += static_cast<size_t>(result);
  }
  return static_cast<int>(sent);
}

int File_Send_Bulk(int source_fd, int destination_fd, int64_t length, int64_t *offset, int64_t *sent) {
  tarn::store(sent, 0);
  if (source_fd < 0 || destination_fd < 0 || length < 0) return -EINVAL;

  const tarn::Movement movement = tarn::move_all(length, [&](int64_t total) {
    return sendfile(destination_fd, source_fd, offset, static_cast<size_t>(length - total));
  });
  tarn::store(sent, movement.total);
  if (movement.total == length) return 0;
  TARN_ERROR("Can't sendfile error! (%s, %d, %lld,%lld/%lld, %lld)", tarn::shown_path(source_fd), -movement.error,
             static_cast<long long>(movement.last), static_cast<long long>(movement.total),
             static_cast<long long>(length), static_cast<long long>(offset != nullptr ? *offset : 0));
  return -movement.error;
}

int File_Write_Bulk(int fd, const void *buffer, int64_t length, int64_t *written) {
  tarn::store(written, 0);
  if (buffer == nullptr || fd < 0 || length < 0) return -EINVAL;

  const tarn::Movement movement = tarn::move_all(length, [&](int64_t total) {
    return write(fd, static_cast<const char *>(buffer) + total, static_cast<size_t>(length - total));
  });
  tarn::store(written, movement.total);
  if (movement.total == length) return 0;
  TARN_ERROR("Can't write file error! (%s, %d, %lld,%lld/%lld)", tarn::shown_path(fd), -movement.error,
             static_cast<long long>(movement.last), static_cast<long long>(movement.total),
             static_cast<long long>(length));
  return -movement.error;
}

int Recv_File(int socket_fd, int destination_fd, int64_t *offset, int64_t length, int64_t *received) {
  tarn::store(received, 0);
  if (socket_fd < 0 || destination_fd < 0 || length < 0) return -EINVAL;

  tarn::Pipe pipe;
  int status = tarn::make_pipe(&pipe);
  if (status != 0) return status;
  int64_t total = 0;
  status = tarn::receive_file(pipe, socket_fd, destination_fd, offset, length, &total);
  tarn::store(received, total);
  return status;
}
