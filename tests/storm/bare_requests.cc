#include "tests/storm/bare_requests.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tests/platform/tls_client.h"

namespace tarn::test {

natsConnection *connect_as(const std::string &id, const Bus_Place &place) {
  const std::string inbox = "tarn.inbox." + id;
  const std::string &folder = place.certificate;
  natsOptions *options = nullptr;
  natsConnection *connection = nullptr;
  natsOptions_Create(&options);
  natsOptions_SetURL(options, place.url.c_str());
  natsOptions_SetSecure(options, true);
  natsOptions_LoadCATrustedCertificates(options, place.authority.c_str());
  natsOptions_LoadCertificatesChain(options, (folder + "/member.crt").c_str(), (folder + "/member.key").c_str());
  natsOptions_SetExpectedHostname(options, "tarncluster-bus");
  natsOptions_SetCustomInboxPrefix(options, inbox.c_str());
  natsOptions_SetSendAsap(options, true);
  const natsStatus status = natsConnection_Connect(&connection, options);
  natsOptions_Destroy(options);
  if (status == NATS_OK) return connection;
  fprintf(stderr, "cannot connect as %s: %s\n", id.c_str(), natsStatus_GetText(status));
  _exit(1);
}

static void answer(natsConnection *connection, natsSubscription *, natsMsg *message, void *) {
  natsConnection_Publish(connection, natsMsg_GetReply(message), natsMsg_GetData(message),
                         natsMsg_GetDataLength(message));
  natsMsg_Destroy(message);
}

void answer_for_ever(natsConnection *connection, const std::string &subject) {
  natsSubscription *subscription = nullptr;
  if (natsConnection_Subscribe(&subscription, connection, subject.c_str(), answer, nullptr) != NATS_OK) _exit(1);
  for (;;) pause();
}

std::string ask(natsConnection *connection, const std::string &subject, const std::string &payload) {
  natsMsg *reply = nullptr;
  std::string bytes;
  if (natsConnection_Request(&reply, connection, subject.c_str(), payload.data(), static_cast<int>(payload.size()),
                             30000) == NATS_OK)
    bytes.assign(natsMsg_GetData(reply), static_cast<size_t>(natsMsg_GetDataLength(reply)));
  natsMsg_Destroy(reply);
  return bytes;
}

std::string command_bytes(const std::string &command, const std::string &argument) {
  return message_bytes(platform::Wire_Kind::command, command, argument, 30000);
}

double microseconds_of(const std::function<bool()> &step) {
  const auto start = std::chrono::steady_clock::now();
  if (!step()) {
    fprintf(stderr, "a request failed\n");
    _exit(1);
  }
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> *times) {
  std::nth_element(times->begin(), times->begin() + static_cast<ptrdiff_t>(times->size() / 2), times->end());
  return (*times)[times->size() / 2];
}

}  // namespace tarn::test
