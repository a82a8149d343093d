// A client of the bus that is not a cluster service: what somebody with a member's certificate, another's or none can
// do.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <memory>
#include <string>

namespace tarn::test {

struct Client_Options {
  std::string authority;    // file of the certificate to trust the server by; empty: trusts any
  std::string certificate;  // folder of member.crt and member.key; empty: none
  int port = 4222;
};

class Bus_Client {
 public:
  explicit Bus_Client(const Client_Options &options);
  ~Bus_Client();
  Bus_Client(const Bus_Client &) = delete;
  Bus_Client &operator=(const Bus_Client &) = delete;

  bool is_connected() const { return connection_ != nullptr; }
  void publish(const std::string &subject, const std::string &bytes, const std::string &reply_subject = "");
  void flush();                                   // returns when the server has seen everything sent so far
  int violations() const { return violations_; }  // of the permissions, as the server has told

  class Subscription {
   public:
    ~Subscription() { natsSubscription_Destroy(subscription_); }
    bool receives(const std::string &bytes, int timeout_ms);  // the next message is this one
    bool receives_nothing(int timeout_ms);
    std::string reply_subject() const { return reply_subject_; }  // of the message received last

   private:
    friend class Bus_Client;
    natsSubscription *subscription_ = nullptr;
    std::string reply_subject_;
  };
  std::unique_ptr<Subscription> subscribe(const std::string &subject);

  // Sends a request and answers the bytes of its answer; empty when there is none.
  std::string request(const std::string &subject, const std::string &bytes);

 private:
  natsOptions *options_ = nullptr;
  natsConnection *connection_ = nullptr;
  std::atomic<int> violations_ = 0;
};

}  // namespace tarn::test
