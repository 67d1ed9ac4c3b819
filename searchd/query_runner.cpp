#include "searchd/query_runner.h"

#include <algorithm>

#include "kx/date_strings.h"
#include "searchd/calculator.h"
#include "searchd/result_cache.h"

namespace kx::searchd {
namespace {

constexpr size_t kCachedAnswers = 4096;

ResultCache& SharedCache() {
  static ResultCache cache(kCachedAnswers);
  return cache;
}

std::shared_ptr<KXSearchResultSection> MakeSection(uint32_t domain) {
  auto section = std::make_shared<KXSearchResultSection>();
  section->setDomain(domain);
  return section;
}

std::string LocalizedTitle(const Item& item, const std::string& language) {
  if (language.empty() || item.localizedTitles.empty()) return item.title;
  std::string key = language;
  for (char& c : key)
    if (c == '-') c = '_';
  if (auto it = item.localizedTitles.find(key); it != item.localizedTitles.end()) return it->second;
  const std::string base = key.substr(0, key.find('_'));
  if (auto it = item.localizedTitles.find(base); it != item.localizedTitles.end()) return it->second;
  return item.title;
}

std::optional<std::string> NonEmpty(const std::string& s) {
  return s.empty() ? std::nullopt : std::optional<std::string>(s);
}

// "Today, 10:00 · Room 4": the item's date, when it has one, before its
// stored subtitle.
std::string DatedSubtitle(const Item& item) {
  if (!item.date) return item.subtitle;
  const std::string when = item.allDay ? KXDayStringForDate(*item.date) : KXDayAndTimeStringForDate(*item.date);
  return item.subtitle.empty() ? when : when + " · " + item.subtitle;
}

std::shared_ptr<KXSearchResultSection> CalculatorSection(const QueryRequest& request) {
  // Nothing to compute for a query that wants neither answer.
  if (!request.wantsDomain(kDomainCalculator) && !request.wantsDomain(kDomainConversion))
    return nullptr;
  std::optional<Calculation> calculation = Calculate(request.text);
  if (!calculation || !request.wantsDomain(calculation->domain)) return nullptr;
  const std::string bundle = calculation->domain == kDomainCalculator ? "com.orvex.calculations"
                                                                      : "com.orvex.conversions";
  if (request.excludedBundles.count(bundle)) return nullptr;
  auto result = std::make_shared<KXSearchResult>();
  result->setTitle(calculation->answer);
  result->setSubtitle(calculation->expression);
  result->setBundleID(bundle);
  result->setIdentifier(1);
  result->setSearchResultDomain(calculation->domain);
  auto section = MakeSection(calculation->domain);
  section->addResults(result);
  return section;
}

std::shared_ptr<KXSearchResultSection> SectionOf(uint32_t domain, const std::vector<IndexedItem>& hits,
                                                 const std::string& language) {
  auto section = MakeSection(domain);
  for (const IndexedItem& hit : hits) section->addResults(MakeResult(hit, language));
  return section;
}

bool RunZeroKeyword(Index& index, const QueryRequest& request, const BatchSink& sink) {
  if (!request.wantsDomain(kDomainZeroKeyword)) return true;
  const std::vector<IndexedItem> recent = index.recentlyEngaged(request.maxCount, request.excludedBundles);
  if (!recent.empty() && !sink({SectionOf(kDomainZeroKeyword, recent, request.language)})) return false;
  // An engaged application is usually also a most used one: shown once,
  // in the first section.
  std::vector<IndexedItem> apps =
      index.mostUsedApplications(request.maxCount + recent.size(), request.excludedBundles);
  std::erase_if(apps, [&](const IndexedItem& app) {
    return std::any_of(recent.begin(), recent.end(),
                       [&](const IndexedItem& r) { return r.id == app.id; });
  });
  if (apps.size() > request.maxCount) apps.resize(request.maxCount);
  if (!apps.empty() && !sink({SectionOf(kDomainZeroKeyword, apps, request.language)})) return false;
  return true;
}

}  // namespace

std::shared_ptr<KXSearchResult> MakeResult(const IndexedItem& hit, const std::string& language) {
  const Item& item = hit.item;
  auto result = std::make_shared<KXSearchResult>();
  result->setTitle(LocalizedTitle(item, language));
  result->setSubtitle(NonEmpty(DatedSubtitle(item)));
  result->setSummary(NonEmpty(item.summary));
  result->setUrl(NonEmpty(item.url));
  result->setBundleID(item.bundle);
  result->setExternalIdentifier(item.identifier);
  result->setIdentifier(static_cast<uint64_t>(hit.id));
  result->setSearchResultDomain(item.domain);
  if (!item.contactIdentifiers.empty()) result->setContactIdentifiers(item.contactIdentifiers);
  if (const std::optional<FileLocation>& file = item.fileLocation) {
    // The client resolves these to the file's current path (contentURL).
    result->setFileIdentifier(file->fileIdentifier);
    result->setParentFileIdentifier(file->parentFileIdentifier);
    result->setFilename(file->filename);
    result->setDocumentIdentifier(file->documentIdentifier);
  }
  return result;
}

bool RunQuery(Index& index, const std::vector<uint32_t>& domainOrder, const QueryRequest& request,
              const BatchSink& sink) {
  try {
    if (request.text.find_first_not_of(" \t\n") == std::string::npos)
      return RunZeroKeyword(index, request, sink);
    // The calculator answers from the text alone: nothing is faster.
    if (auto calculator = CalculatorSection(request))
      if (!sink({calculator})) return false;
    const QueryPlan plan = PlanQuery(request.text);
    if (plan.empty()) return true;
    SearchRequest search;
    search.limit = request.maxCount;
    search.excludedBundles = request.excludedBundles;
    // Either rule's work is bounded, so one pass serves every domain; the
    // sections keep the cheapest-first order, the first goes out alone so
    // that the client can show something while the rest is packed.
    std::set<uint32_t> domains;
    for (uint32_t domain : domainOrder)
      if (request.wantsDomain(domain)) domains.insert(domain);
    const Index::DomainHits hits = SharedCache().search(index, plan, domains, search);
    Sections sections;
    for (uint32_t domain : domainOrder)
      if (auto it = hits.find(domain); it != hits.end() && domains.count(domain))
        sections.push_back(SectionOf(domain, it->second, request.language));
    if (sections.empty()) return true;
    if (!sink({sections.front()})) return false;
    sections.erase(sections.begin());
    return sections.empty() || sink(sections);
  } catch (const SqliteError& e) {
    if (e.interrupted()) return false;
    throw;
  }
}

}  // namespace kx::searchd
