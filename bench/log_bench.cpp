// Cost of the diagnostic log: a guarded site while logging is off (one
// relaxed load and a branch) and one line appended to the log file.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "kx/log.h"

namespace {

void BM_GuardedSiteWhileOff(benchmark::State& state) {
  setKXLogLevel(0);
  int64_t i = 0;
  for (auto _ : state) {
    KXLOG(7, "query %lld finished", static_cast<long long>(i));
    benchmark::DoNotOptimize(++i);
  }
}
BENCHMARK(BM_GuardedSiteWhileOff);

// Level 6 gives the short line shape, level 7 adds "file:line".
void BM_LineToFile(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  setKXLogLevel(level);
  const std::string domain = "DOMAIN_APPLICATION";
  int64_t i = 0;
  for (auto _ : state) KXLOG(level, "Setting search domains %@ (%lld)", domain, static_cast<long long>(++i));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LineToFile)->Arg(6)->Arg(7);
BENCHMARK(BM_LineToFile)->Arg(6)->Threads(2)->UseRealTime();

}  // namespace

// The log lands under HOME; point HOME at a scratch directory removed on exit.
int main(int argc, char** argv) {
  std::string home = (std::filesystem::temp_directory_path() / "kxlogbench.XXXXXX").string();
  if (!mkdtemp(home.data())) return 1;
  setenv("HOME", home.c_str(), 1);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(home, ignored);
  return 0;
}
