// Events from iCalendar files: one item per event.
#pragma once

#include <string>
#include <string_view>

#include "kx/value.h"
#include "searchd/parse_result.h"

namespace kx::searchd {

inline constexpr size_t kEventSnippetLength = 200;  // code points of the summary

// Parses every VEVENT of an iCalendar file with libical:
//  - title: SUMMARY (else LOCATION, else the first line of DESCRIPTION; an
//    event with none of them has nothing to show and is left out);
//  - date: the start of the next occurrence that has not ended at `now`
//    (RRULE, RDATE and EXDATE applied; the last occurrence of a series
//    that is over); an all-day event (DATE start) starts at the host's
//    local midnight; subtitle: LOCATION;
//  - summary: the occurrence's start and end on the wall clocks of their own
//    time zones ("2026-12-04 10:00–11:30 Europe/Berlin"), then the start of
//    DESCRIPTION; keywords: LOCATION and CATEGORIES; body: DESCRIPTION;
//  - identifier: UID, plus "#" and the RECURRENCE-ID for an exception to a
//    recurring event (its own item; the master skips that occurrence).
// TZIDs are looked up in the file's VTIMEZONEs, then in the system's zone
// database; a time without zone, or in a zone neither knows, is read on the
// host's clock. A file that is not iCalendar, an event without a valid
// DTSTART, or a file without any event fails as a whole.
ParseResult ParseCalendar(const std::string& path, std::string_view content, Date now);

}  // namespace kx::searchd
