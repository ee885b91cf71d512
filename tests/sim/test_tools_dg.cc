#include "sim_test.h"

namespace qzsim {

class QzdgTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adminOk({"host", "add", "A"});
    adminOk({"host", "add", "B"});
    // Shared disks: both hosts see them.
    addDisks(2, "A,B");
    makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1"});
    ok("A", "qzassist -g dg1 make vol1 10m");
    dgid = splitBlanks(lines(ok("A", "qzdg list"))[1])[2];
    ok("B", "qzdisk scandisks");
  }
  std::string dgid;
};

TEST_F(QzdgTest, ListHasANameHeaderAndState) {
  auto rows = lines(ok("A", "qzdg  list "));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(splitBlanks(rows[0]), (std::vector<std::string>{"NAME", "STATE", "ID"}));
  EXPECT_EQ(splitBlanks(rows[1])[0], "dg1");
  EXPECT_NE(splitBlanks(rows[1])[1].find("enabled"), std::string::npos);
  ok("A", "qzdg  list dg1");
  EXPECT_EQ(tool("A", "qzdg  list dg9").status, 11);
}

TEST_F(QzdgTest, ImportOnAnotherHostNeedsTheLockCleared) {
  ok("A", "qzdg  deport dg1");
  EXPECT_EQ(lines(ok("A", "qzdg list")).size(), 1u);
  EXPECT_EQ(keyValue(ok("B", "qzdisk list qzarr0_0"), "hostid:"), "-");
  ok("A", "qzdg import dg1");  // A takes it back: the lock is A's again
  ok("A", "qzdg deport dg1");
  ok("A", "qzdg import " + dgid);
  CommandResult r = tool("B", "qzdg  import dg1");
  EXPECT_EQ(r.status, 20);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzdg ERROR Q-5-1-204 ")) << r.err;
  ok("B", "qzdg  -C  import dg1");
  EXPECT_EQ(splitBlanks(lines(ok("B", "qzdg list"))[1])[0], "dg1");
  EXPECT_EQ(keyValue(ok("B", "qzdisk list qzarr0_0"), "hostid:"), "B");
}

TEST_F(QzdgTest, ImportByIdUnderANewName) {
  ok("A", "qzdg deport dg1");
  ok("B", "qzdg  -C  -n  newdg  import " + dgid);
  auto rows = lines(ok("B", "qzdg list"));
  EXPECT_EQ(splitBlanks(rows[1])[0], "newdg");
  EXPECT_EQ(splitBlanks(rows[1])[2], dgid);
  EXPECT_NE(ok("B", "qzinfo -g newdg vol1").find("vol1"), std::string::npos);
  EXPECT_NE(keyValue(ok("B", "qzdisk list qzarr0_1"), "group:").find("name=newdg"),
            std::string::npos);
}

TEST_F(QzdgTest, ImportErrors) {
  EXPECT_EQ(tool("A", "qzdg import dg1").status, 12);  // already imported here
  EXPECT_EQ(tool("B", "qzdg -C import nosuchdg").status, 20);
  EXPECT_EQ(tool("B", "qzdg init other").status, 1);
}

TEST_F(QzdgTest, NameClashNeedsANewName) {
  adminOk({"disk", "add", "--hosts", "B", "--size", "64m"});
  ok("B", "qzdisk scandisks");
  ok("B", "qzdisk -f init qzarr0_2 type=auto");
  ok("B", "qzdg init dg1 qzarr0_2");
  ok("A", "qzdg deport dg1");
  EXPECT_EQ(tool("B", "qzdg -C import " + dgid).status, 12);
  ok("B", "qzdg -C -n dg1copy import " + dgid);
}

TEST_F(QzdgTest, InitRefusesDisksInUse) {
  EXPECT_EQ(tool("A", "qzdg init dg2 qzarr0_0").status, 13);
  EXPECT_EQ(tool("A", "qzdg init dg1 qzarr0_0").status, 12);
  adminOk({"disk", "add", "--hosts", "A", "--size", "64m"});
  ok("A", "qzdisk scandisks");
  EXPECT_EQ(tool("A", "qzdg init dg2 qzarr0_2").status, 11);  // not initialised
  ok("A", "qzdisk -f init qzarr0_2 type=auto format=simple");
  EXPECT_NE(tool("A", "qzdg  -g dg1 adddisk  qzarr0_2").status, 0);  // not cds in a cds group
  ok("A", "qzdg init dg2 mydm=qzarr0_2  cds=off");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdisk -g dg2 list"))[1])[2], "mydm");
}

TEST_F(QzdgTest, DestroyForgetsTheGroupOnItsDisks) {
  ok("A", "qzdg  destroy dg1");
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_0"), "group:"), "-");
  EXPECT_NE(tool("B", "qzdg -C import " + dgid).status, 0);
}

TEST_F(QzdgTest, DeportStopsVolumesAndBusyVolumesBlockIt) {
  adminOk({"volume", "hold", "--host", "A", "dg1", "vol1"});
  EXPECT_EQ(tool("A", "qzdg deport dg1").status, 13);
  adminOk({"volume", "release", "--host", "A", "dg1", "vol1"});
  ok("A", "qzdg  flush dg1");
  ok("A", "qzdg deport dg1");
  ok("A", "qzdg import dg1");
  EXPECT_NE(ok("A", "qzinfo -g dg1 vol1").find("Startable"), std::string::npos);
}

}  // namespace qzsim

namespace qzsim {

TEST_F(QzdgTest, DeportOfAVolumeOpenInTheSandboxFails) {
  CommandResult r =
      admin({"host", "A", "--", "sh", "-c",
             "exec 3</dev/qz/dsk/dg1/vol1; qzdg deport dg1; echo deport=$?; exec 3<&-; "
             "qzdg deport dg1 && echo deported"});
  EXPECT_EQ(r.out, "deport=13\ndeported\n");
  EXPECT_EQ(r.err,
            "QZVM qzdg ERROR Q-5-1-103 Disk group dg1: deport failed: Volume vol1 is open\n");
}

// A disk without a path cannot be read: an import finds the group only on
// the disks it can read.
TEST_F(QzdgTest, ImportLeavesDisksWithoutPathsAlone) {
  ok("A", "qzdg deport dg1");
  adminOk({"disk", "detach", "lun2", "--host", "A"});
  CommandResult r = tool("A", "qzdg import dg1");
  EXPECT_EQ(r.status, 20);
  EXPECT_EQ(r.err,
            "QZVM qzdg ERROR Q-5-1-203 Disk group dg1: import failed: Disk for media qzarr0_1 not "
            "found\n");
  adminOk({"disk", "attach", "lun2", "--host", "A"});
  ok("A", "qzdg import dg1");
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

TEST_F(QzdgTest, NamesOutsideTheRulesAreRefusedAndMakeNothing) {
  const std::string parent = root.substr(0, root.rfind('/'));
  CommandResult r = tool("A", "qzdg init ../../../../escape qzarr0_0");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err,
            "QZVM qzdg ERROR Q-5-1-8 Disk group name '../../../../escape' begins with '.'.\n");
  const std::string longName(45, 'g');
  r = tool("A", "qzdg init " + longName + " qzarr0_0");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "QZVM qzdg ERROR Q-5-1-8 Disk group name '" + longName +
                       "' is longer than 31 characters.\n");
  ok("A", "qzdg deport dg1");
  EXPECT_EQ(tool("A", "qzdg -n " + longName + " import dg1").status, 1);
  EXPECT_EQ(tool("A", "qzdg -n ../../x import dg1").status, 1);
  EXPECT_EQ(tool("A", "qzdg init dg2 ../../x=qzarr0_0").status, 1);
  EXPECT_EQ(lines(ok("A", "qzdg list")).size(), 1u);
  // Nothing was made outside the simulation, nor under a bad name inside it.
  for (const auto& name : listDir(parent)) EXPECT_EQ(name.find("escape"), std::string::npos);
  EXPECT_EQ(listDir(root + "/hosts/A/dev_qz/dsk").size(), 0u);
  EXPECT_EQ(listDir(root + "/hosts").size(), 2u);
}

// Array copies of a group's disks presented to the host that has the group
// imported: clones of its disks.
class SameHostCopyTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
    adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "7"});
    sum = checksum("dg1");
    dgid = splitBlanks(lines(ok("A", "qzdg list"))[1])[2];
    sourceDump = ok("A", "qzprint -vpsc -g dg1 -m");
    adminOk(
        {"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host", "A", "--to-host", "A"});
    ok("A", "qzdisk scandisks");
  }
  std::string checksum(const std::string& dg) {
    return trim(adminOk({"volume", "checksum", "--host", "A", dg, "vol1"}));
  }
  std::string diskId(const std::string& disk) {
    return keyValue(ok("A", "qzdisk -s list " + disk), "diskid:");
  }
  std::string sum, dgid, sourceDump;
};

TEST_F(SameHostCopyTest, ClonesNeverJoinTheImportedGroup) {
  auto rows = lines(ok("A", "qzdisk -g dg1 list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_0");
  EXPECT_EQ(splitBlanks(rows[2])[0], "qzarr0_1");
  EXPECT_EQ(ok("A", "qzprint -vpsc -g dg1 -m"), sourceDump);
  auto all = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(all.size(), 5u);
  EXPECT_EQ(splitBlanks(all[3]), (std::vector<std::string>{"qzarr0_2", "auto:cdsdisk", "-", "(dg1)",
                                                           "online", "clone_disk"}));
  EXPECT_EQ(diskId("qzarr0_2"), diskId("qzarr0_0"));
  std::string flags = keyValue(ok("A", "qzdisk list qzarr0_3"), "flags:");
  EXPECT_NE(flags.find("clone_disk"), std::string::npos) << flags;
  EXPECT_EQ(flags.find("imported"), std::string::npos) << flags;
  // Writes still land on the source's disks, and the state is sound.
  adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "8"});
  EXPECT_NE(checksum("dg1"), sum);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

TEST_F(SameHostCopyTest, ClonesImportByIdAsANewGroupWithFreshIds) {
  CommandResult r = tool("A", "qzdg import " + dgid);
  EXPECT_EQ(r.status, 12);
  EXPECT_EQ(r.err, "QZVM qzdg ERROR Q-5-1-202 Disk group " + dgid +
                       ": import failed: Disk group is already imported and the other disks that "
                       "carry it are clones; import them as a new disk group with -C -n NEWNAME\n");
  EXPECT_EQ(tool("A", "qzdg -C import " + dgid).status, 12);
  EXPECT_EQ(tool("A", "qzdg -n copy1 import " + dgid).status, 12);
  ok("A", "qzdg  -C  -n  copy1  import " + dgid);
  auto rows = lines(ok("A", "qzdg list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1])[0], "copy1");
  EXPECT_NE(splitBlanks(rows[1])[2], dgid);
  EXPECT_EQ(splitBlanks(rows[2]), (std::vector<std::string>{"dg1", "enabled,cds", dgid}));
  EXPECT_NE(diskId("qzarr0_2"), diskId("qzarr0_0"));
  EXPECT_NE(diskId("qzarr0_3"), diskId("qzarr0_1"));
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_2"), "flags:").find("clone_disk"),
            std::string::npos);
  auto copyDisks = lines(ok("A", "qzdisk -g copy1 list"));
  ASSERT_EQ(copyDisks.size(), 3u);
  EXPECT_EQ(splitBlanks(copyDisks[1])[0], "qzarr0_2");
  ok("A", "qzvol -g copy1 startall");
  EXPECT_EQ(checksum("copy1"), sum);
  EXPECT_EQ(checksum("dg1"), sum);
  EXPECT_EQ(ok("A", "qzprint -vpsc -g dg1 -m"), sourceDump);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK 2 imported groups")) << adminOk({"check"});
  // No clone of the source is left to import.
  EXPECT_EQ(tool("A", "qzdg -C -n copy2 import " + dgid).status, 12);
}

TEST_F(SameHostCopyTest, ImportTakesTheOriginalsOverTheirClones) {
  ok("A", "qzdg deport dg1");
  ok("A", "qzdg import " + dgid);
  auto rows = lines(ok("A", "qzdisk -g dg1 list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_0");
  EXPECT_EQ(splitBlanks(rows[2])[0], "qzarr0_1");
}

TEST_F(QzdgTest, SharedGroupsAreImportedOnSeveralHostsAtOnce) {
  adminOk({"host", "add", "C"});
  adminOk({"disk", "add", "--count", "2", "--hosts", "A,B,C", "--size", "64m"});
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_2 type=auto");
  ok("A", "qzdisk -f init qzarr0_3 type=auto");
  ok("A", "qzdg -s init sdg qzarr0_2 qzarr0_3");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[2])[1], "enabled,shared,cds");
  std::string flags = keyValue(ok("A", "qzdisk list qzarr0_2"), "flags:");
  EXPECT_NE(flags.find(" shared"), std::string::npos) << flags;
  ok("B", "qzdisk scandisks");
  ok("B", "qzdg -s import sdg");  // no -C: the lock is a sharer's
  EXPECT_EQ(keyValue(ok("B", "qzdg list sdg"), "flags:"), "shared cds");
  ok("C", "qzdisk scandisks");
  EXPECT_EQ(tool("C", "qzdg import sdg").status, 20);  // a private import needs the lock cleared
  ok("A", "qzassist -g sdg make shv 1m");
  EXPECT_NE(ok("B", "qzprint -g sdg -v").find("shv"), std::string::npos);
  EXPECT_EQ(tool("A", "qzdg destroy sdg").status, 13);
  ok("A", "qzdg deport sdg");
  EXPECT_EQ(keyValue(ok("B", "qzdisk list qzarr0_2"), "hostid:"), "B");
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

TEST_F(QzdgTest, GroupThatLostItsDisksIsDisabledUntilDeported) {
  adminOk({"disk", "add", "--hosts", "A", "--size", "64m"});
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_2 type=auto");
  ok("A", "qzdg init lone qzarr0_2");
  ok("A", "qzassist -g lone make v1 1m");
  adminOk({"disk", "detach", "lun3", "--host", "A"});
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[2])[1], "disabled,cds");
  EXPECT_EQ(keyValue(ok("A", "qzdg list lone"), "flags:"), "disabled cds");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g lone v1"))[2], "Unstartable");
  CommandResult r = tool("A", "qzvol -g lone start v1");
  EXPECT_EQ(r.status, 13);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-205 ")) << r.err;
  EXPECT_EQ(tool("A", "qzdg flush lone").status, 13);
  EXPECT_EQ(tool("A", "qzassist -g lone make v2 1m").status, 13);
  // The disk coming back does not enable the group: only a new import does.
  adminOk({"disk", "attach", "lun3", "--host", "A"});
  ok("A", "qzdisk scandisks");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[2])[1], "disabled,cds");
  ok("A", "qzdg deport lone");
  ok("A", "qzdg import lone");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[2])[1], "enabled,cds");
  ok("A", "qzvol -g lone start v1");
}

}  // namespace qzsim
