// The intact copy moved on: rebuilt on host B, deported there as a whole
// group, its disks presented to host C and imported there by id.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class MoveTest : public QzfiTest {};

TEST_F(MoveTest, TheCopyMovesOnIntactToAThirdHost) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const QzfiRun imported =
      qzfi("B", {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  const std::string onB = qzfi_e2e::linesOf(imported.out).at(0);

  const QzfiRun moved = qzfi("B", {"move", "--record", record()});
  ASSERT_EQ(moved.status, 0) << moved;
  EXPECT_THAT(moved.out, HasSubstr("  deportTree "));
  EXPECT_TRUE(groups("B").empty());
  EXPECT_EQ(readRecord()["step"], "moved");
  // Released or moved again, a moved copy is refused where it was.
  const QzfiRun again = qzfi("B", {"release", "--record", record()});
  EXPECT_EQ(again.status, 3) << again;
  EXPECT_THAT(again.err, HasSubstr("was moved on: import it on the host that has its disks"));

  // The array presents the copy's disks to C instead of B.
  const std::vector<SimDisk> onC = presentCopiesTo("B", "C");
  const QzfiRun reimported =
      qzfi("C", {"--json", "import", "--record", record(), "--secondary", osPathsOf(onC)});
  ASSERT_EQ(reimported.status, 0) << reimported;
  const Json json = reimported.json();
  const std::string onCopy = json["device"];
  EXPECT_THAT(json["steps"][2]["detail"].get<std::string>(),
              HasSubstr("the intact group imported: "));
  const auto [group, volume] = groupAndVolume(onCopy);
  EXPECT_EQ(checksum("C", group, volume), m_sourceSum);
  EXPECT_EQ(ownerOf("C", onCopy), "1001:1002");
  const Json rec = readRecord();
  EXPECT_EQ(rec["step"], "imported");
  EXPECT_EQ(rec["alternate"]["object"], onCopy);
  ASSERT_EQ(rec["earlier_copies"].size(), 1u);
  EXPECT_EQ(rec["earlier_copies"][0]["object"], onB);

  ASSERT_EQ(qzfi("C", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("C").empty());
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  expectConsistent();
}

}  // namespace
