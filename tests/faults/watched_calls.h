// Sees the system calls of a piece of code as the kernel gets them, those that the C library makes for itself included,
// and makes one of them fail.
#pragma once

#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {

enum class Call {
  open,
  read,
  write,
  sync,  // fsync and fdatasync
  close,
  rename,
  unlink,  // and rmdir
  link,
  chmod,
  mkdir,
  stat,   // and fstat, lstat
  fcntl,  // what fdopen asks, among others
  readlink,
  set_time,
  pipe,
  splice,
  sendfile,
  poll,    // and select
  socket,  // and socketpair
  bind,
  listen,
  connect,
  set_option,
  send,
  receive,
  ioctl,
};

inline constexpr Call all_calls[] = {
    Call::open,    Call::read,       Call::write,    Call::sync,    Call::close,  Call::rename,   Call::unlink,
    Call::link,    Call::chmod,      Call::mkdir,    Call::stat,    Call::fcntl,  Call::readlink, Call::set_time,
    Call::pipe,    Call::splice,     Call::sendfile, Call::poll,    Call::socket, Call::bind,     Call::listen,
    Call::connect, Call::set_option, Call::send,     Call::receive, Call::ioctl};

const char *name_of(Call call);
std::ostream &operator<<(std::ostream &out, Call call);

struct Seen_Call {
  Call call;
  std::string path;  // what it works on, also where it was given a descriptor; a rename's old name; may be empty
};

inline constexpr int short_transfer = 0;  // in place of an errno: half of the bytes are moved

struct Failing_Call {
  Call call;
  int nth;    // among the calls of this kind, from 1
  int error;  // a failing close closes all the same, as the kernel's own does
};

struct Watched_Run {
  std::vector<Seen_Call> calls;
  std::optional<Seen_Call> failed;  // the call that was made to fail; none: there were not so many
};

// Runs the body in a thread of its own and watches the calls that this thread makes. Needs the rights to filter them.
Watched_Run run_watched(const std::function<void()> &body, const std::optional<Failing_Call> &failing = {});

}  // namespace tarn::test
