// Restriction settings: what the device's administrator or parental
// controls allow. The library only reads them; an application can replace
// the service (e.g. with one bound to its management agent).
//
// The default service reads the preference domain "com.orvex.restrictions"
// (a key per setting: a boolean, or the number 1 for "explicitly yes" and 2
// for "explicitly no") and watches the system-wide named notification
// "com.orvex.restrictions.changed", which `SetRestrictedBool` posts.
//
// When the effective settings change, a service calls its observers on the
// thread that noticed the change (a pool thread for the default service),
// then posts `kRestrictionsChangedNotification` on the default application
// notification centre with the service as the object.
#pragma once

#include "kx/export.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kx/value.h"

namespace kx {

// Effective value of a boolean setting.
enum class RestrictedBool : int { NotSet = 0, ExplicitYes = 1, ExplicitNo = 2 };

inline constexpr char kRestrictionsChangedNotification[] =
    "KXRestrictionsEffectiveSettingsChangedNotification";
inline constexpr char kRestrictionsPreferenceDomain[] = "com.orvex.restrictions";
inline constexpr char kRestrictionsChangedNamedNotification[] = "com.orvex.restrictions.changed";
// Whether the web browser may be used (search-through rows open it).
inline constexpr char kAllowWebBrowserSetting[] = "allowWebBrowser";

class KX_EXPORT RestrictionSettings : public std::enable_shared_from_this<RestrictionSettings> {
 public:
  class Observer {
   public:
    virtual ~Observer() = default;
    virtual void restrictionSettingsDidChange(RestrictionSettings& settings,
                                              const std::optional<Dictionary>& userInfo) = 0;
  };

  // The process's service: the default one unless replaced.
  static std::shared_ptr<RestrictionSettings> Shared();
  // Replaces the service; null restores the default.
  static void SetShared(std::shared_ptr<RestrictionSettings> settings);

  virtual ~RestrictionSettings() = default;
  virtual RestrictedBool effectiveBoolValue(std::string_view setting) = 0;
  // The raw effective value of any setting; nil when not set.
  virtual Value effectiveValue(std::string_view setting) = 0;
  // Allowed unless explicitly forbidden.
  bool isFeatureAllowed(std::string_view setting) {
    return effectiveBoolValue(setting) != RestrictedBool::ExplicitNo;
  }

  // Observers are held weakly; one that has gone is skipped and forgotten.
  void addObserver(const std::shared_ptr<Observer>& observer);
  void removeObserver(const Observer* observer);

 protected:
  // Tells observers and posts kRestrictionsChangedNotification.
  void settingsChanged(std::optional<Dictionary> userInfo = std::nullopt);

 private:
  std::mutex mu_;
  std::vector<std::weak_ptr<Observer>> observers_;
};

// Writes a boolean setting of the default service (absent removes it) and
// tells every process. Returns false when the preference could not be
// written.
KX_EXPORT bool SetRestrictedBool(std::string_view setting, std::optional<bool> value);

}  // namespace kx
