// The journal of qzfi's changing commands: its lines, their appends, and
// qzfi journal that reads them.
#include "journal.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "../tempdir.h"
#include "command_line.h"

namespace {

using qzfi_host::CJournal;
using qzfi_host::Command;
using qzfi_host::JournalEntry;
using qzfi_host::journalLine;
using Json = nlohmann::ordered_json;

const std::time_t kNow = 1795651200;  // 2026-11-26T00:00:00Z

JournalEntry prepareEntry() {
  JournalEntry entry;
  entry.time = "2026-11-26T03:00:01Z";
  entry.host = {"A", "0123abcd"};
  entry.uid = 1001;
  entry.user = "backup";
  entry.pid = 4321;
  entry.command = "prepare";
  entry.arguments = {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", "/backup/dg1.json"};
  entry.record = "/backup/dg1.json";
  entry.result = "done";
  entry.exitCode = 0;
  entry.toolRuns = 12;
  entry.seconds = 1.23456;
  return entry;
}

JournalEntry refusedEntry() {
  JournalEntry entry = prepareEntry();
  entry.time = "2026-11-26T04:00:00Z";
  entry.command = "release";
  entry.arguments = {"release", "--record", "/backup/dg1.json"};
  entry.result = "record unusable";
  entry.exitCode = 3;
  entry.toolRuns = 0;
  entry.seconds = 0.01;
  entry.reason = "release needs the record at the step imported, not prepared";
  return entry;
}

std::string readAll(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeAll(const std::string& file, const std::string& text) {
  std::ofstream(file, std::ios::binary | std::ios::app) << text;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

struct QzfiRun {
  int code = -1;
  std::string out;
  std::string err;
};

QzfiRun run(std::vector<std::string> args) {
  args.insert(args.begin(), "qzfi");
  std::ostringstream out;
  std::ostringstream err;
  QzfiRun result;
  result.code = qzfi_host::runCommandLine(args, out, err, nullptr);
  result.out = out.str();
  result.err = err.str();
  return result;
}

// A log folder of the test's own, holding the journal.
class JournalTest : public ::testing::Test {
 protected:
  std::string journal() const { return m_dir.file("journal.json"); }
  void add(const JournalEntry& entry) { writeAll(journal(), journalLine(entry)); }

  qztest::TempDir m_dir;
  qztest::ScopedEnv m_logs{"QZFI_LOG_DIR", m_dir.path()};
};

TEST(JournalLine, HoldsEveryFieldOnOneLine) {
  EXPECT_EQ(journalLine(prepareEntry()),
            R"({"time":"2026-11-26T03:00:01Z","host":{"name":"A","machine_id":"0123abcd"},)"
            R"("uid":1001,"user":"backup","pid":4321,"command":"prepare","arguments":["prepare",)"
            R"("/dev/qz/dsk/dg1/vol1","--record","/backup/dg1.json"],"record":"/backup/dg1.json",)"
            R"("result":"done","exit_code":0,"tool_runs":12,"seconds":1.235})"
            "\n");
}

TEST(JournalLine, ARefusalSaysWhyAndAnAgentsCommandSaysSo) {
  JournalEntry entry = refusedEntry();
  entry.throughAgent = true;
  EXPECT_THAT(journalLine(entry),
              ::testing::HasSubstr(
                  R"("pid":4321,"agent":true,"command":"release")"
                  R"(,"arguments":["release","--record","/backup/dg1.json"],)"
                  R"("record":"/backup/dg1.json","result":"record unusable","exit_code":3,)"
                  R"("tool_runs":0,"seconds":0.01,)"
                  R"("reason":"release needs the record at the step imported, not prepared"})"));
}

TEST(JournalLine, AStoppedCommandHasNoExitCodeAndNamesWhoFoundIt) {
  qzfi_host::CommandMark mark;
  mark.command = "import";
  mark.arguments = {"import", "--record", "/backup/dg1.json", "--secondary", "/dev/sdf"};
  mark.pid = 777;
  mark.uid = 0;
  mark.user = "root";
  mark.host = {"B", "4567"};
  mark.started = "2026-11-26T03:10:00Z";
  JournalEntry finder = prepareEntry();
  finder.command = "import";
  finder.time = "2026-11-26T03:20:00Z";
  EXPECT_EQ(
      journalLine(qzfi_host::stoppedEntry(mark, finder)),
      R"({"time":"2026-11-26T03:10:00Z","host":{"name":"B","machine_id":"4567"},"uid":0,)"
      R"("user":"root","pid":777,"command":"import","arguments":["import","--record",)"
      R"("/backup/dg1.json","--secondary","/dev/sdf"],"record":"/backup/dg1.json",)"
      R"("result":"stopped","reason":"it did not finish (killed, or its host went down); its )"
      R"(mark was found by import (pid 4321) at 2026-11-26T03:20:00Z","found_by":{"command":)"
      R"("import","pid":4321,"time":"2026-11-26T03:20:00Z"}})"
      "\n");
}

TEST(JournalLine, AHugeCommandLineIsCutNotWrittenWhole) {
  JournalEntry entry = refusedEntry();
  entry.arguments.assign(40, std::string(5000, '\x01'));
  entry.reason = std::string(100000, 'r');
  const std::string line = journalLine(entry);
  EXPECT_LE(line.size(), qzfi_host::kMaxJournalLine);
  EXPECT_EQ(line.back(), '\n');
  const Json json = Json::parse(line);
  EXPECT_TRUE(json["cut"].get<bool>());
  EXPECT_EQ(json["command"], "release");
  EXPECT_EQ(json["exit_code"], 3);
}

TEST(JournalCommands, OnlyTheChangingOnesHaveALine) {
  using qzfi_host::isChangingCommand;
  EXPECT_TRUE(isChangingCommand(Command::prepare));
  EXPECT_TRUE(isChangingCommand(Command::deport));
  EXPECT_TRUE(isChangingCommand(Command::import));
  EXPECT_TRUE(isChangingCommand(Command::move));
  EXPECT_TRUE(isChangingCommand(Command::release));
  EXPECT_TRUE(isChangingCommand(Command::access));
  EXPECT_TRUE(isChangingCommand(Command::format));
  EXPECT_TRUE(isChangingCommand(Command::online));
  EXPECT_TRUE(isChangingCommand(Command::unformat));
  for (Command other : {Command::help, Command::info, Command::claim, Command::serve,
                        Command::version, Command::status, Command::list, Command::journal}) {
    EXPECT_FALSE(isChangingCommand(other));
  }
}

TEST_F(JournalTest, AppendsOneLinePerEntryWithTheFilesMode) {
  CJournal appender(journal());
  std::ostringstream err;
  appender.append({prepareEntry(), refusedEntry()}, err);
  EXPECT_EQ(err.str(), "");
  EXPECT_EQ(readAll(journal()), journalLine(prepareEntry()) + journalLine(refusedEntry()));
  struct stat held {};
  ASSERT_EQ(stat(journal().c_str(), &held), 0);
  EXPECT_EQ(held.st_mode & 0777 & ~0640, 0u);
}

TEST_F(JournalTest, AnUnwritableJournalWarnsOnce) {
  writeAll(m_dir.file("plain"), "a file, not a folder");
  const std::string file = m_dir.file("plain/journal.json");
  CJournal appender(file);
  std::ostringstream err;
  appender.append({prepareEntry()}, err);
  appender.append({refusedEntry()}, err);
  EXPECT_EQ(err.str(), "qzfi: warning: the journal " + file +
                           " cannot be written: Not a directory; the backup goes on\n");
}

TEST_F(JournalTest, ACommandWhoseJournalCannotBeWrittenKeepsItsExitCode) {
  writeAll(m_dir.file("plain"), "a file, not a folder");
  qztest::ScopedEnv logs{"QZFI_LOG_DIR", m_dir.file("plain")};
  const std::string record = m_dir.file("none.json");
  const QzfiRun first = run({"release", "--record", record});
  const QzfiRun second = run({"deport", "--record", record});
  EXPECT_EQ(first.code, 3);
  EXPECT_EQ(second.code, 3);
  EXPECT_EQ(first.err, "qzfi release: the record " + record +
                           " cannot be read: No such file or directory\n"
                           "qzfi: warning: the journal " +
                           m_dir.file("plain/journal.json") +
                           " cannot be written: Not a directory; the backup goes on\n");
  EXPECT_EQ(second.err,
            "qzfi deport: the record " + record + " cannot be read: No such file or directory\n");
}

TEST_F(JournalTest, ARefusedCommandHasItsLineWithTheReason) {
  const std::string record = m_dir.file("none.json");
  const QzfiRun refused = run({"release", "--record", record, "--disposition", "2"});
  EXPECT_EQ(refused.code, 3);
  EXPECT_EQ(run({"journal"}).code, 0);
  EXPECT_EQ(run({"version"}).code, 0);
  const std::vector<std::string> lines = linesOf(readAll(journal()));
  ASSERT_EQ(lines.size(), 1u) << readAll(journal());
  const Json json = Json::parse(lines[0]);
  EXPECT_EQ(json["command"], "release");
  EXPECT_EQ(json["arguments"], Json({"release", "--record", record, "--disposition", "2"}));
  EXPECT_EQ(json["record"], record);
  EXPECT_EQ(json["result"], "record unusable");
  EXPECT_EQ(json["exit_code"], 3);
  EXPECT_EQ(json["tool_runs"], 0);
  EXPECT_EQ(json["uid"], static_cast<long long>(getuid()));
  EXPECT_EQ(json["pid"], static_cast<long>(getpid()));
  EXPECT_EQ(json["reason"], "the record " + record + " cannot be read: No such file or directory");
  EXPECT_EQ(json["host"]["name"], qzfi_host::thisHost().name);
}

TEST_F(JournalTest, PrintsOneReadableLinePerEntry) {
  add(prepareEntry());
  add(refusedEntry());
  const QzfiRun printed = run({"journal"});
  EXPECT_EQ(printed.code, 0);
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(printed.out,
            "2026-11-26T03:00:01Z A backup(1001): qzfi prepare /dev/qz/dsk/dg1/vol1 --record "
            "/backup/dg1.json => done, exit 0, 12 tool runs, 1.235 s\n"
            "2026-11-26T04:00:00Z A backup(1001): qzfi release --record /backup/dg1.json => "
            "record unusable, exit 3, 0 tool runs, 0.010 s: release needs the record at the step "
            "imported, not prepared\n");
}

TEST_F(JournalTest, PrintsTheLinesAsJsonWithJson) {
  add(prepareEntry());
  const QzfiRun printed = run({"journal", "--json"});
  EXPECT_EQ(printed.code, 0);
  EXPECT_EQ(printed.out, journalLine(prepareEntry()));
}

TEST_F(JournalTest, ReadsTheRotatedFileFirst) {
  writeAll(journal() + ".1", journalLine(prepareEntry()));
  add(refusedEntry());
  const QzfiRun printed = run({"journal", "--json"});
  EXPECT_EQ(printed.out, journalLine(prepareEntry()) + journalLine(refusedEntry()));
}

TEST_F(JournalTest, ATornLastLineIsSkippedWithANote) {
  add(prepareEntry());
  const std::string whole = journalLine(refusedEntry());
  writeAll(journal(), whole.substr(0, whole.size() / 2));
  const QzfiRun printed = run({"journal", "--json"});
  EXPECT_EQ(printed.code, 0);
  EXPECT_EQ(printed.out, journalLine(prepareEntry()));
  EXPECT_EQ(printed.err, "qzfi journal: note: " + journal() +
                             ", line 2: not a whole entry (torn or damaged), skipped\n");
}

TEST_F(JournalTest, ALineAfterATornOneStartsALineOfItsOwn) {
  const std::string whole = journalLine(refusedEntry());
  writeAll(journal(), whole.substr(0, 40));
  std::ostringstream err;
  CJournal(journal()).append({prepareEntry()}, err);
  EXPECT_EQ(readAll(journal()), whole.substr(0, 40) + "\n" + journalLine(prepareEntry()));
  const QzfiRun printed = run({"journal", "--json"});
  EXPECT_EQ(printed.out, journalLine(prepareEntry()));
  EXPECT_EQ(printed.err, "qzfi journal: note: " + journal() +
                             ", line 1: not a whole entry (torn or damaged), skipped\n");
}

TEST_F(JournalTest, ALineOfAnotherFormIsSkipped) {
  writeAll(journal(), "[1,2]\n{\"time\":\"yesterday\",\"command\":\"prepare\"}\n");
  writeAll(journal(), "{\"time\":\"2026-11-26T03:00:01Z\",\"command\":7}\n");
  add(prepareEntry());
  const QzfiRun printed = run({"journal", "--json"});
  EXPECT_EQ(printed.out, journalLine(prepareEntry()));
  EXPECT_EQ(linesOf(printed.err).size(), 3u) << printed.err;
}

TEST_F(JournalTest, NoJournalYetPrintsNothing) {
  const QzfiRun printed = run({"journal"});
  EXPECT_EQ(printed.code, 0);
  EXPECT_EQ(printed.out, "");
  EXPECT_EQ(printed.err, "");
}

TEST_F(JournalTest, RecordKeepsTheLinesOfThatRecordByItsRealFile) {
  const std::string real = m_dir.file("dg1.json");
  const std::string link = m_dir.file("link.json");
  writeAll(real, "{}");
  ASSERT_EQ(symlink(real.c_str(), link.c_str()), 0);
  JournalEntry ours = prepareEntry();
  ours.record = real;
  JournalEntry other = refusedEntry();
  other.record = m_dir.file("other.json");
  JournalEntry format = prepareEntry();
  format.command = "format";
  format.record.clear();
  add(ours);
  add(other);
  add(format);
  EXPECT_EQ(run({"journal", "--json", "--record", link}).out, journalLine(ours));
  EXPECT_EQ(run({"journal", "--json", "--record", real}).out, journalLine(ours));
}

TEST_F(JournalTest, SinceKeepsTheLaterLines) {
  JournalEntry early = prepareEntry();
  early.time = "2026-11-25T23:59:59Z";
  add(early);
  add(prepareEntry());
  add(refusedEntry());
  EXPECT_EQ(run({"journal", "--json", "--since", "2026-11-26"}).out,
            journalLine(prepareEntry()) + journalLine(refusedEntry()));
  EXPECT_EQ(run({"journal", "--json", "--since", "2026-11-26T03:30"}).out,
            journalLine(refusedEntry()));
}

TEST(JournalSince, TakesADayATimeOrAnAge) {
  using qzfi_host::parseSince;
  EXPECT_EQ(parseSince("2026-11-26", kNow), kNow);
  EXPECT_EQ(parseSince("2026-11-26T03:00", kNow), kNow + 3 * 3600);
  EXPECT_EQ(parseSince("2026-11-26T03:00:30", kNow), kNow + 3 * 3600 + 30);
  EXPECT_EQ(parseSince("2026-11-26T03:00:30Z", kNow), kNow + 3 * 3600 + 30);
  EXPECT_EQ(parseSince("90m", kNow), kNow - 90 * 60);
  EXPECT_EQ(parseSince("2h", kNow), kNow - 2 * 3600);
  EXPECT_EQ(parseSince("3d", kNow), kNow - 3 * 86400);
  EXPECT_EQ(parseSince("1w", kNow), kNow - 7 * 86400);
}

TEST(JournalSince, IsRefusedAtTheDoor) {
  for (const char* bad : {"yesterday", "2h30", "h", "-2h", "2026-13-01", "2026-11-26 03:00",
                          "2026-11-26T03", "99999999d", ""}) {
    try {
      qzfi_host::parseOptions({"qzfi", "journal", "--since", bad});
      if (std::string(bad).empty()) {
        continue;  // no time: the whole journal
      }
      ADD_FAILURE() << "accepted: " << bad;
    } catch (const qzfi_host::UsageError& error) {
      EXPECT_EQ(std::string(error.what()),
                std::string("journal: --since takes a time like 2026-11-26, 2026-11-26T03:00 "
                            "(UTC), 2h or 3d, not '") +
                    bad + "'");
    }
  }
  const QzfiRun refused = run({"journal", "--since", "yesterday"});
  EXPECT_EQ(refused.code, 2);
  EXPECT_EQ(refused.out, "");
  EXPECT_EQ(refused.err,
            "qzfi: journal: --since takes a time like 2026-11-26, 2026-11-26T03:00 (UTC), 2h or "
            "3d, not 'yesterday'\n(qzfi help lists the commands)\n");
}

// Several processes appending at once, with lines of up to 60 kB: every
// line is whole.
TEST_F(JournalTest, ConcurrentAppendsLeaveWholeLines) {
  const int kProcesses = 6;
  const int kLines = 40;
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      CJournal appender(journal());
      std::ostringstream err;
      for (int i = 0; i < kLines; ++i) {
        JournalEntry entry = prepareEntry();
        entry.pid = p;
        entry.reason = std::string(static_cast<size_t>((i * 7919 + p * 104729) % 60000), 'x');
        appender.append({entry}, err);
      }
      _exit(err.str().empty() ? 0 : 1);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  std::map<long, int> perProcess;
  for (const std::string& line : linesOf(readAll(journal()))) {
    ASSERT_TRUE(Json::accept(line)) << line.substr(0, 200);
    ++perProcess[Json::parse(line)["pid"].get<long>()];
  }
  ASSERT_EQ(perProcess.size(), static_cast<size_t>(kProcesses));
  for (const auto& [pid, lines] : perProcess) {
    EXPECT_EQ(lines, kLines) << "process " << pid;
  }
}

}  // namespace
