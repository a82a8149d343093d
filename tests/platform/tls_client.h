// Messages of the platform over TLS, as appliances exchange them outside the bus; for tests of both sides.
#pragma once

#include <optional>
#include <string>

#include "platform/wire.h"
#include "tarncluster_util.h"
#include "tests/platform/member.h"

namespace tarn::test {

std::string message_bytes(platform::Wire_Kind kind, const std::string &text, const std::string &more = "",
                          int value = 0);

struct Tls_Answer {
  platform::Wire_Kind kind;
  int code;
  std::string text;
};

// One end of a session with a self-signed certificate of its own.
class Tls_Client {
 public:
  explicit Tls_Client(int port, const std::string &host = "127.0.0.1");
  explicit Tls_Client(Tls_Session session) : session_(session) {}
  ~Tls_Client() { SSL_Socket_Destroy(&session_, 0); }
  Tls_Client(const Tls_Client &) = delete;
  Tls_Client &operator=(const Tls_Client &) = delete;

  void send(const std::string &bytes);
  std::optional<Tls_Answer> receive();  // nothing when the session ends
  Tls_Answer ask(platform::Wire_Kind kind, const std::string &text) { return ask_bytes(message_bytes(kind, text)); }
  Tls_Answer ask_bytes(const std::string &bytes);  // code 1 when there is no answer

 private:
  Tls_Session session_;
};

// A self-signed certificate with its key in one file, made when it is first asked for.
const std::string &own_certificate();

// Listens at a port of loopback in a process of its own, which serves one session with the body.
Process serve_one_session(int port, const std::function<void(Tls_Client &client)> &body);

}  // namespace tarn::test
