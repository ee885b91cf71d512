#include "sim_test.h"

namespace qzsim {

class QzdmpadmTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    adminOk({"host", "add", "A"});
    adminOk({"host", "add", "N", "--no-dmp", "--no-vset", "--no-cds"});
    adminOk({"host", "add", "X", "--not-installed"});
    added = addDisks(2, "A,N", 2);
  }
  std::vector<std::string> added;
};

TEST_F(QzdmpadmTest, NodesAreNamedPerEnclosureWithSeveralPaths) {
  EXPECT_EQ(added[0], "lun1 qzarr0_0 A=sdb,sdc N=sdb,sdc");
  ok("A", "qzdisk scandisks");
  auto rows = lines(ok("A", "qzdmpadm  getdmpnode  nodename=sdd"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[0])[0], "NAME");
  EXPECT_EQ(rows[1].find_first_not_of('='), std::string::npos);
  EXPECT_EQ(splitBlanks(rows[2])[0], "qzarr0_1");
  EXPECT_EQ(splitBlanks(rows[2])[1], "ENABLED");
}

TEST_F(QzdmpadmTest, SubpathsShowTheActivePrimaryPath) {
  ok("A", "qzdisk scandisks");
  auto rows = lines(ok("A", "qzdmpadm  getsubpaths  dmpnodename=qzarr0_0"));
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(splitBlanks(rows[2])[0], "sdb");
  EXPECT_EQ(splitBlanks(rows[2])[1], "ENABLED(A)");
  EXPECT_EQ(splitBlanks(rows[2])[2], "PRIMARY");
  EXPECT_EQ(splitBlanks(rows[3])[1], "ENABLED");
  EXPECT_EQ(tool("A", "qzdmpadm  disable  path=sdb").status, 0);
  rows = lines(ok("A", "qzdmpadm getsubpaths dmpnodename=qzarr0_0"));
  EXPECT_EQ(splitBlanks(rows[2])[1], "DISABLED");
  EXPECT_EQ(splitBlanks(rows[3])[1], "ENABLED(A)");
  EXPECT_EQ(tool("A", "qzdmpadm disable path=sdc").status, 13);  // last path needs -f
  ok("A", "qzdmpadm  -f  disable  path=sdc");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzdmpadm getdmpnode nodename=sdb"))[2])[1], "DISABLED");
  ok("A", "qzdmpadm  enable  path=sdb");
}

TEST_F(QzdmpadmTest, UndiscoveredDiskHasNoNode) {
  CommandResult r = tool("A", "qzdmpadm getdmpnode nodename=sdb");
  EXPECT_EQ(r.status, 11);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzdmpadm ERROR Q-5-1-401 ")) << r.err;
}

TEST_F(QzdmpadmTest, WithoutMultipathingDisksAreNamedByTheirOsName) {
  ok("N", "qzdisk scandisks");
  auto rows = lines(ok("N", "qzdisk list"));
  EXPECT_EQ(splitBlanks(rows[1])[0], "sdb");
  EXPECT_EQ(splitBlanks(rows[2])[0], "sdd");
  EXPECT_EQ(tool("N", "qzdmpadm getdmpnode nodename=sdb").status, 2);
  EXPECT_EQ(tool("N", "qzvset -g x list").status, 2);
  EXPECT_EQ(tool("N", "qzcdsconvert -g x").status, 2);
  makeGroup("N", "dgn", {"sdb"});
  auto dg = splitBlanks(lines(ok("N", "qzdg list"))[1]);
  EXPECT_EQ(dg[1], "enabled");  // no cds on this host
}

TEST_F(QzdmpadmTest, PackageIsListedOnlyWhereInstalled) {
  EXPECT_NE(ok("A", "rpm  -qa ").find("ZOLKqzvm-8.0.1\n"), std::string::npos);
  std::string none = ok("X", "rpm -qa");
  EXPECT_EQ(none.find("ZOLKqzvm"), std::string::npos);
  EXPECT_FALSE(none.empty());
  EXPECT_EQ(tool("X", "qzdg list").status, 2);
}

}  // namespace qzsim
