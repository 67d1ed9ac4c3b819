#include "model/KXSearchResult.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "platform/file_id_service.h"
#include "platform/process_info.h"
#include "support/archivable_images.h"
#include "support/secure_archiving.h"

namespace {

using Bytes = std::vector<uint8_t>;

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
    for (const Bytes& f : fields) out.insert(out.end(), f.begin(), f.end());
    return out;
  }
  // Offsets at which a cut leaves whole fields only.
  std::vector<size_t> boundaries() const {
    std::vector<size_t> out{0};
    for (const Bytes& f : fields) out.push_back(out.back() + f.size());
    return out;
  }
};

Bytes Varint(uint64_t v) {
  Bytes out;
  for (; v >= 0x80; v >>= 7) out.push_back(static_cast<uint8_t>(v | 0x80));
  out.push_back(static_cast<uint8_t>(v));
  return out;
}

// Key bytes (already encoded) + length + payload.
Bytes Delimited(Bytes key, const Bytes& payload) {
  Bytes len = Varint(payload.size());
  key.insert(key.end(), len.begin(), len.end());
  key.insert(key.end(), payload.begin(), payload.end());
  return key;
}

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

// Every field, in emitted order, with its hand-encoded bytes.
std::shared_ptr<KXSearchResult> FullResult() {
  auto r = std::make_shared<KXSearchResult>();
  r->setTitle("T");
  r->setSubtitle("S");
  r->setSummary("");
  r->setAuxiliaryTitle("A");
  r->setAuxiliarySubtitle("B");
  r->setIdentifier(300);
  r->setUrl("u");
  r->setFlags(-1);
  r->setNumberOfSummaryLines(2);
  r->setValue(kx::Value("v"), "k");
  r->setPredictionIdentifier("p");
  r->setUserActivityType("t");
  r->setUserActivityRequiredString("r");
  r->setUserActivitySecondaryString("s");
  r->setUserActivityData(Bytes{0x00, 0xFF});
  r->setBundleID("b");
  r->setExternalIdentifier("e");
  r->setContentURL("/c");
  r->setSearchResultDomain(5);
  r->setGeoUserSessionIDString("g");
  r->setGeoUserSessionStartTime(1.0);
  r->setGeoUserSessionSequenceNumber(7);
  r->setUserActivityEligibleForPublicIndexing(true);
  r->setTopHit(true);
  r->setScore(0x40000000);
  r->setProtectionClass("pc");
  r->setContactIdentifiers(KXSearchResult::StringList{"x", "yz"});
  r->setHasAssociatedUserActivity(true);
  r->setResultScore(2.0);
  r->setSectionScore(-0.5);
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
  auto original = FullResult();
  const Bytes golden = FullEncoding().bytes();
  ASSERT_EQ(Encode(*original), golden);

  bool ok = false;
  auto r = Decode(golden, &ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(r->flags(), -1);
  EXPECT_TRUE(r->hasFlags() && r->hasIdentifier() && r->hasNumberOfSummaryLines());
  EXPECT_EQ(r->identifier(), 300u);
  EXPECT_EQ(r->summary(), "");  // empty but present
  EXPECT_EQ(r->userActivityData(), (Bytes{0x00, 0xFF}));
  EXPECT_EQ(r->searchResultDomain(), 5u);
  EXPECT_EQ(r->geoUserSessionSequenceNumber(), 7u);
  EXPECT_EQ(r->valueForUndefinedKey("k"), kx::Value("v"));
  EXPECT_EQ(r->contactIdentifiers(), (KXSearchResult::StringList{"x", "yz"}));
  EXPECT_EQ(r->resultScore(), 2.0);
  EXPECT_EQ(r->sectionScore(), -0.5);
  // Everything survives: the decoded record encodes to the same bytes.
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

TEST(KXSearchResultTest, EndGroupKeyEndsTheRecord) {
  const Bytes input = {0x0A, 0x01, 'a', 0x04, 0x12, 0x01, 'b'};
  KXSearchResult r;
  WireReader reader(input.data(), input.size());
  EXPECT_TRUE(KXSearchResultReadFrom(r, reader));
  EXPECT_EQ(reader.position(), 4u);
  EXPECT_EQ(r.title(), "a");
  EXPECT_FALSE(r.hasSubtitle());
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
  source.setFilename("a.txt");
  source.setDocumentIdentifier(9);
  source.setFbq(kx::Value(int64_t{4}));
  auto r = Decode(Encode(source));
  EXPECT_EQ(r->additionalPropertiesCount(), 3u);
  EXPECT_EQ(r->filename(), "a.txt");
  EXPECT_EQ(r->documentIdentifier(), 9u);
  EXPECT_EQ(r->fbq(), kx::Value(int64_t{4}));
  EXPECT_FALSE(r->fileIdentifier());
  r->setFilename(std::nullopt);
  EXPECT_EQ(r->additionalPropertiesCount(), 2u);

  // An undecodable archive leaves the dictionary absent, and only reading it
  // through its accessor creates it.
  auto bad = Decode(Delimited({0x52}, {1, 2, 3}));
  EXPECT_EQ(bad->additionalPropertyDictIfPresent(), nullptr);
  EXPECT_TRUE(bad->valueForUndefinedKey("k").isNil());
  bad->clearAdditionalProperties();
  EXPECT_EQ(bad->additionalPropertyDictIfPresent(), nullptr);
  EXPECT_EQ(Encode(*bad), EmptyEncoding(ArchiveOf(kx::Value())).bytes());
  EXPECT_TRUE(bad->additionalPropertyDict().empty());
  EXPECT_NE(bad->additionalPropertyDictIfPresent(), nullptr);

  // An archive whose root is not a dictionary counts as undecodable.
  auto array = Decode(Delimited({0x52}, ArchiveOf(kx::Value(kx::Array{kx::Value(1)}))));
  EXPECT_EQ(array->additionalPropertyDictIfPresent(), nullptr);
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

TEST(KXSearchResultTest, ConcurrentReadersShareOnePendingDecode) {
  KXSearchResult source;
  source.setValue(kx::Value("v"), "k");
  const Bytes bytes = Encode(source);
  for (int round = 0; round < 20; ++round) {
    auto r = Decode(bytes);
    std::vector<std::thread> readers;
    std::atomic<int> found{0};
    for (int t = 0; t < 3; ++t) {
      readers.emplace_back([&] {
        if (r->valueForUndefinedKey("k") == kx::Value("v")) ++found;
        auto copy = r->copy();
        if (copy->additionalPropertiesCount() == 1) ++found;
      });
    }
    for (auto& t : readers) t.join();
    EXPECT_EQ(found.load(), 6);
  }
}

TEST(KXSearchResultTest, EqualityIsDeliberatelyNarrowAndHashIgnoresIt) {
  auto a = std::make_shared<KXSearchResult>();
  auto b = std::make_shared<KXSearchResult>();
  for (auto& r : {a, b}) {
    r->setIdentifier(7);
    r->setUrl("x://1");
    r->setTitle("t");
    r->setSubtitle("s");
  }
  EXPECT_TRUE(a->isEqual(*a));
  EXPECT_FALSE(a->isEqual(*b));  // agreeing on everything else is not enough
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_EQ(a->hash(), (uint64_t{7} * 0x9e3779b1) ^ std::hash<std::string_view>()("x://1"));

  a->setExternalIdentifier("e");
  b->setExternalIdentifier("e");
  EXPECT_FALSE(a->isEqual(*b));  // no bundle ids
  a->setBundleID("app");
  b->setBundleID("app");
  b->setIdentifier(8);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_NE(a->hash(), b->hash());
  a->setProtectionClass("A");
  EXPECT_FALSE(a->isEqual(static_cast<const kx::Object&>(*b)));
  b->setProtectionClass("A");
  EXPECT_TRUE(a->isEqual(static_cast<const kx::Object&>(*b)));

  KXSearchResult noIdentifier;
  EXPECT_EQ(noIdentifier.hash(), 0u);
}

TEST(KXSearchResultTest, TheTwoCopiesCarryDifferentFields) {
  auto r = FullResult();
  r->setResultBundleID("rb");
  r->setIsQuickGlance(true);
  r->setCurrentDisplayPosition(3);
  r->setSupportsImageAsyncLoading(true);

  auto c = r->copy();
  KXSearchResult t;
  r->copyTo(t);
  for (const KXSearchResult* x : {c.get(), &t}) {
    EXPECT_EQ(x->title(), "T");
    EXPECT_EQ(x->auxiliarySubtitle(), "B");
    EXPECT_EQ(x->flags(), -1);
    EXPECT_TRUE(x->hasNumberOfSummaryLines());
    EXPECT_EQ(x->contentURL(), "/c");
    EXPECT_EQ(x->protectionClass(), "pc");
    EXPECT_EQ(x->searchResultDomain(), 5u);
    EXPECT_EQ(x->geoUserSessionSequenceNumber(), 7u);
    EXPECT_EQ(x->contactIdentifiers()->size(), 2u);
    EXPECT_EQ(x->score(), 0x40000000u);
    EXPECT_TRUE(x->topHit() && x->hasAssociatedUserActivity());
    EXPECT_EQ(x->valueForUndefinedKey("k"), kx::Value("v"));
    // Lost by both.
    EXPECT_FALSE(x->userActivityRequiredString() || x->userActivitySecondaryString() ||
                 x->userActivityData() || x->userActivityEligibleForPublicIndexing());
    EXPECT_FALSE(x->resultBundleID() || x->isQuickGlance() || x->supportsImageAsyncLoading());
    EXPECT_EQ(x->currentDisplayPosition(), 0);
  }
  EXPECT_EQ(t.resultScore(), 2.0);
  EXPECT_EQ(c->resultScore(), 0.0);
  EXPECT_EQ(c->sectionScore(), 0.0);

  // The dictionary is copied, not shared.
  c->setValue(kx::Value("w"), "k");
  EXPECT_EQ(r->valueForUndefinedKey("k"), kx::Value("v"));

  // copyTo leaves the target's dictionary alone when there are no entries,
  // and its domain when the source has none.
  KXSearchResult empty;
  empty.copyTo(t);
  EXPECT_EQ(t.valueForUndefinedKey("k"), kx::Value("v"));
  EXPECT_EQ(t.searchResultDomain(), 5u);
  EXPECT_FALSE(t.hasTitle());
}

TEST(KXSearchResultTest, DictionaryRepresentationUsesTheDocumentedKeysAndTypes) {
  auto r = FullResult();
  kx::Dictionary d = r->dictionaryRepresentation();
  std::vector<std::string> keys;
  for (const auto& [k, v] : d) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<std::string>{
                      "additionalProperties", "auxiliarySubtitle", "auxiliaryTitle", "bundleID",
                      "contactIdentifiers", "contentURL", "externalIdentifier", "flags",
                      "geoUserSessionIDString", "geoUserSessionSequenceNumber",
                      "geoUserSessionStartTime", "hasAssociatedUserActivity", "identifier",
                      "numberOfSummaryLines", "predictionIdentifier", "protectionClass",
                      "searchResultDomain", "subtitle", "summary", "title", "url",
                      "userActivityData", "userActivityEligibleForPublicIndexing",
                      "userActivityRequiredString", "userActivitySecondaryString",
                      "userActivityType"}));
  using T = kx::Number::Type;
  EXPECT_EQ(d["identifier"].number()->type(), T::UInt64);
  EXPECT_EQ(d["flags"].number()->type(), T::Int32);
  EXPECT_EQ(d["flags"].number()->intValue(), -1);
  EXPECT_EQ(d["numberOfSummaryLines"].number()->type(), T::UInt32);
  EXPECT_EQ(d["searchResultDomain"].number()->type(), T::Int32);
  EXPECT_EQ(d["geoUserSessionStartTime"].number()->type(), T::Double);
  EXPECT_EQ(d["hasAssociatedUserActivity"].number()->type(), T::Int32);

  KXSearchResult empty;
  empty.additionalPropertyDict();  // present but empty: not listed
  EXPECT_EQ(empty.dictionaryRepresentation(),
            kx::MakeDictionary({{"userActivityEligibleForPublicIndexing", kx::Value(0)},
                                {"hasAssociatedUserActivity", kx::Value(0)}}));
  EXPECT_EQ(empty.description().rfind("<KXSearchResult: 0x", 0), 0u);
}

TEST(KXSearchResultTest, ContentURLIsComputedFromTheFileLocationAndCached) {
  namespace fs = std::filesystem;
  const std::string dir = kx::UserLibraryDirectory() + "/docs";
  fs::create_directories(dir);
  const std::string path = dir + "/report.txt";
  std::ofstream(path) << "x";
  std::string error;
  auto indexer = kx::FileIDIndexer::Open(&error);
  ASSERT_TRUE(indexer) << error;
  const std::optional<uint32_t> documentID = indexer->RecordFile(path, &error);
  ASSERT_TRUE(documentID) << error;

  KXSearchResult r;
  EXPECT_FALSE(r.contentURL());
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  r.setFileIdentifier(st.st_ino);
  r.setDocumentIdentifier(*documentID);
  EXPECT_EQ(r.contentURL(), path);
  // Cached: it is written as tag 19 and survives the file's removal.
  fs::remove(path);
  EXPECT_EQ(r.contentURL(), path);
  EXPECT_EQ(Decode(Encode(r))->contentURL(), path);
  r.setContentURL("/stored");
  EXPECT_EQ(r.contentURL(), "/stored");
}

TEST(KXSearchResultTest, ResultURLParsesAndStoresTheAbsoluteString) {
  KXSearchResult r;
  EXPECT_FALSE(r.resultURL());
  r.setResultURL(kx::URL::FileURLWithPath("/a b"));
  EXPECT_EQ(r.url(), "file:///a%20b");
  EXPECT_EQ(r.resultURL()->path(), "/a b");
  r.setResultURL(std::nullopt);
  EXPECT_FALSE(r.hasUrl());
}

}  // namespace
