// Any time, number and text through the formatters of date and time and the conversions of numbers and units. Every
// buffer is as large as the caller promises, so that one byte more is noticed.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"

namespace tarn::fuzz {
namespace {

using Buffer = std::vector<char>;

Buffer buffer_of(int size) {
  return Buffer(static_cast<size_t>(std::max(size, 0)), '#');
}

// ------------------------------------------------------------------------------------------------------ date and time

std::string by_pattern(const tm &local, const char *pattern) {
  char text[128];
  return {text, strftime(text, sizeof text, pattern, &local)};
}

template <typename... Arguments>
std::string printed(const char *format, Arguments... arguments) {
  char text[128];
  snprintf(text, sizeof text, format, arguments...);
  return text;
}

// The pattern's text when it fits; else the text made by hand, as much of it as the promised bytes hold.
std::string fitted(const std::string &by_pattern, const std::string &by_hand, int size, int promised) {
  if (!by_pattern.empty() && by_pattern.size() < static_cast<size_t>(size)) return by_pattern;
  return by_hand.substr(0, static_cast<size_t>(std::max(size, promised)) - 1);
}

std::string date_by_hand(const tm &local, int code) {
  const char separator = "/.-"[(code - 1) % 3];
  const std::string day = printed("%.2d", local.tm_mday);
  const std::string month = printed("%.2d", local.tm_mon + 1);
  const std::string year = printed("%.4ld", local.tm_year + 1900L);
  if (code <= 3) return year + separator + month + separator + day;
  return (code <= 6 ? month + separator + day : day + separator + month) + separator + year;
}

const char *date_pattern(int code) {
  static const char *const patterns[] = {"%Y/%m/%d", "%Y.%m.%d", "%F",       "%m/%d/%Y", "%m.%d.%Y",
                                         "%m-%d-%Y", "%d/%m/%Y", "%d.%m.%Y", "%d-%m-%Y"};
  return patterns[code - 1];
}

void check_date(time_t t, int size, int code) {
  constexpr int promised = 11;
  Buffer buffer = buffer_of(std::max(size, promised));
  const int status = Change_Date_To_String_By_Format_Ex(t, buffer.data(), size, code);
  tm local;
  if (size < 1 || localtime_r(&t, &local) == nullptr) {
    REQUIRE_EQUAL(status, -EINVAL);
    REQUIRE_EQUAL(buffer[0], '#');
    return;
  }
  const int known = code >= 1 && code <= 9 ? code : 1;
  REQUIRE_EQUAL(status, 0);
  REQUIRE_EQUAL(std::string(buffer.data()),
                fitted(by_pattern(local, date_pattern(known)), date_by_hand(local, known), size, promised));
}

std::string time_by_hand(const tm &local, bool with_seconds, bool twelve_hours) {
  const bool afternoon = local.tm_hour >= 12;
  std::string text = printed("%.2d:%.2d", local.tm_hour - (twelve_hours && afternoon ? 12 : 0), local.tm_min);
  if (with_seconds) text += printed(":%.2d", local.tm_sec);
  return twelve_hours ? text + (afternoon ? " PM" : " AM") : text;
}

void check_time(time_t t, int size, int mode, int hour_system) {
  constexpr int promised = 12;
  Buffer buffer = buffer_of(std::max(size, promised));
  const int status = Change_Time_To_String_By_Format_Ex(t, buffer.data(), size, mode, hour_system);
  tm local;
  if (size < 1 || localtime_r(&t, &local) == nullptr) {
    REQUIRE_EQUAL(status, -EINVAL);
    REQUIRE_EQUAL(buffer[0], '#');
    return;
  }
  const bool twelve = hour_system == 12, with_seconds = mode != 1;
  const char *pattern = twelve ? (with_seconds ? "%I:%M:%S %P" : "%I:%M %P") : (with_seconds ? "%T" : "%H:%M");
  REQUIRE_EQUAL(status, 0);
  REQUIRE_EQUAL(std::string(buffer.data()),
                fitted(by_pattern(local, pattern), time_by_hand(local, with_seconds, twelve), size, promised));
}

// ------------------------------------------------------------------------------------------------------------ numbers

void check_number_there_and_back(int64_t number) {
  char text[32];
  int size = 1;
  REQUIRE_EQUAL(Integer_To_Decimal_String(text, &size, number), 0);
  REQUIRE_EQUAL(std::string(text), std::to_string(number));
  int64_t again = 0;
  REQUIRE_EQUAL(Decimal_String_To_Integer(text, &again), static_cast<int>(strlen(text)) - (number < 0 ? 1 : 0));
  REQUIRE_EQUAL(again, number);
}

void check_number_in(const std::string &text) {
  const size_t first = text.starts_with('-') ? 1 : 0;
  const size_t end = std::min(text.find_first_not_of("0123456789", first), text.size());
  int64_t number = 42;
  REQUIRE_EQUAL(Decimal_String_To_Integer(text.c_str(), &number), static_cast<int>(end - first));
  constexpr size_t digits_without_wrap = 18;
  if (end == first) REQUIRE_EQUAL(number, 0);
  if (end > first && end - first <= digits_without_wrap) REQUIRE_EQUAL(number, std::stoll(text.substr(0, end)));
}

// -------------------------------------------------------------------------------------------------------------- units

void check_size(uint64_t size, int unit_size) {
  static const std::string units[] = {"byte", "KB", "MB", "GB", "TB"};
  Buffer whole = buffer_of(5);
  float value = -1;
  REQUIRE_EQUAL(Size_Unit_Conversion(size, &value, whole.data(), 5), 0);
  const std::string unit = whole.data();
  const auto step = std::find(std::begin(units), std::end(units), unit) - std::begin(units);
  REQUIRE(step < 5);
  REQUIRE(step == 0 || value > 1.0F);  // exactly 1024 stays in the lower unit
  REQUIRE(step == 4 || value <= 1024.0F);
  const double exact = std::ldexp(static_cast<double>(size), static_cast<int>(-10 * step));
  REQUIRE(std::fabs(value - exact) <= exact * 1e-6);

  Buffer buffer = buffer_of(unit_size);
  const bool fits = unit_size > static_cast<int>(unit.size());
  float again = -1;
  REQUIRE_EQUAL(Size_Unit_Conversion(size, &again, buffer.data() != nullptr ? buffer.data() : whole.data(), unit_size),
                fits ? 0 : -EOVERFLOW);
  REQUIRE(again == value);
  if (fits) REQUIRE_EQUAL(std::string(buffer.data()), unit);
}

std::string duration(const int (&parts)[4]) {
  static const char *const names[] = {"second", "minute", "hour", "day"};
  std::string text;
  for (int unit = 3; unit >= 0; --unit) {
    if (unit > 0 && parts[unit] == 0) continue;
    text += (text.empty() ? "" : " ") + std::to_string(parts[unit]) + " " + names[unit] + (parts[unit] > 1 ? "s" : "");
  }
  return text;
}

void check_duration(unsigned seconds, int text_size) {
  int parts[4] = {-1, -1, -1, -1};
  Buffer buffer = buffer_of(std::max(text_size, 1));
  const int status = Time_Unit_Conversion(seconds, parts, buffer.data(), text_size);
  REQUIRE(parts[0] >= 0 && parts[0] < 60 && parts[1] >= 0 && parts[1] < 60 && parts[2] >= 0 && parts[2] < 24);
  REQUIRE_EQUAL(parts[0] + 60LL * (parts[1] + 60LL * (parts[2] + 24LL * parts[3])), static_cast<long long>(seconds));
  const std::string text = duration(parts);
  const bool fits = text_size > static_cast<int>(text.size());
  REQUIRE_EQUAL(status, fits ? 0 : -EOVERFLOW);
  if (fits) REQUIRE_EQUAL(std::string(buffer.data()), text);
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tarn::fuzz;
  FuzzedDataProvider input(data, size);
  const auto t = input.ConsumeIntegral<time_t>();
  // Most times have no date that anybody writes; years around the limits of four digits are wanted, too.
  const time_t near = t % 400000000000;
  const int room = input.ConsumeIntegralInRange(-2, 80);
  const int code = input.ConsumeBool() ? input.ConsumeIntegralInRange(0, 10) : input.ConsumeIntegral<int>();
  const int hour_system = input.ConsumeBool() ? 12 : input.ConsumeIntegral<int>();
  const int mode = input.ConsumeIntegralInRange(0, 2);
  for (const time_t any : {t, near}) {
    check_date(any, room, code);
    check_time(any, room, mode, hour_system);
  }
  const auto number = input.ConsumeIntegral<int64_t>();
  check_number_there_and_back(number);
  const unsigned shift = input.ConsumeIntegralInRange(0u, 63u);
  check_size(static_cast<uint64_t>(number) >> shift, std::min(room, 8));
  check_duration(static_cast<unsigned>(static_cast<uint64_t>(number) >> shift), room);
  check_number_in(input.ConsumeRemainingBytesAsString().c_str());
  return 0;
}
