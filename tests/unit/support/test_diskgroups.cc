// Disk-group operations.
#include "support/qzvm_support.h"

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, IsDGPresentListsTheGroup) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   list dg9"), 11, out({"QZVM qzdg ERROR Q-5-1-582 Disk group dg9: not found"}));
  EXPECT_TRUE(m_support->isDGPresent("dg1"));
  EXPECT_FALSE(m_support->isDGPresent("dg9"));
}

// Only "not found" says that the group is not here: a listing that failed
// otherwise leaves it taken for present.
TEST_F(SupportOpsTest, IsDGPresentUnlessTheListingSaysNotFound) {
  answer(cmd("qzdg   list dg1"), 9,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdg   list dg2"), 1);
  EXPECT_TRUE(m_support->isDGPresent("dg1"));
  EXPECT_TRUE(m_support->isDGPresent("dg2"));
}

TEST_F(SupportOpsTest, IsDGEnabledReadsTheStateColumn) {
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_TRUE(m_support->isDGEnabled("dg1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - Found dg online 'dg1'."));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::isDGEnabled - Found state [enabled] for diskgroup 'dg1'."));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - diskgroup 'dg1' is in enabled state."));
  EXPECT_FALSE(m_support->isDGEnabled("dg2"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - diskgroup 'dg2' is in disabled state."));
  EXPECT_FALSE(m_support->isDGEnabled("dg3"));
}

TEST_F(SupportOpsTest, IsDGEnabledIsFalseWhenTheListFails) {
  answer(cmd("qzdg   list "), 5, out({"a", "b"}));
  EXPECT_FALSE(m_support->isDGEnabled("dg1"));
  EXPECT_TRUE(
      wasTraced(5, "CQzVMSupport::isDGEnabled - CLI failed with output \n[---\n'a\nb\n'\n---]."));
}

TEST_F(SupportOpsTest, GetAllDGNamesTakesTheFirstColumnAfterTheHeader) {
  answer(cmd("qzdg   list "), 0, kDgList);
  Lines names;
  EXPECT_EQ(m_support->getAllDGNames(names), 0);
  EXPECT_EQ(names, (Lines{"dg1", "dg2"}));
}

TEST_F(SupportOpsTest, GetNewDGNameCountsFromTheProcessId) {
  long pid = getpid();
  std::string taken = "dg_" + std::to_string(pid);
  answer(cmd("qzdg   list "), 0, out({"NAME STATE ID", (taken + " enabled 1.1").c_str()}));
  std::string name;
  m_support->getNewDGName("dg", name);
  EXPECT_EQ(name, "dg_" + std::to_string(pid + 1));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::getNewDGName - created new unique dg name '" + name + "'."));
}

// "qzdg list" with the groups dg_<pid>, dg_<pid + 1>, ... (count of them).
Lines groupsFromThePid(long count) {
  Lines listing = out({"NAME STATE ID"});
  for (long i = 0; i < count; ++i) {
    listing.push_back("dg_" + std::to_string(getpid() + i) + " enabled 1.1\n");
  }
  return listing;
}

TEST_F(SupportOpsTest, GetNewDGNameTriesExactly1024Candidates) {
  // The 1024th candidate is the last one tried ...
  expectOnce(cmd("qzdg   list "), 0, groupsFromThePid(1023));
  std::string name;
  m_support->getNewDGName("dg", name);
  EXPECT_EQ(name, "dg_" + std::to_string(getpid() + 1023));
  // ... and when it is taken too, nothing is found.
  expectOnce(cmd("qzdg   list "), 0, groupsFromThePid(1024));
  name = "unchanged";
  m_support->getNewDGName("dg", name);
  EXPECT_EQ(name, "unchanged");
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::getNewDGName - unable to create new unique dg name."));
}

TEST_F(SupportOpsTest, GetNewDGNameWithoutBaseDrawsARandomOne) {
  answer(cmd("qzdg   list "), 0, out({"NAME STATE ID"}));
  std::string name;
  EXPECT_EQ(m_support->getNewDGName(name), 0);
  // "tpu_fi", six random letters or digits, "_" and the first free number.
  const std::string suffix = '_' + std::to_string(getpid());
  ASSERT_EQ(name.size(), 12 + suffix.size()) << name;
  EXPECT_EQ(name.compare(0, 6, "tpu_fi"), 0) << name;
  EXPECT_EQ(name.compare(12, std::string::npos, suffix), 0) << name;
  EXPECT_EQ(qzvmNameFault(name), nullptr) << name;
  std::string other;
  m_support->getNewDGName(other);
  EXPECT_NE(name, other);
  EXPECT_TRUE(CFiMyTempFile().files().empty()) << "no file is made for a name";
}

TEST_F(SupportOpsTest, IsDGExistComparesTheFreeNameWithTheGroup) {
  long pid = getpid();
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_TRUE(m_support->isDGExist("dg1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGExist - dg 'dg1' exists."));
  // The free name carries a suffix, so it never equals the group: the test
  // as designed answers "exists" unless cutting makes them equal.
  std::string longName(31, 'a');
  EXPECT_TRUE(m_support->isDGExist(longName));
  (void)pid;
}

TEST_F(SupportOpsTest, CreateDGWithoutCdsTool) {
  answer(cmd("qzdg   init dg1 sdb"), 0);
  answer(cmd("qzdg   -g dg1 adddisk sdc"), 0);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc"}, true), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   init dg1 sdb"), cmd("qzdg   -g dg1 adddisk sdc")}));
}

TEST_F(SupportOpsTest, CreateDGWithCdsToolAndMediaNames) {
  install(m_lib + "qzcdsconvert");
  answer(cmd("qzdg   init dg1 disk01=sdb  cds=off"), 0);
  answer(cmd("qzdg   -g dg1 adddisk  disk02=sdc"), 0);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc"}, {"disk01", "disk02"}, false), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   init dg1 disk01=sdb  cds=off"),
                               cmd("qzdg   -g dg1 adddisk  disk02=sdc")}));
}

TEST_F(SupportOpsTest, CreateDGRefusesMediaNamesThatDoNotPairWithTheDisks) {
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc"}, {"disk01"}, false), 1);
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::createDG - 1 disk-media names for 2 disks."));
}

TEST_F(SupportOpsTest, CreateDGStopsAtTheFirstFailure) {
  install(m_lib + "qzcdsconvert");
  answer(cmd("qzdg   init dg1 sdb  cds=on"), 0);
  answer(cmd("qzdg   -g dg1 adddisk sdc"), 7);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc", "sdd"}, true), 7);
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, ImportDGWithAndWithoutANewName) {
  answer(cmd("qzdg   -C  import 1001.1.host"), 0);
  answer(cmd("qzdg   -C  -n dg9 import dg1"), 0);
  EXPECT_FALSE(m_support->importDG("", "1001.1.host"));
  EXPECT_FALSE(m_support->importDG("dg9", "dg1"));
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   -C  import 1001.1.host"), cmd("qzdg   -C  -n dg9 import dg1")}));
}

TEST_F(SupportOpsTest, FailedImportIsTraced) {
  answer(cmd("qzdg   -C  -n dg9 import dg1"), 20);
  EXPECT_TRUE(m_support->importDG("dg9", "dg1"));
  EXPECT_TRUE(wasTraced(2, "CQzVMSupport::importDG - unable to import 'dg1' as 'dg9'."));
}

TEST_F(SupportOpsTest, DeportOfAGroupThatIsNotHereRunsNoDeport) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_FALSE(m_support->deportDG("dg1", true));
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1")}));
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already deported."));
}

TEST_F(SupportOpsTest, DeportOfAPresentGroup) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  EXPECT_FALSE(m_support->deportDG("dg1", false));
  EXPECT_EQ(commands().back(), cmd("qzdg   deport dg1"));
}

TEST_F(SupportOpsTest, DestroyDG) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_EQ(m_support->destroyDG("dg1", true), 0);
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already destroyed."));
  answer(cmd("qzdg   destroy dg1"), 4);
  EXPECT_EQ(m_support->destroyDG("dg1", false), 4);
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::destroyDG - destroying dgname='dg1'. This may or not may succeed"));
}

TEST_F(SupportOpsTest, FlushOnlineAndClearImportCommands) {
  answer(cmd("qzdg   flush dg1"), 0);
  answer(cmd("qzvol   -g dg1 startall "), 0);
  answer(cmd("qzvol   -g dg1 stopall "), 0);
  answer(cmd("qzdisk   clearimport  sdb sdc"), 0);
  EXPECT_FALSE(m_support->flushDGConfig("dg1"));
  EXPECT_FALSE(m_support->onlineDG("dg1", true));
  EXPECT_FALSE(m_support->onlineDG("dg1", false));
  EXPECT_FALSE(m_support->diskClearImport({"sdb", "sdc"}));
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   flush dg1"), cmd("qzvol   -g dg1 startall "),
                   cmd("qzvol   -g dg1 stopall "), cmd("qzdisk   clearimport  sdb sdc")}));
}

TEST_F(SupportOpsTest, FailuresOfFlushOnlineAndClearImportAreTrue) {
  answer(cmd("qzdg   flush dg1"), 11);
  answer(cmd("qzvol   -g dg1 startall "), 15);
  answer(cmd("qzvol   -g dg1 stopall "), 13);
  answer(cmd("qzdisk   clearimport  sdb"), 11);
  EXPECT_TRUE(m_support->flushDGConfig("dg1"));
  EXPECT_TRUE(m_support->onlineDG("dg1", true));
  EXPECT_TRUE(m_support->onlineDG("dg1", false));
  EXPECT_TRUE(m_support->diskClearImport({"sdb"}));
}

TEST_F(SupportOpsTest, EnableDGDeportsRescansImportsAndChecks) {
  answer(cmd("qzdg   list dg2"), 0);
  answer(cmd("qzdg   deport dg2"), 0);
  answer(cmd("qzdisk   scandisks "), 0);
  answer(cmd("qzdg   -C  import dg2"), 0);
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_EQ(m_support->enableDG("dg2"), 6);  // still disabled
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   list dg2"), cmd("qzdg   deport dg2"), cmd("qzdisk   scandisks "),
                   cmd("qzdg   -C  import dg2"), cmd("qzdg   list ")}));
  EXPECT_EQ(m_support->enableDG("dg1"), 6);  // dg1 is not answered: deport fails
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdg   -C  import dg1"), 0);
  EXPECT_EQ(m_support->enableDG("dg1"), 0);
}

TEST_F(SupportOpsTest, GetDGIDReadsTheDgidLine) {
  answer(cmd("qzdisk   -s  -g dg1 list "), 0,
         out({"Disk:   sdb", "dgname: dg1", "dgid:   1001.1.host", "hostid: host"}));
  std::string id;
  EXPECT_EQ(m_support->getDGID("/dev/qz/dsk/dg1/vol1", id), 0);
  EXPECT_EQ(id, "1001.1.host");
}

TEST_F(SupportOpsTest, GetDGIDWithoutADgidLineFails) {
  answer(cmd("qzdisk   -s  -g dg1 list "), 0, out({"Disk:   sdb", "dgname: dg1"}));
  std::string id = "kept";
  EXPECT_EQ(m_support->getDGID("/dev/qz/dsk/dg1/vol1", id), 1);
  EXPECT_EQ(id, "kept");
  answer(cmd("qzdisk   -s  -g dg2 list "), 11);
  EXPECT_EQ(m_support->getDGID("/dev/qz/dsk/dg2/vol1", id), 11);
  EXPECT_EQ(id, "kept");
}

TEST_F(SupportOpsTest, GetDGSizeReadsTheNumber) {
  answer(cmd("qzassist  -g dg1  -p  maxsize "), 0, out({"2097152"}));
  unsigned long long size = 0;
  EXPECT_EQ(m_support->getDGSize("dg1", size), 0);
  EXPECT_EQ(size, 2097152u);
  answer(cmd("qzassist  -g dg2  -p  maxsize "), 9);
  size = 5;
  EXPECT_EQ(m_support->getDGSize("dg2", size), 9);
  EXPECT_EQ(size, 5u);
}

TEST_F(SupportOpsTest, GetDisksForDGIsCached) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  Lines disks;
  EXPECT_EQ(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_EQ(disks, (Lines{"qzarr0_1", "qzarr0_2"}));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::getDisksForDG - getting disks under this object. dg=dg1"));
  Lines again;
  EXPECT_EQ(m_support->getDisksForDG("dg1", again), 0);
  EXPECT_EQ(again, disks);
  EXPECT_EQ(commands().size(), 1u);
  EXPECT_TRUE(wasTraced(3, "Debug: getDisksForDG returned value from map"));
}

// A name handed out as new comes back in a long-lived process once its
// earlier group is gone: the disks cached for that group are not the new
// one's.
TEST_F(SupportOpsTest, ANewGroupNameForgetsTheDisksCachedForAGroupGoneByThatName) {
  const std::string group = "dg_" + std::to_string(getpid());
  answer(cmd("qzdisk   -g " + group + "  list "), 0, kDgDisks);
  Lines disks;
  ASSERT_EQ(m_support->getDisksForDG(group.c_str(), disks), 0);
  answer(cmd("qzdg   list "), 0, out({"NAME STATE ID"}));
  std::string name;
  m_support->getNewDGName("dg", name);
  ASSERT_EQ(name, group);
  answer(cmd("qzdisk   -g " + group + "  list "), 0,
         out({"DEVICE TYPE DISK GROUP STATUS", "qzarr0_7 auto:cdsdisk - - online"}));
  Lines again;
  EXPECT_EQ(m_support->getDisksForDG(group.c_str(), again), 0);
  EXPECT_EQ(again, (Lines{"qzarr0_7"}));
}

TEST_F(SupportOpsTest, GetDisksForDGRejectsOutputWithoutHeader) {
  answer(cmd("qzdisk   -g dg1  list "), 0);
  Lines disks;
  EXPECT_NE(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_TRUE(wasTraced(2, "no output of command."));
  answer(cmd("qzdisk   -g dg2  list "), 0, out({"x y"}));
  EXPECT_NE(m_support->getDisksForDG("dg2", disks), 0);
  EXPECT_TRUE(wasTraced(2, "no valid output of command."));
}

TEST_F(SupportOpsTest, GetDMsFromDGFollowsTheCallersDiskOrder) {
  answer(cmd("qzdisk   -g dg1 list "), 0, kDgDisks);
  Lines dms;
  EXPECT_EQ(m_support->getDMsFromDG("dg1", {"qzarr0_2", "qzarr0_1"}, dms), 0);
  EXPECT_EQ(dms, (Lines{"disk02", "disk01"}));
  Lines more;
  EXPECT_NE(m_support->getDMsFromDG("dg1", {"qzarr0_9"}, more), 0);
  EXPECT_TRUE(wasTraced(2, "error in getting DM name from dg."));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisks) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  // The group is listed once: deporting it needs no second look.
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list "), cmd("qzdg   deport dg1"),
                   cmd("qzdisk   rm qzarr0_1"), cmd("qzdisk   rm qzarr0_2")}));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksOfAnAbsentGroup) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already deported."));
  // A deport that stopped may have left disks listed under the group.
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   list ")}));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksFailsWhenTheDisksCannotBeListed) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 11);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 6);
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::deportDGAndRemoveDisks -  unable to get disk access (dmp) "
                        "from object. object=/dev/qz/dsk/dg1/vol1"));
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list ")}));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksFailsWhenTheDeportFails) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   deport dg1"), 13);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 6);
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::deportDGAndRemoveDisks deport of disk group failed.  "
                        "object=/dev/qz/dsk/dg1/vol1"));
  EXPECT_EQ(commands().back(), cmd("qzdg   deport dg1"));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksKeepsTheDisksWhenAsked) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   deport dg1"), 0);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", false, true), 0);
  EXPECT_EQ(commands().back(), cmd("qzdg   deport dg1"));
}

// ===== a group listing that fails otherwise than "not found" =====
// The group is then taken for present: the deport, destroy or listing that
// follows runs for real, and its failure is the caller's.

TEST_F(SupportOpsTest, DeportOfAGroupWhoseListingFailsOtherwiseRunsTheDeport) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdg   deport dg1"), 20);
  EXPECT_TRUE(m_support->deportDG("dg1", true));
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdg   deport dg1")}));
  EXPECT_FALSE(wasTraced(3, "dg 'dg1' is already deported."));
}

TEST_F(SupportOpsTest, DestroyWithCheckOfAGroupWhoseListingFailsOtherwiseRunsTheDestroy) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdg   destroy dg1"), 20);
  EXPECT_EQ(m_support->destroyDG("dg1", true), 20);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdg   destroy dg1")}));
  EXPECT_FALSE(wasTraced(3, "dg 'dg1' is already destroyed."));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksOfAGroupWhoseListingFailsOtherwiseFails) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdisk   -g dg1  list "), 20);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 6);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list ")}));
  EXPECT_FALSE(wasTraced(3, "dg 'dg1' is already deported."));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksOfAGroupWhoseListingFailsOtherwiseDeportsIt) {
  answer(cmd("qzdg   list dg1"), 20,
         out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list "), cmd("qzdg   deport dg1"),
                   cmd("qzdisk   rm qzarr0_1"), cmd("qzdisk   rm qzarr0_2")}));
}

// A deport killed after its "qzdg deport" leaves the group's disks in the
// view, listed under the deported group's name in brackets: run again, the
// deport finds the group gone and removes those disks, and no other.
TEST_F(SupportOpsTest, DeportDGAndRemoveDisksOfAnAbsentGroupRemovesTheDisksItLeft) {
  answer(cmd("qzdg   list dg1"), 11);
  answer(cmd("qzdisk   list "), 0,
         out({"DEVICE       TYPE            DISK         GROUP        STATUS",
              "qzarr0_1     auto:cdsdisk    -            (dg1)        online",
              "qzarr0_2     auto:cdsdisk    -            (dg1)        online",
              "qzarr0_3     auto:cdsdisk    -            (dg10)       online",
              "qzarr0_4     auto:cdsdisk    disk01       dg2          online"}));
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   list "),
                               cmd("qzdisk   rm qzarr0_1"), cmd("qzdisk   rm qzarr0_2")}));
}

}  // namespace
}  // namespace qzvmfi_support_test
