// TLS sessions, with a peer that is there and well.
#include <openssl/ssl.h>

#include <cstring>
#include <utility>

#include "tests/faults/families.h"
#include "tests/support/certificates.h"
#include "tests/support/sockets.h"

namespace tarn::test {
namespace {

constexpr char message[] = "exactly this";
constexpr int message_length = sizeof message - 1;
constexpr int timeout_ms = 2000;

// Paths that are there before anything fails.
const char *plain() {
  static const std::string path = certificate_file("plain.pem");
  return path.c_str();
}
const char *encrypted() {
  static const std::string path = certificate_file("encrypted.pem");
  return path.c_str();
}
const char *authorities() {
  static const std::string path = certificate_file("ca.pem");
  return path.c_str();
}
void make_files(World &) {
  plain(), encrypted(), authorities();
}

void meet(World &w, Background_Peer::Kind kind) {
  make_files(w);
  Connection connection = local_connection();
  w.session.fd = connection.ours.release();
  w.peer = std::make_unique<Background_Peer>(kind, std::move(connection.theirs));
}
void meet_server(World &w) {
  meet(w, Background_Peer::Kind::server);
}
void meet_client(World &w) {
  meet(w, Background_Peer::Kind::client);
}
void meet_listener(World &w) {
  make_files(w);
  Descriptor listener = listen_on_loopback(0);
  w.port = local_port_of(listener);
  w.peer = std::make_unique<Background_Peer>(Background_Peer::Kind::listening_server, std::move(listener));
}
int make_context(World &w) {
  return CTX_Initialize(plain(), "", authorities(), &w.context);
}
int make_context_with_password(World &w) {
  return CTX_Initialize(encrypted(), "secret", authorities(), &w.context);
}
int connect_session(World &w) {
  return SSL_Connect_Socket(plain(), "", authorities(), &w.session);
}
int connect_to_listener(World &w) {
  return SSL_Socket_Connect("127.0.0.1", w.port, timeout_ms, plain(), "", authorities(), &w.session);
}
int accept_session(World &w) {
  return SSL_Accept_Socket(plain(), "", authorities(), &w.session);
}
void open_session(World &w) {
  meet_server(w);
  connect_session(w);
  w.peer->finish_handshake();
}
void open_session_with_message(World &w) {
  open_session(w);
  w.peer->send(message);
}
void open_plain(World &w) {
  Connection connection = local_connection();
  w.session.fd = connection.ours.release();
  w.far_end = std::move(connection.theirs);
}
void open_plain_with_message(World &w) {
  open_plain(w);
  send_text(w.far_end, message);
}

int keep_text(World &w, int length) {
  if (length < 0) memset(w.buffer, 0, sizeof w.buffer);
  return length;
}
int receive(World &w) {
  return keep_text(w, SSL_Recv(&w.session, w.buffer, sizeof w.buffer, 0));
}
int receive_exactly(World &w) {
  return keep_text(w, Exactly_SSL_Recv(&w.session, w.buffer, message_length, timeout_ms));
}
int receive_exactly_and_count(World &w) {
  return keep_text(w, Exactly_SSL_Recv_Ex(&w.session, w.buffer, message_length, timeout_ms, &w.size));
}
int peek_exactly(World &w) {
  return keep_text(w, Exactly_SSL_Peek(&w.session, w.buffer, message_length, timeout_ms));
}
int send_some(World &w) {
  return SSL_Send(&w.session, message, message_length, 0);
}
int send_exactly(World &w) {
  return Exactly_SSL_Send(&w.session, message, message_length, 0);
}

// What OpenSSL makes of a failure decides: it goes on, or has an errno, or has none.
Scenario of_openssl(std::string function, std::string situation, std::function<void(World &)> prepare,
                    std::function<int(World &)> call, int success, std::string result) {
  return {.function = function,
          .situation = situation,
          .prepare = prepare,
          .call = call,
          .success = success,
          .result = result,
          .out_of_memory = {any_error},
          .answer = any_error};
}

// OpenSSL makes thousands of allocations for a context and for a handshake, and the same ones each time.
std::function<void(Scenario &)> begins_with(int (*first_part)(World &)) {
  return [first_part](Scenario &s) { s.first_part = first_part; };
}

// The same call on a session and on a plain socket.
void add_both(std::vector<Scenario> *all, const std::string &function, std::function<void(World &)> session,
              std::function<void(World &)> plain, std::function<int(World &)> call, const std::string &result) {
  all->push_back(of_openssl(function, "", session, call, message_length, "TLS;" + result));
  all->push_back({.function = function,
                  .situation = "on a plain socket",
                  .prepare = plain,
                  .call = call,
                  .success = message_length,
                  .result = "plain;" + result});
  if (function.starts_with("Exactly_")) {
    all->end()[-2].answer.reset();  // the errno
    return;
  }
  // As recv and send do, which also may move a part.
  all->end()[-2].answer = all->back().answer = -1;
  all->back().half = message_length / 2;
  all->back().may_be_cut = true;
}

}  // namespace

std::vector<Scenario> tls_sessions() {
  const std::string arrived = "exactly this/0", sent = message;
  std::vector<Scenario> all = {
      of_openssl("CTX_Initialize", "", make_files, make_context, 0, "context;"),
      with(of_openssl("CTX_Initialize", "with an encrypted key", make_files, make_context_with_password, 0, "context;"),
           begins_with(make_context_with_password)),
      {.function = "CTX_Destroy",
       .prepare = [](World &w) { w.context = SSL_CTX_new(TLS_method()); },
       .call = [](World &w) { return CTX_Destroy(std::exchange(w.context, nullptr)), 0; }},
      with(of_openssl("SSL_Connect_Socket", "", meet_server, connect_session, 0, "TLS;"), begins_with(make_context)),
      with(of_openssl("SSL_Accept_Socket", "", meet_client, accept_session, 0, "TLS;"), begins_with(make_context)),
      with(of_openssl("SSL_Socket_Connect", "", meet_listener, connect_to_listener, 0, "TLS;"),
           begins_with(connect_to_listener)),
      {.function = "SSL_Socket_Destroy",
       .prepare = open_session,
       .call = [](World &w) { return SSL_Socket_Destroy(&w.session, 0), 0; }},
  };
  add_both(&all, "SSL_Recv", open_session_with_message, open_plain_with_message, receive, arrived);
  add_both(&all, "SSL_Send", open_session, open_plain, send_some, sent);
  add_both(&all, "Exactly_SSL_Peek", open_session_with_message, open_plain_with_message, peek_exactly, arrived);
  add_both(&all, "Exactly_SSL_Recv", open_session_with_message, open_plain_with_message, receive_exactly, arrived);
  add_both(&all, "Exactly_SSL_Recv_Ex", open_session_with_message, open_plain_with_message, receive_exactly_and_count,
           "exactly this/12");
  add_both(&all, "Exactly_SSL_Send", open_session, open_plain, send_exactly, sent);
  return all;
}

}  // namespace tarn::test
