#include "platform/clusterd/bus.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/clusterd/log.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

// The name in the bus server's certificate. It is longer than any member's, so no member can pose as the server.
constexpr char kServerName[] = "tarncluster-bus";

constexpr int kReconnectWaitMs = 500;
constexpr int kPingIntervalMs = 10000;

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

int read_url(const std::string &folder, std::string *url) {
  const std::string path = folder + "/bus.conf";
  char text[300];
  int size = sizeof(text);
  const int result = Get_Conf_File_String_Value(path.c_str(), "bus", "url", text, &size);
  if (result != 0) {
    log_line("cannot read the bus's address (url of section bus) from %s (%d)", path.c_str(), result);
    return result < 0 ? result : -EINVAL;
  }
  *url = text;
  if (url->starts_with("tls://")) return 0;
  log_line("%s: the bus is reached by tls:// only", path.c_str());
  return -EINVAL;
}

}  // namespace

// ------------------------------------------------------------------------------------------------ connecting

// Only unusable bus files are final. A server that refuses the member may do so at any moment after the connection is
// made; revive() tries again.
int Bus::start() {
  return connect() == -EINVAL ? -EINVAL : 0;
}

int Bus::set_options(natsOptions *options) {
  std::string url;
  const int result = read_url(files_.folder, &url);
  if (result != 0) return result;
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
  // Nothing is kept for later while the bus is away: a command that failed must not be carried out after all.
  if (status == NATS_OK) status = natsOptions_SetReconnectBufSize(options, 1);
  if (status == NATS_OK) status = natsOptions_SetFailRequestsOnDisconnect(options, true);
  if (status == NATS_OK) status = natsOptions_SetMaxReconnect(options, -1);
  if (status == NATS_OK) status = natsOptions_SetReconnectWait(options, kReconnectWaitMs);
  if (status == NATS_OK) status = natsOptions_SetReconnectJitter(options, kReconnectWaitMs, kReconnectWaitMs);
  if (status == NATS_OK) status = natsOptions_SetPingInterval(options, kPingIntervalMs);
  if (status == NATS_OK) status = natsOptions_SetMaxPingsOut(options, 2);
  // Without it a published message waits for the client's next flush, a millisecond.
  if (status == NATS_OK) status = natsOptions_SetSendAsap(options, true);
  if (status == NATS_OK) status = natsOptions_SetRetryOnFailedConnect(options, true, on_connected, this);
  if (status == NATS_OK) status = natsOptions_SetReconnectedCB(options, on_connected, this);
  if (status == NATS_OK) status = natsOptions_SetDisconnectedCB(options, on_disconnected, this);
  if (status == NATS_OK) status = natsOptions_SetErrorHandler(options, on_error, this);
  if (status == NATS_OK) return 0;
  log_line("the bus files in %s are unusable: %s", files_.folder.c_str(), natsStatus_GetText(status));
  return -EINVAL;
}

int Bus::connect() {
  natsOptions *made = nullptr;
  if (natsOptions_Create(&made) != NATS_OK) return -ENOMEM;
  const Nats_Owner<natsOptions> options(made);
  int result = set_options(made);
  if (result != 0) return result;

  natsConnection *raw = nullptr;
  const natsStatus status = natsConnection_Connect(&raw, made);
  if (raw == nullptr) {
    log_line("cannot connect to the bus: %s", natsStatus_GetText(status));
    return status == NATS_OK ? -EIO : code_of(status);
  }
  const Nats_Connection connection(raw, Nats_Release());
  result = subscribe_requests(connection);
  if (result != 0) return result;
  const std::scoped_lock lock(mutex_);
  connection_ = connection;
  if (status == NATS_OK) set_connected(true);
  return 0;
}

// One queue group: should a member's service run twice, a command still runs once.
int Bus::subscribe_requests(const Nats_Connection &connection) {
  const std::string subject = identity_.is_master ? "tarn.master.*" : "tarn.slave." + identity_.slave_id;
  natsSubscription *subscription = nullptr;
  const natsStatus status =
      natsConnection_QueueSubscribe(&subscription, connection.get(), subject.c_str(), "tarnclusterd", on_request, this);
  if (status != NATS_OK) return code_of(status);
  requests_.reset(subscription);
  return 0;
}

void Bus::revive() {
  const Nats_Connection current = connection();
  if (is_stopping() || connected_) return;
  if (current) log_trouble(current.get());
  if (!current || natsConnection_IsClosed(current.get())) connect();
}

void Bus::log_trouble(natsConnection *connection) {
  const char *detail = nullptr;
  const natsStatus status = natsConnection_GetLastError(connection, &detail);
  const std::string trouble = std::string(natsStatus_GetText(status)) + ": " + (detail == nullptr ? "" : detail);
  if (status == NATS_OK || trouble == trouble_) return;
  log_line("cannot reach the bus: %s", trouble.c_str());
  trouble_ = trouble;
}

void Bus::stop() {
  Nats_Connection connection;
  {
    const std::scoped_lock lock(mutex_);
    connection.swap(connection_);
  }
  if (connection) natsConnection_Close(connection.get());
  requests_.reset();
  set_connected(false);
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

void Bus::on_connected(natsConnection *, void *bus) {
  static_cast<Bus *>(bus)->set_connected(true);
}

void Bus::on_disconnected(natsConnection *, void *bus) {
  ++static_cast<Bus *>(bus)->losses_;
  static_cast<Bus *>(bus)->set_connected(false);
}

void Bus::on_error(natsConnection *connection, natsSubscription *, natsStatus status, void *) {
  const char *detail = nullptr;
  natsConnection_GetLastError(connection, &detail);
  log_line("bus: %s %s", natsStatus_GetText(status), detail == nullptr ? "" : detail);
}

void Bus::on_request(natsConnection *, natsSubscription *, natsMsg *raw, void *bus) {
  const Nats_Message message(raw, Nats_Release());
  Bus *self = static_cast<Bus *>(bus);
  std::string sender = kMasterId;
  if (self->identity_.is_master) {
    const std::string subject = natsMsg_GetSubject(raw);
    sender = subject.substr(subject.rfind('.') + 1);
  }
  self->receiver_(sender, message);
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

void Bus::answer(const Nats_Message &request, const Message &message) {
  const char *subject = natsMsg_GetReply(request.get());
  const Nats_Connection connection = this->connection();
  if (subject == nullptr || !connection) return;
  const std::string bytes = encode(message);
  const natsStatus status =
      natsConnection_Publish(connection.get(), subject, bytes.data(), static_cast<int>(bytes.size()));
  if (status != NATS_OK) log_line("an answer was lost: %s", natsStatus_GetText(status));
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
