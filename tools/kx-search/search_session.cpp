#include "tools/kx-search/search_session.h"

#include <unistd.h>

#include <chrono>
#include <cstring>

#include "kx/KXDaemonConnection.h"
#include "kx/main_loop.h"
#include "platform/message/message_socket.h"
#include "tools/kx-search/engagement.h"
#include "tools/kx-search/key_decoder.h"

namespace kx::cli {
namespace {

using Clock = std::chrono::steady_clock;

bool UseColour(std::FILE* out) {
  const char* noColour = std::getenv("NO_COLOR");
  return isatty(fileno(out)) && !(noColour && *noColour);
}

}  // namespace

SearchSession::SearchSession(Options options, std::FILE* out)
    : options_(std::move(options)), out_(out), colour_(UseColour(out)) {}

int SearchSession::run() {
  const std::string daemon = KXDaemonConnection::sharedConnection()->daemonName();
  // The connection itself retries quietly for a daemon that is not there;
  // a person wants to know at once.
  int error = 0;
  if (!ConnectToService(daemon, &error) && error != EAGAIN) {
    std::fprintf(stderr, "kx-search: the search daemon \"%s\" cannot be reached: %s\n",
                 daemon.c_str(), std::strerror(error));
    return 1;
  }
  agent_ = KXSearchAgent::init();
  agent_->setDelegate(weak_from_this());
  // The creation-time clear is not part of what the user typed.
  agent_->queryProcessor()->sync([] {});
  main_loop::drain();
  typing_ = true;

  if (options_.interactive) return runInteractive();
  if (options_.zkw) {
    // Shown as they come, since this agent is never activated.
    agent_->cacheZKWQueryLive(true, false);
  } else {
    type();
  }
  if (!waitForCompletion()) {
    std::fprintf(stderr, "kx-search: no answer from the search daemon within %lld ms\n",
                 static_cast<long long>(options_.timeout.count()));
    return 1;
  }
  if (!options_.json) std::fputs(Listing(lastSections_, colour_).c_str(), out_);
  if (std::fflush(out_) != 0 || std::ferror(out_)) {
    std::fprintf(stderr, "kx-search: cannot write the results: %s\n", std::strerror(errno));
    return 1;
  }
  return options_.open ? engage(*options_.open) : 0;
}

void SearchSession::type() {
  const std::string& query = options_.query;
  for (size_t end = 0; end < query.size();) {
    end = std::min(query.size(), end + Utf8SequenceLength(static_cast<unsigned char>(query[end])));
    typed_ = query.substr(0, end);
    agent_->setQueryString(typed_, options_.language, 0, false);
    if (options_.delay.count() > 0) {
      main_loop::runFor(options_.delay);
    } else {
      main_loop::drain();
    }
  }
}

bool SearchSession::waitForCompletion() {
  const auto deadline = Clock::now() + options_.timeout;
  // The query queue first takes the last text, which resets the completion.
  agent_->queryProcessor()->sync([] {});
  while (!agent_->queryComplete()) {
    if (Clock::now() >= deadline) return false;
    main_loop::runFor(std::chrono::milliseconds(10));
  }
  // The completion callback hands its update over before it returns.
  agent_->queryProcessor()->sync([] {});
  main_loop::drain();
  return true;
}

void SearchSession::searchAgentUpdatedResults(const std::shared_ptr<KXSearchAgent>& agent) {
  post(*agent, "updated");
}

void SearchSession::searchAgentClearedResults(const std::shared_ptr<KXSearchAgent>& agent) {
  post(*agent, "cleared");
}

void SearchSession::post(const KXSearchAgent& agent, const char* kind) {
  if (!typing_) return;
  lastSections_ = agent.sections();
  if (options_.interactive) {
    // The first row is chosen as soon as there is one.
    selected_ = std::min(std::max<size_t>(selected_, 1), ResultCount(lastSections_));
    redraw();
  } else if (options_.json) {
    const std::string line =
        UpdateJson(typed_, agent.currentQuerySeqNo(), kind, lastSections_).dump();
    std::fprintf(out_, "%s\n", line.c_str());
    std::fflush(out_);
  } else if (options_.delay.count() > 0) {
    // Typed slowly: show the sections growing keystroke by keystroke. A
    // query's later batches often change nothing a summary shows.
    std::string summary = Summary(typed_, lastSections_);
    if (summary == lastSummary_) return;
    std::fprintf(out_, "%s\n", summary.c_str());
    std::fflush(out_);
    lastSummary_ = std::move(summary);
  }
}

int SearchSession::engage(size_t position) {
  const auto chosen = ResultAt(lastSections_, position);
  if (!chosen) {
    std::fprintf(stderr, "kx-search: --open %zu: there is no result %zu\n", position, position);
    return 1;
  }
  if (!SendEngagement(*chosen, typed_, options_.language, agent_->fbq())) {
    std::fprintf(stderr, "kx-search: the search daemon did not take the engagement\n");
    return 1;
  }
  const auto& url = chosen->result->url();
  // JSON output stays one update per line.
  if (!options_.json) {
    std::fprintf(out_, "engaged %zu: %s\n", position,
                 chosen->result->title().value_or("").c_str());
  }
  if (!options_.launch || !url) return 0;
  return Launch(*url) ? 0 : 1;
}

}  // namespace kx::cli
