#include "platform/clusterd/bus.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>

#include "platform/clusterd/bus_address.h"
#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

// The name in the bus server's certificate. It is longer than any member's, so no member can pose as the server.
constexpr char kServerName[] = "tarncluster-bus";

constexpr int kConnectMs = 1000;
constexpr std::chrono::seconds kLongestAttempt{5};
constexpr int kInterruptSignal = SIGUSR1;

// A question that is open for so long is checked for the first time, and from then on. Whoever does not answer a check
// is left alone for longer than the server takes to give up a member that is silent: what is sent to it counts as life.
constexpr std::chrono::seconds kFirstCheckAfter{1};
constexpr std::chrono::seconds kCheckEvery{2};
constexpr std::chrono::seconds kLongestCheck{9};

constexpr int kPingIntervalMs = 2000;  // a bus that moved away without a word is missed after some seconds

int code_of(natsStatus status) {
  switch (status) {
    case NATS_OK:
      return 0;
    case NATS_TIMEOUT:
      return -ETIME;
    case NATS_NO_RESPONDERS:
      return -EHOSTUNREACH;
    case NATS_MAX_PAYLOAD:
      return -EMSGSIZE;
    case NATS_NO_MEMORY:
      return -ENOMEM;
    case NATS_CONNECTION_DISCONNECTED:
    case NATS_STALE_CONNECTION:
    case NATS_IO_ERROR:  // the bus ended while the client wrote to it
    case NATS_SSL_ERROR:
      return -ECONNRESET;
    case NATS_CONNECTION_CLOSED:
    case NATS_INVALID_SUBSCRIPTION:
      return is_stopping() ? -ESHUTDOWN : -ECONNRESET;
    case NATS_INSUFFICIENT_BUFFER:
    case NATS_NOT_YET_CONNECTED:
    case NATS_NO_SERVER:
      return -ENOTCONN;
    default:
      return -EIO;
  }
}

Wire_Kind kind_of(const natsMsg *message) {
  Wire_Header header = {};
  if (natsMsg_GetDataLength(message) >= static_cast<int>(sizeof(header)))
    memcpy(&header, natsMsg_GetData(message), sizeof(header));
  return header.kind;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ connecting

// Only unusable bus files are final. A server that refuses the member may do so at any moment after the connection is
// made; revive() tries again.
int Bus::start() {
  loop_thread_ = std::this_thread::get_id();
  unlink(files_.connected_mark.c_str());  // left by a service that was killed
  struct sigaction interruption = {};     // without SA_RESTART
  interruption.sa_handler = [](int) {};
  sigaction(kInterruptSignal, &interruption, nullptr);
  const int result = poll_.start();
  if (result != 0) return result;
  return begin_to_connect() == -EINVAL ? -EINVAL : 0;
}

int Bus::set_options(natsOptions *options, const std::string &url) {
  const std::string authority = files_.folder + "/ca.crt";
  const std::string certificate = files_.folder + "/member.crt";
  const std::string key = files_.folder + "/member.key";
  const std::string inbox = "tarn.inbox." + identity_.bus_name();

  natsStatus status = natsOptions_SetURL(options, url.c_str());
  if (status == NATS_OK) status = natsOptions_SetName(options, identity_.bus_name().c_str());
  if (status == NATS_OK) status = natsOptions_SetSecure(options, true);
  if (status == NATS_OK) status = natsOptions_LoadCATrustedCertificates(options, authority.c_str());
  if (status == NATS_OK) status = natsOptions_LoadCertificatesChain(options, certificate.c_str(), key.c_str());
  if (status == NATS_OK) status = natsOptions_SetExpectedHostname(options, kServerName);
  if (status == NATS_OK) status = natsOptions_SetCustomInboxPrefix(options, inbox.c_str());
  if (status == NATS_OK) status = natsOptions_SetIgnoreDiscoveredServers(options, true);
  if (status == NATS_OK) status = natsOptions_SetFailRequestsOnDisconnect(options, true);
  // The client keeps the rest of a message that the old connection broke off, and would take the new one's first bytes
  // for its end when an event loop reads for it: revive() makes a new connection instead. So nothing is kept for later
  // while the bus is away either: a command that failed must not be carried out after all.
  if (status == NATS_OK) status = natsOptions_SetAllowReconnect(options, false);
  if (status == NATS_OK) status = natsOptions_SetTimeout(options, kConnectMs);
  if (status == NATS_OK) status = natsOptions_SetPingInterval(options, kPingIntervalMs);
  if (status == NATS_OK) status = natsOptions_SetMaxPingsOut(options, 2);
  // Without it a published message waits for the client's next flush, a millisecond.
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, true);
  if (status == NATS_OK) status = poll_.serve(options);
  if (status == NATS_OK) status = natsOptions_SetDisconnectedCB(options, on_disconnected, this);
  if (status == NATS_OK) status = natsOptions_SetErrorHandler(options, on_error, this);
  if (status == NATS_OK) return 0;
  log_line("the bus files in %s are unusable: %s", files_.folder.c_str(), natsStatus_GetText(status));
  return -EINVAL;
}

// The connection is made by a thread of its own, since that waits for the other end; process() takes it.
int Bus::begin_to_connect() {
  if (connector_.joinable()) return 0;  // take_attempt() and revive() come back to it
  std::string url;
  int result = read_bus_url(files_.folder, identity_, &url);
  if (result != 0) return result;
  natsOptions *made = nullptr;
  if (natsOptions_Create(&made) != NATS_OK) return -ENOMEM;
  const std::shared_ptr<natsOptions> options(made, Nats_Release());
  result = set_options(made, url);
  if (result != 0) return result;
  url_ = url;
  attempt_end_ = Clock::now() + kLongestAttempt;
  try {
    connector_ = std::thread([this, options] { connect(options.get()); });
  } catch (const std::system_error &) {
    return -EAGAIN;
  }
  return 0;
}

void Bus::connect(natsOptions *options) {
  natsConnection *raw = nullptr;
  const natsStatus status = natsConnection_Connect(&raw, options);
  const std::scoped_lock lock(mutex_);
  attempt_ = Attempt{status, Nats_Connection(raw, Nats_Release())};
  poll_.wake();
}

void Bus::take_attempt() {
  std::optional<Attempt> attempt;
  {
    const std::scoped_lock lock(mutex_);
    attempt.swap(attempt_);
  }
  if (!attempt) return;
  connector_.join();
  if (attempt->status != NATS_OK) return log_trouble(natsStatus_GetText(attempt->status));
  if (subscribe_requests(attempt->connection) != 0) return;
  Bus_Poll::flush(attempt->connection.get());  // who sees that it is connected may send a request at once
  {
    const std::scoped_lock lock(mutex_);
    connection_ = attempt->connection;
  }
  set_connected(true);
  follow_address();  // it may have become another one meanwhile
}

// The client has no limit for the TLS handshake, in which the other end may fall silent. A signal breaks it off.
void Bus::interrupt_attempt() {
  if (connector_.joinable()) pthread_kill(connector_.native_handle(), kInterruptSignal);
}

void Bus::drop_attempt() {
  while (connector_.joinable()) {
    {
      const std::scoped_lock lock(mutex_);
      if (attempt_) break;
    }
    interrupt_attempt();
    usleep(10000);
  }
  if (connector_.joinable()) connector_.join();
  attempt_.reset();
}

// One queue group: should a member's service run twice, a command still runs once.
int Bus::subscribe_requests(const Nats_Connection &connection) {
  const std::string subject = identity_.is_master ? "tarn.master.*" : "tarn.slave." + identity_.slave_id;
  natsSubscription *subscription = nullptr;
  const natsStatus status =
      natsConnection_QueueSubscribeSync(&subscription, connection.get(), subject.c_str(), "tarnclusterd");
  if (status != NATS_OK) return code_of(status);
  requests_.reset(subscription);
  return 0;
}

void Bus::revive() {
  if (is_stopping()) return;
  if (is_address_doubtful_.exchange(false)) follow_address();
  const Nats_Connection current = connection();
  if (current && !natsConnection_IsClosed(current.get())) return;
  if (current) {
    log_trouble_of(current.get());
    give_up_connection();
  }
  if (attempt_end_ <= Clock::now()) interrupt_attempt();
  begin_to_connect();
}

void Bus::follow_address() {
  std::string url;
  if (is_stopping() || read_bus_url(files_.folder, identity_, &url) != 0 || url == url_) return;
  log_line("the bus is now at %s", url.c_str());
  give_up_connection();
  begin_to_connect();
}

void Bus::give_up_connection() {
  Nats_Connection old;
  {
    const std::scoped_lock lock(mutex_);
    old.swap(connection_);
    unanswered_.clear();  // the server takes no answer to them from another connection
  }
  ++losses_;
  set_connected(false);
  requests_.reset();
  if (old) natsConnection_Close(old.get());
  poll_.wake();  // no question that is open will be answered
}

void Bus::log_trouble(const std::string &trouble) {
  if (trouble != trouble_) log_line("cannot reach the bus: %s", trouble.c_str());
  trouble_ = trouble;
}

void Bus::log_trouble_of(natsConnection *connection) {
  const char *detail = nullptr;
  const natsStatus status = natsConnection_GetLastError(connection, &detail);
  if (status != NATS_OK)
    log_trouble(std::string(natsStatus_GetText(status)) + ": " + (detail == nullptr ? "" : detail));
}

void Bus::stop() {
  drop_attempt();
  give_up_connection();
  free_inboxes_.clear();
  free_messages();
  const std::vector<Question> unanswered = std::move(questions_);
  questions_.clear();
  for (const Question &question : unanswered) question.receiver(-ESHUTDOWN, {});
}

Nats_Connection Bus::connection() const {
  const std::scoped_lock lock(mutex_);
  return connection_;
}

void Bus::set_connected(bool connected) {
  if (connected_.exchange(connected) == connected) return;
  log_line(connected ? "connected" : "not connected");
  if (connected) trouble_.clear();
  if (!connected) {
    unlink(files_.connected_mark.c_str());
    return;
  }
  const Descriptor mark(open(files_.connected_mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
}

// ------------------------------------------------------------------------------------------------ the client's
// callbacks

// What a connection tells that was given up no longer counts, however late it comes: the questions of the next one are
// not lost. revive() sees one that broke before it was taken.
void Bus::on_disconnected(natsConnection *connection, void *bus) {
  Bus *self = static_cast<Bus *>(bus);
  const std::scoped_lock lock(self->mutex_);
  if (self->connection_.get() != connection) return;
  ++self->losses_;
  self->set_connected(false);
  self->poll_.wake();  // no question that is open will be answered
}

void Bus::on_error(natsConnection *connection, natsSubscription *, natsStatus status, void *) {
  const char *detail = nullptr;
  natsConnection_GetLastError(connection, &detail);
  log_line("bus: %s %s", natsStatus_GetText(status), detail == nullptr ? "" : detail);
}

// ------------------------------------------------------------------------------------------------ the loop's thread

void Bus::process() {
  take_attempt();
  const Nats_Connection connection = this->connection();
  poll_.process(connection.get());
  take_requests();
  take_answers();
  if (connection) Bus_Poll::flush(connection.get());
}

void Bus::take_requests() {
  for (natsMsg *raw = nullptr; requests_ && natsSubscription_NextMsg(&raw, requests_.get(), 0) == NATS_OK;)
    on_request(raw);
}

void Bus::on_request(natsMsg *raw) {
  const Nats_Message message(raw, Nats_Release());
  if (kind_of(raw) == Wire_Kind::is_at_work) {
    Message question;
    return answer(message, reply_of(decode_message(message, &question) ? progress_of(question.text) : -EINVAL));
  }
  note_request(message);
  std::string sender = kMasterId;
  if (identity_.is_master) {
    const std::string subject = natsMsg_GetSubject(raw);
    sender = subject.substr(subject.rfind('.') + 1);
  }
  receiver_(sender, message);
}

void Bus::note_request(const Nats_Message &request) {
  const char *subject = natsMsg_GetReply(request.get());
  if (subject == nullptr) return;
  const std::scoped_lock lock(mutex_);
  unanswered_.insert(subject);
}

int Bus::progress_of(const std::string &reply_subject) {
  const std::scoped_lock lock(mutex_);
  return unanswered_.contains(reply_subject) ? 0 : -ESRCH;
}

void Bus::take_answers() {
  // A receiver may ask anew: the vector may grow meanwhile.
  for (size_t i = 0; i < questions_.size();) {
    if (conclude(&questions_[i])) {
      questions_[i] = std::move(questions_.back());
      questions_.pop_back();
    } else {
      ++i;
    }
  }
}

// ------------------------------------------------------------------------------------------------ requests

std::string Bus::subject_to(const std::string &member) const {
  return identity_.is_master ? "tarn.slave." + member : "tarn.master." + identity_.slave_id;
}

int Bus::request(const std::string &member, const Message &message, Deadline deadline, Message *answer) {
  if (!fits(message)) return -EMSGSIZE;
  const Nats_Connection connection = this->connection();
  if (!connection || natsConnection_Status(connection.get()) != NATS_CONN_STATUS_CONNECTED) return -ENOTCONN;

  const std::string bytes = encode(message);
  natsMsg *raw = nullptr;
  const natsStatus status = natsConnection_Request(&raw, connection.get(), subject_to(member).c_str(), bytes.data(),
                                                   static_cast<int>(bytes.size()), std::max(remaining_ms(deadline), 1));
  if (status != NATS_OK) return code_of(status);
  const Nats_Message received(raw, Nats_Release());
  return decode_message(received, answer) ? 0 : -EBADMSG;
}

int Bus::take_inbox(const Nats_Connection &connection, Inbox *inbox) {
  while (!free_inboxes_.empty()) {
    *inbox = std::move(free_inboxes_.back());
    free_inboxes_.pop_back();
    if (inbox->connection == connection) return 0;  // else of a connection that was given up
  }
  const std::string name = random_name();
  if (name.empty()) return -EIO;
  inbox->connection = connection;
  inbox->subject = "tarn.inbox." + identity_.bus_name() + "." + name;
  return subscribe(connection, inbox->subject, &inbox->subscription);
}

int Bus::ask(const std::string &member, const Message &message, Deadline deadline, Answer_Receiver receiver) {
  return begin_question(member, message, deadline, Clock::now() + kFirstCheckAfter, std::move(receiver));
}

int Bus::begin_question(const std::string &member, const Message &message, Deadline deadline, Deadline first_check,
                        Answer_Receiver receiver) {
  if (!fits(message)) return -EMSGSIZE;
  const Nats_Connection connection = this->connection();
  if (!connection || natsConnection_Status(connection.get()) != NATS_CONN_STATUS_CONNECTED) return -ENOTCONN;

  Question question{{}, deadline, losses_, std::move(receiver), member, next_question_++, first_check};
  const int result = take_inbox(connection, &question.inbox);
  if (result != 0) return result;
  const std::string bytes = encode(message);
  const natsStatus status =
      natsConnection_PublishRequest(connection.get(), subject_to(member).c_str(), question.inbox.subject.c_str(),
                                    bytes.data(), static_cast<int>(bytes.size()));
  if (status != NATS_OK) return code_of(status);
  flush(connection);
  questions_.push_back(std::move(question));
  return 0;
}

// The other member may have died, or been away from the bus, since it took the question: then no answer will come, and
// whoever asked need not wait until the question's end.
void Bus::check_questions() {
  const Deadline now = Clock::now();
  const size_t count = questions_.size();  // a check is a question as well
  for (size_t i = 0; i < count; ++i) {
    if (questions_[i].next_check > now || questions_[i].is_lost) continue;
    questions_[i].next_check = Deadline::max();  // until it is concluded
    check(questions_[i]);
  }
}

void Bus::check(const Question &question) {
  Message message;
  message.kind = Wire_Kind::is_at_work;
  message.text = question.inbox.subject;
  const std::string member = question.member;  // the vector may grow meanwhile
  const uint64_t number = question.number;
  const auto conclude = [this, number](int code, const Message &answer) { conclude_check(number, code, answer.value); };
  const int result = begin_question(member, message, Clock::now() + kLongestCheck, Deadline::max(), conclude);
  if (result != 0) conclude_check(number, result, 0);
}

// The question's answer may have come before that of the check, so conclude() has the last word.
void Bus::conclude_check(uint64_t number, int code, int progress) {
  const Deadline now = Clock::now();
  for (Question &question : questions_) {
    if (question.number != number) continue;
    question.is_lost = code == -EHOSTUNREACH || (code == 0 && progress == -ESRCH);
    question.next_check = question.is_lost || code == -ETIME ? now : now + kCheckEvery;
  }
}

// True when it has its answer, or will have none.
bool Bus::conclude(Question *question) {
  natsMsg *raw = nullptr;
  const natsStatus status = natsSubscription_NextMsg(&raw, question->inbox.subscription.get(), 0);
  const Nats_Message received(raw, Nats_Release());
  int code = code_of(status);
  if (status == NATS_TIMEOUT) {
    if (question->losses != losses_ || question->is_lost) {
      code = -ECONNRESET;
    } else if (question->deadline > Clock::now()) {
      return false;
    }
  }
  free_later(received);
  Message answer;
  if (code == 0 && !decode_message(received, &answer)) code = -EBADMSG;
  const bool is_inbox_empty = status == NATS_OK || status == NATS_NO_RESPONDERS;
  if (is_inbox_empty && free_inboxes_.size() < kInboxesKept) free_inboxes_.push_back(std::move(question->inbox));
  const Answer_Receiver receiver = std::move(question->receiver);
  receiver(code, std::move(answer));
  return true;
}

Deadline Bus::next_deadline() const {
  Deadline next = Deadline::max();
  for (const Question &question : questions_) next = std::min({next, question.deadline, question.next_check});
  return next;
}

void Bus::end_late_questions() {
  if (next_deadline() > Clock::now()) return;
  check_questions();
  take_answers();
}

void Bus::answer(const Nats_Message &request, const Message &message) {
  const char *subject = natsMsg_GetReply(request.get());
  const Nats_Connection connection = this->connection();
  if (subject == nullptr || !connection) return;
  const std::string bytes = encode(message);
  const natsStatus status =
      natsConnection_Publish(connection.get(), subject, bytes.data(), static_cast<int>(bytes.size()));
  if (status != NATS_OK) log_line("an answer was lost: %s", natsStatus_GetText(status));
  flush(connection);
  {
    const std::scoped_lock lock(mutex_);
    unanswered_.erase(subject);  // not before it is on its way
  }
  free_later(request);
}

void Bus::free_later(const Nats_Message &message) {
  if (!message || std::this_thread::get_id() != loop_thread_) return;
  if (natsMsg_GetDataLength(message.get()) > kLongestKept) return;
  if (spent_.size() >= kMessagesKept) free_messages();
  spent_.push_back(message);
}

// What another thread publishes is written by the loop's, which is woken for it.
void Bus::flush(const Nats_Connection &connection) {
  if (std::this_thread::get_id() == loop_thread_) Bus_Poll::flush(connection.get());
}

bool Bus::decode_message(const Nats_Message &bytes, Message *message) {
  return decode({natsMsg_GetData(bytes.get()), static_cast<size_t>(natsMsg_GetDataLength(bytes.get()))}, message);
}

// ------------------------------------------------------------------------------------------------ file transfers

int Bus::subscribe(const Nats_Connection &connection, const std::string &subject,
                   Nats_Owner<natsSubscription> *subscription) {
  natsSubscription *raw = nullptr;
  const natsStatus status = natsConnection_SubscribeSync(&raw, connection.get(), subject.c_str());
  if (status != NATS_OK) return code_of(status);
  subscription->reset(raw);
  return 0;
}

int Bus::ask_session(const std::string &member, const std::string &session, Bus_Channel *channel) {
  const std::string inbox = random_name();
  if (inbox.empty()) return -EIO;
  channel->bus_ = this;
  channel->losses_ = losses_;
  channel->connection_ = connection();
  if (!channel->connection_) return -ENOTCONN;
  channel->subject_ = subject_to(member) + "." + session;
  channel->reply_prefix_ = "tarn.inbox." + identity_.bus_name() + "." + inbox + ".";
  return subscribe(channel->connection_, channel->reply_prefix_ + "*", &channel->subscription_);
}

int Bus::answer_session(const std::string &asking_member, const std::string &session, Bus_Channel *channel) {
  channel->bus_ = this;
  channel->losses_ = losses_;
  channel->connection_ = connection();
  if (!channel->connection_) return -ENOTCONN;
  const std::string subject =
      (identity_.is_master ? "tarn.master." + asking_member : "tarn.slave." + identity_.slave_id) + "." + session;
  return subscribe(channel->connection_, subject, &channel->subscription_);
}

// Every message has a reply subject of its own, since the server lets each be answered once.
int Bus_Channel::send(const Message &message) {
  if (losses_ != bus_->losses_) return -ECONNRESET;
  const std::string bytes = encode(message);
  const std::string reply_subject = reply_prefix_ + std::to_string(++sent_);
  const int result = code_of(natsConnection_PublishRequest(connection_.get(), subject_.c_str(), reply_subject.c_str(),
                                                           bytes.data(), static_cast<int>(bytes.size())));
  // The client may know of a loss before it has told; the conversation was under way all the same.
  return result == -ENOTCONN ? -ECONNRESET : result;
}

int Bus_Channel::receive(Message *message, int timeout_ms) {
  constexpr int kLookAroundMs = 500;  // a lost connection and the service's end are noticed this soon
  const Deadline deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    natsMsg *raw = nullptr;
    const int result =
        code_of(natsSubscription_NextMsg(&raw, subscription_.get(), std::min(remaining_ms(deadline), kLookAroundMs)));
    received_.reset(raw, Nats_Release());
    if (result == 0) return Bus::decode_message(received_, message) ? 0 : -EBADMSG;
    if (result != -ETIME) return result;
    if (is_stopping()) return -ESHUTDOWN;
    if (losses_ != bus_->losses_) return -ECONNRESET;
    if (remaining_ms(deadline) == 0) return -ETIME;
  }
}

int Bus_Channel::answer(const Message &message) {
  const std::string bytes = encode(message);
  return code_of(natsConnection_Publish(connection_.get(), natsMsg_GetReply(received_.get()), bytes.data(),
                                        static_cast<int>(bytes.size())));
}

}  // namespace tarn::platform
