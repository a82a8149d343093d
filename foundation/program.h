// Running a program by its list of arguments, never through a shell, and reading what it prints.
#pragma once

#include <sys/types.h>

#include "foundation/owners.h"

namespace tarn {

// What a command of the shell prints, or takes. Closing waits for its end.
using Command = std::unique_ptr<FILE, Give_Back<pclose>>;

// A program that runs, and its standard output. Closing ends the reading before it waits, so a talkative program that
// nobody listens to any more ends, too.
class Program {
 public:
  Program() = default;
  ~Program();
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  // arguments: the program's path first, a null pointer last. Returns 0; -errno of the pipe or of the process that
  // cannot be made; a program that cannot be run prints nothing.
  int start(const char *const arguments[]);

  // The first line with its newline, as much as fits, as fgets reads it; false when there is none.
  bool read_line(char *buffer, int size);

 private:
  Stream output_;
  pid_t pid_ = -1;
};

}  // namespace tarn
