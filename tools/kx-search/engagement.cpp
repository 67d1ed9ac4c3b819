#include "tools/kx-search/engagement.h"

#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

#include "kx/KXDaemonConnection.h"
#include "kx/KXFeedbackEngagement.h"

extern char** environ;

namespace kx::cli {
namespace {

// xdg-open normally hands the URL over and returns at once; a handler that
// keeps it waiting is left running rather than holding the tool.
constexpr std::chrono::seconds kLaunchWait{5};
// How long the daemon may take to acknowledge an engagement.
constexpr std::chrono::seconds kAcknowledgementWait{10};

}  // namespace

std::optional<ChosenResult> ResultAt(const SectionList& sections, size_t position) {
  size_t n = 0;
  for (const auto& section : sections) {
    for (const auto& result : section->results()) {
      if (++n == position) return ChosenResult{section, result, position};
    }
  }
  return std::nullopt;
}

bool SendEngagement(const ChosenResult& chosen, const std::string& input,
                    const std::optional<std::string>& keyboardLanguage,
                    const std::optional<std::string>& fbq) {
  auto record = KXFeedbackEngagement::feedbackForSearchResult(*chosen.result, *chosen.section);
  record->setInput(input);
  record->setLastSearchQuery(input);
  record->setKeyboardLanguage(keyboardLanguage);
  record->setFbq(fbq);
  record->setDisplayPosition(static_cast<int64_t>(chosen.position - 1));
  const auto& connection = KXDaemonConnection::sharedConnection();
  connection->sendFeedback(record);
  // The record goes out from the connection's own queue; a request queued
  // there behind it is answered only once the daemon has taken the record
  // (a request sent from this thread could overtake it).
  struct Acknowledgement {
    std::mutex mu;
    std::condition_variable cv;
    bool answered = false;
    bool delivered = false;  // a real answer, not the end of the connection
  };
  auto ack = std::make_shared<Acknowledgement>();
  connection->retrieveFirstTimeExperienceTextWithReply([ack](const kx::Value& text) {
    std::lock_guard lock(ack->mu);
    ack->answered = true;
    ack->delivered = !text.isNil();
    ack->cv.notify_all();
  });
  std::unique_lock lock(ack->mu);
  return ack->cv.wait_for(lock, kAcknowledgementWait, [&] { return ack->answered; }) &&
         ack->delivered;
}

bool Launch(const std::string& url) {
  const char* argv[] = {"xdg-open", url.c_str(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, "xdg-open", nullptr, nullptr,
                                 const_cast<char* const*>(argv), environ);
  if (error != 0) {
    std::fprintf(stderr, "kx-search: cannot run xdg-open: %s\n", std::strerror(error));
    return false;
  }
  for (auto deadline = std::chrono::steady_clock::now() + kLaunchWait;
       std::chrono::steady_clock::now() < deadline;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
      std::fprintf(stderr, "kx-search: xdg-open could not open %s\n", url.c_str());
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace kx::cli
