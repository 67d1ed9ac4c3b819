#include "platform/process/device_kind.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace kx {
namespace {

TEST(DeviceKindTest, ChassisFromMachineInfoHonoursShellQuotingAndComments) {
  EXPECT_EQ(ChassisFromMachineInfo("PRETTY_HOSTNAME=\"Pocket\"\nCHASSIS=handset\n"), "handset");
  EXPECT_EQ(ChassisFromMachineInfo("# CHASSIS=tablet\n  CHASSIS = \"tablet\"  \n"), "tablet");
  EXPECT_EQ(ChassisFromMachineInfo("CHASSIS='tab''let'"), "tablet");
  EXPECT_EQ(ChassisFromMachineInfo("CHASSIS=laptop\nCHASSIS=tablet"), "tablet");
  EXPECT_EQ(ChassisFromMachineInfo("DEPLOYMENT=production\nCHASSISX=tablet\n"), "");
}

TEST(DeviceKindTest, EnvironmentOverrideIsReadOnEveryCall) {
  setenv("KX_DEVICE_KIND", "tablet", 1);
  EXPECT_EQ(CurrentDeviceKind(), DeviceKind::Tablet);
  setenv("KX_DEVICE_KIND", "handset", 1);
  EXPECT_EQ(CurrentDeviceKind(), DeviceKind::Phone);
  setenv("KX_DEVICE_KIND", "convertible", 1);
  EXPECT_EQ(CurrentDeviceKind(), DeviceKind::Other);
  unsetenv("KX_DEVICE_KIND");
}

}  // namespace
}  // namespace kx
