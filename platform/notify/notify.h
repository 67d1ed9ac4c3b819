// System-wide named notifications: posted by any process of the user,
// observed by any other, with no daemon in between.
//
// Each name has one 64-bit generation counter in a file under
// NotifyDirectory(); posting increments it under an exclusive flock, taken
// by one thread of the process at a time, so every post counts once. Each
// process watches the directory with one inotify descriptor served by the
// shared thread pool. An observer is called on its queue when the counter of
// its name moved since the observer last saw it, so posts that follow each
// other closely may reach it as one call; a post always reaches an observer
// registered before it.
//
// Names are arbitrary strings; they are encoded into file names (see
// `FileNameForName`).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kx {

class Queue;

namespace notify {

// Increments the generation of `name`, waking every observer of it in every
// process. Returns false (and logs at level 3) when the counter could not be
// updated, an unusable notification directory included; never throws.
bool Post(std::string_view name);
// The current generation of `name`: 0 before its first post.
uint64_t Generation(std::string_view name);

class Observation;
using Callback = std::function<void(const std::string& name)>;
// Calls `callback` on `queue` after each change of `name`'s generation.
// `owner` (may be null) groups observations for `RemoveEveryObserver`.
std::shared_ptr<Observation> AddObserver(std::string name, std::shared_ptr<Queue> queue,
                                         Callback callback, const void* owner = nullptr);
// After either call returns, the observation's callback is never started
// again, even when a call was already queued.
void RemoveObserver(const std::shared_ptr<Observation>& observation);
void RemoveEveryObserver(const void* owner);

// The token service. A token remembers the generation it saw last; the
// first check after registering reports a change (it consumes the initial
// state), later checks report a change once per change of the generation.
// Tokens are positive; an unknown or cancelled token checks as nullopt.
int32_t RegisterCheck(std::string name);
std::optional<bool> Check(int32_t token);
// False when the token was not registered.
bool Cancel(int32_t token);

// "[A-Za-z0-9_.-]" bytes stay, a leading '.' and every other byte become
// "%XX". Encodings over 200 bytes are cut to 180 bytes followed by '~' and
// a 64-bit hash of the whole name, so any name gives a valid file name.
std::string FileNameForName(std::string_view name);

}  // namespace notify
}  // namespace kx
