// Mail and calendar events as a client sees them: kx-searchd over a copy
// of the sample data, queried through the library's daemon connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "searchd/searchd_testing.h"

namespace kx::test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::shared_ptr<KXSearchResult> FirstIn(const std::vector<SeenSection>& sections, uint32_t domain) {
  for (const SeenSection& s : sections)
    if (s.domain == domain && !s.results.empty()) return s.results.front();
  return nullptr;
}

TEST(MailCalendarEndToEndTest, MailAndEventsAreFoundByTheirTexts) {
  Searchd daemon("searchd-mailcal");
  QueryOptions options;
  options.domains = {3, 10};
  struct Case {
    const char* text;
    uint32_t domain;
    const char* title;
  } cases[] = {
      {"münch", 3, "Grüße aus München – Konferenzprogramm"},  // UTF-8 base64 encoded subject
      {"comite lyon", 3, "Réunion du comité à Lyon"},         // ISO-8859-1 quoted-printable
      {"juergen.weiss", 3, "Grüße aus München – Konferenzprogramm"},  // the sender's address
      {"jurgen", 3, "Grüße aus München – Konferenzprogramm"},         // and encoded name
      {"heirloom toma", 3, "Spring seed catalogue"},                  // HTML-only body
      {"carcass", 3, "Board game night"},                             // multipart/alternative
      {"budget-2027.pdf", 3, "Budget for the difference engine"},     // attachment name
      {"議事録", 3, "会議の議事録"},
      {"отчёт", 3, "Отчёт за январь"},
      {"toner cyan", 3, "Toner low on the third floor printer"},  // in new/, no Message-ID
      {"old oak", 3, "Picnic on Sunday"},                          // a Maildir subfolder
      {"spree", 10, "Quarterly team review"},                      // by location
      {"chamonix", 10, "Winter holidays"},
      {"lincoln center", 10, "Choir rehearsal"},
      {"mark's hall", 10, "Choir rehearsal (moved)"},
      {"тверской", 10, "Встреча с клиентом"},
      {"上野", 10, "花見"},
  };
  for (const Case& c : cases)
    EXPECT_THAT(TitlesIn(daemon.search(c.text, options), c.domain), Contains(c.title)) << c.text;
  // The malformed message and calendar are skipped.
  EXPECT_THAT(TitlesIn(daemon.search("terminal by mistake", options), 3), IsEmpty());
  EXPECT_THAT(TitlesIn(daemon.search("never scheduled", options), 10), IsEmpty());

  // What a result carries: the Message-ID and its mid: URL, the sender; an
  // event's day and time before its location.
  auto mail = FirstIn(daemon.search("konferenzprogramm", options), 3);
  ASSERT_NE(mail, nullptr);
  EXPECT_EQ(mail->externalIdentifier(), "programm-2027@example.de");
  EXPECT_EQ(mail->url(), "mid:programm-2027@example.de");
  EXPECT_THAT(mail->subtitle().value_or(""), HasSubstr("Jürgen Weiß"));
  auto event = FirstIn(daemon.search("quarterly team", options), 10);
  ASSERT_NE(event, nullptr);
  EXPECT_THAT(event->subtitle().value_or(""), HasSubstr(" · Konferenzraum Spree, Berlin"));
  EXPECT_THAT(event->summary().value_or(""), HasSubstr("2027-03-15 10:00–11:30 Europe/Berlin"));
}

}  // namespace
}  // namespace kx::test
