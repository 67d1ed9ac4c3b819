#include "kx/KXSearchResult.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "model/record_testing.h"
#include "platform/files/file_id_service.h"
#include "platform/process/process_info.h"
#include "support/archivable_images.h"
#include "support/secure_archiving.h"

namespace {

using kx::test::Bytes;
using kx::test::Delimited;

// A record's encoding kept field by field, so tests know where every field
// starts and ends.
struct Encoding {
  std::vector<Bytes> fields;

  Encoding& add(Bytes field) {
    fields.push_back(std::move(field));
    return *this;
  }
  Bytes bytes() const {
    Bytes out;
    for (const Bytes& f : fields) kx::test::Append(out, f);
    return out;
  }
  // Offsets at which a cut leaves whole fields only.
  std::vector<size_t> boundaries() const {
    std::vector<size_t> out{0};
    for (const Bytes& f : fields) out.push_back(out.back() + f.size());
    return out;
  }
};

Bytes ArchiveOf(const kx::Value& v) { return _kx_secureArchivedDataWithRootObject(v).value(); }

Bytes Encode(const KXSearchResult& r) { return r.data(); }

std::shared_ptr<KXSearchResult> Decode(const Bytes& bytes, bool* ok = nullptr) {
  auto r = std::make_shared<KXSearchResult>();
  bool decoded = r->initWithData(bytes);
  if (ok) *ok = decoded;
  return r;
}

// Tags 10, 23, 24, 25, 28, 29, 30: what every result writes.
Encoding EmptyEncoding(const Bytes& archive) {
  Encoding e;
  e.add(Delimited({0x52}, archive))
      .add({0xB8, 0x01, 0x00})
      .add({0xC0, 0x01, 0x00})
      .add({0xC8, 0x01, 0x00})
      .add({0xE0, 0x01, 0x00})
      .add({0xE9, 0x01, 0, 0, 0, 0, 0, 0, 0, 0})
      .add({0xF1, 0x01, 0, 0, 0, 0, 0, 0, 0, 0});
  return e;
}

TEST(KXSearchResultTest, EmptyResultWritesOnlyTheAlwaysFields) {
  KXSearchResult r;
  // Session details without a session id are not written.
  r.setGeoUserSessionStartTime(12.5);
  r.setGeoUserSessionSequenceNumber(3);
  EXPECT_EQ(Encode(r), EmptyEncoding(ArchiveOf(kx::Value())).bytes());

  // Reading the dictionary creates it, and its archive changes accordingly.
  r.additionalPropertyDict();
  EXPECT_EQ(Encode(r), EmptyEncoding(ArchiveOf(kx::Value(kx::Dictionary()))).bytes());
}

// Every field set; FullEncoding holds its bytes, computed by hand.
std::shared_ptr<KXSearchResult> FullResult() {
  auto r = std::make_shared<KXSearchResult>();
  r->setTitle("T"), r->setSubtitle("S"), r->setSummary(""), r->setAuxiliaryTitle("A");
  r->setAuxiliarySubtitle("B"), r->setIdentifier(300), r->setUrl("u"), r->setFlags(-1);
  r->setNumberOfSummaryLines(2), r->setValue(kx::Value("v"), "k");
  r->setPredictionIdentifier("p"), r->setUserActivityType("t");
  r->setUserActivityRequiredString("r"), r->setUserActivitySecondaryString("s");
  r->setUserActivityData(Bytes{0x00, 0xFF}), r->setBundleID("b"), r->setExternalIdentifier("e");
  r->setContentURL("/c"), r->setSearchResultDomain(5), r->setGeoUserSessionIDString("g");
  r->setGeoUserSessionStartTime(1.0), r->setGeoUserSessionSequenceNumber(7);
  r->setUserActivityEligibleForPublicIndexing(true), r->setTopHit(true), r->setScore(1 << 30);
  r->setProtectionClass("pc"), r->setContactIdentifiers(KXSearchResult::StringList{"x", "yz"});
  r->setHasAssociatedUserActivity(true), r->setResultScore(2.0), r->setSectionScore(-0.5);
  return r;
}

Encoding FullEncoding() {
  Encoding e;
  e.add({0x0A, 1, 'T'}).add({0x12, 1, 'S'}).add({0x1A, 0}).add({0x22, 1, 'A'}).add({0x2A, 1, 'B'})
      .add({0x30, 0xAC, 0x02})                                              // 6: 300
      .add({0x3A, 1, 'u'})
      .add({0x40, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01})  // 8: -1
      .add({0x48, 0x02})
      .add(Delimited({0x52}, ArchiveOf(kx::Value(kx::MakeDictionary({{"k", "v"}})))))
      .add({0x62, 1, 'p'}).add({0x6A, 1, 't'}).add({0x72, 1, 'r'}).add({0x7A, 1, 's'})
      .add({0x82, 0x01, 2, 0x00, 0xFF})                                     // 16: data
      .add({0x8A, 0x01, 1, 'b'}).add({0x92, 0x01, 1, 'e'}).add({0x9A, 0x01, 2, '/', 'c'})
      .add({0xA0, 0x01, 0x05})                                              // 20: domain
      .add({0xAA, 0x01, 1, 'g'})                                            // 21
      .add({0xB1, 0x01, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F})                      // 22: 1.0
      .add({0xF8, 0x01, 0x07})                                              // 31
      .add({0xB8, 0x01, 1}).add({0xC0, 0x01, 1})
      .add({0xC8, 0x01, 0x80, 0x80, 0x80, 0x80, 0x04})                      // 25: 2^30
      .add({0xD2, 0x01, 2, 'p', 'c'})
      .add({0xDA, 0x01, 1, 'x'}).add({0xDA, 0x01, 2, 'y', 'z'})
      .add({0xE0, 0x01, 1})
      .add({0xE9, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x40})                         // 29: 2.0
      .add({0xF1, 0x01, 0, 0, 0, 0, 0, 0, 0xE0, 0xBF});                     // 30: -0.5
  return e;
}

TEST(KXSearchResultTest, FullResultMatchesHandEncodingAndDecodesBack) {
  const Bytes golden = FullEncoding().bytes();
  ASSERT_EQ(Encode(*FullResult()), golden);
  bool ok = false;
  auto r = Decode(golden, &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(r->flags(), -1);
  EXPECT_EQ(r->summary(), "");  // empty but present
  // Every field survives: the decoded record encodes to the same bytes.
  EXPECT_EQ(Encode(*r), golden);
}

TEST(KXSearchResultTest, ReadersAcceptAnyOrderAndSkipUnknownFields) {
  const Bytes input = {
      0x58, 0x01,                          // 11 (unassigned), varint
      0xF1, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x40,  // 30 before everything else
      0x80, 0x02, 0x05,                    // 32, varint
      0x89, 0x02, 1, 2, 3, 4, 5, 6, 7, 8,  // 33, fixed64
      0x92, 0x02, 0x02, 'z', 'z',          // 34, length-delimited
      0x9D, 0x02, 1, 2, 3, 4,              // 35, fixed32
      0xA3, 0x02, 0x08, 0x01, 0xA4, 0x02,  // 36, a group holding a varint
      0x08, 0x07,                          // 1 as a varint: read as a string anyway
      'a', 'b', 'c', 'd', 'e', 'f', 'g',
      0x8A, 0x80, 0x20, 0x01, 'Q',         // field 65537: the low 16 bits make it 1
      0x30, 0x2A,                          // 6
  };
  bool ok = false;
  auto r = Decode(input, &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(r->title(), "Q");
  EXPECT_EQ(r->identifier(), 42u);
  EXPECT_EQ(r->sectionScore(), 2.0);
  EXPECT_FALSE(r->hasUrl() || r->hasSubtitle() || r->hasFlags());
}

TEST(KXSearchResultTest, CutOnAFieldBoundaryIsAShorterRecordAndInsideAFieldFails) {
  const Encoding e = FullEncoding();
  const Bytes all = e.bytes();
  const std::vector<size_t> boundaries = e.boundaries();
  size_t wholeFields = 0;
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    const bool boundary = cut == boundaries[wholeFields];
    const Bytes prefix(all.begin(), all.begin() + cut);
    bool ok = false;
    auto r = Decode(prefix, &ok);
    EXPECT_EQ(ok, boundary) << "cut at " << cut;
    WireReader skip(prefix.data(), prefix.size());
    EXPECT_EQ(KXSearchResultSkipFrom(skip), boundary) << "cut at " << cut;
    // Fields before the cut are kept either way; the cut one is not.
    EXPECT_EQ(r->hasTitle(), cut >= boundaries[1]) << "cut at " << cut;
    EXPECT_EQ(r->sectionScore(), cut == all.size() ? -0.5 : 0.0) << "cut at " << cut;
    if (boundary && wholeFields + 1 < boundaries.size()) ++wholeFields;
  }
}

TEST(KXSearchResultTest, DamagedInputFailsWithoutReadingOutOfBounds) {
  const struct {
    Bytes bytes;
    bool ok;
  } cases[] = {
      {{0x0A, 0x05, 'a', 'b'}, false},  // string length past the end
      {{0x52, 0x80}, false},            // cut length varint
      {{0xE9, 0x01, 0, 0, 0}, false},   // short double
      {{0x9E, 0x02, 0x00}, false},      // unknown field with wire type 6
      {{0x9F, 0x02, 0x00}, false},      // unknown field with wire type 7
      {{0xA3, 0x02, 0x04}, false},      // group closed by the section mark
      {{0xA3, 0x02}, false},            // group never closed
      // A key of eleven bytes reads as key 0 after ten; key 0 is skipped as
      // a varint (the eleventh byte).
      {{0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x00, 0x30, 0x01}, true},
  };
  for (const auto& c : cases) {
    // A heap copy of the exact size, so a sanitizer sees any overrun.
    auto heap = std::make_unique<uint8_t[]>(c.bytes.size());
    std::copy(c.bytes.begin(), c.bytes.end(), heap.get());
    KXSearchResult r;
    WireReader reader(heap.get(), c.bytes.size());
    EXPECT_EQ(KXSearchResultReadFrom(r, reader), c.ok) << testing::PrintToString(c.bytes);
  }
}

TEST(KXSearchResultTest, ContactIdentifiersOfALaterRecordReplaceOnlyWhenItHasSome) {
  KXSearchResult r;
  ASSERT_TRUE(r.initWithData(Bytes{0xDA, 0x01, 1, 'a', 0xDA, 0x01, 1, 'b'}));
  ASSERT_TRUE(r.initWithData(Bytes{0xDA, 0x01, 1, 'c'}));
  EXPECT_EQ(r.contactIdentifiers(), (KXSearchResult::StringList{"c"}));
  ASSERT_TRUE(r.initWithData(Bytes{0x0A, 0x01, 't'}));
  EXPECT_EQ(r.contactIdentifiers(), (KXSearchResult::StringList{"c"}));
  // A record whose walk fails keeps the old identifiers.
  EXPECT_FALSE(r.initWithData(Bytes{0xDA, 0x01, 1, 'd', 0x9F, 0x02}));
  EXPECT_EQ(r.contactIdentifiers(), (KXSearchResult::StringList{"c"}));
}

TEST(KXSearchResultTest, AdditionalPropertiesDecodeLazilyLikeEagerDecoding) {
  KXSearchResult source;
  source.setFilename("a.txt"), source.setDocumentIdentifier(9), source.setFbq(kx::Value(4));
  auto r = Decode(Encode(source));
  EXPECT_EQ(r->additionalPropertiesCount(), 3u);
  EXPECT_EQ(r->filename(), "a.txt");
  EXPECT_EQ(r->documentIdentifier(), 9u);
  EXPECT_EQ(r->fbq(), kx::Value(4));
  EXPECT_FALSE(r->fileIdentifier());
  r->setFilename(std::nullopt);
  EXPECT_EQ(r->additionalPropertiesCount(), 2u);

  // Undecodable bytes, or a root that is not a dictionary, leave it absent;
  // only reading it through its accessor creates it.
  for (const Bytes& archive : {Bytes{1, 2, 3}, ArchiveOf(kx::Value(kx::Array{kx::Value(1)}))}) {
    auto bad = Decode(Delimited({0x52}, archive));
    EXPECT_TRUE(bad->valueForUndefinedKey("k").isNil());
    bad->clearAdditionalProperties();
    EXPECT_EQ(bad->additionalPropertyDictIfPresent(), nullptr);
    EXPECT_EQ(Encode(*bad), EmptyEncoding(ArchiveOf(kx::Value())).bytes());
    EXPECT_TRUE(bad->additionalPropertyDict().empty());
    EXPECT_NE(bad->additionalPropertyDictIfPresent(), nullptr);
  }
}

TEST(KXSearchResultTest, ReusedArchiveFollowsEveryChangeOfTheDictionary) {
  KXSearchResult r;
  r.setValue(kx::Value(kx::Array{kx::Value(1)}), "list");
  auto image = std::make_shared<kx::KXImage>();
  image->scale = 1;
  r.setValue(kx::Value(kx::ObjectRef(image)), "image");
  const Bytes first = Encode(r);
  EXPECT_EQ(Encode(r), first);

  // A nested change, a record changed in place, a replaced entry.
  r.additionalPropertyDict()["list"].mutableArray()->push_back(kx::Value(2));
  image->scale = 3;
  auto back = Decode(Encode(r));
  EXPECT_EQ(back->valueForUndefinedKey("list").count(), 2u);
  EXPECT_EQ(back->valueForUndefinedKey("image").objectAs<kx::KXImage>()->scale, 3);

  r.setValue(kx::Value(), "image");
  r.setValue(kx::Value("x"), "list");
  const Bytes plain = Encode(r);
  EXPECT_EQ(Decode(plain)->valueForUndefinedKey("list"), kx::Value("x"));
  r.setValue(kx::Value(int64_t{1}), "list");  // equal as a number, not as an archive
  EXPECT_EQ(Decode(Encode(r))->valueForUndefinedKey("list").number()->type(),
            kx::Number::Type::Int64);
}

TEST(KXSearchResultTest, ReusedArchiveFollowsChangesThroughKeptContainerPointers) {
  KXSearchResult r;
  kx::Dictionary& dict = r.additionalPropertyDict();
  kx::Array* list = dict["list"].mutableArray();
  list->push_back(kx::Value(1));
  dict["nested"] = kx::Value(kx::MakeDictionary({{"inner", kx::Value(kx::Array{})}}));
  kx::Array* inner = (*dict["nested"].mutableDictionary())["inner"].mutableArray();
  Encode(r);

  list->push_back(kx::Value(2));
  EXPECT_EQ(Decode(Encode(r))->valueForUndefinedKey("list").count(), 2u);
  inner->push_back(kx::Value("x"));
  EXPECT_EQ(Decode(Encode(r))->valueForUndefinedKey("nested")["inner"].count(), 1u);
  (*list)[0] = kx::Value(true);  // numerically equal to 1, archived differently
  EXPECT_TRUE(Decode(Encode(r))->valueForUndefinedKey("list").at(0).number()->isBool());
}

// The encoding of a result with an empty dictionary, made before exit
// begins; a freed cache's memory would be handed out again by then.
const Bytes* gEmptyEncoding = nullptr;

// Registered before the result caches exist, so it runs after any static
// destructor they could have registered.
void EncodeAtExit() {
  KXSearchResult r;
  r.additionalPropertyDict();
  std::_Exit(Encode(r) == *gEmptyEncoding ? 0 : 3);
}

TEST(KXSearchResultTest, ProcessWideCachesOutliveStaticDestruction) {
  EXPECT_EXIT(
      {
        gEmptyEncoding = new Bytes(EmptyEncoding(ArchiveOf(kx::Value(kx::Dictionary()))).bytes());
        std::atexit(EncodeAtExit);
        KXSearchResult r;
        r.additionalPropertyDict();
        EXPECT_EQ(Encode(r), *gEmptyEncoding);
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(KXSearchResultTest, ConcurrentReadersShareOnePendingDecode) {
  KXSearchResult source;
  source.setValue(kx::Value("v"), "k");
  for (int round = 0; round < 20; ++round) {
    auto r = Decode(Encode(source));
    std::atomic<int> found{0};
    auto read = [&] { found += r->valueForUndefinedKey("k") == kx::Value("v") &&
                               r->copy()->additionalPropertiesCount() == 1; };
    std::thread a(read), b(read);
    read();
    a.join(), b.join();
    EXPECT_EQ(found.load(), 3);
  }
}

TEST(KXSearchResultTest, EqualityIsDeliberatelyNarrowAndHashIgnoresIt) {
  KXSearchResult a, b;
  for (KXSearchResult* r : {&a, &b}) r->setIdentifier(7), r->setUrl("x://1"), r->setTitle("t");
  EXPECT_TRUE(a.isEqual(a));
  EXPECT_FALSE(a.isEqual(b));  // agreeing on everything else is not enough
  EXPECT_EQ(a.hash(), (uint64_t{7} * 0x9e3779b1) ^ std::hash<std::string_view>()("x://1"));
  EXPECT_EQ(a.hash(), b.hash());

  for (KXSearchResult* r : {&a, &b}) r->setExternalIdentifier("e");
  EXPECT_FALSE(a.isEqual(b));  // no bundle identifiers
  for (KXSearchResult* r : {&a, &b}) r->setBundleID("app");
  b.setIdentifier(8);
  EXPECT_TRUE(a.isEqual(static_cast<const kx::Object&>(b)));
  EXPECT_NE(a.hash(), b.hash());
  a.setProtectionClass("A");
  EXPECT_FALSE(a.isEqual(b));
  EXPECT_EQ(KXSearchResult().hash(), 0u);
}

TEST(KXSearchResultTest, TheTwoCopiesCarryDifferentFields) {
  auto r = FullResult();
  r->setResultBundleID("rb"), r->setIsQuickGlance(true), r->setCurrentDisplayPosition(3);
  auto c = r->copy();
  KXSearchResult t;
  r->copyTo(t);
  // Both drop the same fields; the rest survives a round through the wire.
  KXSearchResult expected;
  expected.initWithData(r->data());
  expected.setUserActivityRequiredString(std::nullopt);
  expected.setUserActivitySecondaryString(std::nullopt);
  expected.setUserActivityData(std::nullopt);
  expected.setUserActivityEligibleForPublicIndexing(false);
  EXPECT_EQ(t.data(), expected.data());
  expected.setResultScore(0), expected.setSectionScore(0);  // copy() leaves the scores
  EXPECT_EQ(c->data(), expected.data());
  EXPECT_FALSE(c->resultBundleID() || c->isQuickGlance() || c->currentDisplayPosition());

  // The dictionary is copied, not shared.
  c->setValue(kx::Value("w"), "k");
  EXPECT_EQ(r->valueForUndefinedKey("k"), kx::Value("v"));
  // copyTo leaves the target's dictionary alone when there are no entries,
  // and its domain when the source has none.
  KXSearchResult().copyTo(t);
  EXPECT_EQ(t.valueForUndefinedKey("k"), kx::Value("v"));
  EXPECT_EQ(t.searchResultDomain(), 5u);
  EXPECT_FALSE(t.hasTitle());
}

TEST(KXSearchResultTest, DictionaryRepresentationUsesTheDocumentedKeysAndTypes) {
  kx::Dictionary d = FullResult()->dictionaryRepresentation();
  EXPECT_EQ(d.size(), 26u);
  for (const char* absent : {"topHit", "score", "resultScore", "sectionScore"}) {
    EXPECT_FALSE(d.count(absent)) << absent;
  }
  using T = kx::Number::Type;
  const std::pair<const char*, T> types[] = {
      {"identifier", T::UInt64}, {"flags", T::Int32}, {"numberOfSummaryLines", T::UInt32},
      {"searchResultDomain", T::Int32}, {"geoUserSessionStartTime", T::Double},
      {"geoUserSessionSequenceNumber", T::UInt32}, {"hasAssociatedUserActivity", T::Int32},
      {"userActivityEligibleForPublicIndexing", T::Int32}};
  for (const auto& [key, type] : types) EXPECT_EQ(d[key].number()->type(), type) << key;

  KXSearchResult empty;
  empty.additionalPropertyDict();  // present but empty: not listed
  EXPECT_EQ(empty.dictionaryRepresentation(),
            kx::MakeDictionary({{"userActivityEligibleForPublicIndexing", kx::Value(0)},
                                {"hasAssociatedUserActivity", kx::Value(0)}}));
  EXPECT_EQ(empty.description().rfind("<KXSearchResult: 0x", 0), 0u);
}

TEST(KXSearchResultTest, ContentURLIsComputedFromTheFileLocationAndCached) {
  const std::string path = kx::UserLibraryDirectory() + "/report.txt";
  std::ofstream(path) << "x";
  std::string error;
  auto indexer = kx::FileIDIndexer::Open(&error);
  ASSERT_TRUE(indexer) << error;
  const std::optional<uint32_t> documentID = indexer->RecordFile(path, &error);
  ASSERT_TRUE(documentID) << error;
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);

  KXSearchResult r;
  r.setFileIdentifier(st.st_ino);
  EXPECT_FALSE(r.contentURL());  // no document identifier
  r.setDocumentIdentifier(*documentID);
  EXPECT_EQ(r.contentURL(), path);
  // Cached: it survives the file's removal and is written as tag 19.
  std::filesystem::remove(path);
  EXPECT_EQ(Decode(Encode(r))->contentURL(), path);
  r.setContentURL("/stored");
  EXPECT_EQ(r.contentURL(), "/stored");
}

}  // namespace
