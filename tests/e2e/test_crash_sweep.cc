// qzfi killed at every tool run of every flow, then run again. Each flow
// starts from a saved simulation; run once, it gives the number of tool runs
// it makes on its host (counted from the simulator's log, so that it follows
// the plug-in as it changes) and what the hosts hold after it. Then, for
// every k, the simulation is brought back, qzfi is killed with SIGKILL right
// after its k-th tool run has made its change (the simulator's kill fault),
// and the same command is run again. For a flow on a record, qzfi status
// is asked first, on the host where the command was killed: it must name
// that command, and the re-run is the command line it printed, run as
// printed. The re-run must finish the flow; the source volume keeps its
// data; qzsim check stays clean; and the hosts hold what the flow run once
// holds: nothing that the re-run neither reused nor removed. Each test
// prints its row of the table; the whole program prints the table of every
// flow at the end.
#include <csignal>
#include <cstdio>
#include <algorithm>
#include <functional>
#include <regex>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

// The sanitizer build sweeps every n-th k (and the last) to keep its time.
#ifdef QZ_CRASH_SWEEP_SAMPLE
const unsigned long kStride = QZ_CRASH_SWEEP_SAMPLE;
#else
const unsigned long kStride = 1;
#endif

struct Row {
  std::string flow;
  unsigned long runs = 0;
  unsigned long kills = 0;
  unsigned long converged = 0;
  unsigned long sourceKept = 0;
  unsigned long checkClean = 0;
  unsigned long nothingLeft = 0;
  bool onRecord = false;             // status applies: the flow works on a record
  unsigned long statusNamed = 0;     // status named the killed command
  unsigned long statusFinished = 0;  // the command status printed, run as printed, finished it
};

// A count of the status columns, "-" for a flow without a record.
std::string statusCount(const Row& row, unsigned long count) {
  return row.onRecord ? std::to_string(count) : std::string("-");
}

std::vector<Row>& rows() {
  static std::vector<Row> table;
  return table;
}

void printTable(const std::vector<Row>& table) {
  std::printf("%-22s %5s %6s %10s %12s %12s %13s %13s %20s\n", "flow", "runs", "kills", "converged",
              "source kept", "check clean", "nothing left", "status named", "status cmd finished");
  for (const Row& row : table) {
    std::printf("%-22s %5lu %6lu %10lu %12lu %12lu %13lu %13s %20s\n", row.flow.c_str(), row.runs,
                row.kills, row.converged, row.sourceKept, row.checkClean, row.nothingLeft,
                statusCount(row, row.statusNamed).c_str(),
                statusCount(row, row.statusFinished).c_str());
  }
  std::fflush(stdout);
}

class CrashTable : public ::testing::Environment {
 public:
  void TearDown() override {
    if (rows().size() > 1) {
      printTable(rows());
    }
  }
};
::testing::Environment* const kCrashTable = ::testing::AddGlobalTestEnvironment(new CrashTable);

// One qzfi command swept: where it runs, its arguments, and what tells that
// its work is there.
struct Flow {
  std::string name;
  std::string host;
  Lines args;
  // Whether the flow's work is there after the command; why not otherwise.
  std::function<std::string()> missing;
  // Brings the source volume back into use where the flow took it away.
  std::function<void()> restoreSource = [] {};
};

class CrashSweepTest : public QzfiTest {
 protected:
  void SetUp() override {
    QzfiTest::SetUp();
    m_saved = std::make_unique<qztest::TempDir>();
  }

  QzfiRun run(const std::string& host, const Lines& args) { return qzfiWithoutWaiting(host, args); }

  // The simulation and the record kept as they are, and brought back.
  void saveSimulation() { copyTree(root(), m_saved->path()); }
  void restoreSimulation() {
    const qzsim::CommandResult wiped = qzsim::runCommand(
        {"find", root(), "-mindepth", "1", "-maxdepth", "1", "-exec", "rm", "-rf", "{}", "+"});
    ASSERT_EQ(wiped.status, 0) << wiped.err;
    copyTree(m_saved->path(), root());
  }
  static void copyTree(const std::string& from, const std::string& to) {
    const qzsim::CommandResult copied =
        qzsim::runCommand({"cp", "-a", "--sparse=always", from + "/.", to});
    ASSERT_EQ(copied.status, 0) << copied.err;
  }

  unsigned long toolRuns(const std::string& host) {
    return std::stoul(admin({"log", "--host", host, "--total"}));
  }

  // What every host holds: its groups, its volume manager's view of the
  // disks, its device nodes; and the array's presentation of the LUNs. The
  // copy's group, whose name is new at each import, is named COPY. A disk
  // without a private region is in the view of any host that scanned it
  // (a re-run's own scan brings it back): it is not counted.
  Lines footprint() {
    std::string text;
    for (const char* host : {"A", "B", "C"}) {
      text += std::string("== host ") + host + "\n";
      text += qzsim::simTool(root(), host, "qzdg list").out;
      for (const std::string& line :
           qzfi_e2e::linesOf(qzsim::simTool(root(), host, "qzdisk list").out)) {
        const Lines fields = qzfi_e2e::words(line);
        text += fields.size() > 1 && fields[1] == "auto:none" ? "" : line + "\n";
      }
      text += admin({"node", "list", "--host", host});
    }
    text += "== array\n" + admin({"disk", "list"});
    const std::string copy = copyGroup();
    Lines lines;
    for (const std::string& line : qzfi_e2e::linesOf(text)) {
      lines.push_back(copy.empty() ? joinedWords(line) : replaced(joinedWords(line), copy, "COPY"));
    }
    return lines;
  }

  // The line's words joined by one blank; the volume manager's ids
  // ("1700000078.6.B"), which count every disk and group ever made, as ID.
  static std::string joinedWords(const std::string& line) {
    static const std::regex id("[0-9]+\\.[0-9]+\\.[A-Za-z0-9_]+");
    std::string joined;
    for (const std::string& word : qzfi_e2e::words(line)) {
      joined += (joined.empty() ? "" : " ") + (std::regex_match(word, id) ? "ID" : word);
    }
    return joined;
  }

  static std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
    return text;
  }

  // The lines of one footprint that the other lacks, marked "+" (held, not
  // expected) or "-" (expected, not held).
  static std::string difference(const Lines& expected, const Lines& held) {
    std::string text;
    for (const std::string& line : held) {
      if (std::find(expected.begin(), expected.end(), line) == expected.end()) {
        text += "\n+ " + line;
      }
    }
    for (const std::string& line : expected) {
      if (std::find(held.begin(), held.end(), line) == held.end()) {
        text += "\n- " + line;
      }
    }
    return text;
  }

  // The group of the copy that the record names, or nothing.
  std::string copyGroup() {
    if (!Json::accept(qztest::readFile(record()))) {
      return std::string();
    }
    const Json rec = readRecord();
    return rec.contains("alternate") ? groupAndVolume(rec["alternate"]["object"]).first
                                     : std::string();
  }

  std::string sourceSum() { return checksum("A", "dg1", "vol1"); }

  // The flow run once from the saved simulation, then killed at each of
  // its tool runs and run again; its row, also printed.
  void sweep(const Flow& flow) {
    saveSimulation();
    // The source as the flow finds it, or as it was made when the flow
    // finds it out of use.
    const std::vector<std::string> onA = groups("A");
    const std::string source =
        std::find(onA.begin(), onA.end(), "dg1") != onA.end() ? sourceSum() : m_sourceSum;
    const unsigned long start = toolRuns(flow.host);
    const QzfiRun once = run(flow.host, flow.args);
    ASSERT_EQ(once.status, 0) << flow.name << ": " << once;
    Row row;
    row.flow = flow.name;
    row.onRecord = std::find(flow.args.begin(), flow.args.end(), "--record") != flow.args.end();
    row.runs = toolRuns(flow.host) - start;
    ASSERT_EQ(flow.missing(), "") << flow.name;
    const Lines expected = footprint();
    const Json expectedRecord = recordSummary();
    for (unsigned long k = 1; k <= row.runs; ++k) {
      if (k % kStride == 0 || k == 1 || k == row.runs) {
        killAt(flow, k, source, expected, expectedRecord, &row);
      }
    }
    rows().push_back(row);
    printTable({row});
    EXPECT_EQ(row.converged, row.kills) << flow.name;
    EXPECT_EQ(row.sourceKept, row.kills) << flow.name;
    EXPECT_EQ(row.checkClean, row.kills) << flow.name;
    EXPECT_EQ(row.nothingLeft, row.kills) << flow.name;
    if (row.onRecord) {
      EXPECT_EQ(row.statusNamed, row.kills) << flow.name;
      EXPECT_EQ(row.statusFinished, row.kills) << flow.name;
    }
  }

  // The command that qzfi status, asked on the killed command's host,
  // prints to finish the flow: qzfi's arguments, as printed; the flow's own
  // when it works on no record. A killed prepare leaves no record: status
  // names prepare with OBJECT for the object only the record would tell,
  // which is filled in here.
  Lines commandFromStatus(const Flow& flow, const std::string& at, Row* row) {
    if (!row->onRecord) {
      return flow.args;
    }
    const QzfiRun status = run(flow.host, {"--json", "status", "--record", record()});
    const bool prepare = flow.args.at(0) == "prepare";
    EXPECT_EQ(status.status, prepare ? 3 : 10) << at << ": status: " << status;
    const Json json = Json::parse(status.out, nullptr, false);
    if (!json.is_object() || !json["next"].is_object()) {
      ADD_FAILURE() << at << ": status names no command: " << status;
      return flow.args;
    }
    Lines printed = qzfi_e2e::words(json["next"]["command"].get<std::string>());
    if (printed.empty() || printed.front() != "qzfi") {
      ADD_FAILURE() << at << ": status printed " << json["next"]["command"];
      return flow.args;
    }
    printed.erase(printed.begin());
    if (prepare && printed.size() > 1 && printed[1] == "OBJECT") {
      printed[1] = kVol1;
    }
    const bool named = printed == flow.args;
    row->statusNamed += named ? 1 : 0;
    EXPECT_TRUE(named) << at << ": status named " << json["next"]["command"] << ", not qzfi "
                       << joined(flow.args);
    return printed;
  }

  void killAt(const Flow& flow, unsigned long k, const std::string& source, const Lines& expected,
              const Json& expectedRecord, Row* row) {
    restoreSimulation();
    const unsigned long start = toolRuns(flow.host);
    admin({"fault", "kill", "--host", flow.host, "--nth", std::to_string(k)});
    const QzfiRun killed = run(flow.host, flow.args);
    admin({"fault", "clear"});
    const std::string at = flow.name + ", killed after run " + std::to_string(k) + " (" +
                           loggedRun(flow.host, start + k) + ")";
    if (killed.status != 128 + SIGKILL) {
      ADD_FAILURE() << at << ": not killed: " << killed;
      return;
    }
    ++row->kills;
    const Lines printed = commandFromStatus(flow, at, row);
    const QzfiRun again = run(flow.host, printed);
    const std::string missing = again.status == 0 ? flow.missing() : "";
    const bool converged = again.status == 0 && missing.empty();
    row->statusFinished += converged && row->onRecord ? 1 : 0;
    const Lines held = footprint();
    const Json heldRecord = recordSummary();
    const bool nothingLeft = held == expected && heldRecord == expectedRecord;
    const qzsim::CommandResult check = qzsim::simAdmin(root(), {"check"});
    flow.restoreSource();
    const bool kept = sourceSum() == source;
    row->converged += converged ? 1 : 0;
    row->nothingLeft += nothingLeft ? 1 : 0;
    row->checkClean += check.status == 0 ? 1 : 0;
    row->sourceKept += kept ? 1 : 0;
    EXPECT_TRUE(converged) << at << ": run again: " << again << missing;
    EXPECT_TRUE(held == expected) << at << ": the hosts hold other things than after one run:"
                                  << difference(expected, held);
    EXPECT_EQ(heldRecord, expectedRecord) << at;
    EXPECT_EQ(check.status, 0) << at << ":\n" << check.out << check.err;
    EXPECT_TRUE(kept) << at << ": the source volume's data changed";
  }

  // The command line of the host's run numbered index (from 1) in the log.
  std::string loggedRun(const std::string& host, unsigned long index) {
    const Lines log = qzfi_e2e::linesOf(admin({"log", "--host", host}));
    if (index >= log.size()) {
      return "";
    }
    const Lines fields = qzfi_e2e::words(log[index]);
    std::string command;
    for (size_t i = 4; i < fields.size(); ++i) {
      command += (i > 4 ? " " : "") + fields[i];
    }
    return command;
  }

  // What of the record tells where the backup stands.
  Json recordSummary() {
    if (!qzfi_e2e::Json::accept(qztest::readFile(record()))) {
      return Json();
    }
    const Json rec = readRecord();
    Json summary = {{"step", rec.value("step", "")},
                    {"source_access", rec.value("source_access", "")}};
    if (rec.contains("alternate")) {
      summary["alternate"] = replaced(rec["alternate"]["object"], copyGroup(), "COPY");
      summary["earlier_copies"] = rec.value("earlier_copies", Json::array()).size();
    }
    return summary;
  }

  std::string step() { return recordSummary().value("step", ""); }

  // The copy that the record names is on host with the data of the split.
  std::string copyMissing(const std::string& host) {
    if (step() != "imported") {
      return "the record is at \"" + step() + "\"";
    }
    const std::string copy = readRecord()["alternate"]["object"];
    const auto [group, volume] = groupAndVolume(copy);
    if (checksum(host, group, volume) != m_sourceSum) {
      return "the copy " + copy + " holds other data";
    }
    return ownerOf(host, copy) == "1001:1002" ? "" : "the copy's owner is not the source's";
  }

  Flow flow(const std::string& name, const std::string& host, const Lines& args) {
    Flow made;
    made.name = name;
    made.host = host;
    made.args = args;
    return made;
  }

  void prepare() { ASSERT_EQ(run("A", {"prepare", kVol1, "--record", record()}).status, 0); }

  // The copy imported on B from the split.
  void importOnB() {
    const std::string secondary = prepareSplitDeport("B");
    ASSERT_EQ(run("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
  }

  // Two plain disks of host A, seen by its volume manager, by OS path.
  Lines plainDisks() {
    Lines paths;
    m_plain = qzfi_e2e::parseDisks(
        admin({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"}));
    for (const SimDisk& disk : m_plain) {
      paths.push_back("/dev/" + disk.osNames.at(0));
    }
    tool("A", "qzdisk scandisks");
    return paths;
  }

  // Whether the group rdg with rvol is started on host A.
  std::string resourceMissing() {
    const qzsim::CommandResult info = qzsim::simTool(root(), "A", "qzinfo -g rdg rvol");
    return info.status == 0 && qzfi_e2e::words(info.out).size() > 2 &&
                   qzfi_e2e::words(info.out)[2] == "Started"
               ? ""
               : "rdg/rvol is not started: " + info.out + info.err;
  }

  // The plain disks that carry the volume manager's format still.
  std::string formatted() {
    std::string found;
    for (const std::string& line : qzfi_e2e::linesOf(admin({"disk", "list"}))) {
      const Lines fields = qzfi_e2e::words(line);
      for (const SimDisk& disk : m_plain) {
        if (fields.size() > 3 && fields[0] == disk.lun && fields[3] != "auto:none") {
          found += " " + disk.lun + " (" + fields[3] + ")";
        }
      }
    }
    return found;
  }

  std::vector<SimDisk> m_plain;

 private:
  std::unique_ptr<qztest::TempDir> m_saved;
};

TEST_F(CrashSweepTest, Prepare) {
  makeSource();
  Flow swept = flow("prepare", "A", {"prepare", kVol1, "--record", record()});
  swept.missing = [this] { return step() == "prepared" ? "" : "no prepared record"; };
  sweep(swept);
}

TEST_F(CrashSweepTest, Deport) {
  makeSource();
  prepare();
  splitTo("B");
  admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "8"});
  Flow swept = flow("deport", "A", {"deport", "--record", record()});
  swept.missing = [this] { return step() == "deported" ? "" : "the record is at " + step(); };
  sweep(swept);
}

TEST_F(CrashSweepTest, ImportOnAnotherHost) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  Flow swept = flow("import on another host", "B",
                    {"import", "--record", record(), "--secondary", secondary});
  swept.missing = [this] { return copyMissing("B"); };
  sweep(swept);
}

TEST_F(CrashSweepTest, Move) {
  makeSource();
  importOnB();
  Flow swept = flow("move", "B", {"move", "--record", record()});
  swept.missing = [this] {
    return step() == "moved" && groups("B").empty() ? "" : "the copy's group is still on B";
  };
  sweep(swept);
}

TEST_F(CrashSweepTest, Release) {
  makeSource();
  importOnB();
  Flow swept = flow("release", "B", {"release", "--record", record()});
  swept.missing = [this] {
    return step() == "released" && groups("B").empty() ? "" : "the copy is still on B";
  };
  sweep(swept);
}

TEST_F(CrashSweepTest, AccessOff) {
  makeSource();
  prepare();
  Flow swept = flow("access off", "A", {"access", "off", "--record", record()});
  swept.missing = [this] {
    return recordSummary()["source_access"] == "off" && groups("A").empty() ? ""
                                                                            : "dg1 is still on A";
  };
  swept.restoreSource = [this] {
    ASSERT_EQ(run("A", {"access", "on", "--record", record()}).status, 0);
  };
  sweep(swept);
}

TEST_F(CrashSweepTest, AccessOn) {
  makeSource();
  prepare();
  ASSERT_EQ(run("A", {"access", "off", "--record", record()}).status, 0);
  Flow swept = flow("access on", "A", {"access", "on", "--record", record()});
  swept.missing = [this] {
    return recordSummary()["source_access"] == "on" && ownerOf("A", kVol1) == "1001:1002"
               ? ""
               : "dg1/vol1 is not back with its owner";
  };
  sweep(swept);
}

TEST_F(CrashSweepTest, Format) {
  makeSource();
  const Lines disks = plainDisks();
  Flow swept = flow("format", "A",
                    {"format", "--group", "rdg", "--volume", "rvol", disks.at(0), disks.at(1)});
  swept.missing = [this] { return resourceMissing(); };
  sweep(swept);
}

TEST_F(CrashSweepTest, Online) {
  makeSource();
  const Lines disks = plainDisks();
  ASSERT_EQ(run("A", {"format", "--group", "rdg", "--volume", "rvol", disks[0], disks[1]}).status,
            0);
  tool("A", "qzdg deport rdg");
  Flow swept = flow("online", "A", {"online", disks[0], disks[1]});
  swept.missing = [this] { return resourceMissing(); };
  sweep(swept);
}

TEST_F(CrashSweepTest, Unformat) {
  makeSource();
  const Lines disks = plainDisks();
  ASSERT_EQ(run("A", {"format", "--group", "rdg", "--volume", "rvol", disks[0], disks[1]}).status,
            0);
  Flow swept = flow("unformat", "A", {"unformat", disks[0], disks[1]});
  swept.missing = [this] {
    const std::string left = formatted();
    return left.empty() && groups("A") == Lines{"dg1"} ? "" : "not plain again:" + left;
  };
  sweep(swept);
}

}  // namespace
