#include "searchd/feedback_log.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "feedback/vnt_records.h"
#include "kx/KXFeedback.h"
#include "kx/KXFeedbackEngagement.h"
#include "kx/log.h"

namespace kx::searchd {
namespace {

template <class T>
void Put(nlohmann::json& j, const char* key, const std::optional<T>& value) {
  if (value) j[key] = *value;
}

}  // namespace

std::string DefaultFeedbackLogPath() {
  const char* state = std::getenv("XDG_STATE_HOME");
  const char* home = std::getenv("HOME");
  const std::string base = state && *state ? std::string(state)
                                           : std::string(home ? home : "") + "/.local/state";
  return base + "/kxsearch/feedback.jsonl";
}

nlohmann::json FeedbackLine(const KXFeedback& record, double sessionStart) {
  nlohmann::json line = {{"class", record.className()}, {"timestamp", record.timestamp()},
                         {"domain", record.domain()}};
  Put(line, "identifier", record.identifier());
  Put(line, "bundleID", record.bundleID());
  Put(line, "fbq", record.fbq());
  Put(line, "wfbq", record.web_fbq());
  const VNTSession session(sessionStart, 0);
  if (std::shared_ptr<VNTFeedback> server = record.vantleFeedbackFromSession(session)) {
    nlohmann::json encoded = {{"class", server->className()}, {"timestamp", server->timestamp()}};
    Put(encoded, "input", server->input());
    Put(encoded, "keyboardLanguage", server->keyboardLanguage());
    line["server"] = std::move(encoded);
  }
  return line;
}

std::optional<int64_t> EngagedItem(const KXFeedback& record) {
  if (!dynamic_cast<const KXFeedbackEngagement*>(&record) || !record.identifier()) return std::nullopt;
  const std::string& text = *record.identifier();
  int64_t id = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), id);
  if (ec != std::errc() || end != text.data() + text.size() || id <= 0) return std::nullopt;
  return id;
}

void FeedbackLog::append(const nlohmann::json& line) {
  const std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  std::lock_guard lock(mu_);
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path_).parent_path(), ec);
  struct stat st;
  if (stat(path_.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) + text.size() > rotateBytes_)
    std::filesystem::rename(path_, path_ + ".1", ec);
  std::ofstream out(path_, std::ios::app | std::ios::binary);
  out << text;
  if (!out) KXLOG(3, "kx-searchd: cannot write the feedback log %s", path_);
}

}  // namespace kx::searchd
