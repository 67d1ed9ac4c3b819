#include "support/date_environment.h"

#include <mutex>

#include "platform/strings/localized_strings.h"

namespace kx {
namespace {

struct EnvironmentSlot {
  std::mutex mutex;
  DateEnvironment environment;
};

EnvironmentSlot& Slot() {
  static EnvironmentSlot* slot = new EnvironmentSlot;  // used until exit
  return *slot;
}

}  // namespace

void SetDateEnvironmentForTesting(DateEnvironment environment) {
  EnvironmentSlot& slot = Slot();
  std::lock_guard lock(slot.mutex);
  slot.environment = std::move(environment);
}

Date CurrentDate() {
  std::function<Date()> now;
  {
    EnvironmentSlot& slot = Slot();
    std::lock_guard lock(slot.mutex);
    now = slot.environment.now;
  }
  return now ? now() : Date::Now();
}

std::unique_ptr<icu::TimeZone> CurrentTimeZone() {
  std::optional<std::string> zone;
  {
    EnvironmentSlot& slot = Slot();
    std::lock_guard lock(slot.mutex);
    zone = slot.environment.timeZone;
  }
  if (zone) return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createTimeZone(zone->c_str()));
  // Detected afresh rather than ICU's default zone, which is fixed at its
  // first use and would never follow a change of TZ.
  return std::unique_ptr<icu::TimeZone>(icu::TimeZone::detectHostTimeZone());
}

icu::Locale FormattingLocale() {
  const std::string name = ICULocaleForPOSIXLocale(LocalizationLocaleName());
  return name == "root" ? icu::Locale::getRoot() : icu::Locale(name.c_str());
}

}  // namespace kx
