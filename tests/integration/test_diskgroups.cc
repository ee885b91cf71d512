// Disk groups listed, enabled, deported, imported under a new unique name and
// destroyed, on one host.
#include <unistd.h>

#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::SimHostTest;

class DiskGroupTest : public SimHostTest {
 protected:
  // Host A with two groups: dg1 on two disks, dg2 on one; the disk-media
  // names are not the disks' names.
  void arrange() override {
    admin({"host", "add", "A"});
    addDisks(3, "A", 1);
    actAs("A");
    support().qzvmScanDisks(false);
    ASSERT_EQ(support().qzDiskSetup({"qzarr0_0", "qzarr0_1", "qzarr0_2"}), 0);
    ASSERT_EQ(support().createDG("dg1", {"qzarr0_0", "qzarr0_1"}, mediaNames("dg1", 2), false), 0);
    ASSERT_EQ(support().createDG("dg2", {"qzarr0_2"}, mediaNames("dg2", 1), false), 0);
  }
};

TEST_F(DiskGroupTest, GroupsAreListedWithTheirDisksAndMedia) {
  Lines names;
  ASSERT_EQ(support().getAllDGNames(names), 0);
  EXPECT_EQ(names, (Lines{"dg1", "dg2"}));
  EXPECT_TRUE(support().isDGPresent("dg1"));
  EXPECT_FALSE(support().isDGPresent("dg3"));
  EXPECT_TRUE(support().isDGEnabled("dg1"));

  Lines disks;
  ASSERT_EQ(support().getDisksForDG("dg1", disks), 0);
  EXPECT_EQ(disks, (Lines{"qzarr0_0", "qzarr0_1"}));
  Lines dms;
  ASSERT_EQ(support().getDMsFromDG("dg1", disks, dms), 0);
  EXPECT_EQ(dms, (Lines{"dg1d00", "dg1d01"}));

  unsigned long long size = 0;
  ASSERT_EQ(support().getDGSize("dg1", size), 0);
  EXPECT_GT(size, 0u);
  ASSERT_EQ(support().createVolume("vol1", "dg1", 2048), 0);
  std::string dgid;
  ASSERT_EQ(support().getDGID("/dev/qz/dsk/dg1/vol1", dgid), 0);
  EXPECT_TRUE(holds(tool("A", "qzdg list"), dgid)) << dgid;
}

TEST_F(DiskGroupTest, DeportedGroupIsImportedUnderANewUniqueName) {
  EXPECT_FALSE(support().deportDG("dg1"));
  EXPECT_FALSE(support().isDGPresent("dg1"));
  EXPECT_FALSE(support().deportDG("dg1"));  // already deported: success
  EXPECT_TRUE(wasTraced("dg 'dg1' is already deported."));

  std::string fresh;
  ASSERT_EQ(support().getNewDGName(fresh), 0);
  EXPECT_EQ(fresh.compare(0, 6, "tpu_fi"), 0) << fresh;
  EXPECT_LE(fresh.size(), 31u);
  EXPECT_FALSE(support().importDG(fresh, "dg1"));
  EXPECT_TRUE(support().isDGPresent(fresh));
  EXPECT_TRUE(support().isDGEnabled(fresh));
  EXPECT_TRUE(support().importDG("", "dg1")) << "dg1 exists no more under that name";
}

TEST_F(DiskGroupTest, NewNamesSkipTheGroupsAlreadyThere) {
  const std::string taken = "base_" + std::to_string(getpid());
  ASSERT_FALSE(support().deportDG("dg2"));
  ASSERT_FALSE(support().importDG(taken, "dg2"));
  std::string name;
  support().getNewDGName("base", name);
  EXPECT_EQ(name, "base_" + std::to_string(getpid() + 1));
}

TEST_F(DiskGroupTest, EnableDeportsRescansAndImportsAgain) {
  EXPECT_EQ(support().enableDG("dg1"), 0);
  EXPECT_TRUE(support().isDGEnabled("dg1"));
  EXPECT_EQ(runsOf("A", "qzdg deport dg1"), 1u);
  EXPECT_EQ(runsOf("A", "import dg1"), 1u);
}

TEST_F(DiskGroupTest, DestroyedGroupIsGoneAndItsDisksFree) {
  EXPECT_EQ(support().destroyDG("dg2", true), 0);
  EXPECT_FALSE(support().isDGPresent("dg2"));
  EXPECT_EQ(support().destroyDG("dg2", true), 0);
  EXPECT_TRUE(wasTraced("dg 'dg2' is already destroyed."));
  EXPECT_NE(support().destroyDG("dg2", false), 0);
  std::string dgid, dgName;
  ASSERT_EQ(support().dgIdNameOnDisk("qzarr0_2", dgid, dgName), 0);
  EXPECT_EQ(dgName, "");
}

TEST_F(DiskGroupTest, DeportAndRemoveDisksTakesThemOutOfView) {
  ASSERT_EQ(support().createVolume("vol1", "dg1", 2048), 0);
  EXPECT_EQ(support().deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_FALSE(support().isDGPresent("dg1"));
  const std::string listing = tool("A", "qzdisk list");
  EXPECT_FALSE(holds(listing, "qzarr0_0")) << listing;
  EXPECT_FALSE(holds(listing, "qzarr0_1")) << listing;
  EXPECT_TRUE(holds(listing, "qzarr0_2")) << listing;
}

}  // namespace
