#include "engine.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <qzfi/configuration.h>

#include "osutil.h"
#include "plugin/exception_kinds.h"
#include "plugin_env.h"

// The framework's configuration folder look-up, as this test program links
// it: the framework's own, unless a test has it raise an exception first.
namespace {
std::function<void()> g_configLookUpRaises;
}  // namespace

int qzfi_pdk_4_4::CFiConfigurationPathTool::getConfigFileInfo(const tstring& provider,
                                                              tstring& path, tstring& folder) {
  if (g_configLookUpRaises) {
    g_configLookUpRaises();
  }
  using LookUp = int (*)(const tstring&, tstring&, tstring&);
  static const auto framework = reinterpret_cast<LookUp>(
      dlsym(RTLD_NEXT,
            "_ZN12qzfi_pdk_4_424CFiConfigurationPathTool17getConfigFileInfoERKNSt7__cxx1112basic_"
            "stringIcSt11char_traitsIcESaIcEEERS6_S9_"));
  if (framework == nullptr) {
    throw std::logic_error("the framework's getConfigFileInfo is not found");
  }
  return framework(provider, path, folder);
}

namespace {

using qzfi_pdk_4_4::CFiError;
using qzfi_pdk_4_4::CFiExecSeam;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::ScopedEnv;
using qzvmfi_test::TempDir;
using qzvmfi_test::writeFile;
using Lines = std::vector<std::string>;

// Each test gets an engine of its own, reading the test's configuration.
class TestEngine : public CQzVMEngine {};

Lines out(std::initializer_list<std::string> lines) {
  Lines result;
  for (const std::string& line : lines) {
    result.push_back(line + "\n");
  }
  return result;
}

// "qzdisk list DISK" of a disk of group dg.
Lines diskListing(const std::string& disk, const std::string& dm, const std::string& dg,
                  const std::string& dgid, const std::string& type = "auto",
                  const std::string& diskId = "1") {
  return out({"Device:    " + disk, "type:      " + type, "disk:      name=" + dm + " id=" + diskId,
              "group:     name=" + dg + " id=" + dgid, "info:      format=cdsdisk",
              "flags:     online ready private autoconfig",
              "public:    slice=3 offset=2304 len=100000", "private:   slice=3 offset=256 len=2048",
              "configs:   count=1 len=1280", "logs:      count=1 len=192"});
}

const Lines kDump = out({"dg dg1", "\tguid=1", "dm d01", "\tda_name=sdb", "vol vol1", "\tguid=2",
                         "sd d01-01", "\tdm_name=d01", "\tda_name=sdb"});

// The volume manager as the command lines see it: exact answers, answers by
// the start of the line, and every pause counted instead of slept.
class EngineTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    m_scratch = std::make_unique<TempDir>();
    m_bin = m_scratch->path() + "/bin/";
    ASSERT_EQ(mkdir(m_bin.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((m_scratch->path() + "/sys").c_str(), 0755), 0);
    writeFile(configFile(), "[CLI_TOOL_INFO]\nFILEPATH_QzVM=" + m_bin + "\n");
    setQzVMSleep([this](unsigned seconds) { m_pauses.push_back(seconds); });
    setQzVMSysRoot(m_scratch->path());
    CFiExecSeam::setResponder([this](const std::string& command, CFiExecSeam::Answer& answer) {
      return respond(command, answer);
    });
    m_engine = std::make_unique<TestEngine>();
    ASSERT_EQ(0, m_engine->initEngine());
  }

  void TearDown() override {
    for (qzfi_objid* id : m_ids) {
      qzfi_free_objid(id);
    }
    m_engine.reset();
    setQzVMSleep(nullptr);
    setQzVMSysRoot("");
    m_scratch.reset();
    PluginEnv::TearDown();
  }

  bool respond(const std::string& command, CFiExecSeam::Answer& answer) {
    if (command.compare(0, 8, "/bin/rm ") == 0) {
      return true;
    }
    if (command.compare(0, m_bin.size(), m_bin) != 0) {
      return false;
    }
    const std::string line = command.substr(m_bin.size());
    for (const auto& [prefix, given] : m_byPrefix) {
      if (line.compare(0, prefix.size(), prefix) == 0) {
        answer = given;
        return true;
      }
    }
    return false;
  }

  // Lines are given without the tool directory.
  void on(const std::string& line, int status, const Lines& output = Lines()) {
    CFiExecSeam::answer(m_bin + line, status, output);
  }
  void once(const std::string& line, int status, const Lines& output = Lines()) {
    CFiExecSeam::expect(m_bin + line, status, output);
  }
  void onPrefix(const std::string& prefix, int status, const Lines& output = Lines()) {
    m_byPrefix[prefix] = CFiExecSeam::Answer{status, output};
  }

  // Commands run, without the tool directory.
  Lines ran() const {
    Lines lines;
    for (const std::string& line : CFiExecSeam::commands()) {
      lines.push_back(line.compare(0, m_bin.size(), m_bin) == 0 ? line.substr(m_bin.size()) : line);
    }
    return lines;
  }
  bool ranPrefix(const std::string& prefix) const {
    Lines lines = ran();
    return std::any_of(lines.begin(), lines.end(), [&prefix](const std::string& line) {
      return line.compare(0, prefix.size(), prefix) == 0;
    });
  }
  bool ran(const std::string& line) const {
    Lines lines = ran();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }

  Lines pushed() const {
    Lines ids;
    for (const auto& message : errors()) {
      ids.push_back(message->getIdentifier());
    }
    return ids;
  }
  bool wasPushed(const std::string& id) const {
    Lines ids = pushed();
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  }

  qzfi_objid** newId() {
    m_ids.push_back(nullptr);
    return &m_ids.back();
  }

  // A volume without sets, stopped, that starts.
  void volumeStarts(const std::string& dg, const std::string& volume) {
    on("qzprint   -g " + dg + "  " + volume, 0,
       out({"TY NAME ASSOC KSTATE", "v  " + volume + " fsgen ENABLED"}));
    on("qzinfo   -g " + dg + " " + volume, 0, out({volume + " fsgen Stopped"}));
    on("qzvol   -g " + dg + " start " + volume, 0);
  }

  // Private data recorded at the source for dg1/vol1 on sdb and sdc.
  void recordSource(CQzVMData& data, const std::string& type = "auto") {
    data.setVolPrivInfoInPD({"sdb", "sdc"}, {"d01", "d02"},
                            {diskListing("sdb", "d01", "dg1", "100.dg1", type),
                             diskListing("sdc", "d02", "dg1", "100.dg1")});
    data.setDGConfgiInPD("dg1", kDump);
    data.setDGId("100.dg1");
  }

  // Split copies sdx and sdy on this host, still carrying group dg1, which
  // this host does not have; the rebuild of dg1_1 on them succeeds.
  void splitDisksSeen() {
    on("qzdisk   scandisks  device=sdx,sdy", 0);
    on("qzdisk   list sdx", 0, diskListing("sdx", "d01", "dg1", "100.dg1"));
    on("qzdisk   list sdy", 0, diskListing("sdy", "d02", "dg1", "100.dg1"));
    on("qzdg   list dg1", 1);
    on("qzdisk   rm sdx", 0);
    on("qzdisk   rm sdy", 0);
    onPrefix("qzdisk   -f  init ", 0);
    on("qzdg   init dg1_1 d01=sdx", 0);
    on("qzdg   -g dg1_1 adddisk  d02=sdy", 0);
    onPrefix("qzmake   -g dg1_1 -d ", 0);
    volumeStarts("dg1_1", "vol1");
    on("qzdisk   -s  -g dg1_1 list ", 0, out({"dgid: 200.dg1_1"}));
  }

  // buildAltTree of dg1/vol1's recorded copy as dg1_1 on the split disks
  // sdx and sdy.
  int buildCopy(CQzVMData& data, qzfi_objid** id) {
    splitDisksSeen();
    recordSource(data);
    return m_engine->buildAltTree(id, "dg1_1", {"sdx", "sdy"}, "/dev/qz/rdsk/dg1/vol1", &data,
                                  {"sdb", "sdc"}, {"d01", "d02"});
  }

  // Multipathing is installed; the split disks are nodes of their own whose
  // paths cannot be listed.
  void multipathNodesWithoutPaths() {
    installMultipathing();
    for (const char* disk : {"sdx", "sdy"}) {
      on(std::string("qzdmpadm   getdmpnode  nodename=") + disk, 0,
         out({"NAME STATE ENCLR-TYPE PATHS", "=====", std::string(disk) + " ENABLED Disk 1"}));
    }
    on("qzdmpadm   getsubpaths  dmpnodename=sdx", 1);
  }
  void installMultipathing() {
    writeFile(m_bin + "qzdmpadm", "#!/bin/sh\n");
    ASSERT_EQ(0, chmod((m_bin + "qzdmpadm").c_str(), 0755));
  }

  // The split disks carry dg1_1, imported and holding vol1, as this record
  // left it: a build's group (new disk ids and group id) or, intact, the
  // recorded group imported under the new name (its own ids).
  void groupAlreadyThere(bool intact = false, const std::string& dg = "dg1_1") {
    const std::string dgid = intact ? "100.dg1" : "200." + dg;
    on("qzdisk   list sdx", 0, diskListing("sdx", "d01", dg, dgid, "auto", intact ? "1" : "21.B"));
    on("qzdisk   list sdy", 0, diskListing("sdy", "d02", dg, dgid, "auto", intact ? "1" : "22.B"));
    on("qzdg   list " + dg, 0);
    on("qzdg   list ", 0, out({"NAME STATE ID", dg + " enabled " + dgid}));
    const Lines members = out({"DEVICE TYPE DISK GROUP STATUS", "sdx auto d01 " + dg + " online",
                               "sdy auto d02 " + dg + " online"});
    on("qzdisk   -g " + dg + "  list ", 0, members);
    on("qzprint   -g " + dg + "  -v ", 0, out({"TY NAME ASSOC", "v vol1 fsgen"}));
    // What the evidence reads of the group: its disks and their disk-media
    // names, and its volumes.
    on("qzdisk   -g " + dg + " list ", 0, members);
    on("qzprint   -g " + dg, 0, out({"TY NAME ASSOC KSTATE", "v  vol1 fsgen ENABLED"}));
  }

  // The split disks carry "prod", a group of another name imported here, on
  // the same disks and with the disk-media names that the record's copy
  // would have; it holds vol1, or no volume at all.
  void foreignGroupOnSplitDisks(bool holdsVolume) {
    on("qzdisk   list sdx", 0, diskListing("sdx", "d01", "prod", "900.prod", "auto", "31.P"));
    on("qzdisk   list sdy", 0, diskListing("sdy", "d02", "prod", "900.prod", "auto", "32.P"));
    on("qzdg   list prod", 0);
    on("qzdg   list ", 0, out({"NAME STATE ID", "prod enabled 900.prod"}));
    const Lines members = out(
        {"DEVICE TYPE DISK GROUP STATUS", "sdx auto d01 prod online", "sdy auto d02 prod online"});
    on("qzdisk   -g prod  list ", 0, members);
    on("qzdisk   -g prod list ", 0, members);
    const Lines volumes =
        holdsVolume ? out({"TY NAME ASSOC", "v vol1 fsgen"}) : out({"TY NAME ASSOC"});
    on("qzprint   -g prod  -v ", 0, volumes);
    on("qzprint   -g prod", 0, volumes);
  }

  // A listing with the LUN's unique disk id and the configuration update
  // that the volume manager last wrote on it.
  static Lines withLineage(Lines listing, const std::string& udid, const std::string& seqno) {
    listing.push_back("udid:      " + udid + "\n");
    listing.push_back("update:    time=1700000000 seqno=" + seqno + "\n");
    return listing;
  }
  // Private data recorded at the source for dg1/vol1 on sdb (disk id 11.A,
  // LUN UD.B) and sdc (12.A, UD.C), at the configuration update 0.20.
  static void recordLineage(CQzVMData& data) {
    data.setVolPrivInfoInPD(
        {"sdb", "sdc"}, {"d01", "d02"},
        {withLineage(diskListing("sdb", "d01", "dg1", "100.dg1", "auto", "11.A"), "UD.B", "0.20"),
         withLineage(diskListing("sdc", "d02", "dg1", "100.dg1", "auto", "12.A"), "UD.C", "0.20")});
    data.setDGConfgiInPD("dg1", kDump);
    data.setDGId("100.dg1");
  }
  // Split disk sdx or sdy as the copy of the primary with disk id diskId.
  void splitCopy(const std::string& disk, const std::string& dm, const std::string& diskId,
                 const std::string& udid, const std::string& seqno) {
    on("qzdisk   list " + disk, 0,
       withLineage(diskListing(disk, dm, "dg1", "100.dg1", "auto", diskId), udid, seqno));
  }
  // The refusal of a pairing: the last message pushed.
  void expectPairRefused(const std::string& split, const std::string& primary,
                         const std::string& why) {
    ASSERT_FALSE(errors().empty());
    const auto message = errors().back();
    EXPECT_EQ("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS", message->getIdentifier());
    ASSERT_EQ(4u, message->getArguments().size());
    EXPECT_EQ("buildQzVM", message->argumentText(0));
    EXPECT_EQ(split, message->argumentText(1));
    EXPECT_EQ(primary, message->argumentText(2));
    EXPECT_EQ(why, message->argumentText(3));
    EXPECT_TRUE(wasTraced(1, "CQzVMEngine::buildQzVM - the split disk [" + split +
                                 "] does not pair with the primary disk [" + primary + "]: " + why +
                                 "."));
  }

  // The refusal of a group that is not this record's copy: traced, and
  // pushed with the operation, the group and what was found.
  void expectNotTheCopy(const std::string& operation, const std::string& group,
                        const std::string& why) {
    EXPECT_TRUE(wasTraced(1, "CQzVMEngine::" + operation + " - the disk group '" + group +
                                 "' is not the copy that this backup made: " + why +
                                 ". Nothing was changed."));
    ASSERT_FALSE(errors().empty());
    const auto message = errors().back();
    EXPECT_EQ("MSG_ERROR_NOT_THE_COPY", message->getIdentifier());
    ASSERT_EQ(3u, message->getArguments().size());
    EXPECT_EQ(operation, message->argumentText(0));
    EXPECT_EQ(group, message->argumentText(1));
    EXPECT_EQ(why, message->argumentText(2));
  }
  // Nothing on the disks was changed, nor any volume started.
  void expectNoChange() const {
    EXPECT_FALSE(ranPrefix("qzvol "));
    EXPECT_FALSE(ranPrefix("qzdisk   -f  init"));
    EXPECT_FALSE(ranPrefix("qzdisk   rm"));
    EXPECT_FALSE(ranPrefix("qzdisk   clearimport"));
    EXPECT_FALSE(ranPrefix("qzdg   init"));
    EXPECT_FALSE(ranPrefix("qzdg   -C"));
    EXPECT_FALSE(ranPrefix("qzdg   deport"));
  }

  int build(CQzVMData& data, const std::string& path = "/dev/qz/rdsk/dg1/vol1") {
    return m_engine->buildAltTree(newId(), "dg1_1", {"sdx", "sdy"}, path, &data, {"sdb", "sdc"},
                                  {"d01", "d02"});
  }
  int import(CQzVMData& data) {
    return m_engine->importQzVM(newId(), "dg1_1", {"sdb", "sdc"}, {"sdx", "sdy"},
                                "/dev/qz/dsk/dg1/vol1", &data);
  }

  std::string deleteFile(const std::string& device) const {
    return m_scratch->path() + "/sys/block/" + device + "/device/delete";
  }
  void makeDeleteFiles() {
    for (const char* device : {"sdx", "sdy"}) {
      std::filesystem::create_directories(m_scratch->path() + "/sys/block/" + device + "/device");
    }
  }

  std::unique_ptr<TempDir> m_scratch;
  std::string m_bin;
  std::vector<unsigned> m_pauses;
  std::map<std::string, CFiExecSeam::Answer> m_byPrefix;
  std::unique_ptr<TestEngine> m_engine;
  std::vector<qzfi_objid*> m_ids;
};

// ===== initEngine =====

TEST_F(EngineTest, InitEngineReadsTheToolDirectories) {
  EXPECT_EQ(m_bin, m_engine->cliPath().commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", m_engine->cliPath().supportDir);
  EXPECT_EQ("", m_engine->cliPath().otherDir);
  EXPECT_EQ(1u, traced("Entering Function initEngine [").size());
}

TEST_F(EngineTest, InitEngineWithoutAConfigurationFolderReportsTheFrameworkError) {
  ScopedEnv missing("QZFI_CONFIG_DIR", m_scratch->path() + "/none");
  EXPECT_EQ(6, m_engine->initEngine());
  ASSERT_EQ(Lines{"MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION"}, pushed());
}

TEST_F(EngineTest, InitEngineCatchesEveryExceptionKind) {
  qzvmfi_test::forEachExceptionKind([&](const qzvmfi_test::ExceptionKind& kind) {
    g_configLookUpRaises = kind.raise;
    EXPECT_EQ(6, m_engine->initEngine());
    g_configLookUpRaises = nullptr;
    EXPECT_EQ(qzvmfi_test::reportedFor(kind, "initEngine", "engine"),
              qzvmfi_test::caughtMessages(PluginEnv::pushed()));
  });
}

TEST_F(EngineTest, GetInstanceIsOneEngine) {
  EXPECT_EQ(CQzVMEngine::getInstance(), CQzVMEngine::getInstance());
}

// ===== getQzVMObjects =====

TEST_F(EngineTest, GetQzVMObjectsWithoutDataFails) {
  EXPECT_EQ(6, m_engine->getQzVMObjects("/dev/qz/dsk/dg1/vol1", nullptr));
  EXPECT_TRUE(wasTraced(1, "No QzVM data"));
}

TEST_F(EngineTest, GetQzVMObjectsAppendsEveryCallWithoutDeduplicating) {
  on("qzprint   -g dg1  vol1", 0,
     out({"TY NAME ASSOC", "vt set1 -", "v vol1 fsgen", "v vol1_dcl gen", "pl vol1-01 vol1"}));
  CQzVMData data(nullptr, false);
  EXPECT_FALSE(data.getObjectsFound());
  EXPECT_EQ(0, m_engine->getQzVMObjects("/dev/qz/dsk/dg1/vol1", &data));
  EXPECT_TRUE(data.getObjectsFound());
  EXPECT_EQ(0, m_engine->getQzVMObjects("/dev/qz/dsk/dg1/vol1", &data));
  EXPECT_EQ((Lines{"set1", "set1"}), data.vtList());
  EXPECT_EQ((Lines{"vol1", "vol1_dcl", "vol1", "vol1_dcl"}), data.vList());
  EXPECT_TRUE(wasTraced(3,
                        "CQzVMEngine::getQzVMObjects - Checking for volume and/or dco volume for "
                        "object= /dev/qz/dsk/dg1/vol1"));
}

TEST_F(EngineTest, GetQzVMObjectsListingFailureIsACommandFailure) {
  on("qzprint   -g dg1  vol1", 1,
     out({"QZVM qzprint ERROR Q-5-1-201", "Disk group dg1 not imported here"}));
  CQzVMData data(nullptr, false);
  EXPECT_EQ(5, m_engine->getQzVMObjects("/dev/qz/dsk/dg1/vol1", &data));
  EXPECT_EQ((Lines{"MSG_ERROR_COMMAND_FAILED", "MSG_ERROR_COMMAND_FAILED"}), pushed());
  // The runner's message names the command; the engine's the object, with
  // the tool's output lines as the tool printed them.
  const auto message = errors().at(1);
  ASSERT_EQ(3u, message->getArguments().size());
  EXPECT_EQ("getQzVMObjects", message->argumentText(0));
  EXPECT_EQ("/dev/qz/dsk/dg1/vol1", message->argumentText(1));
  EXPECT_EQ("QZVM qzprint ERROR Q-5-1-201\nDisk group dg1 not imported here\n",
            message->argumentText(2));
  EXPECT_TRUE(data.vList().empty());
  EXPECT_FALSE(data.getObjectsFound());
}

TEST_F(EngineTest, GetQzVMObjectsUnreadableListingCarriesItsLines) {
  on("qzprint   -g dg1  vol1", 0, out({"junk", "TY NAME ASSOC", "v vol1 fsgen"}));
  CQzVMData data(nullptr, false);
  EXPECT_EQ(5, m_engine->getQzVMObjects("/dev/qz/dsk/dg1/vol1", &data));
  ASSERT_EQ((Lines{"MSG_ERROR_COMMAND_FAILED"}), pushed());
  EXPECT_EQ("junk\nTY NAME ASSOC\nv vol1 fsgen\n", errors().at(0)->argumentText(2));
}

// ===== activeVol and deactiveVol =====

TEST_F(EngineTest, ActiveVolWithoutDCOVolumesMakesNoGenStart) {
  volumeStarts("dg1", "vol1");
  CQzVMData data(nullptr, false);
  EXPECT_EQ(0, m_engine->activeVol("dg1", "vol1", &data));
  EXPECT_TRUE(ran("qzvol   -g dg1 start vol1"));
  EXPECT_FALSE(ranPrefix("qzvol   -g dg1 -U gen"));
}

TEST_F(EngineTest, ActiveVolStartsSetsThenDCOVolumesAsGenThenVolumes) {
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - DISABLED"}));
  on("qzvset  -g dg1 start set1", 0);
  on("qzprint   -g dg1  vol1", 0, out({"TY NAME ASSOC", "v vol1 fsgen", "v vol1_dcl gen"}));
  on("qzinfo   -g dg1 vol1", 0, out({"vol1 fsgen Stopped"}));
  on("qzinfo   -g dg1 vol1_dcl", 0, out({"vol1_dcl gen Stopped"}));
  on("qzvol   -g dg1 -U gen start vol1_dcl", 0);
  on("qzvol   -g dg1 start vol1", 0);
  CQzVMData data(nullptr, false);
  data.vtList() = {"set1"};
  EXPECT_EQ(0, m_engine->activeVol("dg1", "vol1", &data));
  EXPECT_EQ((Lines{"qzprint   -g dg1 set1", "qzvset  -g dg1 start set1", "qzprint   -g dg1  vol1",
                   "qzinfo   -g dg1 vol1_dcl", "qzvol   -g dg1 -U gen start vol1_dcl",
                   "qzinfo   -g dg1 vol1", "qzvol   -g dg1 start vol1"}),
            ran());
}

TEST_F(EngineTest, ActiveVolIgnoresASetThatWillNotStart) {
  on("qzprint   -g dg1 set1", 1);
  volumeStarts("dg1", "vol1");
  CQzVMData data(nullptr, false);
  data.vtList() = {"set1"};
  EXPECT_EQ(0, m_engine->activeVol("dg1", "vol1", &data));
  EXPECT_FALSE(ranPrefix("qzvset "));
  EXPECT_TRUE(ran("qzvol   -g dg1 start vol1"));
}

TEST_F(EngineTest, ActiveVolFailureIsReportedWithGroupAndVolume) {
  volumeStarts("dg1", "vol1");
  on("qzvol   -g dg1 start vol1", 1);
  CQzVMData data(nullptr, false);
  EXPECT_NE(0, m_engine->activeVol("dg1", "vol1", &data));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::activeVol - start of valume failed dg=dg1 volume=vol1"));
  ASSERT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP"));
  auto message = errors().back();
  EXPECT_EQ("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP", message->getIdentifier());
  ASSERT_EQ(2u, message->getArguments().size());
  EXPECT_EQ("dg1", message->argumentText(0));
  EXPECT_EQ("vol1", message->argumentText(1));
}

TEST_F(EngineTest, ActiveVolListingFailureIsReported) {
  on("qzprint   -g dg1  vol1", 1);
  CQzVMData data(nullptr, false);
  EXPECT_NE(0, m_engine->activeVol("dg1", "vol1", &data));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP"));
}

TEST_F(EngineTest, ActiveVolAndDeactiveVolWithoutDataFail) {
  EXPECT_EQ(6, m_engine->activeVol("dg1", "vol1", nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::activeVol - no private data."));
  EXPECT_EQ(6, m_engine->deactiveVol("dg1", "vol1", nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::deactiveVol - no private data."));
  EXPECT_TRUE(ran().empty());
}

TEST_F(EngineTest, DeactiveVolWithEmptyListsRunsNothing) {
  CQzVMData data(nullptr, false);
  EXPECT_EQ(0, m_engine->deactiveVol("dg1", "vol1", &data));
  EXPECT_TRUE(ran().empty());
}

TEST_F(EngineTest, DeactiveVolStopsWhatThePrivateDataLists) {
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - ENABLED"}));
  on("qzvset  -g dg1 stop set1", 0);
  on("qzinfo   -g dg1 volA", 0, out({"volA fsgen Started"}));
  on("qzvol   -g dg1 stop volA", 0);
  CQzVMData data(nullptr, false);
  data.vtList() = {"set1"};
  data.vList() = {"volA"};
  EXPECT_EQ(0, m_engine->deactiveVol("dg1", "vol1", &data));
  EXPECT_TRUE(ran("qzvset  -g dg1 stop set1"));
  EXPECT_TRUE(ran("qzvol   -g dg1 stop volA"));
}

// ===== volume sets =====

TEST_F(EngineTest, OnlineVSetOnAnEnabledSetRunsNoCommand) {
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - ENABLED"}));
  EXPECT_EQ(0, m_engine->onlineVSet("dg1", "set1", nullptr));
  EXPECT_EQ(Lines{"qzprint   -g dg1 set1"}, ran());
}

TEST_F(EngineTest, OnlineVSetThatWillNotStartFailsWith5) {
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - DISABLED"}));
  on("qzvset  -g dg1 start set1", 1);
  EXPECT_EQ(5, m_engine->onlineVSet("dg1", "set1", nullptr));
  EXPECT_TRUE(wasTraced(1, "Error in taking VSet online"));
}

TEST_F(EngineTest, VSetCheckFailureIsReturnedAsItIs) {
  on("qzprint   -g dg1 set1", 1);
  EXPECT_EQ(6, m_engine->onlineVSet("dg1", "set1", nullptr));
  EXPECT_EQ(6, m_engine->offlineVSet("dg1", "set1", nullptr));
  EXPECT_FALSE(ranPrefix("qzvset"));
}

TEST_F(EngineTest, OfflineVSetActsOnlyOnAnEnabledSet) {
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - DISABLED"}));
  EXPECT_EQ(0, m_engine->offlineVSet("dg1", "set1", nullptr));
  EXPECT_FALSE(ranPrefix("qzvset"));
  on("qzprint   -g dg1 set1", 0, out({"TY NAME ASSOC KSTATE", "vt set1 - ENABLED"}));
  on("qzvset  -g dg1 stop set1", 1);
  EXPECT_EQ(5, m_engine->offlineVSet("dg1", "set1", nullptr));
  EXPECT_TRUE(wasTraced(1, "Error in offlining VSet"));
}

// ===== object ids =====

TEST_F(EngineTest, InternalObjidRawIsUnderRdsk) {
  qzfi_objid** id = newId();
  m_engine->init_internal_objid(id, "dg1", "vol1", true);
  ASSERT_NE(nullptr, *id);
  EXPECT_STREQ("/dev/qz/rdsk/dg1/vol1", (*id)->name);
  EXPECT_EQ(2, (*id)->kind);
  qzfi_objid** block = newId();
  m_engine->init_internal_objid(block, "dg1", "vol1", false);
  EXPECT_STREQ("/dev/qz/dsk/dg1/vol1", (*block)->name);
}

TEST_F(EngineTest, InternalObjidNeedsGroupAndBareVolume) {
  qzfi_objid** id = newId();
  m_engine->init_internal_objid(id, "", "vol1", false);
  m_engine->init_internal_objid(id, "dg1", "", false);
  m_engine->init_internal_objid(id, "dg1", "/dev/qz/dsk/dg1/vol1", false);
  EXPECT_EQ(nullptr, *id);
}

TEST_F(EngineTest, InternalObjidCutsLongNames) {
  qzfi_objid** id = newId();
  m_engine->init_internal_objid(id, "dg1", std::string(2000, 'v'), false);
  ASSERT_NE(nullptr, *id);
  EXPECT_EQ(1023u, strlen((*id)->name));
}

TEST_F(EngineTest, ActiveVolAndCreateObjidGivesTheVolumeId) {
  volumeStarts("dg1", "vol1");
  CQzVMData data(nullptr, false);
  qzfi_objid** id = newId();
  EXPECT_EQ(0, m_engine->activeVolAndCreateObjid("dg1", "vol1", &data, id, false));
  EXPECT_STREQ("/dev/qz/dsk/dg1/vol1", (*id)->name);
}

TEST_F(EngineTest, ActiveVolAndCreateObjidFailures) {
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, m_engine->activeVolAndCreateObjid("dg1", "vol1", nullptr, newId(), false));
  // A volume that is already a path is no volume name: nothing is run for it.
  EXPECT_EQ(6, m_engine->activeVolAndCreateObjid("dg1", "/x", &data, newId(), false));
  EXPECT_TRUE(wasPushed("MSG_ERROR_INVALID_NAME"));
  for (const std::string& command : ran()) {
    EXPECT_EQ(std::string::npos, command.find("/x")) << command;
  }
}

// ===== setQzVMConfigInPD =====

class SourceTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    on("qzdisk   -g dg1  list ", 0,
       out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online",
            "sdc auto d02 dg1 online"}));
    on("qzdisk   -g dg1 list ", 0,
       out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online",
            "sdc auto d02 dg1 online"}));
    on("qzdisk   list sdb", 0, diskListing("sdb", "d01", "dg1", "100.dg1"));
    on("qzdisk   list sdc", 0, diskListing("sdc", "d02", "dg1", "100.dg1"));
    on("qzprint   -vpsc  -g dg1 -m ", 0, kDump);
  }
  int record(CQzVMData& data) { return m_engine->setQzVMConfigInPD("/dev/qz/dsk/dg1/vol1", &data); }
};

TEST_F(SourceTest, RecordsDisksNamesListingsAndDump) {
  CQzVMData data(nullptr, false);
  EXPECT_EQ(0, record(data));
  Lines disks{"sdb", "sdc"};
  Lines dms;
  std::vector<Lines> listings;
  ASSERT_EQ(0, data.getVolPrivInfoFromPD(disks, dms, listings));
  EXPECT_EQ((Lines{"d01", "d02"}), dms);
  EXPECT_EQ(diskListing("sdc", "d02", "dg1", "100.dg1"), listings[1]);
  std::string dg;
  Lines dump;
  ASSERT_EQ(0, data.getDGConfigFromPD(dg, dump));
  EXPECT_EQ("dg1", dg);
  EXPECT_EQ(kDump, dump);
}

TEST_F(SourceTest, DisksThatCannotBeListedFail) {
  on("qzdisk   -g dg1  list ", 1);
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, record(data));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMEngine::setQzVMConfigInPD -  unable to get disk access (dmp) from "
                        "object. object=/dev/qz/dsk/dg1/vol1"));
}

TEST_F(SourceTest, MissingDiskMediaNameIsReported) {
  on("qzdisk   -g dg1 list ", 0, out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online"}));
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, record(data));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::setQzVMConfigInPD - unable to get dm for disk name."));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_GET_DMNAME_FROM_DG"));
}

TEST_F(SourceTest, UnreadablePrivateRegionFails) {
  on("qzdisk   list sdc", 1);
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, record(data));
  EXPECT_TRUE(
      wasTraced(1, "CQzVMEngine::setQzVMConfigInPD - unable to get volumes private information."));
}

TEST_F(SourceTest, UnreadableConfigurationIsReported) {
  on("qzprint   -vpsc  -g dg1 -m ", 1);
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, record(data));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_GET_CONFIGURATION_OF_DISKGROUP"));
}

// ===== buildAltTree and buildQzVM =====

TEST_F(EngineTest, BuildAltTreeBuildsTheNewGroupAndTakesItsId) {
  CQzVMData data(nullptr, false);
  qzfi_objid** id = newId();
  EXPECT_EQ(0, buildCopy(data, id));
  ASSERT_NE(nullptr, *id);
  EXPECT_STREQ("/dev/qz/rdsk/dg1_1/vol1", (*id)->name);
  EXPECT_EQ(2, (*id)->kind);
  EXPECT_EQ("200.dg1_1", data.getDGId());
  EXPECT_TRUE(ran("qzdg   init dg1_1 d01=sdx"));
  EXPECT_TRUE(
      ran("qzdisk   -f  init sdx type=auto format=cdsdisk privoffset=256 privlen=2048 "
          "puboffset=2304 publen=100000 configlen=1280 loglen=192 nconfig=1 nlog=1"));
  EXPECT_EQ("/dev/qz/rdsk/dg1/vol1", m_engine->builtGroups().at("dg1_1"));
}

// What the plug-in has the engine forget once it holds no node: the
// listings of the build and the group it built.
TEST_F(EngineTest, ForgetListingsEmptiesTheCachesAndTheBuiltGroups) {
  CQzVMData data(nullptr, false);
  ASSERT_EQ(0, buildCopy(data, newId()));
  EXPECT_GT(m_engine->cachedEntries(), 0u);
  EXPECT_EQ(1u, m_engine->builtGroups().size());
  m_engine->forgetListings();
  EXPECT_EQ(0u, m_engine->cachedEntries());
  EXPECT_TRUE(m_engine->builtGroups().empty());
}

TEST_F(EngineTest, BuildAltTreeOnAGroupAlreadyThereOnlyStartsTheVolume) {
  splitDisksSeen();
  groupAlreadyThere();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(0, build(data, "/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(ran("qzvol   -g dg1_1 start vol1"));
  EXPECT_FALSE(ranPrefix("qzdisk   -f  init"));
  EXPECT_FALSE(ranPrefix("qzdg   init"));
  ASSERT_NE(nullptr, m_ids.back());
  EXPECT_STREQ("/dev/qz/dsk/dg1_1/vol1", m_ids.back()->name);
}

// An import without a deported object's name builds under a made-up name
// ("tpu_fi", six letters or digits, "_" and a number): run again, it takes
// that copy as its own.
TEST_F(EngineTest, BuildAltTreeTakesAGroupAlreadyThereUnderAMadeUpName) {
  splitDisksSeen();
  groupAlreadyThere(false, "tpu_fiAbC123_4242");
  volumeStarts("tpu_fiAbC123_4242", "vol1");
  on("qzdisk   -s  -g tpu_fiAbC123_4242 list ", 0, out({"dgid: 200.tpu_fiAbC123_4242"}));
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(0, build(data, "/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(ran("qzvol   -g tpu_fiAbC123_4242 start vol1"));
  EXPECT_FALSE(ranPrefix("qzdisk   -f  init"));
  ASSERT_NE(nullptr, m_ids.back());
  EXPECT_STREQ("/dev/qz/dsk/tpu_fiAbC123_4242/vol1", m_ids.back()->name);
}

TEST_F(EngineTest, BuildAltTreeOnAGroupAlreadyThereThatWillNotStartCleansUp) {
  splitDisksSeen();
  groupAlreadyThere();
  on("qzvol   -g dg1_1 start vol1", 1);
  makeDeleteFiles();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "activeVolAndCreateObjid failed"));
  EXPECT_TRUE(wasTraced(2, "Cleaning the new dg created and dmp nodes."));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(ran("qzdisk   rm sdx"));
  EXPECT_EQ("1", qzvmfi_test::readFile(deleteFile("sdy")));
}

// A group of another name that holds the volume on the split disks is
// taken only when a build of this record made it: one whose disks carry
// another group (a production group imported here) is refused, and its
// volume is not started.
TEST_F(EngineTest, BuildAltTreeRefusesAGroupAlreadyThereThatNoBuildOfTheRecordMade) {
  splitDisksSeen();
  foreignGroupOnSplitDisks(true);
  volumeStarts("prod", "vol1");
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, build(data));
  expectNoChange();
  expectNotTheCopy("buildAltTree", "prod",
                   "the split disk sdx carries the group [prod] id [900.prod] and the disk id "
                   "[31.P], which no build of this record made");
  EXPECT_EQ("100.dg1", data.getDGId());
  EXPECT_TRUE(m_engine->builtGroups().empty());
}

// A group without the volume on the split disks is deported, as what a
// stopped build left, only when a build of this record made it: another
// group there stays imported, and nothing is built on its disks.
TEST_F(EngineTest, BuildAltTreeLeavesAForeignGroupWithoutTheVolumeImported) {
  splitDisksSeen();
  foreignGroupOnSplitDisks(false);
  on("qzdg   deport prod", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, build(data));
  expectNoChange();
  EXPECT_FALSE(wasTraced(2,
                         "CQzVMEngine::buildAltTree - the split disks hold the group 'prod' "
                         "without the volume, left by a build that stopped; deporting it to "
                         "build again."));
  expectNotTheCopy("buildAltTree", "prod",
                   "the split disk sdx carries the group [prod] id [900.prod] and the disk id "
                   "[31.P], which no build of this record made");
}

TEST_F(EngineTest, BuildAltTreeScanFailureIsReported) {
  splitDisksSeen();
  on("qzdisk   scandisks  device=sdx,sdy", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "scanning disks failed."));
  EXPECT_TRUE(wasPushed("MSG_ERROR_QZVM_DISK_SCAN_FAILED"));
}

TEST_F(EngineTest, BuildAltTreeWaitsForMultipathNodesThenFails) {
  splitDisksSeen();
  installMultipathing();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "getQzVMDiskForOSDiskHandler_Waited failed"));
  EXPECT_EQ((std::vector<unsigned>{10, 10, 10, 10}), m_pauses);
}

TEST_F(EngineTest, BuildAltTreeWithoutOSPathsFails) {
  splitDisksSeen();
  multipathNodesWithoutPaths();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "getOSDiskHandleForQzVMDisk failed"));
}

TEST_F(EngineTest, BuildAltTreeGroupCheckFailureFails) {
  splitDisksSeen();
  on("qzdisk   list sdx", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "checkForVolFromQzVMDiskIfRecreatedAndGetDG failed"));
}

// A group that was never made is not deported: its name may be another's.
TEST_F(EngineTest, BuildFailureBeforeTheGroupStandsDeportsNothing) {
  splitDisksSeen();
  on("qzdg   init dg1_1 d01=sdx", 1);
  on("qzdg   list dg1_1", 11);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "creation of dg failed. dg=dg1_1"));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP"));
  EXPECT_TRUE(wasTraced(1, "buildQzVM failed"));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(ran("qzdisk   rm sdx"));
  EXPECT_EQ("100.dg1", data.getDGId());
}

TEST_F(EngineTest, BuildFailureAfterTheGroupStandsDeportsIt) {
  splitDisksSeen();
  onPrefix("qzmake   -g dg1_1 -d ", 1);
  on("qzdg   list dg1_1", 0);
  on("qzdg   deport dg1_1", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(ran("qzdg   deport dg1_1"));
}

// Another backup on this host took the new name between its choice and the
// group's creation: a new name is chosen, and the build goes on under it.
TEST_F(EngineTest, ANewNameTakenMeanwhileIsChosenAgain) {
  splitDisksSeen();
  on("qzdg   init dg1_1 d01=sdx", 1,
     out({"QZVM qzdg ERROR Q-5-1-12 Disk group dg1_1: a disk group of that name exists"}));
  on("qzdg   list dg1_1", 0);
  on("qzdg   list ", 0, out({"NAME STATE ID", "dg1_1 enabled 300.other"}));
  const std::string chosen = "dg1_" + std::to_string(getpid());
  on("qzdg   init " + chosen + " d01=sdx", 0);
  on("qzdg   -g " + chosen + " adddisk  d02=sdy", 0);
  onPrefix("qzmake   -g " + chosen + " -d ", 0);
  volumeStarts(chosen, "vol1");
  on("qzdisk   -s  -g " + chosen + " list ", 0, out({"dgid: 400.new"}));
  CQzVMData data(nullptr, false);
  recordSource(data);
  ASSERT_EQ(0, build(data));
  EXPECT_STREQ(("/dev/qz/rdsk/" + chosen + "/vol1").c_str(), m_ids.back()->name);
  EXPECT_EQ("400.new", data.getDGId());
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(wasTraced(2, "CQzVMEngine - the new group name 'dg1_1' was taken meanwhile; '" +
                               chosen + "' is chosen."));
}

// The split disks are the primaries' copies: a split disk that carries
// another primary's disk id (the list given in another order) or another
// disk's is refused before any disk changes, and stays in view.
TEST_F(EngineTest, SplitDisksThatAreNotThePrimariesCopiesAreRefused) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  data.setVolPrivInfoInPD({"sdb", "sdc"}, {"d01", "d02"},
                          {diskListing("sdb", "d01", "dg1", "100.dg1", "auto", "11.A"),
                           diskListing("sdc", "d02", "dg1", "100.dg1", "auto", "12.A")});
  data.setDGConfgiInPD("dg1", kDump);
  data.setDGId("100.dg1");
  on("qzdisk   list sdx", 0, diskListing("sdx", "d02", "dg1", "100.dg1", "auto", "12.A"));
  on("qzdisk   list sdy", 0, diskListing("sdy", "d01", "dg1", "100.dg1", "auto", "11.A"));
  makeDeleteFiles();
  EXPECT_EQ(3, build(data));
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
  EXPECT_FALSE(ranPrefix("qzdisk   -f  init"));
  EXPECT_FALSE(ranPrefix("qzdg   init"));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_FALSE(std::filesystem::exists(deleteFile("sdx")));
  ASSERT_EQ("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS", pushed().back());
  const auto message = errors().back();
  EXPECT_EQ("buildQzVM", message->argumentText(0));
  EXPECT_EQ("sdx", message->argumentText(1));
  EXPECT_EQ("sdb", message->argumentText(2));
  EXPECT_EQ("the split disk carries the disk id [12.A], the primary disk's recorded id is [11.A]",
            message->argumentText(3));

  // The right list, on the same disks.
  on("qzdisk   scandisks  device=sdy,sdx", 0);
  on("qzdg   init dg1_1 d01=sdy", 0);
  on("qzdg   -g dg1_1 adddisk  d02=sdx", 0);
  CFiExecSeam::clearCommands();
  qzvmfi_ctx::ErrorManager::instance()->clear();
  EXPECT_EQ(0, m_engine->buildAltTree(newId(), "dg1_1", {"sdy", "sdx"}, "/dev/qz/dsk/dg1/vol1",
                                      &data, {"sdb", "sdc"}, {"d01", "d02"}));
  const Lines after = pushed();
  EXPECT_EQ(after.end(), std::find(after.begin(), after.end(),
                                   "MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS"));
}

// A split disk that an earlier attempt of the build initialised already
// carries a new id and no group: it passes.
TEST_F(EngineTest, ASplitDiskInitialisedByAnEarlierAttemptPasses) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  data.setVolPrivInfoInPD({"sdb", "sdc"}, {"d01", "d02"},
                          {diskListing("sdb", "d01", "dg1", "100.dg1", "auto", "11.A"),
                           diskListing("sdc", "d02", "dg1", "100.dg1", "auto", "12.A")});
  data.setDGConfgiInPD("dg1", kDump);
  data.setDGId("100.dg1");
  Lines initialised = diskListing("sdx", "d01", "", "", "auto", "77.B");
  initialised[3] = "group:     -\n";
  on("qzdisk   list sdx", 0, initialised);
  on("qzdisk   list sdy", 0, diskListing("sdy", "d02", "dg1", "100.dg1", "auto", "12.A"));
  EXPECT_EQ(0, build(data));
}

// A split disk that shows its primary's own unique disk id is that
// primary, named as a split disk: it is refused before any disk changes.
TEST_F(EngineTest, ASplitDiskThatIsThePrimaryItselfIsRefused) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordLineage(data);
  splitCopy("sdx", "d01", "11.A", "UD.B", "0.20");
  splitCopy("sdy", "d02", "12.A", "UD.Y", "0.20");
  EXPECT_EQ(3, build(data));
  expectNoChange();
  expectPairRefused("sdx", "sdb",
                    "the split disk is the primary disk itself (it shows the primary's unique "
                    "disk id [UD.B]), not a copy of it");
}

// The copies of one split show one configuration update: disks of two
// splits, taken across a change of the group, are refused.
TEST_F(EngineTest, SplitDisksOfTwoSplitsAreRefused) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordLineage(data);
  splitCopy("sdx", "d01", "11.A", "UD.X", "0.20");
  splitCopy("sdy", "d02", "12.A", "UD.Y", "0.19");
  EXPECT_EQ(3, build(data));
  expectNoChange();
  expectPairRefused("sdy", "sdc",
                    "the split disk shows the configuration update [0.19], the split disk sdx "
                    "shows [0.20]: they come from two splits; give the disks of one split");
}

// A split taken after the record was made shows a later configuration
// update than the record's (counted, not compared as text): refused.
TEST_F(EngineTest, SplitDisksOfALaterSplitThanTheRecordAreRefused) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordLineage(data);
  splitCopy("sdx", "d01", "11.A", "UD.X", "0.100");
  splitCopy("sdy", "d02", "12.A", "UD.Y", "0.100");
  EXPECT_EQ(3, build(data));
  expectNoChange();
  expectPairRefused("sdx", "sdb",
                    "the split disk shows the configuration update [0.100], later than the "
                    "record's [0.20]: it was split after this backup was recorded");

  // Copies of one split, on LUNs of their own, at the record's update: built.
  splitCopy("sdx", "d01", "11.A", "UD.X", "0.20");
  splitCopy("sdy", "d02", "12.A", "UD.Y", "0.20");
  CFiExecSeam::clearCommands();
  qzvmfi_ctx::ErrorManager::instance()->clear();
  EXPECT_EQ(0, build(data));
  EXPECT_FALSE(wasPushed("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS"));
  EXPECT_TRUE(ran("qzdg   init dg1_1 d01=sdx"));
}

// The rewrite pairs the lists place by place: lists that cannot pair are
// refused before any command is run.
TEST_F(EngineTest, BuildAltTreeRefusesListsThatDoNotPair) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, m_engine->buildAltTree(newId(), "dg1_1", {"sdx"}, "/dev/qz/dsk/dg1/vol1", &data,
                                      {"sdb", "sdc"}, {"d01", "d02"}));
  EXPECT_EQ(3, m_engine->buildAltTree(newId(), "dg1_1", {"sdx", "sdy"}, "/dev/qz/dsk/dg1/vol1",
                                      &data, {"sdb", "sdc"}, {"d01"}));
  EXPECT_TRUE(ran().empty());
  EXPECT_EQ((Lines{"MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS",
                   "MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS"}),
            pushed());
  const auto message = errors().at(0);
  ASSERT_EQ(4u, message->getArguments().size());
  EXPECT_EQ("buildAltTree", message->argumentText(0));
  EXPECT_EQ("sdx", message->argumentText(1));
  EXPECT_EQ("sdb sdc", message->argumentText(2));
  EXPECT_EQ("their disk-media names are [d01 d02]", message->argumentText(3));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMEngine::buildAltTree - the split disks [sdx] do not pair with the "
                        "primary disks [sdb sdc] and their disk-media names [d01 d02]."));
}

TEST_F(EngineTest, BuildQzVMRefusesListsThatDoNotPair) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, m_engine->buildQzVM(newId(), "dg1_1", {"sdx", "sdy"}, "/dev/qz/dsk/dg1/vol1", &data,
                                   {"sdb"}, {}));
  EXPECT_TRUE(ran().empty());
  EXPECT_EQ((Lines{"MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS"}), pushed());
  EXPECT_EQ("buildQzVM", errors().at(0)->argumentText(0));
  // Without disk-media names the recorded ones are taken: the disks alone
  // must pair.
  EXPECT_EQ(0, m_engine->buildQzVM(newId(), "dg1_1", {"sdx", "sdy"}, "/dev/qz/dsk/dg1/vol1", &data,
                                   {"sdb", "sdc"}, {}));
}

TEST_F(EngineTest, NoprivDiskStopsTheBuildBeforeAnyDiskIsTouched) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordSource(data, "nopriv");
  EXPECT_EQ(6, m_engine->buildQzVM(newId(), "dg1_1", {"sdx", "sdy"}, "/dev/qz/dsk/dg1/vol1", &data,
                                   {"sdb", "sdc"}, {"d01", "d02"}));
  EXPECT_TRUE(wasTraced(1, "defining snapshotted disk as nopriv failed."));
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
  EXPECT_FALSE(ranPrefix("qzdisk   -f  init"));
  EXPECT_FALSE(ranPrefix("qzdg"));
}

// A build that fails before the split disks are shown to be the copies of
// the primaries takes none of them out of the view: they may be another's.
TEST_F(EngineTest, BuildAltTreeFailingBeforeThePairingLeavesTheSplitDisksInView) {
  splitDisksSeen();
  makeDeleteFiles();
  CQzVMData data(nullptr, false);
  recordSource(data, "nopriv");
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "buildQzVM failed"));
  EXPECT_FALSE(wasTraced(2, "Cleaning the new dg created and dmp nodes."));
  expectNoChange();
  EXPECT_FALSE(std::filesystem::exists(deleteFile("sdx")));
  EXPECT_FALSE(std::filesystem::exists(deleteFile("sdy")));
}

class BuildStepTest : public EngineTest {
 protected:
  int buildQzVM(CQzVMData& data) {
    return m_engine->buildQzVM(newId(), "dg1_1", {"sdx", "sdy"}, "/dev/qz/dsk/dg1/vol1", &data,
                               {"sdb", "sdc"}, {"d01", "d02"});
  }
};

TEST_F(BuildStepTest, MissingRecordsFail) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  EXPECT_EQ(6, buildQzVM(data));
  EXPECT_TRUE(wasTraced(1, "could not get volume private on disk from private data(pd)."));
}

TEST_F(BuildStepTest, MissingConfigurationFails) {
  splitDisksSeen();
  CQzVMData data(nullptr, false);
  recordSource(data);
  data.setDGConfgiInPD("dg1", {});
  EXPECT_EQ(6, buildQzVM(data));
  EXPECT_TRUE(wasTraced(1, "dg configuration is not found in private data."));
}

TEST_F(BuildStepTest, UnseenSplitDisksFailAfterEveryRescan) {
  splitDisksSeen();
  on("qzdisk   list sdy", 1);
  on("qzdisk   scandisks ", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, buildQzVM(data));
  EXPECT_TRUE(wasTraced(1, "snapshotted disks not yet seen by QzVM."));
  EXPECT_EQ(7u, m_pauses.size());
}

TEST_F(BuildStepTest, InitFailureIsReported) {
  splitDisksSeen();
  onPrefix("qzdisk   -f  init ", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, buildQzVM(data));
  EXPECT_TRUE(
      wasTraced(1, "initialization of snapshotted disk with primary disks priv data failed."));
  EXPECT_TRUE(
      wasPushed("MSG_ERROR_UNABLE_TO_INITIALIZE_SPLITTED_DISK_WITH_PRIMARY_DISK_QZVM_PRIVDATA"));
}

TEST_F(BuildStepTest, ReplayFailureIsReported) {
  splitDisksSeen();
  onPrefix("qzmake   -g dg1_1 -d ", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, buildQzVM(data));
  auto lines = traced(
      "configuration new dg with modified configuration failed. dg=dg1_1 config "
      "file='" +
      tmpFolder() + "tpu_fi");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(1, lines[0].level);
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_APPLY_CONFIGURATION_TO_DISKGROUP"));
}

TEST_F(BuildStepTest, StartFailureFails) {
  splitDisksSeen();
  on("qzvol   -g dg1_1 start vol1", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, buildQzVM(data));
  EXPECT_TRUE(wasTraced(1, "activeVolAndCreateObjid() failed"));
}

TEST_F(BuildStepTest, ReplayFileHoldsTheSplitDisks) {
  splitDisksSeen();
  std::string replay;
  onPrefix("qzmake   -g dg1_1 -d ", 0);
  CFiExecSeam::setResponder([this, &replay](const std::string& command, CFiExecSeam::Answer& a) {
    const std::string make = m_bin + "qzmake   -g dg1_1 -d ";
    if (command.compare(0, make.size(), make) == 0) {
      replay = qzvmfi_test::readFile(command.substr(make.size()));
    }
    return respond(command, a);
  });
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(0, buildQzVM(data));
  EXPECT_EQ("sd d01-01\n\tdm_name=d01\n\tda_name=sdx\n", replay.substr(replay.find("sd ")));
}

TEST_F(EngineTest, GetDGIDFailureDeportsWhatWasBuilt) {
  splitDisksSeen();
  on("qzdisk   -s  -g dg1_1 list ", 1);
  on("qzdg   list dg1_1", 0);
  on("qzdisk   -g dg1_1  list ", 0,
     out({"DEVICE TYPE DISK GROUP STATUS", "sdx auto d01 dg1_1 online"}));
  on("qzdg   deport dg1_1", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, build(data));
  EXPECT_TRUE(wasTraced(1, "getDGID failed"));
  EXPECT_TRUE(ran("qzdg   deport dg1_1"));
  EXPECT_EQ("100.dg1", data.getDGId());
}

// ===== importQzVM =====

class ImportTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    splitDisksSeen();
    on("qzdisk   clearimport  sdx sdy", 0);
    on("qzdg   -C  -n dg1_1 import 100.dg1", 0);
    makeDeleteFiles();
  }
};

TEST_F(ImportTest, SecondImportFindsTheGroupAndOnlyStartsTheVolume) {
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(0, import(data));
  EXPECT_TRUE(ran("qzdg   -C  -n dg1_1 import 100.dg1"));
  CFiExecSeam::clearCommands();
  groupAlreadyThere(true);
  on("qzinfo   -g dg1_1 vol1", 0, out({"vol1 fsgen Started"}));
  EXPECT_EQ(0, import(data));
  EXPECT_FALSE(ranPrefix("qzdg   -C"));
  EXPECT_FALSE(ranPrefix("qzdisk   clearimport"));
  ASSERT_NE(nullptr, m_ids.back());
  EXPECT_STREQ("/dev/qz/dsk/dg1_1/vol1", m_ids.back()->name);
}

// The disks given hold the source's own group with the volume (the
// primaries named as split disks): it is not taken as the copy, and its
// volume is not started.
TEST_F(ImportTest, TheSourcesOwnGroupOnTheDisksGivenIsNotTaken) {
  on("qzdg   list dg1", 0);
  on("qzdg   list ", 0, out({"NAME STATE ID", "dg1 enabled 100.dg1"}));
  on("qzdisk   -g dg1  list ", 0,
     out({"DEVICE TYPE DISK GROUP STATUS", "sdx auto d01 dg1 online", "sdy auto d02 dg1 online"}));
  on("qzprint   -g dg1  -v ", 0, out({"TY NAME ASSOC", "v vol1 fsgen"}));
  volumeStarts("dg1", "vol1");
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, import(data));
  expectNoChange();
  EXPECT_FALSE(ranPrefix("qzprint   -g dg1  vol1"));
  expectNotTheCopy("importQzVM", "dg1",
                   "it is the source's own group: the disks given [sdx sdy] are the source's, "
                   "not split copies");
  EXPECT_EQ(nullptr, m_ids.back());
}

TEST_F(ImportTest, UnseenDisksFail) {
  on("qzdisk   list sdx", 1);
  on("qzdisk   scandisks ", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::importQzVM - snapshotted disks not yet seen by QzVM."));
  EXPECT_EQ(7u, m_pauses.size());
}

TEST_F(ImportTest, WithoutOSPathsFails) {
  multipathNodesWithoutPaths();
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::importQzVM -  getOSDiskHandleForQzVMDisk failed"));
}

TEST_F(ImportTest, ClearImportFailureCleansUpWithoutDeport) {
  on("qzdisk   clearimport  sdx sdy", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::importQzVM - unable to clear import flag on the disk"));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS"));
  EXPECT_TRUE(wasTraced(2, "Cleaning the new dg created and dmp nodes."));
  EXPECT_FALSE(ranPrefix("qzdg   -C"));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(ran("qzdisk   rm sdy"));
  EXPECT_EQ("1", qzvmfi_test::readFile(deleteFile("sdx")));
}

TEST_F(ImportTest, ImportFailureCleansUpWithoutDeport) {
  on("qzdg   -C  -n dg1_1 import 100.dg1", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(ran("qzdisk   rm sdx"));
}

TEST_F(ImportTest, StartFailureAfterImportDeportsTheNewGroup) {
  on("qzvol   -g dg1_1 start vol1", 1);
  on("qzdg   list dg1_1", 0);
  on("qzdg   deport dg1_1", 0);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP"));
  EXPECT_TRUE(ran("qzdg   deport dg1_1"));
  EXPECT_TRUE(ran("qzdisk   rm sdy"));
  EXPECT_EQ("1", qzvmfi_test::readFile(deleteFile("sdy")));
}

TEST_F(ImportTest, GroupAlreadyThereThatWillNotStartCleansUp) {
  groupAlreadyThere(true);
  on("qzvol   -g dg1_1 start vol1", 1);
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(6, import(data));
  EXPECT_TRUE(wasTraced(1, "active vol failed."));
  EXPECT_FALSE(ranPrefix("qzdg   deport"));
  EXPECT_TRUE(ran("qzdisk   rm sdx"));
}

TEST_F(ImportTest, GroupCheckFailureFailsWithoutCleanUp) {
  CQzVMData data(nullptr, false);
  recordSource(data);
  // Seen by the volume manager, then unreadable when its group is looked up.
  once("qzdisk   list sdx", 0);
  once("qzdisk   list sdx", 1);
  EXPECT_EQ(6, import(data));
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
}

TEST_F(ImportTest, ANewNameTakenMeanwhileIsChosenAgain) {
  on("qzdg   -C  -n dg1_1 import 100.dg1", 1);
  on("qzdg   list dg1_1", 0);
  on("qzdg   list ", 0, out({"NAME STATE ID", "dg1_1 enabled 300.other"}));
  const std::string chosen = "dg1_" + std::to_string(getpid());
  on("qzdg   -C  -n " + chosen + " import 100.dg1", 0);
  volumeStarts(chosen, "vol1");
  CQzVMData data(nullptr, false);
  recordSource(data);
  ASSERT_EQ(0, import(data));
  EXPECT_STREQ(("/dev/qz/dsk/" + chosen + "/vol1").c_str(), m_ids.back()->name);
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
}

TEST_F(ImportTest, SplitDisksOfAnotherGroupAreRefused) {
  on("qzdisk   list sdy", 0, diskListing("sdy", "d09", "dg9", "900.dg9"));
  CQzVMData data(nullptr, false);
  recordSource(data);
  EXPECT_EQ(3, import(data));
  EXPECT_FALSE(ranPrefix("qzdisk   clearimport"));
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
  EXPECT_FALSE(ranPrefix("qzdg   -C"));
  ASSERT_EQ("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS", pushed().back());
  EXPECT_EQ("the split disk carries the group id [900.dg9], the recorded group id is [100.dg1]",
            errors().back()->argumentText(3));
}

// ===== recreateDG =====

class RecreateTest : public EngineTest {
 protected:
  void SetUp() override {
    EngineTest::SetUp();
    on("qzdisk   scandisks  device=sda1,sda2", 0);
    on("qzdisk   list sdb", 0, diskListing("sdb", "d01", "dg1", "100.dg1"));
    on("qzdisk   list sdc", 0, diskListing("sdc", "d02", "dg1", "100.dg1"));
    on("qzdg   list dg1", 1);
    on("qzdisk   rm sdb", 0);
    on("qzdisk   rm sdc", 0);
    onPrefix("qzdisk   -f  init ", 0);
    on("qzdg   init dg1 d01=sdb", 0);
    on("qzdg   -g dg1 adddisk  d02=sdc", 0);
    onPrefix("qzmake   -g dg1 -d ", 0);
    volumeStarts("dg1", "vol1");
    recordSource(m_data);
    m_data.setDiskDMPMap("sda1", "sdb");
    m_data.setDiskDMPMap("sda2", "sdc");
  }
  int recreate() { return m_engine->recreateDG("/dev/qz/dsk/dg1/vol1", {"sda1", "sda2"}, &m_data); }
  CQzVMData m_data{nullptr, false};
};

TEST_F(RecreateTest, KeepsTheGroupNameAndDiskMediaNames) {
  EXPECT_EQ(0, recreate());
  EXPECT_TRUE(ran("qzdg   init dg1 d01=sdb"));
  EXPECT_TRUE(ran("qzdg   -g dg1 adddisk  d02=sdc"));
  EXPECT_TRUE(ran("qzvol   -g dg1 start vol1"));
  EXPECT_TRUE(wasTraced(6,
                        "CQzVMEngine::recreateDG - Getting primary DMP information for [sda1 "
                        "sda2]"));
  EXPECT_TRUE(wasTraced(6, "CQzVMEngine::recreateDG - Got primary DMP information as [sdb sdc]"));
}

TEST_F(RecreateTest, GroupAlreadyThereIsOnlyStarted) {
  on("qzdg   list dg1", 0);
  on("qzdg   list ", 0, out({"NAME STATE ID", "dg1 enabled 100.dg1"}));
  on("qzdisk   -g dg1  list ", 0,
     out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online", "sdc auto d02 dg1 online"}));
  on("qzprint   -g dg1  -v ", 0, out({"TY NAME ASSOC", "v vol1 fsgen"}));
  // The group is the re-creation's: the recorded disks and disk-media
  // names, the recorded volume.
  on("qzdisk   -g dg1 list ", 0,
     out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online", "sdc auto d02 dg1 online"}));
  on("qzprint   -g dg1", 0, out({"TY NAME ASSOC KSTATE", "v  vol1 fsgen ENABLED"}));
  EXPECT_EQ(0, recreate());
  EXPECT_FALSE(ranPrefix("qzdg   init"));
  EXPECT_TRUE(ran("qzvol   -g dg1 start vol1"));
  on("qzvol   -g dg1 start vol1", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "Failed to activate volume"));
}

// A group of the recorded name that holds a volume the record does not name
// (made again by hand, say) is not the re-creation's: it is neither started
// nor, without the recorded volume, deported and made anew.
TEST_F(RecreateTest, AGroupOfTheRecordedNameHoldingAnotherVolumeIsRefused) {
  on("qzdg   list dg1", 0);
  on("qzdg   list ", 0, out({"NAME STATE ID", "dg1 enabled 100.dg1"}));
  const Lines members =
      out({"DEVICE TYPE DISK GROUP STATUS", "sdb auto d01 dg1 online", "sdc auto d02 dg1 online"});
  on("qzdisk   -g dg1  list ", 0, members);
  on("qzdisk   -g dg1 list ", 0, members);
  on("qzdg   deport dg1", 0);
  const Lines both = out({"TY NAME ASSOC", "v vol1 fsgen", "v scratch fsgen"});
  on("qzprint   -g dg1  -v ", 0, both);
  on("qzprint   -g dg1", 0, both);
  EXPECT_EQ(3, recreate());
  expectNoChange();
  expectNotTheCopy("recreateDG", "dg1",
                   "it holds the volume scratch, which the record does not name");

  // Without the recorded volume: where a stopped re-creation leaves its group.
  CFiExecSeam::clearCommands();
  const Lines other = out({"TY NAME ASSOC", "v scratch fsgen"});
  on("qzprint   -g dg1  -v ", 0, other);
  on("qzprint   -g dg1", 0, other);
  EXPECT_EQ(3, recreate());
  expectNoChange();
  expectNotTheCopy("recreateDG", "dg1",
                   "it holds the volume scratch, which the record does not name");
}

// Restored disks that carry another group (not imported here) are not the
// record's: they are refused before any of them is initialised.
TEST_F(RecreateTest, RestoredDisksCarryingAnotherGroupAreRefusedBeforeAnyInit) {
  on("qzdisk   list sdb", 0, diskListing("sdb", "p01", "prod", "900.prod"));
  on("qzdisk   list sdc", 0, diskListing("sdc", "p02", "prod", "900.prod"));
  on("qzdg   list prod", 11);
  EXPECT_EQ(3, recreate());
  expectNoChange();
  expectNotTheCopy("recreateDG", "prod",
                   "the restored disk sdb carries it, not the group dg1 that the record "
                   "re-creates");
}

TEST_F(RecreateTest, ScanFailureFails) {
  on("qzdisk   scandisks  device=sda1,sda2", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "Error in scanning disks"));
}

TEST_F(RecreateTest, GroupCheckFailureFails) {
  on("qzdisk   list sdb", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "checkForVolPathFromQzVMDiskIfRecreated() failed"));
}

TEST_F(RecreateTest, StepFailuresTraceTheirOwnTexts) {
  on("qzdg   init dg1 d01=sdb", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::recreateDG - creation of dg failed. dg=dg1"));
  EXPECT_TRUE(wasPushed("MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP"));
  on("qzdg   init dg1 d01=sdb", 0);
  onPrefix("qzdisk   -f  init ", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMEngine::recreateDG - initialization of alt disk with primary disks "
                        "priv data failed."));
  onPrefix("qzdisk   -f  init ", 0);
  onPrefix("qzmake   -g dg1 -d ", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_EQ(1u, traced("CQzVMEngine::recreateDG dg with modified configuration failed. dg=dg1 "
                       "config file='" +
                       tmpFolder() + "tpu_fi")
                    .size());
  onPrefix("qzmake   -g dg1 -d ", 0);
  on("qzvol   -g dg1 start vol1", 1);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "Error in activating volume"));
}

TEST_F(RecreateTest, RecordsAndDiskChecksTraceTheirOwnTexts) {
  on("qzdisk   list sdc", 1);
  on("qzdisk   scandisks ", 0);
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::recreateDG - snapshotted disks not yet seen by QzVM."));
  m_data.setDGConfgiInPD("dg1", {});
  EXPECT_EQ(6, recreate());
  EXPECT_TRUE(
      wasTraced(1, "CQzVMEngine::recreateDG - dg configuration is not found in private data."));
}

TEST_F(RecreateTest, NoprivTracesItsOwnText) {
  CQzVMData data(nullptr, false);
  recordSource(data, "nopriv");
  data.setDiskDMPMap("sda1", "sdb");
  data.setDiskDMPMap("sda2", "sdc");
  EXPECT_EQ(6, m_engine->recreateDG("/dev/qz/dsk/dg1/vol1", {"sda1", "sda2"}, &data));
  EXPECT_TRUE(
      wasTraced(1, "CQzVMEngine::recreateDG - defining snapshotted disk as nopriv failed."));
  EXPECT_FALSE(ranPrefix("qzdisk   rm"));
}

TEST_F(EngineTest, EveryOperationAnnouncesItself) {
  CQzVMData data(nullptr, false);
  m_engine->deactiveVol("dg1", "vol1", &data);
  auto lines = traced("Entering Function deactiveVol [");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(6, lines[0].level);
  EXPECT_THAT(lines[0].text, ::testing::EndsWith(", engine]"));
  EXPECT_TRUE(traced("Exiting Function deactiveVol").empty());
}

}  // namespace
