// The messages between the interface library, the cluster services and their handler processes: a fixed header, then
// two texts of any content. The same form is used on the local socket, on the bus and between a service and a handler.
#ifndef TARN_PLATFORM_WIRE_H
#define TARN_PLATFORM_WIRE_H

#include <cstddef>
#include <cstdint>

namespace tarn::platform {

constexpr uint32_t kWireMagic = 0x314e5254;  // "TRN1"; byte order is little-endian on every member

// Both texts of a message together; the bus carries 8 MiB in one message, header included.
constexpr uint32_t kLargestBody = 8 * 1024 * 1024 - 4096;

// Where the interface library finds the member's cluster service.
constexpr char kSocketPath[] = "/run/tarncluster/command.sock";

// Where appliances reach one another outside the bus.
constexpr int kListenerPort = 62695;

// Added to a command's time-out at each step on the way, so that the answer of the far end's own time-out arrives.
constexpr int kBusGraceMs = 1000;
constexpr int kCallerGraceMs = 3000;

// A command that names no time-out, and the longest one served (also when the time-out is 0 or negative).
constexpr int kDefaultTimeoutMs = 30000;
constexpr int kLongestTimeoutMs = 24 * 3600 * 1000;

enum class Wire_Kind : uint32_t {
  // Program to cluster service: text is the command object, more is the argument object.
  master_command = 1,
  slave_command = 2,
  master_control = 3,

  // Any answer: value is the code, text the reply.
  reply = 16,

  // Cluster service to cluster service.
  command = 32,     // text: command object; more: argument object
  put_file = 33,    // text: path there; number: size; permissions. Answer: text is the session's name
  get_file = 34,    // text: path there. Answer: text is the session's name; number: size; permissions
  is_at_work = 35,  // text: where a request's answer goes. Answer: 0 while it is being carried out, -ESRCH when not
  piece = 40,       // number: offset; more: bytes
  finish = 41,      // number: length; text: digest
  read_piece = 42,  // number: offset; value: bytes wanted. Answer: more is the bytes
  close_file = 43,  // Answer: number is the length, text the digest of all that was read
  keep_alive = 44,  // not answered; while nobody listens the bus itself says so
  abandon = 45,     // not answered: the asking side gives the transfer up

  // Cluster service to cluster service, about who belongs to the cluster.
  hello = 48,         // slave to master, every few seconds; text: digest of its list. Answer: the list when it differs
  member_list = 49,   // master to slave; text: the list
  leave = 50,         // master to slave
  network_info = 51,  // slave to master; text: its address

  // Between appliances at the TLS listener, outside the bus.
  login = 80,           // text: "User" and "Password". Answer: text holds "host_name"
  join = 81,            // behind a login: text is all that makes the appliance a slave
  ask_membership = 82,  // slave to master; text: its certificate; more: its signature of the session

  // Cluster service to handler process: text is the handler's name, more the argument text.
  run_handler = 64,
};

struct Wire_Header {
  uint32_t magic;
  Wire_Kind kind;
  int32_t value;  // a request's time-out in milliseconds, an answer's code
  uint32_t text_length;
  uint32_t more_length;
  uint32_t permissions;
  uint64_t number;
};

static_assert(sizeof(Wire_Header) == 32 && offsetof(Wire_Header, number) == 24);

inline bool is_well_formed(const Wire_Header &header) {
  return header.magic == kWireMagic && header.text_length <= kLargestBody &&
         header.more_length <= kLargestBody - header.text_length;
}

}  // namespace tarn::platform

#endif
