#include "sim_test.h"

namespace qzsim {

class QzdiskTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adminOk({"host", "add", "A"});
    addDisks(2, "A", 2);
  }
};

TEST_F(QzdiskTest, NewDisksAreInvisibleUntilAScan) {
  EXPECT_EQ(lines(ok("A", "qzdisk  list")).size(), 1u);
  EXPECT_NE(tool("A", "qzdisk list qzarr0_0").status, 0);
  ok("A", "qzdisk  scandisks ");
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[0]),
            (std::vector<std::string>{"DEVICE", "TYPE", "DISK", "GROUP", "STATUS"}));
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_0");
  EXPECT_EQ(splitBlanks(rows[1])[1], "auto:none");
}

TEST_F(QzdiskTest, ScanOfNamedDevicesSeesOnlyThem) {
  ok("A", "qzdisk  scandisks  device=sdd,sde");
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_1");
}

TEST_F(QzdiskTest, InitWithGeometryIsShownInTheListing) {
  ok("A", "qzdisk -f scandisks new");
  ok("A",
     "qzdisk  -f  init qzarr0_0 type=auto format=cdsdisk privoffset=256 privlen=4096 "
     "puboffset=8192 publen=100000 configlen=2048 loglen=1024 nconfig=1 nlog=1");
  std::string out = ok("A", "qzdisk   list qzarr0_0");
  EXPECT_EQ(keyValue(out, "Device:"), "qzarr0_0");
  EXPECT_EQ(keyValue(out, "type:"), "auto");
  EXPECT_EQ(keyValue(out, "info:"), "format=cdsdisk,privoffset=256,pubslice=3,privslice=3");
  EXPECT_EQ(keyValue(out, "public:"), "slice=3 offset=8192 len=100000 disk_offset=0");
  EXPECT_EQ(keyValue(out, "private:"), "slice=3 offset=256 len=4096 disk_offset=0");
  EXPECT_EQ(keyValue(out, "configs:"), "count=1 len=2048");
  EXPECT_EQ(keyValue(out, "logs:"), "count=1 len=1024");
  EXPECT_EQ(keyValue(out, "group:"), "-");
  EXPECT_EQ(keyValue(out, "flags:").find("error"), std::string::npos);
  EXPECT_EQ(out.find("\n\n"), std::string::npos);
}

TEST_F(QzdiskTest, SlicedDisksHaveTwoSlices) {
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_1 type=sliced privslice=5 pubslice=6");
  std::string out = ok("A", "qzdisk list qzarr0_1");
  EXPECT_EQ(keyValue(out, "info:"), "format=sliced,privoffset=256,pubslice=6,privslice=5");
}

TEST_F(QzdiskTest, BadGeometryIsRefused) {
  ok("A", "qzdisk scandisks");
  CommandResult r =
      tool("A", "qzdisk -f init qzarr0_0 type=auto privoffset=0 privlen=4096 puboffset=1000");
  EXPECT_EQ(r.status, 14);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzdisk ERROR Q-5-1-104 ")) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(tool("A", "qzdisk -f init qzarr0_0 type=auto publen=999999999").status, 14);
}

TEST_F(QzdiskTest, UnknownDiskIsAnError) {
  CommandResult r = tool("A", "qzdisk list nosuchdisk");
  EXPECT_EQ(r.status, 11);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzdisk ERROR Q-5-1-101 ")) << r.err;
}

TEST_F(QzdiskTest, RemovedDisksComeBackWithTheNextScan) {
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk  rm qzarr0_1");
  EXPECT_NE(tool("A", "qzdisk list qzarr0_1").status, 0);
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk list qzarr0_1");
}

// A disk whose every path is gone stays listed, in state error, until it
// is taken out of the view; its paths coming back bring it back online.
TEST_F(QzdiskTest, DiskWithoutPathsIsListedInErrorUntilRemoved) {
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_0 type=auto");
  adminOk({"disk", "detach", "lun1", "--host", "A"});
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1]),
            (std::vector<std::string>{"qzarr0_0", "auto:cdsdisk", "-", "-", "error"}));
  std::string detail = ok("A", "qzdisk list qzarr0_0");
  EXPECT_EQ(keyValue(detail, "flags:"), "online ready private autoconfig error");
  EXPECT_EQ(keyValue(detail, "numpaths:"), "0");
  CommandResult r = tool("A", "qzdisk -f init qzarr0_0 type=auto");
  EXPECT_EQ(r.status, 11);
  EXPECT_EQ(r.err,
            "QZVM qzdisk ERROR Q-5-1-401 Disk qzarr0_0: the disk has no path (state error)\n");
  EXPECT_EQ(tool("A", "qzdiskunsetup qzarr0_0").status, 11);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
  adminOk({"disk", "attach", "lun1", "--host", "A", "--paths", "2"});
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdisk list"))[1])[4], "online");
  adminOk({"disk", "detach", "lun1", "--host", "A"});
  ok("A", "qzdisk rm qzarr0_0");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  ok("A", "qzdisk scandisks");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
  // Once forgotten, the disk is new to the host when it is presented again.
  adminOk({"disk", "attach", "lun1", "--host", "A"});
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  ok("A", "qzdisk scandisks");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 3u);
}

// Without multipathing a disk is named by its OS path; listed without it,
// it keeps that name.
TEST_F(QzdiskTest, DiskWithoutPathsKeepsItsOsName) {
  adminOk({"host", "add", "B", "--no-dmp"});
  adminOk({"disk", "attach", "lun1", "--host", "B"});  // sdb on B
  ok("B", "qzdisk scandisks");
  adminOk({"disk", "detach", "lun1", "--host", "B"});
  EXPECT_EQ(splitBlanks(lines(ok("B", "qzdisk list"))[1]),
            (std::vector<std::string>{"sdb", "auto:none", "-", "-", "error"}));
  ok("B", "qzdisk rm sdb");
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 1u);
}

TEST_F(QzdiskTest, DisksOfAnImportedGroupCannotBeRemovedOrReinitialised) {
  makeGroup("A", "dg1", {"qzarr0_0"});
  EXPECT_EQ(tool("A", "qzdisk rm qzarr0_0").status, 13);
  EXPECT_EQ(tool("A", "qzdisk -f init qzarr0_0 type=auto").status, 13);
  EXPECT_EQ(tool("A", "qzdisk clearimport qzarr0_0").status, 13);
}

TEST_F(QzdiskTest, ShortListingGivesTheGroupId) {
  makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1"});
  std::string out = ok("A", "qzdisk  -s  -g dg1  list ");
  std::string dgid = splitBlanks(lines(ok("A", "qzdg list"))[1])[2];
  EXPECT_EQ(keyValue(out, "dgid:"), dgid);
  std::string group = keyValue(ok("A", "qzdisk list qzarr0_1"), "group:");
  EXPECT_EQ(group, "name=dg1 id=" + dgid);
  auto rows = lines(ok("A", "qzdisk  -g dg1   list "));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[2])[2], "qzarr0_1");
}

TEST_F(QzdiskTest, DiskSetupNeedsForceOnAnInitialisedDisk) {
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisksetup  -i qzarr0_0  format=simple");
  EXPECT_EQ(tool("A", "qzdisksetup  -i qzarr0_0  format=simple").status, 13);
  ok("A", "qzdisksetup  -f  -i qzarr0_0  format=simple");
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_0"), "info:").substr(0, 13), "format=simple");
  ok("A", "qzdiskunsetup  -C qzarr0_0");
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_0"), "info:"), "format=none");
}

TEST_F(QzdiskTest, PartedLabelOverwritesThePrivateRegion) {
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_0 type=auto");
  ok("A", "parted -s /dev/sdb mklabel  sun ");
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_0"), "info:"), "format=none");
  CommandResult r = tool("A", "parted -s /dev/sdz mklabel sun");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(startsWith(r.err, "Error: Could not stat device /dev/sdz")) << r.err;
}

}  // namespace qzsim

namespace qzsim {

TEST_F(QzdiskTest, GeometryValuesAreRangeChecked) {
  ok("A", "qzdisk scandisks");
  CommandResult r = tool("A", "qzdisk -f init qzarr0_0 type=auto privoffset=9999999999999999999");
  EXPECT_EQ(r.status, 14);
  EXPECT_EQ(r.err,
            "QZVM qzdisk ERROR Q-5-1-104 privoffset=9999999999999999999 is out of range: "
            "privoffset takes a whole number from 0 to 131072.\n");
  EXPECT_EQ(tool("A", "qzdisk -f init qzarr0_0 type=auto publen=131073").status, 14);
  EXPECT_EQ(tool("A", "qzdisk -f init qzarr0_0 type=auto nconfig=33").status, 14);
  EXPECT_EQ(tool("A", "qzdisk -f init qzarr0_0 type=auto pubslice=16").status, 14);
  EXPECT_EQ(tool("A", "qzdisksetup -f -i qzarr0_0 loglen=-1").status, 14);
  EXPECT_EQ(keyValue(ok("A", "qzdisk list qzarr0_0"), "info:"), "format=none");
  ok("A", "qzdisk -f init qzarr0_0 type=auto nconfig=32 configlen=1024 pubslice=15 privslice=15");
}

TEST_F(QzdiskTest, LateDiskShowsAfterItsOwnNumberOfScans) {
  adminOk({"fault", "late-disk", "lun2", "--host", "A", "--scans", "2"});
  ok("A", "qzdisk scandisks");
  auto rows = lines(ok("A", "qzdisk list"));
  ASSERT_EQ(rows.size(), 2u);  // the other disk is not late
  EXPECT_EQ(splitBlanks(rows[1])[0], "qzarr0_0");
  ok("A", "qzdisk scandisks device=qzarr0_0");  // a scan that does not look for it
  ok("A", "qzdisk -f scandisks new");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 2u);
  ok("A", "qzdisk scandisks device=sdd");
  EXPECT_EQ(lines(ok("A", "qzdisk list")).size(), 3u);
  EXPECT_EQ(adminOk({"fault", "list"}).find("late-disk"), std::string::npos);
}

}  // namespace qzsim
