// Moving a file to a socket and from one, and buffers both ways.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "bench/support/sample_files.h"
#include "bench/support/stream_peer.h"
#include "bench/support/turns.h"
#include "include/tarncluster_util.h"

namespace tarn::bench {
namespace {

constexpr int no_timeout = -1;
constexpr size_t required_step = 8 << 10;  // of Recv_File
constexpr size_t greater_step = 64 << 10;

using Sender = bool (*)(int source, int socket);
using Receiver = bool (*)(int socket, int destination);
using Mover = bool (*)(int socket, char *buffer);

// ------------------------------------------------------------------------------------------------ a file to a socket

bool send_file_ours(int source, int socket) {
  int64_t offset = 0, sent = 0;
  return File_Send_Bulk(source, socket, volume, &offset, &sent) == 0 && sent == volume;
}

bool send_file_bare(int source, int socket) {
  off_t offset = 0;
  while (offset < static_cast<off_t>(volume)) {
    if (sendfile(socket, source, &offset, volume - static_cast<size_t>(offset)) <= 0) return false;
  }
  return true;
}

void send_file(benchmark::State &state, Wire wire) {
  const Sample_File file(memory_folder, "bulk", std::string(volume, 'x'));
  const Descriptor source(open(file.path(), O_RDONLY | O_CLOEXEC));
  const Stream_Peer peer(wire, take_all);
  const auto by = [&](Sender send) { return [&, send] { return send(source.get(), peer.fd()); }; };
  take_turns(state, {{"ours", by(send_file_ours)}, {"bare", by(send_file_bare)}});
}

// ---------------------------------------------------------------------------------------------- a file from a socket

bool recv_file_ours(int socket, int destination) {
  int64_t offset = 0, received = 0;
  return Recv_File(socket, destination, &offset, volume, &received) == 0 && received == volume;
}

template <size_t step>
bool recv_file_bare(int socket, int destination) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  const Descriptor read_end(ends[0]), write_end(ends[1]);
  off64_t offset = 0;
  while (offset < static_cast<off64_t>(volume)) {
    const size_t most = std::min(volume - static_cast<size_t>(offset), step);
    const ssize_t got = splice(socket, nullptr, write_end.get(), nullptr, most, SPLICE_F_MOVE | SPLICE_F_MORE);
    if (got <= 0) return false;
    const auto expected = static_cast<size_t>(got);
    const ssize_t moved =
        splice(read_end.get(), nullptr, destination, &offset, expected, SPLICE_F_MOVE | SPLICE_F_MORE);
    if (moved != got) return false;
  }
  return true;
}

void recv_file(benchmark::State &state, Wire wire) {
  const Sample_File file(memory_folder, "bulk", std::string(volume, 'y'));
  const Descriptor destination(open(file.path(), O_WRONLY | O_CLOEXEC));
  const Stream_Peer peer(wire, give_on);
  const auto by = [&](Receiver receive) { return [&, receive] { return receive(peer.fd(), destination.get()); }; };
  take_turns(state, {{"ours", by(recv_file_ours)},
                     {"bare", by(recv_file_bare<required_step>)},
                     {"bare_64k", by(recv_file_bare<greater_step>)}});
}

// ------------------------------------------------------------------------------------------------------------ buffers

bool send_ours(int socket, char *buffer) {
  return Exactly_Send(socket, buffer, piece, MSG_NOSIGNAL) == static_cast<int>(piece);
}
bool send_bare(int socket, char *buffer) {
  return send(socket, buffer, piece, MSG_NOSIGNAL | MSG_WAITALL) == static_cast<ssize_t>(piece);
}
bool recv_ours(int socket, char *buffer) {
  return Exactly_Recv(socket, buffer, piece, no_timeout) == static_cast<int>(piece);
}
bool recv_bare(int socket, char *buffer) {
  return recv(socket, buffer, piece, MSG_WAITALL) == static_cast<ssize_t>(piece);
}

void move_buffers(benchmark::State &state, Wire wire, const Stream_Peer::Work &work, Mover ours, Mover bare) {
  std::vector<char> buffer(piece, 'x');
  const Stream_Peer peer(wire, work);
  const auto by = [&](Mover move) {
    return [&, move] {
      for (size_t moved = 0; moved < volume; moved += piece) {
        if (!move(peer.fd(), buffer.data())) return false;
      }
      return true;
    };
  };
  take_turns(state, {{"ours", by(ours)}, {"bare", by(bare)}});
}

[[maybe_unused]] const bool registered = [] {
  register_over_both("send_file", send_file);
  register_over_both("recv_file", recv_file);
  register_over_both("send", [](auto &state, Wire wire) { move_buffers(state, wire, take_all, send_ours, send_bare); });
  register_over_both("recv", [](auto &state, Wire wire) { move_buffers(state, wire, give_on, recv_ours, recv_bare); });
  return true;
}();

}  // namespace
}  // namespace tarn::bench
