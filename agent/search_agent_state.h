// Process-wide state and names shared by the search agent's source files.
#pragma once

#include <atomic>

namespace kx {

// The platform's capability-changed notification: its prefix followed by
// the name of the capability that changed. The agent re-reads its domains
// when the set of display identifiers (installed applications) changes.
inline constexpr char kCapabilityChangedNotification[] = "com.orvex.capabilities.changed.";
inline constexpr char kDisplayIdentifiersCapability[] = "display-identifiers";

namespace agent {

// A zero-keyword section with an application result has been received by
// some agent of this process.
inline std::atomic<bool> sHasSeenZKWApps{false};

}  // namespace agent
}  // namespace kx
