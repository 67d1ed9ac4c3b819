#include <gtest/gtest.h>

#include "platform/prefs/preference_file.h"
#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"

namespace kx {
namespace {

TEST(UserDefaultsTest, StoredValuesOverrideRegisteredOnesInTheBundleDomain) {
  SetBundleIdentifier("com.kx.test.defaults");
  UserDefaults::RegisterDefaults(MakeDictionary({{"level", 3}, {"name", "first"}}));
  UserDefaults::RegisterDefaults(MakeDictionary({{"name", "second"}}));
  EXPECT_EQ(Value(3), UserDefaults::ObjectForKey("level"));
  EXPECT_EQ(Value("second"), UserDefaults::ObjectForKey("name"));
  EXPECT_TRUE(UserDefaults::ObjectForKey("unset").isNil());

  UserDefaults::SetObject(Value(7), "level");
  EXPECT_EQ(7, UserDefaults::IntegerForKey("level"));
  EXPECT_EQ(Value(7), ReadPreferenceFile(PreferenceStore::PathForDomain("com.kx.test.defaults"))
                          .values->at("level"));
  UserDefaults::SetObject(Value(), "level");
  EXPECT_EQ(3, UserDefaults::IntegerForKey("level"));  // the fallback shows again

  SetBundleIdentifier("com.kx.test.defaults.other");  // a different process identity
  EXPECT_EQ(3, UserDefaults::IntegerForKey("level"));
  UserDefaults::SetObject(Value(9), "level");
  EXPECT_EQ(Value(9), PreferenceStore::CopyValue("level", "com.kx.test.defaults.other"));
  EXPECT_TRUE(PreferenceStore::CopyValue("level", "com.kx.test.defaults").isNil());
  SetBundleIdentifier("");
}

TEST(UserDefaultsTest, IntegerAndBoolReadNumbersAndStringsLikeThePlatform) {
  SetBundleIdentifier("com.kx.test.conversions");
  struct Case {
    Value value;
    int64_t integer;
    bool boolean;
  };
  const Case cases[] = {
      {Value(42), 42, true},        {Value(0), 0, false},         {Value(true), 1, true},
      {Value(2.9), 2, true},        {Value("42"), 42, true},      {Value(" -7"), -7, true},
      {Value("12abc"), 12, true},   {Value("3.9"), 3, true},      {Value("abc"), 0, false},
      {Value("YES"), 0, true},      {Value("true"), 0, true},     {Value("no"), 0, false},
      {Value("007"), 7, true},      {Value("+0"), 0, false},      {Value(""), 0, false},
      {Value("99999999999999999999"), INT64_MAX, true},
      {Value(Value::Bytes{1}), 0, false}, {Value(Array{Value(1)}), 0, false},
  };
  for (const Case& c : cases) {
    UserDefaults::SetObject(c.value, "key");
    EXPECT_EQ(c.integer, UserDefaults::IntegerForKey("key")) << c.value.description();
    EXPECT_EQ(c.boolean, UserDefaults::BoolForKey("key")) << c.value.description();
  }
  UserDefaults::SetObject(Value(), "key");
  EXPECT_EQ(0, UserDefaults::IntegerForKey("key"));
  EXPECT_FALSE(UserDefaults::BoolForKey("key"));
  SetBundleIdentifier("");
}

}  // namespace
}  // namespace kx
