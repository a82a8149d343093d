#include "tests/support/command.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "tests/support/files.h"

namespace tarn::test {

Command_Result run_command(const std::string &command) {
  const Temporary_Folder folder;
  write_file(folder / "command", command);
  FILE *stream = popen(("exec timeout 60 sh " + folder / "command").c_str(), "re");
  if (stream == nullptr) throw std::system_error(errno, std::generic_category(), command);
  Command_Result result;
  char block[65536];
  for (size_t length; (length = fread(block, 1, sizeof block, stream)) > 0;) result.output.append(block, length);
  result.status = WEXITSTATUS(pclose(stream));
  return result;
}

}  // namespace tarn::test
