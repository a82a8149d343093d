#include "tests/platform/bus_client.h"

#include <cstring>

namespace tarn::test {

namespace {

void count_violation(natsConnection *connection, natsSubscription *, natsStatus, void *violations) {
  const char *text = nullptr;
  natsConnection_GetLastError(connection, &text);
  if (text != nullptr && strcasestr(text, "permissions violation") != nullptr)
    ++*static_cast<std::atomic<int> *>(violations);
}

}  // namespace

Bus_Client::Bus_Client(const Client_Options &options) {
  natsOptions_Create(&options_);
  natsOptions_SetURL(options_, ("tls://127.0.0.1:" + std::to_string(options.port)).c_str());
  natsOptions_SetSecure(options_, true);
  if (options.authority.empty()) {
    natsOptions_SkipServerVerification(options_, true);
  } else {
    natsOptions_LoadCATrustedCertificates(options_, options.authority.c_str());
    natsOptions_SetExpectedHostname(options_, "tarncluster-bus");
  }
  if (!options.certificate.empty()) {
    natsOptions_LoadCertificatesChain(options_, (options.certificate + "/member.crt").c_str(),
                                      (options.certificate + "/member.key").c_str());
  }
  natsOptions_SetAllowReconnect(options_, false);
  natsOptions_SetErrorHandler(options_, count_violation, &violations_);
  const std::string name = options.certificate.substr(options.certificate.rfind('/') + 1);
  natsOptions_SetCustomInboxPrefix(options_, ("tarn.inbox." + (name.empty() ? "x" : name)).c_str());
  natsConnection_Connect(&connection_, options_);
}

Bus_Client::~Bus_Client() {
  natsConnection_Destroy(connection_);
  natsOptions_Destroy(options_);
}

void Bus_Client::publish(const std::string &subject, const std::string &bytes, const std::string &reply_subject) {
  natsConnection_PublishRequest(connection_, subject.c_str(), reply_subject.empty() ? "unused" : reply_subject.c_str(),
                                bytes.data(), static_cast<int>(bytes.size()));
}

void Bus_Client::flush() {
  natsConnection_FlushTimeout(connection_, 30000);
}

std::unique_ptr<Bus_Client::Subscription> Bus_Client::subscribe(const std::string &subject) {
  auto subscription = std::make_unique<Subscription>();
  natsConnection_SubscribeSync(&subscription->subscription_, connection_, subject.c_str());
  flush();
  return subscription;
}

bool Bus_Client::Subscription::receives(const std::string &bytes, int timeout_ms) {
  natsMsg *message = nullptr;
  if (natsSubscription_NextMsg(&message, subscription_, timeout_ms) != NATS_OK) return false;
  const std::string received(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
  reply_subject_ = natsMsg_GetReply(message) == nullptr ? "" : natsMsg_GetReply(message);
  natsMsg_Destroy(message);
  return received == bytes;
}

bool Bus_Client::Subscription::receives_nothing(int timeout_ms) {
  natsMsg *message = nullptr;
  const natsStatus status = natsSubscription_NextMsg(&message, subscription_, timeout_ms);
  natsMsg_Destroy(message);
  return status != NATS_OK;
}

std::string Bus_Client::request(const std::string &subject, const std::string &bytes) {
  natsMsg *message = nullptr;
  if (natsConnection_Request(&message, connection_, subject.c_str(), bytes.data(), static_cast<int>(bytes.size()),
                             30000) != NATS_OK) {
    return {};
  }
  std::string answer(natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message)));
  natsMsg_Destroy(message);
  return answer;
}

}  // namespace tarn::test
