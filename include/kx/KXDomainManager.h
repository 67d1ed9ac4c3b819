// The process-wide registry object for search domains.
//
// Creating the shared manager builds the domain-number-to-bundle-identifier
// mapping; before that, no domain has a bundle identifier. Registration of
// application-supplied domains is transient by design: every call builds its
// entries afresh, logs them and lets them go, so nothing is remembered
// between calls and registering or uninstalling has no lasting effect.
#pragma once

#include "kx/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class KX_EXPORT KXDomainManager {
 public:
  // The shared instance, created (with a fresh mapping) when none exists.
  static std::shared_ptr<KXDomainManager> defaultManager();

  // The bundle identifier of `domainNumber`, nullopt when it has none (0,
  // 22, unknown numbers) or before the first `defaultManager`. The string
  // has static storage.
  std::optional<std::string_view> getBundleIdForDomainNumber(uint32_t domainNumber) const;

  void registerApplication(std::string_view displayIdentifier,
                           const std::vector<std::string>& categories);
  void applicationWasUninstalled(std::string_view displayIdentifier);
  void _removeAllDomainsForDisplayIdentifier(std::string_view displayIdentifier);
  // Nothing to tell: the registry keeps no entries.
  void notifyIndexer();
};
