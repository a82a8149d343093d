#include "foundation/date_time.h"

#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tarn {
namespace {

// A date's parts in the order in which a layout shows them.
enum class Date_Order { year_month_day, month_day_year, day_month_year };

struct Date_Format {
  const char *pattern;
  Date_Order order;
  char separator;
};

constexpr std::array<Date_Format, 9> date_formats{{
    {"%Y/%m/%d", Date_Order::year_month_day, '/'},
    {"%Y.%m.%d", Date_Order::year_month_day, '.'},
    {"%F", Date_Order::year_month_day, '-'},
    {"%m/%d/%Y", Date_Order::month_day_year, '/'},
    {"%m.%d.%Y", Date_Order::month_day_year, '.'},
    {"%m-%d-%Y", Date_Order::month_day_year, '-'},
    {"%d/%m/%Y", Date_Order::day_month_year, '/'},
    {"%d.%m.%Y", Date_Order::day_month_year, '.'},
    {"%d-%m-%Y", Date_Order::day_month_year, '-'},
}};

constexpr size_t hand_built_size = 64;

const Date_Format &date_format_of(int code) {
  const bool known = code >= 1 && static_cast<size_t>(code) <= date_formats.size();
  return date_formats[known ? static_cast<size_t>(code) - 1 : 0];
}

// The caller's buffer holds at least `promised` bytes, even where its size says less.
void copy_hand_built(const char *text, char *buffer, int size, int promised) {
  const size_t room = static_cast<size_t>(std::max(size, promised));
  const size_t length = std::min(strlen(text), room - 1);
  memcpy(buffer, text, length);
  buffer[length] = '\0';
}

void build_date(const struct tm &local, const Date_Format &format, char *text) {
  char year[24];
  char month[16];
  char day[16];
  snprintf(year, sizeof year, "%.4ld", local.tm_year + 1900L);
  snprintf(month, sizeof month, "%.2d", local.tm_mon + 1);
  snprintf(day, sizeof day, "%.2d", local.tm_mday);
  const char *parts[3] = {year, month, day};
  if (format.order == Date_Order::month_day_year) {
    parts[0] = month, parts[1] = day, parts[2] = year;
  } else if (format.order == Date_Order::day_month_year) {
    parts[0] = day, parts[1] = month, parts[2] = year;
  }
  snprintf(text, hand_built_size, "%s%c%s%c%s", parts[0], format.separator, parts[1], format.separator, parts[2]);
}

// Differs from the patterns on purpose: capitals, and hours 0 to 11. Callers know both forms.
void build_time(const struct tm &local, bool with_seconds, bool twelve_hours, char *text) {
  const bool afternoon = local.tm_hour >= 12;
  const int hour = twelve_hours && afternoon ? local.tm_hour - 12 : local.tm_hour;
  const char *suffix = twelve_hours ? (afternoon ? " PM" : " AM") : "";
  if (with_seconds) {
    snprintf(text, hand_built_size, "%.2d:%.2d:%.2d%s", hour, local.tm_min, local.tm_sec, suffix);
  } else {
    snprintf(text, hand_built_size, "%.2d:%.2d%s", hour, local.tm_min, suffix);
  }
}

const char *time_pattern(bool with_seconds, bool twelve_hours) {
  if (twelve_hours) return with_seconds ? "%I:%M:%S %P" : "%I:%M %P";
  return with_seconds ? "%T" : "%H:%M";
}

char *put_two_digits(char *place, int number) {
  *place++ = static_cast<char>('0' + number / 10);
  *place++ = static_cast<char>('0' + number % 10);
  return place;
}

// What strftime makes of the patterns whose fields no locale changes, for years of four digits: strftime would take a
// quarter of the time of a log line. Returns the text's end, or null where the pattern is one for strftime.
char *expand_pattern(const struct tm &local, const char *pattern, char *end) {
  const int year = local.tm_year + 1900;
  for (; *pattern != '\0' && end != nullptr; ++pattern) {
    if (*pattern != '%') {
      *end++ = *pattern;
      continue;
    }
    switch (*++pattern) {
      case 'Y':
        end = put_two_digits(put_two_digits(end, year / 100), year % 100);
        break;
      case 'm':
        end = put_two_digits(end, local.tm_mon + 1);
        break;
      case 'd':
        end = put_two_digits(end, local.tm_mday);
        break;
      case 'H':
        end = put_two_digits(end, local.tm_hour);
        break;
      case 'M':
        end = put_two_digits(end, local.tm_min);
        break;
      case 'S':
        end = put_two_digits(end, local.tm_sec);
        break;
      case 'F':
        end = expand_pattern(local, "%Y-%m-%d", end);
        break;
      case 'T':
        end = expand_pattern(local, "%H:%M:%S", end);
        break;
      default:
        end = nullptr;
    }
  }
  return end;
}

// The length of what it writes, or 0.
size_t format_local(const struct tm &local, const char *pattern, char (&text)[hand_built_size]) {
  const bool four_digit_year = local.tm_year >= 1000 - 1900 && local.tm_year <= 9999 - 1900;
  char *end = four_digit_year ? expand_pattern(local, pattern, text) : nullptr;
  if (end == nullptr) return strftime(text, sizeof text, pattern, &local);
  *end = '\0';
  return static_cast<size_t>(end - text);
}

// strftime leaves its buffer in any state when the text does not fit, so it works on one of its own.
bool format_by_pattern(const struct tm &local, const char *pattern, char *buffer, int size) {
  char text[hand_built_size];
  const size_t length = format_local(local, pattern, text);
  if (length == 0 || length >= static_cast<size_t>(size)) return false;
  memcpy(buffer, text, length + 1);
  return true;
}

}  // namespace

void write_date(const struct tm &local, char *buffer, int size, int date_format) {
  constexpr int promised_bytes = 11;
  const Date_Format &format = date_format_of(date_format);
  if (format_by_pattern(local, format.pattern, buffer, size)) return;
  char text[hand_built_size];
  build_date(local, format, text);
  copy_hand_built(text, buffer, size, promised_bytes);
}

void write_time(const struct tm &local, char *buffer, int size, int mode, int hour_system) {
  constexpr int promised_bytes = 12;
  const bool with_seconds = mode != 1;
  const bool twelve_hours = hour_system == 12;
  if (format_by_pattern(local, time_pattern(with_seconds, twelve_hours), buffer, size)) return;
  char text[hand_built_size];
  build_time(local, with_seconds, twelve_hours, text);
  copy_hand_built(text, buffer, size, promised_bytes);
}

}  // namespace tarn

int Change_Date_To_String_By_Format_Ex(time_t time, char *buffer, int size, int date_format) {
  struct tm local;
  if (buffer == nullptr || size < 1 || localtime_r(&time, &local) == nullptr) return -EINVAL;
  tarn::write_date(local, buffer, size, date_format);
  return 0;
}

int Change_Time_To_String_By_Format_Ex(time_t time, char *buffer, int size, int mode, int hour_system) {
  struct tm local;
  if (buffer == nullptr || size < 1 || localtime_r(&time, &local) == nullptr) return -EINVAL;
  tarn::write_time(local, buffer, size, mode, hour_system);
  return 0;
}

int Time_Unit_Conversion(unsigned int seconds, int *parts, char *text, int text_size) {
  if (parts == nullptr && text == nullptr) return -EINVAL;
  const int split[4] = {static_cast<int>(seconds % 60), static_cast<int>(seconds / 60 % 60),
                        static_cast<int>(seconds / 3600 % 24), static_cast<int>(seconds / 86400)};
  if (parts != nullptr) memcpy(parts, split, sizeof split);
  if (text == nullptr) return 0;

  static constexpr const char *names[4] = {"second", "minute", "hour", "day"};
  char whole[64];
  size_t length = 0;
  for (size_t unit = 4; unit-- > 0;) {
    if (unit > 0 && split[unit] == 0) continue;
    length += static_cast<size_t>(snprintf(whole + length, sizeof whole - length, "%s%d %s%s", length > 0 ? " " : "",
                                           split[unit], names[unit], split[unit] > 1 ? "s" : ""));
  }
  if (text_size < 1 || length + 1 > static_cast<size_t>(text_size)) return -EOVERFLOW;
  memcpy(text, whole, length + 1);
  return 0;
}

void Sleep_MSec(unsigned int milliseconds) {
  struct timespec left = {static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}

uint64_t Rough_Tick() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

// Not clamped when the clock stepped back: the locks' rule for stamps in the future rests on the wrap.
uint64_t Rough_Tick_Diff(uint64_t earlier) {
  return Rough_Tick() - earlier;
}

uint64_t Tick_Diff(uint64_t earlier) {
  return Rough_Tick_Diff(earlier);
}
