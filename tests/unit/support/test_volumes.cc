// Volume and volume-set operations.
#include "support/qzvm_support.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, ExtractDGAndVol) {
  std::string dg;
  std::string vol;
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1", dg, vol);
  EXPECT_EQ(dg, "dg1");
  EXPECT_EQ(vol, "vol1");
  EXPECT_TRUE(
      wasTraced(6, "CQzVMSupport::extractDGAndVol DBG - Extracted DG = [dg1] Volume = [vol1]"));
  m_support->extractDGAndVol("dev/qz/dsk/dg2/vol2", dg, vol);
  EXPECT_EQ(dg, "dg2");
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1/x", dg, vol);
  EXPECT_EQ(dg, "");
  EXPECT_EQ(vol, "");
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::extractDGAndVol ERROR - invalid volume path "
                        "[/dev/qz/dsk/dg1/vol1/x]"));
  m_support->extractDGAndVol("/dev//qz/dsk/dg3/vol3 \n", dg, vol);
  EXPECT_EQ(dg, "dg3");  // empty pieces inside are dropped, the ends trimmed
  EXPECT_EQ(vol, "vol3");
}

TEST_F(SupportOpsTest, ExtractDGAndVolRefusesATrailingSlash) {
  std::string dg = "x";
  std::string vol = "y";
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1/", dg, vol);
  EXPECT_EQ(dg, "");
  EXPECT_EQ(vol, "");
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::extractDGAndVol ERROR - invalid volume path "
                        "[/dev/qz/dsk/dg1/vol1/]"));
  dg = "x";
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1/\n", dg, vol);
  EXPECT_EQ(dg, "");
}

TEST_F(SupportOpsTest, VolumeCommandLines) {
  answer(cmd("qzvol   -g dg1 -U fsgen start vol1"), 0);
  answer(cmd("qzvol   -g dg1 start vol2"), 1);
  answer(cmd("qzvol   -g dg1 stop vol1"), 0);
  answer(cmd("qzassist  -g dg1  make  vol1 2048"), 0);
  EXPECT_EQ(m_support->onlineVolume("dg1", "vol1", "fsgen"), 0);
  EXPECT_EQ(m_support->onlineVolume("dg1", "vol2", ""), 1);
  EXPECT_TRUE(wasTraced(2, " Unable to online dg 'dg1' and volume 'vol2'"));
  EXPECT_EQ(m_support->onOffVolume("dg1", "vol1", " stop "), 0);
  EXPECT_EQ(m_support->createVolume("vol1", "dg1", 2048), 0);
  EXPECT_EQ(m_support->applyVolConfig("dg1", "/tmp/f"), 1);
  EXPECT_EQ(commands().back(), cmd("qzmake   -g dg1 -d /tmp/f"));
}

TEST_F(SupportOpsTest, IsVolStarted) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1     fsgen    Started"}));
  answer(cmd("qzinfo   -g dg1 vol2"), 0, out({"vol2     fsgen    Startable"}));
  answer(cmd("qzinfo   -g dg1 vol3"), 0);
  answer(cmd("qzinfo   -g dg1 vol4"), 2);
  EXPECT_TRUE(m_support->isVolStarted("dg1", "vol1"));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::isVolStarted - volume is already started. dg=dg1 volume=vol1"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol2"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol3"));
  EXPECT_TRUE(wasTraced(2, "command successful but no output. dg=dg1 volume=vol3"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol4"));
  EXPECT_TRUE(wasTraced(2, "command failed. dg=dg1 volume=vol4"));
}

TEST_F(SupportOpsTest, IsVolume) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1     fsgen    Started"}));
  EXPECT_TRUE(m_support->isVolume("/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isVolume - Volume Exist"));
  EXPECT_FALSE(m_support->isVolume("/dev/qz/dsk/dg1/vol9"));
  EXPECT_TRUE(wasTraced(2, "Volume does NOT Exist. volume=vol9"));
}

TEST_F(SupportOpsTest, BusyVolumeFreedOnTheThirdRetry) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  for (int i = 0; i < 3; ++i) {
    expectOnce(stop, 31, out({"QZVM qzvol ERROR Q-5-1-15 Volume vol1 is busy"}));
  }
  answer(stop, 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1", nullptr), 0);
  EXPECT_EQ(runsOf(stop), 4u);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{1, 1, 1}));
  EXPECT_TRUE(wasTraced(2, "Retrying as the volume vol1 is busy."));
  EXPECT_TRUE(wasTraced(2, "Offline retry [3/8]"));
}

TEST_F(SupportOpsTest, BusyVolumeThatNeverFreesFailsAfterEightRetries) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  answer(stop, 31);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(runsOf(stop), 9u);
  EXPECT_EQ(m_pauses, std::vector<unsigned>(8, 1));
  EXPECT_TRUE(wasTraced(2, "Offline retry [8/8]"));
  EXPECT_EQ(runsOf(cmd("qzdg   flush dg1")), 0u);
}

TEST_F(SupportOpsTest, StopFailureNamingTheDaemonErrorFlushesOnce) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  expectOnce(stop, 1, out({"QZVM qzvol ERROR ", "Q-5-1-10128 stale configuration"}));
  answer(stop, 1);
  answer(cmd("qzdg   flush dg1"), 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(commands(), (Lines{stop, cmd("qzdg   flush dg1"), stop}));
  EXPECT_TRUE(m_pauses.empty());
  EXPECT_TRUE(wasTraced(2, "qzvol stop failed for [vol1], trying dg flush"));
}

TEST_F(SupportOpsTest, StopFailureWithError441FlushesAndSucceeds) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  expectOnce(stop, 1, out({"Configuration daemon error 441"}));
  answer(stop, 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 0);
  EXPECT_EQ(runsOf(cmd("qzdg   flush dg1")), 1u);
}

TEST_F(SupportOpsTest, OtherStopFailuresAreFinal) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  answer(stop, 1, out({"QZVM qzvol ERROR Q-5-1-2 other"}));
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(commands(), (Lines{stop}));
}

TEST_F(SupportOpsTest, StopAndStartVolumeLists) {
  answer(cmd("qzinfo   -g dg1 a"), 0, out({"a gen Started"}));
  answer(cmd("qzinfo   -g dg1 b"), 0, out({"b gen Startable"}));
  answer(cmd("qzvol   -g dg1 stop a"), 2);
  EXPECT_EQ(m_support->stopDCOVols("dg1", {"b", "a"}), 6);
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::stopDCOVols - offline of volume failed."));
  answer(cmd("qzvol   -g dg1 -U gen start b"), 0);
  EXPECT_EQ(m_support->startDCOVols("dg1", {"a", "b"}, "gen"), 0);
  EXPECT_EQ(runsOf(cmd("qzvol   -g dg1 -U gen start b")), 1u);
  answer(cmd("qzvol   -g dg1 -U gen start b"), 3);
  EXPECT_EQ(m_support->startDCOVols("dg1", {"b"}, "gen"), 6);
  EXPECT_TRUE(wasTraced(2, "failed to start volume."));
}

TEST_F(SupportOpsTest, GetVolumesFromDG) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzprint   -g dg1  -v "), 0, kPrintV);
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, false), 0);
  EXPECT_EQ(names, (Lines{"vol1", "vol1_dcl", "vset1", "vol1-01"}));
  bool found = false;
  EXPECT_EQ(m_support->checkVolumeInDG("dg1", "vol1_dcl", found, false), 0);
  EXPECT_TRUE(found);
  EXPECT_TRUE(wasTraced(3, "Check for volume/vset 'vol1_dcl' in dg 'dg1' is successful."));
  EXPECT_EQ(m_support->checkVolumeInDG("dg1", "vol", found, false), 0);
  EXPECT_FALSE(found);
  EXPECT_TRUE(wasTraced(3, "Check for volume/vset 'vol' in dg 'dg1' is failed.."));
}

TEST_F(SupportOpsTest, GetVolumesFromDGHeaderRules) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzprint   -g dg1  -x "), 0, out({"junk", "TY NAME", "vt vset1"}));
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, true), 1);
  EXPECT_TRUE(wasTraced(2, "invalid output of command."));
  answer(cmd("qzprint   -g dg1  -v "), 0, out({"no header", "at all"}));
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, false), 0);
  EXPECT_TRUE(names.empty());
  std::vector<std::string> vsets, vols, dcos;
  answer(cmd("qzprint   -g dg1  vol1"), 0, out({"junk", "TY NAME", "v vol1 fsgen"}));
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", "vol1"), 1);
  answer(cmd("qzprint   -g dg1"), 0, out({"no header", "at all"}));
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", ""), 0);
  EXPECT_TRUE(vols.empty());
}

TEST_F(SupportOpsTest, GetVolumesFromDGEnablesADisabledGroupFirst) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzdg   list dg2"), 0);
  answer(cmd("qzdg   deport dg2"), 7);
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg2", names, false), 1);
  EXPECT_TRUE(wasTraced(2, "failed to enable diskgroup dg2"));
}

TEST_F(SupportOpsTest, GetQzVMObjectsSortsRecords) {
  answer(cmd("qzprint   -g dg1  vol1"), 0, kPrintV);
  std::vector<std::string> vsets, vols, dcos;
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", "vol1"), 0);
  EXPECT_EQ(vols, (Lines{"vol1"}));
  EXPECT_EQ(dcos, (Lines{"vol1_dcl"}));
  EXPECT_EQ(vsets, (Lines{"vset1"}));
  EXPECT_TRUE(wasTraced(3, "Getting qzvm vset, vol, dco for dg [dg1] and volume [vol1]"));
}

TEST_F(SupportOpsTest, VSetQueries) {
  answer(cmd("qzprint   -g dg1"), 0, kPrintV);
  EXPECT_TRUE(m_support->isVSet("/dev/qz/dsk/dg1/vset1"));
  EXPECT_FALSE(m_support->isVSet("/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isVSet - vset does NOT Exist"));
  answer(cmd("qzprint   -g dg1 vset1"), 0, out({"TY NAME ASSOC KSTATE", "vt vset1 - DISABLED"}));
  bool on = true;
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset1", on), 0);
  EXPECT_FALSE(on);
  EXPECT_TRUE(wasTraced(3, "found vset 'vset1' as 'DISABLED'."));
  answer(cmd("qzprint   -g dg1 vset2"), 0, out({"TY NAME ASSOC KSTATE"}));
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset2", on), 6);
  EXPECT_TRUE(
      wasTraced(3, " Not valid format of command '" + cmd("qzprint   -g dg1 vset2") + "'."));
  answer(cmd("qzprint   -g dg1 vset3"), 4);
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset3", on), 6);
  EXPECT_TRUE(wasTraced(2, "Unable to check state of vset 'vset3'."));
}

TEST_F(SupportOpsTest, VerifySubObjectsNeedsTheSameOrder) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  bool same = false;
  EXPECT_EQ(m_support->verifySubObjects("dg1", "vol1", {"qzarr0_1", "qzarr0_2"}, false, same), 0);
  EXPECT_TRUE(same);
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::verifySubObjects - successful."));
  EXPECT_EQ(m_support->verifySubObjects("dg1", "vol1", {"qzarr0_2", "qzarr0_1"}, false, same), 0);
  EXPECT_FALSE(same);
}

TEST_F(SupportOpsTest, SsodOnlineVolumeImportsStartsAndVerifies) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1 fsgen Startable"}));
  answer(cmd("qzdg   list dg1"), 11);
  answer(cmd("qzdg   -C  -n dg1 import dg1"), 0);
  answer(cmd("qzvol   -g dg1 start vol1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  EXPECT_EQ(m_support->ssodOnlineVolume("dg1", "vol1", {"qzarr0_2", "qzarr0_1"}), 3);
  EXPECT_TRUE(
      wasTraced(1,
                "CQzVMSupport::ssodOnlineVolume -  there is mismatch in disks under volume or "
                "dg. verification of subobjects(  disks ) under volume 'vol1' and  dg 'dg1' "
                "failed."));
  EXPECT_EQ(m_support->ssodOnlineVolume("dg1", "vol1", {"qzarr0_1", "qzarr0_2"}), 0);
}

// The group's listing fails otherwise than "not found": the group is taken
// for present and not imported, and the start that follows runs for real;
// its failure is the operation's.
TEST_F(SupportOpsTest, SsodOnlineVolumeStartsTheVolumeWhenTheGroupListingFails) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1 fsgen Startable"}));
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzvol   -g dg1 start vol1"), 20);
  EXPECT_EQ(m_support->ssodOnlineVolume("dg1", "vol1", {"qzarr0_1", "qzarr0_2"}), 6);
  EXPECT_EQ(runsOf(cmd("qzvol   -g dg1 start vol1")), 1u);
  EXPECT_EQ(runsOf(cmd("qzdg   -C  -n dg1 import dg1")), 0u);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::ssodOnlineVolume - unable to start volumes under dg 'dg1'."));
}

TEST_F(SupportOpsTest, CreateNewVolumeOnOSDisks) {
  answer(cmd("qzdisk   rm sdb1"), 0);
  answer("/sbin/parted -s /dev/sdb mklabel  sun ", 0);
  answer(tool("qzdisksetup   -i sdb1  format=simple"), 0);
  answer(cmd("qzdg   init dgx sdb1"), 0);
  answer(cmd("qzassist  -g dgx  -p  maxsize "), 0, out({"4096"}));
  answer(cmd("qzassist  -g dgx  make  volx 4096"), 0);
  EXPECT_EQ(m_support->createNewVolumeOnOSDisks("dgx", "volx", {"sdb1"}), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   rm sdb1"), "/sbin/parted -s /dev/sdb mklabel  sun ",
                               tool("qzdisksetup   -i sdb1  format=simple"),
                               cmd("qzdg   init dgx sdb1"), cmd("qzassist  -g dgx  -p  maxsize "),
                               cmd("qzassist  -g dgx  make  volx 4096")}));
}

TEST_F(SupportOpsTest, RemoveSnapshotWithoutDestroyFlagDoesNotLookFirst) {
  answer(cmd("qzdisk   -g dg1  list "), 1);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", false), 6);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   -g dg1  list ")}));
  answer(cmd("qzdg   list dg2"), 11);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg2/vol1", true), 0);
  EXPECT_TRUE(wasTraced(3, " snapshot dg 'dg2' is already removed."));
}

TEST_F(SupportOpsTest, RemoveSnapshotDestroysRemovesAndDeletesDevices) {
  for (const char* name : {"qzarr0_1", "qzarr0_2"}) {
    std::filesystem::create_directories(m_folder + "/sys/block/" + name + "/device");
  }
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   destroy dg1"), 0);
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", true), 0);
  EXPECT_EQ(readFile(m_folder + "/sys/block/qzarr0_2/device/delete"), "1");
}

// A group listing that fails otherwise than "not found" takes the group for
// present: its disks are listed for real, and their failure is the removal's.
TEST_F(SupportOpsTest, RemoveSnapshotOfAGroupWhoseListingFailsOtherwiseFails) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdisk   -g dg1  list "), 20);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", true), 6);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list ")}));
  EXPECT_FALSE(wasTraced(3, " snapshot dg 'dg1' is already removed."));
}

TEST_F(SupportOpsTest, RemoveSnapshotOfAGroupWhoseListingFailsOtherwiseDestroysIt) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   destroy dg1"), 20);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", true), 6);
  EXPECT_EQ(runsOf(cmd("qzdg   destroy dg1")), 1u);
  EXPECT_EQ(runsOf(cmd("qzdisk   rm qzarr0_1")), 0u);
}

}  // namespace
}  // namespace qzvmfi_support_test
