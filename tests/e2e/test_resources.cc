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
  // Two plain disks seen by host A, by their OS paths.
  qzfi_e2e::Lines plainDisks() {
    qzfi_e2e::Lines paths;
    for (const SimDisk& disk : qzfi_e2e::parseDisks(
             admin({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"}))) {
      paths.push_back("/dev/" + disk.osNames.at(0));
    }
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

  tool("A", "qzdg deport rdg");
  const QzfiRun unformatted = qzfi("A", {"unformat", disks[0], disks[1]});
  ASSERT_EQ(unformatted.status, 0) << unformatted;
  const std::string listing = tool("A", "qzdisk list");
  EXPECT_THAT(listing, Not(HasSubstr("rdg")));
  const QzfiRun asked = qzfi("A", {"online", disks[0]});
  EXPECT_EQ(asked.status, 6) << asked;
  EXPECT_THAT(asked.err, HasSubstr("carries nothing of qzvmfi"));
  expectConsistent();
}

}  // namespace
