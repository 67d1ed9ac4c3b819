#include "searchd/documents.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <poppler/cpp/poppler-document.h>
#include <poppler/cpp/poppler-global.h>
#include <poppler/cpp/poppler-page.h>
#include <unicode/unistr.h>

#include <cstdlib>
#include <fstream>
#include <memory>

#include "kx/log.h"
#include "platform/files/file_id_service.h"
#include "searchd/note.h"
#include "searchd/text.h"

namespace kx::searchd {
namespace {

constexpr std::string_view kPdfMagic = "%PDF-";

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string DirName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

// `text` without an incomplete UTF-8 sequence at its end (a prefix cut at a
// byte limit).
std::string_view WithoutCutSequence(std::string_view text) {
  size_t back = 0;
  while (back < 4 && back < text.size() && (static_cast<unsigned char>(text[text.size() - 1 - back]) & 0xC0) == 0x80)
    ++back;
  if (back < text.size()) {
    const auto lead = static_cast<unsigned char>(text[text.size() - 1 - back]);
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    if (length > back + 1) return text.substr(0, text.size() - 1 - back);
  }
  return text;
}

// Text when `content` is UTF-8 without NUL bytes; binary files have none.
std::optional<std::string_view> PlainText(std::string_view content) {
  const std::string_view text = WithoutCutSequence(content);
  if (text.find('\0') != std::string_view::npos || !IsValidUtf8(text)) return std::nullopt;
  return text;
}

// poppler reports damaged files on standard error; the indexer logs them.
void SilencePoppler() {
  static std::once_flag once;
  std::call_once(once, [] { poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr); });
}

// Up to `limit` bytes from the start of the file open on `fd`.
std::optional<std::string> ReadPrefix(int fd, size_t limit) {
  std::string content(limit, '\0');
  size_t done = 0;
  while (done < limit) {
    const ssize_t n = read(fd, content.data() + done, limit - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  content.resize(done);
  return content;
}

}  // namespace

std::string DefaultDocumentsDirectory() {
  if (std::string dir = Env("XDG_DOCUMENTS_DIR"); !dir.empty()) return dir;
  const std::string home = Env("HOME").empty() ? std::string("/") : Env("HOME");
  const std::string config = Env("XDG_CONFIG_HOME").empty() ? home + "/.config" : Env("XDG_CONFIG_HOME");
  // Lines like XDG_DOCUMENTS_DIR="$HOME/Dokumente"; only $HOME is expanded.
  std::ifstream dirs(config + "/user-dirs.dirs");
  for (std::string line; std::getline(dirs, line);) {
    constexpr std::string_view kKey = "XDG_DOCUMENTS_DIR=\"";
    if (line.rfind(kKey, 0) != 0 || line.back() != '"') continue;
    std::string value = line.substr(kKey.size(), line.size() - kKey.size() - 1);
    if (value.rfind("$HOME", 0) == 0) value = home + value.substr(5);
    if (!value.empty() && value[0] == '/') return value;
  }
  return home + "/Documents";
}

ParseResult ExtractPdfText(std::string_view content, std::string* text) {
  SilencePoppler();
  std::unique_ptr<poppler::document> document(
      poppler::document::load_from_raw_data(content.data(), static_cast<int>(content.size())));
  if (!document) return ParseResult::Failure("unreadable PDF");
  if (document->is_locked()) return ParseResult::Failure("encrypted PDF");
  text->clear();
  for (int i = 0; i < document->pages() && text->size() < kMaxDocumentTextBytes; ++i) {
    std::unique_ptr<poppler::page> page(document->create_page(i));
    if (!page) continue;
    const poppler::byte_array utf8 = page->text().to_utf8();
    text->append(utf8.begin(), utf8.end());
    text->push_back('\n');
  }
  // A damaged text string can hold lone surrogates; ICU turns whatever is
  // not UTF-8 into U+FFFD.
  if (!IsValidUtf8(*text)) {
    std::string repaired;
    icu::UnicodeString::fromUTF8(*text).toUTF8String(repaired);
    *text = std::move(repaired);
  }
  if (text->size() > kMaxDocumentTextBytes)
    text->resize(WithoutCutSequence(std::string_view(*text).substr(0, kMaxDocumentTextBytes)).size());
  return {};
}

ParseResult ParseDocument(const std::string& path, std::string_view content) {
  ParseResult result;
  std::string pdfText;
  std::string_view text;
  if (content.substr(0, kPdfMagic.size()) == kPdfMagic) {
    ParseResult pdf = ExtractPdfText(content, &pdfText);
    if (pdf.ok()) {
      text = pdfText;
    } else {
      result.warning = pdf.error + ", indexed by name only";
    }
  } else if (std::optional<std::string_view> plain = PlainText(content)) {
    text = *plain;
  }
  Item item;
  item.domain = kDomainDocuments;
  item.bundle = kDocumentsBundle;
  // The path: unique among documents, and results with the same bundle and
  // external identifier count as the same result.
  item.identifier = path;
  item.title = BaseName(path);
  item.subtitle = BaseName(DirName(path));
  item.body = CollapseBlanks(text);
  item.summary = Snippet(item.body, kNoteSnippetLength);
  item.url = FileUrl(path);
  result.items.push_back(std::move(item));
  return result;
}

DocumentSource::DocumentSource(std::vector<std::string> dirs, FileIDsOpener openFileIDs)
    : dirs_(std::move(dirs)), openFileIDs_(std::move(openFileIDs)) {}

FileIDIndexer* DocumentSource::fileIDs() const {
  std::call_once(opened_, [this] {
    if (openFileIDs_) fileIDs_ = openFileIDs_();
  });
  return fileIDs_.get();
}

bool DocumentSource::accepts(const std::string& path) const {
  for (const std::string& dir : dirs_) {
    if (path.size() <= dir.size() + 1 || path.compare(0, dir.size(), dir) != 0 || path[dir.size()] != '/')
      continue;
    // Every name below the root: no hidden name, no backup.
    for (size_t start = dir.size() + 1; start < path.size();) {
      size_t end = path.find('/', start);
      if (end == std::string::npos) end = path.size();
      if (end == start || path[start] == '.' || path[end - 1] == '~') return false;
      start = end + 1;
    }
    return true;
  }
  return false;
}

ParseResult DocumentSource::parse(const std::string& path, std::string_view content) const {
  return ParseDocument(path, content);
}

ParseResult DocumentSource::load(const std::string& path) const {
  FileDescriptor fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  struct stat st;
  if (!fd.valid() || fstat(fd.get(), &st) != 0) return ParseResult::Failure("cannot open");
  if (!S_ISREG(st.st_mode)) return ParseResult::Failure("not a regular file");
  std::optional<std::string> content = ReadPrefix(fd.get(), kPdfMagic.size());
  if (!content) return ParseResult::Failure("cannot read");
  // A PDF is read whole (its text is spread over the file); a PDF above the
  // limit and any other file are read up to the text limit.
  const bool wholePdf = *content == kPdfMagic && static_cast<size_t>(st.st_size) <= kMaxPdfBytes;
  if (lseek(fd.get(), 0, SEEK_SET) != 0) return ParseResult::Failure("cannot read");
  content = ReadPrefix(fd.get(), wholePdf ? static_cast<size_t>(st.st_size) : kMaxDocumentTextBytes);
  if (!content) return ParseResult::Failure("cannot read");
  if (*content == kPdfMagic && !wholePdf) content->clear();  // too large: by name
  ParseResult result = ParseDocument(path, *content);
  FileIDIndexer* fileIDs = this->fileIDs();
  if (!fileIDs) return result;

  // Without an identifier of its own, a file where another was recorded is
  // that file saved safely: it inherits the identifier.
  std::string error;
  const bool hasIdentifier = fgetxattr(fd.get(), kDocumentIDAttribute, nullptr, 0) >= 0;
  const std::optional<uint32_t> documentID =
      hasIdentifier ? fileIDs->RecordFile(path, &error) : fileIDs->RecordSafeSave(path, &error);
  struct stat parent;
  if (!documentID || stat(DirName(path).c_str(), &parent) != 0) {
    KXLOG(4, "kx-searchd: no document identifier for %s: %s", path, error);
    return result;
  }
  result.items.front().fileLocation = FileLocation{st.st_ino, parent.st_ino, BaseName(path), *documentID};
  return result;
}

}  // namespace kx::searchd
