// The one hand-over between a search agent's query queue and the main
// queue: a slot holding at most one pending update, exchanged atomically so
// that the query queue never waits for the main thread and the main thread
// never sees a half-made update. A newer update replaces an unread older
// one, which is dropped.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "agent/section_merge.h"

namespace kx {

struct WaitingResults {
  bool isClear = false;
  // A snapshot of the working list; the sections are not changed after
  // they were handed over.
  SectionList sections;
  // The sequence number of the text these results belong to.
  uint32_t seqNo = 0;
};

class PendingUpdateSlot {
 public:
  PendingUpdateSlot() = default;
  PendingUpdateSlot(const PendingUpdateSlot&) = delete;
  PendingUpdateSlot& operator=(const PendingUpdateSlot&) = delete;
  ~PendingUpdateSlot() { delete slot_.load(std::memory_order_acquire); }

  // Puts `update` in the slot. True when the slot was empty, i.e. the main
  // queue has not been asked yet for this run of updates.
  bool put(std::unique_ptr<WaitingResults> update) {
    std::unique_ptr<WaitingResults> replaced(
        slot_.exchange(update.release(), std::memory_order_acq_rel));
    return replaced == nullptr;
  }

  // Takes the pending update, leaving the slot empty; null when none.
  std::unique_ptr<WaitingResults> take() {
    return std::unique_ptr<WaitingResults>(slot_.exchange(nullptr, std::memory_order_acq_rel));
  }

  bool empty() const { return slot_.load(std::memory_order_acquire) == nullptr; }

 private:
  std::atomic<WaitingResults*> slot_{nullptr};
};

}  // namespace kx
