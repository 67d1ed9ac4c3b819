// One run of kx-search: a search agent on the shared daemon connection,
// fed one character at a time from the tool's own thread, which also drains
// the main queue. The agent's posts arrive here (main queue) and are printed
// as they come; the last one is kept for the listing and for --open.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "kx/KXSearchAgent.h"
#include "kx/KXSearchAgentDelegate.h"
#include "tools/kx-search/options.h"
#include "tools/kx-search/section_output.h"

namespace kx::cli {

class SearchSession : public KXSearchAgentDelegate,
                      public std::enable_shared_from_this<SearchSession> {
 public:
  SearchSession(Options options, std::FILE* out);

  // The process's exit status. Failures print one line on standard error.
  int run();

  bool respondsTo(Operation) const override { return true; }
  void searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) override;
  void searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& agent) override;

 private:
  void post(const KXSearchAgent& agent, const char* kind);
  void type();
  // Drains the main queue until the agent's query completed and its final
  // post was handled; false after the time-out.
  bool waitForCompletion();
  int engage(size_t position);
  // The interactive mode (search_session_interactive.cpp).
  int runInteractive();
  void redraw();

  const Options options_;
  std::FILE* const out_;
  const bool colour_;
  std::shared_ptr<KXSearchAgent> agent_;
  // The text last handed to the agent; the posts belong to it, since the
  // agent drops an update that a newer text overtook.
  std::string typed_;
  bool typing_ = false;
  SectionList lastSections_;
  std::string lastSummary_;
  // The chosen row in the interactive mode, 1-based; 0 for none.
  size_t selected_ = 0;
};

}  // namespace kx::cli
