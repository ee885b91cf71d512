#include <thread>

#include "db.h"
#include "sim_test.h"

namespace qzsim {

// Two hosts running tools at the same time on one storage network.
class ConcurrencyTest : public SimTest {};

TEST_F(ConcurrencyTest, TwoHostsRunning200CommandsEachLeaveAConsistentDatabase) {
  adminOk({"host", "add", "A"});
  adminOk({"host", "add", "B"});
  addDisks(2, "A");
  addDisks(2, "B");
  makeGroup("A", "dga", {"qzarr0_0", "qzarr0_1"});
  makeGroup("B", "dgb", {"qzarr0_2", "qzarr0_3"});
  auto work = [this](const std::string& host, const std::string& dg, int* failures) {
    const std::vector<std::string> cycle = {"qzdg list",
                                            "qzdisk list",
                                            "qzprint -vpsc -g " + dg + " -m",
                                            "qzassist -g " + dg + " make v%d 64",
                                            "qzvol -g " + dg + " stop v%d",
                                            "qzinfo -g " + dg + " v%d",
                                            "qzvol -g " + dg + " start v%d",
                                            "qzdg flush " + dg,
                                            "qzdisk -s -g " + dg + " list",
                                            "qzassist -g " + dg + " -p maxsize"};
    for (int i = 0; i < 200; ++i) {
      std::string cmd = cycle[static_cast<size_t>(i) % cycle.size()];
      size_t at = cmd.find("%d");
      if (at != std::string::npos)
        cmd.replace(at, 2, std::to_string(i / static_cast<int>(cycle.size())));
      if (simTool(root, host, cmd).status != 0)
        ++*failures;
    }
  };
  int failA = 0, failB = 0;
  std::thread a(work, "A", "dga", &failA);
  std::thread b(work, "B", "dgb", &failB);
  a.join();
  b.join();
  EXPECT_EQ(failA, 0);
  EXPECT_EQ(failB, 0);
  CommandResult check = admin({"check"});
  EXPECT_EQ(check.status, 0) << check.out;
  EXPECT_EQ(lines(ok("A", "qzprint -g dga -v")).size(), 21u);
  EXPECT_EQ(trim(adminOk({"log", "--host", "B", "--total"})), std::to_string(200 + 4));
}

TEST_F(ConcurrencyTest, CheckFindsABrokenDatabase) {
  adminOk({"host", "add", "A"});
  addDisks(1, "A");
  makeGroup("A", "dga", {"qzarr0_0"});
  EXPECT_EQ(admin({"check"}).status, 0);
  // Another host's configuration copy no longer agrees with the import.
  Db db(root + "/qzsim.db");
  db.exec("UPDATE disks SET dgname='other'");
  CommandResult r = admin({"check"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("PROBLEM"), std::string::npos);
}

}  // namespace qzsim
