// The source taken out of use on its host and brought back: its group
// deported and imported again, its data and its block device's owner kept.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class AccessTest : public QzfiTest {};

TEST_F(AccessTest, TheSourceGoesOutOfUseAndComesBackWithItsData) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);

  const QzfiRun off = qzfi("A", {"access", "off", "--record", record()});
  ASSERT_EQ(off.status, 0) << off;
  EXPECT_THAT(off.out, HasSubstr("  disableAccess "));
  EXPECT_TRUE(groups("A").empty());
  EXPECT_EQ(readRecord()["source_access"], "off");

  const std::string before = qztest::readFile(record());
  const long runs = toolRuns();
  const QzfiRun again = qzfi("A", {"access", "off", "--record", record()});
  EXPECT_EQ(again.status, 3) << again;
  EXPECT_THAT(again.err, HasSubstr("access to /dev/qz/dsk/dg1/vol1 is off already (record " +
                                   record() + "); nothing was changed"));
  EXPECT_EQ(qztest::readFile(record()), before);
  EXPECT_EQ(toolRuns(), runs);

  const QzfiRun on = qzfi("A", {"access", "on", "--record", record()});
  ASSERT_EQ(on.status, 0) << on;
  EXPECT_THAT(on.out, HasSubstr("  enableAccess "));
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_EQ(readRecord()["source_access"], "on");
  EXPECT_EQ(checksum("A", "dg1", "vol1"), m_sourceSum);
  // The plug-in gives back the owner of the block device, which names the
  // volume in the record.
  EXPECT_EQ(ownerOf("A", "/dev/qz/dsk/dg1/vol1"), "1001:1002");
  expectConsistent();
}

}  // namespace
