#include "sim_test.h"

namespace qzsim {

class QzvolTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
  }
};

TEST_F(QzvolTest, StartStopAndInfo) {
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo  -g dg1 vol1")),
            (std::vector<std::string>{"vol1", "fsgen", "Started"}));
  ok("A", "qzvol  -g dg1 stop vol1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo  -g dg1 vol1"))[2], "Startable");
  ok("A", "qzvol  -g dg1 start vol1");
  ok("A", "qzvol  -g dg1  stopall ");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1_dcl"))[2], "Startable");
  ok("A", "qzvol  -g dg1  startall ");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1_dcl"))[2], "Started");
  EXPECT_EQ(tool("A", "qzinfo -g dg1 novol").status, 11);
}

TEST_F(QzvolTest, UsageTypeMustMatch) {
  ok("A", "qzvol -g dg1 stopall");
  ok("A", "qzvol  -g dg1  -U gen  start vol1_dcl");
  CommandResult r = tool("A", "qzvol  -g dg1  -U gen  start vol1");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-306 ")) << r.err;
}

TEST_F(QzvolTest, BusyVolumeStopsWithStatus31) {
  adminOk({"volume", "hold", "--host", "A", "dg1", "vol1"});
  CommandResult r = tool("A", "qzvol  -g dg1 stop vol1");
  EXPECT_EQ(r.status, 31);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-304 ")) << r.err;
  adminOk({"volume", "release", "--host", "A", "dg1", "vol1"});
  ok("A", "qzvol  -g dg1 stop vol1");
}

TEST_F(QzvolTest, VolumeWithoutItsDisksCannotStart) {
  ok("A", "qzvol -g dg1 stop vol1");
  adminOk({"disk", "detach", "lun2", "--host", "A"});
  EXPECT_EQ(tool("A", "qzvol -g dg1 start vol1").status, 15);
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Unstartable");
}

TEST_F(QzvolTest, MaxsizeIsABareNumberAndMakeUsesIt) {
  std::string out = ok("A", "qzassist  -g dg1   -p  maxsize ");
  uint64_t size = 0;
  ASSERT_TRUE(parseUint(trim(out), &size)) << out;
  EXPECT_EQ(size, 2u * 65280 - 81920 - 1024);
  ok("A", "qzassist  -g dg1   make   big " + std::to_string(size));
  EXPECT_EQ(tool("A", "qzassist -g dg1 -p maxsize").status, 14);
  EXPECT_EQ(tool("A", "qzassist -g dg1 make more 1").status, 14);
}

TEST_F(QzvolTest, MirrorsUseSeparateDisks) {
  adminOk({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"});
  makeGroup("A", "dg2", {"qzarr0_2", "qzarr0_3"});
  ok("A", "qzassist -g dg2 make m 10m nmirror=2");
  auto rows = lines(ok("A", "qzprint -g dg2 m"));
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_NE(splitBlanks(rows[3])[1].substr(0, 8), splitBlanks(rows[5])[1].substr(0, 8));
  EXPECT_EQ(tool("A", "qzassist -g dg2 make m2 40m nmirror=2").status, 14);
}

TEST_F(QzvolTest, VolumeSets) {
  ok("A", "qzvset -g dg1 make set1 vol1");
  ok("A", "qzvset  -g dg1  stop set1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
  ok("A", "qzvset  -g dg1  start set1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");
  EXPECT_EQ(tool("A", "qzvset -g dg1 start noset").status, 11);
}

TEST_F(QzvolTest, DeviceNodesFollowTheGroup) {
  std::string dev = root + "/hosts/A/dev_qz";
  std::string text;
  EXPECT_TRUE(readFile(dev + "/dsk/dg1/vol1", &text));
  EXPECT_TRUE(readFile(dev + "/rdsk/dg1/vol1_dcl", &text));
  ok("A", "qzdg deport dg1");
  EXPECT_FALSE(readFile(dev + "/dsk/dg1/vol1", &text));
}

}  // namespace qzsim
