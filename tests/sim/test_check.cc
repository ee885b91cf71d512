#include <algorithm>

#include "db.h"
#include "sim.h"
#include "sim_test.h"

namespace qzsim {

// Each test breaks the state the way a wrong tool or a wrong flow would
// leave it, and "qzsim check" must say so.
class CheckTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
    ASSERT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
  }
  void sql(const std::string& statement, const std::vector<Value>& args = {}) {
    Db db(dbPath(root));
    db.exec(statement, args);
  }
  // The PROBLEM lines of a check that must fail.
  std::vector<std::string> problems() {
    CommandResult r = admin({"check"});
    EXPECT_EQ(r.status, 1) << r.out;
    return lines(r.out);
  }
  static bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
};

TEST_F(CheckTest, GroupHoldingTwoDisksOfOneIdentity) {
  adminOk({"array", "split", "--disks", "qzarr0_0", "--from-host", "A", "--to-host", "A"});
  ok("A", "qzdisk scandisks");
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
  // As if the copy had joined the group in place of the second disk.
  sql("UPDATE members SET disk=(SELECT id FROM disks WHERE lun='lun3') WHERE dm='qzarr0_1'");
  std::string dgid = splitBlanks(lines(ok("A", "qzdg list"))[1])[2];
  std::string diskid = keyValue(ok("A", "qzdisk -s list qzarr0_0"), "diskid:");
  auto p = problems();
  EXPECT_TRUE(has(
      p, "PROBLEM dg1@A: the group holds two disks with disk id " + diskid + " (lun1 and lun3)"))
      << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM dg1@A: lun3 holds disk media qzarr0_1 but carries disk id " + diskid +
                         ", not " + keyValue(ok("A", "qzdisk -s list qzarr0_1"), "diskid:")))
      << join(p, "\n");
}

TEST_F(CheckTest, DiskImportedOnTwoHostsWithoutSharing) {
  adminOk({"disk", "attach", "lun1", "--host", "B"});
  adminOk({"disk", "attach", "lun2", "--host", "B"});
  ok("B", "qzdisk scandisks");
  ok("B", "qzdg -C import dg1");  // clears A's lock while A still has the group
  auto p = problems();
  EXPECT_TRUE(has(p,
                  "PROBLEM lun1 is in groups imported on several hosts without sharing: "
                  "A:dg1 B:dg1"))
      << join(p, "\n");
}

TEST_F(CheckTest, NamesOutsideTheRules) {
  const std::string longName(40, 'v');
  sql("UPDATE imports SET config=replace(config, 'vol1_dcl', ?)", {longName});
  sql("UPDATE imports SET dgname='../../x', config=replace(config, 'dg dg1', 'dg ../../x')");
  auto p = problems();
  EXPECT_TRUE(
      has(p, "PROBLEM ../../x@A: volume name '" + longName + "' is longer than 31 characters"))
      << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM ../../x@A: disk group name '../../x' begins with '.'"))
      << join(p, "\n");
}

TEST_F(CheckTest, GeometryOutOfRange) {
  sql("UPDATE disks SET privoffset=-5, pubslice=99 WHERE lun='lun1'");
  sql("UPDATE disks SET publen=9999999 WHERE lun='lun2'");
  auto p = problems();
  EXPECT_TRUE(has(p, "PROBLEM lun1: privoffset=-5 is out of range")) << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM lun1: slice 99 is out of range")) << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM lun2: publen=9999999 is out of range")) << join(p, "\n");
}

// The tests qzdisk init makes, each on a disk of its own.
TEST_F(CheckTest, GeometryThatQzdiskInitRefuses) {
  addDisks(2, "A");
  sql("UPDATE disks SET publen=publen+1 WHERE lun='lun1'");
  sql("UPDATE disks SET puboffset=privoffset+100 WHERE lun='lun2'");
  sql("UPDATE disks SET pformat='cdsdisk', privoffset=256, privlen=65536, puboffset=65792, "
      "publen=1000, configlen=48144, nconfig=2, loglen=7296, nlog=1 WHERE lun='lun3'");
  sql("UPDATE disks SET pformat='cdsdisk', size=4000000000000000000 WHERE lun='lun4'");
  auto p = problems();
  EXPECT_TRUE(has(p, "PROBLEM lun1: public region does not fit on the disk")) << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM lun2: private and public regions overlap")) << join(p, "\n");
  EXPECT_TRUE(
      has(p, "PROBLEM lun3: configuration copies and logs do not fit in the private region"))
      << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM lun4: size 4000000000000000000 is out of range")) << join(p, "\n");
}

TEST_F(CheckTest, PlexThatDoesNotCoverItsVolume) {
  sql("UPDATE imports SET config=replace(config, 'len=16640', 'len=16000')");
  auto p = problems();
  EXPECT_TRUE(has(p, "PROBLEM dg1@A: plex vol1-01 does not cover volume vol1")) << join(p, "\n");
}

TEST_F(CheckTest, SubdiskOnDiskMediaOutsideTheGroup) {
  sql("UPDATE imports SET config=replace(config, 'dm_name=qzarr0_1', 'dm_name=qzarr0_7')");
  auto p = problems();
  EXPECT_TRUE(has(p, "PROBLEM dg1@A: subdisk qzarr0_1-01 on unknown disk media")) << join(p, "\n");
}

}  // namespace qzsim

namespace qzsim {

// A host's device nodes, brought up to date disk by disk, are checked
// against what the whole model gives the host.
TEST_F(CheckTest, DeviceNodesThatDifferFromTheModel) {
  const std::string qz = root + "/hosts/A/dev_qz";
  ASSERT_EQ(unlink((qz + "/dsk/dg1/vol1").c_str()), 0);
  ASSERT_TRUE(writeFile(qz + "/dmp/stray", ""));
  ASSERT_TRUE(makeDirs(qz + "/rdsk/gone"));
  auto p = problems();
  EXPECT_TRUE(has(p, "PROBLEM host A: device node dev_qz/dsk/dg1/vol1 is missing"))
      << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM host A: dev_qz/dmp/stray is not a device node of the host"))
      << join(p, "\n");
  EXPECT_TRUE(has(p, "PROBLEM host A: dev_qz/rdsk/gone/ is not a device node of the host"))
      << join(p, "\n");
  EXPECT_EQ(p.size(), 3u) << join(p, "\n");
  ok("A", "qzvol -g dg1 stop vol1");  // a full sync makes the model's nodes again
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

}  // namespace qzsim
