// OS disks and multipath nodes mapped both ways on a multipath host; paths
// disabled and enabled again.
#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::SimDisk;
using qzvmfi_it::SimHostTest;

class MultipathTest : public SimHostTest {
 protected:
  // Host A sees two disks through two paths each.
  void arrange() override {
    admin({"host", "add", "A"});
    m_disks = addDisks(2, "A", 2);
    ASSERT_EQ(m_disks.size(), 2u);
    ASSERT_EQ(m_disks[0].osNames.size(), 2u);
    actAs("A");
  }

  Lines primaryPaths() const { return {m_disks[0].osNames[0], m_disks[1].osNames[0]}; }
  Lines nodes() const { return {m_disks[0].node, m_disks[1].node}; }

  std::vector<SimDisk> m_disks;
};

TEST_F(MultipathTest, OSDisksMapToNodesAndBack) {
  support().qzvmScanDisks(false);
  Lines found;
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler(primaryPaths(), found), 0);
  EXPECT_EQ(found, nodes());
  // Either path names the same node.
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler({m_disks[1].osNames[1]}, found), 0);
  EXPECT_EQ(found, Lines{m_disks[1].node});

  Lines osDisks;
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk(nodes(), osDisks, false, false), 0);
  EXPECT_EQ(osDisks, primaryPaths());
  Lines allPaths;
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk(nodes(), allPaths, true, true), 0);
  Lines expected = m_disks[0].osNames;
  expected.insert(expected.end(), m_disks[1].osNames.begin(), m_disks[1].osNames.end());
  EXPECT_EQ(allPaths, expected);
}

TEST_F(MultipathTest, UnscannedDisksAreFoundAfterOnePauseAndRescan) {
  Lines found;
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler_Waited(primaryPaths(), found), 0);
  EXPECT_EQ(found, nodes());
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10}));
  EXPECT_EQ(runsOf("A", "scandisks device=" + primaryPaths()[0] + "," + primaryPaths()[1]), 1u);
}

TEST_F(MultipathTest, HiddenDisksFailAfterFourAttempts) {
  admin({"fault", "hide-scans", "--host", "A", "--count", "10"});
  Lines found;
  EXPECT_NE(support().getQzVMDiskForOSDiskHandler_Waited(primaryPaths(), found), 0);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10, 10, 10, 10}));
  EXPECT_TRUE(wasTraced("obtaining dmp nodes failed even after multiple retries."));
}

TEST_F(MultipathTest, DisabledActivePathGivesWayToTheOther) {
  support().qzvmScanDisks(false);
  const SimDisk& disk = m_disks[0];
  EXPECT_EQ(support().disableOSDisk(disk.osNames[0]), 0);
  Lines osDisks;
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk({disk.node}, osDisks, false, true), 0);
  EXPECT_EQ(osDisks, Lines{disk.osNames[1]});
  EXPECT_EQ(support().enableOSDisk(disk.osNames[0]), 0);
  osDisks.clear();
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk({disk.node}, osDisks, false, true), 0);
  EXPECT_EQ(osDisks, Lines{disk.osNames[0]});
}

TEST_F(MultipathTest, NodeDisabledAndEnabledAsAWhole) {
  support().qzvmScanDisks(false);
  const SimDisk& disk = m_disks[0];
  EXPECT_EQ(support().disableDMP(disk.node), 0);
  EXPECT_TRUE(holds(tool("A", "qzdmpadm getdmpnode dmpnodename=" + disk.node), "DISABLED"));
  Lines found;
  EXPECT_NE(support().getQzVMDiskForOSDiskHandler({disk.osNames[0]}, found), 0);
  EXPECT_TRUE(wasTraced("unable to get dmp node for disk '" + disk.osNames[0] + "' as enabled"));
  Lines osDisks;
  EXPECT_NE(support().getOSDiskHandleForQzVMDisk({disk.node}, osDisks, true, true), 0);

  EXPECT_EQ(support().enableDMP(disk.node), 0);
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler({disk.osNames[1]}, found), 0);
  EXPECT_EQ(found, Lines{disk.node});
  // The node-to-path cache, filled by disableDMP, hands enableDMP the one
  // path it holds: the other path stays disabled.
  osDisks.clear();
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk({disk.node}, osDisks, true, true), 0);
  EXPECT_EQ(osDisks, Lines{disk.osNames[0]});
}

// Without a cached path a node is resolved from its enabled paths only, so a
// node with none left cannot be enabled as a whole; its paths still can.
TEST_F(MultipathTest, FullyDisabledNodeIsEnabledPathByPathWithoutTheCache) {
  support().qzvmScanDisks(false);
  const SimDisk& disk = m_disks[0];
  EXPECT_EQ(support().disableDMP(disk.node), 0);
  actAs("A");
  EXPECT_EQ(support().enableDMP(disk.node), 6);
  for (const std::string& path : disk.osNames) {
    EXPECT_EQ(support().enableOSDisk(path), 0);
  }
  Lines osDisks;
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk({disk.node}, osDisks, true, true), 0);
  EXPECT_EQ(osDisks, disk.osNames);
}

TEST_F(MultipathTest, VolumeManagerDiskHasARawMultipathPath) {
  support().qzvmScanDisks(false);
  ASSERT_EQ(support().qzDiskSetup({m_disks[0].node}), 0);
  ASSERT_EQ(support().createDG("dg1", {m_disks[0].node}, mediaNames("dg1", 1), false), 0);
  std::string path;
  ASSERT_EQ(support().getDMPPathIfValid(m_disks[0].osNames[0], path), 0);
  EXPECT_EQ(path, "/dev/qz/rdmp/" + m_disks[0].node);
  bool isQzVM = true;
  ASSERT_EQ(support().isQzVMDisk(m_disks[1].osNames[0], m_disks[1].node, isQzVM, false), 0);
  EXPECT_FALSE(isQzVM);
}

TEST_F(MultipathTest, HostWithoutMultipathingUsesTheOSNames) {
  admin({"host", "add", "B", "--no-dmp"});
  const std::vector<SimDisk> disks = addDisks(1, "B", 1);
  actAs("B");
  Lines found;
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler(disks[0].osNames, found), 0);
  EXPECT_EQ(found, disks[0].osNames);
  Lines osDisks;
  ASSERT_EQ(support().getOSDiskHandleForQzVMDisk(found, osDisks, false, false), 0);
  EXPECT_EQ(osDisks, disks[0].osNames);
}

}  // namespace
