// KXSearchAgent: the working list and the update pipeline that carries it
// to the main queue, and the read side of the published list.
#include "agent/pending_update.h"
#include "agent/result_dedupe.h"
#include "agent/section_merge.h"
#include "kx/KXSearchAgent.h"
#include "kx/KXSearchResultDeserializer.h"
#include "kx/assert.h"
#include "kx/log.h"
#include "kx/queue.h"

// --- Working list (query queue) ----------------------------------------------

void KXSearchAgent::addDeserializer(KXSearchResultDeserializer& deserializer) {
  SectionList batch;
  for (;;) {
    auto section = std::make_shared<KXSearchResultSection>();
    if (!deserializer.deserializeNextSection(section.get())) break;
    batch.push_back(std::move(section));
  }
  addSections(std::move(batch));
}

void KXSearchAgent::addSections(SectionList sections) {
  assertOnQueryQueue();
  kx::HandleOptionsForNewSections(mutableSections_, sections);
  kx::AppendAndMergeSections(mutableSections_, sections);
}

void KXSearchAgent::mergeSections() {
  assertOnQueryQueue();
  kx::MergeSections(mutableSections_);
}

bool KXSearchAgent::cleanupObsoleteResults() {
  assertOnQueryQueue();
  return kx::CleanupObsoleteSections(mutableSections_);
}

bool KXSearchAgent::hasVantleNews() const {
  assertOnQueryQueue();
  return kx::HasVantleNews(mutableSections_);
}

bool KXSearchAgent::sectionNeedsMoreMapsOption(const KXSearchResultSection& section) const {
  return kx::SectionNeedsMoreMapsOption(section);
}

// --- Update pipeline ------------------------------------------------------------

void KXSearchAgent::updateResultsThroughDelegate(bool isClear) {
  assertOnQueryQueue();
  // Nobody reads updates: not even a snapshot is made.
  if (!delegateResponds(KXSearchAgentDelegate::Operation::UpdatedResults)) return;
  auto update = std::make_unique<kx::WaitingResults>();
  update->isClear = isClear;
  update->sections = mutableSections_;
  update->seqNo = storedSeqNo_;
  lastUpdateSeqNo_ = storedSeqNo_;
  if (deferredUpdate_->put(std::move(update))) {
    kx::Queue::Main()->async([agent = self()] { agent->pushAndPostUpdates(); });
  }
}

void KXSearchAgent::pushAndPostUpdates() {
  assertOnMainQueue();
  if (updatesDisabled_ != 0) {
    KXLOG(6, "Skip posting; updates disabled %d.", updatesDisabled_);
    return;
  }
  std::unique_ptr<kx::WaitingResults> update = deferredUpdate_->take();
  if (!update) return;
  // Published even when stale: the list shown always matches the newest
  // results handed over.
  sections_ = std::move(update->sections);
  const uint32_t current = currentQuerySeqNo();
  if (update->seqNo != current) {
    KXLOG(6, "Skip posting; update too old %d != %d.", current, update->seqNo);
    return;
  }
  if (update->isClear) {
    KXLOG(6, "Post clear");
    postSearchAgentClearedResultsToDelegate();
  } else {
    KXLOG(6, "Post updates");
    postSearchAgentUpdatedResultsToDelegate();
  }
}

void KXSearchAgent::postSearchAgentUpdatedResultsToDelegate() {
  std::shared_ptr<KXSearchAgentDelegate> d = delegate();
  if (d && d->respondsTo(KXSearchAgentDelegate::Operation::UpdatedResults)) {
    d->searchAgentUpdatedResults(self());
  } else {
    KXLOG(6, "postSearchAgentUpdatedResultsToDelegate ignored");
  }
}

void KXSearchAgent::postSearchAgentClearedResultsToDelegate() {
  std::shared_ptr<KXSearchAgentDelegate> d = delegate();
  if (d && d->respondsTo(KXSearchAgentDelegate::Operation::ClearedResults))
    d->searchAgentClearedResults(self());
}

void KXSearchAgent::disableUpdates() {
  assertOnMainQueue();
  ++updatesDisabled_;
  KXLOG(6, "Disable updates %d", updatesDisabled_);
}

void KXSearchAgent::enableUpdates() {
  assertOnMainQueue();
  KX_ASSERT_FATAL(updatesDisabled_ > 0, "_updatesDisabled>0");
  --updatesDisabled_;
  KXLOG(6, "Enable updates %d", updatesDisabled_);
  pushAndPostUpdates();
}

void KXSearchAgent::clear() {
  assertOnMainQueue();
  queryProcessor()->async([agent = self()] {
    agent->invalidateCurrentQuery();
    agent->mutableSections_.clear();
    agent->updateResultsThroughDelegate(false);
  });
}

// --- The published list (main queue) ---------------------------------------------

const KXSearchAgent::SectionList& KXSearchAgent::sections() const {
  assertOnMainQueue();
  return sections_;
}

size_t KXSearchAgent::sectionCount() const { return sections().size(); }

KXSearchAgent::SectionRef KXSearchAgent::sectionAtIndex(uint32_t index) const {
  const SectionList& list = sections();
  return index < list.size() ? list[index] : nullptr;
}

bool KXSearchAgent::hasResults() const { return kx::ListHasResults(sections()); }

std::vector<size_t> KXSearchAgent::_indexesOfCompatibleSection(
    const KXSearchResultSection& section) const {
  return kx::IndexesOfCompatibleSection(sections(), section);
}

bool KXSearchAgent::hasVantleNewsHigh() const { return kx::HasVantleNews(sections()); }
