#include "searchd/calendar.h"

#include <libical/ical.h>
#include <time.h>

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

#include "searchd/text.h"

namespace kx::searchd {
namespace {

// A rule that yields more occurrences than this before reaching `now`
// (FREQ=SECONDLY since 1970) is cut off; its last occurrence seen stands
// for the series. The file's budget keeps a file of many such rules from
// holding the indexer for minutes.
constexpr int kMaxOccurrencesScanned = 100000;
constexpr int kMaxOccurrencesPerFile = 300000;
constexpr time_t kDay = 24 * 60 * 60;

// libical keeps its zone cache and error state in globals: one parse at a
// time.
std::mutex& LibicalMutex() {
  static std::mutex mutex;
  return mutex;
}

struct ComponentFree {
  void operator()(icalcomponent* c) const { icalcomponent_free(c); }
};

// A time zone as an event names it. `zone` null: the host's clock (a
// floating time, a date, or a zone nobody knows).
struct Zone {
  icaltimezone* zone = nullptr;
  std::string name;
  bool operator==(const Zone& other) const { return name == other.name; }
};

Zone ZoneOf(icalcomponent* calendar, icalproperty* property, const icaltimetype& t) {
  if (t.is_date) return {};
  if (icaltime_is_utc(t)) return {icaltimezone_get_utc_timezone(), "UTC"};
  icalparameter* parameter = icalproperty_get_first_parameter(property, ICAL_TZID_PARAMETER);
  const char* tzid = parameter ? icalparameter_get_tzid(parameter) : nullptr;
  if (!tzid || !*tzid) return {};
  icaltimezone* zone = icalcomponent_get_timezone(calendar, tzid);
  if (!zone) zone = icaltimezone_get_builtin_timezone(tzid);
  if (!zone) zone = icaltimezone_get_builtin_timezone_from_tzid(tzid);
  if (!zone) return {nullptr, tzid};
  const char* location = icaltimezone_get_location(zone);
  return {zone, location && *location ? location : tzid};
}

// libical takes "20271301" as it stands; a calendar date must exist.
bool IsRealTime(const icaltimetype& t) {
  return t.year >= 1 && t.year <= 9999 && t.month >= 1 && t.month <= 12 && t.day >= 1 &&
         t.day <= icaltime_days_in_month(t.month, t.year) && t.hour >= 0 && t.hour < 24 && t.minute >= 0 &&
         t.minute < 60 && t.second >= 0 && t.second <= 60;
}

time_t ToUtc(const icaltimetype& t, const Zone& zone) {
  if (zone.zone && !t.is_date) return icaltime_as_timet_with_zone(t, zone.zone);
  struct tm local = {};
  local.tm_year = t.year - 1900;
  local.tm_mon = t.month - 1;
  local.tm_mday = t.day;
  if (!t.is_date) {
    local.tm_hour = t.hour;
    local.tm_min = t.minute;
    local.tm_sec = t.second;
  }
  local.tm_isdst = -1;
  return mktime(&local);
}

// A time of a date or date-time property, with the zone it is read in.
struct Moment {
  icaltimetype local;
  Zone zone;
  time_t utc() const { return ToUtc(local, zone); }
};

Moment MomentOf(icalcomponent* calendar, icalproperty* property, const icaltimetype& t) {
  return {t, ZoneOf(calendar, property, t)};
}

// "2026-12-04 10:00" on the zone's wall clock, "2026-12-04" for a date.
std::string WallClock(time_t utc, const Zone& zone, bool dateOnly) {
  int year, month, day, hour, minute;
  if (zone.zone) {
    const icaltimetype t = icaltime_from_timet_with_zone(utc, 0, zone.zone);
    year = t.year, month = t.month, day = t.day, hour = t.hour, minute = t.minute;
  } else {
    struct tm local;
    localtime_r(&utc, &local);
    year = local.tm_year + 1900, month = local.tm_mon + 1, day = local.tm_mday;
    hour = local.tm_hour, minute = local.tm_min;
  }
  char text[40];
  if (dateOnly)
    snprintf(text, sizeof text, "%04d-%02d-%02d", year, month, day);
  else
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d", year, month, day, hour, minute);
  return text;
}

std::string WithZone(std::string text, const Zone& zone) {
  return zone.name.empty() ? text : text + " " + zone.name;
}

// The start and end of an occurrence, each on its own zone's clock; the
// end's date is left out when the occurrence ends the day it starts.
std::string RangeText(time_t start, const Zone& startZone, time_t end, const Zone& endZone, bool allDay) {
  if (allDay) {
    const std::string first = WallClock(start, startZone, true);
    const std::string last = WallClock(std::max(start, end - kDay), endZone, true);
    return first == last ? first : first + " – " + last;
  }
  const std::string from = WallClock(start, startZone, false);
  const std::string to = WallClock(end, endZone, false);
  if (startZone == endZone && from.compare(0, 10, to, 0, 10) == 0)
    return WithZone(from + "–" + to.substr(11), startZone);
  return WithZone(from, startZone) + " – " + WithZone(to, endZone);
}

std::string Text(const char* s) { return s && IsValidUtf8(s) ? std::string(s) : std::string(); }

std::string FirstLine(const std::string& text) { return CollapseBlanks(text.substr(0, text.find('\n'))); }

struct Event {
  icalcomponent* component;
  std::string uid;
  std::optional<time_t> recurrenceId;  // set for an exception to a series
  std::string recurrenceText;
};

// The start of the occurrence `now` is in or before, or of the last one.
class OccurrenceFinder {
 public:
  OccurrenceFinder(time_t now, time_t duration, std::set<time_t> excluded)
      : now_(now), duration_(duration), excluded_(std::move(excluded)) {}

  // Offers an occurrence; true once the next one is known (occurrences
  // arrive in order from a rule, so later ones cannot be better).
  bool offer(time_t start) {
    if (excluded_.count(start)) return false;
    if (start + duration_ > now_) {
      if (!next_ || start < *next_) next_ = start;
      return true;
    }
    if (!last_ || start > *last_) last_ = start;
    return false;
  }
  std::optional<time_t> result() const { return next_ ? next_ : last_; }

 private:
  time_t now_, duration_;
  std::set<time_t> excluded_;
  std::optional<time_t> next_, last_;
};

void OfferRule(icalcomponent* event, const Moment& start, time_t now, time_t duration, OccurrenceFinder& finder,
               int& fileBudget) {
  icalproperty* property = icalcomponent_get_first_property(event, ICAL_RRULE_PROPERTY);
  if (!property) return;
  const icalrecurrencetype rule = icalproperty_get_rrule(property);
  if (rule.freq == ICAL_NO_RECURRENCE) return;
  std::unique_ptr<icalrecur_iterator, void (*)(icalrecur_iterator*)> it(icalrecur_iterator_new(rule, start.local),
                                                                        &icalrecur_iterator_free);
  if (!it) return;
  // Jump close to `now` (a day early for zone offsets) instead of walking
  // the years since DTSTART; a counted rule has to be walked from its start.
  const time_t from = now - duration - kDay;
  const bool untilAfterJump = icaltime_is_null_time(rule.until) || icaltime_as_timet(rule.until) > from + kDay;
  if (rule.count == 0 && untilAfterJump && start.utc() < from) {
    icaltimetype jump = icaltime_from_timet_with_zone(from, start.local.is_date, start.zone.zone);
    icalrecur_iterator_set_start(it.get(), jump);
  }
  for (int i = 0; i < kMaxOccurrencesScanned && fileBudget > 0; ++i, --fileBudget) {
    const icaltimetype t = icalrecur_iterator_next(it.get());
    if (icaltime_is_null_time(t)) break;
    if (finder.offer(ToUtc(t, start.zone))) break;
  }
}

ParseResult EventToItem(const std::string& path, icalcomponent* calendar, const Event& event, time_t now,
                        const std::set<time_t>& overridden, size_t ordinal, int& occurrenceBudget) {
  icalcomponent* c = event.component;
  icalproperty* dtstart = icalcomponent_get_first_property(c, ICAL_DTSTART_PROPERTY);
  const icaltimetype startTime = dtstart ? icalproperty_get_dtstart(dtstart) : icaltime_null_time();
  if (icaltime_is_null_time(startTime) || !IsRealTime(startTime))
    return ParseResult::Failure("event " + std::to_string(ordinal) + " has no valid start");
  const Moment start = MomentOf(calendar, dtstart, startTime);
  const bool allDay = startTime.is_date;

  Zone endZone = start.zone;
  time_t end = start.utc() + (allDay ? kDay : 0);
  if (icalproperty* dtend = icalcomponent_get_first_property(c, ICAL_DTEND_PROPERTY)) {
    const Moment m = MomentOf(calendar, dtend, icalproperty_get_dtend(dtend));
    if (!icaltime_is_null_time(m.local)) end = m.utc(), endZone = m.zone;
  } else if (icalproperty* duration = icalcomponent_get_first_property(c, ICAL_DURATION_PROPERTY)) {
    end = start.utc() + icaldurationtype_as_int(icalproperty_get_duration(duration));
  }
  const time_t length = std::max<time_t>(0, end - start.utc());

  std::set<time_t> excluded = overridden;
  for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_EXDATE_PROPERTY); p;
       p = icalcomponent_get_next_property(c, ICAL_EXDATE_PROPERTY))
    excluded.insert(MomentOf(calendar, p, icalproperty_get_exdate(p)).utc());
  OccurrenceFinder finder(now, length, std::move(excluded));
  finder.offer(start.utc());
  for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_RDATE_PROPERTY); p;
       p = icalcomponent_get_next_property(c, ICAL_RDATE_PROPERTY)) {
    const icaldatetimeperiodtype rdate = icalproperty_get_rdate(p);
    const icaltimetype t = icaltime_is_null_time(rdate.time) ? rdate.period.start : rdate.time;
    if (!icaltime_is_null_time(t)) finder.offer(MomentOf(calendar, p, t).utc());
  }
  if (!event.recurrenceId) OfferRule(c, start, now, length, finder, occurrenceBudget);
  // Nothing left when every occurrence is excluded: the event is not shown.
  const std::optional<time_t> occurrence = finder.result();
  if (!occurrence) return {};

  const std::string location = CollapseBlanks(Text(icalcomponent_get_location(c)));
  const std::string description = Text(icalcomponent_get_description(c));
  Item item;
  item.domain = kDomainEvents;
  item.bundle = "com.orvex.calendar";
  item.title = CollapseBlanks(Text(icalcomponent_get_summary(c)));
  if (item.title.empty()) item.title = location;
  if (item.title.empty()) item.title = FirstLine(description);
  if (item.title.empty()) return {};
  item.identifier = event.uid.empty() ? "event-" + std::to_string(ordinal) : event.uid;
  if (event.recurrenceId) item.identifier += "#" + event.recurrenceText;
  item.url = FileUrl(path) + "#" + item.identifier;
  item.subtitle = location;
  item.date = Date{static_cast<double>(*occurrence) - Date::kUnixEpochOffset};
  item.allDay = allDay;
  const std::string range = RangeText(*occurrence, start.zone, *occurrence + length, endZone, allDay);
  const std::string about = CollapseBlanks(description);
  item.summary = Snippet(about.empty() ? range : range + " · " + about, kEventSnippetLength);
  item.keywords = location;
  for (icalproperty* p = icalcomponent_get_first_property(c, ICAL_CATEGORIES_PROPERTY); p;
       p = icalcomponent_get_next_property(c, ICAL_CATEGORIES_PROPERTY))
    item.keywords += " " + Text(icalproperty_get_categories(p));
  item.body = description;
  ParseResult r;
  r.items.push_back(std::move(item));
  return r;
}

// The calendars of a parse: the root itself, or the children of the
// XROOT that libical makes for a file holding several.
std::vector<icalcomponent*> Calendars(icalcomponent* root) {
  std::vector<icalcomponent*> calendars;
  if (icalcomponent_isa(root) == ICAL_VCALENDAR_COMPONENT) calendars.push_back(root);
  if (icalcomponent_isa(root) == ICAL_XROOT_COMPONENT)
    for (icalcomponent* c = icalcomponent_get_first_component(root, ICAL_VCALENDAR_COMPONENT); c;
         c = icalcomponent_get_next_component(root, ICAL_VCALENDAR_COMPONENT))
      calendars.push_back(c);
  return calendars;
}

}  // namespace

ParseResult ParseCalendar(const std::string& path, std::string_view content, Date now) {
  if (!IsValidUtf8(content)) return ParseResult::Failure("not UTF-8");
  if (content.find('\0') != std::string_view::npos) return ParseResult::Failure("binary content");
  std::lock_guard lock(LibicalMutex());
  static std::once_flag quiet;
  std::call_once(quiet, [] { icalerror_set_errors_are_fatal(0); });
  const std::string text(content);
  std::unique_ptr<icalcomponent, ComponentFree> root(icalparser_parse_string(text.c_str()));
  icalerror_clear_errno();
  if (!root) return ParseResult::Failure("not iCalendar");
  const std::vector<icalcomponent*> calendars = Calendars(root.get());
  if (calendars.empty()) return ParseResult::Failure("no VCALENDAR");

  const time_t nowUtc = static_cast<time_t>(now.unixTime());
  ParseResult result;
  size_t ordinal = 0;
  int occurrenceBudget = kMaxOccurrencesPerFile;
  for (icalcomponent* calendar : calendars) {
    std::vector<Event> events;
    std::map<std::string, std::set<time_t>> overridden;  // UID -> exceptions' RECURRENCE-IDs
    for (icalcomponent* c = icalcomponent_get_first_component(calendar, ICAL_VEVENT_COMPONENT); c;
         c = icalcomponent_get_next_component(calendar, ICAL_VEVENT_COMPONENT)) {
      Event event{c, Text(icalcomponent_get_uid(c)), std::nullopt, {}};
      if (icalproperty* id = icalcomponent_get_first_property(c, ICAL_RECURRENCEID_PROPERTY)) {
        const icaltimetype t = icalproperty_get_recurrenceid(id);
        if (!icaltime_is_null_time(t)) {
          event.recurrenceId = MomentOf(calendar, id, t).utc();
          event.recurrenceText = icaltime_as_ical_string(t);
          overridden[event.uid].insert(*event.recurrenceId);
        }
      }
      events.push_back(std::move(event));
    }
    for (const Event& event : events) {
      ParseResult one = EventToItem(path, calendar, event, nowUtc,
                                    event.recurrenceId ? std::set<time_t>() : overridden[event.uid], ++ordinal,
                                    occurrenceBudget);
      if (!one.ok()) return one;
      for (Item& item : one.items) result.items.push_back(std::move(item));
    }
  }
  if (result.items.empty()) return ParseResult::Failure("no event");
  return result;
}

}  // namespace kx::searchd
