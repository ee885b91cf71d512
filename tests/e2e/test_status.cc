// Where a backup stands: qzfi status after every step of every flow, on
// the hosts that take part in it and on one that does not, the command it
// prints run as printed; qzfi list over a folder with a record at every
// step. Neither makes a tool run that changes anything.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::HasSubstr;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

class StatusTest : public QzfiTest {
 protected:
  // Changing tool runs of every host so far.
  size_t changingRuns() { return qzfi_e2e::linesOf(admin({"log", "--changed"})).size(); }

  // qzfi --json status on host, which changes nothing; its document, and
  // its exit code in code.
  Json status(const std::string& host, int* code = nullptr) {
    const size_t before = changingRuns();
    const QzfiRun run = qzfi(host, {"--json", "status", "--record", record()});
    EXPECT_EQ(changingRuns(), before) << "status made a changing tool run: " << run;
    if (code != nullptr) {
      *code = run.status;
    }
    return run.json();
  }

  // Status on host exits with code and names next, to be run on runOn.
  Json expectNext(const std::string& host, int code, const std::string& next,
                  const std::string& runOn) {
    int exit = -1;
    const Json json = status(host, &exit);
    EXPECT_EQ(exit, code) << json.dump(2);
    EXPECT_EQ(json["next"]["command"], next) << json.dump(2);
    EXPECT_EQ(json["next"]["host"]["name"], runOn) << json.dump(2);
    return json;
  }

  // The command status printed, run as printed on host.
  QzfiRun runAsPrinted(const std::string& host, const Json& json) {
    Lines args = qzfi_e2e::words(json["next"]["command"].get<std::string>());
    EXPECT_EQ(args.at(0), "qzfi");
    args.erase(args.begin());
    return qzfi(host, args);
  }

  std::string prepared() {
    const QzfiRun run = qzfi("A", {"prepare", kVol1, "--record", record()});
    EXPECT_EQ(run.status, 0) << run;
    return record();
  }
};

TEST_F(StatusTest, EachStepOfABackupNamesTheNextAndItFinishesTheFlow) {
  makeSource();
  prepared();
  Json json = expectNext("A", 0, "qzfi deport --record " + record(), "A");
  EXPECT_EQ(json["state"], "done");
  EXPECT_EQ(json["this_host"]["roles"], Json::array({"the source's host"}));
  EXPECT_EQ(json["this_host"]["found"], Json::array({"the source's group dg1 is imported here"}));
  // A host that holds no part of the backup is not asked anything.
  json = expectNext("C", 0, "qzfi deport --record " + record(), "A");
  EXPECT_EQ(json["this_host"]["roles"], Json::array());
  EXPECT_EQ(json["next"]["where"].get<std::string>().find("this host"), std::string::npos);

  const std::string secondary = splitTo("B");
  ASSERT_EQ(runAsPrinted("A", json).status, 0);
  json = status("A");
  EXPECT_EQ(json["next"]["command"],
            "qzfi import --record " + record() + " --secondary DISK1,DISK2");
  EXPECT_EQ(json["next"]["placeholders"], true);
  EXPECT_THAT(
      json["next"]["why"].get<std::string>(),
      HasSubstr("DISK1 the split copy of " + readRecord()["sub_objects"][0].get<std::string>()));

  ASSERT_EQ(qzfi("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
  const std::string copy = readRecord()["alternate"]["object"];
  const auto [group, volume] = groupAndVolume(copy);
  json = expectNext("B", 0, "qzfi release --record " + record(), "B");
  EXPECT_EQ(json["this_host"]["found"],
            Json::array({"the copy's group " + group + " is imported here, its volume " + volume +
                         " Started"}));
  EXPECT_EQ(json["copy"]["object"], copy);
  // From the source's host, the same command, to be run on B.
  expectNext("A", 0, "qzfi release --record " + record(), "B");

  ASSERT_EQ(runAsPrinted("B", json).status, 0);
  int code = -1;
  json = status("B", &code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(json["step"], "released");
  EXPECT_TRUE(json["next"].is_null()) << json.dump(2);
  const QzfiRun text = qzfi("B", {"status", "--record", record()});
  EXPECT_THAT(text.out,
              HasSubstr("\nstate:      done (exit 0)\nnext:       none: the backup is done\n"));
  expectConsistent();
}

TEST_F(StatusTest, AMovedCopyNamesItsImportWithTheDisksItHad) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  ASSERT_EQ(qzfi("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
  ASSERT_EQ(qzfi("B", {"move", "--record", record()}).status, 0);
  Json json = status("B");
  EXPECT_EQ(json["state"], "done");
  EXPECT_EQ(json["next"]["command"],
            "qzfi import --record " + record() + " --secondary " + secondary);
  EXPECT_TRUE(json["next"]["host"].is_null());
  // The array presents the copy's disks to C instead of B.
  const std::vector<SimDisk> onC = presentCopiesTo("B", "C");
  ASSERT_EQ(qzfi("C", {"import", "--record", record(), "--secondary", osPathsOf(onC)}).status, 0);
  json = expectNext("C", 0, "qzfi release --record " + record(), "C");
  ASSERT_EQ(runAsPrinted("C", json).status, 0);
  EXPECT_TRUE(status("C")["next"].is_null());
  expectConsistent();
}

TEST_F(StatusTest, AccessOffNamesAccessOnAndACopyGoneNeedsAttention) {
  makeSource();
  prepared();
  ASSERT_EQ(qzfi("A", {"access", "off", "--record", record()}).status, 0);
  Json json = expectNext("A", 0, "qzfi access on --record " + record(), "A");
  EXPECT_EQ(json["this_host"]["found"],
            Json::array({"the source's group dg1 is not imported here"}));
  ASSERT_EQ(runAsPrinted("A", json).status, 0);
  expectNext("A", 0, "qzfi deport --record " + record(), "A");

  // Behind qzfi's back, the source's group goes away: access is on in the record.
  tool("A", "qzdg deport dg1");
  int code = -1;
  json = status("A", &code);
  EXPECT_EQ(code, 11);
  EXPECT_EQ(json["state"], "needs attention");
  EXPECT_EQ(json["attention"], Json::array({"the record says access to the source is on, but "
                                            "its group dg1 is not imported here"}));
}

TEST_F(StatusTest, ACopyThatIsNotWhereTheRecordSaysNeedsAttention) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  ASSERT_EQ(qzfi("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
  const auto [group, volume] = groupAndVolume(readRecord()["alternate"]["object"]);
  tool("B", "qzvol -g " + group + " stop " + volume);
  int code = -1;
  Json json = status("B", &code);
  EXPECT_EQ(code, 11);
  EXPECT_EQ(json["attention"],
            Json::array({"the copy's volume " + volume + " is not started (Startable)"}));
  tool("B", "qzdg deport " + group);
  json = status("B", &code);
  EXPECT_EQ(code, 11);
  EXPECT_EQ(json["attention"],
            Json::array({"the record says the copy " +
                         readRecord()["alternate"]["object"].get<std::string>() +
                         " is imported on this host, but its group " + group + " is not"}));
  EXPECT_EQ(json["next"]["command"], "qzfi release --record " + record());
}

TEST_F(StatusTest, AStoppedImportIsNamedWithWhatItLeftHere) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  admin({"fault", "kill", "--host", "B", "--nth", "10"});
  const QzfiRun killed = qzfi("B", {"import", "--record", record(), "--secondary", secondary});
  admin({"fault", "clear"});
  ASSERT_EQ(killed.status, 128 + SIGKILL) << killed;
  int code = -1;
  Json json = status("B", &code);
  EXPECT_EQ(code, 10);
  EXPECT_EQ(json["state"], "stopped");
  EXPECT_EQ(json["stopped"]["command"], "import");
  EXPECT_EQ(json["stopped"]["step_at_start"], "deported");
  EXPECT_EQ(json["next"]["command"],
            "qzfi import --record " + record() + " --secondary " + secondary);
  EXPECT_EQ(json["this_host"]["roles"], Json::array({"where import stopped"}));
  for (const Json& found : json["this_host"]["found"]) {
    EXPECT_THAT(found.get<std::string>(), HasSubstr("the stopped import's split disk /dev/"));
  }
  // On the source's host: stopped too, to be run on B.
  json = status("A", &code);
  EXPECT_EQ(code, 10);
  EXPECT_EQ(json["next"]["host"]["name"], "B");
  const QzfiRun text = qzfi("A", {"status", "--record", record()});
  EXPECT_THAT(text.out, HasSubstr("\ncommand:    import stopped half-way: started "));
  EXPECT_THAT(text.out, HasSubstr("\nnext:       qzfi import --record " + record() +
                                  " --secondary " + secondary + "\nrun on:     B (machine id "));
  ASSERT_EQ(runAsPrinted("B", json).status, 0);
  json = status("B", &code);
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(json["stopped"].is_null());
  expectConsistent();
}

// The test process holds the record's lock as a running command does:
// status, in the sandbox, finds it in /proc/locks and reads nothing else.
TEST_F(StatusTest, ACommandHoldingTheRecordRunsNow) {
  makeSource();
  prepared();
  const int fd = open(record().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const long before = toolRuns();
  int code = -1;
  const Json json = status("A", &code);
  EXPECT_EQ(code, 9);
  EXPECT_EQ(json["state"], "in progress");
  EXPECT_EQ(json["running"]["pid"], getpid());
  EXPECT_TRUE(json["next"].is_null());
  EXPECT_EQ(toolRuns(), before);
  const QzfiRun text = qzfi("A", {"status", "--record", record()});
  EXPECT_THAT(text.out, HasSubstr("\ncommand:    a command runs now (process " +
                                  std::to_string(getpid()) + " holds the record's lock)\n"));
  close(fd);
  EXPECT_EQ(qzfi("A", {"status", "--record", record()}).status, 0);
}

TEST_F(StatusTest, AMissingRecordNamesPrepare) {
  int code = -1;
  const Json json = status("A", &code);
  EXPECT_EQ(code, 3);
  EXPECT_EQ(json["state"], "unreadable");
  EXPECT_EQ(json["next"]["command"], "qzfi prepare OBJECT --record " + record());
}

TEST_F(StatusTest, ListShowsARecordAtEveryStep) {
  makeSource();
  const std::string folder = root() + "/records";
  std::filesystem::create_directory(folder);
  const auto keep = [&](const std::string& name) {
    std::filesystem::copy_file(record(), folder + "/" + name);
  };
  prepared();
  keep("1-prepared.json");
  const std::string secondary = splitTo("B");
  // A deport killed half-way leaves the record prepared and its mark.
  admin({"fault", "kill", "--host", "A", "--nth", "2"});
  ASSERT_EQ(qzfi("A", {"deport", "--record", record()}).status, 128 + SIGKILL);
  admin({"fault", "clear"});
  keep("2-stopped.json");
  std::filesystem::copy_file(root() + "/.backup.json.running", folder + "/.2-stopped.json.running");
  ASSERT_EQ(qzfi("A", {"deport", "--record", record()}).status, 0);
  keep("3-deported.json");
  ASSERT_EQ(qzfi("B", {"import", "--record", record(), "--secondary", secondary}).status, 0);
  keep("4-imported.json");
  const std::string copy = readRecord()["alternate"]["object"];
  ASSERT_EQ(qzfi("B", {"move", "--record", record()}).status, 0);
  keep("5-moved.json");
  // A released record: the imported one at the step release leaves.
  Json released = Json::parse(qztest::readFile(folder + "/4-imported.json"));
  released["step"] = "released";
  std::ofstream(folder + "/6-released.json") << released.dump(2);
  std::ofstream(folder + "/notes.txt") << "not a record\n";

  const size_t before = changingRuns();
  const QzfiRun listed = qzfi("A", {"list", folder});
  EXPECT_EQ(listed.status, 0) << listed;
  const Lines lines = qzfi_e2e::linesOf(listed.out);
  ASSERT_EQ(lines.size(), 7u) << listed.out;
  EXPECT_EQ(qzfi_e2e::words(lines[0]),
            (Lines{"RECORD", "OBJECT", "STEP", "COPY", "ON", "AGE", "COMMAND"}));
  const Lines steps = {"prepared", "prepared", "deported", "imported", "moved", "released"};
  for (size_t i = 1; i < lines.size(); ++i) {
    const Lines fields = qzfi_e2e::words(lines[i]);
    ASSERT_GE(fields.size(), 7u) << lines[i];
    EXPECT_EQ(fields[1], kVol1) << lines[i];
    EXPECT_EQ(fields[2], steps[i - 1]) << lines[i];
    EXPECT_EQ(fields[3], i >= 4 ? copy : "-") << lines[i];
    EXPECT_EQ(fields[4], i >= 4 ? "B" : "-") << lines[i];
    const Lines command = i == 2 ? Lines{"stopped:", "deport"} : Lines{"-"};
    EXPECT_EQ(Lines(fields.begin() + 6, fields.end()), command) << lines[i];
  }
  const QzfiRun json = qzfi("B", {"--json", "list", folder});
  ASSERT_EQ(json.status, 0) << json;
  const Json records = json.json()["records"];
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[1]["command"]["state"], "stopped");
  EXPECT_EQ(records[1]["command"]["command"], "deport");
  EXPECT_EQ(records[3]["copy_host"]["name"], "B");
  EXPECT_EQ(changingRuns(), before);
}

}  // namespace
