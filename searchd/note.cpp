#include "searchd/note.h"

#include "searchd/text.h"

namespace kx::searchd {
namespace {

std::string_view TrimView(std::string_view s) {
  const size_t b = s.find_first_not_of(" \t\r");
  if (b == std::string_view::npos) return {};
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

bool IsMarkdown(const std::string& path) {
  return path.size() > 3 && path.compare(path.size() - 3, 3, ".md") == 0;
}

}  // namespace

ParseResult ParseNote(const std::string& path, std::string_view content) {
  if (!IsValidUtf8(content)) return ParseResult::Failure("not UTF-8");
  if (content.find('\0') != std::string_view::npos) return ParseResult::Failure("binary content");
  const bool markdown = IsMarkdown(path);
  std::string_view title;
  size_t titleEnd = 0;  // where the text after the title starts
  // A Markdown heading anywhere wins over the first line.
  for (size_t i = 0; i < content.size() && markdown;) {
    size_t end = content.find('\n', i);
    if (end == std::string_view::npos) end = content.size();
    std::string_view line = TrimView(content.substr(i, end - i));
    if (line.size() > 1 && line[0] == '#') {
      const size_t text = line.find_first_not_of('#');
      if (text != std::string_view::npos && line[text] == ' ') {
        line.remove_prefix(text);
        title = TrimView(line);
        titleEnd = end;
        break;
      }
    }
    i = end + 1;
  }
  for (size_t i = 0; title.empty() && i < content.size();) {
    size_t end = content.find('\n', i);
    if (end == std::string_view::npos) end = content.size();
    title = TrimView(content.substr(i, end - i));
    titleEnd = end;
    i = end + 1;
  }
  if (title.empty()) return ParseResult::Failure("no text");

  const std::string rest = Collapse(content.substr(std::min(titleEnd, content.size())));
  Item item;
  item.domain = kDomainNotes;
  item.bundle = "com.orvex.notes";
  item.identifier = "note";
  item.title = Collapse(title);
  item.summary = Snippet(rest, kNoteSnippetLength);
  item.url = FileUrl(path);
  item.body = rest;
  ParseResult r;
  r.items.push_back(std::move(item));
  return r;
}

}  // namespace kx::searchd
