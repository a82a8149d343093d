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
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/clusterd/bus_poll.h"
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
  // Called by process() for each request: from whom, and what to answer with.
  using Receiver = std::function<void(const std::string &sender, const Nats_Message &request)>;

  Bus(Identity identity, Bus_Files files, Receiver receiver)
      : identity_(std::move(identity)), files_(std::move(files)), receiver_(std::move(receiver)) {}
  ~Bus() { stop(); }

  // Begins to connect, and goes on for ever until stop(). Answers 0, or -errno when the bus files are unusable.
  int start();
  void stop();

  // Readable when process() is to be called, on the loop's thread. It takes what has come: requests, answers to
  // questions, pieces of files. Nothing comes to any thread of the service without it.
  int fd() const { return poll_.fd(); }
  void process();

  // To be called now and then, on the loop's thread: while there is no connection it begins to make one, and logs why
  // there is none.
  void revive();

  // Connects anew when the bus's address has become another one; on the loop's thread.
  void follow_address();

  // Has revive() do that; from any thread.
  void doubt_address() { is_address_doubtful_ = true; }

  bool is_connected() const { return connected_; }

  // Asks a member: the slave of that id, or the master (kMasterId). Answers 0 with its answer; -EHOSTUNREACH when it is
  // down; -ENOTCONN when this member is not connected, -ECONNRESET when it lost the connection while waiting (the
  // command may have been done); -ETIME; -EMSGSIZE.
  int request(const std::string &member, const Message &message, Deadline deadline, Message *answer);

  // The same without waiting, on the loop's thread: process() calls the receiver with the code and the answer. A code
  // other than 0 that is answered here is final, and the receiver is not called. The member is asked now and then
  // whether it is still at work: when it is gone, or knows of nothing, the code is -ECONNRESET.
  using Answer_Receiver = std::function<void(int code, Message &&answer)>;
  int ask(const std::string &member, const Message &message, Deadline deadline, Answer_Receiver receiver);

  size_t open_questions() const { return questions_.size(); }

  // When end_late_questions() is to be called next, on the loop's thread.
  Deadline next_deadline() const;
  void end_late_questions();

  // Answers a request that the receiver was called with.
  void answer(const Nats_Message &request, const Message &message);

  // The client frees messages on a thread of its own, which is woken for each. Small ones are kept until this is
  // called, now and then, or there are many: so it is woken once for all of them.
  void free_messages() { spent_.clear(); }

  // Channels of a file transfer, for the asking and the answering side; the session's name is the answering side's.
  int ask_session(const std::string &member, const std::string &session, Bus_Channel *channel);
  int answer_session(const std::string &asking_member, const std::string &session, Bus_Channel *channel);

  static bool decode_message(const Nats_Message &bytes, Message *message);

 private:
  friend class Bus_Channel;

  // Where the answer to one question at a time arrives. One that is not answered takes its inbox along, so that a late
  // answer reaches nobody.
  struct Inbox {
    Nats_Connection connection;
    Nats_Owner<natsSubscription> subscription;
    std::string subject;
  };
  struct Question {
    Inbox inbox;
    Deadline deadline;
    uint64_t losses;
    Answer_Receiver receiver;
    std::string member;
    uint64_t number;
    Deadline next_check;
    bool is_lost = false;
  };
  static constexpr size_t kInboxesKept = 16;
  static constexpr size_t kMessagesKept = 64;
  static constexpr int kLongestKept = 4096;

  // What came of trying to connect.
  struct Attempt {
    natsStatus status;
    Nats_Connection connection;
  };

  int begin_to_connect();
  int set_options(natsOptions *options, const std::string &url);
  void connect(natsOptions *options);
  void take_attempt();
  void interrupt_attempt();
  void drop_attempt();
  void give_up_connection();
  int subscribe_requests(const Nats_Connection &connection);
  Nats_Connection connection() const;
  std::string subject_to(const std::string &member) const;
  int subscribe(const Nats_Connection &connection, const std::string &subject,
                Nats_Owner<natsSubscription> *subscription);
  void flush(const Nats_Connection &connection);
  int take_inbox(const Nats_Connection &connection, Inbox *inbox);
  void free_later(const Nats_Message &message);
  int begin_question(const std::string &member, const Message &message, Deadline deadline, Deadline first_check,
                     Answer_Receiver receiver);
  void check_questions();
  void check(const Question &question);
  void conclude_check(uint64_t number, int code, int progress);
  bool conclude(Question *question);
  void note_request(const Nats_Message &request);
  int progress_of(const std::string &reply_subject);
  void take_requests();
  void take_answers();
  void on_request(natsMsg *raw);
  void set_connected(bool connected);
  void log_trouble(const std::string &trouble);
  void log_trouble_of(natsConnection *connection);

  static void on_disconnected(natsConnection *, void *bus);
  static void on_error(natsConnection *, natsSubscription *, natsStatus status, void *bus);

  const Identity identity_;
  const Bus_Files files_;
  const Receiver receiver_;
  mutable std::mutex mutex_;
  Nats_Connection connection_;
  std::set<std::string> unanswered_;  // where the answers to the connection's requests are to go
  std::optional<Attempt> attempt_;
  Nats_Owner<natsSubscription> requests_;
  std::atomic<uint64_t> losses_ = 0;
  std::atomic<bool> connected_ = false;
  std::atomic<bool> is_address_doubtful_ = false;
  std::thread connector_;  // of the loop's thread, as all that follows; runs until its attempt is there
  Deadline attempt_end_;
  std::string url_;      // of the connection, or of the attempt at one
  std::string trouble_;  // the last one logged
  Bus_Poll poll_;
  std::thread::id loop_thread_;
  std::vector<Question> questions_;
  uint64_t next_question_ = 0;
  std::vector<Inbox> free_inboxes_;
  std::vector<Nats_Message> spent_;
};

}  // namespace tarn::platform

#endif
