// Documents: every file under the documents root, found by its name, and by
// its text when it is a text file or a PDF.
//
// Limits. Text files: the first kMaxDocumentTextBytes are read and indexed.
// PDFs: files up to kMaxPdfBytes are opened with poppler and the text of
// their pages is indexed up to kMaxDocumentTextBytes. Larger files, other
// binary files, and PDFs poppler cannot open (damaged, encrypted) are found
// by name only; an unreadable PDF is logged at level 4 once per change.
//
// Hidden files and folders (a name starting with '.') and backups ending in
// '~' are not documents: editors write their temporary files and backups
// under such names, and a temporary file indexed before it is renamed over
// the document would take a document identifier of its own.
//
// File identifiers. Each document is recorded in the file-identifier index
// of the search support directory, which gives it a document identifier
// (the "user.orvex.docid" attribute, allocated when missing) and maps its
// inode to its path; its result carries inode, parent inode, name and
// document identifier, from which the client finds the file again after a
// rename or a move. A file that appears at a recorded path with a new inode
// and no identifier of its own replaced the recorded file (a safe save): it
// inherits the old document identifier. When the index cannot be written
// (no support directory, no extended attributes on the volume) documents
// are still indexed, with their file URL only.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "searchd/parse_result.h"
#include "searchd/sources.h"

namespace kx {
class FileIDIndexer;
}

namespace kx::searchd {

inline constexpr size_t kMaxDocumentTextBytes = 1024 * 1024;
inline constexpr size_t kMaxPdfBytes = 32 * 1024 * 1024;
inline constexpr const char* kDocumentsBundle = "com.orvex.documents";

// The user's documents folder: $XDG_DOCUMENTS_DIR, else its entry in
// $XDG_CONFIG_HOME/user-dirs.dirs, else ~/Documents.
std::string DefaultDocumentsDirectory();

// The text of a PDF, at most kMaxDocumentTextBytes; an error when poppler
// cannot open it or it is encrypted.
ParseResult ExtractPdfText(std::string_view content, std::string* text);

// One document's item from its path and (a prefix of) its content; no file
// identifiers. Never fails: a PDF that cannot be read leaves a warning and
// an item found by name.
ParseResult ParseDocument(const std::string& path, std::string_view content);

class DocumentSource : public Source {
 public:
  // Opens the file-identifier index, or yields null: documents then carry
  // no file identifiers. Called once, for the first document, so that a
  // daemon without documents creates no index.
  using FileIDsOpener = std::function<std::shared_ptr<FileIDIndexer>()>;

  DocumentSource(std::vector<std::string> dirs, FileIDsOpener openFileIDs);

  std::string name() const override { return "documents"; }
  std::vector<std::string> directories() const override { return dirs_; }
  bool accepts(const std::string& path) const override;
  ParseResult parse(const std::string& path, std::string_view content) const override;
  // Reads within the limits above and records the file's identifiers.
  ParseResult load(const std::string& path) const override;

 private:
  FileIDIndexer* fileIDs() const;

  std::vector<std::string> dirs_;
  FileIDsOpener openFileIDs_;
  mutable std::once_flag opened_;
  mutable std::shared_ptr<FileIDIndexer> fileIDs_;  // set once under opened_
};

}  // namespace kx::searchd
