#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/support/call_hooks.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;

time_t utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  return timegm(&parts);
}

void use_time_zone(const char *zone) {
  setenv("TZ", zone, 1);
  tzset();
}

constexpr char guard = '#';
constexpr size_t room = 64;

struct Formatted {
  int status;
  std::string text;
  std::string behind;  // what stands behind the first max(size, contract) bytes
};

// Formats into a larger buffer than `size` tells; callers promise at least `contract` bytes.
template <typename Format>
Formatted formatted(int size, int contract, Format format) {
  char buffer[room];
  memset(buffer, guard, sizeof buffer);
  const int status = format(buffer, size);
  const auto mine = static_cast<size_t>(std::max(size, contract));
  EXPECT_NE(memchr(buffer, 0, mine), nullptr) << "not terminated";
  buffer[room - 1] = 0;
  return {status, buffer, std::string(buffer + mine, room - 1 - mine)};
}

Formatted date(time_t time, int size, int code) {
  return formatted(
      size, 11, [&](char *buffer, int bytes) { return Change_Date_To_String_By_Format_Ex(time, buffer, bytes, code); });
}

Formatted time_of_day(time_t time, int size, int mode, int hour_system) {
  return formatted(size, 12, [&](char *buffer, int bytes) {
    return Change_Time_To_String_By_Format_Ex(time, buffer, bytes, mode, hour_system);
  });
}

void expect_text(const Formatted &result, const std::string &text) {
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.text, text);
  EXPECT_EQ(result.behind, std::string(result.behind.size(), guard)) << "written outside of the buffer";
}

class Dates : public testing::Test {
 protected:
  void SetUp() override { use_time_zone("UTC"); }
};

struct Date_Case {
  int code;
  const char *text;  // of the 7th of March 2026
};

class Date_Codes : public testing::TestWithParam<Date_Case> {
 protected:
  void SetUp() override { use_time_zone("UTC"); }
};

TEST_P(Date_Codes, Give_the_same_text_by_pattern_and_by_hand) {
  const time_t day = utc(2026, 3, 7, 23, 59, 59);
  expect_text(date(day, 40, GetParam().code), GetParam().text);
  expect_text(date(day, 11, GetParam().code), GetParam().text);
  // Too small a size does not cut the text: callers give 11 bytes anyhow.
  for (int size = 1; size <= 10; ++size) expect_text(date(day, size, GetParam().code), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(Codes, Date_Codes,
                         testing::Values(Date_Case{1, "2026/03/07"}, Date_Case{2, "2026.03.07"},
                                         Date_Case{3, "2026-03-07"}, Date_Case{4, "03/07/2026"},
                                         Date_Case{5, "03.07.2026"}, Date_Case{6, "03-07-2026"},
                                         Date_Case{7, "07/03/2026"}, Date_Case{8, "07.03.2026"},
                                         Date_Case{9, "07-03-2026"}, Date_Case{0, "2026/03/07"},
                                         Date_Case{10, "2026/03/07"}, Date_Case{-1, "2026/03/07"},
                                         Date_Case{INT_MAX, "2026/03/07"}, Date_Case{INT_MIN, "2026/03/07"}));

TEST_F(Dates, Are_those_of_the_local_time_zone) {
  use_time_zone("XYZ-5");
  expect_text(date(utc(2026, 3, 7, 19, 0, 0), 40, 3), "2026-03-08");
  expect_text(time_of_day(utc(2026, 3, 7, 19, 0, 0), 40, 1, 24), "00:00");
}

TEST_F(Dates, By_pattern_and_by_hand_differ_in_a_year_of_three_digits) {
  const time_t day = utc(999, 1, 2);
  char by_pattern[room];
  tm parts;
  strftime(by_pattern, sizeof by_pattern, "%Y/%m/%d", gmtime_r(&day, &parts));

  expect_text(date(day, 40, 1), by_pattern);
  expect_text(date(day, 5, 1), "0999/01/02");
  expect_text(date(day, 5, 9), "02-01-0999");
}

TEST_F(Dates, Of_the_years_up_to_9999_always_fit) {
  expect_text(date(utc(9999, 12, 31), 11, 1), "9999/12/31");
  expect_text(date(utc(9999, 12, 31), 10, 7), "31/12/9999");
}

TEST_F(Dates, Of_later_years_are_cut_at_the_room_that_callers_give) {
  const time_t day = utc(10000, 1, 2);
  expect_text(date(day, 12, 1), "10000/01/02");
  expect_text(date(day, 11, 1), "10000/01/0");
  expect_text(date(day, 1, 3), "10000-01-0");
  expect_text(date(day, 11, 4), "01/02/1000");
  expect_text(date(utc(123456, 7, 8), 12, 3), "123456-07-0");
}

// The C library's own pattern wraps here; what matters is that nothing breaks.
TEST_F(Dates, Of_the_last_year_there_is_stay_within_the_buffer) {
  constexpr time_t last_second = 67768036191676799;
  for (int code = 1; code <= 9; ++code) {
    const Formatted result = date(last_second, 1, code);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.text.size(), 10U);
    EXPECT_EQ(result.behind, std::string(result.behind.size(), guard));
  }
}

TEST_F(Dates, Before_the_epoch_are_dates_too) {
  expect_text(date(-1, 40, 1), "1969/12/31");
  expect_text(time_of_day(-1, 40, 0, 24), "23:59:59");
}

struct Time_Case {
  int hour;
  int mode;
  int hour_system;
  const char *by_pattern;
  const char *by_hand;
};

class Times_Of_Day : public testing::TestWithParam<Time_Case> {
 protected:
  void SetUp() override { use_time_zone("UTC"); }
};

TEST_P(Times_Of_Day, Follow_the_pattern_where_it_fits_and_are_built_by_hand_where_not) {
  const Time_Case &wanted = GetParam();
  const time_t moment = utc(2026, 3, 7, wanted.hour, 8, 9);
  const int needed = static_cast<int>(strlen(wanted.by_pattern)) + 1;
  for (int size = 1; size <= 40; ++size) {
    SCOPED_TRACE(size);
    expect_text(time_of_day(moment, size, wanted.mode, wanted.hour_system),
                size >= needed ? wanted.by_pattern : wanted.by_hand);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, Times_Of_Day,
    testing::Values(Time_Case{17, 1, 24, "17:08", "17:08"}, Time_Case{17, 0, 24, "17:08:09", "17:08:09"},
                    Time_Case{5, 1, 12, "05:08 am", "05:08 AM"}, Time_Case{5, 0, 12, "05:08:09 am", "05:08:09 AM"},
                    Time_Case{17, 1, 12, "05:08 pm", "05:08 PM"}, Time_Case{17, 0, 12, "05:08:09 pm", "05:08:09 PM"},
                    // By hand, noon and midnight read 00.
                    Time_Case{12, 1, 12, "12:08 pm", "00:08 PM"}, Time_Case{12, 0, 12, "12:08:09 pm", "00:08:09 PM"},
                    Time_Case{0, 1, 12, "12:08 am", "00:08 AM"}, Time_Case{0, 0, 12, "12:08:09 am", "00:08:09 AM"},
                    Time_Case{11, 1, 12, "11:08 am", "11:08 AM"}, Time_Case{23, 0, 12, "11:08:09 pm", "11:08:09 PM"},
                    Time_Case{0, 1, 24, "00:08", "00:08"}, Time_Case{12, 0, 24, "12:08:09", "12:08:09"},
                    // Any other hour system means 24, any mode but 1 shows the seconds.
                    Time_Case{17, 1, 0, "17:08", "17:08"}, Time_Case{17, 1, 13, "17:08", "17:08"},
                    Time_Case{17, 1, -12, "17:08", "17:08"}, Time_Case{17, 2, 24, "17:08:09", "17:08:09"},
                    Time_Case{17, -1, 24, "17:08:09", "17:08:09"}, Time_Case{17, 2, 12, "05:08:09 pm", "05:08:09 PM"}));

class Refused : public Dates {};

TEST_F(Refused, Formats_without_a_buffer_or_without_a_size) {
  char buffer[room] = "untouched";
  EXPECT_EQ(Change_Date_To_String_By_Format_Ex(0, nullptr, 40, 1), -EINVAL);
  EXPECT_EQ(Change_Time_To_String_By_Format_Ex(0, nullptr, 40, 1, 24), -EINVAL);
  for (const int size : {0, -1, INT_MIN}) {
    EXPECT_EQ(Change_Date_To_String_By_Format_Ex(0, buffer, size, 1), -EINVAL);
    EXPECT_EQ(Change_Time_To_String_By_Format_Ex(0, buffer, size, 1, 24), -EINVAL);
  }
  EXPECT_STREQ(buffer, "untouched");
}

TEST_F(Refused, Times_that_have_no_local_date) {
  char buffer[room] = "untouched";
  for (const time_t time : {time_t{1} << 60, time_t{INT64_MIN}, time_t{INT64_MAX}}) {
    errno = 0;
    EXPECT_EQ(Change_Date_To_String_By_Format_Ex(time, buffer, 40, 1), -EINVAL);
    EXPECT_EQ(Change_Time_To_String_By_Format_Ex(time, buffer, 40, 1, 24), -EINVAL);
  }
  EXPECT_STREQ(buffer, "untouched");
}

TEST(Rough_Tick, Is_the_wall_clock_in_milliseconds) {
  Virtual_Clock clock(0);
  clock.set_microseconds(1'700'000'005'999'999);
  EXPECT_EQ(Rough_Tick(), 1'700'000'005'999U);
  clock.set_microseconds(5'000'999);
  EXPECT_EQ(Rough_Tick(), 5000U);
}

TEST(Rough_Tick, Follows_the_real_clock) {
  const auto before = static_cast<uint64_t>(time(nullptr));
  const uint64_t tick = Rough_Tick();
  const auto after = static_cast<uint64_t>(time(nullptr));
  // The coarse clock of time() may lag behind by some milliseconds.
  EXPECT_GE(tick / 1000, before);
  EXPECT_LE(tick / 1000, after + 1);
}

TEST(Rough_Tick, Difference_is_the_time_since) {
  Virtual_Clock clock(10'000);
  EXPECT_EQ(Rough_Tick_Diff(10'000), 0U);
  EXPECT_EQ(Rough_Tick_Diff(9'000), 1000U);
  EXPECT_EQ(Tick_Diff(9'000), 1000U);
  EXPECT_EQ(Tick_Diff(0), 10'000U);
}

TEST(Rough_Tick, Difference_wraps_when_the_clock_was_set_back) {
  Virtual_Clock clock(10'000);
  // Lock files stamped in the future count as old for this reason.
  EXPECT_EQ(Rough_Tick_Diff(10'001), UINT64_MAX);
  EXPECT_EQ(Tick_Diff(10'001), UINT64_MAX);
}

int64_t monotonic_ms() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

std::atomic<int> interruptions = 0;

TEST(Sleep_MSec, Sleeps_for_more_than_a_second) {
  const int64_t start = monotonic_ms();
  Sleep_MSec(1050);
  EXPECT_GE(monotonic_ms() - start, 1050 - 1);
}

TEST(Sleep_MSec, Sleeps_on_after_signals) {
  interruptions = 0;
  struct sigaction count {};
  count.sa_handler = [](int) { ++interruptions; };
  struct sigaction previous;
  sigaction(SIGALRM, &count, &previous);
  const itimerval often{{0, 10'000}, {0, 10'000}};
  const itimerval never{};
  setitimer(ITIMER_REAL, &often, nullptr);

  const int64_t start = monotonic_ms();
  Sleep_MSec(200);
  const int64_t elapsed = monotonic_ms() - start;

  setitimer(ITIMER_REAL, &never, nullptr);
  sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GT(interruptions, 0);
  EXPECT_GE(elapsed, 200 - 1);
}

TEST(Sleep_MSec, Ends_when_sleeping_fails_for_another_reason_than_a_signal) {
  const Before_Call sleeping(System_Call::nanosleep, 1, [] { return EINVAL; });
  Sleep_MSec(3'600'000);
  EXPECT_TRUE(sleeping.happened());
}

TEST(Sleep_MSec, Returns_from_no_time_at_all) {
  Sleep_MSec(0);
}

}  // namespace
