// The record knows which host holds what: each step records the host it ran
// on (machine id and host name); deport and access run on the source's
// host, move and release on the host that imported the copy, and a command
// on another host is refused at the door with nothing run and the record
// unchanged. A host with a new identity is taken on only when asked.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "agent_process.h"
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class HostsTest : public QzfiTest {
 protected:
  // The machine id host shows in its sandbox.
  std::string machineId(const std::string& host) {
    const qzsim::CommandResult result = sandboxed(host, {"cat", "/etc/machine-id"});
    EXPECT_EQ(result.status, 0) << result.err;
    return qzfi_e2e::words(result.out).at(0);
  }

  std::string recordBytes() { return qztest::readFile(record()); }

  // Everything the volume manager shows on host: disks and groups.
  std::string viewOf(const std::string& host) {
    return tool(host, "qzdisk list") + tool(host, "qzdg list");
  }

  // qzfi ARGS on host must be refused at the door: exit 3, both hosts named,
  // no tool run, the plug-in not started, the record byte for byte as it was.
  QzfiRun expectRefusedAtTheDoor(const std::string& host, const Lines& args,
                                 const std::string& recorded) {
    const std::string before = recordBytes();
    const long runs = toolRuns();
    const QzfiRun run = qzfi(host, args);
    EXPECT_EQ(run.status, 3) << run;
    EXPECT_THAT(run.err, HasSubstr(host + " (machine id " + machineId(host) + ")")) << run;
    EXPECT_THAT(run.err, HasSubstr(recorded + " (machine id " + machineId(recorded) + ")")) << run;
    EXPECT_THAT(run.err, HasSubstr("nothing was changed")) << run;
    EXPECT_THAT(run.out, Not(HasSubstr("  init "))) << run;
    EXPECT_EQ(toolRuns(), runs) << run;
    EXPECT_EQ(recordBytes(), before);
    return run;
  }

  // The record as an earlier qzfi wrote it: no hosts in it.
  void forgetHosts() {
    Json rec = readRecord();
    rec.erase("source_host");
    rec["alternate"].erase("host");
    for (Json& event : rec["events"]) {
      event.erase("host");
    }
    std::ofstream(record()) << rec.dump(2) << "\n";
  }

  // prepare, split to B, deport, import on B; the copy's device path.
  std::string importedOnB() {
    const std::string secondary = prepareSplitDeport("B");
    const QzfiRun imported =
        qzfi("B", {"--quiet", "import", "--record", record(), "--secondary", secondary});
    EXPECT_EQ(imported.status, 0) << imported;
    return qzfi_e2e::linesOf(imported.out).at(0);
  }
};

TEST_F(HostsTest, EachStepRecordsTheHostItRanOn) {
  makeSource();
  const std::string copy = importedOnB();
  const Json rec = readRecord();
  EXPECT_EQ(rec["source_host"], Json({{"name", "A"}, {"machine_id", machineId("A")}}));
  EXPECT_EQ(rec["alternate"]["host"], Json({{"name", "B"}, {"machine_id", machineId("B")}}));
  Lines where;
  for (const Json& event : rec["events"]) {
    where.push_back(event["command"].get<std::string>() + "@" +
                    event["host"]["name"].get<std::string>());
  }
  EXPECT_THAT(where, ElementsAre("prepare@A", "deport@A", "import@B"));
  EXPECT_NE(machineId("A"), machineId("B"));
}

// The slip that started it: the copy imported on B, release run on A.
TEST_F(HostsTest, AReleaseOnTheSourceHostIsRefusedAndTheRightOneWorks) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  const QzfiRun wrong = expectRefusedAtTheDoor("A", {"release", "--record", record()}, "B");
  EXPECT_THAT(wrong.err, HasSubstr("release runs on the host that holds the copy"));
  EXPECT_THAT(wrong.err, HasSubstr("run it on B"));
  EXPECT_THAT(groups("B"), ElementsAre(group));
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));

  const QzfiRun released = qzfi("B", {"release", "--record", record()});
  ASSERT_EQ(released.status, 0) << released;
  EXPECT_TRUE(groups("B").empty());
  EXPECT_EQ(readRecord()["step"], "released");
  EXPECT_EQ(readRecord()["events"].back()["host"]["name"], "B");
  expectConsistent();
}

TEST_F(HostsTest, EachCommandOfTheRebuildFlowOnTheWrongHostIsRefused) {
  makeSource();
  // prepare where the source is not: no record.
  const QzfiRun elsewhere = qzfi("B", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
  EXPECT_NE(elsewhere.status, 0) << elsewhere;
  EXPECT_NE(access(record().c_str(), F_OK), 0);
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const std::string prepared = recordBytes();
  const QzfiRun again = qzfi("B", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()});
  EXPECT_EQ(again.status, 3) << again;
  EXPECT_EQ(recordBytes(), prepared);

  const std::string secondary = splitTo("B");
  expectRefusedAtTheDoor("B", {"deport", "--record", record()}, "A");
  expectRefusedAtTheDoor("C", {"deport", "--record", record()}, "A");
  ASSERT_EQ(qzfi("A", {"deport", "--record", record()}).status, 0);

  // import on a host without the split disks (C has none) changes nothing.
  const std::string deported = recordBytes();
  const QzfiRun noDisks =
      qzfi("C", {"import", "--record", record(), "--secondary", "/dev/sdb,/dev/sdd"});
  EXPECT_NE(noDisks.status, 0) << noDisks;
  EXPECT_EQ(recordBytes(), deported);
  EXPECT_TRUE(groups("C").empty());
  const QzfiRun imported =
      qzfi("B", {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(imported.status, 0) << imported;
  const auto [group, volume] = groupAndVolume(qzfi_e2e::linesOf(imported.out).at(0));
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);

  expectRefusedAtTheDoor("A", {"release", "--record", record()}, "B");
  expectRefusedAtTheDoor("C", {"release", "--record", record()}, "B");
  // access stays with the source's host.
  expectRefusedAtTheDoor("B", {"access", "off", "--record", record()}, "A");
  ASSERT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("B").empty());
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  expectConsistent();
}

TEST_F(HostsTest, AMoveOnTheWrongHostIsRefused) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  expectRefusedAtTheDoor("A", {"move", "--record", record()}, "B");
  expectRefusedAtTheDoor("C", {"move", "--record", record()}, "B");
  EXPECT_THAT(groups("B"), ElementsAre(group));
  const QzfiRun moved = qzfi("B", {"move", "--record", record()});
  ASSERT_EQ(moved.status, 0) << moved;
  EXPECT_TRUE(groups("B").empty());
  EXPECT_EQ(readRecord()["step"], "moved");
  EXPECT_EQ(readRecord()["alternate"]["host"]["name"], "B");

  // Imported on C, the copy is C's: release there, not on B.
  std::vector<SimDisk> onC;
  for (const SimDisk& disk : m_copies) {
    admin({"disk", "detach", disk.lun, "--host", "B"});
    onC.push_back(
        qzfi_e2e::parseDisks(admin({"disk", "attach", disk.lun, "--host", "C", "--paths", "2"}))
            .at(0));
  }
  ASSERT_EQ(qzfi("C", {"import", "--record", record(), "--secondary", osPathsOf(onC)}).status, 0);
  const Json rec = readRecord();
  EXPECT_EQ(rec["alternate"]["host"]["name"], "C");
  EXPECT_EQ(rec["earlier_copies"][0]["host"]["name"], "B");
  expectRefusedAtTheDoor("B", {"release", "--record", record()}, "C");
  ASSERT_EQ(qzfi("C", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("C").empty());
  expectConsistent();
}

// The array presents the copy's LUNs to A and B at once: A sees the disks
// but did not import them.
TEST_F(HostsTest, CopyDisksSeenByBothHostsAreReleasedOnlyWhereImported) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  for (const SimDisk& disk : m_copies) {
    admin({"disk", "attach", disk.lun, "--host", "A"});
  }
  tool("A", "qzdisk scandisks");
  const std::string viewA = viewOf("A"), viewB = viewOf("B");
  expectRefusedAtTheDoor("A", {"release", "--record", record()}, "B");
  EXPECT_EQ(viewOf("A"), viewA);
  EXPECT_EQ(viewOf("B"), viewB);
  EXPECT_THAT(groups("B"), ElementsAre(group));
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);

  ASSERT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("B").empty());
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
}

// A reinstalled source host has a new machine id: refused until taken on.
TEST_F(HostsTest, AReinstalledHostIsTakenOnOnlyWhenAsked) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const std::string before = machineId("A");
  splitTo("B");
  admin({"host", "reinstall", "A"});
  const std::string after = machineId("A");
  ASSERT_NE(after, before);

  const std::string prepared = recordBytes();
  const long runs = toolRuns();
  const QzfiRun refused = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("A (machine id " + before + ")"));
  EXPECT_THAT(refused.err, HasSubstr("the same name but the machine id " + after));
  EXPECT_THAT(refused.err, HasSubstr("--this-host-was A"));
  EXPECT_EQ(toolRuns(), runs);
  EXPECT_EQ(recordBytes(), prepared);

  // Another host's name is not this one's past.
  const QzfiRun wrongName = qzfi("A", {"deport", "--record", record(), "--this-host-was", "B"});
  EXPECT_EQ(wrongName.status, 3) << wrongName;
  EXPECT_THAT(wrongName.err, HasSubstr("--this-host-was B names neither"));
  EXPECT_EQ(recordBytes(), prepared);

  const QzfiRun taken = qzfi("A", {"deport", "--record", record(), "--this-host-was", before});
  ASSERT_EQ(taken.status, 0) << taken;
  const Json rec = readRecord();
  EXPECT_EQ(rec["step"], "deported");
  EXPECT_EQ(rec["source_host"], Json({{"name", "A"}, {"machine_id", after}}));
  EXPECT_THAT(rec["events"].back()["detail"].get<std::string>(), HasSubstr("taken on as A"));
  // From now on the host is the source's as it is.
  ASSERT_EQ(qzfi("A", {"access", "off", "--record", record()}).status, 0);
  ASSERT_EQ(qzfi("A", {"access", "on", "--record", record()}).status, 0);
}

// A record without hosts cannot tell where the copy is: release proves it
// with what the volume manager of its host shows, before the plug-in runs.
TEST_F(HostsTest, WithoutHostsInTheRecordReleaseFindsTheCopyOrRefuses) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  forgetHosts();
  const std::string old = recordBytes();
  const std::vector<SimDisk> copies = m_copies;
  const Json secondary = readRecord()["alternate"]["secondary"];

  // On A the split disks' names are those of the source's disks.
  const QzfiRun onA = qzfi("A", {"release", "--record", record()});
  EXPECT_EQ(onA.status, 3) << onA;
  EXPECT_THAT(onA.err,
              HasSubstr("the copy " + group + " is not imported on this host A (machine id " +
                        machineId("A") + ")"));
  EXPECT_THAT(onA.err, HasSubstr("(group dg1)"));
  EXPECT_THAT(onA.err, HasSubstr("release it on the host that imported it"));
  EXPECT_THAT(onA.out, Not(HasSubstr("  init ")));
  EXPECT_EQ(recordBytes(), old);
  // On C they are not there at all.
  const QzfiRun onC = qzfi("C", {"release", "--record", record()});
  EXPECT_EQ(onC.status, 3) << onC;
  EXPECT_THAT(onC.err, HasSubstr("its disks " + secondary[0].get<std::string>()));
  EXPECT_THAT(onC.err, HasSubstr("are not here"));
  EXPECT_EQ(recordBytes(), old);
  EXPECT_THAT(groups("B"), ElementsAre(group));
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));

  // On B the group is imported: released, and B named as the copy's host.
  const QzfiRun onB = qzfi("B", {"release", "--record", record()});
  ASSERT_EQ(onB.status, 0) << onB;
  EXPECT_THAT(onB.out, HasSubstr("is imported on this host B"));
  EXPECT_TRUE(groups("B").empty());
  const Json rec = readRecord();
  EXPECT_EQ(rec["step"], "released");
  EXPECT_EQ(rec["alternate"]["host"]["name"], "B");
  expectConsistent();
}

// The group destroyed by hand on the host that imported it: its disks are
// there with no group, which proves it gone.
TEST_F(HostsTest, AGroupGoneFromItsDisksIsReleasedWhereTheDisksAre) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  // B installed anew, its copy's group destroyed by hand.
  admin({"host", "reinstall", "B"});
  tool("B", "qzvol -g " + group + " stopall");
  tool("B", "qzdg destroy " + group);
  ASSERT_TRUE(groups("B").empty());
  const QzfiRun taken = qzfi("B", {"release", "--record", record(), "--this-host-was", "B"});
  ASSERT_EQ(taken.status, 0) << taken;
  EXPECT_THAT(taken.out, HasSubstr("is gone: its disks"));
  EXPECT_EQ(readRecord()["step"], "released");
  EXPECT_EQ(readRecord()["alternate"]["host"]["machine_id"], machineId("B"));
}

// The host's agent checks the host as qzfi alone does: it runs on its host.
TEST_F(HostsTest, TheAgentOfTheWrongHostRefusesToo) {
  makeSource();
  const std::string copy = importedOnB();
  const auto [group, volume] = groupAndVolume(copy);
  const std::string run = root() + "/run";
  ASSERT_EQ(0, mkdir(run.c_str(), 0700));
  qzfi_e2e::CAgentProcess onA(root(), "A", run);
  ASSERT_EQ("", onA.error());
  const std::string before = recordBytes();
  const QzfiRun refused = checked("", {"release"}, [&] {
    return qzfi_e2e::viaAgent(onA, {"release", "--record", record()});
  });
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("B (machine id " + machineId("B") + ")"));
  EXPECT_THAT(refused.err, HasSubstr("A (machine id " + machineId("A") + ")"));
  EXPECT_EQ(recordBytes(), before);
  EXPECT_THAT(groups("B"), ElementsAre(group));
  ASSERT_EQ(qzfi("B", {"release", "--record", record()}).status, 0);
  EXPECT_TRUE(groups("B").empty());
}

// A renamed host keeps its machine id: refused until taken on by its old
// name, as a reinstalled one.
TEST_F(HostsTest, ARenamedHostIsTakenOnOnlyWhenAsked) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  splitTo("B");
  // qzfi on A, under the host name A2.
  auto renamed = [&](const Lines& args) {
    return checked("A", args, [&] {
      std::string line = "hostname A2 && exec " + std::string(QZFI_BINARY);
      for (const std::string& arg : args) {
        line += " '" + arg + "'";
      }
      const qzsim::CommandResult result = sandboxed("A", {"unshare", "--uts", "sh", "-c", line});
      return QzfiRun{result.status, result.out, result.err};
    });
  };
  const std::string prepared = recordBytes();
  const QzfiRun refused = renamed({"deport", "--record", record()});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("A (machine id " + machineId("A") + ")"));
  EXPECT_THAT(refused.err, HasSubstr("this host has its machine id but the name A2"));
  EXPECT_THAT(refused.err, HasSubstr("--this-host-was A"));
  EXPECT_EQ(recordBytes(), prepared);
  const QzfiRun taken = renamed({"deport", "--record", record(), "--this-host-was", "A"});
  ASSERT_EQ(taken.status, 0) << taken;
  EXPECT_EQ(readRecord()["source_host"], Json({{"name", "A2"}, {"machine_id", machineId("A")}}));
  // Under its old name again, it is refused the other way round.
  const std::string deported = recordBytes();
  const QzfiRun back = qzfi("A", {"access", "off", "--record", record()});
  EXPECT_EQ(back.status, 3) << back;
  EXPECT_THAT(back.err, HasSubstr("A2 (machine id " + machineId("A") + ")"));
  EXPECT_THAT(back.err, HasSubstr("this host has its machine id but the name A:"));
  EXPECT_EQ(recordBytes(), deported);
}

}  // namespace
