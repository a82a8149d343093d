#include "tests/support/log_capture.h"

#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>

namespace tarn::test {

std::ostream &operator<<(std::ostream &out, const Log_Line &line) {
  return out << "[" << line.level << "] " << line.function << ": " << line.text;
}

Log_Capture::Log_Capture(int level) : previous_handle_(g_ptslLog), previous_level_(g_idLogLevel) {
  const std::string path = folder_.path() + "/capture.log";
  if (Simp_Log_Create(path.c_str(), &handle_, 24, 3, 0) != 0 || Simp_Log_Open(handle_, 1) != 0) {
    throw std::runtime_error("cannot open " + path);
  }
  g_ptslLog = handle_;
  g_idLogLevel = level;
}

Log_Capture::~Log_Capture() {
  g_ptslLog = previous_handle_;
  g_idLogLevel = previous_level_;
  Simp_Log_Release(handle_);
}

std::string Log_Capture::text() const {
  return read_file(handle_->path);
}

std::vector<Log_Line> Log_Capture::lines() const {
  static const std::regex head(
      R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\] \[(error|debug|info)\] ([A-Za-z0-9_]+)\(\d+\): ([^]*))");
  std::vector<Log_Line> found;
  std::istringstream stream(text());
  for (std::string line; std::getline(stream, line);) {
    std::smatch match;
    if (std::regex_match(line, match, head)) {
      found.push_back({match[1], match[2], match[3]});
    } else if (found.empty()) {
      found.push_back({"", "", line});
    } else {
      found.back().text += "\n" + line;
    }
  }
  return found;
}

void Log_Capture::clear() {
  Simp_Log_Open(handle_, 1);
}

}  // namespace tarn::test
