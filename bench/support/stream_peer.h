// The other end of a connection: a thread that takes, or gives, as much as it can as long as the connection is there.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <string>
#include <thread>

#include "foundation/owners.h"
#include "tests/support/sockets.h"

namespace tarn::bench {

// What one slice moves, and in which pieces where the caller chooses them.
inline constexpr size_t volume = 4 << 20;
inline constexpr size_t piece = 64 << 10;

enum class Wire { tcp, local };

test::Connection connect_over(Wire wire);

// Ends the connection, then waits for the thread.
class Stream_Peer {
 public:
  using Work = std::function<void(int fd)>;

  Stream_Peer(Wire wire, const Work &work);
  ~Stream_Peer();
  Stream_Peer(const Stream_Peer &) = delete;
  Stream_Peer &operator=(const Stream_Peer &) = delete;

  int fd() const { return connection_.ours.get(); }

 private:
  test::Connection connection_;
  std::thread thread_;
};

// Work of peers: by bare calls, in pieces.
void take_all(int fd);
void give_on(int fd);

// A benchmark for each wire, called NAME/tcp and NAME/local, that takes turns.
void register_over_both(const std::string &name, const std::function<void(benchmark::State &, Wire)> &run);

}  // namespace tarn::bench
