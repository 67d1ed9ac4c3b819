#include "base/log_timestamp.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <thread>
#include <vector>

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>

namespace kx {
namespace {

// What ICU gives for the full pattern, formatter built afresh.
std::string Reference(double unixMilliseconds) {
  UErrorCode status = U_ZERO_ERROR;
  icu::SimpleDateFormat formatter(icu::UnicodeString(u"yyyy-MM-dd HH:mm:ss.SSS"), status);
  EXPECT_TRUE(U_SUCCESS(status));
  icu::UnicodeString text;
  formatter.format(unixMilliseconds, text);
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

// Seconds repeat, go back and straddle 1970 and a daylight-saving change.
const std::vector<double> kInstants = {
    0,      999.9,  1000,         -1,           -1500.5,       1711846799999,
    1711846800000, 1711846800001.7, 1711846800999, 1711846799000, 1711846800500};

TEST(LogTimestamp, MatchesTheFullPatternInTheLocalZone) {
  // Set before ICU first looks up the default zone (one process per test).
  setenv("TZ", "Europe/Berlin", 1);
  for (double t : kInstants) EXPECT_EQ(LogTimestamp(t), Reference(t)) << t;
  EXPECT_EQ(LogTimestamp(1711846799999), "2024-03-31 01:59:59.999");
  EXPECT_EQ(LogTimestamp(1711846800001.7), "2024-03-31 03:00:00.001");
}

TEST(LogTimestamp, LocalesWithOtherDigitsAreFormattedInFull) {
  setenv("TZ", "UTC", 1);
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale::setDefault(icu::Locale("ar_EG"), status);
  ASSERT_TRUE(U_SUCCESS(status));
  // A new thread builds its formatter under the new default locale.
  std::thread([] {
    for (double t : kInstants) EXPECT_EQ(LogTimestamp(t), Reference(t)) << t;
    const std::string sample = LogTimestamp(1000);
    EXPECT_NE(sample, "1970-01-01 00:00:01.000");
    EXPECT_NE(sample.find_first_of("\x80\x90\xA0\xB0\xD9"), std::string::npos) << sample;
  }).join();
}

}  // namespace
}  // namespace kx
