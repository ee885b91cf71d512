// Disk and multipath operations.
#include "support/qzvm_support.h"

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, ScanCommands) {
  EXPECT_EQ(m_support->qzvmScanDisks(true), 0);
  EXPECT_EQ(m_support->qzvmScanDisks(false), 0);
  answer(cmd("qzdisk   scandisks  device=sdb,sdc"), 0);
  EXPECT_EQ(m_support->qzvmScanDisks(Lines{"sdb", "sdc"}), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   -f  scandisks  new "), cmd("qzdisk   scandisks "),
                               cmd("qzdisk   scandisks  device=sdb,sdc")}));
  EXPECT_TRUE(wasTraced(3, "Debug: qzvmscandisks -- initializing devices in map"));
}

TEST_F(SupportOpsTest, ScanOfNoDevicesScansAllAndReturnsTheStatus) {
  expectOnce(cmd("qzdisk   scandisks "), 0);
  expectOnce(cmd("qzdisk   scandisks "), 7);
  EXPECT_EQ(m_support->qzvmScanDisks(Lines{}), 0);
  EXPECT_EQ(m_support->qzvmScanDisks(Lines{}), 7);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   scandisks "), cmd("qzdisk   scandisks ")}));
}

const Lines kDmpNode = out({"NAME         STATE        ENCLR-TYPE   PATHS  ENBL  DSBL  ENCLR-NAME",
                            "=====================================================================",
                            "qzarr0_3     ENABLED      QZARR        2      2     0     qzarr0"});

TEST_F(SupportOpsTest, WithoutDmpTheOSNamesAreTheNodes) {
  Lines nodes = {"stale"};
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb", "sdc"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"sdb", "sdc"}));
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - no dmp support available"));
}

TEST_F(SupportOpsTest, GetDmpNodeOfEachDisk) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - getting dmp for os disk. os disk name=sdb"));
}

TEST_F(SupportOpsTest, GetDmpNodeFailures) {
  installDmp();
  Lines nodes;
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0,
         Lines(kDmpNode.begin(), kDmpNode.begin() + 2));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "unable to get dmp node for disk 'sdb' as enabled"));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdc"), 0, out({"only"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdc"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "no output of command."));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdd"), 0, out({"====", "NAME STATE", "x ENABLED"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdd"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "no valid output of command."));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sde"), 1);
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sde"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "unable to get dmp node for disk 'sde'"));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdf"), 0,
         out({"NAME STATE", "=====", "qzarr0_4 DISABLED"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdf"}, nodes), 1);
}

TEST_F(SupportOpsTest, FirstFailingDiskEndsTheLookup) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdc"), 1);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb", "sdc", "sdd"}, nodes), 1);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, WaitedLookupMakesFourAttemptsWithPausesAndScans) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 1);
  answer(cmd("qzdisk   scandisks  device=sdb"), 0);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler_Waited({"sdb"}, nodes), 1);
  EXPECT_EQ(runsOf(cmd("qzdmpadm   getdmpnode  nodename=sdb")), 4u);
  EXPECT_EQ(runsOf(cmd("qzdisk   scandisks  device=sdb")), 4u);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10, 10, 10, 10}));
  EXPECT_TRUE(wasTraced(6, "Obtaining dmp nodes failed. need to retry."));
  EXPECT_TRUE(wasTraced(2, "obtaining dmp nodes failed even after multiple retries."));
}

TEST_F(SupportOpsTest, WaitedLookupSucceedsOnALaterAttempt) {
  installDmp();
  expectOnce(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 1);
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdisk   scandisks  device=sdb"), 0);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler_Waited({"sdb"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10}));
}

const char* const kSubpathsHeader = "NAME    STATE[A]     PATH-TYPE[M]  CTLR-NAME  ENCLR-TYPE";
const char* const kRule = "=================================================================";

TEST_F(SupportOpsTest, SubpathsPreferTheActivePath) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=qzarr0_3"), 0,
         out({kSubpathsHeader, kRule, "sdb     ENABLED      SECONDARY     c1   QZARR",
              "sdf     ENABLED(A)   PRIMARY       c2   QZARR"}));
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdf"}));
  EXPECT_TRUE(
      wasTraced(3,
                "CQzVMSupport::getOSDiskHandleForQzVMDisk - getting os device name for dmp  "
                "dmpname=qzarr0_3"));
  Lines cached;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, cached, false, false), 0);
  EXPECT_EQ(cached, (Lines{"sdf"}));
  EXPECT_EQ(commands().size(), 1u);
  EXPECT_TRUE(wasTraced(3, "Debug : getOSDiskHandleForQzVMDisk returned value from map"));
  Lines fresh;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, fresh, false, true), 0);
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, SubpathsPreferAnEnabledPrimaryThenAnyEnabled) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED SECONDARY", "sdc ENABLED PRIMARY",
              "sdd DISABLED PRIMARY"}));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n2"), 0,
         out({kSubpathsHeader, kRule, "sde DISABLED PRIMARY", "sdg ENABLED SECONDARY",
              "sdh ENABLED SECONDARY"}));
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1", "n2"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdc", "sdg"}));
  // All paths: the primary list, then the enabled list, which holds the
  // primary path too.
  Lines all;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1", "n2"}, all, true, true), 0);
  EXPECT_EQ(all, (Lines{"sdc", "sdb", "sdc", "sdg", "sdh"}));
}

TEST_F(SupportOpsTest, AllPathsAppendActiveThenPrimaryThenEnabledPaths) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED PRIMARY", "sdc ENABLED(A) SECONDARY",
              "sdd ENABLED SECONDARY", "sde DISABLED PRIMARY", "sdf ENABLED(A) PRIMARY"}));
  Lines all;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1"}, all, true, true), 0);
  EXPECT_EQ(all, (Lines{"sdc", "sdf", "sdb", "sdb", "sdd"}));
  // The cache keeps the node's preferred path: its first active one.
  Lines one;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1"}, one, false, false), 0);
  EXPECT_EQ(one, (Lines{"sdc"}));
  EXPECT_EQ(commands().size(), 1u);
}

TEST_F(SupportOpsTest, SubpathsWithoutUsablePathFail) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb DISABLED PRIMARY"}));
  Lines os;
  EXPECT_NE(m_support->getOSDiskHandleForQzVMDisk({"n1"}, os, false, false), 0);
  EXPECT_TRUE(wasTraced(2, "Unable to get enabled disk path for dmp node 'n1'"));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n2"), 3);
  EXPECT_NE(m_support->getOSDiskHandleForQzVMDisk({"n2"}, os, false, false), 0);
  EXPECT_TRUE(wasTraced(2, "Unable to get os disk name for dmp node 'n2'"));
}

TEST_F(SupportOpsTest, WithoutDmpNodesAreTheirOwnPaths) {
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"sdb"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdb"}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::getOSDiskHandleForQzVMDisk - no dmp support available"));
}

TEST_F(SupportOpsTest, EnableAndDisablePaths) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED(A) PRIMARY", "sdc ENABLED SECONDARY"}));
  answer(cmd("qzdmpadm   enable  path=sdb"), 0);
  answer(cmd("qzdmpadm   enable  path=sdc"), 4);
  EXPECT_EQ(m_support->enableDMP("n1"), 0);
  EXPECT_TRUE(wasTraced(3, "Enable of os disk 'sdb' is successful."));
  EXPECT_TRUE(wasTraced(2, "Enable of os disk 'sdc' is failed."));
  EXPECT_TRUE(wasTraced(2, " Error in disabling os disk 'sdc' for qzdmp 'n1'."));
  // The cache now answers with the one preferred path.
  answer(cmd("qzdmpadm   -f  disable  path=sdb"), 4);
  EXPECT_EQ(m_support->disableDMP("n1"), 0);
  EXPECT_EQ(commands().back(), cmd("qzdmpadm   -f  disable  path=sdb"));
  EXPECT_TRUE(wasTraced(2, "Disable of os disk 'sdb' is failed."));
  EXPECT_TRUE(wasTraced(2, "Error in disabling os disk 'sdb' for qzdmp 'n1'."));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n9"), 1);
  EXPECT_EQ(m_support->disableDMP("n9"), 6);
}

TEST_F(SupportOpsTest, DiskSetupRetriesWithForce) {
  answer(tool("qzdisksetup   -i sdb  format=simple"), 1);
  answer(tool("qzdisksetup   -f  -i sdb  format=simple"), 0);
  answer(tool("qzdisksetup   -i sdc  format=simple"), 1);
  answer(tool("qzdisksetup   -f  -i sdc  format=simple"), 1);
  EXPECT_EQ(m_support->qzDiskSetup({"sdb", "sdc", "sdd"}), 1);
  EXPECT_EQ(commands().size(), 4u);
  EXPECT_EQ(m_support->qzDiskSetup({}), 0);
}

TEST_F(SupportOpsTest, DiskUnsetup) {
  answer(tool("qzdiskunsetup   -C sdb"), 0);
  EXPECT_FALSE(m_support->qzDiskUnsetup("sdb"));
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::qzDiskUnsetup - unset the disk to remove qzvm signature. disk='sdb'"));
  EXPECT_TRUE(m_support->qzDiskUnsetup("sdc"));
}

TEST_F(SupportOpsTest, IsCDSDisk) {
  vol_pvt_info simple;
  simple.vpi_format = "simple";
  vol_pvt_info cds;
  cds.vpi_format = "cdsdisk";
  EXPECT_FALSE(m_support->isCDSDisk({simple}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isCDSDisk - No cds disk."));
  EXPECT_TRUE(m_support->isCDSDisk({simple, cds}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isCDSDisk - got cds disk."));
}

TEST_F(SupportOpsTest, SunLabelGoesOnAfterAFailure) {
  answer("/sbin/parted -s /dev/sdb mklabel  sun ", 1, out({"Error: ", "no disk"}));
  answer("/sbin/parted -s /dev/sdc mklabel  sun ", 0);
  EXPECT_EQ(m_support->createSUNLabel({"sdb", "sdc"}), 0);
  EXPECT_EQ(commands(), (Lines{"/sbin/parted -s /dev/sdb mklabel  sun ",
                               "/sbin/parted -s /dev/sdc mklabel  sun "}));
  EXPECT_TRUE(wasTraced(3, "calling command [/sbin/parted -s /dev/sdb mklabel  sun ]."));
  EXPECT_TRUE(wasTraced(1, "Failed to label disk[sdb] with message ==>Error: \nno disk\n."));
}

TEST_F(SupportOpsTest, RemoveDisksGoesOnAfterAFailure) {
  answer(cmd("qzdisk   rm sdb"), 1);
  answer(cmd("qzdisk   rm sdc"), 0);
  EXPECT_EQ(m_support->removeDisksFromQzVM({"sdb", "sdc"}, false), 0);
  EXPECT_EQ(commands().size(), 2u);
  EXPECT_TRUE(wasTraced(2, "removing disk from qzvm db is failed."));
}

TEST_F(SupportOpsTest, RemoveDisksDisablesThePathsOfEachDiskAfterItsRemoval) {
  installDmp();
  answer(cmd("qzdisk   rm n1"), 1);
  answer(cmd("qzdisk   rm n2"), 0);
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED(A) PRIMARY", "sdc ENABLED SECONDARY"}));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n2"), 0,
         out({kSubpathsHeader, kRule, "sdd ENABLED(A) PRIMARY"}));
  answer(cmd("qzdmpadm   -f  disable  path=sdb"), 0);
  answer(cmd("qzdmpadm   -f  disable  path=sdc"), 0);
  answer(cmd("qzdmpadm   -f  disable  path=sdd"), 0);
  EXPECT_EQ(m_support->removeDisksFromQzVM({"n1", "n2"}, true), 0);
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdisk   rm n1"), cmd("qzdmpadm   getsubpaths  dmpnodename=n1"),
                   cmd("qzdmpadm   -f  disable  path=sdb"), cmd("qzdmpadm   -f  disable  path=sdc"),
                   cmd("qzdisk   rm n2"), cmd("qzdmpadm   getsubpaths  dmpnodename=n2"),
                   cmd("qzdmpadm   -f  disable  path=sdd")}));
  EXPECT_TRUE(wasTraced(2, "removing disk from qzvm db is failed."));
}

TEST_F(SupportOpsTest, RefreshDisksRemovesAndRescans) {
  answer(cmd("qzdisk   rm sdb"), 0);
  EXPECT_EQ(m_support->refreshDisks({"sdb"}), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   rm sdb"), cmd("qzdisk   scandisks ")}));
}

TEST_F(SupportOpsTest, DisksInDBOptimizedDoesNotRescan) {
  answer(cmd("qzdisk   list sdb"), 0);
  answer(cmd("qzdisk   list sdc"), 1);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb", "sdc", "sdd"}, true), 1);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   list sdb"), cmd("qzdisk   list sdc")}));
  EXPECT_TRUE(
      wasTraced(2, "qzvm unable to see the snapshotted disks. optimized is set returning."));
  EXPECT_TRUE(m_pauses.empty());
}

TEST_F(SupportOpsTest, DisksInDBShareEightRescansAmongAllDisks) {
  answer(cmd("qzdisk   scandisks "), 0);
  // sdb shows up after two rescans, sdc after three more, sdd never.
  expectOnce(cmd("qzdisk   list sdb"), 1);
  expectOnce(cmd("qzdisk   list sdb"), 1);
  answer(cmd("qzdisk   list sdb"), 0);
  for (int i = 0; i < 3; ++i) {
    expectOnce(cmd("qzdisk   list sdc"), 1);
  }
  answer(cmd("qzdisk   list sdc"), 0);
  answer(cmd("qzdisk   list sdd"), 1);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb", "sdc", "sdd"}, false), 1);
  EXPECT_EQ(runsOf(cmd("qzdisk   scandisks ")), 8u);
  EXPECT_EQ(m_pauses, std::vector<unsigned>(7, 10));  // none before the first rescan
  EXPECT_TRUE(wasTraced(
      2, "after 8 attempts of qzdisk scandisks, qzvm unable to see the snapshotted disks."));
}

TEST_F(SupportOpsTest, DisksInDBFirstRescanComesWithoutPause) {
  answer(cmd("qzdisk   scandisks "), 0);
  expectOnce(cmd("qzdisk   list sdb"), 1);
  answer(cmd("qzdisk   list sdb"), 0);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb"}, false), 0);
  EXPECT_TRUE(m_pauses.empty());
}

TEST_F(SupportOpsTest, IsDiskShared) {
  EXPECT_TRUE(m_support->isDiskShared(out({"type: auto", "flags:   online ready shared"})));
  EXPECT_FALSE(m_support->isDiskShared(out({"flags: online", "shared"})));
}

TEST_F(SupportOpsTest, CheckDisksAgainstGroup) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  bool belongs = false;
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg1"}, {"qzarr0_2"}, belongs), 0);
  EXPECT_TRUE(belongs);
  EXPECT_TRUE(wasTraced(3, " disks belongs to dg."));
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg1"}, {"qzarr0_2", "x"}, belongs), 0);
  EXPECT_FALSE(belongs);
  EXPECT_TRUE(wasTraced(3, " disks not belongs to dg."));
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg9"}, {"x"}, belongs), 6);
}

TEST_F(SupportOpsTest, IsQzVMDiskNeedsAGroupOnTheDisk) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdisk   list sdc"), 0, out({"Device: sdc", "type: auto"}));
  bool answerFlag = false;
  EXPECT_EQ(m_support->isQzVMDisk("sdb", "qzarr0_1", answerFlag, false), 0);
  EXPECT_TRUE(answerFlag);
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isQzVMDisk - 'sdb' is a qzvm disk"));
  EXPECT_EQ(m_support->isQzVMDisk("sdc", "sdc", answerFlag, false), 0);
  EXPECT_FALSE(answerFlag);
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isQzVMDisk - 'sdc' is not a qzvm disk"));
}

TEST_F(SupportOpsTest, IsQzVMDiskCleansUpFirstWhenAsked) {
  expectOnce(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdisk   list qzarr0_1"), 0, out({"Device: qzarr0_1", "group: -"}));
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdg   -C  import 1001.1.hostA"), 0);
  bool answerFlag = true;
  EXPECT_EQ(m_support->isQzVMDisk("sdb", "qzarr0_1", answerFlag, true), 0);
  // The group was dangling: after the clean-up the disk carries none.
  EXPECT_FALSE(answerFlag);
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdisk   list qzarr0_1"), cmd("qzdg   list dg1"), cmd("qzdg   deport dg1"),
                   cmd("qzdg   -C  import 1001.1.hostA"), cmd("qzdisk   list qzarr0_1")}));
  EXPECT_TRUE(wasTraced(3,
                        "Cleaning up the qzvm setup to make sure that we dont see disk as qzvm "
                        "disk just because qzvm has inconsistent information or dangling dg."));
  EXPECT_TRUE(wasTraced(3,
                        "Deporting and importing dg on 'sdb' for making qzvm setup clean. Deport "
                        "may fail if there is mounted fs on dg 'dg1'."));
  EXPECT_TRUE(wasTraced(3, "After cleaning up the setup, now check whether 'sdb' is a qzvm disk"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isQzVMDisk - 'sdb' is not a qzvm disk"));
}

TEST_F(SupportOpsTest, IsQzVMDiskCleansUpOnlyADiskThatNamesAGroup) {
  answer(cmd("qzdisk   list sdc"), 0, out({"Device: sdc", "type: auto"}));
  bool answerFlag = true;
  EXPECT_EQ(m_support->isQzVMDisk("sdc", "sdc", answerFlag, true), 0);
  EXPECT_FALSE(answerFlag);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   list sdc")}));
}

TEST_F(SupportOpsTest, IsQzVMDiskWithoutPrivateRegionFails) {
  answer(cmd("qzdisk   list sdz"), 11);
  bool answerFlag = true;
  EXPECT_EQ(m_support->isQzVMDisk("sdz", "sdz", answerFlag, false), 1);
  EXPECT_FALSE(answerFlag);
  EXPECT_TRUE(wasTraced(
      2, "CQzVMSupport::isQzVMDisk - failed to get volume private data from disks. disk='sdz'"));
}

TEST_F(SupportOpsTest, DMPPathWithoutMultipathingIsLeftAlone) {
  std::string path = "kept";
  EXPECT_EQ(m_support->getDMPPathIfValid("sdb", path), 0);
  EXPECT_EQ(path, "kept");
  EXPECT_TRUE(commands().empty());
}

TEST_F(SupportOpsTest, DMPPathOfAVolumeManagerDisk) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdisk   list qzarr0_3"), 0, kDiskListing);
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdc"), 0,
         out({"NAME STATE", "=====", "qzarr0_4 ENABLED"}));
  answer(cmd("qzdisk   list qzarr0_4"), 0, out({"Device: qzarr0_4", "group: -"}));
  std::string path;
  EXPECT_EQ(m_support->getDMPPathIfValid("sdb", path), 0);
  EXPECT_EQ(path, "/dev/qz/rdmp/qzarr0_3");
  path = "kept";
  EXPECT_EQ(m_support->getDMPPathIfValid("sdc", path), 0);
  EXPECT_EQ(path, "kept");
}

TEST_F(SupportOpsTest, DMPPathFailsWhenTheNodeIsNotFound) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 11);
  std::string path = "kept";
  EXPECT_EQ(m_support->getDMPPathIfValid("sdb", path), 1);
  EXPECT_EQ(path, "kept");
  EXPECT_TRUE(wasTraced(2, "Failed to check existence of qzvm on disk 'sdb'."));
  EXPECT_EQ(commands(), (Lines{cmd("qzdmpadm   getdmpnode  nodename=sdb")}));
}

TEST_F(SupportOpsTest, DMPPathFailsWhenThePrivateRegionCannotBeRead) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdisk   list qzarr0_3"), 11);
  std::string path = "kept";
  EXPECT_EQ(m_support->getDMPPathIfValid("sdb", path), 1);
  EXPECT_EQ(path, "kept");
  EXPECT_TRUE(wasTraced(2, "Failed to check existence of qzvm on disk 'sdb'."));
}

// qzarr0_1 carries dg1 (kDiskListing), which holds vol1 (kPrintV).
class DeleteDiskTest : public SupportOpsTest {
 protected:
  void SetUp() override {
    SupportOpsTest::SetUp();
    answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
    answer(cmd("qzdg   list "), 0, kDgList);
    answer(cmd("qzprint   -g dg1  -v "), 0, kPrintV);
    answer(tool("qzdiskunsetup   -C qzarr0_1"), 0);
    answer(cmd("qzdisk   rm qzarr0_1"), 0);
  }
};

TEST_F(DeleteDiskTest, DestroysTheGroupOfTheDiskThenUnsetsAndRemovesIt) {
  answer(cmd("qzdg   destroy dg1"), 0);
  EXPECT_EQ(m_support->deleteQzVMDisk("qzarr0_1"), 0);
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdisk   list qzarr0_1"), cmd("qzdg   list "), cmd("qzdg   list "),
                   cmd("qzprint   -g dg1  -v "), cmd("qzdg   destroy dg1"),
                   tool("qzdiskunsetup   -C qzarr0_1"), cmd("qzdisk   rm qzarr0_1")}));
  EXPECT_TRUE(wasTraced(3,
                        "CQzVMSupport::deleteQzVMDisk - recreated qzvm dg and volume from given "
                        "disk dgname='dg1'."));
}

TEST_F(DeleteDiskTest, DeportsAGroupThatWillNotBeDestroyed) {
  answer(cmd("qzdg   destroy dg1"), 13);
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  EXPECT_EQ(m_support->deleteQzVMDisk("qzarr0_1"), 0);
  EXPECT_EQ(runsOf(cmd("qzdg   deport dg1")), 1u);
  EXPECT_TRUE(wasTraced(2,
                        "Info : - as destroy of dg 'dg1' failed, trying deporting. This is "
                        "required if dg is dangling."));
  EXPECT_EQ(commands().back(), cmd("qzdisk   rm qzarr0_1"));
}

TEST_F(DeleteDiskTest, FailsWhenTheGroupHoldsNoVolume) {
  answer(cmd("qzprint   -g dg1  -v "), 0, out({"no header", "at all"}));
  EXPECT_EQ(m_support->deleteQzVMDisk("qzarr0_1"), 6);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::regenerateQzVMFromDisk -  found no volumes under dg 'dg1'."));
  EXPECT_EQ(runsOf(cmd("qzdg   destroy dg1")), 0u);
  EXPECT_EQ(runsOf(tool("qzdiskunsetup   -C qzarr0_1")), 0u);
  EXPECT_EQ(runsOf(cmd("qzdisk   rm qzarr0_1")), 0u);
}

TEST_F(DeleteDiskTest, FailsWithoutTheNativeName) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=qzarr0_1"), 11);
  EXPECT_EQ(m_support->deleteQzVMDisk("qzarr0_1"), 6);
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::deleteQzVMDisk -  unable to get native name"));
  EXPECT_EQ(commands(), (Lines{cmd("qzdmpadm   getsubpaths  dmpnodename=qzarr0_1")}));
}

TEST_F(DeleteDiskTest, FailsWhenTheDiskCannotBeUnset) {
  answer(cmd("qzdg   destroy dg1"), 0);
  answer(tool("qzdiskunsetup   -C qzarr0_1"), 1);
  EXPECT_EQ(m_support->deleteQzVMDisk("qzarr0_1"), 6);
  EXPECT_TRUE(wasTraced(1, "unable to unset or delete qzvm disk. disk='qzarr0_1'"));
  EXPECT_EQ(runsOf(cmd("qzdisk   rm qzarr0_1")), 0u);
}

}  // namespace
}  // namespace qzvmfi_support_test
