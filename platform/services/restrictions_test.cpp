#include "kx/restrictions.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/notify/notification_center.h"
#include "platform/prefs/preferences.h"

namespace kx {
namespace {

using namespace std::chrono_literals;

class RecordingObserver : public RestrictionSettings::Observer {
 public:
  void restrictionSettingsDidChange(RestrictionSettings& settings,
                                    const std::optional<Dictionary>&) override {
    std::lock_guard lock(mu_);
    values_.push_back(settings.effectiveBoolValue(kAllowWebBrowserSetting));
    cv_.notify_all();
  }
  // The values seen at each change, once `count` changes arrived.
  std::vector<RestrictedBool> waitFor(size_t count) {
    std::unique_lock lock(mu_);
    cv_.wait_for(lock, 10s, [&] { return values_.size() >= count; });
    return values_;
  }

 private:
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<RestrictedBool> values_;
};

TEST(RestrictionsTest, DefaultServiceFollowsThePreferenceDomain) {
  auto settings = RestrictionSettings::Shared();
  EXPECT_EQ(settings->effectiveBoolValue(kAllowWebBrowserSetting), RestrictedBool::NotSet);
  EXPECT_TRUE(settings->isFeatureAllowed(kAllowWebBrowserSetting));

  auto observer = std::make_shared<RecordingObserver>();
  settings->addObserver(observer);
  auto gone = std::make_shared<RecordingObserver>();
  settings->addObserver(gone);
  gone.reset();  // a released observer is skipped
  std::atomic<int> posted{0};
  auto note = NotificationCenter::Default().addObserver(
      kRestrictionsChangedNotification, settings.get(), nullptr,
      [&](const Notification&) { posted.fetch_add(1); });

  ASSERT_TRUE(SetRestrictedBool(kAllowWebBrowserSetting, false));
  EXPECT_EQ(observer->waitFor(1), (std::vector{RestrictedBool::ExplicitNo}));
  EXPECT_FALSE(settings->isFeatureAllowed(kAllowWebBrowserSetting));
  // Rewriting the same value is not a change.
  ASSERT_TRUE(SetRestrictedBool(kAllowWebBrowserSetting, false));
  ASSERT_TRUE(SetRestrictedBool(kAllowWebBrowserSetting, true));
  EXPECT_EQ(observer->waitFor(2),
            (std::vector{RestrictedBool::ExplicitNo, RestrictedBool::ExplicitYes}));
  // The application notification follows the observer calls, once per
  // real change.
  for (int i = 0; i < 1000 && posted.load() < 2; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(posted.load(), 2);
  // The numeric form: 2 is "explicitly no". (Reading it may itself count as
  // a change, so it comes after the count above.)
  PreferenceStore::SetValue("allowCamera", Value(2), kRestrictionsPreferenceDomain);
  PreferenceStore::Synchronize(kRestrictionsPreferenceDomain);
  EXPECT_EQ(settings->effectiveBoolValue("allowCamera"), RestrictedBool::ExplicitNo);

  settings->removeObserver(observer.get());
  NotificationCenter::Default().removeObserver(note);
}

TEST(RestrictionsTest, SharedServiceCanBeReplaced) {
  class Fixed : public RestrictionSettings {
   public:
    RestrictedBool effectiveBoolValue(std::string_view) override {
      return RestrictedBool::ExplicitNo;
    }
    Value effectiveValue(std::string_view) override { return Value(2); }
  };
  auto original = RestrictionSettings::Shared();
  auto fixed = std::make_shared<Fixed>();
  RestrictionSettings::SetShared(fixed);
  EXPECT_EQ(RestrictionSettings::Shared(), fixed);
  EXPECT_FALSE(RestrictionSettings::Shared()->isFeatureAllowed(kAllowWebBrowserSetting));
  RestrictionSettings::SetShared(nullptr);
  EXPECT_NE(RestrictionSettings::Shared(), fixed);
  EXPECT_TRUE(RestrictionSettings::Shared()->isFeatureAllowed(kAllowWebBrowserSetting));
}

}  // namespace
}  // namespace kx
