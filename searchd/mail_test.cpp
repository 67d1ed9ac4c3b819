// Mail: headers with encoded words, the body a summary is made of, HTML
// reduced to text, and what is not a mail.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "searchd/html_text.h"
#include "searchd/indexer.h"
#include "searchd/mail.h"
#include "searchd/text.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

Item ParseOne(const std::string& text, const std::string& path = "/m/cur/1.x:2,S") {
  ParseResult r = ParseMail(path, text);
  EXPECT_TRUE(r.ok()) << r.error;
  return r.items.empty() ? Item() : r.items[0];
}

TEST(MailTest, DecodesEncodedWordsInEveryCharsetAndKeepsAddressesSearchable) {
  const Item item = ParseOne(
      "From: =?ISO-8859-1?Q?Am=E9lie_Fran=E7ois?= <amelie@example.fr>\r\n"
      "To: =?UTF-8?B?0JjQstCw0L0=?= <ivan@example.ru>, team: Bo <bo@example.se>;\r\n"
      "Cc: plain@example.org\r\n"
      "Subject: =?UTF-8?B?R3LDvMOfZQ==?= =?UTF-8?Q?_aus_M=C3=BCnchen?=\r\n"
      "Date: Wed, 13 Jan 2027 14:02:00 +0100\r\n"
      "Message-ID: <a/b+c@example.fr>\r\n\r\nHello\r\n");
  EXPECT_EQ(item.domain, kDomainMail);
  EXPECT_EQ(item.title, "Grüße aus München");  // adjacent encoded words join without a blank
  EXPECT_EQ(item.subtitle, "Amélie François");
  // Names and addresses of sender, recipients and group members.
  for (const char* word : {"Amélie", "amelie@example.fr", "Иван", "ivan@example.ru", "bo@example.se",
                           "plain@example.org"})
    EXPECT_THAT(item.keywords, HasSubstr(word));
  EXPECT_EQ(item.identifier, "a/b+c@example.fr");
  EXPECT_EQ(item.url, "mid:a%2Fb+c@example.fr");
  ASSERT_TRUE(item.date.has_value());
  EXPECT_DOUBLE_EQ(item.date->unixTime(), 1799845320.0);  // 13:02 UTC
}

TEST(MailTest, SummaryIsTheFirstLinesOfTheWrittenText) {
  const std::string head = "From: a@example.org\r\nSubject: s\r\nMessage-ID: <m@x>\r\n";
  // Quoted text and the signature are not what the sender wrote now; the
  // body is decoded from its transfer encoding and charset.
  Item reply = ParseOne(head +
                        "Content-Type: text/plain; charset=iso-8859-1\r\n"
                        "Content-Transfer-Encoding: quoted-printable\r\n\r\n"
                        "> earlier words\r\n\r\nR=E9ponse   un\r\ndeux\r\n\r\ntrois\r\nquatre\r\n-- \r\nsig\r\n");
  EXPECT_EQ(reply.summary, "Réponse un deux trois");
  EXPECT_THAT(reply.body, AllOf(HasSubstr("quatre"), HasSubstr("earlier")));

  // multipart/alternative: the plain part wins over the HTML one, whatever
  // their order; an attachment gives its name, never its content.
  Item alternative = ParseOne(head +
                              "Content-Type: multipart/mixed; boundary=M\r\n\r\n--M\r\n"
                              "Content-Type: multipart/alternative; boundary=A\r\n\r\n"
                              "--A\r\nContent-Type: text/html\r\n\r\n<p>html words</p>\r\n"
                              "--A\r\nContent-Type: text/plain\r\n\r\nplain words\r\n--A--\r\n"
                              "--M\r\nContent-Type: text/plain\r\n"
                              "Content-Disposition: attachment; filename=\"=?UTF-8?Q?r=C3=A9sum=C3=A9.txt?=\"\r\n\r\n"
                              "attached words\r\n--M--\r\n");
  EXPECT_EQ(alternative.summary, "plain words");
  EXPECT_THAT(alternative.keywords, HasSubstr("résumé.txt"));
  EXPECT_THAT(alternative.body, Not(HasSubstr("attached")));

  // HTML only: reduced to its text.
  Item html = ParseOne(head + "Content-Type: text/html; charset=utf-8\r\n\r\n"
                              "<html><head><title>T</title></head><body><p>Caf&eacute; &amp; <b>tea</b></p>"
                              "<p>second</p></body></html>\r\n");
  EXPECT_EQ(html.summary, "Café & tea second");

  // No subject: the start of the text stands for it.
  Item untitled = ParseOne("From: a@example.org\r\n\r\nJust a line\r\n");
  EXPECT_EQ(untitled.title, "Just a line");
  EXPECT_EQ(untitled.identifier, "maildir:1.x");  // no Message-ID: the unique name
  EXPECT_EQ(untitled.url, "file:///m/cur/1.x%3A2%2CS");
  EXPECT_FALSE(untitled.date.has_value());
}

TEST(MailTest, RefusesWhatIsNotAMailAndSurvivesBrokenStructure) {
  for (const char* notMail : {"", "just some text\nover two lines\n", "\x89PNG\r\n\x1a\n\0\0\0"})
    EXPECT_FALSE(ParseMail("/m/cur/x", notMail).ok()) << notMail;
  // Unterminated multiparts, invalid bytes in headers, nesting beyond any
  // real mail: still one titled item in UTF-8.
  std::string nested = "Subject: deep\r\nContent-Type: multipart/mixed; boundary=b0\r\n\r\n";
  for (int i = 1; i < 200; ++i)
    nested += "--b" + std::to_string(i - 1) + "\r\nContent-Type: multipart/mixed; boundary=b" + std::to_string(i) + "\r\n\r\n";
  for (const std::string& broken : {nested, std::string("Subject: caf\xe9 \xff\r\nFrom: \xc3\r\n\r\nbody\xff"),
                                    std::string("Subject: x\r\nContent-Type: multipart/alternative; boundary=z\r\n\r\n--z\r\n")}) {
    ParseResult r = ParseMail("/m/cur/y", broken);
    ASSERT_TRUE(r.ok()) << r.error;
    ASSERT_EQ(r.items.size(), 1u);
    EXPECT_TRUE(IsValidUtf8(r.items[0].title + r.items[0].subtitle + r.items[0].body + r.items[0].keywords));
  }
}

TEST(MailTest, MaildirFilesAreThoseInCurAndNew) {
  EXPECT_TRUE(IsMaildirMessage("/home/u/Maildir/cur/1.M1P2.host:2,S"));
  EXPECT_TRUE(IsMaildirMessage("/home/u/Maildir/.Sent/new/1.M1P2.host"));
  EXPECT_FALSE(IsMaildirMessage("/home/u/Maildir/tmp/1.M1P2.host"));
  EXPECT_FALSE(IsMaildirMessage("/home/u/Maildir/cur/.hidden"));
  EXPECT_FALSE(IsMaildirMessage("/home/u/Maildir/dovecot.index"));
  EXPECT_FALSE(IsMaildirMessage("/home/u/Maildir/recur/x"));
}

TEST(MailTest, EveryMaildirFolderIsIndexedAndLargeMessagesAreReadInPart) {
  namespace fs = std::filesystem;
  const std::string root = test::TestRoot() + "/data";
  fs::create_directories(root);
  fs::copy(std::string(KX_EXAMPLES_DATA) + "/mail", root + "/mail", fs::copy_options::recursive);
  fs::create_directories(root + "/mail/tmp");
  std::ofstream(root + "/mail/tmp/partial") << "Subject: still being delivered\r\n\r\n";
  // Far above what any other source would read, the text at its start.
  std::string large = "Subject: Holiday photos\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
                      "--b\r\nContent-Type: text/plain\r\n\r\nThe lighthouse at dusk\r\n--b\r\n"
                      "Content-Type: image/jpeg\r\nContent-Disposition: attachment; filename=dusk.jpg\r\n"
                      "Content-Transfer-Encoding: base64\r\n\r\n";
  while (large.size() < 2 * kMaxSourceFileBytes) large += std::string(76, 'A') + "\r\n";
  std::ofstream(root + "/mail/cur/large:2,S", std::ios::binary) << large << "--b--\r\n";

  Index index(test::TestRoot() + "/mail.db", false);
  SourceLocations locations;
  locations.mail = {root + "/mail"};
  const IndexerStats stats = Indexer(index, MakeSources(locations)).update();
  EXPECT_EQ(stats.filesSeen, 13u);     // cur/, new/ and .Sent/cur/; never tmp/
  EXPECT_EQ(stats.filesSkipped, 1u);  // the one that is not a mail
  EXPECT_EQ(stats.items, 12u);
  const auto hits = index.search(PlanQuery("lighthouse dusk"), SearchRequest::InDomain(kDomainMail));
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].item.title, "Holiday photos");
  EXPECT_EQ(index.search(PlanQuery("jpg"), SearchRequest::InDomain(kDomainMail)).size(), 1u);  // attachment name
  // The date survives the index.
  const auto dated = index.search(PlanQuery("konferenzprogramm"), SearchRequest::InDomain(kDomainMail));
  ASSERT_EQ(dated.size(), 1u);
  ASSERT_TRUE(dated[0].item.date.has_value());
  EXPECT_DOUBLE_EQ(dated[0].item.date->unixTime(), 1799741700.0);  // 12 January 2027 08:15Z
}

TEST(HtmlToTextTest, KeepsWhatAReaderSees) {
  struct Case {
    const char* html;
    const char* text;
  } cases[] = {
      {"<p>one</p><p>two</p>", "one\ntwo"},
      {"a<br>b<BR/>c", "a\nb\nc"},
      {"<td>x</td><td>y</td>", "x y"},
      {"in<b>line</b> <i>words</i>", "inline words"},
      {"  lots \n\t of   blanks  ", "lots of blanks"},
      {"<head><style>p{}</style><title>T</title></head>body", "body"},
      {"a<script>if (x < y) document.write('</p>')</script>b", "ab"},
      {"a<STYLE>x</style >b", "ab"},
      {"<head><header>h</header>x</head>y", "y"},  // "</header" does not end a head
      {"a<!-- <p>hidden</p> -->b", "ab"},
      {"<!DOCTYPE html><?xml version='1.0'?>x", "x"},
      {"<a href='x>y' title=\"a>b\">link</a>", "link"},
      {"&lt;&amp;&gt; &#233;&#xE9;&#X1F600; &nbsp;&hellip; &Agrave;&yuml;&szlig; a&shy;b", "<&> éé😀 … Àÿß ab"},
      {"&#0; &#xD800; &#99999999;", "\xEF\xBF\xBD \xEF\xBF\xBD \xEF\xBF\xBD"},
      {"AT&T &unknown; &amp &#; &#x;", "AT&T &unknown; &amp &#; &#x;"},
      {"a < b and c<3", "a < b and c<3"},
      {"x<script>never closed", "x"},
      {"tail <b", "tail"},
  };
  for (const Case& c : cases) EXPECT_EQ(HtmlToText(c.html), c.text) << c.html;
}

}  // namespace
}  // namespace kx::searchd
