#include "platform/clusterd/bus_poll.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

namespace tarn::platform {

int Bus_Poll::start() {
  epoll_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
  wake_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!epoll_ || !wake_) return -errno;
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = wake_.get();
  return epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wake_.get(), &event) == 0 ? 0 : -errno;
}

natsStatus Bus_Poll::serve(natsOptions *options) {
  return natsOptions_SetEventLoop(options, this, on_attach, on_read, on_write, on_detach);
}

void Bus_Poll::wake() const {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof(one));
}

// ------------------------------------------------------------------------------------------------ the client's
// callbacks

// To be called with the lock. The client lets go of a connection after it has closed the socket: by then the next
// connection may have got a socket of the same number, which is not the old one's to change.
int Bus_Poll::change(Attachment *attachment, int operation, uint32_t events) {
  if (attachment != attachment->poll->latest_) return 0;
  attachment->events = events;
  epoll_event event = {};
  event.events = events;
  event.data.fd = -1;  // whose it is does not matter: there is one connection
  return epoll_ctl(attachment->poll->epoll_.get(), operation, attachment->socket, &event);
}

natsStatus Bus_Poll::on_attach(void **data, void *poll, natsConnection *, natsSock socket) {
  Bus_Poll *self = static_cast<Bus_Poll *>(poll);
  auto attachment = std::unique_ptr<Attachment>(new (std::nothrow) Attachment{self, socket, 0});
  if (!attachment) return NATS_NO_MEMORY;
  const std::scoped_lock lock(self->mutex_);
  self->latest_ = attachment.get();
  if (change(attachment.get(), EPOLL_CTL_ADD, EPOLLIN) != 0) {
    self->latest_ = nullptr;
    return NATS_ERR;
  }
  *data = attachment.release();
  return NATS_OK;
}

// A failure is none: the socket has been closed.
natsStatus Bus_Poll::on_read(void *data, bool is_wanted) {
  Attachment *attachment = static_cast<Attachment *>(data);
  const std::scoped_lock lock(attachment->poll->mutex_);
  change(attachment, EPOLL_CTL_MOD, is_wanted ? attachment->events | EPOLLIN : attachment->events & ~EPOLLIN);
  return NATS_OK;
}

natsStatus Bus_Poll::on_write(void *data, bool is_wanted) {
  Attachment *attachment = static_cast<Attachment *>(data);
  const std::scoped_lock lock(attachment->poll->mutex_);
  change(attachment, EPOLL_CTL_MOD, is_wanted ? attachment->events | EPOLLOUT : attachment->events & ~EPOLLOUT);
  return NATS_OK;
}

natsStatus Bus_Poll::on_detach(void *data) {
  const std::unique_ptr<Attachment> attachment(static_cast<Attachment *>(data));
  Bus_Poll *self = attachment->poll;
  const std::scoped_lock lock(self->mutex_);
  change(attachment.get(), EPOLL_CTL_DEL, 0);
  if (self->latest_ == attachment.get()) self->latest_ = nullptr;
  return NATS_OK;
}

// ------------------------------------------------------------------------------------------------ the loop's thread

void Bus_Poll::process(natsConnection *connection) {
  epoll_event events[4];
  const int count = epoll_wait(epoll_.get(), events, 4, 0);
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd == wake_.get()) {
      uint64_t ignored;
      [[maybe_unused]] const ssize_t done = read(wake_.get(), &ignored, sizeof(ignored));
      continue;
    }
    if (connection == nullptr) continue;
    if ((events[i].events & ~EPOLLOUT) != 0) natsConnection_ProcessReadEvent(connection);
    if ((events[i].events & EPOLLOUT) != 0) flush(connection);
  }
}

// Told to write when nothing waits, the client takes its connection for closed.
void Bus_Poll::flush(natsConnection *connection) {
  if (natsConnection_Buffered(connection) > 0) natsConnection_ProcessWriteEvent(connection);
}

}  // namespace tarn::platform
