// Any bytes as a message between the cluster services, and as the JSON texts that a message carries: a message that is
// understood is the same bytes when it is sent on, a command that is understood is whole, and the answer to a file
// command can be read by the library. The input is the message; all of it, and both of its texts, are tried as JSON.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "platform/clusterd/command.h"
#include "platform/clusterd/io.h"

namespace tarn::fuzz {
namespace {

using platform::Command;
using platform::File_Argument;
using platform::Message;

struct Free {
  void operator()(char *text) const { free(text); }
};
using Heap_Text = std::unique_ptr<char, Free>;

bool is_absolute_path(const std::string &text) {
  return text.starts_with('/') && text.find('\0') == text.npos;
}

std::string without_backslashes(std::string text) {
  std::erase(text, '\\');
  return text;
}

void check_answer(const Command &command, const std::string &path) {
  const std::string answer = platform::file_reply(command, path);
  int status = 42;
  REQUIRE_EQUAL(Parse_Cluster_Cmd_Status(answer.c_str(), &status), 0);
  REQUIRE_EQUAL(status, 0);
  const bool is_slave = command.slave_id.has_value();
  const std::string &id = is_slave ? *command.slave_id : *command.master_id;
  char *found = nullptr;
  REQUIRE_EQUAL(Parse_Result_Path(answer.c_str(), is_slave ? 0 : 1, id.c_str(), &found), 0);
  const Heap_Text owned(found);
  REQUIRE(found != nullptr);
  REQUIRE_EQUAL(std::string(found), without_backslashes(path));
}

void check_command(const std::string &text, const std::string &path) {
  Command command;
  const int status = platform::parse_command(text, &command);
  REQUIRE(status == 0 || status == -EINVAL);
  int op_code = 42;
  const int control_status = platform::parse_control_command(text, &op_code);
  REQUIRE(control_status == 0 || control_status == -EINVAL);
  if (status != 0) return;

  REQUIRE_EQUAL(control_status, 0);
  REQUIRE_EQUAL(op_code, command.op_code);
  REQUIRE(command.slave_id.has_value() != command.master_id.has_value());
  REQUIRE(command.slave_id.value_or("").find('\0') == std::string::npos);
  REQUIRE(command.master_id.value_or("").find('\0') == std::string::npos);
  REQUIRE(command.fname.find('\0') == std::string::npos);
  check_answer(command, path);
}

std::string check_argument(const std::string &text) {
  File_Argument argument;
  const int status = platform::parse_file_argument(text, &argument);
  REQUIRE(status == 0 || status == -EINVAL);
  if (status != 0) return "/a\\b";
  REQUIRE(is_absolute_path(argument.source_path));
  REQUIRE(is_absolute_path(argument.destination_path));
  REQUIRE(!argument.progress || is_absolute_path(*argument.progress));
  return argument.destination_path;
}

// As the bytes come over a socket, whose other side then goes away.
void check_stream(const std::string &bytes) {
  constexpr int long_enough_ms = 5000;
  int ends[2];
  REQUIRE_EQUAL(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const platform::Descriptor here(ends[0]);
  platform::Descriptor there(ends[1]);
  const platform::Deadline deadline = platform::deadline_after(long_enough_ms);
  REQUIRE_EQUAL(platform::send_exactly(there.get(), bytes, deadline), 0);
  there.reset();

  Message received;
  const int status = platform::receive_message(here.get(), &received, deadline);
  REQUIRE(status == 0 || status == -EBADMSG || status == -ECONNRESET);
  if (status == 0) REQUIRE(bytes.starts_with(platform::encode(received)));
  Message whole;
  if (platform::decode(bytes, &whole)) REQUIRE_EQUAL(status, 0);
}

void check(const std::string &bytes) {
  check_command(bytes, check_argument(bytes));
  check_stream(bytes);
  Message message;
  if (!platform::decode(bytes, &message)) return;
  REQUIRE(platform::fits(message));
  REQUIRE_EQUAL(platform::encode(message), bytes);
  check_command(message.text, check_argument(message.more));
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  tarn::fuzz::check(std::string(reinterpret_cast<const char *>(data), size));
  return 0;
}
