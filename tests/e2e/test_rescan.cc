// A failed import takes the split disks out of the host's view: qzfi says
// so and names the rescan that brings them back; after the rescan the same
// import succeeds with the source's data on the copy.
#include <algorithm>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::HasSubstr;
using ::testing::Not;

class RescanTest : public QzfiTest {
 protected:
  // Whether the OS device exists on host.
  bool present(const std::string& host, const std::string& device) {
    return sandboxed(host, {"test", "-e", device}).status == 0;
  }
};

TEST_F(RescanTest, AFailedImportSaysTheDisksAreGoneAndARescanBringsThemBackForTheRetry) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const Lines disks = qzfi_e2e::words([&] {
    std::string spaced = secondary;
    std::replace(spaced.begin(), spaced.end(), ',', ' ');
    return spaced;
  }());
  ASSERT_EQ(disks.size(), 2u);
  // The configuration replay fails: the plug-in cleans up, taking the split
  // disks out of the volume manager's view and deleting their devices.
  admin({"fault", "add", "--host", "B", "--tool", "qzmake", "--status", "9", "--stderr",
         "QZVM qzmake ERROR Q-5-1-99 injected failure\n"});
  const QzfiRun failed =
      qzfiWithoutWaiting("B", {"import", "--record", record(), "--secondary", secondary});
  admin({"fault", "clear"});
  ASSERT_EQ(failed.status, 6) << failed;
  EXPECT_FALSE(present("B", disks[0]));
  EXPECT_FALSE(present("B", disks[1]));
  EXPECT_THAT(failed.err, HasSubstr("the plug-in took the split disks " + disks[0] + " " +
                                    disks[1] + " out of this host's view when the import failed"));
  EXPECT_THAT(failed.err, HasSubstr("a rescan of the host's disks brings them back "
                                    "(echo \"- - -\" > /sys/class/scsi_host/HOST/scan for each "
                                    "SCSI host), then run import again"));
  EXPECT_EQ(readRecord()["step"], "deported");

  // The rescan presents the same paths again, under their names.
  const std::vector<SimDisk> back = qzfi_e2e::parseDisks(admin({"disk", "rescan", "--host", "B"}));
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(osPathsOf(back), secondary);
  EXPECT_TRUE(present("B", disks[0]));
  EXPECT_TRUE(present("B", disks[1]));

  const QzfiRun retried = qzfiWithoutWaiting(
      "B", {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(retried.status, 0) << retried;
  const auto [group, volume] = groupAndVolume(qzfi_e2e::linesOf(retried.out).at(0));
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);
  EXPECT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("B").empty());
  expectConsistent();
}

TEST_F(RescanTest, AFailureThatLeavesTheDisksSaysNothingOfARescan) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  // The volume manager never sees the split disks: nothing of them is
  // removed, the plug-in gives up waiting.
  admin({"fault", "hide-scans", "--host", "B", "--count", "100"});
  const QzfiRun failed =
      qzfiWithoutWaiting("B", {"import", "--record", record(), "--secondary", secondary});
  admin({"fault", "clear"});
  ASSERT_EQ(failed.status, 6) << failed;
  EXPECT_THAT(failed.err, Not(HasSubstr("rescan")));
}

}  // namespace
