// What qzfi refuses, with the exit code its help gives and nothing changed:
// a plug-in that cannot be loaded or started, a record at the wrong step or
// of another plug-in, an object the plug-in does not claim.
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class RefusalTest : public QzfiTest {};

TEST_F(RefusalTest, AWrongCommandLineIsAUsageError) {
  const QzfiRun run = qzfi("A", {"import", "--record", record()});
  EXPECT_EQ(run.status, 2) << run;
  EXPECT_EQ(run.err,
            "qzfi: import: --secondary DISK[,DISK...] is required\n"
            "(qzfi help lists the commands)\n");
  const QzfiRun help = qzfi("A", {"help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("Exit codes:"));
}

TEST_F(RefusalTest, APluginThatIsNotThereIsNamed) {
  const QzfiRun run = qzfi("A", {"--plugin", "nosuch", "info"});
  EXPECT_EQ(run.status, 4) << run;
  EXPECT_THAT(run.err, HasSubstr("qzfi info: no plug-in nosuch at "));
  EXPECT_THAT(run.err, HasSubstr("/qzfi/plugins/libnosuch.so"));
}

TEST_F(RefusalTest, APluginDoesNotStartWhereItsVolumeManagerIsMissing) {
  admin({"host", "add", "D", "--not-installed"});
  const QzfiRun info = qzfi("D", {"info"});
  EXPECT_EQ(info.status, 5) << info;
  EXPECT_THAT(info.out, HasSubstr("release:           Brovik_"));
  EXPECT_THAT(info.err, HasSubstr("the plug-in qzvmfi did not start (init returned 30)"));
  // After a failed init, nothing else is asked of the plug-in.
  const QzfiRun json = qzfi("D", {"info", "--json"});
  EXPECT_EQ(json.status, 5) << json;
  ASSERT_EQ(json.json()["steps"].size(), 1u) << json;
  EXPECT_EQ(json.json()["steps"][0]["step"], "init");
  EXPECT_EQ(json.json()["steps"][0]["ok"], false);
  EXPECT_EQ(json.json()["started"], false);
  const QzfiRun prepared = qzfi("D", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
  EXPECT_EQ(prepared.status, 5) << prepared;
  EXPECT_FALSE(std::ifstream(record()).good());
}

TEST_F(RefusalTest, APluginWithoutItsConfigurationFolderNamesItAndTheVariable) {
  const std::string missing = root() + "/no-config";
  const qzsim::CommandResult info =
      sandboxed("A", {"env", "QZFI_CONFIG_DIR=" + missing, QZFI_BINARY, "info"});
  EXPECT_EQ(info.status, 5) << info.out << info.err;
  EXPECT_THAT(info.err, HasSubstr("qzfi info: the plug-in qzvmfi did not start (init returned 30): "
                                  "its configuration folder " +
                                  missing +
                                  " does not exist; make it, or name another in "
                                  "QZFI_CONFIG_DIR\n"));
  // The plug-in's own reason is read through get_last_error.
  EXPECT_THAT(info.err,
              HasSubstr("error MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION: Unhandled framework "
                        "error : Serious error, the directory for the config file could "
                        "not be determined or doesn't exist."));
  EXPECT_THAT(info.err, HasSubstr("error MSG_ERROR_INITIALIZATION_FAILED: The qzvmfi plug-in could "
                                  "not be initialised."));
}

TEST_F(RefusalTest, AnObjectThePluginDoesNotClaimIsNeitherClaimedNorPrepared) {
  makeSource();
  EXPECT_EQ(qzfi("A", {"claim", "/dev/qz/dsk/dg1/vol1"}).status, 0);
  EXPECT_EQ(qzfi("A", {"claim", "/dev/qz/rdsk/dg1/vol1"}).status, 0);
  const QzfiRun notOurs = qzfi("A", {"claim", "/dev/sdb"});
  EXPECT_EQ(notOurs.status, 1) << notOurs;
  EXPECT_THAT(notOurs.out, HasSubstr("/dev/sdb: not claimed by qzvmfi"));
  const QzfiRun prepared = qzfi("A", {"prepare", "/dev/sdb", "--record", record()});
  EXPECT_EQ(prepared.status, 6) << prepared;
  EXPECT_THAT(prepared.err, HasSubstr("claim failed: /dev/sdb is not claimed by qzvmfi"));
  EXPECT_FALSE(std::ifstream(record()).good());
}

TEST_F(RefusalTest, ARecordIsNeverOverwrittenByANewBackup) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const std::string before = qztest::readFile(record());
  const QzfiRun again = qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
  EXPECT_EQ(again.status, 3) << again;
  EXPECT_THAT(again.err, HasSubstr("exists already: a new backup needs a new record"));
  EXPECT_EQ(qztest::readFile(record()), before);
}

TEST_F(RefusalTest, StepsOutOfOrderAreRefusedBeforeAnyToolRuns) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const long runs = toolRuns();
  const QzfiRun early =
      qzfi("B", {"import", "--record", record(), "--secondary", "/dev/sdf,/dev/sdg"});
  EXPECT_EQ(early.status, 3) << early;
  EXPECT_THAT(early.err,
              HasSubstr("the record is at the step \"prepared\", not deported or moved"));
  const QzfiRun release = qzfi("B", {"--json", "release", "--record", record()});
  EXPECT_EQ(release.status, 3);
  const Json json = release.json();
  EXPECT_EQ(json["exit_code"], 3);
  EXPECT_EQ(json["result"], "record unusable");
  EXPECT_THAT(json["error"].get<std::string>(), HasSubstr("nothing was changed"));
  EXPECT_EQ(toolRuns(), runs);
}

TEST_F(RefusalTest, ARecordOfAnotherPluginIsRefused) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const QzfiRun other =
      qzfi("A", {"--plugin", "/opt/fi/libotherfi.so", "deport", "--record", record()});
  EXPECT_EQ(other.status, 3) << other;
  EXPECT_THAT(other.err, HasSubstr("was made through the plug-in qzvmfi, not otherfi"));
}

TEST_F(RefusalTest, ADamagedRecordIsNamed) {
  std::ofstream(record()) << "{\"format\": \"qzfi snapshot record\", \"version\": 1";
  const QzfiRun run = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(run.status, 3) << run;
  EXPECT_THAT(run.err, StartsWith("qzfi deport: the record " + record() + " is not valid JSON"));
}

}  // namespace
