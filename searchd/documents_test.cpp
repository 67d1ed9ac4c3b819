// Documents: what is read from text files and PDFs, which files count, and
// the document identifiers recorded for them, across safe saves and moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <filesystem>
#include <fstream>

#include "platform/files/file_id_service.h"
#include "searchd/documents.h"
#include "tests/support/test_environment.h"

namespace kx::searchd {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

uint64_t Inode(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return st.st_ino;
}

uint32_t Device(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
  return DeviceNumber32(st.st_dev);
}

std::string Attribute(const std::string& path) {
  char value[32];
  const ssize_t n = getxattr(path.c_str(), kDocumentIDAttribute, value, sizeof value);
  return n < 0 ? std::string() : std::string(value, static_cast<size_t>(n));
}

TEST(DocumentParseTest, TextOfPdfsAndTextFilesNameOnlyOtherwise) {
  const std::string samples = std::string(KX_EXAMPLES_DATA) + "/documents";
  const std::string pdfPath = samples + "/informe-cosecha.pdf";
  ParseResult pdf = ParseDocument(pdfPath, ReadAll(pdfPath));
  ASSERT_TRUE(pdf.ok());
  EXPECT_THAT(pdf.warning, IsEmpty());
  const Item& item = pdf.items.at(0);
  EXPECT_EQ(item.domain, kDomainDocuments);
  EXPECT_EQ(item.title, "informe-cosecha.pdf");
  EXPECT_EQ(item.subtitle, "documents");
  EXPECT_THAT(item.body, HasSubstr("Las viñas de la ribera"));  // WinAnsi accents decoded
  EXPECT_EQ(item.url, "file://" + pdfPath);

  // A damaged PDF is still found by its name, with a warning for the log.
  const std::string damaged = samples + "/damaged-scan.pdf";
  ParseResult broken = ParseDocument(damaged, ReadAll(damaged));
  ASSERT_TRUE(broken.ok());
  EXPECT_THAT(broken.warning, HasSubstr("unreadable PDF"));
  EXPECT_EQ(broken.items.at(0).title, "damaged-scan.pdf");
  EXPECT_THAT(broken.items.at(0).body, IsEmpty());

  // Text cut at the read limit in the middle of a character keeps the rest.
  const std::string cut = std::string("Größe\n  zählt") + std::string("\xc3", 1);
  EXPECT_EQ(ParseDocument("/d/a.txt", cut).items.at(0).body, "Größe zählt");
  // Binary content contributes no text.
  EXPECT_THAT(ParseDocument("/d/a.bin", std::string("ab\0cd", 5)).items.at(0).body, IsEmpty());
  EXPECT_THAT(ParseDocument("/d/a.txt", "\xff\xfe latin1").items.at(0).body, IsEmpty());
}

TEST(DocumentSourceTest, HiddenFilesAndBackupsAreNoDocuments) {
  DocumentSource source({"/home/u/Documents"}, nullptr);
  EXPECT_TRUE(source.accepts("/home/u/Documents/report.pdf"));
  EXPECT_TRUE(source.accepts("/home/u/Documents/a.b/c"));
  EXPECT_FALSE(source.accepts("/home/u/Documents/.report.pdf.swp"));
  EXPECT_FALSE(source.accepts("/home/u/Documents/.git/config"));
  EXPECT_FALSE(source.accepts("/home/u/Documents/report.txt~"));
  EXPECT_FALSE(source.accepts("/home/u/Documents"));
  EXPECT_FALSE(source.accepts("/home/u/Documentsx/a.txt"));
}

// The identifiers recorded for a document follow it: the document identifier
// through a safe save (new inode at the same path), the inode through a
// move.
TEST(DocumentSourceTest, DocumentIdentifierSurvivesSafeSaveAndMove) {
  std::string error;
  std::shared_ptr<FileIDIndexer> fileIDs = FileIDIndexer::Open(&error);
  ASSERT_TRUE(fileIDs) << error;
  const std::string root = test::TestRoot() + "/docs";
  const std::string path = root + "/plan.txt";
  WriteFile(path, "first draft");
  DocumentSource source({root}, [&] { return fileIDs; });

  auto load = [&](const std::string& p) {
    ParseResult r = source.load(p);
    EXPECT_TRUE(r.ok()) << r.error;
    EXPECT_TRUE(r.items.at(0).fileLocation.has_value()) << p;
    return r.items.at(0).fileLocation.value_or(FileLocation{});
  };
  const FileLocation first = load(path);
  EXPECT_NE(first.documentIdentifier, 0u);
  EXPECT_EQ(first.fileIdentifier, Inode(path));
  EXPECT_EQ(first.parentFileIdentifier, Inode(root));
  EXPECT_EQ(first.filename, "plan.txt");
  EXPECT_EQ(Attribute(path), std::to_string(first.documentIdentifier));
  EXPECT_EQ(load(path).documentIdentifier, first.documentIdentifier);  // stable when read again

  // Safe save: a new file without an identifier renamed over the old one.
  WriteFile(root + "/plan.txt.new", "second draft");
  fs::rename(root + "/plan.txt.new", path);
  const FileLocation saved = load(path);
  EXPECT_NE(saved.fileIdentifier, first.fileIdentifier);
  EXPECT_EQ(saved.documentIdentifier, first.documentIdentifier);
  EXPECT_EQ(Attribute(path), std::to_string(first.documentIdentifier));
  EXPECT_EQ(ResolveDocumentID(Device(path), first.documentIdentifier), saved.fileIdentifier);

  // Moved into a folder of its own: same inode and identifier, new parent.
  const std::string moved = root + "/archive/plan-final.txt";
  fs::create_directories(root + "/archive");
  fs::rename(path, moved);
  const FileLocation after = load(moved);
  EXPECT_EQ(after.fileIdentifier, saved.fileIdentifier);
  EXPECT_EQ(after.documentIdentifier, first.documentIdentifier);
  EXPECT_EQ(after.parentFileIdentifier, Inode(root + "/archive"));
  EXPECT_EQ(after.filename, "plan-final.txt");
}

}  // namespace
}  // namespace kx::searchd
