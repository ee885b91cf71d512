#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "sim_test.h"

namespace qzsim {

class AdminTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
  }
  std::string checksum(const std::string& host, const std::string& dg) {
    return trim(adminOk({"volume", "checksum", "--host", host, dg, "vol1"}));
  }
  std::string nodes(const std::vector<std::string>& paths = {}) {
    std::vector<std::string> args = {"node", "list", "--host", "A"};
    args.insert(args.end(), paths.begin(), paths.end());
    return adminOk(args);
  }
};

TEST_F(AdminTest, ErrorsArePlainSentences) {
  CommandResult r = admin({"host", "add", "A"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "qzsim: host A already exists.\n");
  r = admin({"fault", "add", "--host", "Q", "--match", "list"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "qzsim: host Q is not part of the simulation\n");
  EXPECT_EQ(admin({"volume", "checksum", "--host", "Q", "dg1", "vol1"}).err, r.err);
  EXPECT_EQ(admin({"disk", "add", "--hosts", "A,Q"}).err, r.err);
  EXPECT_EQ(admin({"log", "--host", "Q"}).err, r.err);
  EXPECT_EQ(admin({"host", "add", "../x"}).err, "qzsim: host name '../x' begins with '.'.\n");
  EXPECT_EQ(admin({"disk", "detach", "lun1", "--host", "B"}).err,
            "qzsim: lun1 is not attached to host B.\n");
  EXPECT_EQ(admin({"disk", "attach", "lun1", "--host", "A"}).err,
            "qzsim: lun1 is already attached to host A.\n");
  EXPECT_EQ(admin({"disk", "add", "--count", "0"}).err,
            "qzsim: --count takes a whole number from 1 to 1000.\n");
  EXPECT_EQ(admin({"fault", "add", "--tool", "qzfoo"}).err, "qzsim: there is no tool qzfoo.\n");
  EXPECT_EQ(admin({"frobnicate"}).err, "qzsim: unknown command frobnicate; see qzsim --help\n");
  EXPECT_EQ(lines(adminOk({"host", "list"})).size(), 3u);
}

TEST_F(AdminTest, NodesOfVolumesDisksAndPathsWithOwnerAndMode) {
  auto rows = lines(nodes());
  EXPECT_EQ(splitBlanks(rows[0]), (std::vector<std::string>{"PATH", "UID", "GID", "MODE"}));
  std::set<std::string> paths;
  for (size_t i = 1; i < rows.size(); ++i) paths.insert(splitBlanks(rows[i])[0]);
  for (const char* p : {"/dev/qz/dsk/dg1/vol1", "/dev/qz/rdsk/dg1/vol1", "/dev/qz/dsk/dg1/vol1_dcl",
                        "/dev/qz/dmp/qzarr0_0", "/dev/qz/rdmp/qzarr0_0", "/dev/qz/dmp/qzarr0_0s3",
                        "/dev/qz/rdmp/qzarr0_1s3", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde"})
    EXPECT_TRUE(paths.count(p)) << p;
  EXPECT_EQ(splitBlanks(lines(nodes({"/dev/qz/rdsk/dg1/vol1"}))[1]),
            (std::vector<std::string>{"/dev/qz/rdsk/dg1/vol1", "0", "0", "0600"}));
  EXPECT_EQ(splitBlanks(lines(nodes({"/dev/sdb"}))[1]),
            (std::vector<std::string>{"/dev/sdb", "0", "0", "0660"}));
  // Volume sets have nodes too.
  ok("A", "qzvset -g dg1 make set1 vol1");
  EXPECT_EQ(lines(nodes({"/dev/qz/dsk/dg1/set1", "/dev/qz/rdsk/dg1/set1"})).size(), 3u);
  EXPECT_EQ(admin({"node", "list", "--host", "A", "/dev/qz/dsk/dg1/nosuch"}).err,
            "qzsim: host A has no device node /dev/qz/dsk/dg1/nosuch.\n");
}

TEST_F(AdminTest, OwnersSurviveDeportAndImport) {
  const std::string file = root + "/hosts/A/dev_qz/dsk/dg1/vol1";
  adminOk({"node", "set", "--host", "A", "/dev/qz/dsk/dg1/vol1", "--uid", "1001", "--gid", "1002",
           "--mode", "0640"});
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 1001u);
  EXPECT_EQ(st.st_gid, 1002u);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  // A change made on the node itself is kept just the same.
  const std::string raw = root + "/hosts/A/dev_qz/rdsk/dg1/vol1";
  ASSERT_EQ(chown(raw.c_str(), 1003, 1004), 0);
  ok("A", "qzdg deport dg1");
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  ok("A", "qzdg -n dg1new import dg1");
  ASSERT_EQ(stat((root + "/hosts/A/dev_qz/dsk/dg1new/vol1").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 1001u);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  ASSERT_EQ(stat((root + "/hosts/A/dev_qz/rdsk/dg1new/vol1").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 1003u);
  EXPECT_EQ(st.st_gid, 1004u);
  EXPECT_EQ(splitBlanks(lines(nodes({"/dev/qz/rdsk/dg1new/vol1"}))[1]),
            (std::vector<std::string>{"/dev/qz/rdsk/dg1new/vol1", "1003", "1004", "0600"}));
  // Nodes nobody changed keep the owner they were made with.
  ASSERT_EQ(stat((root + "/hosts/A/dev_qz/dsk/dg1new/vol1_dcl").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 0u);
}

TEST_F(AdminTest, RestoreCopiesACopyBackOntoItsSource) {
  adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "3"});
  std::string atSplit = checksum("A", "dg1");
  adminOk({"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host", "A", "--to-host", "B"});
  adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "4"});
  ASSERT_NE(checksum("A", "dg1"), atSplit);
  CommandResult r = admin({"array", "restore", "--disks", "lun3,lun4"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err,
            "qzsim: lun1 belongs to disk group dg1 imported on host A; deport the group before "
            "restoring onto it.\n");
  EXPECT_EQ(admin({"array", "restore", "--disks", "lun1"}).err,
            "qzsim: lun1 is not an array copy of another LUN; only copies can be restored.\n");
  ok("A", "qzdg deport dg1");
  EXPECT_EQ(adminOk({"array", "restore", "--disks", "lun3,lun4"}),
            "lun1 qzarr0_0 restored from lun3\nlun2 qzarr0_1 restored from lun4\n");
  ok("A", "qzdg import dg1");
  ok("A", "qzvol -g dg1 startall");
  EXPECT_EQ(checksum("A", "dg1"), atSplit);
  EXPECT_NE(adminOk({"disk", "list"}).find("lun3  qzarr0_2"), std::string::npos);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

// "disk list --ids" names the group id on each disk: what an import by id
// takes; clones imported as a group of their own carry a fresh one.
TEST_F(AdminTest, DiskListWithIdsNamesTheGroupIdOfEachDisk) {
  const std::string dgid = splitBlanks(lines(ok("A", "qzdg list"))[1])[2];
  adminOk({"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host", "A", "--to-host", "A"});
  ok("A", "qzdisk scandisks");
  auto rows = lines(adminOk({"disk", "list", "--ids"}));
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_EQ(splitBlanks(rows[0]).back(), "DGID");
  EXPECT_EQ(splitBlanks(rows[1]).back(), dgid);
  EXPECT_EQ(splitBlanks(rows[3]).back(), dgid);  // a clone carries its source's group
  ok("A", "qzdg -C -n dg1copy import " + dgid);
  rows = lines(adminOk({"disk", "list", "--ids"}));
  const std::string fresh = splitBlanks(rows[3]).back();
  EXPECT_NE(fresh, dgid);
  EXPECT_EQ(splitBlanks(ok("A", "qzdg list dg1copy"))[3], fresh);
  EXPECT_EQ(splitBlanks(rows[3])[4], "dg1copy");
  EXPECT_EQ(splitBlanks(rows[1]).back(), dgid);
  // Without --ids the table is as it was.
  EXPECT_EQ(splitBlanks(lines(adminOk({"disk", "list"}))[0]).back(), "PATHS");
}

TEST_F(AdminTest, RemovedLunIsGoneFromEveryHost) {
  adminOk({"disk", "attach", "lun2", "--host", "B"});
  ok("B", "qzdisk scandisks");
  adminOk({"disk", "remove", "lun2"});
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 1u);
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_0");
  EXPECT_EQ(tool("A", "qzvol -g dg1 stop vol1").status, 0);
  EXPECT_EQ(tool("A", "qzvol -g dg1 start vol1").status, 15);  // half its plex is gone
  EXPECT_EQ(adminOk({"disk", "list"}).find("lun2"), std::string::npos);
  EXPECT_NE(access((root + "/hosts/A/dev_os/sdd").c_str(), F_OK), 0);
  EXPECT_NE(access((root + "/hosts/A/dev_qz/dmp/qzarr0_1").c_str(), F_OK), 0);
  EXPECT_NE(access((root + "/images/lun2.img").c_str(), F_OK), 0);
  // The group kept one disk with a path: it stays enabled.
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[1])[1], "enabled,cds");
  adminOk({"disk", "remove", "lun1"});
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[1])[1], "disabled,cds");
  ok("A", "qzdg deport dg1");
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

TEST_F(AdminTest, GroupDisabledOnRequest) {
  adminOk({"group", "disable", "--host", "A", "dg1"});
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdg list"))[1])[1], "disabled,cds");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Unstartable");
  EXPECT_EQ(tool("A", "qzvol -g dg1 startall").status, 13);
  ok("A", "qzvol startall");  // without a group it leaves disabled ones alone
  ok("A", "qzdg deport dg1");
  ok("A", "qzdg import dg1");
  ok("A", "qzvol -g dg1 startall");
}

// Host B is given a LUN over two paths, deletes both devices as a failed
// import's clean-up does, and a rescan brings them back under their names.
TEST_F(AdminTest, RescanBringsBackThePathsTheArrayPresentsAndTheHostDeleted) {
  const std::string attached =
      trim(adminOk({"disk", "attach", "lun2", "--host", "B", "--paths", "2"}));
  EXPECT_EQ(trim(adminOk({"disk", "rescan", "--host", "B"})), "");  // nothing missing
  ok("B", "qzdisk scandisks");
  // "lun2 NODE B=first,second"
  const std::string paths = attached.substr(attached.find("B=") + 2);
  const std::string first = paths.substr(0, paths.find(','));
  const std::string second = paths.substr(paths.find(',') + 1);
  const std::string blocks = trim(admin({"host", "B", "--", "ls", "/sys/block"}).out);
  CommandResult deleted = admin({"host", "B", "--", "sh", "-c",
                                 "echo 1 > /sys/block/" + first + "/device/delete && " +
                                     "echo 1 > /sys/block/" + second + "/device/delete"});
  ASSERT_EQ(deleted.status, 0) << deleted.err;
  // Without a path the disk stays listed, in state error.
  const auto listedInError = [&] {
    const auto listed = lines(ok("B", "qzdisk list"));
    return listed.size() == 2u && listed.back().find("error") != std::string::npos;
  };
  EXPECT_TRUE(listedInError()) << ok("B", "qzdisk list");

  EXPECT_EQ(trim(adminOk({"disk", "rescan", "--host", "B"})), attached);
  EXPECT_EQ(trim(admin({"host", "B", "--", "ls", "/sys/block"}).out), blocks);
  // Its paths are back: listed online again.
  const auto listed = lines(ok("B", "qzdisk list"));
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_NE(listed.back().find("online"), std::string::npos) << listed.back();
  ok("B", "qzdisk scandisks");
  EXPECT_EQ(keyValue(ok("B", "qzdisk list qzarr0_1"), "numpaths:"), "2");
  // A detached LUN is not presented any more: no rescan brings it back.
  adminOk({"disk", "detach", "lun2", "--host", "B"});
  EXPECT_EQ(trim(adminOk({"disk", "rescan", "--host", "B"})), "");
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

}  // namespace qzsim
