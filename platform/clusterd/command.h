// The command and argument objects of the library's senders, read into records. Anything but an object, and a member of
// the wrong type, counts as missing.
#ifndef TARN_PLATFORM_CLUSTERD_COMMAND_H
#define TARN_PLATFORM_CLUSTERD_COMMAND_H

#include <optional>
#include <string>

namespace tarn::platform {

enum Op_Code {
  kOpCallHandler = 1,
  kOpAddSlave = 2,
  kOpRemoveSlave = 3,
  kOpUpdateNetworkInfo = 4,
  kOpSendFile = 5,
  kOpReceiveFile = 6,
};

struct Command {
  int op_code = 0;
  std::optional<std::string> slave_id;  // exactly one of the two is set
  std::optional<std::string> master_id;
  std::string fname;  // op code 1
};

struct File_Argument {
  std::string source_path;
  std::string destination_path;
  std::optional<std::string> progress;
};

// Each answers 0 or -EINVAL.
int parse_command(const std::string &text, Command *command);
int parse_control_command(const std::string &text, int *op_code);
int parse_file_argument(const std::string &text, File_Argument *argument);

// False when the argument says, in whatever form, that it comes from somebody else than this slave.
bool speaks_for(const std::string &argument, const std::string &slave_id);

// The reply of a file command: its status, and where the file is now, under the identity that the command bore.
std::string file_reply(const Command &command, const std::string &result_path);

}  // namespace tarn::platform

#endif
