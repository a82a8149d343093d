#include "bench/support/stream_peer.h"

#include <sys/socket.h>

#include <utility>
#include <vector>

#include "bench/support/turns.h"

namespace tarn::bench {

test::Connection connect_over(Wire wire) {
  return wire == Wire::tcp ? test::tcp_connection() : test::local_connection();
}

Stream_Peer::Stream_Peer(Wire wire, const Work &work)
    : connection_(connect_over(wire)), thread_(work, connection_.theirs.get()) {}

Stream_Peer::~Stream_Peer() {
  // Each by itself would leave the thread waiting over TCP when the window is shut.
  shutdown(connection_.ours.get(), SHUT_RDWR);
  shutdown(connection_.theirs.get(), SHUT_RDWR);
  thread_.join();
}

void take_all(int fd) {
  std::vector<char> buffer(4 * piece);
  while (recv(fd, buffer.data(), buffer.size(), 0) > 0) continue;
}

void give_on(int fd) {
  const std::vector<char> buffer(4 * piece, 'x');
  while (send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL) > 0) continue;
}

void register_over_both(const std::string &name, const std::function<void(benchmark::State &, Wire)> &run) {
  for (const auto &[wire, wire_name] : {std::pair{Wire::tcp, "/tcp"}, std::pair{Wire::local, "/local"}}) {
    const auto body = [run, wire = wire](benchmark::State &state) { run(state, wire); };
    benchmark::RegisterBenchmark((name + wire_name).c_str(), body)->Iterations(turns)->UseRealTime();
  }
}

}  // namespace tarn::bench
