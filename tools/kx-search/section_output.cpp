#include "tools/kx-search/section_output.h"

#include <algorithm>

#include "kx/search_domains.h"

namespace kx::cli {
namespace {

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kReverse = "\x1b[7m";
constexpr const char* kReset = "\x1b[0m";

// Terminal columns are approximated by code points: the sample data's CJK
// titles come out a little narrow, which a listing can afford.
size_t CodePoints(const std::string& s) {
  return static_cast<size_t>(std::count_if(
      s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

template <class T>
void PutIf(nlohmann::json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

}  // namespace

std::string SectionTitle(const KXSearchResultSection& section) {
  std::optional<std::string> name = KXDisplayNameForDomain(section.domain());
  if (name && !name->empty()) return *name;
  if (auto key = KXKeyForSearchDomain(section.domain())) return std::string(*key);
  return "Domain " + std::to_string(section.domain());
}

nlohmann::json UpdateJson(const std::string& text, uint32_t seq, const char* kind,
                          const SectionList& sections) {
  nlohmann::json out = {{"text", text}, {"seq", seq}, {"kind", kind}};
  nlohmann::json list = nlohmann::json::array();
  for (const auto& section : sections) {
    nlohmann::json s = {{"domain", section->domain()}};
    if (auto key = KXKeyForSearchDomain(section->domain())) s["key"] = std::string(*key);
    PutIf(s, "title", KXDisplayNameForDomain(section->domain()));
    PutIf(s, "displayIdentifier", section->displayIdentifier());
    nlohmann::json results = nlohmann::json::array();
    for (const auto& result : section->results()) {
      nlohmann::json r = nlohmann::json::object();
      PutIf(r, "title", result->title());
      PutIf(r, "subtitle", result->subtitle());
      PutIf(r, "url", result->url());
      PutIf(r, "bundleID", result->bundleID());
      // 0 is the unset identifier.
      if (result->identifier() != 0) r["identifier"] = result->identifier();
      results.push_back(std::move(r));
    }
    s["results"] = std::move(results);
    list.push_back(std::move(s));
  }
  out["sections"] = std::move(list);
  return out;
}

size_t ResultCount(const SectionList& sections) {
  size_t count = 0;
  for (const auto& section : sections) count += section->results().size();
  return count;
}

std::string Listing(const SectionList& sections, bool colour, size_t selected) {
  size_t titleWidth = 0;
  size_t total = 0;
  for (const auto& section : sections) {
    for (const auto& result : section->results()) {
      titleWidth = std::max(titleWidth, CodePoints(result->title().value_or("")));
      ++total;
    }
  }
  const size_t numberWidth = std::to_string(std::max<size_t>(total, 1)).size();
  std::string out;
  size_t n = 0;
  for (const auto& section : sections) {
    const auto results = section->results();
    if (results.empty()) continue;
    out += colour ? std::string(kBold) + SectionTitle(*section) + kReset : SectionTitle(*section);
    out += '\n';
    for (const auto& result : results) {
      const std::string number = std::to_string(++n);
      const std::string title = result->title().value_or("");
      std::string lead(2 + numberWidth - number.size(), ' ');
      if (n == selected) {
        lead[0] = '>';
        if (colour) lead += kReverse;
      }
      out += lead + number + "  " + title;
      if (const auto& subtitle = result->subtitle(); subtitle && !subtitle->empty()) {
        out += std::string(titleWidth - CodePoints(title) + 2, ' ');
        out += colour ? std::string(kDim) + *subtitle + kReset : *subtitle;
      }
      if (n == selected && colour) out += kReset;
      out += '\n';
    }
  }
  if (n == 0) out += "no results\n";
  return out;
}

std::string Summary(const std::string& text, const SectionList& sections) {
  std::string out = "\"" + text + "\":";
  bool any = false;
  for (const auto& section : sections) {
    const size_t count = section->results().size();
    if (count == 0) continue;
    out += (any ? ", " : " ") + SectionTitle(*section) + " (" + std::to_string(count) + ")";
    any = true;
  }
  if (!any) out += " -";
  return out;
}

}  // namespace kx::cli
