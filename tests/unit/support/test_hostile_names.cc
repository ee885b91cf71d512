// Hostile names against every operation of the command layer and of the
// engine that takes a name: given as arguments, recorded in the private
// data, or printed by the tools. No command line that holds one is run, the
// refusal is reported, and nothing is written outside the test's folder.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "engine.h"
#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

namespace fs = std::filesystem;

// What an attacker would put where a name goes.
const Lines kHostile = {
    "dg;touch pwned", "$(touch pwned)",   "`touch pwned`",       "dg 1", "dg\n1", "dg'1",
    "dg\"1",          "../../../outside", std::string(300, 'a'),
};

// Those that a tool could print as one token of its output.
Lines printable() {
  Lines names;
  for (const std::string& name : kHostile) {
    if (name.find_first_of(" \n") == std::string::npos) {
      names.push_back(name);
    }
  }
  return names;
}

class Engine : public CQzVMEngine {};

// What the tools print, with name wherever a group, disk or volume name
// stands; every command succeeds.
Lines toolOutput(const std::string& command, const std::string& name) {
  auto has = [&command](const char* part) { return command.find(part) != std::string::npos; };
  const char* n = name.c_str();
  auto lines = [](std::initializer_list<std::string> texts) {
    Lines result;
    for (const std::string& text : texts) {
      result.push_back(text + "\n");
    }
    return result;
  };
  const std::string s(n);
  if (has("qzdg ") && has(" list")) {
    return lines({"NAME   STATE    ID", s + "  enabled  " + s});
  }
  if (has("qzdmpadm") && has("getdmpnode")) {
    return lines({"NAME  STATE  ENCLR-TYPE  PATHS  ENBL  DSBL  ENCLR-NAME",
                  "=====", s + "  ENABLED  QZARR  1  1  0  qzarr0"});
  }
  if (has("qzdmpadm") && has("getsubpaths")) {
    return lines({"NAME  STATE[A]  PATH-TYPE[M]  CTLR-NAME  ENCLR-TYPE  ENCLR-NAME  ATTRS",
                  "=====", s + "  ENABLED(A)  PRIMARY  c1  QZARR  qzarr0  -"});
  }
  if (has("qzdisk ") && has(" -s ")) {
    return lines({"dgid: " + s});
  }
  if (has("qzdisk ") && has(" -g ")) {
    return lines(
        {"DEVICE  TYPE  DISK  GROUP  STATUS", s + "  auto:cdsdisk  " + s + "  " + s + "  online"});
  }
  if (has("qzdisk ") && has(" list ")) {
    return lines({"Device:    " + s, "type:      auto", "disk:      name=" + s + " id=" + s,
                  "group:     name=" + s + " id=" + s, "info:      format=cdsdisk,privoffset=" + s,
                  "flags:     online ready private", "public:    slice=3 offset=" + s + " len=" + s,
                  "private:   slice=3 offset=" + s + " len=" + s, "configs:   count=1 len=" + s,
                  "logs:      count=1 len=" + s});
  }
  if (has("qzdisk ")) {
    return lines(
        {"DEVICE  TYPE  DISK  GROUP  STATUS", s + "  auto:cdsdisk  " + s + "  " + s + "  online"});
  }
  if (has("qzprint") && has(" -m")) {
    return lines({"dg " + s, "vol " + s, "\tuse_type=fsgen", "sd " + s, "\tdm_name=" + s,
                  "\tda_name=" + s, "\tpath=/dev/qz/dmp/" + s});
  }
  if (has("qzprint")) {
    return lines({"TY NAME  ASSOC  KSTATE", "v  " + s + "  fsgen  ENABLED",
                  "v  " + s + "_dcl  gen  ENABLED", "vt " + s + "  -  ENABLED"});
  }
  if (has("qzinfo")) {
    return lines({s + " fsgen Started"});
  }
  if (has("qzassist") && has("maxsize")) {
    return lines({"1024"});
  }
  return {};
}

class HostileNameTest : public SupportOpsTest {
 protected:
  void SetUp() override {
    SupportOpsTest::SetUp();
    // The test's folder holds the plug-in's /sys root, its temporary files
    // and its working folder, and, beside them, what "../" could reach.
    m_root = m_scratch->path() + "/root";
    fs::create_directories(m_root + "/sys/block/sdb/device");
    fs::create_directories(m_scratch->path() + "/outside/device");
    setQzVMSysRoot(m_root);
    m_oldCwd = fs::current_path();
    fs::create_directories(m_root + "/cwd");
    fs::current_path(m_root + "/cwd");
    install(m_bin + "qzdmpadm");
    install(m_bin + "qzvset");
    install(m_bin + "qzcdsconvert");
    setQzVMSleep([](unsigned) {});
    m_before = listing(m_scratch->path());
  }

  void TearDown() override {
    fs::current_path(m_oldCwd);
    m_engine.reset();
    SupportOpsTest::TearDown();
  }

  // Every path under folder, except the temporary files of the plug-in.
  std::set<std::string> listing(const std::string& folder) const {
    std::set<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
      const std::string path = entry.path().string();
      if (path.rfind(tmpFolder() + "tpu_fi", 0) != 0) {
        paths.insert(path);
      }
    }
    return paths;
  }

  Engine& engine() {
    if (!m_engine) {
      m_engine = std::make_unique<Engine>();
    }
    return *m_engine;
  }

  // Private data whose every name is name: what a hostile blob brings.
  static void fill(CQzVMData& data, const std::string& name) {
    data.setDiskDMPMap(name, name);
    data.setDiskDMPMap("sdb", "qzarr0_1");
    data.setVolPrivInfoInPD(
        {name, "qzarr0_1"}, {name, name},
        {toolOutput("qzdisk  list x", name), toolOutput("qzdisk  list x", name)});
    data.setDGConfgiInPD(name, toolOutput("qzprint -m", name));
    data.setDGId(name);
    data.setAltVol(name);
    data.vList().push_back(name);
    data.vtList().push_back(name);
  }

  // The operations, each given name wherever it takes one.
  std::vector<std::pair<std::string, std::function<void(const std::string&)>>> operations() {
    TestableSupport& s = *m_support;
    auto records = [](const std::string& n) {
      vol_pvt_info record;
      for (std::string* field :
           {&record.vpi_da, &record.vpi_dm, &record.vpi_dgid, &record.vpi_dgname,
            &record.vpi_format, &record.vpi_priv_slice, &record.vpi_pub_slice,
            &record.vpi_priv_offset, &record.vpi_priv_len, &record.vpi_pub_offset,
            &record.vpi_pub_len, &record.vpi_configlen, &record.vpi_loglen, &record.vpi_nconfig,
            &record.vpi_nlogs, &record.vpi_priv_path}) {
        *field = n;
      }
      record.vpi_da_type = "auto";
      return std::vector<vol_pvt_info>{record};
    };
    auto path = [](const std::string& n) { return "/dev/qz/dsk/" + n + "/" + n; };
    return {
        {"removeDevicesFromOSDeviceTree", [&s](auto n) { s.removeDevicesFromOSDeviceTree({n}); }},
        {"isDGPresent", [&s](auto n) { s.isDGPresent(n); }},
        {"isDGExist", [&s](auto n) { s.isDGExist(n); }},
        {"isDGEnabled", [&s](auto n) { s.isDGEnabled(n); }},
        {"getNewDGName",
         [&s](auto n) {
           std::string name;
           s.getNewDGName(n, name);
         }},
        {"createDG",
         [&s](auto n) {
           s.createDG(n, {n, n}, true);
         }},
        {"createDG with media", [&s](auto n) { s.createDG(n, {n}, {n}, false); }},
        {"importDG", [&s](auto n) { s.importDG(n, n); }},
        {"deportDG", [&s](auto n) { s.deportDG(n); }},
        {"destroyDG", [&s](auto n) { s.destroyDG(n, true); }},
        {"flushDGConfig", [&s](auto n) { s.flushDGConfig(n); }},
        {"onlineDG", [&s](auto n) { s.onlineDG(n, true); }},
        {"enableDG", [&s](auto n) { s.enableDG(n); }},
        {"diskClearImport", [&s](auto n) { s.diskClearImport({n}); }},
        {"getDGID",
         [&s, path](auto n) {
           std::string id;
           s.getDGID(path(n), id);
         }},
        {"getDGSize",
         [&s](auto n) {
           unsigned long long size = 0;
           s.getDGSize(n, size);
         }},
        {"getDisksForDG",
         [&s](auto n) {
           Lines disks;
           s.getDisksForDG(n.c_str(), disks);
         }},
        {"getDMsFromDG",
         [&s](auto n) {
           Lines dms;
           s.getDMsFromDG(n, {n}, dms);
         }},
        {"deportDGAndRemoveDisks",
         [&s, path](auto n) { s.deportDGAndRemoveDisks(path(n), true, true); }},
        {"qzvmScanDisks",
         [&s](auto n) {
           s.qzvmScanDisks(Lines{n, n});
         }},
        {"getQzVMDiskForOSDiskHandler",
         [&s](auto n) {
           Lines nodes;
           s.getQzVMDiskForOSDiskHandler({n}, nodes);
         }},
        {"getQzVMDiskForOSDiskHandler_Waited",
         [&s](auto n) {
           Lines nodes;
           s.getQzVMDiskForOSDiskHandler_Waited({n}, nodes);
         }},
        {"getOSDiskHandleForQzVMDisk",
         [&s](auto n) {
           Lines disks;
           s.getOSDiskHandleForQzVMDisk({n}, disks, true, true);
         }},
        {"enableOSDisk", [&s](auto n) { s.enableOSDisk(n); }},
        {"disableOSDisk", [&s](auto n) { s.disableOSDisk(n); }},
        {"enableDMP", [&s](auto n) { s.enableDMP(n); }},
        {"disableDMP", [&s](auto n) { s.disableDMP(n); }},
        {"getDMPPathIfValid",
         [&s](auto n) {
           std::string dmp;
           s.getDMPPathIfValid(n, dmp);
         }},
        {"qzDiskSetup", [&s](auto n) { s.qzDiskSetup({n}); }},
        {"qzDiskUnsetup", [&s](auto n) { s.qzDiskUnsetup(n); }},
        {"createSUNLabel", [&s](auto n) { s.createSUNLabel({n}); }},
        {"removeDisksFromQzVM", [&s](auto n) { s.removeDisksFromQzVM({n}, true); }},
        {"refreshDisks", [&s](auto n) { s.refreshDisks({n}); }},
        {"isDisksInQzVMDB", [&s](auto n) { s.isDisksInQzVMDB({n}, false); }},
        {"checkQzVMDiskAgainstDG",
         [&s](auto n) {
           bool belongs = false;
           s.checkQzVMDiskAgainstDG({n}, {n}, belongs);
         }},
        {"deleteQzVMDisk", [&s](auto n) { s.deleteQzVMDisk(n); }},
        {"isQzVMDisk",
         [&s](auto n) {
           bool answer = false;
           s.isQzVMDisk(n, n, answer, true);
         }},
        {"onlineVolume", [&s](auto n) { s.onlineVolume(n, n, n); }},
        {"onOffVolume", [&s](auto n) { s.onOffVolume(n, n, " start "); }},
        {"createVolume", [&s](auto n) { s.createVolume(n, n, 2048); }},
        {"offlineVolume", [&s](auto n) { s.offlineVolume(n, n); }},
        {"isVolStarted", [&s](auto n) { s.isVolStarted(n, n); }},
        {"isVolume", [&s, path](auto n) { s.isVolume(path(n)); }},
        {"isVSet", [&s, path](auto n) { s.isVSet(path(n)); }},
        {"isVsetOn",
         [&s](auto n) {
           bool on = false;
           s.isVsetOn(n, n, on);
         }},
        {"getVolumesFromDG",
         [&s](auto n) {
           Lines names;
           s.getVolumesFromDG(n, names, true);
         }},
        {"checkVolumeInDG",
         [&s](auto n) {
           bool found = false;
           s.checkVolumeInDG(n, n, found, true);
         }},
        {"getQzVMObjects",
         [&s](auto n) {
           Lines a, b, c;
           s.getQzVMObjects(a, b, c, n, n);
         }},
        {"getDisksForVolume",
         [&s, path](auto n) {
           Lines disks;
           s.getDisksForVolume(path(n), disks);
         }},
        {"stopDCOVols", [&s](auto n) { s.stopDCOVols(n, {n}); }},
        {"startDCOVols", [&s](auto n) { s.startDCOVols(n, {n}, n); }},
        {"verifySubObjects",
         [&s](auto n) {
           bool same = false;
           s.verifySubObjects(n, n, {n}, false, same);
         }},
        {"ssodOnlineVolume", [&s](auto n) { s.ssodOnlineVolume(n, n, {n}); }},
        {"createNewVolumeOnOSDisks", [&s](auto n) { s.createNewVolumeOnOSDisks(n, n, {n}); }},
        {"removeSnapshot", [&s, path](auto n) { s.removeSnapshot(path(n), true); }},
        {"getVolPrivInfoPerAltDisk",
         [&s](auto n) {
           Lines lines;
           s.getVolPrivInfoPerAltDisk(n, lines);
         }},
        {"getVolPrivInfo",
         [&s](auto n) {
           std::vector<vol_pvt_info> records;
           s.getVolPrivInfo({n}, records);
         }},
        {"getVolPrivInfoUnformatted",
         [&s](auto n) {
           std::vector<Lines> listings;
           s.getVolPrivInfoUnformatted({n}, listings);
         }},
        {"dgIdNameOnDisk",
         [&s](auto n) {
           std::string id, name;
           s.dgIdNameOnDisk(n, id, name);
         }},
        {"defineDisksInQzVM", [&s, records](auto n) { s.defineDisksInQzVM({n}, records(n)); }},
        {"initDisks", [&s, records](auto n) { s.initDisks({n}, records(n), true); }},
        {"initDisks with a hostile geometry",
         [&s, records](auto n) { s.initDisks({"sdb"}, records(n), false); }},
        {"getDGConfig", [&s, this](auto n) { s.getDGConfig(n, tmpFolder() + "tpu_fi_dump"); }},
        {"applyVolConfig", [&s](auto n) { s.applyVolConfig(n, "/tmp/" + n); }},
        {"regenerateDGFromDisk",
         [&s](auto n) {
           std::string dg = n;
           s.regenerateDGFromDisk({n}, dg);
         }},
        {"regenerateQzVMFromDisk",
         [&s](auto n) {
           std::string dg = n, volume = n;
           s.regenerateQzVMFromDisk({n}, dg, volume);
         }},
        {"getDGFromQzVMDiskIfRecreated",
         [&s](auto n) {
           bool created = false;
           std::string dg = n;
           s.getDGFromQzVMDiskIfRecreated({n}, created, dg);
         }},
        {"checkForVolFromQzVMDiskIfRecreatedAndGetDG",
         [&s](auto n) {
           bool found = false;
           std::string dg = n;
           s.checkForVolFromQzVMDiskIfRecreatedAndGetDG({n}, n, dg, found, true);
         }},
        {"checkForVolPathFromQzVMDiskIfRecreated",
         [&s](auto n) {
           bool found = false;
           s.checkForVolPathFromQzVMDiskIfRecreated({n}, n, n, found, true);
         }},
        {"engine getQzVMObjects",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           engine().getQzVMObjects(path(n), &data);
         }},
        {"engine activeVol",
         [this](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           engine().activeVol(n, n, &data);
         }},
        {"engine deactiveVol",
         [this](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           engine().deactiveVol(n, n, &data);
         }},
        {"engine onlineVSet", [this](auto n) { engine().onlineVSet(n, n, nullptr); }},
        {"engine offlineVSet", [this](auto n) { engine().offlineVSet(n, n, nullptr); }},
        {"engine activeVolAndCreateObjid",
         [this](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           qzfi_objid* id = nullptr;
           engine().activeVolAndCreateObjid(n, n, &data, &id, true);
         }},
        {"engine setQzVMConfigInPD",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           engine().setQzVMConfigInPD(path(n), &data);
         }},
        {"engine importQzVM",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           qzfi_objid* id = nullptr;
           engine().importQzVM(&id, n, {n}, {n}, path(n), &data);
         }},
        {"engine buildAltTree",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           qzfi_objid* id = nullptr;
           engine().buildAltTree(&id, n, {n}, path(n), &data, {n}, {n});
         }},
        {"engine buildQzVM",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           qzfi_objid* id = nullptr;
           engine().buildQzVM(&id, n, {"sdb"}, path(n), &data, {n}, {n});
         }},
        {"engine recreateDG",
         [this, path](auto n) {
           CQzVMData data(nullptr, false);
           fill(data, n);
           engine().recreateDG(path(n), {n}, &data);
         }},
    };
  }

  // Runs every operation with name given as named and printed as printed
  // by the tools, and checks that no command held either.
  void sweep(const std::string& given, const std::string& printed, bool mustRefuse) {
    for (auto& [operation, call] : operations()) {
      CFiExecSeam::clearCommands();
      qzvmfi_ctx::ErrorManager::instance()->clear();
      CFiExecSeam::setResponder(
          [&printed](const std::string& command, CFiExecSeam::Answer& answer) {
            answer.status = 0;
            answer.output = toolOutput(command, printed);
            return true;
          });
      call(given);
      const std::string bad = given == printed ? given : printed;
      for (const std::string& command : commands()) {
        EXPECT_EQ(std::string::npos, command.find(bad))
            << operation << " ran a line holding [" << bad << "]: " << command;
      }
      const auto messages = pushed();
      const bool refused = std::any_of(messages.begin(), messages.end(), [](const auto& m) {
        return m.id == "MSG_ERROR_INVALID_NAME";
      });
      m_refusals += refused ? 1 : 0;
      // These compare the name with a listing of the groups; it never goes
      // into a command line.
      static const std::set<std::string> kListingOnly = {"isDGExist", "isDGEnabled",
                                                         "getNewDGName"};
      if (mustRefuse && kListingOnly.count(operation) == 0) {
        EXPECT_TRUE(refused || commands().empty())
            << operation << " neither refused [" << bad << "] nor left it out of its commands";
      }
      ++m_calls;
    }
  }

  void expectNothingWrittenOutside() {
    std::set<std::string> after = listing(m_scratch->path());
    std::vector<std::string> added;
    std::set_difference(after.begin(), after.end(), m_before.begin(), m_before.end(),
                        std::back_inserter(added));
    // The only file the operations may make is the delete file of the
    // /sys root's own disk.
    added.erase(std::remove(added.begin(), added.end(), m_root + "/sys/block/sdb/device/delete"),
                added.end());
    EXPECT_EQ(Lines{}, added);
    EXPECT_FALSE(fs::exists("pwned"));
  }

  std::string m_root;
  fs::path m_oldCwd;
  std::set<std::string> m_before;
  std::unique_ptr<Engine> m_engine;
  size_t m_calls = 0;
  size_t m_refusals = 0;
};

TEST_F(HostileNameTest, GivenAsArgumentsTheyAreRefusedAndNoCommandHoldsThem) {
  for (const std::string& name : kHostile) {
    SCOPED_TRACE(name);
    sweep(name, name, true);
  }
  EXPECT_GT(m_refusals, m_calls * 3 / 4) << m_refusals << " of " << m_calls;
  expectNothingWrittenOutside();
}

TEST_F(HostileNameTest, PrintedByTheToolsTheyAreNeverRunEither) {
  for (const std::string& name : printable()) {
    SCOPED_TRACE(name);
    sweep("sdb", name, false);
  }
  // Many operations go on with what the tools printed, and are stopped there.
  EXPECT_GT(m_refusals, m_calls / 5) << m_refusals << " of " << m_calls;
  expectNothingWrittenOutside();
}

TEST_F(HostileNameTest, ADeviceNameCannotLeadTheDeleteWriteOutOfSysBlock) {
  m_support->removeDevicesFromOSDeviceTree({"../../../outside", "sdb"});
  EXPECT_FALSE(fs::exists(m_scratch->path() + "/outside/device/delete"));
  // The refusal stops the walk as an unopenable file does.
  EXPECT_FALSE(fs::exists(m_root + "/sys/block/sdb/device/delete"));
  EXPECT_EQ((std::vector<qzvmfi_test::Pushed>{
                {"MSG_ERROR_INVALID_NAME",
                 "clitool",
                 {"run", "../../../outside", "it begins with '-' or '.'", "/sys/block"}}}),
            pushed());
  m_support->removeDevicesFromOSDeviceTree({"sdb"});
  EXPECT_EQ("1", readFile(m_root + "/sys/block/sdb/device/delete"));
}

}  // namespace
}  // namespace qzvmfi_support_test
