// Catches what the library reports while it lives.
#pragma once

#include <string>
#include <vector>

#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::test {

struct Log_Line {
  std::string level;     // "error", "debug"
  std::string function;  // the reporting name
  std::string text;      // the message behind "NAME(LINE): ", newlines inside it kept

  bool operator==(const Log_Line &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Log_Line &line);

// Sets g_ptslLog and g_idLogLevel, and puts back what was there before.
class Log_Capture {
 public:
  explicit Log_Capture(int level = 3);
  ~Log_Capture();
  Log_Capture(const Log_Capture &) = delete;
  Log_Capture &operator=(const Log_Capture &) = delete;

  std::vector<Log_Line> lines() const;  // all lines so far
  std::string text() const;             // the raw file
  void clear();

 private:
  Temporary_Folder folder_;
  Simp_Log *handle_ = nullptr;
  Simp_Log *previous_handle_;
  int previous_level_;
};

inline Log_Line error_line(std::string function, std::string text) {
  return {"error", std::move(function), std::move(text)};
}

inline Log_Line debug_line(std::string function, std::string text) {
  return {"debug", std::move(function), std::move(text)};
}

}  // namespace tarn::test
