// The other end of a TLS session, in a thread of its own as long as the hands are being shaken.
#pragma once

#include <memory>
#include <string>
#include <thread>

#include "foundation/owners.h"

namespace tarn::test {

class Tls_Peer;

class Background_Peer {
 public:
  enum class Kind { client, server, listening_server };  // the last waits for one connection

  Background_Peer(Kind kind, Descriptor socket);
  ~Background_Peer();  // once the other end is closed
  Background_Peer(const Background_Peer &) = delete;
  Background_Peer &operator=(const Background_Peer &) = delete;

  void finish_handshake();  // throws when it does not go well

  // After that.
  void send(const std::string &text);
  std::string received();  // all so far; empty before

 private:
  void run(Kind kind);

  Descriptor socket_;
  std::thread thread_;
  std::unique_ptr<Tls_Peer> tls_;
  bool done_ = false;
  std::string received_;
};

}  // namespace tarn::test
