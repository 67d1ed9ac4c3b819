#include "kx/KXSearchResultSection.h"

#include <gtest/gtest.h>

#include <vector>

#include "kx/exception.h"
#include "model/record_testing.h"
#include "support/keyed_archiver.h"

namespace {

using kx::test::Append;
using kx::test::Bytes;
using kx::test::Delimited;
using ResultRef = std::shared_ptr<KXSearchResult>;

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
  for (const ResultRef& r : s.results()) fields.push_back(Delimited({0x3A}, r->data()));
  const kx::Value hidden(*s.hiddenExtResultsIfPresent());
  fields.push_back(Delimited({0x42}, *kx::KeyedArchiver::ArchivedDataWithRootObject(hidden)));
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
  KXSearchResultSection second;
  second.setDomain(300);
  second.addResults(Result("three", 3));
  WireWriter w;
  FullSection()->serializeTo(w);
  second.serializeTo(w);

  WireReader domains(w.bytes()), sections(w.bytes());
  std::vector<uint32_t> seen;
  std::vector<std::shared_ptr<KXSearchResultSection>> read;
  for (uint32_t d; domains.hasMoreData(); seen.push_back(d)) {
    ASSERT_TRUE(KXSearchResultSectionReadDomainFrom(&d, domains));
  }
  while (sections.hasMoreData()) {
    read.push_back(std::make_shared<KXSearchResultSection>());
    ASSERT_TRUE(read.back()->readFrom(sections));
  }
  EXPECT_EQ(seen, (std::vector<uint32_t>{3, 300}));
  ASSERT_EQ(read.size(), 2u);
  EXPECT_EQ(read[1]->resultsAtIndex(0)->searchResultDomain(), 300u);  // inherited

  // The first domain only: the reader stays right after its varint.
  WireReader firstOnly(w.bytes());
  uint32_t d = 0;
  ASSERT_TRUE(KXSearchResultSectionReadFirstDomainOnly(&d, firstOnly));
  EXPECT_EQ(d, 3u);
  EXPECT_EQ(firstOnly.position(), 2u);
  const Bytes noDomainThenDomain = {0x12, 1, 'x', 0x04, 0x08, 0x05};
  WireReader none(noDomainThenDomain.data(), noDomainThenDomain.size());
  ASSERT_TRUE(KXSearchResultSectionReadFirstDomainOnly(&d, none));
  EXPECT_EQ(d, 0xFFFFFFFFu);
  EXPECT_EQ(none.position(), 4u);
  // The whole-section reader keeps the last tag 1.
  EXPECT_TRUE(KXSearchResultSectionReadDomainFrom(&d, none));
  EXPECT_EQ(d, 5u);
}

TEST(KXSearchResultSectionTest, ADamagedResultEndsTheSectionAndKeepsWhatCameBefore) {
  Bytes bytes = {0x08, 0x02};
  Append(bytes, Delimited({0x3A}, Result("ok", 1)->data()));
  Append(bytes, Delimited({0x3A}, {0x0A, 0x09, 'x'}));  // title longer than its record
  Append(bytes, Delimited({0x3A}, Result("later", 2)->data()));
  KXSearchResultSection s;
  EXPECT_FALSE(s.initWithData(bytes));
  EXPECT_EQ(s.resultsCount(), 1u);

  // A result length that runs past the section; an unskippable field.
  for (const Bytes& bad : {Bytes{0x3A, 0x7F, 0x08}, Bytes{0x5E, 0x00}}) {
    uint32_t d;
    WireReader r(bad.data(), bad.size());
    EXPECT_FALSE(KXSearchResultSectionReadDomainFrom(&d, r));
    EXPECT_FALSE(KXSearchResultSection().initWithData(bad));
  }
  // An undecodable hidden-results archive leaves them absent.
  KXSearchResultSection h;
  EXPECT_TRUE(h.initWithData(Bytes{0x42, 0x02, 0x01, 0x02}));
  EXPECT_EQ(h.hiddenExtResultsIfPresent(), nullptr);
}

TEST(KXSearchResultSectionTest, AddingResultsHandsOutTheDomainExceptFromAnArray) {
  KXSearchResultSection s;
  s.setDomain(5);
  auto own = std::make_shared<KXSearchResult>();
  own->setSearchResultDomain(3);
  auto none = std::make_shared<KXSearchResult>(), inserted = std::make_shared<KXSearchResult>();
  auto fromArray = std::make_shared<KXSearchResult>();
  s.addResults(own);
  s.addResults(none);
  s.addResults(inserted, 0);
  s.addResultsFromArray({fromArray});
  EXPECT_EQ(own->searchResultDomain(), 3u);
  EXPECT_EQ(none->searchResultDomain(), 5u);
  EXPECT_EQ(inserted->searchResultDomain(), 5u);
  EXPECT_FALSE(fromArray->hasSearchResultDomain());
  EXPECT_EQ(s.results(), (std::vector<ResultRef>{inserted, own, none, fromArray}));
  EXPECT_THROW(s.addResults(none, 9), kx::Exception);
  EXPECT_EQ(s.resultsAtIndex(9), nullptr);
}

class DerivedSection : public KXSearchResultSection {
 public:
  std::string className() const override { return "DerivedSection"; }
  bool serialized() const override { return true; }
};

TEST(KXSearchResultSectionTest, EqualityIgnoresHiddenResultsButNotPresence) {
  KXSearchResultSection s, t;
  s.clearResults();  // no set: nothing happens
  s.addHiddenExtResult(kx::Value());  // makes the array, adds nothing
  ASSERT_NE(s.hiddenExtResultsIfPresent(), nullptr);
  s.addHiddenExtResult(kx::Value("dup"));
  EXPECT_FALSE(s.hasResults());
  EXPECT_TRUE(DerivedSection().hasResults());  // through serialized()
  // Hidden results enter the hash but not equality.
  EXPECT_TRUE(s.isEqual(t));
  EXPECT_NE(s.hash(), t.hash());
  EXPECT_FALSE(s.isEqual(DerivedSection()));
  // Absent and empty, or unset and 0, differ.
  t.addResultsFromArray({});
  EXPECT_FALSE(s.isEqual(t));
  s.addResultsFromArray({});
  s.setHasDomain(true);
  EXPECT_FALSE(s.isEqual(t));
  t.setDomain(0);
  EXPECT_TRUE(s.isEqual(t));
}

TEST(KXSearchResultSectionTest, CopiesShareOrDuplicateResults) {
  auto s = FullSection();
  s->setIsGlanceCategory(true);
  KXSearchResultSection target;
  target.addResults(Result("old", 9));
  s->copyTo(target);
  EXPECT_EQ(target.results(), s->results());  // the same objects
  EXPECT_TRUE(target.isEqual(*s));

  auto c = s->copy();
  ASSERT_EQ(c->resultsCount(), 2u);
  EXPECT_NE(c->resultsAtIndex(0), s->resultsAtIndex(0));
  EXPECT_TRUE(c->isEqual(*s));  // copied results are equal by external identity
  EXPECT_EQ(c->hiddenExtResults(), s->hiddenExtResults());
  EXPECT_FALSE(c->isGlanceCategory() || target.isGlanceCategory());

  kx::Dictionary d = s->dictionaryRepresentation();
  EXPECT_EQ(d.size(), 8u);  // no hidden results
  EXPECT_EQ(d["domain"].number()->type(), kx::Number::Type::UInt32);
  EXPECT_EQ(d["flags"].number()->type(), kx::Number::Type::Int32);
  EXPECT_EQ(d["results"].at(1)["externalIdentifier"], kx::Value("two"));
}

}  // namespace
