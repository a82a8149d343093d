// A TLS session with another appliance, outside the bus: messages in both directions, all of it within a deadline.
#ifndef TARN_PLATFORM_CLUSTERD_TLS_PEER_H
#define TARN_PLATFORM_CLUSTERD_TLS_PEER_H

#include <string>

#include "platform/clusterd/deadline_watch.h"
#include "platform/clusterd/io.h"
#include "tarncluster_util.h"

namespace tarn::platform {

class Tls_Peer {
 public:
  explicit Tls_Peer(Deadline_Watch *watch) : watch_(watch) {}
  ~Tls_Peer() { close(); }
  Tls_Peer(const Tls_Peer &) = delete;
  Tls_Peer &operator=(const Tls_Peer &) = delete;

  // Each makes the session. The certificate's file holds its key, too; the handshake does not verify the other side.
  // Answers 0; -ETIME; -EHOSTUNREACH when nobody answers there; another negative code when the handshake fails.
  int accept(Descriptor socket, const std::string &certificate, const std::string &authority, Deadline deadline);
  int connect(const std::string &host, int port, const std::string &certificate, const std::string &authority,
              Deadline deadline);

  void set_deadline(Deadline deadline);

  // Each answers 0; -ETIME; -ECONNRESET when the peer is gone; -EBADMSG for what is no message; -EMSGSIZE for one with
  // texts above the limit.
  int receive(Message *message, size_t limit);
  int send(const Message &message);

  // The peer's address as text.
  std::string address() const;

  ssl_st *session() const { return session_.ssl; }
  bool is_open() const { return session_.ssl != nullptr; }
  void close();

 private:
  int shake_hands(Descriptor socket, bool is_server, const std::string &certificate, const std::string &authority,
                  Deadline deadline);
  int receive_bytes(char *buffer, size_t size);
  int end_of_session() const;

  Deadline_Watch *const watch_;
  Descriptor socket_;
  Tls_Session session_ = {-1, nullptr, nullptr, nullptr};
  Deadline deadline_;
};

// The address as text of whoever is connected to a socket; an IPv4 address in its own form. Empty when there is none.
std::string address_of_peer(int fd);

}  // namespace tarn::platform

#endif
