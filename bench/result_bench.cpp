// One result record: encode and decode, against Google protobuf's generated
// code for the same record (bench/result_stream.proto) on the same bytes.
//
// The record is a typical mail hit: title of 30 bytes, subtitle of 40,
// summary of 100, a URL of 60, bundle and external identifiers, two contact
// identifiers, identifier, flags, domain and scores; its additional-property
// dictionary is absent (tag 10 carries the archive of nothing, as for most
// local results). The "Dictionary" variants give it the four file-location
// keys of a document result instead.
//
// Method:
//   Encode: into a writer (kxsearch) or string (protobuf) reused across
//     iterations, so neither pays for buffer growth.
//   Decode: a fresh record per iteration, allocated on the heap as a section
//     or repeated field holds it, destroyed inside the iteration.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "kx/KXSearchResult.h"
#include "result_stream.pb.h"

namespace {

std::shared_ptr<KXSearchResult> MailResult(bool withDictionary) {
  auto r = std::make_shared<KXSearchResult>();
  r->setTitle("Quarterly planning for the team");                      // 31
  r->setSubtitle("Ann Lindqvist <ann.lindqvist@example.org>");         // 41
  r->setSummary(
      "Hi all, attached is the draft budget for the next quarter. Please review the "
      "numbers before Friday.");                                       // 100
  r->setUrl("message://%3C7F3A9C12-5B1E-4D2A-9E47-0C8D1B2A6F90%40example.org%3E");
  r->setBundleID("com.orvex.mail");
  r->setExternalIdentifier("7F3A9C12-5B1E-4D2A-9E47-0C8D1B2A6F90");
  r->setIdentifier(0x1234567890ABCDEFull);
  r->setFlags(0x20);
  r->setSearchResultDomain(3);
  r->setContactIdentifiers(KXSearchResult::StringList{"C1A2B3C4-0001", "C1A2B3C4-0002"});
  r->setScore(0x40001234);
  r->setResultScore(0.8125);
  r->setSectionScore(12.5);
  r->setProtectionClass("C");
  if (withDictionary) {
    r->setFilename("Quarterly budget draft.odt");
    r->setFileIdentifier(0x12345678);
    r->setParentFileIdentifier(0x1234);
    r->setDocumentIdentifier(4242);
  }
  return r;
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "result_bench: %s\n", what);
  std::abort();
}

struct Sample {
  std::shared_ptr<KXSearchResult> record;
  std::vector<uint8_t> bytes;
  kxbench::Result proto;
};

const Sample& SampleOf(bool withDictionary) {
  static Sample samples[2];
  Sample& s = samples[withDictionary];
  if (!s.record) {
    s.record = MailResult(withDictionary);
    s.bytes = s.record->data();
    if (!s.proto.ParseFromArray(s.bytes.data(), static_cast<int>(s.bytes.size())))
      Fail("protobuf cannot parse the record");
    if (s.proto.ByteSizeLong() != s.bytes.size()) Fail("protobuf sizes the record differently");
  }
  return s;
}

void Report(benchmark::State& state, const Sample& s) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.bytes.size()));
  state.counters["record_bytes"] = static_cast<double>(s.bytes.size());
}

void BM_Encode_KX(benchmark::State& state) {
  const Sample& s = SampleOf(state.range(0));
  WireWriter writer(4096);
  for (auto _ : state) {
    writer.clear();
    s.record->writeTo(writer);
    benchmark::DoNotOptimize(writer.data());
  }
  if (writer.size() != s.bytes.size()) Fail("encoding changed");
  Report(state, s);
}

void BM_Encode_Protobuf(benchmark::State& state) {
  const Sample& s = SampleOf(state.range(0));
  std::string out;
  out.reserve(4096);
  for (auto _ : state) {
    out.clear();
    s.proto.AppendToString(&out);
    benchmark::DoNotOptimize(out.data());
  }
  if (out.size() != s.bytes.size()) Fail("encoding changed");
  Report(state, s);
}

void BM_Decode_KX(benchmark::State& state) {
  const Sample& s = SampleOf(state.range(0));
  for (auto _ : state) {
    auto r = std::make_shared<KXSearchResult>();
    WireReader reader(s.bytes.data(), s.bytes.size());
    if (!KXSearchResultReadFrom(*r, reader)) Fail("decode failed");
    benchmark::DoNotOptimize(r.get());
  }
  Report(state, s);
}

void BM_Decode_Protobuf(benchmark::State& state) {
  const Sample& s = SampleOf(state.range(0));
  for (auto _ : state) {
    auto r = std::make_unique<kxbench::Result>();
    if (!r->ParseFromArray(s.bytes.data(), static_cast<int>(s.bytes.size())))
      Fail("decode failed");
    benchmark::DoNotOptimize(r.get());
  }
  Report(state, s);
}

// Skipping a record without building it (the domain scan's inner loop).
void BM_Skip_KX(benchmark::State& state) {
  const Sample& s = SampleOf(state.range(0));
  for (auto _ : state) {
    WireReader reader(s.bytes.data(), s.bytes.size());
    if (!KXSearchResultSkipFrom(reader)) Fail("skip failed");
    benchmark::DoNotOptimize(reader.position());
  }
  Report(state, s);
}

BENCHMARK(BM_Encode_KX)->ArgName("dictionary")->Arg(0)->Arg(1);
BENCHMARK(BM_Encode_Protobuf)->ArgName("dictionary")->Arg(0)->Arg(1);
BENCHMARK(BM_Decode_KX)->ArgName("dictionary")->Arg(0)->Arg(1);
BENCHMARK(BM_Decode_Protobuf)->ArgName("dictionary")->Arg(0)->Arg(1);
BENCHMARK(BM_Skip_KX)->ArgName("dictionary")->Arg(0);

}  // namespace

BENCHMARK_MAIN();
