#include "searchd/vcard.h"

#include <algorithm>
#include <cctype>
#include <optional>

#include "searchd/text.h"

namespace kx::searchd {
namespace {

struct Property {
  std::string name;    // upper case, group prefix removed
  std::string value;   // raw, still escaped
};

// Joins folded lines: a line break followed by a space or tab continues the
// previous line (the one blank is dropped).
std::vector<std::string> UnfoldedLines(std::string_view content) {
  std::vector<std::string> lines;
  std::string current;
  bool have = false;
  size_t i = 0;
  while (i <= content.size()) {
    size_t end = content.find('\n', i);
    if (end == std::string_view::npos) end = content.size();
    std::string_view line = content.substr(i, end - i);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && have) {
      current.append(line.substr(1));
    } else {
      if (have) lines.push_back(std::move(current));
      current.assign(line);
      have = true;
    }
    i = end + 1;
  }
  if (have) lines.push_back(std::move(current));
  return lines;
}

std::optional<Property> ParseLine(const std::string& line) {
  // The value starts after the first colon outside a quoted parameter.
  bool quoted = false;
  size_t colon = std::string::npos;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '"') quoted = !quoted;
    if (line[i] == ':' && !quoted) {
      colon = i;
      break;
    }
  }
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::string name = line.substr(0, std::min(colon, line.find(';')));
  if (size_t dot = name.find('.'); dot != std::string::npos) name.erase(0, dot + 1);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return Property{std::move(name), line.substr(colon + 1)};
}

// Splits a value at unescaped `separator` and unescapes each part.
std::vector<std::string> Components(std::string_view value, char separator) {
  std::vector<std::string> parts(1);
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (c == '\\' && i + 1 < value.size()) {
      const char next = value[++i];
      parts.back() += (next == 'n' || next == 'N') ? '\n' : next;
    } else if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::string Unescaped(std::string_view value) { return Components(value, '\0').front(); }

std::string Join(const std::vector<std::string>& parts, const char* separator) {
  std::string out;
  for (const std::string& p : parts) {
    if (p.empty()) continue;
    if (!out.empty()) out += separator;
    out += p;
  }
  return out;
}

struct Card {
  std::string fn, uid, note;
  std::vector<std::string> name;  // N: family; given; additional; prefix; suffix
  std::vector<std::string> orgs, emails, phones;
};

ParseResult CardToItem(const std::string& path, const Card& card, size_t ordinal) {
  std::string title = card.fn;
  if (title.empty() && !card.name.empty()) {
    // "Given Additional Family"
    std::vector<std::string> order;
    for (size_t i : {size_t{3}, size_t{1}, size_t{2}, size_t{0}, size_t{4}})
      if (i < card.name.size()) order.push_back(card.name[i]);
    title = Join(order, " ");
  }
  if (title.empty()) return ParseResult::Failure("card " + std::to_string(ordinal) + " has no name");
  Item item;
  item.domain = kDomainContacts;
  item.bundle = "com.orvex.contacts";
  item.identifier = card.uid.empty() ? "card-" + std::to_string(ordinal) : card.uid;
  item.title = title;
  item.subtitle = !card.orgs.empty() ? card.orgs.front()
                  : !card.emails.empty() ? card.emails.front()
                  : !card.phones.empty() ? card.phones.front() : std::string();
  item.summary = Join({Join(card.emails, ", "), Join(card.phones, ", ")}, " · ");
  item.url = FileUrl(path) + "#" + item.identifier;
  item.keywords = Join(card.name, " ") + " " + Join(card.orgs, " ") + " " + Join(card.emails, " ") +
                  " " + Join(card.phones, " ");
  item.body = card.note;
  item.contactIdentifiers = {item.identifier};
  ParseResult r;
  r.items.push_back(std::move(item));
  return r;
}

}  // namespace

ParseResult ParseVCards(const std::string& path, std::string_view content) {
  if (!IsValidUtf8(content)) return ParseResult::Failure("not UTF-8");
  ParseResult result;
  std::optional<Card> card;
  size_t ordinal = 0;
  for (const std::string& line : UnfoldedLines(content)) {
    if (line.empty()) continue;
    const std::optional<Property> p = ParseLine(line);
    if (!p) return ParseResult::Failure("not a property: " + line.substr(0, 40));
    if (p->name == "BEGIN" && Fold(p->value) == "vcard") {
      if (card) return ParseResult::Failure("nested BEGIN:VCARD");
      card.emplace();
      continue;
    }
    if (!card) return ParseResult::Failure("property outside a card: " + p->name);
    if (p->name == "END") {
      ParseResult one = CardToItem(path, *card, ++ordinal);
      if (!one.ok()) return one;
      result.items.push_back(std::move(one.items.front()));
      card.reset();
    } else if (p->name == "FN") {
      card->fn = Unescaped(p->value);
    } else if (p->name == "N") {
      card->name = Components(p->value, ';');
    } else if (p->name == "ORG") {
      card->orgs.push_back(Join(Components(p->value, ';'), " "));
    } else if (p->name == "EMAIL") {
      card->emails.push_back(Unescaped(p->value));
    } else if (p->name == "TEL") {
      std::string tel = Unescaped(p->value);
      if (tel.rfind("tel:", 0) == 0) tel.erase(0, 4);  // vCard 4 URI form
      card->phones.push_back(tel);
    } else if (p->name == "NOTE") {
      card->note += (card->note.empty() ? "" : "\n") + Unescaped(p->value);
    } else if (p->name == "UID") {
      card->uid = Unescaped(p->value);
    }
  }
  if (card) return ParseResult::Failure("card without END:VCARD");
  if (result.items.empty()) return ParseResult::Failure("no card");
  return result;
}

}  // namespace kx::searchd
