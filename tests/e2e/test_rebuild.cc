// The main flow: the source's disks split to host B, the copy rebuilt there
// from the record under a new group, backed up and released.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

class RebuildTest : public QzfiTest {};

TEST_F(RebuildTest, TheCopyOnAnotherHostHoldsTheSourceAtSplitTimeAndGoesAwayAfter) {
  makeSource();

  const QzfiRun prepared = qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
  ASSERT_EQ(prepared.status, 0) << prepared;
  Json rec = readRecord();
  EXPECT_EQ(rec["step"], "prepared");
  EXPECT_EQ(rec["plugin"], "qzvmfi");
  EXPECT_EQ(rec["object"], "/dev/qz/dsk/dg1/vol1");
  EXPECT_EQ(rec["owner"], Json({{"uid", 1001}, {"gid", 1002}}));
  EXPECT_THAT(rec["sub_objects"], SizeIs(2));
  EXPECT_THAT(rec["provider_state"]["text"].get<std::string>(), HasSubstr("fiid_dgconfig"));
  EXPECT_THAT(prepared.out, HasSubstr("  initNode "));
  EXPECT_THAT(prepared.out, HasSubstr("prepare: done in "));

  const std::string secondary = splitTo("B");
  admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "8"});
  const std::string sourceNow = checksum("A", "dg1", "vol1");
  ASSERT_NE(sourceNow, m_sourceSum);

  const QzfiRun deported = qzfi("A", {"--json", "deport", "--record", record()});
  ASSERT_EQ(deported.status, 0) << deported;
  const Json deport = deported.json();
  EXPECT_EQ(deport["result"], "done");
  Lines steps;
  for (const Json& step : deport["steps"]) {
    steps.push_back(step["step"]);
  }
  EXPECT_THAT(steps, ElementsAre("init", "processProviderState", "deportTree", "postDeport",
                                 "processProviderState"));
  EXPECT_EQ(readRecord()["step"], "deported");
  EXPECT_EQ(readRecord()["deported_object"], "/dev/qz/dsk/dg1/vol1");

  const QzfiRun imported =
      qzfi("B", {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  const std::string copy = qzfi_e2e::linesOf(imported.out).at(0);
  const auto [copyGroup, copyVolume] = groupAndVolume(copy);
  EXPECT_NE(copyGroup, "dg1");
  EXPECT_EQ(copyVolume, "vol1");
  EXPECT_EQ(checksum("B", copyGroup, copyVolume), m_sourceSum);
  EXPECT_EQ(ownerOf("B", "/dev/qz/dsk/" + copyGroup + "/vol1"), "1001:1002");
  EXPECT_EQ(ownerOf("B", "/dev/qz/rdsk/" + copyGroup + "/vol1"), "1001:1002");
  rec = readRecord();
  EXPECT_EQ(rec["step"], "imported");
  EXPECT_EQ(rec["alternate"]["object"], copy);
  EXPECT_EQ(rec["alternate"]["secondary"].size(), 2u);
  // The source is untouched by all of it.
  EXPECT_EQ(checksum("A", "dg1", "vol1"), sourceNow);
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));

  const QzfiRun released = qzfi("B", {"release", "--record", record()});
  ASSERT_EQ(released.status, 0) << released;
  EXPECT_THAT(released.out, HasSubstr("  dispose "));
  EXPECT_TRUE(groups("B").empty());
  EXPECT_EQ(readRecord()["step"], "released");
  EXPECT_EQ(ownerOf("B", copy), "missing");
  expectConsistent();
}

TEST_F(RebuildTest, TheRawPathOfTheCopyOnRequest) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const QzfiRun imported =
      qzfi("B", {"--json", "import", "--record", record(), "--secondary", secondary, "--raw"});
  ASSERT_EQ(imported.status, 0) << imported;
  const Json json = imported.json();
  const std::string block = json["block_device"];
  EXPECT_EQ(json["device"], json["raw_device"]);
  EXPECT_EQ(json["raw_device"], "/dev/qz/rdsk/" + block.substr(std::string("/dev/qz/dsk/").size()));
  EXPECT_EQ(json["owner"]["block"], "1001:1002");
  EXPECT_EQ(json["owner"]["raw"], "1001:1002");
  // The expected "no" of the volume manager on the way is kept, with its
  // severity, in a step that succeeded.
  bool noted = false;
  for (const Json& step : json["steps"]) {
    for (const Json& message : step["messages"]) {
      EXPECT_TRUE(step["ok"]) << step;
      noted = noted ||
              (message["id"] == "MSG_ERROR_COMMAND_FAILED" && message["severity"] == "error" &&
               message["text"].get<std::string>().find("qzdg   list dg1 ") != std::string::npos);
    }
  }
  EXPECT_TRUE(noted) << imported;
  EXPECT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
}

// A successful import prints no error lines; --verbose, given after the
// command as users type it, shows what the plug-in reported on the way as
// notes.
TEST_F(RebuildTest, ASuccessfulImportPrintsNotesOnlyWhenAsked) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const QzfiRun imported =
      qzfi("B", {"import", "--record", record(), "--secondary", secondary, "--verbose"});
  ASSERT_EQ(imported.status, 0) << imported;
  EXPECT_EQ(imported.err, "");
  EXPECT_THAT(imported.out, HasSubstr("\n    note MSG_ERROR_COMMAND_FAILED: executeCommand: a "
                                      "volume manager command failed: /usr/sbin/qzdg   list dg1 "));
  EXPECT_THAT(imported.out, Not(HasSubstr("    error ")));
  EXPECT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
}

TEST_F(RebuildTest, ASecondReleaseIsRefusedAndChangesNothing) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const QzfiRun imported = qzfi("B", {"import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  // A successful step prints no error lines.
  EXPECT_EQ(imported.err, "");
  EXPECT_THAT(imported.out, Not(HasSubstr("MSG_ERROR")));
  ASSERT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
  const std::string before = qztest::readFile(record());
  const long runs = toolRuns();

  const QzfiRun again = qzfi("B", {"release", "--record", record()});
  EXPECT_EQ(again.status, 3) << again;
  EXPECT_THAT(again.err, HasSubstr("qzfi release: the copy "));
  EXPECT_THAT(again.err,
              HasSubstr(" was released already (record " + record() + "); nothing was changed"));
  EXPECT_EQ(qztest::readFile(record()), before);
  EXPECT_EQ(toolRuns(), runs);
}

TEST_F(RebuildTest, AnImportWithTheWrongNumberOfDisksIsRefusedAndChangesNothing) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const std::string one = secondary.substr(0, secondary.find(','));
  const std::string before = qztest::readFile(record());
  const long runs = toolRuns();

  const QzfiRun refused = qzfi("B", {"import", "--record", record(), "--secondary", one});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("has 2 sub-objects"));
  EXPECT_THAT(refused.err, HasSubstr("but 1 secondary disks were given: give one split disk per "
                                     "sub-object, in the same order; nothing was changed"));
  EXPECT_EQ(qztest::readFile(record()), before);
  EXPECT_EQ(toolRuns(), runs);
  EXPECT_TRUE(groups("B").empty());

  // The right disks still work afterwards.
  EXPECT_EQ(qzfi("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
}

}  // namespace
