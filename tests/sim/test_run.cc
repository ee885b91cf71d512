#include "sim_test.h"

namespace qzsim {

class FaultsTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
  }
};

TEST_F(FaultsTest, NthMatchingCommandFails) {
  adminOk({"fault", "add", "--host", "A", "--tool", "qzdg", "--match", "list", "--nth", "2",
           "--status", "7", "--stdout", "partial\n", "--stderr",
           "QZVM qzdg ERROR Q-5-1-10128 Configuration daemon error 441\n"});
  ok("A", "qzdg list");
  ok("A", "qzdg flush dg1");  // does not match
  CommandResult r = tool("A", "qzdg  list");
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.out, "partial\n");
  EXPECT_EQ(r.err, "QZVM qzdg ERROR Q-5-1-10128 Configuration daemon error 441\n");
  ok("A", "qzdg list");
  ok("B", "qzdg list");
  EXPECT_NE(adminOk({"fault", "list"}).find("'list'"), std::string::npos);
}

TEST_F(FaultsTest, BusyKTimes) {
  adminOk({"fault", "busy", "--host", "A", "--match", "vol1", "--count", "2"});
  EXPECT_EQ(tool("A", "qzvol -g dg1 stop vol1").status, 31);
  CommandResult r = tool("A", "qzvol -g dg1 stop vol1");
  EXPECT_EQ(r.status, 31);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-304 ")) << r.err;
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");  // nothing changed
  ok("A", "qzvol -g dg1 stop vol1");
}

TEST_F(FaultsTest, NewDisksStayInvisibleForKScans) {
  adminOk({"disk", "add", "--hosts", "B", "--size", "64m"});
  adminOk({"fault", "hide-scans", "--host", "B", "--count", "2"});
  ok("B", "qzdisk scandisks");
  ok("B", "qzdisk -f scandisks new");
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 1u);
  ok("B", "qzdisk scandisks");
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 2u);
}

TEST_F(FaultsTest, LogListsEveryRun) {
  tool("A", "qzdg  list   nosuch");
  std::string log = adminOk({"log", "--host", "A", "--tool", "qzdg"});
  auto rows = lines(log);
  ASSERT_GE(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[0]),
            (std::vector<std::string>{"ID", "HOST", "STATUS", "USEC", "COMMAND"}));
  auto last = splitBlanks(rows.back());
  EXPECT_EQ(last[1], "A");
  EXPECT_EQ(last[2], "11");
  EXPECT_EQ(std::vector<std::string>(last.begin() + 4, last.end()),
            (std::vector<std::string>{"qzdg", "list", "nosuch"}));
  uint64_t usec = 0;
  EXPECT_TRUE(parseUint(last[3], &usec));
  // Set-up ran five tools; the failed list is the sixth run.
  EXPECT_EQ(trim(adminOk({"log", "--total"})), "6");
}

}  // namespace qzsim
