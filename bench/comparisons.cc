#include "bench/support/comparison.h"

#include <utility>

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

// The work of programs: processor time, theirs and ours, since nobody waits for anything but the kernel.
Comparison beside_program(const std::string &what, const std::string &benchmark, const std::string &program,
                          double bound) {
  return {what, benchmark + ":ours.processor", program, benchmark + ":program.processor", bound};
}

std::vector<Comparison> tree_rows() {
  std::vector<Comparison> rows;
  const std::string tree = " 50000 files of 1 KiB, ";
  for (const auto &[wing, file_system] : {std::pair{"memory", "tmpfs"}, std::pair{"disk", "disk"}}) {
    const std::vector<Comparison> wing_rows = {
        beside_program("copy" + tree + file_system, std::string("tree_copy/") + wing, "cp -a", 1.0),
        beside_program("survey" + tree + file_system, std::string("tree_survey/") + wing, "du -s", 1.0),
        beside_program("remove" + tree + file_system, std::string("tree_removal/") + wing, "rm -rf", 1.0),
        in_turns("the copy, elapsed", std::string("tree_copy/") + wing, "cp -a", 0, "program"),
        in_turns("the survey, elapsed", std::string("tree_survey/") + wing, "du -s", 0, "program"),
        in_turns("the removal, elapsed", std::string("tree_removal/") + wing, "rm -rf", 0, "program"),
    };
    rows.insert(rows.end(), wing_rows.begin(), wing_rows.end());
  }
  for (const std::string work : {"copy", "survey", "removal"}) {
    const std::string benchmark = "deep_" + work;
    rows.push_back({work + " of 3000 folders, each in the last", benchmark + ":chain.processor", "3000 side by side",
                    benchmark + ":siblings.processor", 3.0});
  }
  return rows;
}

std::vector<Comparison> bulk_rows() {
  const std::string copy = "copy a file of 2 GiB, tmpfs";
  return {
      beside_program(copy, "copy_great_file", "cp --reflink=never", 1.1),
      in_turns("the copy, elapsed", "copy_great_file", "cp --reflink=never", 0, "program"),
      {copy, "copy_great_file:ours.processor", "bare read, write, 32 KiB steps", "copy_great_file:bare.processor"},
      in_turns("splice 64 MiB, file to pipe", "splice_from_file", "bare splice, 128 KiB steps", speed(0.95)),
      in_turns("splice 64 MiB, pipe to file", "splice_to_file", "bare splice, 128 KiB steps", speed(0.95)),
  };
}

std::vector<Comparison> cluster_rows() {
  const std::string progress = "set a task's progress, one of 16 tasks";
  const std::string calls = "the calls and the look-ups";
  return {
      {progress, "task_progress", "our lock, read and replacement", "task_file_replaced", 2.5},
      {progress, "task_progress", "the same by bare calls", "task_file_bare"},
      growth("read 10000 announcements", "browse/10000", "browse/1000"),
      growth("store 10000 shares", "shares_write/10000", "shares_write/1000"),
      growth("read 10000 stored shares", "shares_read/10000", "shares_read/1000"),
      {"list 1000 shares with settings", "scan_shares/1000:ours.processor", calls, "scan_shares/1000:calls.processor",
       3.0},
      {"list 5000 shares with settings", "scan_shares/5000:ours.processor", calls, "scan_shares/5000:calls.processor",
       3.0},
      {"list 5000 shares with settings", "scan_shares/5000:ours.processor", "the look-ups alone",
       "scan_shares/5000:look_ups.processor"},
      growth("list 10000 shares without settings", "scan_shares_without_settings/10000:ours.processor",
             "scan_shares_without_settings/1000:ours.processor"),
      {"list 10000 shares without settings", "scan_shares_without_settings/10000:ours.processor",
       "readdir, stat, statfs", "scan_shares_without_settings/10000:calls.processor"},
  };
}

std::vector<Comparison> foundation_rows() {
  std::vector<Comparison> rows;
  for (const std::string count : {"100", "1000", "5000", "10000", "100000"}) {
    // Beyond ten thousand names the pointers that an insertion moves take their time.
    const double bound = count == "100000" ? 0 : 1.0;
    rows.push_back({"sorted add of " + count + " names", "sorted_add_ours/" + count, "std::set<std::string>",
                    "sorted_add_set/" + count, bound});
  }
  for (const std::string count : {"100", "1000", "10000"}) {
    rows.push_back({"look up 16384 times in " + count + " names", "look_up_ours/" + count,
                    "std::set<std::string>::find", "look_up_set/" + count, 0.8});
  }
  const std::string long_names = "push and pop 1000 names of 16 to 48 letters";
  const std::string short_names = "push and pop 1000 names of 4 to 15 letters";
  const std::string queue = "queue: 100 in, 100 out, with a mutex";
  const std::string block = "allocate and release 100 traced bytes";
  const std::string replaced = "replace one of 1000000 traced blocks";
  rows.insert(
      rows.end(),
      {
          {long_names, "stack_ours/long", "std::vector<std::string>", "stack_vector/long", speed(2)},
          {short_names, "stack_ours/short", "std::vector<std::string>", "stack_vector/short"},
          {queue, "queue_ours", "std::deque, the same mutex", "queue_deque", 1.1},
          {queue + ", condition", "queue_ours_with_condition", "GLib GAsyncQueue", "queue_glib", 1.0},
          {"1000 traced blocks of 16 to 2063 bytes", "memory_ours_many", "malloc, free", "memory_malloc_many", 3.0},
          {block, "memory_ours", "malloc, free", "memory_malloc"},
          {block, "memory_ours", "malloc, free, the mutex twice", "memory_malloc_locked"},
          {replaced, "memory_ours_among/1000000", "ours, one of 1000", "memory_ours_among/1000", growth_bound},
          {replaced, "memory_ours_among/1000000", "malloc, free, one of 1000000", "memory_malloc_among/1000000"},
      });
  return rows;
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
  for (const std::vector<Comparison> &more : {foundation_rows(), tree_rows(), bulk_rows(), cluster_rows()}) {
    rows.insert(rows.end(), more.begin(), more.end());
  }
  for (const std::string wire : {"tcp", "local"}) {
    const std::vector<Comparison> transfers = transfer_rows(wire);
    rows.insert(rows.end(), transfers.begin(), transfers.end());
  }
  for (const std::string side : {"connect", "accept"}) {
    rows.push_back(
        in_turns("context and handshake, " + side, "shake_many_hands/" + side, "the same by bare calls", speed(0.9)));
  }
  rows.push_back(in_turns("echo between two members", "echo", "bare request and reply", 1.5));
  return rows;
}

}  // namespace

const std::vector<Comparison> &comparisons() {
  static const std::vector<Comparison> rows = make_rows();
  return rows;
}

}  // namespace tarn::bench
