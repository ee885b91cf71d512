// Where backups stand: qzfi status and qzfi list, on records in a folder of
// the test's, this host and its device nodes given by the test, and the
// volume manager's listings answered by the framework's seam (no tool runs).
#include "status.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qzfi/execpipe.h>

#include "../tempdir.h"
#include "command_mark.h"

namespace {

using qzfi_host::CommandMark;
using qzfi_host::CSnapshotRecord;
using qzfi_host::HostIdentity;
using qzfi_host::HostProbe;
using qzfi_host::Options;
using qzfi_host::RecordStep;
using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiExecSeamScope;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::ordered_json;
using Lines = std::vector<std::string>;

const HostIdentity kA = {"A", "aaaa"};
const HostIdentity kB = {"B", "bbbb"};
const HostIdentity kC = {"C", "cccc"};
const std::string kCopy = "/dev/qz/dsk/dg1_7/vol1";
const char kQzdgList[] = "/usr/sbin/qzdg list";
// 2026-11-26T03:00:00Z
const std::time_t kNow = 1795662000;

// A record of a backup of dg1/vol1 from A, at step, its copy on B from
// imported on; every event at 01:00, two hours before kNow.
CSnapshotRecord recordAt(RecordStep step) {
  CSnapshotRecord record;
  record.plugin = "qzvmfi";
  record.object = "/dev/qz/dsk/dg1/vol1";
  record.step = step;
  record.ownerUid = 1001;
  record.ownerGid = 1002;
  record.subObjects = {"/dev/sdb", "/dev/sdd"};
  record.state.bytes = "state";
  record.sourceHost = kA;
  record.events.push_back({"prepare", "2026-11-26T01:00:00Z", "", kA});
  if (step >= RecordStep::deported) {
    record.deportedObject = record.object;
    record.events.push_back({"deport", "2026-11-26T01:00:00Z", "", kA});
  }
  if (step >= RecordStep::imported) {
    record.hasAlternate = true;
    record.alternate = {kCopy, {"/dev/sdf", "/dev/sdh"}, {"copy"}, kB};
    record.events.push_back({"import", "2026-11-26T01:00:00Z", "", kB});
  }
  if (step == RecordStep::moved || step == RecordStep::released) {
    record.events.push_back(
        {step == RecordStep::moved ? "move" : "release", "2026-11-26T01:00:00Z", "", kB});
  }
  return record;
}

// The mark of command, begun on record as it stands, on host.
CommandMark markOf(const std::string& command, const Lines& arguments,
                   const CSnapshotRecord& record, const HostIdentity& host) {
  CommandMark mark;
  mark.command = command;
  mark.arguments = arguments;
  mark.pid = 4242;
  mark.uid = 0;
  mark.user = "root";
  mark.host = host;
  mark.started = "2026-11-26T02:00:00Z";
  mark.stepAtStart = qzfi_host::stepName(record.step);
  mark.eventsAtStart = record.events.size();
  return mark;
}

class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_probe.here = kA;
    m_probe.deviceExists = [this](const std::string& path) { return m_devices.count(path) != 0; };
    m_probe.now = kNow;
  }

  std::string file() const { return m_dir.file("backup.json"); }
  void save(const CSnapshotRecord& record) { record.save(file(), false); }

  // qzfi status --record file() [--json] on host; its exit code.
  int status(const HostIdentity& host, bool json = false) {
    Options options;
    options.command = qzfi_host::Command::status;
    options.record = file();
    options.json = json;
    m_probe.here = host;
    m_out.str("");
    m_err.str("");
    return qzfi_host::showStatus(options, m_probe, m_out, m_err);
  }
  Json document() const { return Json::parse(m_out.str()); }

  // The volume manager of this host imports groups.
  void groupsHere(const Lines& groups) {
    std::vector<std::string> lines = {"NAME     STATE         ID\n"};
    for (const std::string& group : groups) {
      lines.push_back(group + "      enabled,cds   1700000039.3.A\n");
    }
    CFiExecSeam::answer(kQzdgList, 0, lines);
  }

  qztest::TempDir m_dir;
  CFiExecSeamScope m_seam;
  HostProbe m_probe;
  std::set<std::string> m_devices;
  std::ostringstream m_out;
  std::ostringstream m_err;
};

TEST_F(StatusTest, APreparedRecordOnTheSourcesHostNamesDeport) {
  save(recordAt(RecordStep::prepared));
  groupsHere({"dg1"});
  EXPECT_EQ(status(kA), 0);
  EXPECT_EQ(m_out.str(),
            "record:     " + file() +
                "\n"
                "object:     /dev/qz/dsk/dg1/vol1 (plug-in qzvmfi)\n"
                "step:       prepared: prepare on A (machine id aaaa) at 2026-11-26T01:00:00Z\n"
                "source:     A (machine id aaaa), access on\n"
                "command:    none running, none stopped half-way\n"
                "this host:  A (machine id aaaa): the source's host\n"
                "found:      the source's group dg1 is imported here\n"
                "state:      done (exit 0)\n"
                "next:       qzfi deport --record " +
                file() +
                "\n"
                "run on:     A (machine id aaaa), this host\n"
                "why:        once the array has split the source's disks: the source's "
                "configuration kept\n");
  EXPECT_EQ(m_err.str(), "");
  // Listings only.
  EXPECT_THAT(CFiExecSeam::commands(), ElementsAre(kQzdgList));
}

TEST_F(StatusTest, AHostWithNoPartInTheBackupIsNotAsked) {
  save(recordAt(RecordStep::prepared));
  EXPECT_EQ(status(kC, true), 0);
  const Json json = document();
  EXPECT_EQ(json["this_host"]["roles"], Json::array());
  EXPECT_EQ(json["next"]["where"], "A (machine id aaaa)");
  EXPECT_EQ(json["next"]["host"], Json({{"name", "A"}, {"machine_id", "aaaa"}}));
  EXPECT_TRUE(CFiExecSeam::commands().empty());
}

TEST_F(StatusTest, AccessOffBeforeTheDeportNamesAccessOn) {
  CSnapshotRecord record = recordAt(RecordStep::prepared);
  record.sourceAccess = false;
  save(record);
  groupsHere({});
  EXPECT_EQ(status(kA, true), 0);
  const Json json = document();
  EXPECT_EQ(json["next"]["command"], "qzfi access on --record " + file());
  EXPECT_EQ(json["this_host"]["found"],
            Json::array({"the source's group dg1 is not imported here"}));
  EXPECT_EQ(json["attention"], Json::array());
}

TEST_F(StatusTest, ASourceGroupGoneWhileAccessIsOnNeedsAttention) {
  save(recordAt(RecordStep::deported));
  groupsHere({});
  EXPECT_EQ(status(kA), 11);
  EXPECT_THAT(m_out.str(), HasSubstr("\nattention:  the record says access to the source is on, "
                                     "but its group dg1 is not imported here\n"
                                     "state:      needs attention (exit 11)\n"));
}

TEST_F(StatusTest, ADeportedRecordNamesImportWithADiskPerSubObject) {
  save(recordAt(RecordStep::deported));
  EXPECT_EQ(status(kC, true), 0);
  const Json json = document();
  EXPECT_EQ(json["step"], "deported");
  EXPECT_EQ(json["next"]["command"], "qzfi import --record " + file() + " --secondary DISK1,DISK2");
  EXPECT_EQ(json["next"]["placeholders"], true);
  EXPECT_TRUE(json["next"]["host"].is_null());
  EXPECT_EQ(json["next"]["why"],
            "the copy built on the split disks, named as that host names them: DISK1 the split "
            "copy of /dev/sdb, DISK2 the split copy of /dev/sdd");
}

TEST_F(StatusTest, AnImportedCopyStartedOnItsHostNamesRelease) {
  save(recordAt(RecordStep::imported));
  groupsHere({"dg1_7"});
  CFiExecSeam::answer("/usr/sbin/qzinfo -g dg1_7 vol1", 0, {"vol1  fsgen  Started\n"});
  EXPECT_EQ(status(kB, true), 0);
  const Json json = document();
  EXPECT_EQ(json["state"], "done");
  EXPECT_EQ(json["exit_code"], 0);
  EXPECT_EQ(json["copy"], Json({{"object", kCopy},
                                {"secondary", {"/dev/sdf", "/dev/sdh"}},
                                {"host", {{"name", "B"}, {"machine_id", "bbbb"}}}}));
  EXPECT_EQ(json["this_host"]["roles"], Json::array({"the copy's host"}));
  EXPECT_EQ(json["this_host"]["found"],
            Json::array({"the copy's group dg1_7 is imported here, its volume vol1 Started"}));
  EXPECT_EQ(json["next"]["command"], "qzfi release --record " + file());
  EXPECT_EQ(json["next"]["where"], "B (machine id bbbb), this host");
  EXPECT_TRUE(json["running"].is_null());
  EXPECT_TRUE(json["stopped"].is_null());
  EXPECT_THAT(CFiExecSeam::commands(), ElementsAre(kQzdgList, "/usr/sbin/qzinfo -g dg1_7 vol1"));
}

TEST_F(StatusTest, ACopyMissingFromItsHostNeedsAttentionAndItsDisksAreNamed) {
  save(recordAt(RecordStep::imported));
  groupsHere({});
  m_devices = {"/dev/sdf"};
  CFiExecSeam::answer("/usr/sbin/qzdisk list /dev/sdf", 0, {"Device:    sdf\n", "group:     -\n"});
  EXPECT_EQ(status(kB), 11);
  EXPECT_THAT(m_out.str(),
              HasSubstr("found:      the copy's group dg1_7 is not imported here\n"
                        "found:      the copy's split disk /dev/sdf carries no group\n"
                        "found:      the copy's split disk /dev/sdh is not on this host (out of "
                        "its view)\n"
                        "attention:  the record says the copy " +
                        kCopy +
                        " is imported on this host, but its group dg1_7 is not\n"
                        "state:      needs attention (exit 11)\n"
                        "next:       qzfi release --record " +
                        file() + "\n"));
}

TEST_F(StatusTest, AMovedCopyNamesItsImportWithTheDisksItHad) {
  save(recordAt(RecordStep::moved));
  groupsHere({});
  EXPECT_EQ(status(kC, true), 0);
  EXPECT_EQ(document()["next"]["command"],
            "qzfi import --record " + file() + " --secondary /dev/sdf,/dev/sdh");
}

TEST_F(StatusTest, AReleasedBackupIsDone) {
  save(recordAt(RecordStep::released));
  groupsHere({"dg1"});
  EXPECT_EQ(status(kA), 0);
  EXPECT_THAT(m_out.str(), HasSubstr("\nstate:      done (exit 0)\n"
                                     "next:       none: the backup is done\n"));
  EXPECT_EQ(status(kA, true), 0);
  EXPECT_TRUE(document()["next"].is_null());
}

TEST_F(StatusTest, AStoppedCommandIsNamedAsItWasGivenWithTheRecordAsStatusWasGivenIt) {
  const CSnapshotRecord record = recordAt(RecordStep::deported);
  save(record);
  qzfi_host::writeCommandMark(file(), markOf("import",
                                             {"import", "--record", "elsewhere/backup.json",
                                              "--secondary", "/dev/sdf,/dev/sdh"},
                                             record, kB));
  groupsHere({});
  m_devices = {"/dev/sdf"};
  CFiExecSeam::answer("/usr/sbin/qzdisk list /dev/sdf", 0,
                      {"Device:    sdf\n", "group:     name=dg1_7 id=1.2.B\n"});
  EXPECT_EQ(status(kB), 10);
  EXPECT_EQ(m_out.str(),
            "record:     " + file() +
                "\n"
                "object:     /dev/qz/dsk/dg1/vol1 (plug-in qzvmfi)\n"
                "step:       deported: deport on A (machine id aaaa) at 2026-11-26T01:00:00Z\n"
                "source:     A (machine id aaaa), access on\n"
                "command:    import stopped half-way: started 2026-11-26T02:00:00Z by root "
                "(uid 0) on B (machine id bbbb) as process 4242, at the step deported; it holds "
                "no lock and wrote no event\n"
                "this host:  B (machine id bbbb): where import stopped\n"
                "found:      the stopped import's split disk /dev/sdf carries the group dg1_7\n"
                "found:      the stopped import's split disk /dev/sdh is not on this host (out "
                "of its view)\n"
                "state:      stopped (exit 10)\n"
                "next:       qzfi import --record " +
                file() +
                " --secondary /dev/sdf,/dev/sdh\n"
                "run on:     B (machine id bbbb), this host\n"
                "why:        the same command again: import was stopped half-way; run again, it "
                "finishes what it began\n");
  EXPECT_EQ(status(kA), 10);
  EXPECT_THAT(m_out.str(),
              HasSubstr("at the step deported; no lock of it is seen from this host and it wrote "
                        "no event (on a records folder shared over the network, qzfi status on B "
                        "tells whether it still runs there)\nthis host:  A (machine id aaaa): "
                        "the source's host\n"));
  EXPECT_EQ(status(kA, true), 10);
  const Json json = document();
  EXPECT_EQ(json["state"], "stopped");
  EXPECT_EQ(json["stopped"]["command"], "import");
  EXPECT_EQ(json["stopped"]["pid"], 4242);
  EXPECT_EQ(json["stopped"]["step_at_start"], "deported");
  EXPECT_EQ(json["next"]["host"], Json({{"name", "B"}, {"machine_id", "bbbb"}}));
  EXPECT_EQ(json["next"]["arguments"],
            Json::array({"import", "--record", file(), "--secondary", "/dev/sdf,/dev/sdh"}));
}

TEST_F(StatusTest, AMarkOfACommandThatWroteItsEventIsNoStop) {
  CSnapshotRecord record = recordAt(RecordStep::prepared);
  const CommandMark mark = markOf("deport", {"deport", "--record", file()}, record, kA);
  record.step = RecordStep::deported;
  record.events.push_back({"deport", "2026-11-26T02:01:00Z", "", kA});
  save(record);
  qzfi_host::writeCommandMark(file(), mark);
  groupsHere({"dg1"});
  EXPECT_EQ(status(kA, true), 0);
  EXPECT_TRUE(document()["stopped"].is_null());
  EXPECT_EQ(document()["next"]["command"],
            "qzfi import --record " + file() + " --secondary DISK1,DISK2");
}

TEST_F(StatusTest, AMarkThatCannotBeReadNeedsAttention) {
  save(recordAt(RecordStep::prepared));
  std::ofstream(qzfi_host::commandMarkFile(file())) << "{ torn";
  groupsHere({"dg1"});
  EXPECT_EQ(status(kA), 11);
  EXPECT_THAT(m_out.str(), HasSubstr("command:    a command left a mark that cannot be read: " +
                                     qzfi_host::commandMarkFile(file()) + "\n"));
}

// A child process holds the record's lock, as a running command does, until
// the test closes the pipe it waits on.
class LockHolder {
 public:
  explicit LockHolder(const std::string& file) {
    int ready[2];
    if (pipe(m_release) != 0 || pipe(ready) != 0) {
      return;
    }
    m_pid = fork();
    if (m_pid == 0) {
      const int fd = open(file.c_str(), O_RDONLY);
      flock(fd, LOCK_EX);
      char byte = 1;
      close(m_release[1]);
      (void)!write(ready[1], &byte, 1);
      (void)!read(m_release[0], &byte, 1);
      _exit(0);
    }
    close(ready[1]);
    char byte = 0;
    (void)!read(ready[0], &byte, 1);
    close(ready[0]);
  }
  ~LockHolder() {
    close(m_release[1]);
    waitpid(m_pid, nullptr, 0);
  }
  pid_t pid() const { return m_pid; }

 private:
  int m_release[2] = {-1, -1};
  pid_t m_pid = -1;
};

TEST_F(StatusTest, ACommandThatHoldsTheLockRunsNowAndNothingIsRead) {
  const CSnapshotRecord record = recordAt(RecordStep::imported);
  save(record);
  qzfi_host::writeCommandMark(file(),
                              markOf("release", {"release", "--record", file()}, record, kB));
  LockHolder holder(file());
  EXPECT_EQ(status(kB), 9);
  const std::string pid = std::to_string(holder.pid());
  EXPECT_THAT(m_out.str(),
              HasSubstr("command:    release runs now (process " + pid +
                        "; started 2026-11-26T02:00:00Z by root (uid 0) on B (machine id bbbb) "
                        "as process 4242, at the step imported)\n"
                        "this host:  B (machine id bbbb): the copy's host (not read while a "
                        "command runs)\n"
                        "state:      in progress (exit 9)\n"
                        "next:       none while process " +
                        pid + " runs: run qzfi status again when it has ended\n"));
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  EXPECT_EQ(status(kB, true), 9);
  EXPECT_EQ(document()["running"], Json({{"pid", holder.pid()}, {"command", "release"}}));
  EXPECT_TRUE(document()["next"].is_null());
}

TEST_F(StatusTest, AMissingRecordNamesPrepareWithWhatIsNotKnown) {
  EXPECT_EQ(status(kA), 3);
  EXPECT_THAT(m_out.str(), HasSubstr("state:      unreadable (exit 3)\n"
                                     "next:       qzfi prepare OBJECT --record " +
                                     file() + "\nrun on:     the source's host\n"));
  EXPECT_THAT(m_err.str(), HasSubstr("qzfi status: the record " + file() + " cannot be read: "));
  EXPECT_EQ(status(kA, true), 3);
  EXPECT_EQ(document()["state"], "unreadable");
  EXPECT_EQ(document()["next"]["placeholders"], true);
}

TEST_F(StatusTest, ADamagedRecordNamesNoCommand) {
  std::ofstream(file()) << "{}";
  EXPECT_EQ(status(kA), 3);
  EXPECT_EQ(m_out.str(), "");
  EXPECT_EQ(m_err.str(), "qzfi status: the record " + file() +
                             " cannot be used: it is not a qzfi snapshot record\n");
}

class ListTest : public StatusTest {
 protected:
  int list(const std::string& folder, bool json = false) {
    Options options;
    options.command = qzfi_host::Command::list;
    options.folder = folder;
    options.json = json;
    m_out.str("");
    m_err.str("");
    return qzfi_host::showList(options, m_probe, m_out, m_err);
  }
};

TEST_F(ListTest, EveryRecordOfTheFolderIsALine) {
  const std::string folder = m_dir.path();
  recordAt(RecordStep::prepared).save(m_dir.file("a.json"), true);
  const CSnapshotRecord deported = recordAt(RecordStep::deported);
  deported.save(m_dir.file("b.json"), true);
  qzfi_host::writeCommandMark(
      m_dir.file("b.json"),
      markOf("import", {"import", "--record", "b.json", "--secondary", "sdf,sdh"}, deported, kB));
  recordAt(RecordStep::imported).save(m_dir.file("c.json"), true);
  recordAt(RecordStep::moved).save(m_dir.file("d.json"), true);
  recordAt(RecordStep::released).save(m_dir.file("e.json"), true);
  std::ofstream(m_dir.file("f.json")) << R"({"format": "qzfi snapshot record", "version": 9})";
  std::ofstream(m_dir.file("notes.txt")) << "not a record\n";
  EXPECT_EQ(list(folder), 0);
  EXPECT_EQ(m_out.str(),
            "RECORD  OBJECT                STEP        COPY                    ON  AGE  COMMAND\n"
            "a.json  /dev/qz/dsk/dg1/vol1  prepared    -                       -   2h   -\n"
            "b.json  /dev/qz/dsk/dg1/vol1  deported    -                       -   2h   stopped: "
            "import\n"
            "c.json  /dev/qz/dsk/dg1/vol1  imported    /dev/qz/dsk/dg1_7/vol1  B   2h   -\n"
            "d.json  /dev/qz/dsk/dg1/vol1  moved       /dev/qz/dsk/dg1_7/vol1  B   2h   -\n"
            "e.json  /dev/qz/dsk/dg1/vol1  released    /dev/qz/dsk/dg1_7/vol1  B   2h   -\n"
            "f.json  -                     unreadable  -                       -   -    -\n"
            "unreadable: the record f.json cannot be used: it is a record of version 9; this "
            "qzfi reads version 1\n");
  EXPECT_TRUE(CFiExecSeam::commands().empty());

  EXPECT_EQ(list(folder, true), 0);
  const Json json = document();
  EXPECT_EQ(json["folder"], folder);
  ASSERT_EQ(json["records"].size(), 5u);
  EXPECT_EQ(json["records"][1],
            Json({{"record", m_dir.file("b.json")},
                  {"object", "/dev/qz/dsk/dg1/vol1"},
                  {"step", "deported"},
                  {"copy", nullptr},
                  {"copy_host", nullptr},
                  {"age_seconds", 7200},
                  {"age", "2h"},
                  {"command", {{"state", "stopped"}, {"command", "import"}, {"pid", 4242}}}}));
  EXPECT_EQ(json["records"][2]["copy_host"], Json({{"name", "B"}, {"machine_id", "bbbb"}}));
  EXPECT_EQ(json["unreadable"][0]["record"], m_dir.file("f.json"));
}

TEST_F(ListTest, ARunningCommandIsShownWithItsProcess) {
  const CSnapshotRecord record = recordAt(RecordStep::imported);
  record.save(m_dir.file("c.json"), true);
  qzfi_host::writeCommandMark(m_dir.file("c.json"),
                              markOf("move", {"move", "--record", "c.json"}, record, kB));
  LockHolder holder(m_dir.file("c.json"));
  EXPECT_EQ(list(m_dir.path()), 0);
  EXPECT_THAT(m_out.str(),
              HasSubstr("  running: move (pid " + std::to_string(holder.pid()) + ")\n"));
}

TEST_F(ListTest, AnEmptyFolderSaysSo) {
  EXPECT_EQ(list(m_dir.path()), 0);
  EXPECT_EQ(m_out.str(), "no records in " + m_dir.path() + "\n");
}

TEST_F(ListTest, AMissingFolderIsNamed) {
  EXPECT_EQ(list(m_dir.file("none")), 3);
  EXPECT_EQ(m_err.str(), "qzfi list: the folder " + m_dir.file("none") +
                             " does not exist: name the folder that holds the records\n");
  qztest::ScopedEnv named("QZFI_RECORD_DIR", m_dir.file("none"));
  EXPECT_EQ(list(""), 3);
  EXPECT_EQ(m_err.str(), "qzfi list: the folder " + m_dir.file("none") +
                             " does not exist (the package makes /var/lib/qzfi/records; "
                             "QZFI_RECORD_DIR names another): name the folder that holds the "
                             "records\n");
}

TEST_F(ListTest, TheDefaultFolderIsThePackagesUnlessNamed) {
  {
    qztest::ScopedEnv unset("QZFI_RECORD_DIR", std::nullopt);
    EXPECT_EQ(qzfi_host::defaultRecordFolder(), "/var/lib/qzfi/records");
  }
  qztest::ScopedEnv named("QZFI_RECORD_DIR", m_dir.path());
  EXPECT_EQ(qzfi_host::defaultRecordFolder(), m_dir.path());
  recordAt(RecordStep::prepared).save(m_dir.file("a.json"), true);
  EXPECT_EQ(list(""), 0);
  EXPECT_THAT(m_out.str(), HasSubstr("\na.json  "));
}

}  // namespace
