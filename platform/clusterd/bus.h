// The member's connection to the cluster's message bus.
//
// Subjects: tarn.master.SENDER carries a command from slave SENDER to the master, tarn.slave.NAME one from the master
// to slave NAME; a file transfer's pieces go to the same subject with the session's name behind it; answers go to
// tarn.inbox.NAME and below. The server lets a member publish and subscribe to its own of these only, so the sender
// that a subject names is the sender.
#ifndef TARN_PLATFORM_CLUSTERD_BUS_H
#define TARN_PLATFORM_CLUSTERD_BUS_H

#include <nats/nats.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/clusterd/identity.h"
#include "platform/clusterd/io.h"

namespace tarn::platform {

struct Nats_Release {
  void operator()(natsConnection *connection) const { natsConnection_Destroy(connection); }
  void operator()(natsSubscription *subscription) const { natsSubscription_Destroy(subscription); }
  void operator()(natsOptions *options) const { natsOptions_Destroy(options); }
  void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
};

using Nats_Connection = std::shared_ptr<natsConnection>;
using Nats_Message = std::shared_ptr<natsMsg>;
template <typename T>
using Nats_Owner = std::unique_ptr<T, Nats_Release>;

struct Bus_Files {
  std::string folder = "/etc/config/tarn_cluster/bus";
  std::string connected_mark = "/run/tarncluster/connected";  // exists while the bus is reached
};

class Bus;

// One side of a file transfer's conversation, in order. The asking side sends and receives; the answering side receives
// and answers.
class Bus_Channel {
 public:
  // Asking side: publishes to the subject; the answer comes back through receive().
  int send(const Message &message);

  // Answers 0; -ETIME; -EHOSTUNREACH when nobody listens at the other end; -ECONNRESET when the connection to the bus
  // was lost since the channel was made; -EBADMSG.
  int receive(Message *message, int timeout_ms);

  // Answering side: answers the message received last.
  int answer(const Message &message);

 private:
  friend class Bus;
  Bus *bus_ = nullptr;
  Nats_Connection connection_;
  Nats_Owner<natsSubscription> subscription_;
  Nats_Message received_;
  std::string subject_;       // of the asking side
  std::string reply_prefix_;  // of the asking side
  uint64_t sent_ = 0;
  uint64_t losses_ = 0;
};

class Bus {
 public:
  // Called on a thread of the bus for each request: from whom, and what to answer with.
  using Receiver = std::function<void(const std::string &sender, const Nats_Message &request)>;

  Bus(Identity identity, Bus_Files files, Receiver receiver)
      : identity_(std::move(identity)), files_(std::move(files)), receiver_(std::move(receiver)) {}
  ~Bus() { stop(); }

  // Begins to connect, and goes on for ever until stop(). Answers 0, or -errno when the bus files are unusable.
  int start();
  void stop();

  // To be called now and then: the client gives a connection up for good when the server refuses the member (one that
  // is not in the server's list yet, say); this makes a new one. While there is no connection it logs why.
  void revive();

  // Asks a member: the slave of that id, or the master (kMasterId). Answers 0 with its answer; -EHOSTUNREACH when it is
  // down; -ENOTCONN when this member is not connected, -ECONNRESET when it lost the connection while waiting (the
  // command may have been done); -ETIME; -EMSGSIZE.
  int request(const std::string &member, const Message &message, Deadline deadline, Message *answer);

  // Answers a request that the receiver was called with.
  void answer(const Nats_Message &request, const Message &message);

  // Channels of a file transfer, for the asking and the answering side; the session's name is the answering side's.
  int ask_session(const std::string &member, const std::string &session, Bus_Channel *channel);
  int answer_session(const std::string &asking_member, const std::string &session, Bus_Channel *channel);

  static bool decode_message(const Nats_Message &bytes, Message *message);

 private:
  friend class Bus_Channel;
  int connect();
  int set_options(natsOptions *options);
  int subscribe_requests(const Nats_Connection &connection);
  Nats_Connection connection() const;
  std::string subject_to(const std::string &member) const;
  int subscribe(const Nats_Connection &connection, const std::string &subject,
                Nats_Owner<natsSubscription> *subscription);
  void set_connected(bool connected);
  void log_trouble(natsConnection *connection);

  static void on_request(natsConnection *, natsSubscription *, natsMsg *message, void *bus);
  static void on_connected(natsConnection *, void *bus);
  static void on_disconnected(natsConnection *, void *bus);
  static void on_error(natsConnection *, natsSubscription *, natsStatus status, void *bus);

  const Identity identity_;
  const Bus_Files files_;
  const Receiver receiver_;
  mutable std::mutex mutex_;
  Nats_Connection connection_;
  Nats_Owner<natsSubscription> requests_;
  std::atomic<uint64_t> losses_ = 0;
  std::atomic<bool> connected_ = false;
  std::string trouble_;  // the last one logged
};

}  // namespace tarn::platform

#endif
