// Calendar events: time zones, all-day events, the next occurrence of a
// recurring event, and files that are not calendars.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

#include "searchd/calendar.h"

namespace kx::searchd {
namespace {

using ::testing::HasSubstr;

Date AtUnix(double t) { return Date{t - Date::kUnixEpochOffset}; }

std::string Calendar(const std::string& body) {
  return "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//test//EN\r\n" + body + "END:VCALENDAR\r\n";
}

std::string Event(const std::string& properties) {
  return "BEGIN:VEVENT\r\nUID:e1\r\nSUMMARY:Event\r\n" + properties + "END:VEVENT\r\n";
}

ParseResult Parse(const std::string& text, double nowUnix = 1795176000 /* 2026-11-20 12:00Z */) {
  return ParseCalendar("/c/cal.ics", text, AtUnix(nowUnix));
}

Item ParseOne(const std::string& text, double nowUnix = 1795176000) {
  ParseResult r = Parse(text, nowUnix);
  EXPECT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.items.size(), 1u);
  return r.items.empty() ? Item() : r.items[0];
}

double Unix(const Item& item) { return item.date ? item.date->unixTime() : -1; }

class CalendarTest : public ::testing::Test {
 protected:
  // Floating times and dates are read on the host's clock: pin it to a
  // zone with a half-hour offset, so that a mix-up with UTC shows.
  void SetUp() override {
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
  }
};

TEST_F(CalendarTest, TimesAreReadInTheirOwnZones) {
  // A zone the file defines itself, unknown to the system's database.
  const std::string own =
      "BEGIN:VTIMEZONE\r\nTZID:Custom Plus Three\r\nBEGIN:STANDARD\r\nDTSTART:19700101T000000\r\n"
      "TZOFFSETFROM:+0300\r\nTZOFFSETTO:+0300\r\nEND:STANDARD\r\nEND:VTIMEZONE\r\n";
  Item custom = ParseOne(Calendar(own + Event("DTSTART;TZID=Custom Plus Three:20270315T120000\r\n"
                                              "DTEND;TZID=Custom Plus Three:20270315T133000\r\nLOCATION:Hall A\r\n")));
  EXPECT_EQ(Unix(custom), 1805101200);  // 09:00Z
  EXPECT_EQ(custom.subtitle, "Hall A");
  EXPECT_THAT(custom.summary, HasSubstr("2027-03-15 12:00–13:30 Custom Plus Three"));

  // A zone from the system's database; start and end in different zones.
  Item flight = ParseOne(Calendar(Event("DTSTART;TZID=Asia/Tokyo:20270402T103000\r\n"
                                        "DTEND;TZID=Europe/Paris:20270402T161500\r\n")));
  EXPECT_EQ(Unix(flight), 1806629400);  // 01:30Z
  EXPECT_THAT(flight.summary, HasSubstr("2027-04-02 10:30 Asia/Tokyo – 2027-04-02 16:15 Europe/Paris"));

  struct Case {
    const char* properties;
    double start;
    const char* range;
  } cases[] = {
      {"DTSTART:20270118T090000Z\r\nDURATION:PT45M\r\n", 1800262800, "2027-01-18 09:00–09:45 UTC"},
      // Floating: the host's clock (UTC+5:30).
      {"DTSTART:20270118T143000\r\nDTEND:20270118T150000\r\n", 1800262800, "2027-01-18 14:30–15:00"},
      // A zone nobody knows: the host's clock, its name still shown.
      {"DTSTART;TZID=Mars/Olympus:20270118T143000\r\n", 1800262800, "2027-01-18 14:30–14:30 Mars/Olympus"},
      // All day: from the host's midnight; the end date is exclusive.
      {"DTSTART;VALUE=DATE:20271224\r\nDTEND;VALUE=DATE:20271228\r\n", 1829586600, "2027-12-24 – 2027-12-27"},
      {"DTSTART;VALUE=DATE:20271224\r\n", 1829586600, "2027-12-24"},
  };
  for (const Case& c : cases) {
    Item item = ParseOne(Calendar(Event(c.properties)));
    EXPECT_EQ(Unix(item), c.start) << c.properties;
    EXPECT_EQ(item.allDay, std::string(c.properties).find("VALUE=DATE") != std::string::npos) << c.properties;
    EXPECT_EQ(item.summary, c.range) << c.properties;
  }
}

TEST_F(CalendarTest, RecurringEventsAreIndexedByTheirNextOccurrence) {
  // Thursdays 19:00-21:00 in New York; 26 November cancelled, 3 December
  // moved to 18:00 by an exception that is an item of its own.
  const std::string choir = Calendar(
      "BEGIN:VEVENT\r\nUID:choir\r\nSUMMARY:Choir\r\nDTSTART;TZID=America/New_York:20260108T190000\r\n"
      "DTEND;TZID=America/New_York:20260108T210000\r\nRRULE:FREQ=WEEKLY;BYDAY=TH\r\n"
      "EXDATE;TZID=America/New_York:20261126T190000\r\nEND:VEVENT\r\n"
      "BEGIN:VEVENT\r\nUID:choir\r\nSUMMARY:Choir (moved)\r\n"
      "RECURRENCE-ID;TZID=America/New_York:20261203T190000\r\n"
      "DTSTART;TZID=America/New_York:20261203T180000\r\nEND:VEVENT\r\n");
  struct Case {
    double now;
    double next;
  } cases[] = {
      {1795176000, 1796947200},  // Friday 20 November: the 26th is cancelled, the 3rd moved: the 10th
      {1796949000, 1796947200},  // 10 December, 19:30 New York: the rehearsal going on now
      {1780272000, 1780614000},  // 1 June: 4 June 19:00 summer time is 23:00Z
      {1767225600, 1767916800},  // before the series: its first occurrence (8 January 00:00Z)
  };
  for (const Case& c : cases) {
    ParseResult r = Parse(choir, c.now);
    ASSERT_TRUE(r.ok()) << r.error;
    ASSERT_EQ(r.items.size(), 2u);
    EXPECT_EQ(r.items[0].identifier, "choir");
    EXPECT_EQ(Unix(r.items[0]), c.next) << c.now;
    EXPECT_EQ(r.items[1].identifier, "choir#20261203T190000");
    EXPECT_EQ(Unix(r.items[1]), 1796338800);  // 3 December 18:00 New York
  }

  const double in2027 = 1798761600;
  // A series that is over stands by its last occurrence.
  EXPECT_EQ(Unix(ParseOne(Calendar(Event("DTSTART:20260101T000000Z\r\nRRULE:FREQ=DAILY;COUNT=3\r\n")), in2027)),
            1767398400);
  EXPECT_EQ(Unix(ParseOne(Calendar(Event("DTSTART:20260101T000000Z\r\nRRULE:FREQ=DAILY;UNTIL=20260103T000000Z\r\n")),
                          in2027)),
            1767398400);
  // Decades of a daily rule, and an additional date that comes first.
  EXPECT_EQ(Unix(ParseOne(Calendar(Event("DTSTART:19900101T080000Z\r\nRRULE:FREQ=DAILY\r\n")), in2027)),
            in2027 + 8 * 3600);
  EXPECT_EQ(Unix(ParseOne(Calendar(Event("DTSTART:19900101T080000Z\r\nRRULE:FREQ=YEARLY\r\n"
                                         "RDATE:20270101T060000Z\r\n")),
                          in2027)),
            in2027 + 6 * 3600);
  // Rules with more occurrences than are ever walked end in bounded time,
  // also many of them in one file.
  const auto begin = std::chrono::steady_clock::now();
  std::string endless;
  for (int i = 0; i < 50; ++i)
    endless += "BEGIN:VEVENT\r\nUID:e" + std::to_string(i) +
               "\r\nSUMMARY:S\r\nDTSTART:20260101T000000Z\r\nRRULE:FREQ=SECONDLY;COUNT=2000000000\r\nEND:VEVENT\r\n";
  ParseResult many = Parse(Calendar(endless), in2027);
  ASSERT_EQ(many.items.size(), 50u);
  for (const Item& item : many.items) EXPECT_LT(Unix(item), in2027);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

TEST_F(CalendarTest, FilesThatAreNotCalendarsFailAsAWhole) {
  const char* broken[] = {
      "",
      "just text\r\n",
      "BEGIN:VCARD\r\nFN:Ada\r\nEND:VCARD\r\n",
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:x\r\nSUMMARY:No start\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:x\r\nSUMMARY:S\r\nDTSTART:next week\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n",
      "BEGIN:VCALENDAR\r\nBEGIN:VTODO\r\nUID:t\r\nSUMMARY:Only a task\r\nEND:VTODO\r\nEND:VCALENDAR\r\n",
      "BEGIN:VCALENDAR\r\nBEGIN:VEVENT\r\nUID:x\r\nSUMMARY:caf\xe9\r\nDTSTART:20270101T000000Z\r\nEND:VEVENT\r\n"
      "END:VCALENDAR\r\n",
  };
  for (const char* text : broken) EXPECT_FALSE(Parse(text).ok()) << text;
  // One good event beside a broken one does not save the file.
  EXPECT_FALSE(Parse(Calendar(Event("DTSTART:20270101T000000Z\r\n") + Event("DTSTART:20271301T000000Z\r\n"))).ok());
  // An event with nothing to show is left out, the others stay.
  ParseResult r = Parse(Calendar(Event("DTSTART:20270101T000000Z\r\n") +
                                 "BEGIN:VEVENT\r\nUID:blank\r\nDTSTART:20270101T000000Z\r\nEND:VEVENT\r\n"));
  ASSERT_TRUE(r.ok()) << r.error;
  EXPECT_EQ(r.items.size(), 1u);
}

}  // namespace
}  // namespace kx::searchd
