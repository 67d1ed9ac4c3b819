// Documents and live updates as a client sees them: kx-searchd under the
// launcher over a copy of the sample data, changed while it runs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "searchd/searchd_testing.h"

namespace kx::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::IsEmpty;

constexpr uint32_t kDocuments = 14;

QueryOptions Documents() {
  QueryOptions options;
  options.domains = {kDocuments};
  return options;
}

// Polls `done` for up to 10 s: changes reach the index a little after they
// are made.
template <class Predicate>
bool Eventually(Predicate done) {
  for (auto deadline = std::chrono::steady_clock::now() + kTimeout; std::chrono::steady_clock::now() < deadline;) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

class SearchdDocumentsTest : public ::testing::Test {
 protected:
  std::string documents() const { return daemon_.dataRoot() + "/documents"; }

  // The document results for `text`.
  std::vector<std::shared_ptr<KXSearchResult>> find(const std::string& text) {
    std::vector<std::shared_ptr<KXSearchResult>> results;
    for (const SeenSection& s : daemon_.search(text, Documents()))
      if (s.domain == kDocuments) results.insert(results.end(), s.results.begin(), s.results.end());
    return results;
  }
  // The result titled `title` for `text` once the daemon has it; null
  // after 10 s.
  std::shared_ptr<KXSearchResult> eventually(const std::string& text, const std::string& title) {
    std::shared_ptr<KXSearchResult> found;
    Eventually([&] {
      for (const auto& result : find(text))
        if (result->title() == title) found = result;
      return found != nullptr;
    });
    return found;
  }
  bool eventuallyGone(const std::string& text) {
    return Eventually([&] { return find(text).empty(); });
  }
  // The content location of a result as a client that received it earlier
  // (and never asked) would compute it now.
  static std::optional<std::string> resolvedLater(const std::vector<uint8_t>& received) {
    KXSearchResult result;
    if (!result.initWithData(received)) return std::nullopt;
    return result.contentURL();
  }

  Searchd daemon_;
};

TEST_F(SearchdDocumentsTest, DocumentsAreFoundByNameAndText) {
  struct Case {
    const char* text;
    const char* title;
  } cases[] = {
      {"lanterns", "annual-report-2025.pdf"},         // a PDF in a subfolder, by its text
      {"vinas rib", "informe-cosecha.pdf"},           // Spanish PDF, accents removed
      {"bibliothèque mun", "lettre-bibliothèque.pdf"},  // French PDF
      {"straßenbahn", "Reisebericht Lissabon.txt"},   // German text file
      {"крышу", "план ремонта.txt"},                  // Russian
      {"展示会", "会議メモ.txt"},                     // Japanese, split by ICU
      {"damaged", "damaged-scan.pdf"},                // unreadable PDF, by name
      {"firmware", "firmware-backup.bin"},            // any file, by name
  };
  for (const Case& c : cases) {
    std::vector<std::string> titles;
    for (const auto& r : find(c.text)) titles.push_back(r->title().value_or(""));
    EXPECT_THAT(titles, Contains(c.title)) << c.text;
  }
  EXPECT_THAT(find("cosecha lanterns"), IsEmpty());
}

TEST_F(SearchdDocumentsTest, ContentLocationFollowsSafeSavesAndMoves) {
  const std::string original = documents() + "/recette-tarte-tatin.txt";
  std::shared_ptr<KXSearchResult> found = eventually("caramel", "recette-tarte-tatin.txt");
  ASSERT_TRUE(found);
  ASSERT_TRUE(found->documentIdentifier().has_value());
  const std::vector<uint8_t> received = found->data();  // before contentURL(), see below
  EXPECT_EQ(found->contentURL(), original);

  // Safe save: the new text in a new file renamed over the old one.
  WriteFile(documents() + "/.recette.tmp", "Tarte Tatin\n\nAvec des pommes de Normandie.\n");
  fs::rename(documents() + "/.recette.tmp", original);
  std::shared_ptr<KXSearchResult> saved = eventually("normandie", "recette-tarte-tatin.txt");
  ASSERT_TRUE(saved);
  // Taken before asking: the record carries a content location once computed.
  const std::vector<uint8_t> receivedSaved = saved->data();
  EXPECT_EQ(saved->documentIdentifier(), found->documentIdentifier());
  EXPECT_NE(saved->fileIdentifier(), found->fileIdentifier());
  EXPECT_EQ(saved->contentURL(), original);
  EXPECT_EQ(resolvedLater(received), original);  // by the document identifier

  // Moved and renamed: both results lead to the new place.
  const std::string moved = documents() + "/travel/tatin-finale.txt";
  fs::rename(original, moved);
  std::shared_ptr<KXSearchResult> after = eventually("finale", "tatin-finale.txt");
  ASSERT_TRUE(after);
  EXPECT_EQ(after->contentURL(), moved);
  EXPECT_EQ(resolvedLater(receivedSaved), moved);
  EXPECT_EQ(resolvedLater(received), moved);
  EXPECT_TRUE(eventuallyGone("recette"));
}

TEST_F(SearchdDocumentsTest, FilesAddedOrRemovedWhileRunningAreFoundOrGone) {
  // A new folder with a file, made at once: the folder's watch may come
  // after the file, which is found all the same.
  fs::create_directories(documents() + "/garden");
  WriteFile(documents() + "/garden/seeds.txt", "Sow the marigolds after the last frost.");
  EXPECT_TRUE(eventually("marigo", "seeds.txt"));

  fs::remove(documents() + "/reports/annual-report-2025.pdf");
  EXPECT_TRUE(eventuallyGone("lanterns"));

  // Another source is watched the same way.
  QueryOptions notes;
  notes.domains = {5};
  WriteFile(daemon_.dataRoot() + "/notes/pond.md", "# Koi pond\nclean the filter");
  EXPECT_TRUE(Eventually([&] { return !TitlesIn(daemon_.search("koi", notes), 5).empty(); }));
}

}  // namespace
}  // namespace kx::test
