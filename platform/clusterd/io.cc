#include "platform/clusterd/io.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace tarn::platform {

namespace {

std::atomic<bool> stopping = false;

// Readable for ever once the process is to stop, so that it wakes every wait.
int stop_event() {
  static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return fd;
}

Wire_Header header_of(const Message &message) {
  Wire_Header header = {};
  header.magic = kWireMagic;
  header.kind = message.kind;
  header.value = message.value;
  header.text_length = static_cast<uint32_t>(message.text.size());
  header.more_length = static_cast<uint32_t>(message.more.size());
  header.permissions = message.permissions;
  header.number = message.number;
  return header;
}

void take_header(const Wire_Header &header, Message *message) {
  message->kind = header.kind;
  message->value = header.value;
  message->permissions = header.permissions;
  message->number = header.number;
}

}  // namespace

void Descriptor::reset() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

Deadline deadline_after(int timeout_ms) {
  if (timeout_ms <= 0 || timeout_ms > kLongestTimeoutMs) timeout_ms = kLongestTimeoutMs;
  return Clock::now() + std::chrono::milliseconds(timeout_ms);
}

int remaining_ms(Deadline deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, decltype(left){2} * kLongestTimeoutMs));
}

void stop_waiting() {
  stopping = true;
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(stop_event(), &one, sizeof(one));
}

bool is_stopping() {
  return stopping;
}

int stop_fd() {
  return stop_event();
}

int wait_ready(int fd, short events, Deadline deadline) {
  for (;;) {
    pollfd entries[] = {{fd, events, 0}, {stop_event(), POLLIN, 0}};
    const int ready = poll(entries, 2, remaining_ms(deadline));
    if (ready < 0) {
      if (errno == EINTR) continue;
      return -errno;
    }
    if (entries[1].revents != 0) return -ESHUTDOWN;
    if (ready == 0) return -ETIME;
    return 0;
  }
}

int receive_exactly(int fd, void *buffer, size_t size, Deadline deadline) {
  char *position = static_cast<char *>(buffer);
  while (size > 0) {
    const ssize_t received = recv(fd, position, size, MSG_DONTWAIT);
    if (received > 0) {
      position += received;
      size -= static_cast<size_t>(received);
      continue;
    }
    if (received == 0) return -ECONNRESET;
    if (errno == EINTR) continue;
    if (errno != EAGAIN) return -errno;
    const int result = wait_ready(fd, POLLIN, deadline);
    if (result != 0) return result;
  }
  return 0;
}

int send_exactly(int fd, std::string_view bytes, Deadline deadline) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno == EPIPE) return -ECONNRESET;
    if (errno != EAGAIN) return -errno;
    const int result = wait_ready(fd, POLLOUT, deadline);
    if (result != 0) return result;
  }
  return 0;
}

bool has_hung_up(int fd) {
  pollfd entry = {fd, POLLRDHUP, 0};
  return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

std::string random_name() {
  static const char digits[] = "0123456789abcdef";
  unsigned char bytes[16];
  if (getentropy(bytes, sizeof(bytes)) != 0) return {};
  std::string name;
  for (const unsigned char byte : bytes) {
    name += digits[byte >> 4];
    name += digits[byte & 15];
  }
  return name;
}

Message reply_of(int code, std::string text) {
  Message reply;
  reply.value = code;
  reply.text = std::move(text);
  return reply;
}

bool fits(const Message &message) {
  return message.text.size() <= kLargestBody && message.more.size() <= kLargestBody - message.text.size();
}

std::string encode(const Message &message) {
  const Wire_Header header = header_of(message);
  std::string bytes;
  bytes.reserve(sizeof(header) + message.text.size() + message.more.size());
  bytes.append(reinterpret_cast<const char *>(&header), sizeof(header));
  bytes += message.text;
  bytes += message.more;
  return bytes;
}

bool decode(std::string_view bytes, Message *message) {
  Wire_Header header;
  if (bytes.size() < sizeof(header)) return false;
  memcpy(&header, bytes.data(), sizeof(header));
  bytes.remove_prefix(sizeof(header));
  if (!is_well_formed(header) || bytes.size() != size_t{header.text_length} + header.more_length) return false;

  take_header(header, message);
  message->text = bytes.substr(0, header.text_length);
  message->more = bytes.substr(header.text_length);
  return true;
}

int send_message(int fd, const Message &message, Deadline deadline) {
  if (!fits(message)) return -EMSGSIZE;
  return send_exactly(fd, encode(message), deadline);
}

int receive_message(int fd, Message *message, Deadline deadline) {
  Wire_Header header;
  int result = receive_exactly(fd, &header, sizeof(header), deadline);
  if (result != 0) return result;
  if (!is_well_formed(header)) return -EBADMSG;

  take_header(header, message);
  message->text.resize(header.text_length);
  message->more.resize(header.more_length);
  result = receive_exactly(fd, message->text.data(), message->text.size(), deadline);
  return result != 0 ? result : receive_exactly(fd, message->more.data(), message->more.size(), deadline);
}

Arrival arrival_at(int fd) {
  Wire_Header header;
  const ssize_t received = recv(fd, &header, sizeof(header), MSG_PEEK | MSG_DONTWAIT);
  if (received < 0 && (errno == EAGAIN || errno == EINTR)) return Arrival::nothing;
  if (received <= 0) return Arrival::whole;
  if (received < static_cast<ssize_t>(sizeof(header))) return Arrival::part;
  if (!is_well_formed(header)) return Arrival::whole;
  int there = 0;
  if (ioctl(fd, FIONREAD, &there) != 0) return Arrival::part;
  const size_t length = sizeof(header) + header.text_length + header.more_length;
  return static_cast<size_t>(there) >= length ? Arrival::whole : Arrival::part;
}

bool is_sent_at_once(const Message &message) {
  return sizeof(Wire_Header) + message.text.size() + message.more.size() <= kSentAtOnce;
}

}  // namespace tarn::platform
