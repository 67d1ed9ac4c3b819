// Process state of the search preferences that tests need to reach.
#pragma once

namespace kx {

// Returns the preferences to the state of a fresh process: the three
// migrations not yet run and the process's internet switch on.
void ResetSearchPreferencesProcessState();

}  // namespace kx
