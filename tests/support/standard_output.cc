#include "tests/support/standard_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "tests/support/files.h"

namespace tarn::test {

std::string output_of(const std::function<void()> &body) {
  Temporary_Folder folder;
  const std::string path = folder / "output";
  fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  dup2(file, STDOUT_FILENO);
  close(file);

  body();

  fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  return read_file(path);
}

}  // namespace tarn::test
