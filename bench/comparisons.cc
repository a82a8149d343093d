#include "bench/support/comparison.h"

namespace tarn::bench {
namespace {

// Ten times the size may cost up to twice ten times the time, since it leaves the caches and its memory is new pages;
// what is quadratic costs a hundred times as much, a ratio of 10.
constexpr double growth_bound = 3.0;

// The least part of the peer's speed, as a bound on times.
constexpr double speed(double part) {
  return 1 / part;
}

Comparison growth(const std::string &what, const std::string &tenfold, const std::string &base) {
  return {what, tenfold, "10 x ours at a tenth of the size", base, growth_bound, 10};
}

Comparison synchronised(const std::string &what, const std::string &ours, const std::string &peer_label,
                        const std::string &peer) {
  return {what, ours, peer_label, peer, 0, 1, Clock::wall};
}

// Taken in turns; elapsed time counts, since two threads share the work.
Comparison in_turns(const std::string &what, const std::string &benchmark, const std::string &peer_label, double bound,
                    const std::string &peer = "bare") {
  return {what, benchmark + ":ours", peer_label, benchmark + ":" + peer, bound, 1, Clock::wall};
}

std::vector<Comparison> transfer_rows(const std::string &wire) {
  const auto what = [&](const std::string &text) { return text + ", " + wire; };
  const auto name = [&](const std::string &text) { return text + "/" + wire; };
  const std::string recv_file = what("receive a file, 4 MiB");
  return {
      in_turns(what("send a file, 4 MiB"), name("send_file"), "bare sendfile", speed(0.95)),
      in_turns(recv_file, name("recv_file"), "bare splice, 8 KiB steps", speed(0.9)),
      in_turns(recv_file, name("recv_file"), "bare splice, 64 KiB steps", 0, "bare_64k"),
      in_turns(what("send 64 x 64 KiB"), name("send"), "bare send, MSG_WAITALL", speed(0.95)),
      in_turns(what("receive 64 x 64 KiB"), name("recv"), "bare recv, MSG_WAITALL", speed(0.95)),
      in_turns(what("send 64 x 64 KiB, TLS"), name("tls_send"), "bare SSL_write", speed(0.95)),
      in_turns(what("receive 64 x 64 KiB, TLS"), name("tls_recv"), "bare SSL_read", speed(0.95)),
  };
}

std::vector<Comparison> make_rows() {
  const std::string parse = "read and free 5000 x 14 keys, 1.1 MiB";
  const std::string parse_tenfold = "read and free 50000 x 14 keys, 11 MiB";
  const std::string lock = "take and release a lock";
  const std::string log = "write a log line";
  const std::string set_middle = "set a value in the middle of 1.1 MiB";
  const std::string set_last = "set a value at the end of 1.1 MiB";
  const std::string set_tenfold = "set a value at the end of 11 MiB";
  const std::string set_new = "add a section to 1.1 MiB";
  const std::string set_disk = "set a value, disk, with its sync (elapsed)";
  const std::string bare_replace = "bare read, write, rename";
  std::vector<Comparison> rows = {
      {parse, "parse_ours/5000", "inih, nodes built", "parse_inih_building/5000", 0.6},
      {parse, "parse_ours/5000", "inih, nothing kept", "parse_inih_counting/5000"},
      {parse, "parse_ours/5000", "GLib GKeyFile", "parse_key_file/5000", 0.35},
      growth(parse_tenfold, "parse_ours/50000", "parse_ours/5000"),
      {parse_tenfold, "parse_ours/50000", "inih, nodes built", "parse_inih_building/50000"},

      {lock, "lock_ours", "bare open, write, close, unlink", "lock_bare", 1.1},
      {lock, "lock_ours", "liblockfile", "lock_liblockfile"},

      {log, "log_ours", "fprintf, fflush, stat", "log_bare", 1.2},
      {log, "log_ours", "the same and a formatted time", "log_bare_with_time"},
      {log, "log_ours", "spdlog, flushed each line", "log_spdlog"},

      {set_middle, "set_ours/middle", bare_replace, "replace_bare/5000", 3.0},
      {set_last, "set_ours/last", bare_replace, "replace_bare/5000", 3.0},
      {set_new, "set_ours_new_section/5000", bare_replace, "replace_bare/5000", 3.0},
      growth(set_tenfold, "set_ours/last_of_50000", "set_ours/last"),
      {set_tenfold, "set_ours/last_of_50000", bare_replace, "replace_bare/50000"},
      synchronised(set_disk, "set_ours_on_disk", "bare with fdatasync", "replace_bare_on_disk"),

      growth("read 640 member records", "members_read/640", "members_read/64"),
      growth("update one of 640 member records", "member_set/640", "member_set/64"),

      {"list 18 interfaces of 4 addresses", "scan_ours", "getifaddrs and the ioctls", "scan_bare", 1.5},
  };
  for (const std::string wire : {"tcp", "local"}) {
    const std::vector<Comparison> transfers = transfer_rows(wire);
    rows.insert(rows.end(), transfers.begin(), transfers.end());
  }
  for (const std::string side : {"connect", "accept"}) {
    rows.push_back(
        in_turns("context and handshake, " + side, "shake_many_hands/" + side, "the same by bare calls", speed(0.9)));
  }
  return rows;
}

}  // namespace

const std::vector<Comparison> &comparisons() {
  static const std::vector<Comparison> rows = make_rows();
  return rows;
}

}  // namespace tarn::bench
