// kx-launch: keeps a service's listening socket and runs its daemon on
// demand.
//
//   kx-launch --name <service> [--max-pause MS] -- <daemon> [args...]
//
// Creates the service's socket in the service directory and waits for the
// first client. It then starts the daemon with the listening socket as
// descriptor 3 and LISTEN_FDS=1, LISTEN_PID=<daemon pid>,
// LISTEN_FDNAMES=<service>: the protocol of systemd socket activation. When
// the daemon exits, the next waiting client starts it again, after a pause
// that grows while the daemon keeps dying young, up to --max-pause (default
// 5000 ms; crash tests that kill the daemon on purpose keep it short). The socket outlives every
// daemon, so clients that connect in between wait in the listen backlog
// instead of failing. SIGTERM and SIGINT are passed on to the daemon; the
// launcher waits for it, removes the socket file and exits with status 0.
//
// The launcher is single-threaded and forks directly: the daemon's
// environment is prepared before the fork, and the child only writes its pid
// into it, moves the socket to descriptor 3 and execs.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/message/message_socket.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kActivationFd = 3;
constexpr milliseconds kInitialBackoff{100};
constexpr milliseconds kMaximumBackoff{5000};
// A daemon that ran at least this long counts as healthy: the pause before
// the next start drops back to the initial one.
constexpr milliseconds kHealthyRun{2000};
// How long a daemon gets to stop after a forwarded signal.
constexpr milliseconds kStopGrace{10000};

struct Options {
  std::string name;
  std::vector<std::string> command;
  milliseconds maxPause = kMaximumBackoff;
};

std::optional<Options> Parse(int argc, char** argv) {
  Options options;
  int i = 1;
  for (; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg == "--name" && i + 1 < argc) {
      options.name = argv[++i];
    } else if (arg == "--max-pause" && i + 1 < argc) {
      char* end = nullptr;
      const long ms = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || ms < 0) return std::nullopt;
      options.maxPause = milliseconds(ms);
    } else {
      return std::nullopt;
    }
  }
  for (; i < argc; ++i) options.command.push_back(argv[i]);
  if (options.name.empty() || options.command.empty()) return std::nullopt;
  return options;
}

void Say(const char* format, const std::string& a, const std::string& b = {}) {
  std::fprintf(stderr, "kx-launch: ");
  std::fprintf(stderr, format, a.c_str(), b.c_str());
  std::fprintf(stderr, "\n");
}

// Writes `value` in decimal into `out` (room for 20 digits and a NUL) with
// async-signal-safe code only.
void PutDecimal(char* out, long value) {
  char digits[24];
  int n = 0;
  do {
    digits[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (n > 0) *out++ = digits[--n];
  *out = '\0';
}

class Launcher {
 public:
  Launcher(Options options, kx::ServiceListener listener, int signals)
      : options_(std::move(options)), listener_(std::move(listener)), signals_(signals) {
    for (char** e = environ; *e; ++e) {
      if (std::strncmp(*e, "LISTEN_", 7) != 0) environment_.push_back(*e);
    }
    environment_.push_back("LISTEN_FDS=1");
    environment_.push_back("LISTEN_FDNAMES=" + options_.name);
    environment_.push_back("LISTEN_PID=" + std::string(24, '\0'));
    pidSlot_ = environment_.size() - 1;
  }

  int run() {
    for (;;) {
      const Clock::time_point now = Clock::now();
      const bool idle = child_ < 0;
      if (idle && stopping_) break;
      const bool mayStart = idle && !stopping_ && now >= holdUntil_;
      pollfd fds[2] = {{signals_, POLLIN, 0}, {listener_.fd.get(), POLLIN, 0}};
      int timeout = -1;
      if (idle && !mayStart) timeout = Millis(holdUntil_ - now);
      if (!idle && stopping_) timeout = std::max(0, Millis(killAt_ - now));
      const int ready = poll(fds, mayStart ? 2 : 1, timeout);
      if (ready < 0 && errno != EINTR) {
        Say("poll failed: %s", std::strerror(errno));
        return 1;
      }
      if (fds[0].revents & POLLIN) handleSignals();
      if (mayStart && (fds[1].revents & POLLIN)) start();
      if (child_ > 0 && stopping_ && Clock::now() >= killAt_) {
        kill(child_, SIGKILL);
        killAt_ = Clock::now() + kStopGrace;
      }
    }
    kx::RemoveServiceSocketFile(listener_);
    return 0;
  }

 private:
  static int Millis(Clock::duration d) {
    return static_cast<int>(std::chrono::ceil<milliseconds>(d).count());
  }

  void handleSignals() {
    signalfd_siginfo info;
    while (read(signals_, &info, sizeof info) == sizeof info) {
      if (info.ssi_signo == SIGCHLD) {
        reap();
      } else if (!stopping_) {
        stopping_ = true;
        killAt_ = Clock::now() + kStopGrace;
        if (child_ > 0) kill(child_, static_cast<int>(info.ssi_signo));
      }
    }
  }

  void reap() {
    int status;
    pid_t pid;
    while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
      if (pid != child_) continue;
      child_ = -1;
      const auto ran = Clock::now() - startedAt_;
      backoff_ = std::min(ran >= kHealthyRun ? kInitialBackoff : backoff_ * 2, options_.maxPause);
      holdUntil_ = Clock::now() + backoff_;
      if (WIFSIGNALED(status))
        Say("%s ended by signal %s", options_.command[0], std::to_string(WTERMSIG(status)));
      else
        Say("%s exited with status %s", options_.command[0], std::to_string(WEXITSTATUS(status)));
    }
  }

  void start() {
    std::vector<char*> argv, envp;
    for (std::string& s : options_.command) argv.push_back(s.data());
    argv.push_back(nullptr);
    for (std::string& s : environment_) envp.push_back(s.data());
    envp.push_back(nullptr);
    char* pidValue = environment_[pidSlot_].data() + std::strlen("LISTEN_PID=");
    const int socket = listener_.fd.get();

    startedAt_ = Clock::now();
    const pid_t pid = fork();
    if (pid < 0) {
      Say("cannot start %s: %s", options_.command[0], std::strerror(errno));
      holdUntil_ = Clock::now() + backoff_;
      return;
    }
    if (pid == 0) {
      PutDecimal(pidValue, static_cast<long>(getpid()));
      if (socket == kActivationFd) {
        fcntl(socket, F_SETFD, 0);
      } else if (dup2(socket, kActivationFd) < 0) {
        _exit(127);
      }
      sigset_t none;
      sigemptyset(&none);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execvpe(argv[0], argv.data(), envp.data());
      static const char kFailed[] = "kx-launch: exec failed\n";
      [[maybe_unused]] ssize_t n = write(STDERR_FILENO, kFailed, sizeof kFailed - 1);
      _exit(127);
    }
    child_ = pid;
  }

  Options options_;
  kx::ServiceListener listener_;
  const int signals_;
  std::vector<std::string> environment_;
  size_t pidSlot_ = 0;
  pid_t child_ = -1;
  bool stopping_ = false;
  milliseconds backoff_ = kInitialBackoff;
  Clock::time_point startedAt_;
  Clock::time_point holdUntil_;
  Clock::time_point killAt_;
};

}  // namespace

int main(int argc, char** argv) {
  std::optional<Options> options = Parse(argc, argv);
  if (!options) {
    std::fprintf(stderr, "usage: kx-launch --name <service> [--max-pause MS] -- <daemon> [args...]\n");
    return 2;
  }
  sigset_t handled;
  sigemptyset(&handled);
  for (int sig : {SIGCHLD, SIGTERM, SIGINT}) sigaddset(&handled, sig);
  sigprocmask(SIG_BLOCK, &handled, nullptr);
  const int signals = signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals < 0) {
    Say("signalfd failed: %s", std::strerror(errno));
    return 1;
  }

  std::string error;
  std::optional<kx::ServiceListener> listener = kx::ListenOnService(options->name, &error);
  if (!listener) {
    Say("cannot listen on %s: %s", options->name, error);
    return 1;
  }
  return Launcher(std::move(*options), std::move(*listener), signals).run();
}
