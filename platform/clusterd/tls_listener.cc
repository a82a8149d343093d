#include "platform/clusterd/tls_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

// How long a peer may say nothing at first, and how long handshake and first message may take.
constexpr int kSilenceMs = 5000;
constexpr int kFirstMessageMs = 10000;
constexpr size_t kLongestFirstMessage = 16384;

constexpr int kBacklog = 128;
constexpr int kListeners = 8;

}  // namespace

std::string origin_of(const std::string &address) {
  in6_addr bytes;
  if (inet_pton(AF_INET6, address.substr(0, address.find('%')).c_str(), &bytes) != 1) return address;
  return std::string(reinterpret_cast<const char *>(&bytes), 8);
}

int Tls_Listener::start() {
  int fds[kListeners + 1];
  const int result = TCP_Socket_Listen(nullptr, port_, kBacklog, fds, kListeners);
  if (result != 0) return result;
  for (const int *fd = fds; *fd >= 0; ++fd) {
    fcntl(*fd, F_SETFL, O_NONBLOCK);  // a peer that has left again must not hold up the others
    listeners_.emplace_back(*fd);
  }
  thread_ = std::thread(&Tls_Listener::run, this);
  return 0;
}

void Tls_Listener::run() {
  while (!is_stopping()) {
    std::vector<pollfd> entries;
    for (const Descriptor &listener : listeners_) entries.push_back({listener.get(), POLLIN, 0});
    for (const Silent_Peer &peer : silent_) entries.push_back({peer.socket.get(), POLLIN, 0});
    entries.push_back({stop_fd(), POLLIN, 0});
    if (poll(entries.data(), entries.size(), silent_.empty() ? -1 : remaining_ms(silent_.front().deadline)) < 0) {
      if (errno == EINTR) continue;
      log_line("the TLS listener ends: poll (%d)", -errno);
      return;
    }
    take_speaking_peers({entries.begin() + static_cast<ptrdiff_t>(listeners_.size()), entries.end() - 1});
    for (size_t i = 0; i < listeners_.size(); ++i) {
      if (entries[i].revents != 0) accept_peers(listeners_[i].get());
    }
  }
}

void Tls_Listener::accept_peers(int listener) {
  for (;;) {
    Descriptor socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      // Out of descriptors: the others stay in the queue until some are free.
      if (errno != EAGAIN) usleep(100000);
      return;
    }
    std::shared_ptr<void> place = admit(origin_of(address_of_peer(socket.get())));
    if (place) silent_.push_back({std::move(place), std::move(socket), deadline_after(kSilenceMs)});
  }
}

// A thread is for those only who have begun to speak.
void Tls_Listener::take_speaking_peers(const std::vector<pollfd> &entries) {
  std::vector<Silent_Peer> still_silent;
  for (size_t i = 0; i < silent_.size(); ++i) {
    Silent_Peer &peer = silent_[i];
    if (entries[i].revents != 0) {
      const auto shared = std::make_shared<Silent_Peer>(std::move(peer));
      threads_.submit([this, shared] { serve(std::move(shared->socket)); });
    } else if (remaining_ms(peer.deadline) > 0) {
      still_silent.push_back(std::move(peer));
    }
  }
  silent_ = std::move(still_silent);
}

void Tls_Listener::serve(Descriptor socket) {
  // What OpenSSL keeps for a thread goes with the peer: nobody waits for the end of a thread that could do it.
  const std::shared_ptr<void> clean_up(nullptr, [](void *) { OPENSSL_thread_stop(); });
  Tls_Peer peer(watch_);
  if (peer.accept(std::move(socket), certificate_, certificate_, deadline_after(kFirstMessageMs)) != 0) return;
  Message request;
  const int result = peer.receive(&request, kLongestFirstMessage);
  if (result == 0) {
    receptionist_(peer, request);
  } else if (result == -EBADMSG || result == -EMSGSIZE) {
    peer.send(reply_of(result == -EBADMSG ? -EINVAL : result));
  }
}

// Null when there are too many connections already.
std::shared_ptr<void> Tls_Listener::admit(const std::string &origin) {
  const std::scoped_lock lock(mutex_);
  const auto entry = held_.find(origin);
  if (held_in_all_ >= kPeersHeld || (entry != held_.end() && entry->second >= kPeersOfOneAddress)) return nullptr;
  ++held_in_all_;
  ++held_[origin];
  return std::shared_ptr<void>(this, [this, origin](void *) { dismiss(origin); });
}

void Tls_Listener::dismiss(const std::string &origin) {
  const std::scoped_lock lock(mutex_);
  --held_in_all_;
  if (--held_[origin] == 0) held_.erase(origin);
}

void Tls_Listener::stop() {
  if (thread_.joinable()) thread_.join();
  listeners_.clear();
  silent_.clear();
  threads_.stop();
}

}  // namespace tarn::platform
