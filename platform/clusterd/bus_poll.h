// The bus client's socket, watched by the service's event loop in place of the client's own reading thread: one
// hand-over between threads less for every message.
#ifndef TARN_PLATFORM_CLUSTERD_BUS_POLL_H
#define TARN_PLATFORM_CLUSTERD_BUS_POLL_H

#include <nats/nats.h>

#include <cstdint>
#include <mutex>

#include "platform/clusterd/io.h"

namespace tarn::platform {

class Bus_Poll {
 public:
  // Answers 0 or -errno.
  int start();

  // Has the client use this for the connections that it makes with the options.
  natsStatus serve(natsOptions *options);

  // Readable when process() has something to do.
  int fd() const { return epoll_.get(); }

  // Makes fd() readable; from any thread.
  void wake() const;

  // Has the connection read and write what its socket is ready for; on the loop's thread.
  void process(natsConnection *connection);

  // Has it write what it was given; on the loop's thread.
  static void flush(natsConnection *connection);

 private:
  // One connection's socket.
  struct Attachment {
    Bus_Poll *poll;
    int socket;
    uint32_t events;
  };
  static natsStatus on_attach(void **data, void *poll, natsConnection *connection, natsSock socket);
  static natsStatus on_read(void *data, bool is_wanted);
  static natsStatus on_write(void *data, bool is_wanted);
  static natsStatus on_detach(void *data);
  static int change(Attachment *attachment, int operation, uint32_t events);

  Descriptor epoll_;
  Descriptor wake_;
  // The client calls from whatever thread it is in: the loop's, one that publishes, its own.
  std::mutex mutex_;
  const Attachment *latest_ = nullptr;
};

}  // namespace tarn::platform

#endif
