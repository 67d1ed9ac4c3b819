#include "kx/date_strings.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <atomic>
#include <limits>
#include <thread>
#include <vector>

#include "support/date_environment.h"

namespace kx {
namespace {

constexpr double kHour = 3600;

// Each test is its own process, so the caches start empty: the environment
// installed here is the one the first date text sees.
void StartAt(double secondsSinceReferenceDate, const char* zone, const char* locale = "C") {
  setenv("LC_ALL", locale, 1);
  SetDateEnvironmentForTesting(
      {[secondsSinceReferenceDate] { return Date{secondsSinceReferenceDate}; }, zone});
}

struct DayCase {
  double offsetFromMidnight;
  const char* expected;
};

// The day words around the first midnight of the process. `midnight` is
// 00:00 local on a day whose length differs from 24 hours, so a calendar
// day and 86400 seconds disagree.
void ExpectDayWordsAround(double midnight, const char* zone, const char* twoDaysLater,
                          const char* twoDaysEarlier) {
  StartAt(midnight + 10 * kHour, zone);
  const DayCase cases[] = {
      {0, "Today"},
      {10 * kHour, "Today"},
      {30 * kHour, "Tomorrow"},
      {49 * kHour, twoDaysLater},
      {-1, "Yesterday"},
      {-12 * kHour, "Yesterday"},
      {-24 * kHour, "Yesterday"},
      {-24 * kHour - 1, twoDaysEarlier},
      {-60 * kHour, nullptr},  // beyond two days: the short date, checked below
  };
  for (const DayCase& c : cases) {
    SCOPED_TRACE(c.offsetFromMidnight);
    const std::string text = KXDayStringForDate(Date{midnight + c.offsetFromMidnight});
    if (c.expected) {
      EXPECT_EQ(text, c.expected);
    } else {
      EXPECT_NE(text.find("-"), std::string::npos) << text;
    }
  }
}

TEST(DayStringTest, BoundariesOnADaylightSavingStartInBerlin) {
  // 2026-03-29 00:00 CET; the day has 23 hours.
  ExpectDayWordsAround(796431600, "Europe/Berlin", "2026-03-31", "2026-03-27");
}

TEST(DayStringTest, BoundariesOnADaylightSavingEndInLosAngeles) {
  // 2026-11-01 00:00 PDT; the day has 25 hours.
  ExpectDayWordsAround(815209200, "America/Los_Angeles", "2026-11-03", "2026-10-30");
}

TEST(DayStringTest, FirstMidnightIsKeptWhenTheClockPassesMidnight) {
  double now = 817052400 + 23 * kHour;  // 2026-11-23 23:00 in Tokyo
  setenv("LC_ALL", "C", 1);
  SetDateEnvironmentForTesting({[&now] { return Date{now}; }, "Asia/Tokyo"});
  EXPECT_EQ(KXDayStringForDate(Date{now}), "Today");
  now += 2 * kHour;  // 01:00 the next day
  EXPECT_EQ(KXDayStringForDate(Date{now}), "Tomorrow");
  EXPECT_EQ(KXDayStringForDate(Date{817052400}), "Today");
}

TEST(DayStringTest, TimeFormatterFollowsTheZoneOnlyAfterReset) {
  const double noonUTC = 817084800 + 12 * kHour;  // 2026-11-23 12:00 UTC
  setenv("LC_ALL", "C", 1);
  SetDateEnvironmentForTesting({{}, "UTC"});
  EXPECT_EQ(KXTimeStringForDate(Date{noonUTC}), "12:00");
  SetDateEnvironmentForTesting({{}, "Asia/Tokyo"});
  EXPECT_EQ(KXTimeStringForDate(Date{noonUTC}), "12:00");
  _resetCalTimeZone();
  EXPECT_EQ(KXTimeStringForDate(Date{noonUTC}), "21:00");
}

TEST(DayStringTest, DayAndTimeUseTheLocalisedWordsAndFormat) {
  const double tokyoMidnight = 817052400;
  const struct {
    const char* locale;
    const char* expected;
  } cases[] = {
      {"C", "Yesterday, 18:30"},
      {"de_DE.UTF-8", "Gestern, 18:30"},
      {"fr_FR.UTF-8", "Hier à 18:30"},
  };
  StartAt(tokyoMidnight + kHour, "Asia/Tokyo");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.locale);
    setenv("LC_ALL", c.locale, 1);
    EXPECT_EQ(KXDayAndTimeStringForDate(Date{tokyoMidnight - 5.5 * kHour}), c.expected);
  }
}

// The caches fill on first use from whichever thread comes first, and the
// time formatter may be dropped while others format.
TEST(DayStringTest, CachesFillAndResetSafelyFromSeveralThreads) {
  const double tokyoMidnight = 817052400;
  StartAt(tokyoMidnight + kHour, "Asia/Tokyo");
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i) {
        if (t == 0 && i % 10 == 0) _resetCalTimeZone();
        wrong += KXDayAndTimeStringForDate(Date{tokyoMidnight + 2 * kHour}) != "Today, 02:00";
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

TEST(DurationStringTest, FloorsToSecondsAndPadsAllButTheLeadingField) {
  const struct {
    double milliseconds;
    const char* expected;
  } cases[] = {
      {0, "0:00"},           {999, "0:00"},        {59999, "0:59"},
      {60000, "1:00"},       {599999, "9:59"},     {3599999, "59:59"},
      {3600000, "1:00:00"},  {3725000, "1:02:05"}, {36000000 * 10.0, "100:00:00"},
      {-1500, "59:58"},      {-3600000, "0:00"},
      {std::numeric_limits<double>::quiet_NaN(), "00:00"},
      {std::numeric_limits<double>::infinity(), "00:00"},
      {1e300, "00:00"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.milliseconds);
    EXPECT_EQ(KXStringForDuration(c.milliseconds), c.expected);
  }
}

}  // namespace
}  // namespace kx
