// The daemon's feedback log: every "SendFeedback" record, decoded with the
// feedback records' class restrictions and converted with the server
// feedback encoding, appended as one JSON object per line to
// $XDG_STATE_HOME/kxsearch/feedback.jsonl. When a line would take the file
// past kFeedbackLogRotateBytes, the file becomes "feedback.jsonl.1"
// (replacing an older one) and a new file starts: the log keeps between
// one and two rotations' worth of history on disk.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

class KXFeedback;

namespace kx::searchd {

inline constexpr size_t kFeedbackLogRotateBytes = 4 * 1024 * 1024;

// The default log path under $XDG_STATE_HOME (~/.local/state).
std::string DefaultFeedbackLogPath();

// One line of the log for `record`. `sessionStart` is the daemon's start
// time (seconds since 2001-01-01 UTC), the start of the server session the
// encoding measures times from.
nlohmann::json FeedbackLine(const KXFeedback& record, double sessionStart);

// The item a record engages, when it is an engagement of an indexed result
// (its identifier is the item id in decimal).
std::optional<int64_t> EngagedItem(const KXFeedback& record);

class FeedbackLog {
 public:
  explicit FeedbackLog(std::string path, size_t rotateBytes = kFeedbackLogRotateBytes)
      : path_(std::move(path)), rotateBytes_(rotateBytes) {}
  // Thread-safe. Errors are logged; feedback is never worth stopping for.
  void append(const nlohmann::json& line);
  const std::string& path() const { return path_; }

 private:
  std::mutex mu_;
  const std::string path_;
  const size_t rotateBytes_;
};

}  // namespace kx::searchd
