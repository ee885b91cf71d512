// What qzfi prints: human lines, the JSON document, and --quiet.
#include "report.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qzfi_host::CReport;
using qzfi_host::Options;
using qzfi_host::PluginMessage;
using qzfi_host::StepOutcome;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
using Json = nlohmann::ordered_json;

StepOutcome step(const std::string& name, bool ok, const std::string& detail, unsigned long runs,
                 std::vector<PluginMessage> messages = {}) {
  StepOutcome outcome;
  outcome.name = name;
  outcome.ok = ok;
  outcome.status = ok ? 0 : 6;
  outcome.seconds = 0.25;
  outcome.counts.toolRuns = runs;
  outcome.counts.toolSeconds = 0.125;
  outcome.counts.waitedSeconds = ok ? 0 : 10;
  outcome.detail = detail;
  outcome.messages = std::move(messages);
  return outcome;
}

const PluginMessage kDeportFailed{"MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP",
                                  "deportTree: unable to deport disk group dg1.", 3, 6042};

class ReportTest : public ::testing::Test {
 protected:
  Options options() {
    Options made;
    made.commandName = "deport";
    return made;
  }
  std::ostringstream out;
  std::ostringstream err;
};

TEST_F(ReportTest, HumanFormTellsEachStepWithTimeAndToolRuns) {
  Options given = options();
  CReport report(given, out, err);
  report.begin("deport /dev/qz/dsk/dg1/vol1 (record r.json)");
  report.step(step("deportTree", true, "configuration kept", 12));
  report.result("record", "r.json", "record: r.json");
  EXPECT_EQ(report.finish(0), 0);
  const std::string text = out.str();
  EXPECT_THAT(text, StartsWith("deport /dev/qz/dsk/dg1/vol1 (record r.json)\n"
                               "  deportTree                0.250 s   12 tool runs  "
                               "configuration kept\n"
                               "record: r.json\n"));
  EXPECT_THAT(text, MatchesRegex(".*\ndeport: done in [0-9.]+ s with 12 tool runs\n"));
  EXPECT_EQ(err.str(), "");
}

TEST_F(ReportTest, AFailureGoesToStandardErrorWithThePluginsMessages) {
  Options given = options();
  CReport report(given, out, err);
  report.begin("deport");
  report.step(step("deportTree", false, "status 6", 3, {kDeportFailed}));
  EXPECT_EQ(report.finish(6, "deportTree failed: status 6"), 6);
  EXPECT_THAT(out.str(), HasSubstr("  deportTree                0.250 s    3 tool runs  FAILED: "
                                   "status 6\n"));
  EXPECT_EQ(err.str(),
            "    error MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP: deportTree: unable to deport disk "
            "group dg1.\n"
            "qzfi deport: deportTree failed: status 6\n");
}

// A tool's expected "no" on the way to a success is no error line.
TEST_F(ReportTest, MessagesOfAStepThatSucceededAreNotPrinted) {
  Options given = options();
  CReport report(given, out, err);
  report.step(step("isParentPgn", true, "carries a group", 10,
                   {{"MSG_ERROR_COMMAND_FAILED", "qzdisk rm failed: in use\n", 3, 6003}}));
  EXPECT_EQ(out.str(), "  isParentPgn               0.250 s   10 tool runs  carries a group\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(ReportTest, VerboseTellsMessagesOfAStepThatSucceededAsNotes) {
  Options given = options();
  given.verbose = true;
  CReport report(given, out, err);
  report.step(step("isParentPgn", true, "carries a group", 10,
                   {{"MSG_ERROR_COMMAND_FAILED", "qzdisk rm failed: in use\n", 3, 6003}}));
  EXPECT_EQ(out.str(),
            "  isParentPgn               0.250 s   10 tool runs  carries a group\n"
            "    note MSG_ERROR_COMMAND_FAILED: qzdisk rm failed: in use\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(ReportTest, QuietPrintsOnlyResultsAndFailures) {
  Options given = options();
  given.quiet = true;
  CReport report(given, out, err);
  report.begin("import");
  report.step(step("importTreeNode", true, "built", 40));
  report.progress("  ... importTreeNode: waiting");
  report.result("record", "r.json", "record: r.json");
  report.answer("device", "/dev/qz/dsk/dg1_1/vol1", "/dev/qz/dsk/dg1_1/vol1");
  report.finish(0);
  EXPECT_EQ(out.str(), "/dev/qz/dsk/dg1_1/vol1\n");
  EXPECT_EQ(err.str(), "");
}

TEST_F(ReportTest, JsonIsOneDocumentWithStepsResultsAndTotals) {
  Options given = options();
  given.json = true;
  CReport report(given, out, err);
  report.begin("deport /dev/qz/dsk/dg1/vol1");
  report.step(step("processProviderState", true, "restored", 0));
  report.step(step("deportTree", false, "status 6", 3, {kDeportFailed}));
  report.progress("  ... deportTree: waiting");
  report.result("record", "r.json", "record: r.json");
  report.finish(6, "deportTree failed: status 6");
  EXPECT_EQ(err.str(), "  ... deportTree: waiting\n");
  const Json json = Json::parse(out.str());
  EXPECT_EQ(json["command"], "deport");
  EXPECT_EQ(json["exit_code"], 6);
  EXPECT_EQ(json["result"], "failed");
  EXPECT_EQ(json["error"], "deportTree failed: status 6");
  EXPECT_EQ(json["tool_runs"], 3);
  EXPECT_EQ(json["tool_seconds"], 0.25);
  EXPECT_EQ(json["waited_seconds"], 10.0);
  EXPECT_EQ(json["record"], "r.json");
  ASSERT_EQ(json["steps"].size(), 2u);
  const Json& failed = json["steps"][1];
  EXPECT_EQ(failed["step"], "deportTree");
  EXPECT_EQ(failed["ok"], false);
  EXPECT_EQ(failed["status"], 6);
  EXPECT_EQ(failed["seconds"], 0.25);
  EXPECT_EQ(failed["messages"][0],
            Json({{"id", "MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP"},
                  {"severity", "error"},
                  {"number", 6042},
                  {"text", "deportTree: unable to deport disk group dg1."}}));
}

TEST_F(ReportTest, JsonHoldsTheMessagesOfAStepThatSucceededWithTheirSeverity) {
  Options given = options();
  given.json = true;
  CReport report(given, out, err);
  report.step(step("importTreeNode", true, "built", 24,
                   {{"MSG_ERROR_COMMAND_FAILED", "qzdg list dg1 failed\n", 3, 6001}}));
  report.finish(0);
  EXPECT_EQ(err.str(), "");
  const Json json = Json::parse(out.str());
  EXPECT_EQ(json["steps"][0]["ok"], true);
  EXPECT_EQ(json["steps"][0]["messages"],
            Json::array({Json({{"id", "MSG_ERROR_COMMAND_FAILED"},
                               {"severity", "error"},
                               {"number", 6001},
                               {"text", "qzdg list dg1 failed\n"}})}));
}

TEST_F(ReportTest, JsonStaysValidWithBytesThatAreNotUtf8) {
  Options given = options();
  given.json = true;
  CReport report(given, out, err);
  report.step(step("deportTree", false, "disk \xff", 0));
  report.finish(6, "failed");
  EXPECT_NO_THROW(Json::parse(out.str()));
}

TEST(Report, SeveritiesHaveNames) {
  EXPECT_STREQ(qzfi_host::severityName(3), "error");
  EXPECT_STREQ(qzfi_host::severityName(2), "warning");
  EXPECT_STREQ(qzfi_host::severityName(1), "note");
}

TEST(Report, ListsAreJoined) {
  EXPECT_EQ(qzfi_host::joined({"/dev/sdb", "/dev/sdd"}), "/dev/sdb /dev/sdd");
  EXPECT_EQ(qzfi_host::joined({"a", "b"}, " or "), "a or b");
  EXPECT_EQ(qzfi_host::joined({}), "");
}

}  // namespace
