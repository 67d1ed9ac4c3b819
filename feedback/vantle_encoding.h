// Server feedback encoding: how a feedback record becomes the server search
// service's feedback object, and how a result is named to the server.
//
// The conversions are members of the record classes (vantleFeedbackFromSession
// and friends, declared with each class and defined in vantle_encoding.cpp);
// this header holds the fixed tables they use.
//
// What leaves the device: times as whole milliseconds relative to the start
// of the server session (feedback/feedback_time.h), results as short
// strings, and for a single engaged local result its bundle, a SHA-1 of its
// activity identifier and a JSON summary of a few content attributes. The
// application's own identifier of an item never leaves in clear.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kx {

// A render record sends at most this many result strings; the limit is part
// of the server protocol.
inline constexpr size_t kMaxRenderResultStrings = 31;

// The server's result action target for an engagement's `actionTarget`:
// "play" 1, "phonecall" 2, "navigation" 3, "contact" 4 (exact,
// case-sensitive), any other string 0.
int64_t ResultActionTargetForActionTarget(std::string_view actionTarget);

// The server's maps action target for a maps engagement's `feedbackType`;
// 0 for a type the server does not know.
int64_t MapsActionTargetForFeedbackType(int32_t feedbackType);

}  // namespace kx
