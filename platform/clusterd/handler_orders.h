// What the cluster service tells its handler host over their socket pair, one order per packet.
//
// The host is a small process that has the handlers' libraries loaded. For a command it forks a process, which reads
// the command from the socket that came with the order, runs the handler and answers on that socket. A process that can
// take a further command says so with one byte behind its answer; else it ends.
#ifndef TARN_PLATFORM_CLUSTERD_HANDLER_ORDERS_H
#define TARN_PLATFORM_CLUSTERD_HANDLER_ORDERS_H

#include <cstdint>
#include <string_view>

namespace tarn::platform {

// The descriptor at which the host finds its end of the socket pair.
constexpr int kHandlerOrdersFd = 3;

constexpr std::string_view kReady = "r";

enum class Handler_Order_Kind : uint32_t { run = 1, end = 2 };

struct Handler_Order {
  Handler_Order_Kind kind;  // run comes with the command's socket; end kills the command's process group
  uint32_t reserved;
  uint64_t id;
};

}  // namespace tarn::platform

#endif
