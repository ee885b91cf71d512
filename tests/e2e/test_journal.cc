// The journal through a whole flow on the simulator: each host's journal
// (QZFI_LOG_DIR of the host's sandbox) holds one valid JSON line per
// changing command run there, a refusal's with its reason, the commands of
// the host's agent written by the agent, and after qzfi is killed half-way
// and run again, the line of the stopped command says so.
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <regex>

#include "agent_process.h"
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

class JournalTest : public qzfi_e2e::QzfiTest {
 protected:
  std::string journalOf(const std::string& host) {
    return root() + "/hosts/" + host + "/qzfi_log/journal.json";
  }

  // The host's journal, each line read as JSON (a line that is not fails).
  std::vector<Json> entriesOf(const std::string& host) {
    std::vector<Json> entries;
    for (const std::string& line : qzfi_e2e::linesOf(qztest::readFile(journalOf(host)))) {
      if (!Json::accept(line)) {
        ADD_FAILURE() << host << ": not a JSON line: " << line;
        continue;
      }
      entries.push_back(Json::parse(line));
    }
    return entries;
  }

  // What an entry says of its command: "release 3 record unusable".
  static std::string outcomeOf(const Json& entry) {
    return entry.value("command", "") + " " +
           (entry.contains("exit_code") ? std::to_string(entry["exit_code"].get<int>()) : "-") +
           " " + entry.value("result", "");
  }

  static std::vector<std::string> outcomesOf(const std::vector<Json>& entries) {
    std::vector<std::string> outcomes;
    for (const Json& entry : entries) {
      outcomes.push_back(outcomeOf(entry));
    }
    return outcomes;
  }

  std::string realRecord() {
    char* real = realpath(record().c_str(), nullptr);
    const std::string path = real != nullptr ? real : record();
    free(real);
    return path;
  }

  std::string importFromB(const std::string& secondary) {
    return "import --record " + record() + " --secondary " + secondary;
  }
};

TEST_F(JournalTest, HoldsOneLinePerChangingCommandAndARefusalsReason) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const QzfiRun refused = qzfi("A", {"release", "--record", record()});
  ASSERT_EQ(refused.status, 3) << refused;
  ASSERT_EQ(qzfi("B", {"info"}).status, 0);
  const QzfiRun imported = qzfi("B", {"import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  const QzfiRun released = qzfi("B", {"release", "--record", record()});
  ASSERT_EQ(released.status, 0) << released;

  const std::vector<Json> onA = entriesOf("A");
  const std::vector<Json> onB = entriesOf("B");
  EXPECT_THAT(outcomesOf(onA), ::testing::ElementsAre("prepare 0 done", "deport 0 done",
                                                      "release 3 record unusable"));
  EXPECT_THAT(outcomesOf(onB), ::testing::ElementsAre("import 0 done", "release 0 done"));
  ASSERT_EQ(onA.size(), 3u);
  ASSERT_EQ(onB.size(), 2u);
  EXPECT_EQ(onA[0]["arguments"], Json({"prepare", kVol1, "--record", record()}));
  EXPECT_EQ(onB[0]["arguments"], Json({"import", "--record", record(), "--secondary", secondary}));
  const std::string why = refused.err.substr(std::string("qzfi release: ").size());
  EXPECT_EQ(onA[2]["reason"].get<std::string>() + "\n", why);
  for (const auto& [host, entries] : {std::make_pair("A", onA), std::make_pair("B", onB)}) {
    for (const Json& entry : entries) {
      EXPECT_EQ(entry["host"]["name"], host);
      EXPECT_EQ(entry["uid"], static_cast<long long>(getuid()));
      EXPECT_EQ(entry["record"], realRecord());
      EXPECT_FALSE(entry.contains("found_by"));
    }
  }
  EXPECT_GT(onB[0]["tool_runs"].get<unsigned long>(), 0u);
  EXPECT_EQ(onA[2]["tool_runs"], 0);

  const QzfiRun printed = qzfi("A", {"journal", "--record", record()});
  ASSERT_EQ(printed.status, 0) << printed;
  const Lines lines = qzfi_e2e::linesOf(printed.out);
  ASSERT_EQ(lines.size(), 3u) << printed;
  const std::string who =
      " A " + onA[0]["user"].get<std::string>() + "\\(" + std::to_string(getuid()) + "\\): qzfi ";
  const std::string stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z";
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(stamp + who + "prepare " + kVol1 +
                                                    " --record [^ ]+ => done, exit 0, [0-9]+ tool "
                                                    "runs, [0-9]+\\.[0-9]{3} s")))
      << lines[0];
  const size_t reasonAt = lines[2].find(" s: ");
  ASSERT_NE(reasonAt, std::string::npos) << lines[2];
  EXPECT_EQ(lines[2].substr(reasonAt + 4) + "\n", why);
  EXPECT_TRUE(std::regex_match(lines[2].substr(0, reasonAt + 2),
                               std::regex(stamp + who +
                                          "release --record [^ ]+ => record unusable, exit 3, 0 "
                                          "tool runs, [0-9]+\\.[0-9]{3} s")))
      << lines[2];
}

TEST_F(JournalTest, TheLineOfAKilledCommandSaysItStopped) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const Lines import = {"import", "--record", record(), "--secondary", secondary};
  admin({"fault", "kill", "--host", "B", "--nth", "3"});
  const QzfiRun killed = qzfiWithoutWaiting("B", import);
  admin({"fault", "clear"});
  ASSERT_EQ(killed.status, 128 + SIGKILL) << killed;
  const QzfiRun again = qzfiWithoutWaiting("B", import);
  ASSERT_EQ(again.status, 0) << again;

  const std::vector<Json> onB = entriesOf("B");
  EXPECT_THAT(outcomesOf(onB), ::testing::ElementsAre("import - stopped", "import 0 done"));
  ASSERT_EQ(onB.size(), 2u);
  const Json& stopped = onB[0];
  const Json& found = onB[1];
  EXPECT_EQ(stopped["arguments"], Json(import));
  EXPECT_NE(stopped["pid"], found["pid"]);
  EXPECT_LE(stopped["time"].get<std::string>(), found["time"].get<std::string>());
  EXPECT_FALSE(stopped.contains("tool_runs"));
  EXPECT_EQ(stopped["found_by"],
            Json({{"command", "import"}, {"pid", found["pid"]}, {"time", found["time"]}}));
  const std::string reason =
      "it did not finish (killed, or its host went down); its mark was "
      "found by import (pid " +
      std::to_string(found["pid"].get<long>()) + ") at " + found["time"].get<std::string>();
  EXPECT_EQ(stopped["reason"], reason);

  const QzfiRun printed = qzfi("B", {"journal"});
  const Lines lines = qzfi_e2e::linesOf(printed.out);
  ASSERT_EQ(lines.size(), 2u) << printed;
  EXPECT_THAT(lines[0], ::testing::EndsWith(" => stopped: " + reason));
  EXPECT_THAT(lines[1], ::testing::HasSubstr(" => done, exit 0, "));
}

// The agent writes the lines of the commands it runs, with its client's uid.
TEST_F(JournalTest, TheAgentWritesTheLinesOfItsCommands) {
  const std::string run = root() + "/run";
  ASSERT_EQ(0, mkdir(run.c_str(), 0700));
  makeSource();
  qzfi_e2e::CAgentProcess agent(root(), "A", run);
  ASSERT_EQ("", agent.error());
  const Lines prepare = {"prepare", kVol1, "--record", record()};
  const QzfiRun prepared = checked("", prepare, [&] { return viaAgent(agent, prepare); });
  ASSERT_EQ(prepared.status, 0) << prepared;
  splitTo("B");
  const Lines deport = {"deport", "--record", record()};
  const QzfiRun deported = checked("", deport, [&] { return viaAgent(agent, deport); });
  ASSERT_EQ(deported.status, 0) << deported;

  const std::vector<Json> onA = entriesOf("A");
  EXPECT_THAT(outcomesOf(onA), ::testing::ElementsAre("prepare 0 done", "deport 0 done"));
  ASSERT_EQ(onA.size(), 2u);
  for (const Json& entry : onA) {
    EXPECT_EQ(entry["agent"], true);
    EXPECT_EQ(entry["uid"], static_cast<long long>(getuid()));
    EXPECT_EQ(entry["host"]["name"], "A");
    EXPECT_EQ(entry["pid"], onA[0]["pid"]);
  }
}

}  // namespace
