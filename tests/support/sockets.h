// Sockets of the test itself: listeners and connected peers that the code under test talks to. All are close-on-exec.
#pragma once

#include <string>
#include <string_view>

#include "foundation/owners.h"

namespace tarn::test {

struct Connection {
  Descriptor ours;    // for the code under test
  Descriptor theirs;  // the peer's end
};

Connection tcp_connection();    // over loopback
Connection local_connection();  // within the machine

// A TCP port of loopback that nobody listens on, in both address families.
int free_port();

Descriptor listen_on_loopback(int port, int backlog = 128);  // 127.0.0.1
Descriptor accept_one(const Descriptor &listener);           // throws after 20 seconds without a connection
int local_port_of(const Descriptor &socket);

void send_text(const Descriptor &socket, std::string_view text);
std::string receive_text(const Descriptor &socket);                 // to the end of the stream, or a reset
std::string receive_text(const Descriptor &socket, size_t length);  // this many bytes, fewer when the stream ends
void send_slowly(const Descriptor &socket, std::string_view text);  // a byte every 50 ms
void fill(const Descriptor &socket);                                // nothing more can be sent to the peer
void end_sending(const Descriptor &socket);                         // the peer sees the end of the stream
void reset(Descriptor *socket);                                     // closes; the peer sees a reset

}  // namespace tarn::test
