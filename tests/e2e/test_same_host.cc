// The copy rebuilt on the source's own host, beside the source group.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class SameHostTest : public QzfiTest {};

TEST_F(SameHostTest, TheCopyStandsBesideTheSourceWhichStaysAsItWas) {
  makeSource();
  const std::string diskGroupBefore = tool("A", "qzdisk -g dg1 list");
  const std::string secondary = prepareSplitDeport("A");
  const std::string sourceNow = checksum("A", "dg1", "vol1");

  const QzfiRun imported =
      qzfi("A", {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  const std::string copy = qzfi_e2e::linesOf(imported.out).at(0);
  const auto [group, volume] = groupAndVolume(copy);
  EXPECT_THAT(groups("A"), UnorderedElementsAre("dg1", group));
  EXPECT_EQ(checksum("A", group, volume), m_sourceSum);
  EXPECT_EQ(checksum("A", "dg1", "vol1"), sourceNow);
  EXPECT_EQ(tool("A", "qzdisk -g dg1 list"), diskGroupBefore);
  EXPECT_EQ(ownerOf("A", copy), "1001:1002");
  EXPECT_EQ(ownerOf("A", "/dev/qz/dsk/dg1/vol1"), "1001:1002");

  const QzfiRun released = qzfi("A", {"release", "--record", record()});
  ASSERT_EQ(released.status, 0) << released;
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_EQ(checksum("A", "dg1", "vol1"), sourceNow);
  expectConsistent();
}

}  // namespace
