#include "kx/KXDomainManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

TEST(KXDomainManagerTest, NoBundleIdentifiersBeforeTheSharedManagerExists) {
  // In a fresh process: the mapping is built by the first defaultManager.
  EXPECT_EXIT(
      {
        KXDomainManager unshared;
        const bool before = unshared.getBundleIdForDomainNumber(3).has_value();
        KXDomainManager::defaultManager();
        const bool after = unshared.getBundleIdForDomainNumber(3) == "com.orvex.mail";
        std::exit(!before && after ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(KXDomainManagerTest, MapsDomainNumbersToBundleIdentifiers) {
  auto manager = KXDomainManager::defaultManager();
  EXPECT_EQ(manager, KXDomainManager::defaultManager());
  EXPECT_EQ(manager->getBundleIdForDomainNumber(26), "com.orvex.messages");
  EXPECT_EQ(manager->getBundleIdForDomainNumber(18), "com.orvex.browser");
  EXPECT_EQ(manager->getBundleIdForDomainNumber(20), "com.orvex.psuedocontact");
  EXPECT_EQ(manager->getBundleIdForDomainNumber(0), std::nullopt);
  EXPECT_EQ(manager->getBundleIdForDomainNumber(22), std::nullopt);
  EXPECT_EQ(manager->getBundleIdForDomainNumber(27), std::nullopt);
  int mapped = 0;
  for (uint32_t domain = 0; domain < 27; ++domain)
    mapped += manager->getBundleIdForDomainNumber(domain).has_value();
  EXPECT_EQ(mapped, 25);
}

TEST(KXDomainManagerTest, ConcurrentFirstUseAlwaysAnswers) {
  std::vector<std::thread> threads;
  std::atomic<int> answered{0};
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int j = 0; j < 200; ++j)
        answered += KXDomainManager::defaultManager()->getBundleIdForDomainNumber(16) ==
                    "com.orvex.vantle";
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(answered.load(), 800);
}

}  // namespace
