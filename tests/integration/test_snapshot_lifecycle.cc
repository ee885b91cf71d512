// A new volume over fresh OS disks, found again from the disks alone, then
// removed with its group, its disks and the OS devices.
#include <unistd.h>

#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::SimDisk;
using qzvmfi_it::SimHostTest;

class SnapshotLifecycleTest : public SimHostTest {
 protected:
  void arrange() override {
    admin({"host", "add", "A"});
    m_disks = addDisks(2, "A", 1);
    ASSERT_EQ(m_disks.size(), 2u);
    actAs("A");
  }

  Lines osDisks() const { return {m_disks[0].osNames[0], m_disks[1].osNames[0]}; }
  Lines nodes() const { return {m_disks[0].node, m_disks[1].node}; }

  std::vector<SimDisk> m_disks;
};

TEST_F(SnapshotLifecycleTest, VolumeOnFreshDisksIsFoundAgainAndRemoved) {
  ASSERT_EQ(support().createNewVolumeOnOSDisks("snapdg", "snapvol", osDisks()), 0);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10}));  // the fresh disks needed a scan
  EXPECT_TRUE(support().isVolStarted("snapdg", "snapvol"));
  Lines groupDisks;
  ASSERT_EQ(support().getDisksForDG("snapdg", groupDisks), 0);
  EXPECT_EQ(groupDisks, nodes());
  EXPECT_EQ(runsOf("A", "parted -s /dev/" + osDisks()[0] + " mklabel sun"), 1u);

  // The group is deported, then rebuilt from what its disks carry.
  ASSERT_FALSE(support().deportDG("snapdg"));
  actAs("A");
  std::string dgName, volume;
  ASSERT_EQ(support().regenerateQzVMFromDisk(nodes(), dgName, volume), 0);
  EXPECT_EQ(dgName, "snapdg");
  EXPECT_EQ(volume, "snapvol");
  bool created = false;
  ASSERT_EQ(support().getDGFromQzVMDiskIfRecreated(nodes(), created, dgName), 0);
  EXPECT_TRUE(created);
  bool found = false;
  ASSERT_EQ(
      support().checkForVolPathFromQzVMDiskIfRecreated(nodes(), "snapdg", "snapvol", found, false),
      0);
  EXPECT_TRUE(found);

  ASSERT_EQ(support().removeSnapshot("/dev/qz/dsk/snapdg/snapvol", true), 0);
  // Each write to a delete file took its OS device away at once.
  for (const std::string& os : osDisks()) {
    EXPECT_NE(access(("/sys/block/" + os).c_str(), F_OK), 0) << os;
    EXPECT_NE(access(("/dev/" + os).c_str(), F_OK), 0) << os;
  }
  EXPECT_FALSE(support().isDGPresent("snapdg"));
  // The deleted OS devices are gone from the host: a rescan finds nothing.
  tool("A", "qzdisk scandisks");
  const std::string listing = tool("A", "qzdisk list");
  for (const std::string& node : nodes()) {
    EXPECT_FALSE(holds(listing, node)) << listing;
  }
  EXPECT_EQ(support().removeSnapshot("/dev/qz/dsk/snapdg/snapvol", true), 0);
  EXPECT_TRUE(wasTraced(" snapshot dg 'snapdg' is already removed."));
}

}  // namespace
