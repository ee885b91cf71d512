// Installation probes and device names.
#include "support/qzvm_support.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, ProbesTestTheToolFilesWithoutTheirBlanks) {
  EXPECT_FALSE(m_support->isQzDMPInstalled());
  EXPECT_FALSE(m_support->isVSetAvailable());
  EXPECT_FALSE(m_support->isCDSSupported());
  installDmp();
  install(m_bin + "qzvset");
  install(m_lib + "qzcdsconvert");
  EXPECT_TRUE(m_support->isQzDMPInstalled());
  EXPECT_TRUE(m_support->isVSetAvailable());
  EXPECT_TRUE(m_support->isCDSSupported());
  EXPECT_TRUE(m_support->isCommandAvailable(m_bin, "qzdmpadm  "));
  EXPECT_TRUE(commands().empty());
}

TEST_F(SupportOpsTest, ProbeOfANonExecutableFileIsFalse) {
  std::ofstream(m_bin + "qzvset") << "x";
  EXPECT_FALSE(m_support->isVSetAvailable());
}

TEST_F(SupportOpsTest, RemovePartitionSuffix) {
  Lines devices = {"emcpowerb12", "sdb", "hda1", "sdc3", "emcpowera1"};
  EXPECT_EQ(m_support->removePartitionSuffix(devices), 0);
  EXPECT_EQ(devices, (Lines{"emcpowerb", "sdb", "hda1", "sdc", "emcpowera"}));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix  First - deviceName = emcpowerb12"));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix - deviceName = sdc3"));
  EXPECT_TRUE(wasTraced(3, "found digit 3."));
  EXPECT_TRUE(wasTraced(3, "PartitionSuffix = 3."));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix - After partition removal deviceName = sdc"));
  Lines none;
  EXPECT_EQ(m_support->removePartitionSuffix(none), 0);
}

TEST_F(SupportOpsTest, RegionAndPathPredicates) {
  EXPECT_TRUE(m_support->isRegion("dm disk01", "dm"));
  EXPECT_TRUE(m_support->isRegion("dm\tdisk01", "dm"));
  EXPECT_FALSE(m_support->isRegion("dmx", "dm"));
  EXPECT_FALSE(m_support->isRegion("dm", "dm"));
  EXPECT_TRUE(m_support->isDM("dm disk01"));
  EXPECT_TRUE(m_support->isDG("dg dg1"));
  EXPECT_FALSE(m_support->isDG("dm dg1"));
  EXPECT_TRUE(m_support->isValidZOLKPath("/dev/qz/dskx"));
  EXPECT_TRUE(m_support->isValidZOLKPath("/dev/qz/rdsk/a/b"));
  EXPECT_FALSE(m_support->isValidZOLKPath("/dev/sda"));
  EXPECT_TRUE(m_support->isVolumeRaw("/dev/qz/rdsk/a/b"));
  EXPECT_FALSE(m_support->isVolumeRaw("/dev/qz/dsk/a/b"));
  EXPECT_TRUE(m_support->isGuid("   guid={1234}\n"));
  EXPECT_FALSE(m_support->isGuid("name=guid="));
  EXPECT_FALSE(m_support->isVolOrPlexOrSubdiskOrDCO("volume vol1"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("vol\tvol1"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("plex vol1-01"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("sd disk01-01"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("dco vol1_dco"));
  EXPECT_FALSE(m_support->isVolOrPlexOrSubdiskOrDCO("dm disk01"));
}

TEST_F(SupportOpsTest, RemoveDevicesStopsAtTheFirstMissingControlFile) {
  for (const char* name : {"sdb", "sdd"}) {
    std::filesystem::create_directories(m_folder + "/sys/block/" + name + "/device");
  }
  m_support->removeDevicesFromOSDeviceTree({"sdb", "sdc", "sdd"});
  EXPECT_EQ(readFile(m_folder + "/sys/block/sdb/device/delete"), "1");
  EXPECT_EQ(readFile(m_folder + "/sys/block/sdd/device/delete"), "");
  EXPECT_TRUE(wasTraced(3, "INFO: removing: /sys/block/sdb/device/delete"));
  EXPECT_TRUE(wasTraced(
      2, "WARNING: removeDevicesFromOSDeviceTree failed to open /sys/block/sdc/device/delete"));
}

TEST_F(SupportOpsTest, CleanupOtherLVMOnDiskRunsNothing) {
  EXPECT_EQ(m_support->cleanupOtherLVMOnDisk({"sdb", "sdc"}), 0);
  EXPECT_TRUE(commands().empty());
}

}  // namespace
}  // namespace qzvmfi_support_test
