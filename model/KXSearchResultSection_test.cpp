#include "model/KXSearchResultSection.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/exception.h"
#include "support/keyed_archiver.h"

namespace {

using Bytes = std::vector<uint8_t>;
using ResultRef = std::shared_ptr<KXSearchResult>;

Bytes Varint(uint64_t v) {
  Bytes out;
  for (; v >= 0x80; v >>= 7) out.push_back(static_cast<uint8_t>(v | 0x80));
  out.push_back(static_cast<uint8_t>(v));
  return out;
}

Bytes Delimited(uint8_t key, const Bytes& payload) {
  Bytes out{key};
  Bytes len = Varint(payload.size());
  out.insert(out.end(), len.begin(), len.end());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

void Append(Bytes& to, const Bytes& more) { to.insert(to.end(), more.begin(), more.end()); }

ResultRef Result(const std::string& extid, uint64_t identifier) {
  auto r = std::make_shared<KXSearchResult>();
  r->setExternalIdentifier(extid);
  r->setBundleID("com.example.app");
  r->setIdentifier(identifier);
  return r;
}

std::shared_ptr<KXSearchResultSection> FullSection() {
  auto s = std::make_shared<KXSearchResultSection>();
  s->setDomain(3);
  s->setIcon("i");
  s->setDisplayIdentifier("d");
  s->setCategory("c");
  s->setScheme("s");
  s->setFlags(6);
  s->addResults(Result("one", 1));
  s->addResults(Result("two", 2));
  s->addHiddenExtResult(kx::Value(kx::MakeDictionary({{"type", "dup"}, {"id", "local:9"}})));
  s->setResultSetIdentifier("r");
  return s;
}

// The section's fields one by one, each a whole field of the encoding.
std::vector<Bytes> FullSectionFields(const KXSearchResultSection& s) {
  std::vector<Bytes> fields = {{0x08, 0x03}, {0x12, 1, 'i'}, {0x1A, 1, 'd'},
                               {0x22, 1, 'c'}, {0x2A, 1, 's'}, {0x30, 0x06}};
  for (const ResultRef& r : s.results()) fields.push_back(Delimited(0x3A, r->data()));
  fields.push_back(Delimited(
      0x42, *kx::KeyedArchiver::ArchivedDataWithRootObject(kx::Value(*s.hiddenExtResultsIfPresent()))));
  fields.push_back({0x4A, 1, 'r'});
  return fields;
}

TEST(KXSearchResultSectionTest, EncodesFieldByFieldAndDecodesToAnEqualSection) {
  auto s = FullSection();
  Bytes golden;
  for (const Bytes& f : FullSectionFields(*s)) Append(golden, f);
  WireWriter w;
  s->serializeTo(w);
  Bytes expected = golden;
  expected.push_back(0x04);
  ASSERT_EQ(w.copyData(), expected);

  KXSearchResultSection back;
  WireReader reader(w.bytes());
  ASSERT_TRUE(back.readFrom(reader));
  EXPECT_EQ(reader.position(), expected.size());
  EXPECT_TRUE(back.isEqual(*s));
  EXPECT_EQ(back.hash(), s->hash());
  EXPECT_EQ(back.hiddenExtResults(), s->hiddenExtResults());
  EXPECT_EQ(back.resultsAtIndex(1)->identifier(), 2u);
}

TEST(KXSearchResultSectionTest, CutOnAFieldBoundaryIsAShorterSectionAndInsideAFieldFails) {
  auto s = FullSection();
  std::vector<size_t> boundaries{0};
  Bytes all;
  for (const Bytes& f : FullSectionFields(*s)) {
    Append(all, f);
    boundaries.push_back(all.size());
  }
  size_t next = 0;
  for (size_t cut = 0; cut <= all.size(); ++cut) {
    const bool boundary = cut == boundaries[next];
    if (boundary && next + 1 < boundaries.size()) ++next;
    const Bytes prefix(all.begin(), all.begin() + cut);
    KXSearchResultSection section;
    WireReader reader(prefix.data(), prefix.size());
    EXPECT_EQ(KXSearchResultSectionReadFrom(section, reader), boundary) << "cut at " << cut;
    uint32_t domain = 0;
    WireReader domainReader(prefix.data(), prefix.size());
    EXPECT_EQ(KXSearchResultSectionReadDomainFrom(&domain, domainReader), boundary)
        << "cut at " << cut;
    // A cut domain varint stores 0, as the reader yields it.
    EXPECT_EQ(domain, cut == 0 ? 0xFFFFFFFFu : cut == 1 ? 0u : 3u);
    // A result is added only once it is whole.
    EXPECT_EQ(section.resultsCount(), cut >= boundaries[8] ? 2u : cut >= boundaries[7] ? 1u : 0u);
  }
}

TEST(KXSearchResultSectionTest, ReadersStopAtTheSectionMark) {
  auto first = FullSection();
  KXSearchResultSection second;
  second.setDomain(300);
  second.addResults(Result("three", 3));
  KXSearchResultSection third;  // no domain
  third.setIcon("x");
  WireWriter w;
  first->serializeTo(w);
  second.serializeTo(w);
  third.serializeTo(w);

  WireReader reader(w.bytes());
  std::vector<uint32_t> domains;
  for (uint32_t d; reader.hasMoreData();) {
    ASSERT_TRUE(KXSearchResultSectionReadDomainFrom(&d, reader));
    domains.push_back(d);
  }
  EXPECT_EQ(domains, (std::vector<uint32_t>{3, 300, 0xFFFFFFFF}));

  WireReader sections(w.bytes());
  std::vector<std::shared_ptr<KXSearchResultSection>> read;
  while (sections.hasMoreData()) {
    auto s = std::make_shared<KXSearchResultSection>();
    ASSERT_TRUE(s->readFrom(sections));
    read.push_back(s);
  }
  ASSERT_EQ(read.size(), 3u);
  EXPECT_EQ(read[1]->domain(), 300u);
  EXPECT_EQ(read[1]->resultsCount(), 1u);
  EXPECT_EQ(read[1]->resultsAtIndex(0)->searchResultDomain(), 300u);  // inherited
  EXPECT_FALSE(read[2]->hasDomain());

  // The first domain only: the reader stays right after its varint.
  WireReader firstOnly(w.bytes());
  uint32_t d = 0;
  ASSERT_TRUE(KXSearchResultSectionReadFirstDomainOnly(&d, firstOnly));
  EXPECT_EQ(d, 3u);
  EXPECT_EQ(firstOnly.position(), 2u);

  const Bytes noDomain = {0x12, 1, 'x', 0x04, 0x08, 0x05};
  WireReader none(noDomain.data(), noDomain.size());
  ASSERT_TRUE(KXSearchResultSectionReadFirstDomainOnly(&d, none));
  EXPECT_EQ(d, 0xFFFFFFFFu);
  EXPECT_EQ(none.position(), 4u);

  // The last tag 1 wins for the whole-section reader.
  const Bytes twice = {0x08, 0x01, 0x08, 0x02};
  WireReader last(twice.data(), twice.size());
  ASSERT_TRUE(KXSearchResultSectionReadDomainFrom(&d, last));
  EXPECT_EQ(d, 2u);
}

TEST(KXSearchResultSectionTest, ADamagedResultEndsTheSectionAndKeepsWhatCameBefore) {
  Bytes bytes = {0x08, 0x02};
  Append(bytes, Delimited(0x3A, Result("ok", 1)->data()));
  Append(bytes, Delimited(0x3A, {0x0A, 0x09, 'x'}));  // title longer than its record
  Append(bytes, Delimited(0x3A, Result("later", 2)->data()));
  KXSearchResultSection s;
  WireReader reader(bytes.data(), bytes.size());
  EXPECT_FALSE(KXSearchResultSectionReadFrom(s, reader));
  EXPECT_EQ(s.resultsCount(), 1u);
  EXPECT_EQ(s.domain(), 2u);

  // A result length that runs past the section, and an unskippable field.
  for (const Bytes& bad : {Bytes{0x3A, 0x7F, 0x08}, Bytes{0x5E, 0x00}}) {
    KXSearchResultSection t;
    WireReader r(bad.data(), bad.size());
    EXPECT_FALSE(KXSearchResultSectionReadFrom(t, r));
    uint32_t d;
    WireReader r2(bad.data(), bad.size());
    EXPECT_FALSE(KXSearchResultSectionReadDomainFrom(&d, r2));
  }
  // An undecodable hidden-results archive leaves them absent.
  const Bytes hidden = {0x42, 0x02, 0x01, 0x02};
  KXSearchResultSection h;
  EXPECT_TRUE(h.initWithData(hidden));
  EXPECT_EQ(h.hiddenExtResultsIfPresent(), nullptr);
}

TEST(KXSearchResultSectionTest, AddingResultsHandsOutTheDomainExceptFromAnArray) {
  KXSearchResultSection s;
  s.setDomain(5);
  auto own = std::make_shared<KXSearchResult>();
  own->setSearchResultDomain(3);
  auto none = std::make_shared<KXSearchResult>();
  auto inserted = std::make_shared<KXSearchResult>();
  auto fromArray = std::make_shared<KXSearchResult>();
  s.addResults(own);
  s.addResults(none);
  s.addResults(own);  // the same object again: still one entry
  s.addResults(inserted, 0);
  s.addResultsFromArray({fromArray});
  EXPECT_EQ(own->searchResultDomain(), 3u);
  EXPECT_EQ(none->searchResultDomain(), 5u);
  EXPECT_EQ(inserted->searchResultDomain(), 5u);
  EXPECT_FALSE(fromArray->hasSearchResultDomain());
  EXPECT_EQ(s.results(), (std::vector<ResultRef>{inserted, own, none, fromArray}));
  EXPECT_EQ(s.indexOfResult(*none), 2u);
  s.removeResultsAtIndex(0);
  EXPECT_EQ(s.indexOfResult(*inserted), KXSearchResultSection::kNotFound);
  EXPECT_THROW(s.addResults(none, 9), kx::Exception);
  EXPECT_EQ(s.resultsAtIndex(9), nullptr);
}

TEST(KXSearchResultSectionTest, AbsentAndEmptyPartsAndHiddenResults) {
  KXSearchResultSection s;
  EXPECT_EQ(s.resultSet(), nullptr);
  EXPECT_EQ(s.resultsCount(), 0u);
  EXPECT_EQ(s.resultsAtIndex(0), nullptr);
  s.removeResultsAtIndex(3);  // nothing to remove from
  s.clearResults();
  EXPECT_EQ(s.resultSet(), nullptr);
  // Only the writes of a present field: nothing at all.
  EXPECT_TRUE(s.data().empty());

  s.addHiddenExtResult(kx::Value());
  EXPECT_NE(s.hiddenExtResultsIfPresent(), nullptr);
  EXPECT_TRUE(s.hiddenExtResults().empty());
  s.addHiddenExtResult(kx::Value("dup"));
  EXPECT_FALSE(s.hasResults());

  // Hidden results enter the hash but not equality.
  KXSearchResultSection t;
  EXPECT_TRUE(s.isEqual(t));
  EXPECT_NE(s.hash(), t.hash());
  // An absent result set differs from an empty one.
  t.addResultsFromArray({});
  EXPECT_FALSE(s.isEqual(t));
}

class DerivedSection : public KXSearchResultSection {
 public:
  std::string className() const override { return "DerivedSection"; }
  bool serialized() const override { return true; }
};

TEST(KXSearchResultSectionTest, EqualityNeedsTheSameClassAndAgreeingBits) {
  KXSearchResultSection a, b;
  DerivedSection d;
  EXPECT_TRUE(a.isEqual(b));
  EXPECT_FALSE(a.isEqual(d));
  EXPECT_TRUE(d.hasResults());
  b.setHasDomain(true);  // domain 0 with its bit differs from no domain
  EXPECT_FALSE(a.isEqual(b));
  a.setDomain(0);
  EXPECT_TRUE(a.isEqual(b));
  a.setFlags(1);
  b.setFlags(2);
  EXPECT_FALSE(a.isEqual(b));
  b.setFlags(1);
  b.setCategory("");
  EXPECT_FALSE(a.isEqual(b));
}

TEST(KXSearchResultSectionTest, CopiesShareOrDuplicateResults) {
  auto s = FullSection();
  s->setIsGlanceCategory(true);

  KXSearchResultSection target;
  target.addResults(Result("old", 9));
  s->copyTo(target);
  EXPECT_EQ(target.results(), s->results());  // the same objects
  EXPECT_TRUE(target.isEqual(*s));
  EXPECT_FALSE(target.isGlanceCategory());

  auto c = s->copy();
  ASSERT_EQ(c->resultsCount(), 2u);
  EXPECT_NE(c->resultsAtIndex(0), s->resultsAtIndex(0));
  EXPECT_EQ(c->resultsAtIndex(1)->externalIdentifier(), "two");
  EXPECT_TRUE(c->isEqual(*s));  // equal results by external identity
  EXPECT_FALSE(c->isGlanceCategory());
  EXPECT_EQ(c->hiddenExtResults(), s->hiddenExtResults());

  kx::Dictionary d = s->dictionaryRepresentation();
  EXPECT_EQ(d["domain"].number()->type(), kx::Number::Type::UInt32);
  EXPECT_EQ(d["flags"].number()->type(), kx::Number::Type::Int32);
  EXPECT_EQ(d["results"].count(), 2u);
  EXPECT_EQ(d["results"].at(1)["externalIdentifier"], kx::Value("two"));
  EXPECT_TRUE(d["hiddenExtResults"].isNil());
  EXPECT_TRUE(KXSearchResultSection().dictionaryRepresentation().empty());
}

}  // namespace
