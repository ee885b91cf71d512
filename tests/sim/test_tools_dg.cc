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
