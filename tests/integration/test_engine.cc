// The engine against the simulated volume manager: a source host A and a
// host B that sees the array's copies of A's disks.
#include "engine.h"

#include <filesystem>

#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::linesOf;
using qzvmfi_it::words;
using Names = std::vector<std::string>;

class HostEngine : public CQzVMEngine {};

class EngineOnSimulator : public qzvmfi_it::SimHostTest {
 protected:
  void SetUp() override {
    SimHostTest::SetUp();
    if (IsSkipped()) {
      return;
    }
    admin({"host", "add", "A"});
    admin({"host", "add", "B"});
  }

  void TearDown() override {
    m_engine.reset();
    SimHostTest::TearDown();
  }

  // The engine of a fresh plug-in process on host.
  CQzVMEngine& actAs(const std::string& host) {
    m_engine.reset();
    SimHostTest::actAs(host);
    m_engine = std::make_unique<HostEngine>();
    EXPECT_EQ(0, m_engine->initEngine());
    return *m_engine;
  }

  // Group dg1 on host A: count disks, a 16m volume vol<i> for each of
  // volumes (the first with a DCO), data written into each. Returns the
  // OS names of the disks on A.
  Names sourceGroup(int disks = 2, int volumes = 1) {
    Names osNames;
    for (const qzvmfi_it::SimDisk& disk : addDisks(disks, "A", 1)) {
      m_primary.push_back(disk.node);
      osNames.push_back(disk.osNames.at(0));
    }
    m_sourceDMs = makeGroup("A", "dg1", m_primary);
    for (int i = 1; i <= volumes; ++i) {
      const std::string volume = "vol" + std::to_string(i);
      tool("A", "qzassist -g dg1 make " + volume + " 16m" + (i == 1 ? " logtype=dco" : ""));
      admin({"volume", "write", "--host", "A", "dg1", volume, "--seed", std::to_string(i)});
    }
    m_osA = osNames;
    return osNames;
  }

  // What initNode records on A, carried to another host as a blob.
  void recordOnA(CQzVMData& carried, bool nopriv = false) {
    m_sourceSum = checksum("A", "dg1", "vol1");
    CQzVMEngine& engine = actAs("A");
    CQzVMData data(nullptr, false);
    ASSERT_EQ(0, engine.getQzVMObjects("/dev/qz/dsk/dg1/vol1", &data));
    ASSERT_EQ(0, engine.setQzVMConfigInPD("/dev/qz/dsk/dg1/vol1", &data));
    for (size_t i = 0; i < m_osA.size(); ++i) {
      data.setDiskDMPMap(m_osA[i], m_primary[i]);
    }
    Names disks = m_primary;
    Names dms;
    std::vector<Names> listings;
    ASSERT_EQ(0, data.getVolPrivInfoFromPD(disks, dms, listings));
    m_dms = dms;
    if (nopriv) {
      for (std::string& line : listings[0]) {
        if (line.compare(0, 5, "type:") == 0) {
          line = "type:      nopriv\n";
        }
      }
      data.setVolPrivInfoInPD(disks, dms, listings);
    }
    data.setDGId(words(linesOf(tool("A", "qzdg list")).at(1))[2]);
    qfi_blob blob{};
    ASSERT_EQ(0, data.createBlob(&blob));
    ASSERT_EQ(0, carried.extractFromBlob(&blob));
    qzfi_free_buf(blob.data, blob.len);
  }

  // The array's copies of A's disks on B; returns their OS names there.
  Names splitToB() {
    std::string disks;
    for (const std::string& disk : m_primary) {
      disks += (disks.empty() ? "" : ",") + disk;
    }
    Names osNames;
    for (const qzvmfi_it::SimDisk& copy : qzvmfi_it::parseDisks(
             admin({"array", "split", "--disks", disks, "--from-host", "A", "--to-host", "B"}))) {
      osNames.push_back(copy.osNames.at(0));
    }
    return osNames;
  }

  // The source recorded, its group deported on A, and the copies on B.
  Names deportedCopyOnB() {
    sourceGroup();
    recordOnA(m_carried);
    tool("A", "qzdg deport dg1");
    return splitToB();
  }

  size_t runsOn(const std::string& host) {
    return std::stoul(words(admin({"log", "--host", host, "--total"}))[0]);
  }

  bool pushed(const std::string& id) const {
    for (const auto& message : qzvmfi_ctx::ErrorManager::instance()->errors()) {
      if (message->getIdentifier() == id) {
        return true;
      }
    }
    return false;
  }

  std::unique_ptr<HostEngine> m_engine;
  Names m_primary;
  Names m_osA;
  Names m_sourceDMs;  // the disk-media names given on A
  Names m_dms;        // as recorded in the private data
  std::string m_sourceSum;
  CQzVMData m_carried{nullptr, true};  // the private data as the other host reads it
};

TEST_F(EngineOnSimulator, SourceRecordsTravelInTheBlob) {
  sourceGroup();
  recordOnA(m_carried);
  EXPECT_EQ((Names{"vol1", "vol1_dcl"}), m_carried.vList());
  std::string dg;
  Names dump;
  ASSERT_EQ(0, m_carried.getDGConfigFromPD(dg, dump));
  EXPECT_EQ("dg1", dg);
  EXPECT_EQ("dg dg1\n", dump.at(0));
  Names disks = m_primary;
  Names dms;
  std::vector<Names> listings;
  ASSERT_EQ(0, m_carried.getVolPrivInfoFromPD(disks, dms, listings));
  EXPECT_EQ(m_sourceDMs, dms);
  EXPECT_NE(m_primary, dms);
  EXPECT_EQ("Device:    " + m_primary[1], listings[1].at(0));
}

TEST_F(EngineOnSimulator, RebuildOnTheOtherHost) {
  sourceGroup();
  recordOnA(m_carried);
  Names split = splitToB();
  CQzVMEngine& engine = actAs("B");
  qzfi_objid* id = nullptr;
  ASSERT_EQ(0, engine.buildAltTree(&id, "dg1_1", split, "/dev/qz/rdsk/dg1/vol1", &m_carried,
                                   m_primary, m_dms));
  ASSERT_NE(nullptr, id);
  EXPECT_STREQ("/dev/qz/rdsk/dg1_1/vol1", id->name);
  EXPECT_EQ(2, id->kind);
  qzfi_free_objid(id);
  Names groups = linesOf(tool("B", "qzdg list"));
  ASSERT_EQ(2u, groups.size());
  EXPECT_EQ("dg1_1", words(groups[1])[0]);
  EXPECT_EQ(words(groups[1])[2], m_carried.getDGId());
  EXPECT_EQ("Started", words(tool("B", "qzinfo -g dg1_1 vol1"))[2]);
  EXPECT_EQ(m_sourceSum, checksum("B", "dg1_1", "vol1"));

  tool("B", "qzvol -g dg1_1 stop vol1");
  const size_t inits = runsOf("B", " init ");
  id = nullptr;
  ASSERT_EQ(0, engine.buildAltTree(&id, "dg1_2", split, "/dev/qz/dsk/dg1/vol1", &m_carried,
                                   m_primary, m_dms));
  EXPECT_STREQ("/dev/qz/dsk/dg1_1/vol1", id->name);
  qzfi_free_objid(id);
  EXPECT_EQ(inits, runsOf("B", " init "));
  EXPECT_EQ("Started", words(tool("B", "qzinfo -g dg1_1 vol1"))[2]);
  EXPECT_EQ(2u, linesOf(tool("B", "qzdg list")).size());
}

TEST_F(EngineOnSimulator, ImportOfAnIntactDeportedCopy) {
  Names split = deportedCopyOnB();
  CQzVMEngine& engine = actAs("B");
  qzfi_objid* id = nullptr;
  ASSERT_EQ(0,
            engine.importQzVM(&id, "dg1_1", m_primary, split, "/dev/qz/dsk/dg1/vol1", &m_carried));
  ASSERT_NE(nullptr, id);
  EXPECT_STREQ("/dev/qz/dsk/dg1_1/vol1", id->name);
  qzfi_free_objid(id);
  EXPECT_EQ("Started", words(tool("B", "qzinfo -g dg1_1 vol1"))[2]);
  EXPECT_EQ(m_sourceSum, checksum("B", "dg1_1", "vol1"));
  EXPECT_EQ(1u, runsOf("B", " import "));
  id = nullptr;
  ASSERT_EQ(0,
            engine.importQzVM(&id, "dg1_2", m_primary, split, "/dev/qz/dsk/dg1/vol1", &m_carried));
  EXPECT_STREQ("/dev/qz/dsk/dg1_1/vol1", id->name);
  qzfi_free_objid(id);
  EXPECT_EQ(1u, runsOf("B", " import "));
}

TEST_F(EngineOnSimulator, RecreateOnTheSameHostKeepsNames) {
  Names osDisks = sourceGroup();
  recordOnA(m_carried);
  const std::string sum = checksum("A", "dg1", "vol1");
  tool("A", "qzdg destroy dg1");
  CQzVMEngine& engine = actAs("A");
  ASSERT_EQ(0, engine.recreateDG("/dev/qz/dsk/dg1/vol1", osDisks, &m_carried));
  Names rows = linesOf(tool("A", "qzdisk -g dg1 list"));
  ASSERT_EQ(m_primary.size() + 1, rows.size());
  for (size_t i = 0; i < m_primary.size(); ++i) {
    EXPECT_EQ(m_dms[i], words(rows[i + 1])[2]);
  }
  EXPECT_EQ("Started", words(tool("A", "qzinfo -g dg1 vol1"))[2]);
  EXPECT_EQ(sum, checksum("A", "dg1", "vol1"));
}

TEST_F(EngineOnSimulator, NoprivDiskStopsTheBuildBeforeAnyDiskIsTouched) {
  sourceGroup();
  recordOnA(m_carried, true);
  Names split = splitToB();
  CQzVMEngine& engine = actAs("B");
  qzfi_objid* id = nullptr;
  EXPECT_EQ(6, engine.buildAltTree(&id, "dg1_1", split, "/dev/qz/dsk/dg1/vol1", &m_carried,
                                   m_primary, m_dms));
  EXPECT_EQ(nullptr, id);
  EXPECT_TRUE(wasTraced("defining snapshotted disk as nopriv failed."));
  EXPECT_EQ(0u, runsOf("B", " init "));
}

TEST_F(EngineOnSimulator, FaultAtStartAfterImportCleansUp) {
  Names split = deportedCopyOnB();
  admin({"fault", "add", "--host", "B", "--tool", "qzvol", "--match", "start", "--nth", "2",
         "--status", "15"});  // the first start is the DCO log volume's
  CQzVMEngine& engine = actAs("B");
  qzfi_objid* id = nullptr;
  EXPECT_EQ(6,
            engine.importQzVM(&id, "dg1_1", m_primary, split, "/dev/qz/dsk/dg1/vol1", &m_carried));
  EXPECT_TRUE(pushed("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP"));
  EXPECT_EQ(1u, runsOf("B", " deport dg1_1"));
  EXPECT_EQ(split.size(), runsOf("B", "qzdisk rm "));
  EXPECT_EQ(1u, linesOf(tool("B", "qzdg list")).size());
  // Each written delete file took its OS path away at once.
  for (const std::string& disk : split) {
    EXPECT_FALSE(std::filesystem::exists("/sys/block/" + disk)) << disk;
  }
}

TEST_F(EngineOnSimulator, FaultAtClearImportCleansUpWithoutImport) {
  Names split = deportedCopyOnB();
  admin({"fault", "add", "--host", "B", "--tool", "qzdisk", "--match", "clearimport", "--status",
         "11"});
  CQzVMEngine& engine = actAs("B");
  qzfi_objid* id = nullptr;
  EXPECT_EQ(6,
            engine.importQzVM(&id, "dg1_1", m_primary, split, "/dev/qz/dsk/dg1/vol1", &m_carried));
  EXPECT_TRUE(pushed("MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS"));
  EXPECT_EQ(0u, runsOf("B", " import "));
  EXPECT_EQ(split.size(), runsOf("B", "qzdisk rm "));
}

TEST_F(EngineOnSimulator, CommandsOfARebuildOfFourDisksAndThreeVolumes) {
  sourceGroup(4, 3);
  recordOnA(m_carried);
  Names split = splitToB();
  CQzVMEngine& engine = actAs("B");
  const size_t before = runsOn("B");
  qzfi_objid* id = nullptr;
  ASSERT_EQ(0, engine.buildAltTree(&id, "dg1_1", split, "/dev/qz/dsk/dg1/vol1", &m_carried,
                                   m_primary, m_dms));
  qzfi_free_objid(id);
  const size_t volumeManager = runsOn("B") - before;
  std::cout << "rebuild of 4 disks and 3 volumes: " << volumeManager << " volume-manager commands"
            << std::endl;
  // One scan; per disk its node and its paths; the first disk's private
  // region and a look for its group; per disk its private region, removal
  // and initialisation; the new group from the four disks; the replay; the
  // volume's listing; a state check and a start for the volume and for its
  // log volume; the new group's id.
  EXPECT_EQ(volumeManager, 1u + 4 * 2 + 2 + 4 * 3 + 4 + 1 + 1 + 2 * 2 + 1);
  // The rebuilt group holds every split disk and a copy of every volume
  // (the engine started only the one it was asked for).
  EXPECT_EQ(split.size() + 1, linesOf(tool("B", "qzdisk -g dg1_1 list")).size());
  tool("B", "qzvol -g dg1_1 start vol2");
  tool("B", "qzvol -g dg1_1 start vol3");
  for (const char* volume : {"vol1", "vol2", "vol3"}) {
    EXPECT_EQ(checksum("A", "dg1", volume), checksum("B", "dg1_1", volume)) << volume;
  }
}

// The array names the disks qzarr0_0 to qzarr0_11 and their copies from
// qzarr0_12 on, so qzarr0_1 is the start of qzarr0_10, qzarr0_11 and of the
// copies' names: the group is rebuilt with the right disks only when the
// rewrite matches whole names.
TEST_F(EngineOnSimulator, RebuildOfTwelveDisksPairsEveryCopyWithItsSource) {
  for (const qzvmfi_it::SimDisk& disk : addDisks(12, "A", 1, "40m")) {
    m_primary.push_back(disk.node);
    m_osA.push_back(disk.osNames.at(0));
  }
  m_sourceDMs = makeGroup("A", "dg1", m_primary);
  tool("A", "qzassist -g dg1 make vol1 90m");  // over all twelve disks
  admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "12"});
  const std::string subdisks = tool("A", "qzprint -g dg1 -s");
  for (size_t disk : {10, 11}) {
    ASSERT_TRUE(holds(subdisks, " " + m_sourceDMs[disk] + "-01 ")) << subdisks;
  }
  recordOnA(m_carried);
  const Names split = splitToB();
  CQzVMEngine& engine = actAs("B");
  Names copies;
  ASSERT_EQ(0, support().qzvmScanDisks(split));
  ASSERT_EQ(0, support().getQzVMDiskForOSDiskHandler(split, copies));
  ASSERT_EQ(12u, copies.size());

  // The replay that the rebuild feeds to qzmake names, for every subdisk,
  // the copy of its disk.
  std::string sourceDG;
  Names dump;
  ASSERT_EQ(0, m_carried.getDGConfigFromPD(sourceDG, dump));
  qztest::TempDir files;
  ASSERT_EQ(0, CQzVMSupport::putVectorInFile(dump, files.file("dump")));
  ASSERT_EQ(0, support().reconfig(files.file("dump"), "dg1", "dg1_1", m_primary, copies, m_dms,
                                  m_dms, files.file("replay")));
  const std::string replay = qztest::readFile(files.file("replay"));
  for (size_t i = 0; i < copies.size(); ++i) {
    EXPECT_TRUE(holds(replay, "\tdm_name=" + m_dms[i] + "\n\tda_name=" + copies[i] +
                                  "\n\tpath=/dev/qz/dmp/" + copies[i] + "s3\n"))
        << m_dms[i] << " on " << copies[i] << "\n"
        << replay;
  }

  qzfi_objid* id = nullptr;
  ASSERT_EQ(0, engine.buildAltTree(&id, "dg1_1", split, "/dev/qz/dsk/dg1/vol1", &m_carried,
                                   m_primary, m_dms));
  qzfi_free_objid(id);
  const Names rows = linesOf(tool("B", "qzdisk -g dg1_1 list"));
  ASSERT_EQ(13u, rows.size());
  for (size_t i = 1; i < rows.size(); ++i) {
    const Names row = words(rows[i]);
    const size_t source = std::find(copies.begin(), copies.end(), row[0]) - copies.begin();
    ASSERT_LT(source, copies.size()) << rows[i];
    EXPECT_EQ(m_dms[source], row[2]) << rows[i];
  }
  EXPECT_EQ(m_sourceSum, checksum("B", "dg1_1", "vol1"));
}

}  // namespace
