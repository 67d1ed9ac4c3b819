// Helper process for cross-process named-notification tests.
//
//   notify_helper post <name> <count>
//       posts <name> <count> times, then exits 0.
//   notify_helper echo <in> <out> <count>
//       observes <in>; posts <out> once when it is ready and once more after
//       each of <count> notifications of <in>, then exits 0. Exits 1 when no
//       notification arrives for 30 seconds. The caller must wait for each
//       echo before posting again: close posts may arrive as one.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kx/main_loop.h"
#include "platform/notify/notify.h"
#include "kx/queue.h"

namespace {

int Usage() {
  std::fprintf(stderr, "usage: notify_helper post NAME COUNT | echo IN OUT COUNT\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "post") == 0) {
    const long count = std::atol(argv[3]);
    for (long i = 0; i < count; ++i)
      if (!kx::notify::Post(argv[2])) return 1;
    return 0;
  }
  if (argc == 5 && std::strcmp(argv[1], "echo") == 0) {
    const std::string out = argv[3];
    const long count = std::atol(argv[4]);
    long seen = 0;
    bool progressed = true;
    auto observation = kx::notify::AddObserver(argv[2], kx::Queue::Main(), [&](const std::string&) {
      progressed = true;
      kx::notify::Post(out);
      if (++seen >= count) kx::main_loop::stop();
    });
    kx::notify::Post(out);
    while (seen < count) {
      if (!progressed) return 1;
      progressed = false;
      kx::main_loop::runFor(std::chrono::seconds(30));
    }
    kx::notify::RemoveObserver(observation);
    return 0;
  }
  return Usage();
}
