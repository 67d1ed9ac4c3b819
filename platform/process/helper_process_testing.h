// Test-only: starts a helper executable built next to the tests (see
// tests/*.cmake) with posix_spawn, never a fork of the threaded test process,
// and reads what it prints.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/test_environment.h"

extern char** environ;

namespace kx::test {

class HelperProcess {
 public:
  // Starts helper `name` with `args`. `environment` changes the inherited
  // environment: a value sets the variable, nullopt removes it.
  HelperProcess(const std::string& name, const std::vector<std::string>& args,
                const std::map<std::string, std::optional<std::string>>& environment = {}) {
    const std::string path = HelperPath(name);
    std::vector<std::string> argStrings{path};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
      const std::string entry(*e);
      if (!environment.contains(entry.substr(0, entry.find('=')))) envStrings.push_back(entry);
    }
    for (const auto& [key, value] : environment) {
      if (value) envStrings.push_back(key + "=" + *value);
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    const int error = posix_spawn(&pid_, path.c_str(), &actions, nullptr,
                                  Pointers(argStrings).data(), Pointers(envStrings).data());
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    output_ = fds[0];
    if (error != 0) {
      close(output_);
      throw std::runtime_error("cannot start " + path + ": " + std::strerror(error));
    }
  }
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;
  ~HelperProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      Wait();
    }
    close(output_);
  }

  // The next line the helper prints, without its newline; nullopt at the
  // end of its output.
  std::optional<std::string> ReadLine() {
    std::string line;
    char c;
    for (;;) {
      const ssize_t n = read(output_, &c, 1);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return line.empty() ? std::nullopt : std::optional<std::string>(line);
      if (c == '\n') return line;
      line += c;
    }
  }

  // Everything the helper prints until it exits.
  std::string ReadAll() {
    std::string all;
    while (std::optional<std::string> line = ReadLine()) all += *line + "\n";
    return all;
  }

  void Kill() { kill(pid_, SIGKILL); }

  // The raw wait status.
  int Wait() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
  }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    for (std::string& s : strings) pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
  }

  pid_t pid_ = -1;
  int output_ = -1;
};

// Runs a helper to its end: its output and exit code (-1 when it did not
// exit normally).
struct HelperRun {
  std::string output;
  int exitCode;
};
inline HelperRun RunHelper(const std::string& name, const std::vector<std::string>& args,
                           const std::map<std::string, std::optional<std::string>>& environment = {}) {
  HelperProcess helper(name, args, environment);
  HelperRun run;
  run.output = helper.ReadAll();
  const int status = helper.Wait();
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

}  // namespace kx::test
