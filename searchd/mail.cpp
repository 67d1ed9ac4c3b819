#include "searchd/mail.h"

#include <gmime/gmime.h>

#include <memory>
#include <mutex>
#include <optional>

#include "searchd/html_text.h"
#include "searchd/text.h"

namespace kx::searchd {
namespace {

// Multiparts nested deeper than this are not searched for the body: real
// mail nests three or four levels, a hostile one could exhaust the stack.
constexpr int kMaxPartDepth = 16;
constexpr size_t kUntitledMailTitleLength = 60;

struct GObjectUnref {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectUnref>;

struct GFree {
  void operator()(gpointer p) const { g_free(p); }
};

void InitGMime() {
  static std::once_flag once;
  std::call_once(once, [] { g_mime_init(); });
}

// GMime decodes into UTF-8, but a raw 8-bit header in a charset it guessed
// wrong can still come out invalid; the index must only hold UTF-8.
std::string Utf8(const char* text) {
  if (!text) return {};
  if (g_utf8_validate(text, -1, nullptr)) return text;
  std::unique_ptr<char, GFree> valid(g_utf8_make_valid(text, -1));
  return valid.get();
}

struct Mailbox {
  std::string name;
  std::string address;
  std::string display() const { return name.empty() ? address : name; }
};

void AddMailboxes(InternetAddressList* list, std::vector<Mailbox>& out, int depth = 0) {
  if (!list || depth > kMaxPartDepth) return;
  for (int i = 0; i < internet_address_list_length(list); ++i) {
    InternetAddress* address = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_GROUP(address)) {
      AddMailboxes(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), out, depth + 1);
    } else if (INTERNET_ADDRESS_IS_MAILBOX(address)) {
      out.push_back({Utf8(internet_address_get_name(address)),
                     Utf8(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address)))});
    }
  }
}

struct Body {
  std::string text;
  bool html = false;
};

// The part that holds what the sender wrote: in multipart/alternative the
// plain text, or the HTML when there is none; in any other multipart the
// first text part that is not an attachment.
std::optional<Body> FindBody(GMimeObject* object, int depth = 0) {
  if (depth > kMaxPartDepth) return std::nullopt;
  if (GMIME_IS_MULTIPART(object)) {
    GMimeMultipart* multipart = GMIME_MULTIPART(object);
    const bool alternative =
        g_mime_content_type_is_type(g_mime_object_get_content_type(object), "multipart", "alternative");
    std::optional<Body> html;
    for (int i = 0; i < g_mime_multipart_get_count(multipart); ++i) {
      std::optional<Body> found = FindBody(g_mime_multipart_get_part(multipart, i), depth + 1);
      if (!found) continue;
      if (!alternative || !found->html) return found;
      if (!html) html = std::move(found);
    }
    return html;
  }
  if (!GMIME_IS_TEXT_PART(object) || g_mime_part_is_attachment(GMIME_PART(object))) return std::nullopt;
  GMimeContentType* type = g_mime_object_get_content_type(object);
  const bool html = g_mime_content_type_is_type(type, "text", "html");
  if (!html && !g_mime_content_type_is_type(type, "text", "plain")) return std::nullopt;
  std::unique_ptr<char, GFree> text(g_mime_text_part_get_text(GMIME_TEXT_PART(object)));
  if (!text) return std::nullopt;
  return Body{Utf8(text.get()), html};
}

void AddAttachmentName(GMimeObject*, GMimeObject* part, gpointer names) {
  if (!GMIME_IS_PART(part) || !g_mime_part_is_attachment(GMIME_PART(part))) return;
  if (const char* name = g_mime_part_get_filename(GMIME_PART(part)))
    static_cast<std::vector<std::string>*>(names)->push_back(Utf8(name));
}

// The first lines a reader would look at: no quotations, nothing of the
// signature.
std::string SummaryOf(std::string_view body) {
  std::string lines;
  size_t taken = 0;
  for (size_t i = 0; i < body.size() && taken < kMailSummaryLines;) {
    size_t end = body.find('\n', i);
    if (end == std::string_view::npos) end = body.size();
    std::string_view line = body.substr(i, end - i);
    i = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (line == "-- " || line == "--") break;
    const std::string collapsed = CollapseBlanks(line);
    if (collapsed.empty() || collapsed[0] == '>') continue;
    lines += (lines.empty() ? "" : " ") + collapsed;
    ++taken;
  }
  return Snippet(lines, kMailSnippetLength);
}

// RFC 2392: the Message-ID's characters that a URL may hold as they are.
std::string MidUrl(std::string_view messageId) {
  return "mid:" + PercentEncoded(messageId, "-._~!$&'*+=@", false);
}

// The unique part of a Maildir file name: what comes before the ":2,"
// that carries the flags.
std::string UniqueName(const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.find(':'));
}

std::string JoinWords(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words)
    if (!w.empty()) out += (out.empty() ? "" : " ") + w;
  return out;
}

}  // namespace

bool IsMaildirMessage(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash < 4 || slash + 1 >= path.size() || path[slash + 1] == '.') return false;
  const std::string_view folder = std::string_view(path).substr(0, slash);
  return folder.ends_with("/cur") || folder.ends_with("/new");
}

ParseResult ParseMail(const std::string& path, std::string_view content) {
  InitGMime();
  GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(content.data(), content.size()));
  GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  g_mime_parser_set_format(parser.get(), GMIME_FORMAT_MESSAGE);
  GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), nullptr));
  if (!message) return ParseResult::Failure("not a mail");
  GMimeObject* object = GMIME_OBJECT(message.get());
  bool hasHeader = false;
  for (const char* name : {"From", "Subject", "Date", "Message-ID"})
    hasHeader = hasHeader || g_mime_object_get_header(object, name);
  if (!hasHeader) return ParseResult::Failure("no From, Subject, Date or Message-ID");

  std::vector<Mailbox> senders, recipients;
  AddMailboxes(g_mime_message_get_from(message.get()), senders);
  AddMailboxes(g_mime_message_get_sender(message.get()), senders);
  AddMailboxes(g_mime_message_get_reply_to(message.get()), senders);
  for (GMimeAddressType type : {GMIME_ADDRESS_TYPE_TO, GMIME_ADDRESS_TYPE_CC, GMIME_ADDRESS_TYPE_BCC})
    AddMailboxes(g_mime_message_get_addresses(message.get(), type), recipients);
  std::vector<std::string> keywords;
  for (const auto* list : {&senders, &recipients})
    for (const Mailbox& m : *list) keywords.insert(keywords.end(), {m.name, m.address});
  g_mime_message_foreach(message.get(), &AddAttachmentName, &keywords);

  std::optional<Body> body;
  if (GMimeObject* root = g_mime_message_get_mime_part(message.get())) body = FindBody(root);
  const std::string text = !body ? std::string() : body->html ? HtmlToText(body->text) : body->text;

  Item item;
  item.domain = kDomainMail;
  item.bundle = "com.orvex.mail";
  const std::string messageId = Utf8(g_mime_message_get_message_id(message.get()));
  item.identifier = messageId.empty() ? "maildir:" + UniqueName(path) : messageId;
  item.url = messageId.empty() ? FileUrl(path) : MidUrl(messageId);
  item.title = CollapseBlanks(Utf8(g_mime_message_get_subject(message.get())));
  if (!senders.empty()) item.subtitle = senders.front().display();
  if (GDateTime* date = g_mime_message_get_date(message.get()))
    item.date = Date{static_cast<double>(g_date_time_to_unix(date)) - Date::kUnixEpochOffset};
  item.summary = SummaryOf(text);
  // A message without subject is shown by the start of what it says.
  if (item.title.empty()) item.title = Snippet(item.summary, kUntitledMailTitleLength);
  item.body = CodePointPrefix(text, kMailBodyIndexed);
  item.keywords = JoinWords(keywords);
  ParseResult result;
  result.items.push_back(std::move(item));
  return result;
}

}  // namespace kx::searchd
