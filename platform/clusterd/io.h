// Descriptors, deadlines and messages over sockets, for the cluster service and its handler processes.
#ifndef TARN_PLATFORM_CLUSTERD_IO_H
#define TARN_PLATFORM_CLUSTERD_IO_H

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "platform/wire.h"

namespace tarn::platform {

// Owner of a descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

 private:
  int fd_ = -1;
};

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// When a command of this time-out ends; 0 and negative mean the longest that is served.
Deadline deadline_after(int timeout_ms);

// Milliseconds left, 0 when the deadline has passed.
int remaining_ms(Deadline deadline);

// Makes every wait of this file in this process end with -ESHUTDOWN, from now on.
void stop_waiting();
bool is_stopping();
int stop_fd();  // readable from then on

// Each answers 0 or: -ETIME; -ESHUTDOWN; -ECONNRESET when the other side is gone; -errno.
int wait_ready(int fd, short events, Deadline deadline);
int receive_exactly(int fd, void *buffer, size_t size, Deadline deadline);
int send_exactly(int fd, std::string_view bytes, Deadline deadline);

// True when the other side of a stream socket is gone.
bool has_hung_up(int fd);

// 32 random hexadecimal digits, for names that nobody can guess and no two share; empty when there is no randomness.
std::string random_name();

struct Message {
  Wire_Kind kind = Wire_Kind::reply;
  int value = 0;
  uint32_t permissions = 0;
  uint64_t number = 0;
  std::string text;
  std::string more;
};

Message reply_of(int code, std::string text = {});

// True when a message may be sent at all; a longer one is answered with -EMSGSIZE.
bool fits(const Message &message);

std::string encode(const Message &message);
bool decode(std::string_view bytes, Message *message);

// Over a stream socket. A malformed message is -EBADMSG.
int send_message(int fd, const Message &message, Deadline deadline);
int receive_message(int fd, Message *message, Deadline deadline);

// What receive_message() would find: nothing yet; a part, so that it might wait; or what it answers at once (a message,
// a malformed one, the end).
enum class Arrival { nothing, part, whole };
Arrival arrival_at(int fd);

// So long a message fits into the buffer of a socket at which nothing waits yet: sending it does not wait.
constexpr size_t kSentAtOnce = size_t{64} * 1024;
bool is_sent_at_once(const Message &message);

}  // namespace tarn::platform

#endif
