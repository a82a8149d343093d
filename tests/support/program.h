// An outside program that runs beside the test, its input and output in the test's hands.
#pragma once

#include <sys/types.h>

#include <initializer_list>
#include <string>

namespace tarn::test {

class Program {
 public:
  // The first word is looked for in PATH. Output and errors come together.
  Program(std::initializer_list<std::string> words);
  ~Program();  // kills it
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  void write(const std::string &text) const;
  void end_input();
  bool prints(const std::string &text);                  // waits for it; false when it does not come within a minute
  const std::string &output() const { return output_; }  // as far as it was waited for
  int wait();                                            // until it ends; the exit status, -1 when it was killed

 private:
  bool read_more();  // false at the end, or when nothing comes within a minute

  pid_t pid_ = -1;
  int input_ = -1;
  int output_end_ = -1;
  std::string output_;
};

}  // namespace tarn::test
