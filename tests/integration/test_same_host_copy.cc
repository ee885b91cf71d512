// A disk group's disks copied by the array to the host that still has the
// group imported: the copies carry the group's identity but never join it,
// and are imported by the group's id under a new name beside it.
#include <sys/stat.h>
#include <unistd.h>

#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::linesOf;
using qzvmfi_it::SimDisk;
using qzvmfi_it::SimHostTest;

class SameHostCopyTest : public SimHostTest {
 protected:
  // Host A: dg1 on two disks with two paths each, vol1 (with a DCO log)
  // across both and vol2 on the second.
  void arrange() override {
    admin({"host", "add", "A"});
    addDisks(2, "A", 2, "128m");
    const Lines media = makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1"});
    tool("A", "qzassist -g dg1 make vol1 100m logtype=dco");
    tool("A", "qzassist -g dg1 make vol2 20m " + media[1]);
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "31"});
    admin({"volume", "write", "--host", "A", "dg1", "vol2", "--seed", "32"});
  }

  std::string sourceDump() { return tool("A", "qzprint -vpsc -g dg1 -m"); }
};

TEST_F(SameHostCopyTest, CopiesImportByIdUnderANewNameBesideTheSource) {
  actAs("A");
  std::string dgid;
  ASSERT_EQ(support().getDGID("/dev/qz/dsk/dg1/vol1", dgid), 0);
  const std::string vol1Sum = checksum("A", "dg1", "vol1");
  const std::string vol2Sum = checksum("A", "dg1", "vol2");
  const std::string dumpBefore = sourceDump();
  const std::string disksBefore = tool("A", "qzdisk -g dg1 list");
  ASSERT_EQ(chown("/dev/qz/rdsk/dg1/vol1", 1001, 1002), 0);

  // The array's copies appear on the same host.
  const std::vector<SimDisk> copies = qzvmfi_it::parseDisks(admin(
      {"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host", "A", "--to-host", "A"}));
  ASSERT_EQ(copies.size(), 2u);
  Lines copyOSDisks;
  for (const SimDisk& copy : copies) {
    copyOSDisks.push_back(copy.osNames[0]);
    EXPECT_EQ(access(("/dev/" + copy.osNames[0]).c_str(), F_OK), 0) << copy.osNames[0];
    EXPECT_EQ(access(("/sys/block/" + copy.osNames[0] + "/device/delete").c_str(), F_OK), 0);
  }
  Lines copyNodes;
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler_Waited(copyOSDisks, copyNodes), 0);
  EXPECT_EQ(copyNodes, (Lines{copies[0].node, copies[1].node}));
  ASSERT_EQ(support().isDisksInQzVMDB(copyNodes, true), 0);

  // They carry the source group's identity, yet the source group is as it was.
  std::string copyId, copyName;
  ASSERT_EQ(support().dgIdNameOnDisk(copyNodes[0], copyId, copyName), 0);
  EXPECT_EQ(copyId, dgid);
  EXPECT_EQ(copyName, "dg1");
  EXPECT_EQ(tool("A", "qzdisk -g dg1 list"), disksBefore);
  EXPECT_EQ(sourceDump(), dumpBefore);

  std::string newDG;
  ASSERT_EQ(support().getNewDGName(newDG), 0);
  ASSERT_FALSE(support().importDG(newDG, dgid));
  EXPECT_TRUE(support().isDGEnabled(newDG));
  Lines newDisks;
  ASSERT_EQ(support().getDisksForDG(newDG.c_str(), newDisks), 0);
  EXPECT_EQ(newDisks, copyNodes);
  std::string newId;
  ASSERT_EQ(support().getDGID("/dev/qz/dsk/" + newDG + "/vol1", newId), 0);
  EXPECT_NE(newId, dgid);
  EXPECT_FALSE(support().onlineDG(newDG, true));  // false: no failure
  EXPECT_TRUE(support().isVolStarted(newDG, "vol1"));
  EXPECT_EQ(access(("/dev/qz/rdsk/" + newDG + "/vol2").c_str(), F_OK), 0);

  // Both groups hold the data of the moment of the split.
  EXPECT_EQ(checksum("A", newDG, "vol1"), vol1Sum);
  EXPECT_EQ(checksum("A", newDG, "vol2"), vol2Sum);
  EXPECT_EQ(checksum("A", "dg1", "vol1"), vol1Sum);
  EXPECT_EQ(checksum("A", "dg1", "vol2"), vol2Sum);

  // The source is unchanged: its disks, its dump, its id, its running
  // volumes and its device nodes with their owner.
  EXPECT_EQ(tool("A", "qzdisk -g dg1 list"), disksBefore);
  EXPECT_EQ(sourceDump(), dumpBefore);
  std::string idAfter;
  ASSERT_EQ(support().getDGID("/dev/qz/dsk/dg1/vol1", idAfter), 0);
  EXPECT_EQ(idAfter, dgid);
  EXPECT_TRUE(support().isVolStarted("dg1", "vol1"));
  struct stat st;
  ASSERT_EQ(stat("/dev/qz/rdsk/dg1/vol1", &st), 0);
  EXPECT_EQ(st.st_uid, 1001u);
  EXPECT_EQ(st.st_gid, 1002u);
  EXPECT_TRUE(holds(admin({"check"}), "OK 2 imported groups")) << admin({"check"});

  // The clones now have their own identity: nothing more to import by the
  // source's id.
  EXPECT_TRUE(support().importDG(newDG + "x", dgid));
}

}  // namespace
