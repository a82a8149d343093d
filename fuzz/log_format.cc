// Any arguments through Simp_Log_Write: the line in the file is the one that printf makes, in its frame. Any time
// through the frame's own formatter.
#include <fuzzer/FuzzedDataProvider.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::fuzz {
namespace {

constexpr size_t line_limit = 4176;  // a message of this length is refused, and a line of this length is cut

struct Codes {
  int hour_system;
  int date_format;
};

std::string prefix_at(time_t t, const Codes &codes) {
  char prefix[40];
  REQUIRE_EQUAL(Log_DateTime_Format(t, prefix, codes.hour_system, codes.date_format), 0);
  return prefix;
}

// What is expected of a message, formatted without the library.
struct Message {
  int length;  // negative: it cannot be formatted
  int failure;
  std::string text;
};

template <typename... Arguments>
Message message_of(const char *format, Arguments... arguments) {
  errno = 0;
  std::vector<char> buffer(16);
  int length = snprintf(buffer.data(), buffer.size(), format, arguments...);
  const int failure = errno;
  if (length < 0) return {length, failure, ""};
  buffer.resize(static_cast<size_t>(length) + 1);
  snprintf(buffer.data(), buffer.size(), format, arguments...);
  return {length, failure, std::string(buffer.data(), static_cast<size_t>(length))};
}

std::string line_of(const std::string &prefix, const std::string &message) {
  std::string line = (prefix + message).substr(0, line_limit - 1);
  if (line.back() != '\n') line += '\n';
  return line;
}

class Subject {
 public:
  explicit Subject(const Codes &codes) : codes_(codes) {
    Simp_Log *handle = nullptr;
    REQUIRE_EQUAL(Simp_Log_Create(path().c_str(), &handle, codes.hour_system, codes.date_format, 0), 0);
    handle_.reset(handle);
    REQUIRE_EQUAL(Simp_Log_Open(handle, 1), 0);
  }

  template <typename... Arguments>
  void check(const char *format, Arguments... arguments) const {
    const Message message = message_of(format, arguments...);
    const std::string early = prefix_at(time(nullptr), codes_);
    const int status = Simp_Log_Write(handle_.get(), format, arguments...);
    const std::string late = prefix_at(time(nullptr), codes_);
    const std::string content = test::read_file(path());
    if (message.length < 0 || static_cast<size_t>(message.length) >= line_limit) {
      REQUIRE_EQUAL(status, message.failure != 0 ? -message.failure : -EOVERFLOW);
      REQUIRE_EQUAL(content, std::string());
      return;
    }
    REQUIRE_EQUAL(status, 0);
    if (content != line_of(early, message.text)) REQUIRE_EQUAL(content, line_of(late, message.text));
  }

 private:
  static std::string path() {
    static const test::Temporary_Folder folder;
    return folder / "log";
  }

  struct Release {
    void operator()(Simp_Log *handle) const { Simp_Log_Release(handle); }
  };

  Codes codes_;
  std::unique_ptr<Simp_Log, Release> handle_;
};

void check_line(FuzzedDataProvider *input, const Codes &codes) {
  const Subject subject(codes);
  const int choice = input->ConsumeIntegralInRange(0, 8);
  const int width = input->ConsumeIntegralInRange(-5000, 5000);
  const auto number = input->ConsumeIntegral<int64_t>();
  const std::string text = input->ConsumeRemainingBytesAsString();
  switch (choice) {
    case 0:
      return subject.check("%s", text.c_str());
    case 1:
      return subject.check("%.*s", width, text.c_str());
    case 2:
      return subject.check("[%*s]\n", width, text.c_str());
    case 3:
      return subject.check("[error] %s(%d): \"%s\"! (%d)\n", "Example", width, text.c_str(), static_cast<int>(number));
    case 4:
      return subject.check("%lld %08llx %c", static_cast<long long>(number), static_cast<unsigned long long>(number),
                           static_cast<int>(number));
    case 5:
      return subject.check("%0*lld\n\n", width, static_cast<long long>(number));
    case 6:
      return subject.check("%.*f", width, static_cast<double>(number));
    case 7:
      return subject.check("%s %lc", text.c_str(), static_cast<wint_t>(number));  // may be no character at all
    default:
      return subject.check("%-*s|", width, text.c_str());
  }
}

void check_frame(time_t t, const Codes &codes) {
  constexpr size_t promised_bytes = 40;
  const std::unique_ptr<char[]> frame(new char[promised_bytes]);  // one byte more would be noticed
  REQUIRE_EQUAL(Log_DateTime_Format(t, frame.get(), codes.hour_system, codes.date_format), 0);
  const std::string text = frame.get();
  char time_of_day[32] = "";
  char date[32] = "";
  Change_Time_To_String_By_Format_Ex(t, time_of_day, 12, 0, codes.hour_system);
  Change_Date_To_String_By_Format_Ex(t, date, 12, codes.date_format);
  std::string expected = "[" + std::string(date);
  expected.resize(12, ' ');
  REQUIRE_EQUAL(text, expected + time_of_day + "] ");
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tarn::fuzz;
  FuzzedDataProvider input(data, size);
  const Codes codes = {input.ConsumeBool() ? 12 : input.ConsumeIntegral<int>(),
                       input.ConsumeBool() ? input.ConsumeIntegralInRange(0, 10) : input.ConsumeIntegral<int>()};
  const auto t = input.ConsumeIntegral<time_t>();
  check_frame(input.ConsumeBool() ? t : t % 400000000000, codes);
  check_line(&input, codes);
  return 0;
}
