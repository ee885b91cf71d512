// Split disks that the volume manager sees late: the plug-in waits for them
// and qzfi says so while it waits. The plug-in's wait is real here (qzfi is
// the program a user runs): one pause of the plug-in's retry interval.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

class WaitTest : public QzfiTest {};

TEST_F(WaitTest, AProgressLineTellsTheWaitForDisksToAppear) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  admin({"fault", "hide-scans", "--host", "B", "--count", "1"});

  const QzfiRun imported =
      qzfi("B", {"--json", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  EXPECT_THAT(imported.err,
              ContainsRegex("  \\.\\.\\. importTreeNode: waiting for disks to appear, "
                            "[0-9]+ s so far \\([0-9]+ tool runs\\)"));
  const Json json = imported.json();
  EXPECT_GE(json["waited_seconds"].get<double>(), 5.0);
  const auto [group, volume] = groupAndVolume(json["device"]);
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);
  EXPECT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
}

}  // namespace
