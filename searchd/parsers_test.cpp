// The source parsers, one group of cases per format, and the indexer's
// handling of changed, vanished and malformed files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "searchd/desktop_entry.h"
#include "searchd/indexer.h"
#include "searchd/note.h"
#include "searchd/vcard.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(DesktopEntryTest, ReadsNamesKeywordsAndVisibility) {
  const char* entry =
      "# comment\n[Desktop Entry]\nType=Application\nName=Files\nName[de]=Dateien\n"
      "GenericName=File Manager\nKeywords=folder;dir\\;ectory;\nComment=Browse\\sfolders\n"
      "Exec=files %U\nIcon=files\nCategories=Utility;\n[Desktop Action x]\nName=Other\n";
  ParseResult r = ParseDesktopEntry("/a/files.desktop", "files", entry, "");
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.items.size(), 1u);
  const Item& item = r.items[0];
  EXPECT_EQ(item.domain, kDomainApplications);
  EXPECT_EQ(item.title, "Files");  // the action's Name does not leak in
  EXPECT_EQ(item.localizedTitles.at("de"), "Dateien");
  EXPECT_THAT(item.keywords, HasSubstr("dir;ectory"));
  EXPECT_EQ(item.summary, "Browse folders");
  EXPECT_EQ(item.launchCommand, "files %U");
  EXPECT_EQ(item.url, "file:///a/files.desktop");

  const std::string base = "[Desktop Entry]\nType=Application\nName=X\n";
  EXPECT_EQ(ParseDesktopEntry("/p", "p", base + "Categories=Settings;\n", "").items.at(0).domain, kDomainSettings);
  for (const char* hidden : {"NoDisplay=true\n", "Hidden=true\n", "OnlyShowIn=KDE;\n", "NotShowIn=GNOME;\n"}) {
    ParseResult h = ParseDesktopEntry("/p", "p", base + std::string(hidden), "ubuntu:GNOME");
    EXPECT_TRUE(h.ok() && h.items.empty()) << hidden;
  }
  EXPECT_EQ(ParseDesktopEntry("/p", "p", base + "OnlyShowIn=KDE;GNOME;\n", "ubuntu:GNOME").items.size(), 1u);
  EXPECT_TRUE(ParseDesktopEntry("/p", "p", "[Desktop Entry]\nType=Link\nName=L\n", "").items.empty());

  for (const char* broken : {"Name=X\n", "[Desktop Entry]\nType=Application\n",
                             "[Desktop Entry]\nName=X\nnot a key\n", "[Desktop Entry\nName=X\n",
                             "[Desktop Entry]\nName=\xff\n"})
    EXPECT_FALSE(ParseDesktopEntry("/p", "p", broken, "").ok()) << broken;
}

TEST(VCardTest, UnfoldsUnescapesAndKeepsEveryValue) {
  const char* cards =
      "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:u1\r\nFN:Marta Kowalska\r\nN:Kowalska;Marta;;;\r\n"
      "item1.EMAIL;TYPE=\"work,pref\":marta@wisla.example\r\nEMAIL:m@home.example\r\n"
      "ORG:Wisła;Logistics\r\nNOTE:one\\, two\\nthree long li\r\n ne\r\nEND:VCARD\r\n"
      "BEGIN:VCARD\nVERSION:4.0\nN:Berg;Jonas;;;\nTEL;VALUE=uri:tel:+47-555\nEND:VCARD\n";
  ParseResult r = ParseVCards("/c/team.vcf", cards);
  ASSERT_TRUE(r.ok()) << r.error;
  ASSERT_EQ(r.items.size(), 2u);
  const Item& marta = r.items[0];
  EXPECT_EQ(marta.title, "Marta Kowalska");
  EXPECT_EQ(marta.subtitle, "Wisła Logistics");
  EXPECT_THAT(marta.keywords, HasSubstr("marta@wisla.example"));
  EXPECT_THAT(marta.keywords, HasSubstr("m@home.example"));
  EXPECT_EQ(marta.body, "one, two\nthree long line");
  EXPECT_THAT(marta.contactIdentifiers, ElementsAre("u1"));
  const Item& jonas = r.items[1];
  EXPECT_EQ(jonas.title, "Jonas Berg");  // from N when FN is missing
  EXPECT_EQ(jonas.subtitle, "+47-555");
  EXPECT_THAT(jonas.contactIdentifiers, ElementsAre("card-2"));

  for (const char* broken : {"BEGIN:VCARD\nFN:A\n", "FN:A\n", "BEGIN:VCARD\nVERSION:3.0\nEND:VCARD\n",
                             "BEGIN:VCARD\nBEGIN:VCARD\nFN:A\nEND:VCARD\n", "", "BEGIN:VCARD\nno colon\nEND:VCARD\n"})
    EXPECT_FALSE(ParseVCards("/c/x.vcf", broken).ok()) << broken;
}

TEST(NoteTest, TitleFromHeadingOrFirstLineAndASnippet) {
  ParseResult md = ParseNote("/n/a.md", "intro line\n\n## Plan  \n\nBudget   review\nand hiring\n");
  ASSERT_TRUE(md.ok());
  EXPECT_EQ(md.items[0].title, "Plan");
  EXPECT_EQ(md.items[0].summary, "Budget review and hiring");
  ParseResult txt = ParseNote("/n/a.txt", "\n  # Not a heading in text\nbody\n");
  EXPECT_EQ(txt.items.at(0).title, "# Not a heading in text");
  const std::string longBody = "Title\n" + std::string(500, 'x');
  EXPECT_EQ(ParseNote("/n/l.txt", longBody).items.at(0).summary, std::string(kNoteSnippetLength, 'x') + "…");
  for (const std::string& broken : {std::string("\n \n"), std::string("a\0b", 3), std::string("\xff\xfe")})
    EXPECT_FALSE(ParseNote("/n/b.txt", broken).ok());
}

TEST(IndexerTest, RereadsOnlyChangesAndSkipsMalformedFiles) {
  namespace fs = std::filesystem;
  const std::string root = test::TestRoot() + "/indexer-data";  // not shared with other tests
  fs::create_directories(root + "/notes/sub");
  fs::create_directories(root + "/contacts");
  auto write = [&](const std::string& path, const std::string& text) {
    std::ofstream(root + "/" + path, std::ios::binary | std::ios::trunc) << text;
  };
  write("notes/a.md", "# Apple\nred");
  write("notes/sub/b.txt", "Banana\nyellow");
  write("contacts/bad.vcf", "BEGIN:VCARD\nFN:Broken\n");
  Index index(test::TestRoot() + "/indexer.db", false);
  Indexer indexer(index, MakeSources(SourceLocations::UnderRoot(root)));
  IndexerStats first = indexer.update();
  EXPECT_EQ(first.filesSeen, 3u);
  EXPECT_EQ(first.filesSkipped, 1u);
  EXPECT_EQ(first.items, 2u);

  IndexerStats again = indexer.update();
  EXPECT_EQ(again.filesRead, 0u);  // the malformed file too: its stamp is kept

  write("notes/a.md", "# Apricot\norange, a longer text now");
  fs::remove(root + "/notes/sub/b.txt");
  IndexerStats changed = indexer.update();
  EXPECT_EQ(changed.filesRead, 1u);
  EXPECT_EQ(changed.filesRemoved, 1u);
  EXPECT_EQ(index.search(PlanQuery("apric"), SearchRequest::InDomain(kDomainNotes)).size(), 1u);
  EXPECT_TRUE(index.search(PlanQuery("apple"), SearchRequest::InDomain(kDomainNotes)).empty());
  EXPECT_TRUE(index.search(PlanQuery("banana"), SearchRequest::InDomain(kDomainNotes)).empty());
}

}  // namespace
}  // namespace kx::searchd
