#include "kx/KXProxyObject.h"

#include <gtest/gtest.h>

#include <fstream>

#include "kx/KXCardClasses.h"
#include "kx/KXServerResult.h"
#include "kx/log.h"
#include "support/log_file.h"

namespace kx {
namespace {

size_t UnsupportedLines(const std::string& code) {
  const std::string text = "Unsupported number type: " + code;
  std::ifstream in(logFilePathWithNumber(LogDirectoryPath(), 0), std::ios::binary);
  size_t n = 0;
  for (std::string line; std::getline(in, line);)
    n += line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0;
  return n;
}

TEST(CardObjectTest, AccessorsReadByKeyAndRefuseOtherKinds) {
  auto row = KXRowSection::proxyObjectWithDictionary(MakeDictionary(
      {{"type", "row"}, {"url", "https://example.org/a"}, {"value", Value(int32_t{5})}}));
  EXPECT_EQ(row->type(), "row");  // inherited from KXSection
  EXPECT_EQ(row->url()->absoluteString(), "https://example.org/a");
  EXPECT_FALSE(row->key().has_value());    // absent key
  EXPECT_FALSE(row->value().has_value());  // a number where a string is declared
  EXPECT_EQ(row->className(), "KXRowSection");

  auto table = KXTableRowSection::proxyObjectWithDictionary(MakeDictionary(
      {{"alignment_schema", MakeDictionary({{"meta", MakeDictionary({{"type", "m"}})}})}}));
  ASSERT_NE(table->alignment_schema(), nullptr);
  EXPECT_EQ(table->alignment_schema()->meta()->type(), "m");
  EXPECT_EQ(table->table_id(), std::nullopt);
}

TEST(CardObjectTest, CardsAreReadOnlyWhileResultsStoreUndefinedKeys) {
  auto title = KXTitleSection::proxyObjectWithDictionary(MakeDictionary({{"title", "old"}}));
  const Dictionary before = title->dictionary();
  EXPECT_TRUE(title->forwardPropertyCall("setTitle:", Value("new")).isNil());
  EXPECT_EQ(title->dictionary(), before);
  EXPECT_EQ(title->title(), "old");
  EXPECT_EQ(title->forwardPropertyCall("title"), Value("old"));

  KXSearchResult result;
  EXPECT_TRUE(KXForwardPropertyCall(result, "setSection_header:", Value("Header")).isNil());
  EXPECT_EQ(result.valueForUndefinedKey("section_header"), Value("Header"));
  EXPECT_EQ(KXForwardPropertyCall(result, "section_header"), Value("Header"));
  EXPECT_EQ(KXServerResult(result).section_header(), "Header");
  EXPECT_EQ(KXServerResult(result).fbr(), std::nullopt);

  auto button = KXActionButton::proxyObjectWithDictionary({});
  button->setContactIdentifier("c1");
  EXPECT_EQ(button->contactIdentifier(), "c1");
}

TEST(CardObjectTest, SetterNamesGiveKeys) {
  EXPECT_EQ(vantle::PropertyCallForName("setTitle_maxlines:").key, "title_maxlines");
  EXPECT_TRUE(vantle::PropertyCallForName("setTitle_maxlines:").isSetter);
  EXPECT_EQ(vantle::PropertyCallForName("setX:").key, "x");
  EXPECT_EQ(vantle::PropertyCallForName("setURL:").key, "uRL");
  // Too short to be a setter: a getter of that name. Any longer name
  // beginning with "set" is a setter.
  EXPECT_FALSE(vantle::PropertyCallForName("set").isSetter);
  EXPECT_TRUE(vantle::PropertyCallForName("settle").isSetter);
  EXPECT_EQ(vantle::PropertyCallForName("settle").key, "tle");
}

TEST(CardObjectTest, NumbersFollowTheStoredType) {
  setKXLogLevel(3);
  auto section = KXSection::proxyObjectWithDictionary(
      MakeDictionary({{"hide_divider", Value(true)}, {"card_padding_top", Value(int32_t{1})}}));
  EXPECT_EQ(section->hide_divider(), true);
  EXPECT_EQ(UnsupportedLines("B"), 1u);
  EXPECT_EQ(section->card_padding_top(), true);
  EXPECT_EQ(UnsupportedLines("i"), 0u);

  auto table = KXTableRowSection::proxyObjectWithDictionary(
      MakeDictionary({{"row_type", Value(Number::Int16(7))}}));
  EXPECT_EQ(table->row_type(), 0);
  EXPECT_EQ(UnsupportedLines("s"), 1u);

  KXSearchResult result;
  result.setValue(Value(Number::UInt64(9)), "rank");
  result.setValue(Value(Number::Double(2.5)), "rating");
  result.setValue(Value(Number::Char(3)), "placement");
  EXPECT_EQ(KXServerResult(result).rank(), 0u);
  EXPECT_EQ(UnsupportedLines("Q"), 1u);
  EXPECT_EQ(KXServerResult(result).rating(), 2.5f);
  EXPECT_EQ(KXServerResult(result).placement(), 3);
  EXPECT_EQ(vantle::DeliveredValue(Value(Number::UInt16(4))), Value(0));
}

}  // namespace
}  // namespace kx
