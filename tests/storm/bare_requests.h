// Requests on the bus with nothing around them, to measure the cluster's commands by.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tarn::test {

struct Bus_Place {
  std::string url = "tls://127.0.0.1:4222";
  std::string authority;    // the file of its certificate
  std::string certificate;  // the folder of member.crt and member.key
};

// As a cluster service connects; ends the process when it cannot.
natsConnection *connect_as(const std::string &id, const Bus_Place &place);

// Answers each request with its own bytes, and does not return.
[[noreturn]] void answer_for_ever(natsConnection *connection, const std::string &subject);

// The reply's bytes; empty when there is none.
std::string ask(natsConnection *connection, const std::string &subject, const std::string &payload);

// The bytes of a command as the services exchange them, time-out half a minute.
std::string command_bytes(const std::string &command, const std::string &argument);

// How long a step takes; ends the process when it fails.
double microseconds_of(const std::function<bool()> &step);

double median(std::vector<double> *times);

}  // namespace tarn::test
