// Our binary property-list codec against libplist 2.2 on an "OpenQuery"
// info, the dictionary every query sends (the eight keys of a query without
// a response: ID, domains twice, text, two keyboard languages, count,
// filters).
//
// libplist is timed on its own tree, built once outside the timing, so its
// figures leave out any conversion from or to our values: encoding is
// plist_to_bin of the prepared tree, decoding plist_from_bin and freeing the
// tree. Ours goes between the bytes and kx::Value both ways. Both decode
// the same bytes (ours).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

#include "base/property_list.h"
#include "kx/KXDaemonConnection.h"
#include "kx/KXDaemonQueryToken.h"
#include "kx/KXSearchQuery.h"
#include "tests/support/libplist_oracle.h"

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "property_list_bench: %s\n", what);
  std::exit(1);
}

const kx::Value& OpenQueryInfo() {
  static const kx::Value info = [] {
    auto query = KXSearchQuery::initWithSearchString("weather in paris", "en", "en-US",
                                                     std::nullopt, std::nullopt);
    auto token = KXDaemonQueryToken::initWithQuery(query);
    return kx::Value(KXDaemonConnection::OpenQueryInfo(*token, kx::Value(), false));
  }();
  return info;
}

const std::vector<uint8_t>& OpenQueryBytes() {
  static const std::vector<uint8_t> bytes = kx::EncodeBinaryPropertyList(OpenQueryInfo());
  return bytes;
}

void BM_Encode_KX(benchmark::State& state) {
  const kx::Value& info = OpenQueryInfo();
  for (auto _ : state) {
    std::vector<uint8_t> bytes = kx::EncodeBinaryPropertyList(info);
    if (bytes.empty()) Fail("the info does not encode");
    benchmark::DoNotOptimize(bytes.data());
  }
  state.counters["bytes"] = static_cast<double>(OpenQueryBytes().size());
}

void BM_Encode_Libplist(benchmark::State& state) {
  const kx::test::LibplistNode tree = kx::test::ToLibplist(OpenQueryInfo());
  size_t size = 0;
  for (auto _ : state) {
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(tree.get(), &bin, &length);
    if (!bin) Fail("libplist does not encode the info");
    size = length;
    benchmark::DoNotOptimize(bin);
    plist_to_bin_free(bin);
  }
  state.counters["bytes"] = static_cast<double>(size);
}

void BM_Decode_KX(benchmark::State& state) {
  const std::vector<uint8_t>& bytes = OpenQueryBytes();
  for (auto _ : state) {
    kx::PropertyListResult r = kx::DecodeBinaryPropertyList(bytes);
    if (!r.ok()) Fail("the info does not decode");
    benchmark::DoNotOptimize(r.value);
  }
}

void BM_Decode_Libplist(benchmark::State& state) {
  const std::vector<uint8_t>& bytes = OpenQueryBytes();
  for (auto _ : state) {
    kx::test::LibplistNode tree = kx::test::LibplistRead(bytes);
    if (!tree) Fail("libplist does not decode the info");
    benchmark::DoNotOptimize(tree.get());
  }
}

}  // namespace

BENCHMARK(BM_Encode_KX);
BENCHMARK(BM_Encode_Libplist);
BENCHMARK(BM_Decode_KX);
BENCHMARK(BM_Decode_Libplist);
BENCHMARK_MAIN();
