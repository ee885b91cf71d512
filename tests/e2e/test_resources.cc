// Plain disks as resources: formatted into a new group with one volume,
// brought online, and made plain again.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class ResourcesTest : public QzfiTest {
 protected:
  // Two plain disks seen by host A and its volume manager, by their OS
  // paths.
  qzfi_e2e::Lines plainDisks() {
    qzfi_e2e::Lines paths;
    for (const SimDisk& disk : qzfi_e2e::parseDisks(
             admin({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"}))) {
      paths.push_back("/dev/" + disk.osNames.at(0));
    }
    tool("A", "qzdisk scandisks");
    return paths;
  }
};

TEST_F(ResourcesTest, PlainDisksBecomeAVolumeComeOnlineAndArePlainAgain) {
  const qzfi_e2e::Lines disks = plainDisks();

  const QzfiRun formatted =
      qzfi("A", {"--quiet", "format", "--group", "rdg", "--volume", "rvol", disks[0], disks[1]});
  ASSERT_EQ(formatted.status, 0) << formatted;
  EXPECT_EQ(formatted.out, "/dev/qz/dsk/rdg/rvol\n");
  EXPECT_THAT(groups("A"), ElementsAre("rdg"));
  admin({"volume", "write", "--host", "A", "rdg", "rvol", "--seed", "3"});
  const std::string written = checksum("A", "rdg", "rvol");

  const QzfiRun onlined = qzfi("A", {"--json", "online", disks[0], disks[1]});
  ASSERT_EQ(onlined.status, 0) << onlined;
  const Json json = onlined.json();
  EXPECT_EQ(json["device"], "/dev/qz/dsk/rdg/rvol");
  EXPECT_EQ(json["steps"][1]["step"], "isParentPgn");
  EXPECT_THAT(json["steps"][1]["detail"].get<std::string>(),
              HasSubstr("carries a disk group of qzvmfi"));
  EXPECT_EQ(checksum("A", "rdg", "rvol"), written);

  // Found on the disks when its group is not imported either.
  tool("A", "qzdg deport rdg");
  const QzfiRun found = qzfi("A", {"--quiet", "online", disks[0], disks[1]});
  ASSERT_EQ(found.status, 0) << found;
  EXPECT_EQ(found.out, "/dev/qz/dsk/rdg/rvol\n");
  EXPECT_EQ(checksum("A", "rdg", "rvol"), written);

  const QzfiRun unformatted = qzfi("A", {"unformat", disks[0], disks[1]});
  ASSERT_EQ(unformatted.status, 0) << unformatted;
  EXPECT_TRUE(groups("A").empty());
  for (const std::string& line : qzfi_e2e::linesOf(admin({"disk", "list"}))) {
    if (line.find("LUN") != 0) {
      EXPECT_THAT(line, HasSubstr(" auto:none ")) << "a disk not plain again";
    }
  }
  const QzfiRun asked = qzfi("A", {"online", disks[0]});
  EXPECT_EQ(asked.status, 6) << asked;
  EXPECT_THAT(asked.err, HasSubstr("carries nothing of qzvmfi"));
  expectConsistent();
}

}  // namespace
