// Per-process test isolation: every test process runs with its own HOME,
// XDG directories, runtime directory, service and notification directories,
// all below one temporary directory that is removed when the process ends.
#pragma once

#include <string>

namespace kx::test {

// Root of this process's private directory tree (created by the test main).
const std::string& TestRoot();

// Path of a helper executable built next to the tests.
std::string HelperPath(const std::string& name);

// The text of this process's live diagnostic log file ("" when missing).
std::string ReadLiveLogFile();

// Creates the isolated environment under a fresh temporary directory and
// points the environment variables at it. Idempotent.
void SetUpIsolatedEnvironment();

}  // namespace kx::test
