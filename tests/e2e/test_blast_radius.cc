// The blast-radius check itself: command lines read as the objects they
// change, fabricated logs judged against a scope, and the check of the
// end-to-end fixture failing a test when a command's window holds a change
// of a group that is not the copy's.
#include <gtest/gtest-spi.h>

#include "qzfi_e2e.h"

namespace {

using qzblast::Judge;
using qzblast::Lun;
using qzblast::parseDiskList;
using qzblast::parseLog;
using qzblast::Target;
using qzblast::targetsOf;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// What a run changes, one "kind:name" (and "+" for a group it makes) each.
Lines changed(const std::string& command) {
  Lines named;
  for (const Target& target : targetsOf(command)) {
    static const char* const kinds[] = {"disk", "group", "group-or-id", "every", "unread"};
    named.push_back(std::string(kinds[target.kind]) + ":" + target.name + (target.made ? "+" : ""));
  }
  return named;
}

TEST(BlastRadiusCommandLines, EachToolRunNamesWhatItChanges) {
  EXPECT_THAT(changed("qzdg init dg1_17 qzarr0_0=qzarr0_2 cds=on"),
              ElementsAre("group:dg1_17+", "disk:qzarr0_2"));
  EXPECT_THAT(changed("qzdg -g dg1_17 adddisk qzarr0_1=qzarr0_3"),
              ElementsAre("group:dg1_17", "disk:qzarr0_3"));
  EXPECT_THAT(changed("qzdg -C -n dg1_17_18 import 1700000078.6.B"),
              ElementsAre("group:dg1_17_18+"));
  EXPECT_THAT(changed("qzdg -C import 1700000039.3.A"), ElementsAre("group-or-id:1700000039.3.A"));
  EXPECT_THAT(changed("qzdg destroy tpu_fiAb12Cd"), ElementsAre("group:tpu_fiAb12Cd"));
  EXPECT_THAT(changed("qzdg deport dg1"), ElementsAre("group:dg1"));
  EXPECT_THAT(changed("qzdg list"), IsEmpty());
  EXPECT_THAT(changed("qzdisk rm qzarr0_2 qzarr0_3"),
              ElementsAre("disk:qzarr0_2", "disk:qzarr0_3"));
  EXPECT_THAT(changed("qzdisk clearimport qzarr0_2"), ElementsAre("disk:qzarr0_2"));
  EXPECT_THAT(
      changed("qzdisk -f init qzarr0_2 type=auto format=cdsdisk privoffset=256 privlen=65536"),
      ElementsAre("disk:qzarr0_2"));
  EXPECT_THAT(changed("qzdisk scandisks device=sdb,sdd"), IsEmpty());
  EXPECT_THAT(changed("qzdisk -s -g dg1 list"), IsEmpty());
  EXPECT_THAT(changed("qzdisksetup -f -i qzarr0_0 format=simple"), ElementsAre("disk:qzarr0_0"));
  EXPECT_THAT(changed("qzdiskunsetup -C qzarr0_1"), ElementsAre("disk:qzarr0_1"));
  EXPECT_THAT(changed("parted -s /dev/sdb mklabel sun"), ElementsAre("disk:/dev/sdb"));
  EXPECT_THAT(changed("qzdmpadm -f disable path=sdc"), ElementsAre("disk:sdc"));
  EXPECT_THAT(changed("qzdmpadm getdmpnode nodename=sdc"), IsEmpty());
  EXPECT_THAT(changed("qzvol -g dg1_17 -U gen start vol1_dcl"), ElementsAre("group:dg1_17"));
  EXPECT_THAT(changed("qzvol -g rdg stopall"), ElementsAre("group:rdg"));
  EXPECT_THAT(changed("qzvol startall"), ElementsAre("every:every group"));
  EXPECT_THAT(changed("qzvset -g dg1_17 start set1"), ElementsAre("group:dg1_17"));
  EXPECT_THAT(changed("qzassist -g rdg make rvol 130560"), ElementsAre("group:rdg"));
  EXPECT_THAT(changed("qzassist -g rdg -p maxsize"), IsEmpty());
  EXPECT_THAT(changed("qzmake -g dg1_17 -d /tmp/tpu_fiWsRHfT"), ElementsAre("group:dg1_17"));
  EXPECT_THAT(changed("qzcdsconvert -g dg1"), IsEmpty());
  EXPECT_THAT(changed("qzdg frobnicate dg1"), ElementsAre("unread:qzdg frobnicate dg1"));
}

// Host A holds the source dg1 on lun1 and lun2 and another group dg2 on
// lun5; the array copied lun1 and lun2 to lun3 and lun4, seen by host B.
const char* const kArray =
    "LUN   NODE      SIZE    FORMAT        GROUP   LOCK  COPYOF  PATHS        DGID\n"
    "lun1  qzarr0_0  131072  auto:cdsdisk  dg1     A     -       A:sdb,A:sdc  1700000039.3.A\n"
    "lun2  qzarr0_1  131072  auto:cdsdisk  dg1     A     -       A:sdd,A:sde  1700000039.3.A\n"
    "lun3  qzarr0_2  131072  auto:cdsdisk  dg1_17  B     lun1    B:sdb        1700000078.6.B\n"
    "lun4  qzarr0_3  131072  auto:cdsdisk  dg1_17  B     lun2    B:sdd        1700000078.6.B\n"
    "lun5  qzarr0_4  131072  auto:cdsdisk  dg2     A     -       A:sdf        1700000091.7.A\n";

class BlastRadiusJudge : public ::testing::Test {
 protected:
  void SetUp() override {
    m_judge.scope().sourceGroups = {"dg1"};
    m_judge.scope().sourceDisks = {"lun1", "lun2"};
    m_judge.scope().disks = {"lun3", "lun4"};
  }
  Lines judged(const std::string& log, bool onSource = false, const std::string& array = kArray) {
    return m_judge.judge(parseLog("ID  HOST  STATUS  USEC  COMMAND\n" + log), onSource,
                         parseDiskList(array));
  }
  Judge m_judge;
};

TEST_F(BlastRadiusJudge, TheCopysDisksAndTheGroupMadeOnThemPass) {
  EXPECT_THAT(judged("31  B  0  950  qzdisk rm qzarr0_2\n"
                     "32  B  0  950  qzdisk -f init sdd type=auto format=cdsdisk\n"
                     "33  B  0  950  qzdg init dg1_17 qzarr0_0=qzarr0_2 cds=on\n"
                     "34  B  0  950  qzdg -g dg1_17 adddisk qzarr0_1=/dev/sdd\n"
                     "35  B  0  950  qzmake -g dg1_17 -d /tmp/tpu_fiKpnfKw\n"
                     "36  B  0  950  qzvol -g dg1_17 start vol1\n"
                     "37  B  0  950  qzdisk scandisks\n"
                     "38  B  0  950  qzdg -C -n dg1_17_18 import 1700000078.6.B\n"),
              IsEmpty());
}

TEST_F(BlastRadiusJudge, AForeignGroupFailsNamingTheRunAndTheGroup) {
  EXPECT_THAT(judged("40  A  0  950  qzdg deport dg2\n"),
              ElementsAre("run 40 on host A (qzdg deport dg2) changes the group dg2, which is on "
                          "disks that are not the copy's: lun5"));
  EXPECT_THAT(judged("41  A  0  950  qzvol -g dg2 stop vol1\n"),
              ElementsAre(HasSubstr("run 41 on host A (qzvol -g dg2 stop vol1) changes the group "
                                    "dg2")));
  // Destroyed, it is on no disk any more, and was never made on the copy.
  EXPECT_THAT(judged("42  B  0  950  qzdg destroy dg1_99\n"),
              ElementsAre("run 42 on host B (qzdg destroy dg1_99) changes the group dg1_99, which "
                          "no disk carries and which no command was seen making on the copy's "
                          "disks"));
  // An import that makes a group on disks that are not the copy's.
  EXPECT_THAT(judged("43  A  0  950  qzdg -C -n dg2_5 import 1700000091.7.A\n", false,
                     std::string(kArray) +
                         "lun6  qzarr0_5  131072  auto:cdsdisk  dg2_5  A  -  A:sdg  17.8.A\n"),
              ElementsAre(HasSubstr("changes the group dg2_5, which is on disks that are not the "
                                    "copy's: lun6")));
}

TEST_F(BlastRadiusJudge, TheSourceOnlyInCommandsThatActOnIt) {
  const std::string log =
      "50  A  0  950  qzdg deport dg1\n"
      "51  A  0  950  qzdisk rm sdb\n"
      "52  A  0  950  qzdg -C import 1700000039.3.A\n";
  EXPECT_THAT(judged(log, true), IsEmpty());
  EXPECT_THAT(judged(log, false),
              ElementsAre("run 50 on host A (qzdg deport dg1) changes the source group dg1, in a "
                          "command that does not act on the source",
                          "run 51 on host A (qzdisk rm sdb) changes the disk sdb (lun1), a disk "
                          "of the source, in a command that does not act on the source",
                          "run 52 on host A (qzdg -C import 1700000039.3.A) changes the source "
                          "group dg1, in a command that does not act on the source"));
}

TEST_F(BlastRadiusJudge, DisksAndIdsAreReadAsTheArrayListedThemBefore) {
  judged("");
  // The copy's paths on B and its group are gone since: its names and its
  // id are still read.
  const std::string gone =
      "LUN   NODE      SIZE    FORMAT        GROUP  LOCK  COPYOF  PATHS        DGID\n"
      "lun1  qzarr0_0  131072  auto:cdsdisk  dg1    A     -       A:sdb,A:sdc  1700000039.3.A\n"
      "lun3  qzarr0_2  131072  auto:none     -      -     lun1    -            -\n";
  EXPECT_THAT(judged("60  B  0  950  qzdisk rm sdb\n"
                     "61  B  0  950  qzdg -C import 1700000078.6.B\n"
                     "62  B  0  950  qzdg destroy dg1_17\n",
                     false, gone),
              IsEmpty());
  EXPECT_THAT(judged("63  B  0  950  qzdisk rm sdz\n", false, gone),
              ElementsAre("run 63 on host B (qzdisk rm sdz) changes the disk sdz, which no LUN of "
                          "the array has"));
  EXPECT_THAT(judged("64  B  0  950  qzvol startall\n"),
              ElementsAre("run 64 on host B (qzvol startall) changes every group of the host"));
}

class BlastRadiusTest : public QzfiTest {};

// A change of the source group in a qzfi command's window fails the test,
// naming the run; the same change in a command that acts on the source
// passes.
TEST_F(BlastRadiusTest, AChangeOfTheSourceInACommandsWindowFailsTheTest) {
  makeSource();
  const Lines release = {"release", "--record", record()};
  long mark = blastMark("A", release);
  tool("A", "qzvol -g dg1 stop vol1");
  const long run = toolRuns();
  EXPECT_NONFATAL_FAILURE(expectWithinBlastRadius(mark, release),
                          "qzfi release --record " + record() + ": outside the blast radius: run " +
                              std::to_string(run) +
                              " on host A (qzvol -g dg1 stop vol1) changes the source group dg1, "
                              "in a command that does not act on the source");
  mark = blastMark("A", {"access", "on", "--record", record()});
  tool("A", "qzvol -g dg1 start vol1");
  expectWithinBlastRadius(mark, {"access", "on", "--record", record()});
  // A run that changes nothing is not judged.
  mark = blastMark("A", release);
  tool("A", "qzdg list");
  expectWithinBlastRadius(mark, release);
}

}  // namespace
