// The packed result stream against Google protobuf's generated code for the
// same records (bench/result_stream.proto), on the same bytes.
//
// Corpus: N results (10, 1,000, 100,000) spread over five sections
// (contacts, mail, applications, documents, web suggestions), made section
// by section as the daemon's providers deliver them, with field sizes like
// the daemon's: titles of 5 to 40 bytes, mail and web summaries of 80 to
// 160, URLs of 30 to 90, UUID external identifiers, scores. With
// dictionaries (the second argument 1), every document result also carries
// a four-key additional-property dictionary (its file location), which
// travels as a secure keyed archive in tag 10; without (0) no result has
// additional properties, so tag 10 holds the archive of an absent dictionary
// and encoding measures the wire format alone.
//
// Method:
//   Encode: every section written with serializeTo (fields, then the 0x04
//     mark) into one WireWriter; protobuf appends every Section message
//     parsed from the same stream with AppendToString and pushes the 0x04
//     byte. Both start from an empty buffer each iteration and write the same
//     number of bytes (protobuf sorts tag 31 after 30, a byte order change
//     only). A record keeps the archive it last wrote for its dictionary and
//     reuses it while the dictionary is unchanged; the corpus is encoded once
//     while it is made, so the timed encodes, like protobuf, copy ready
//     archive bytes. What a producer pays once per document result to make
//     that archive is BM_ArchiveDictionary.
//   Decode: kxsearch runs the client's consumer loop (a fresh section per
//     deserializeNextSection) over the stream; protobuf parses each section's
//     bytes (without the mark) with ParseFromArray into a fresh Section. The
//     section boundaries are found once, outside the timing, so protobuf is
//     spared the scan that kxsearch does as it goes. Both keep all sections
//     until the iteration ends and destroy them inside it.
//   Domain scan: deserializeNextDomain over the same stream.
//   Serializer: the producer's whole path (append the sections, serialize
//     into a shared-memory region, release it), for reference.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "kx/KXDomainManager.h"
#include "kx/KXSearchResult.h"
#include "kx/KXSearchResultSection.h"
#include "kx/WireWriter.h"
#include "platform/message/shared_memory.h"
#include "result_stream.pb.h"
#include "support/secure_archiving.h"
#include "kx/KXSearchResultDeserializer.h"
#include "kx/KXSearchResultSerializer.h"

namespace {

using SectionRef = std::shared_ptr<KXSearchResultSection>;

// Deterministic text of realistic shape.
class Text {
 public:
  explicit Text(uint64_t seed) : rng_(seed) {}
  size_t between(size_t lo, size_t hi) {
    return std::uniform_int_distribution<size_t>(lo, hi)(rng_);
  }
  uint64_t number() { return rng_(); }
  std::string words(size_t lo, size_t hi) {
    static const char* const kWords[] = {"meeting", "notes",  "quarterly", "plan",   "Ann",
                                         "budget",  "review", "photos",    "trip",   "draft",
                                         "invoice", "the",    "for",       "update", "lunch"};
    const size_t length = between(lo, hi);
    std::string out;
    while (out.size() < length) {
      if (!out.empty()) out += ' ';
      out += kWords[between(0, std::size(kWords) - 1)];
    }
    out.resize(length);
    return out;
  }
  std::string uuid() {
    char buf[40];
    std::snprintf(buf, sizeof buf, "%08llX-%04llX-%04llX-%04llX-%012llX",
                  static_cast<unsigned long long>(number() & 0xFFFFFFFF),
                  static_cast<unsigned long long>(number() & 0xFFFF),
                  static_cast<unsigned long long>(number() & 0xFFFF),
                  static_cast<unsigned long long>(number() & 0xFFFF),
                  static_cast<unsigned long long>(number() & 0xFFFFFFFFFFFF));
    return buf;
  }

 private:
  std::mt19937_64 rng_;
};

// Sections of the stream, one per domain; each carries the bundle identifier
// the domain table gives its domain, so the bytes are the system's own.
struct SectionKind {
  uint32_t domain;
  std::string bundle;
};

SectionKind KindOf(uint32_t domain) {
  std::optional<std::string_view> bundle =
      KXDomainManager::defaultManager()->getBundleIdForDomainNumber(domain);
  if (!bundle) {
    std::fprintf(stderr, "domain %u has no bundle identifier\n", domain);
    std::abort();
  }
  return {domain, std::string(*bundle)};
}

const std::vector<SectionKind>& Kinds() {
  static const auto& kinds =
      *new std::vector<SectionKind>{KindOf(2), KindOf(3), KindOf(4), KindOf(14), KindOf(17)};
  return kinds;
}

std::shared_ptr<KXSearchResult> MakeResult(Text& t, const SectionKind& kind, bool withDictionary) {
  auto r = std::make_shared<KXSearchResult>();
  r->setTitle(t.words(10, 40));
  r->setIdentifier(t.number());
  r->setBundleID(kind.bundle);
  r->setExternalIdentifier(t.uuid());
  r->setScore(t.number() >> 24);
  r->setResultScore(static_cast<double>(t.between(0, 1000)) / 7.0);
  r->setSectionScore(static_cast<double>(t.between(0, 1000)) / 3.0);
  switch (kind.domain) {
    case 2:
      r->setSubtitle(t.words(15, 30));
      r->setUrl("contact://" + t.uuid());
      r->setContactIdentifiers(std::vector<std::string>{t.uuid()});
      break;
    case 3:
      r->setSubtitle(t.words(12, 30));
      r->setSummary(t.words(80, 160));
      r->setAuxiliaryTitle("Yesterday");
      r->setNumberOfSummaryLines(2);
      r->setUrl("message://" + t.uuid());
      r->setProtectionClass("C");
      break;
    case 4:
      r->setTitle(t.words(5, 15));
      r->setUrl("app://com.orvex." + t.words(5, 12));
      r->setFlags(0x20);
      break;
    case 14: {
      const std::string name = t.words(8, 24) + ".odt";
      r->setSummary(t.words(60, 100));
      if (withDictionary) {
        r->setFilename(name);
        r->setFileIdentifier(t.number() >> 20);
        r->setParentFileIdentifier(t.number() >> 20);
        r->setDocumentIdentifier(static_cast<uint32_t>(t.number()));
      }
      r->setContentURL("/home/user/Documents/" + name);
      break;
    }
    default:
      r->setSummary(t.words(100, 160));
      r->setUrl("https://search.orvex.example/q?" + t.words(30, 60));
      r->setUserActivityType("com.orvex.websearch.open");
      break;
  }
  return r;
}

struct Corpus {
  std::vector<SectionRef> sections;
  std::vector<uint8_t> stream;
  // Each section's bytes without its mark: [begin, end).
  std::vector<std::pair<size_t, size_t>> spans;
  std::vector<kxbench::Section> protoSections;
};

// A deserializer over bytes it must not free.
class BorrowedRegion : public kx::SharedMemoryRegion {
 public:
  BorrowedRegion(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  const uint8_t* data() const override { return data_; }
  size_t size() const override { return size_; }

 private:
  const uint8_t* data_;
  size_t size_;
};

std::shared_ptr<KXSearchResultDeserializer> ReaderOver(const std::vector<uint8_t>& stream) {
  return KXSearchResultDeserializer::initWithRegion(
      std::make_unique<BorrowedRegion>(stream.data(), stream.size()), stream.size());
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "result_stream_bench: %s\n", what);
  std::abort();
}

std::vector<SectionRef> DecodeAll(const std::vector<uint8_t>& stream) {
  auto reader = ReaderOver(stream);
  std::vector<SectionRef> sections;
  while (true) {
    auto section = std::make_shared<KXSearchResultSection>();
    if (!reader->deserializeNextSection(section.get())) return sections;
    sections.push_back(std::move(section));
  }
}

size_t ResultCount(const std::vector<SectionRef>& sections) {
  size_t n = 0;
  for (const auto& s : sections) n += s->resultsCount();
  return n;
}

// The corpus of the benchmark's arguments: result count and, when given,
// whether documents carry dictionaries (they do by default).
const Corpus& CorpusOf(const benchmark::State& state) {
  const size_t resultCount = static_cast<size_t>(state.range(0));
  const bool withDictionaries = state.range(1) != 0;
  static std::map<std::pair<size_t, bool>, std::unique_ptr<Corpus>> cache;
  std::unique_ptr<Corpus>& slot = cache[{resultCount, withDictionaries}];
  if (slot) return *slot;
  slot = std::make_unique<Corpus>();
  Corpus& c = *slot;
  Text text(resultCount);
  for (const SectionKind& kind : Kinds()) {
    auto s = std::make_shared<KXSearchResultSection>();
    s->setDomain(kind.domain);
    s->setDisplayIdentifier(kind.bundle);
    s->setIcon(kind.bundle + ".icon");
    c.sections.push_back(s);
  }
  // Section by section, as the daemon's providers deliver them.
  for (size_t k = 0; k < Kinds().size(); ++k) {
    const size_t n = (resultCount + Kinds().size() - 1 - k) / Kinds().size();
    for (size_t i = 0; i < n; ++i)
      c.sections[k]->addResults(MakeResult(text, Kinds()[k], withDictionaries));
  }
  WireWriter writer;
  for (const auto& s : c.sections) {
    const size_t begin = writer.size();
    s->serializeTo(writer);
    c.spans.emplace_back(begin, writer.size() - 1);
  }
  c.stream = writer.copyData();

  // Both decoders must agree on what the bytes hold.
  size_t protoResults = 0, protoBytes = 0;
  for (auto [begin, end] : c.spans) {
    kxbench::Section& p = c.protoSections.emplace_back();
    if (!p.ParseFromArray(c.stream.data() + begin, static_cast<int>(end - begin)))
      Fail("protobuf cannot parse a section");
    protoResults += static_cast<size_t>(p.results_size());
    protoBytes += p.ByteSizeLong() + 1;
  }
  if (protoResults != resultCount) Fail("protobuf sees another number of results");
  if (protoBytes != c.stream.size()) Fail("protobuf would encode another number of bytes");
  if (ResultCount(DecodeAll(c.stream)) != resultCount) Fail("the stream does not decode");
  return c;
}

void Report(benchmark::State& state, const Corpus& c) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.stream.size()));
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["stream_bytes"] = static_cast<double>(c.stream.size());
}

void BM_Encode_KX(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    WireWriter writer;
    for (const auto& s : c.sections) s->serializeTo(writer);
    benchmark::DoNotOptimize(writer.data());
    if (writer.size() != c.stream.size()) Fail("encoding changed");
  }
  Report(state, c);
}

// The secure keyed archive of one document result's file-location
// dictionary: made once per result when the producer encodes it.
void BM_ArchiveDictionary(benchmark::State& state) {
  Text text(1);
  auto r = MakeResult(text, Kinds()[3], true);
  const kx::Value dictionary(r->additionalPropertyDict());
  size_t bytes = 0;
  for (auto _ : state) {
    std::optional<std::vector<uint8_t>> archive = _kx_secureArchivedDataWithRootObject(dictionary);
    if (!archive) Fail("the dictionary does not archive");
    bytes = archive->size();
    benchmark::DoNotOptimize(archive->data());
  }
  state.counters["archive_bytes"] = static_cast<double>(bytes);
}

void BM_Encode_Protobuf(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    std::string out;
    for (const auto& p : c.protoSections) {
      p.AppendToString(&out);
      out.push_back('\x04');
    }
    benchmark::DoNotOptimize(out.data());
    if (out.size() != c.stream.size()) Fail("encoding changed");
  }
  Report(state, c);
}

void BM_Decode_KX(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    std::vector<SectionRef> sections = DecodeAll(c.stream);
    benchmark::DoNotOptimize(sections.data());
  }
  Report(state, c);
}

void BM_Decode_Protobuf(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    std::vector<kxbench::Section> sections(c.spans.size());
    for (size_t i = 0; i < c.spans.size(); ++i) {
      const auto [begin, end] = c.spans[i];
      if (!sections[i].ParseFromArray(c.stream.data() + begin, static_cast<int>(end - begin)))
        Fail("protobuf parse failed");
    }
    benchmark::DoNotOptimize(sections.data());
  }
  Report(state, c);
}

void BM_DomainScan_KX(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    auto reader = ReaderOver(c.stream);
    uint32_t domain = 0, sum = 0;
    while (reader->deserializeNextDomain(&domain)) sum += domain;
    benchmark::DoNotOptimize(sum);
  }
  Report(state, c);
}

void BM_Serializer_SharedMemory(benchmark::State& state) {
  const Corpus& c = CorpusOf(state);
  for (auto _ : state) {
    auto serializer = KXSearchResultSerializer::initWithInitialCapacity(0);
    for (const auto& s : c.sections) serializer->appendSection(s);
    serializer->serialize();
    if (serializer->byteVectorCount() != c.stream.size()) Fail("serializer changed the stream");
  }
  Report(state, c);
}

// Encoders run with and without document dictionaries, the others with.
void EncodeArgs(benchmark::internal::Benchmark* b) {
  for (int64_t dictionaries : {1, 0})
    for (int64_t n : {10, 1000, 100000}) b->Args({n, dictionaries});
  b->Unit(benchmark::kMicrosecond);
}
void StreamArgs(benchmark::internal::Benchmark* b) {
  for (int64_t n : {10, 1000, 100000}) b->Args({n, 1});
  b->Unit(benchmark::kMicrosecond);
}
BENCHMARK(BM_Encode_KX)->Apply(EncodeArgs);
BENCHMARK(BM_Encode_Protobuf)->Apply(EncodeArgs);
BENCHMARK(BM_Decode_KX)->Apply(StreamArgs);
BENCHMARK(BM_Decode_Protobuf)->Apply(StreamArgs);
BENCHMARK(BM_DomainScan_KX)->Apply(StreamArgs);
BENCHMARK(BM_Serializer_SharedMemory)->Apply(StreamArgs);
BENCHMARK(BM_ArchiveDictionary)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
