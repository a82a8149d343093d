#include "tests/platform/tls_client.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tests/support/sockets.h"

namespace tarn::test {

using platform::Wire_Header;
using platform::Wire_Kind;

const std::string &own_certificate() {
  static const Temporary_Folder folder;
  static const std::string path = folder / "own.pem";
  if (!exists(path)) {
    signal(SIGPIPE, SIG_IGN);
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -batch -subj /CN=test -keyout " +
        path + " -out " + path + " 2>/dev/null";
    if (system(command.c_str()) != 0) throw std::runtime_error("openssl");
  }
  return path;
}

std::string message_bytes(Wire_Kind kind, const std::string &text, const std::string &more, int value) {
  Wire_Header header = {};
  header.magic = platform::kWireMagic;
  header.kind = kind;
  header.value = value;
  header.text_length = static_cast<uint32_t>(text.size());
  header.more_length = static_cast<uint32_t>(more.size());
  return std::string(reinterpret_cast<const char *>(&header), sizeof(header)) + text + more;
}

Tls_Client::Tls_Client(int port, const std::string &host) {
  const char *own = own_certificate().c_str();
  if (SSL_Socket_Connect(host.c_str(), port, 20000, own, "", own, &session_) != 0)
    throw std::runtime_error("no session with port " + std::to_string(port));
  timeval patience = {60, 0};
  setsockopt(session_.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
}

void Tls_Client::send(const std::string &bytes) {
  Exactly_SSL_Send(&session_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

std::optional<Tls_Answer> Tls_Client::receive() {
  std::string bytes;
  size_t wanted = sizeof(Wire_Header);
  Wire_Header header = {};
  while (bytes.size() < wanted) {
    char buffer[4096];
    const int count = SSL_Recv(&session_, buffer, static_cast<int>(std::min(wanted - bytes.size(), sizeof(buffer))), 0);
    if (count <= 0) return {};
    bytes.append(buffer, static_cast<size_t>(count));
    if (bytes.size() != sizeof(Wire_Header)) continue;
    memcpy(&header, bytes.data(), sizeof(header));
    wanted += header.text_length + header.more_length;
  }
  return Tls_Answer{header.kind, header.value, bytes.substr(sizeof(header), header.text_length)};
}

Tls_Answer Tls_Client::ask_bytes(const std::string &bytes) {
  send(bytes);
  return receive().value_or(Tls_Answer{Wire_Kind::reply, 1, ""});
}

Process serve_one_session(int port, const std::function<void(Tls_Client &client)> &body) {
  own_certificate();
  const tarn::Descriptor listener = listen_on_loopback(port);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid > 0) return Process(pid);
  const tarn::Descriptor socket(accept(listener.get(), nullptr, nullptr));
  Tls_Session session = {socket.get(), nullptr, nullptr, nullptr};
  const char *own = own_certificate().c_str();
  if (SSL_Accept_Socket(own, "", own, &session) != 0) _exit(1);
  {
    Tls_Client client(session);
    body(client);
  }
  _exit(0);
}

}  // namespace tarn::test
