#include "kx/KXSearchQuery.h"

#include <time.h>

#include <unicode/unistr.h>

#include "model/query_id_counter.h"
#include "kx/exception.h"
#include "kx/log.h"
#include "kx/search_domains.h"
#include "platform/message/message_codec.h"

namespace {

// Constant-initialised and trivially destructible: usable from any static
// constructor or destructor.
constinit kx::QueryIDCounter gQueryIDs;

// The daemon connection carries only valid UTF-8: a text that is not could
// never be sent, and its query would wait for an answer for ever. Such a
// text is searched with each malformed sequence read as U+FFFD.
std::string ValidUtf8(std::string text) {
  if (kx::IsValidUtf8(reinterpret_cast<const uint8_t*>(text.data()), text.size())) return text;
  KXLOG(3, "Search string is not valid UTF-8; malformed bytes replaced by U+FFFD");
  std::string repaired;
  icu::UnicodeString::fromUTF8(text).toUTF8String(repaired);
  return repaired;
}

uint64_t MonotonicNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

std::shared_ptr<KXSearchQuery> KXSearchQuery::initWithSearchString(
    std::string searchString, std::optional<std::string> keyboardLanguage,
    std::optional<std::string> keyboardPrimaryLanguage, std::optional<DomainList> searchDomains,
    std::optional<BundleList> disabledBundles) {
  KXLOG(7, "Started search on %@", searchString);
  if (searchDomains && searchDomains->size() > SearchResultDomainCount())
    throw kx::InternalInconsistencyException(
        "search domain count cannot exceed the total number of search domains");
  DomainList domains = searchDomains ? std::move(*searchDomains) : KXAllDomainsVector();
  return std::make_shared<KXSearchQuery>(PrivateTag{}, ValidUtf8(std::move(searchString)),
                                         std::move(keyboardLanguage),
                                         std::move(keyboardPrimaryLanguage), std::move(domains),
                                         std::move(disabledBundles));
}

std::shared_ptr<KXSearchQuery> KXSearchQuery::initWithSearchString(
    std::string searchString, std::optional<std::string> keyboardLanguage,
    std::optional<DomainList> searchDomains, std::optional<BundleList> disabledBundles) {
  return initWithSearchString(std::move(searchString), std::move(keyboardLanguage), std::nullopt,
                              std::move(searchDomains), std::move(disabledBundles));
}

std::shared_ptr<KXSearchQuery> KXSearchQuery::initWithSearchString(std::string searchString) {
  return initWithSearchString(std::move(searchString), std::nullopt, std::nullopt, std::nullopt,
                              std::nullopt);
}

std::shared_ptr<KXSearchQuery> KXSearchQuery::initWithQuery(const KXSearchQuery& query,
                                                            std::optional<DomainList> domains) {
  std::shared_ptr<KXSearchQuery> copy =
      initWithSearchString(query.searchString_, query.keyboardLanguage_,
                           query.keyboardPrimaryLanguage_, std::move(domains),
                           query.disabledBundles_);
  copy->queryID_ = query.queryID_;
  copy->creationTime_ = query.creationTime_;
  copy->creationStamp_ = query.creationStamp_;
  return copy;
}

KXSearchQuery::KXSearchQuery(PrivateTag, std::string searchString,
                             std::optional<std::string> keyboardLanguage,
                             std::optional<std::string> keyboardPrimaryLanguage,
                             DomainList searchDomains, std::optional<BundleList> disabledBundles)
    : queryID_(gQueryIDs.next()),
      searchString_(std::move(searchString)),
      keyboardLanguage_(std::move(keyboardLanguage)),
      keyboardPrimaryLanguage_(std::move(keyboardPrimaryLanguage)),
      searchDomains_(std::move(searchDomains)),
      creationTime_(kx::Date::Now().secondsSinceReferenceDate),
      creationStamp_(MonotonicNanoseconds()),
      disabledBundles_(std::move(disabledBundles)) {}

void KXSearchQuery::cancel() {
  // The time is stored before the flag so that a thread that sees the query
  // cancelled also sees when. The flag's sequentially consistent store and
  // load are the full barriers that polling on other threads relies on;
  // unlike free-standing fences, ThreadSanitizer understands them.
  cancellationTime_.store(kx::Date::Now().secondsSinceReferenceDate, std::memory_order_relaxed);
  cancelled_.store(true, std::memory_order_seq_cst);
}

bool KXSearchQuery::cancelled() const { return cancelled_.load(std::memory_order_seq_cst); }

double KXSearchQuery::cancellationTime() const {
  return cancellationTime_.load(std::memory_order_relaxed);
}

std::shared_ptr<KXSearchQuery> KXSearchQuery::copyWithZone() {
  return std::static_pointer_cast<KXSearchQuery>(shared_from_this());
}

bool KXSearchQuery::isEqual(const kx::Object& other) const {
  const auto* query = dynamic_cast<const KXSearchQuery*>(&other);
  return query && isEqual(*query);
}
