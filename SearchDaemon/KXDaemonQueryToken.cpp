#include "kx/KXDaemonQueryToken.h"

#include <string_view>
#include <utility>

#include "kx/KXDPQMessage.h"
#include "kx/log.h"
#include "platform/message/shared_memory.h"
#include "kx/KXSearchResultDeserializer.h"

namespace {

// Token ids; the first token takes 1. Unsigned arithmetic wraps, which is
// the documented behaviour after 2^32 tokens.
std::atomic<uint32_t> gQueryTokenGen{0};

constexpr std::string_view kSearchResults = "SearchResults";
constexpr std::string_view kSearchReset = "SearchReset";
constexpr std::string_view kSearchComplete = "SearchComplete";
constexpr std::string_view kSearchError = "SearchError";

// An unsigned 32-bit number under `key` of `info`; 0 when absent or not a
// number.
uint32_t UInt32In(const kx::Value& info, std::string_view key) {
  const kx::Number* n = info[key].number();
  return n ? n->uint32Value() : 0;
}

std::optional<std::string> StringIn(const kx::Value& info, std::string_view key) {
  const std::string* s = info[key].string();
  return s ? std::optional<std::string>(*s) : std::nullopt;
}

}  // namespace

KXDaemonQueryToken::KXDaemonQueryToken(Passkey, std::shared_ptr<KXSearchQuery> query,
                                       std::shared_ptr<kx::Queue> queue)
    : queryID_(gQueryTokenGen.fetch_add(1, std::memory_order_relaxed) + 1),
      queue_(std::move(queue)),
      query_(std::move(query)) {}

std::shared_ptr<KXDaemonQueryToken> KXDaemonQueryToken::initWithQuery(
    std::shared_ptr<KXSearchQuery> query, std::shared_ptr<kx::Queue> queue) {
  return std::make_shared<KXDaemonQueryToken>(Passkey{}, std::move(query), std::move(queue));
}

std::shared_ptr<KXDaemonQueryToken> KXDaemonQueryToken::initWithQuery(
    std::shared_ptr<KXSearchQuery> query) {
  return initWithQuery(std::move(query), kx::Queue::Main());
}

std::shared_ptr<KXDaemonQueryToken> KXDaemonQueryToken::self() {
  return std::static_pointer_cast<KXDaemonQueryToken>(shared_from_this());
}

std::shared_ptr<KXDaemonQueryToken> KXDaemonQueryToken::copy() { return self(); }

std::shared_ptr<KXDaemonQueryDelegate> KXDaemonQueryToken::delegate() const {
  std::lock_guard lock(mu_);
  return delegate_.lock();
}

void KXDaemonQueryToken::setDelegate(std::weak_ptr<KXDaemonQueryDelegate> delegate) {
  std::lock_guard lock(mu_);
  delegate_ = std::move(delegate);
}

std::optional<std::string> KXDaemonQueryToken::fbq() const {
  std::lock_guard lock(mu_);
  return fbq_;
}

std::optional<std::string> KXDaemonQueryToken::web_fbq() const {
  std::lock_guard lock(mu_);
  return webFbq_;
}

template <class Call>
void KXDaemonQueryToken::callDelegate(Call call) {
  queue_->async([token = self(), call = std::move(call)] {
    if (std::shared_ptr<KXDaemonQueryDelegate> delegate = token->delegate()) call(*delegate, token);
  });
}

void KXDaemonQueryToken::handleMessage(const std::shared_ptr<KXDPQMessage>& message) {
  if (!message) return;
  const kx::Value& info = message->info();
  if (UInt32In(info, "QID") != queryID_) return;
  const std::optional<std::string>& name = message->name();
  if (!name) return;

  if (*name == kSearchResults) {
    handleResults(*message);
  } else if (*name == kSearchReset) {
    callDelegate([](KXDaemonQueryDelegate& delegate, const std::shared_ptr<KXDaemonQueryToken>& t) {
      delegate.searchDaemonQueryReset(t);
    });
  } else if (*name == kSearchComplete) {
    handleComplete(info);
  } else if (*name == kSearchError) {
    const kx::Error error{std::string(kSearchError), UInt32In(info, "ERR"), nullptr};
    callDelegate([error](KXDaemonQueryDelegate& delegate,
                         const std::shared_ptr<KXDaemonQueryToken>& t) {
      delegate.searchDaemonQuery(t, error);
    });
  }
}

void KXDaemonQueryToken::handleResults(KXDPQMessage& message) {
  // The reader is made here, on the connection's queue, and owns the
  // mapping from now on: the message may be released before the delegate
  // runs. Only the delegate call waits for the token's queue.
  const uint64_t length = message.sharedMemoryLength();
  std::shared_ptr<KXSearchResultDeserializer> reader;
  if (std::unique_ptr<kx::SharedMemoryRegion> region = message.takeSharedMemoryRegion()) {
    reader = KXSearchResultDeserializer::initWithRegion(std::move(region), length);
  } else {
    // No region came with the message: a reader over nothing, from which
    // the consumer loop takes no section.
    reader = KXSearchResultDeserializer::initWithMallocRegion(nullptr, 0);
  }
  if (!reader) {
    KXLOG(3, "Dropping results for query %u: a stream of %llu bytes exceeds the region or the "
          "limit", queryID_, static_cast<unsigned long long>(length));
    return;
  }
  callDelegate([reader](KXDaemonQueryDelegate& delegate,
                        const std::shared_ptr<KXDaemonQueryToken>& t) {
    delegate.searchDaemonQuery(t, reader);
  });
}

void KXDaemonQueryToken::handleComplete(const kx::Value& info) {
  std::optional<std::string> fbq = StringIn(info, "FBQ");
  std::optional<std::string> webFbq = StringIn(info, "WFBQ");
  // The state changes on the token's queue, just before the delegate hears
  // of them, so a delegate that reads fbq sees this completion's values.
  queue_->async([token = self(), fbq = std::move(fbq), webFbq = std::move(webFbq)]() mutable {
    token->setQueryFinished(true);
    {
      std::lock_guard lock(token->mu_);
      token->fbq_ = std::move(fbq);
      token->webFbq_ = std::move(webFbq);
    }
    if (std::shared_ptr<KXDaemonQueryDelegate> delegate = token->delegate())
      delegate->searchDaemonQueryCompleted(token);
  });
}
