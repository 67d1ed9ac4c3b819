#include "searchd/sources.h"

#include <cctype>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include "kx/log.h"
#include "platform/files/file_id_service.h"
#include "searchd/calendar.h"
#include "searchd/desktop_entry.h"
#include "searchd/documents.h"
#include "searchd/mail.h"
#include "searchd/note.h"
#include "searchd/vcard.h"

namespace kx::searchd {
namespace {

bool EndsWith(const std::string& s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string Env(const char* name, const std::string& fallback) {
  const char* v = std::getenv(name);
  return v && *v ? std::string(v) : fallback;
}

std::string Home() { return Env("HOME", "/"); }
std::string DataHome() { return Env("XDG_DATA_HOME", Home() + "/.local/share"); }

class ApplicationSource : public Source {
 public:
  explicit ApplicationSource(std::vector<std::string> dirs) : dirs_(std::move(dirs)) {}
  std::string name() const override { return "applications"; }
  std::vector<std::string> directories() const override { return dirs_; }
  bool accepts(const std::string& path) const override { return EndsWith(path, ".desktop"); }
  ParseResult parse(const std::string& path, std::string_view content) const override {
    return ParseDesktopEntry(path, DesktopId(path), content, Env("XDG_CURRENT_DESKTOP", ""));
  }

 private:
  // The desktop id: the path below its applications directory, '/'
  // replaced by '-', without ".desktop".
  std::string DesktopId(const std::string& path) const {
    std::string relative = path.substr(path.rfind('/') + 1);
    for (const std::string& dir : dirs_) {
      if (path.rfind(dir + "/", 0) == 0) {
        relative = path.substr(dir.size() + 1);
        break;
      }
    }
    for (char& c : relative)
      if (c == '/') c = '-';
    return relative.substr(0, relative.size() - std::string_view(".desktop").size());
  }
  std::vector<std::string> dirs_;
};

// A source whose files are recognised by their extension and parsed on
// their own.
class FileSource : public Source {
 public:
  using Parser = ParseResult (*)(const std::string& path, std::string_view content);
  FileSource(std::string name, std::vector<std::string> extensions, Parser parser,
             std::vector<std::string> dirs)
      : name_(std::move(name)), extensions_(std::move(extensions)), parser_(parser), dirs_(std::move(dirs)) {}
  std::string name() const override { return name_; }
  std::vector<std::string> directories() const override { return dirs_; }
  bool accepts(const std::string& path) const override {
    for (const std::string& extension : extensions_)
      if (EndsWith(path, extension)) return true;
    return false;
  }
  ParseResult parse(const std::string& path, std::string_view content) const override {
    return parser_(path, content);
  }

 private:
  std::string name_;
  std::vector<std::string> extensions_;
  Parser parser_;
  std::vector<std::string> dirs_;
};

// Every message of every Maildir folder below the roots; their files have
// no extension, only their folder tells them apart.
class MaildirSource : public Source {
 public:
  explicit MaildirSource(std::vector<std::string> roots) : roots_(std::move(roots)) {}
  std::string name() const override { return "mail"; }
  std::vector<std::string> directories() const override { return roots_; }
  bool accepts(const std::string& path) const override { return IsMaildirMessage(path); }
  size_t prefixBytes() const override { return kMailPrefixBytes; }
  ParseResult parse(const std::string& path, std::string_view content) const override {
    return ParseMail(path, content);
  }

 private:
  std::vector<std::string> roots_;
};

std::optional<std::string> ReadFile(const std::string& path, size_t prefixBytes,
                                    std::string* why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *why = "cannot open";
    return std::nullopt;
  }
  in.seekg(0, std::ios::end);
  std::streamoff size = in.tellg();
  if (prefixBytes > 0 && size > static_cast<std::streamoff>(prefixBytes))
    size = static_cast<std::streamoff>(prefixBytes);
  if (size < 0 || static_cast<size_t>(size) > kMaxSourceFileBytes) {
    *why = "too large";
    return std::nullopt;
  }
  std::string content(static_cast<size_t>(size), '\0');
  in.seekg(0);
  if (!in.read(content.data(), size)) {
    *why = "cannot read";
    return std::nullopt;
  }
  return content;
}

// The file-identifier index the documents are recorded in; null (logged)
// when it cannot be opened, and documents then go without identifiers.
std::shared_ptr<FileIDIndexer> OpenFileIDIndexer() {
  std::string error;
  std::shared_ptr<FileIDIndexer> indexer = FileIDIndexer::Open(&error);
  if (!indexer) KXLOG(4, "kx-searchd: documents without file identifiers: %s", error);
  return indexer;
}

}  // namespace

ParseResult Source::load(const std::string& path) const {
  std::string why;
  std::optional<std::string> content = ReadFile(path, prefixBytes(), &why);
  return content ? parse(path, *content) : ParseResult::Failure(why);
}

std::string PercentEncoded(std::string_view text, std::string_view kept, bool keepNonAscii) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || kept.find(static_cast<char>(c)) != std::string_view::npos || (keepNonAscii && c >= 0x80)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

std::string FileUrl(const std::string& path) { return "file://" + PercentEncoded(path, "/-_.~", true); }

SourceLocations SourceLocations::ForUser() {
  SourceLocations l;
  // $XDG_DATA_HOME first: a user's own entry overrides a system one with
  // the same desktop id.
  l.applications.push_back(DataHome() + "/applications");
  std::stringstream dirs(Env("XDG_DATA_DIRS", "/usr/local/share:/usr/share"));
  for (std::string dir; std::getline(dirs, dir, ':');)
    if (!dir.empty()) l.applications.push_back(dir + "/applications");
  l.contacts.push_back(DataHome() + "/contacts");
  l.notes.push_back(DataHome() + "/notes");
  l.mail.push_back(Home() + "/Maildir");
  l.calendar.push_back(DataHome() + "/calendar");
  l.documents.push_back(DefaultDocumentsDirectory());
  return l;
}

SourceLocations SourceLocations::UnderRoot(const std::string& dataRoot) {
  SourceLocations l;
  l.applications = {dataRoot + "/applications"};
  l.contacts = {dataRoot + "/contacts"};
  l.notes = {dataRoot + "/notes"};
  l.mail = {dataRoot + "/mail"};
  l.calendar = {dataRoot + "/calendar"};
  l.documents = {dataRoot + "/documents"};
  return l;
}

std::vector<std::unique_ptr<Source>> MakeSources(const SourceLocations& locations) {
  std::vector<std::unique_ptr<Source>> sources;
  sources.push_back(std::make_unique<ApplicationSource>(locations.applications));
  sources.push_back(std::make_unique<FileSource>(
      "contacts", std::vector<std::string>{".vcf", ".vcard"}, &ParseVCards, locations.contacts));
  sources.push_back(std::make_unique<FileSource>(
      "notes", std::vector<std::string>{".md", ".txt"}, &ParseNote, locations.notes));
  sources.push_back(std::make_unique<MaildirSource>(locations.mail));
  // Recurring events are placed relative to the time they are read.
  sources.push_back(std::make_unique<FileSource>(
      "calendar", std::vector<std::string>{".ics"},
      [](const std::string& path, std::string_view content) { return ParseCalendar(path, content, Date::Now()); },
      locations.calendar));
  if (!locations.documents.empty())
    sources.push_back(std::make_unique<DocumentSource>(locations.documents, &OpenFileIDIndexer));
  return sources;
}

}  // namespace kx::searchd
