#include "kx/restrictions.h"

#include "platform/notify/notification_center.h"
#include "platform/notify/notify.h"
#include "platform/prefs/preferences.h"
#include "kx/queue.h"
#include "platform/message/service_slot.h"

namespace kx {
namespace {

RestrictedBool BoolFrom(const Value& value) {
  const Number* n = value.number();
  if (!n) return RestrictedBool::NotSet;
  if (n->isBool()) return n->boolValue() ? RestrictedBool::ExplicitYes : RestrictedBool::ExplicitNo;
  switch (n->int64Value()) {
    case 1: return RestrictedBool::ExplicitYes;
    case 2: return RestrictedBool::ExplicitNo;
    default: return RestrictedBool::NotSet;
  }
}

// Reads the restrictions preference domain. A change is noticed through the
// named notification; the settings are then compared with the last ones
// seen, so observers hear only of real changes.
class PreferenceRestrictionSettings final : public RestrictionSettings {
 public:
  static std::shared_ptr<PreferenceRestrictionSettings> Create() {
    auto settings = std::make_shared<PreferenceRestrictionSettings>();
    std::weak_ptr<PreferenceRestrictionSettings> weak = settings;
    settings->observation_ = notify::AddObserver(
        kRestrictionsChangedNamedNotification, settings->queue_, [weak](const std::string&) {
          if (auto self = weak.lock()) self->reload();
        });
    // Read after observing, so no change can fall between the two; on the
    // queue, because a change may already be reloading there.
    settings->queue_->sync(
        [&] { settings->last_ = PreferenceStore::CopyAll(kRestrictionsPreferenceDomain); });
    return settings;
  }

  PreferenceRestrictionSettings()
      : queue_(Queue::Create("com.orvex.restrictions", Queue::QoS::Utility)) {}
  ~PreferenceRestrictionSettings() override { notify::RemoveObserver(observation_); }

  RestrictedBool effectiveBoolValue(std::string_view setting) override {
    return BoolFrom(effectiveValue(setting));
  }
  Value effectiveValue(std::string_view setting) override {
    return PreferenceStore::CopyValue(setting, kRestrictionsPreferenceDomain);
  }

 private:
  void reload() {
    KX_ASSERT_ON_QUEUE(queue_);
    PreferenceStore::Synchronize(kRestrictionsPreferenceDomain);
    Dictionary now = PreferenceStore::CopyAll(kRestrictionsPreferenceDomain);
    if (now == last_) return;
    last_ = std::move(now);
    settingsChanged();
  }

  const std::shared_ptr<Queue> queue_;
  Dictionary last_;  // on queue_
  std::shared_ptr<notify::Observation> observation_;
};

ServiceSlot<RestrictionSettings>& Slot() {
  static auto* slot = new ServiceSlot<RestrictionSettings>(
      [] { return std::shared_ptr<RestrictionSettings>(PreferenceRestrictionSettings::Create()); });
  return *slot;
}

}  // namespace

std::shared_ptr<RestrictionSettings> RestrictionSettings::Shared() { return Slot().get(); }

void RestrictionSettings::SetShared(std::shared_ptr<RestrictionSettings> settings) {
  Slot().set(std::move(settings));
}

void RestrictionSettings::addObserver(const std::shared_ptr<Observer>& observer) {
  std::lock_guard lock(mu_);
  observers_.push_back(observer);
}

void RestrictionSettings::removeObserver(const Observer* observer) {
  std::lock_guard lock(mu_);
  std::erase_if(observers_, [observer](const std::weak_ptr<Observer>& w) {
    auto o = w.lock();
    return !o || o.get() == observer;
  });
}

void RestrictionSettings::settingsChanged(std::optional<Dictionary> userInfo) {
  std::vector<std::shared_ptr<Observer>> live;
  {
    std::lock_guard lock(mu_);
    std::erase_if(observers_, [&live](const std::weak_ptr<Observer>& w) {
      auto o = w.lock();
      if (!o) return true;
      live.push_back(std::move(o));
      return false;
    });
  }
  for (const auto& observer : live) observer->restrictionSettingsDidChange(*this, userInfo);
  NotificationCenter::Default().post(kRestrictionsChangedNotification, shared_from_this(),
                                     std::move(userInfo));
}

bool SetRestrictedBool(std::string_view setting, std::optional<bool> value) {
  PreferenceStore::SetValue(setting, value ? Value(*value) : Value(),
                            kRestrictionsPreferenceDomain);
  if (!PreferenceStore::Synchronize(kRestrictionsPreferenceDomain)) return false;
  return notify::Post(kRestrictionsChangedNamedNotification);
}

}  // namespace kx
