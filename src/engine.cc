#include "engine.h"

#include <stdio.h>
#include <string.h>

#include "report.h"

using qzvmfi_report::pushError;
using Names = std::vector<std::string>;

namespace {

const char kSource[] = "engine";

// The engine's operations announce themselves with one line, without the
// closing line of a framework scope.
#define QZ_ENGINE_ENTER(name) \
  QZ_TRACE(m_traceLog, 6, "Entering Function %s [%d, %s]", name, __LINE__, kSource)

std::string joinNames(const Names& names) {
  std::string joined;
  for (const std::string& name : names) {
    joined += (joined.empty() ? "" : " ") + name;
  }
  return joined;
}

}  // namespace

// The trace texts of one way of building a group on split disks.
struct CQzVMEngine::RebuildTexts {
  const char* records;
  const char* config;
  const char* nopriv;
  const char* unseen;
  const char* init;
  const char* reconfig;  // original file, modified file
  const char* create;    // group
  const char* apply;     // group, file
};

const CQzVMEngine::RebuildTexts CQzVMEngine::kBuildTexts = {
    "could not get volume private on disk from private data(pd).",
    "dg configuration is not found in private data.",
    "defining snapshotted disk as nopriv failed.",
    "snapshotted disks not yet seen by QzVM.",
    "initialization of snapshotted disk with primary disks priv data failed.",
    "unable to modify configuration in orginial config file and store it in new config file. "
    "original config file='%s' modified config file='%s'",
    "creation of dg failed. dg=%s",
    "configuration new dg with modified configuration failed. dg=%s config file='%s'",
};

const CQzVMEngine::RebuildTexts CQzVMEngine::kRecreateTexts = {
    "CQzVMEngine::recreateDG - could not get volume private on disk from private data(pd).",
    "CQzVMEngine::recreateDG - dg configuration is not found in private data.",
    "CQzVMEngine::recreateDG - defining snapshotted disk as nopriv failed.",
    "CQzVMEngine::recreateDG - snapshotted disks not yet seen by QzVM.",
    "CQzVMEngine::recreateDG - initialization of alt disk with primary disks priv data failed.",
    "CQzVMEngine::recreateDG - unable to modify configuration in orginial config file and store "
    "it in new config file. original config file='%s' modified config file='%s'",
    "CQzVMEngine::recreateDG - creation of dg failed. dg=%s",
    "CQzVMEngine::recreateDG dg with modified configuration failed. dg=%s config file='%s'",
};

// What a new group on split disks is made of: the primary disks' recorded
// private regions and configuration, replayed onto the split disks.
struct CQzVMEngine::SourceRecords {
  Names primaryDisks;
  Names splitDisks;
  Names dms;  // disk-media names, kept by the new group; empty: as recorded
  std::string newDG;
  bool splitCopies;  // the split disks are copies of the primaries, not the primaries
};

CQzVMEngine* CQzVMEngine::getInstance() {
  static CQzVMEngine engine;
  return &engine;
}

CQzVMEngine::CQzVMEngine() {
  registerTraceLog(qzvmfi_report::pluginTraceLog());
}

CQzVMEngine::~CQzVMEngine() = default;

void CQzVMEngine::registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) {
  CFiTraceable::registerTraceLog(log);
  m_cliTool.registerTraceLog(log);
  m_support.registerTraceLog(log);
}

int CQzVMEngine::initEngine() {
  QZ_ENGINE_ENTER("initEngine");
  return qzvmfi_report::reportingExceptions({"initEngine", kSource, __LINE__}, 6, [this] {
    CQzVMConfiguration configuration;
    configuration.checkConfigFile(1);
    SQzVMCliPath read;
    configuration.importCliPathInfo(read);
    m_cliPath.supportDir = read.supportDir;
    m_cliPath.commandDir = read.commandDir;
    m_cliPath.otherDir = read.otherDir;
    return 0;
  });
}

// ===== volume activation =====

int CQzVMEngine::getQzVMObjects(const std::string& path, CQzVMData* data) {
  QZ_ENGINE_ENTER("getQzVMObjects");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "No QzVM data");
    return 6;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  QZ_TRACE(m_traceLog, 3,
           "CQzVMEngine::getQzVMObjects - Checking for volume and/or dco volume for object= %s",
           path.c_str());
  Names vsets;
  Names volumes;
  Names dcoVolumes;
  Names output;
  if (m_support.getQzVMObjects(vsets, volumes, dcoVolumes, dg, volume, &output) != 0) {
    pushError("MSG_ERROR_COMMAND_FAILED",
              {"getQzVMObjects", path, qzvmfi_report::joinLines(output)}, kSource, __LINE__);
    return 5;
  }
  Names& vsetList = data->vtList();
  Names& volumeList = data->vList();
  vsetList.insert(vsetList.end(), vsets.begin(), vsets.end());
  volumeList.insert(volumeList.end(), volumes.begin(), volumes.end());
  volumeList.insert(volumeList.end(), dcoVolumes.begin(), dcoVolumes.end());
  if (!vsets.empty() || !volumes.empty() || !dcoVolumes.empty()) {
    data->setObjectsFound(true);
  }
  return 0;
}

int CQzVMEngine::activeVol(const std::string& dg, const std::string& volume, CQzVMData* data) {
  QZ_ENGINE_ENTER("activeVol");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::activeVol - no private data.");
    return 6;
  }
  // A set that will not start must not keep the volume from starting.
  for (const std::string& vset : data->vtList()) {
    onlineVSet(dg, vset, data);
  }
  Names vsets;
  Names volumes;
  Names dcoVolumes;
  int status = m_support.getQzVMObjects(vsets, volumes, dcoVolumes, dg, volume);
  if (status == 0) {
    if (!dcoVolumes.empty()) {
      m_support.startDCOVols(dg, dcoVolumes, "gen");
    }
    status = m_support.startDCOVols(dg, volumes, "");
  }
  if (status != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::activeVol - start of valume failed dg=%s volume=%s",
             dg.c_str(), volume.c_str());
    pushError("MSG_ERROR_UNABLE_TO_ACTIVATE_DISKGROUP", {dg, volume}, kSource, __LINE__);
  }
  return status;
}

// What is stopped is what the private data lists, whatever the volume.
int CQzVMEngine::deactiveVol(const std::string& dg, const std::string& /*volume*/,
                             CQzVMData* data) {
  QZ_ENGINE_ENTER("deactiveVol");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::deactiveVol - no private data.");
    return 6;
  }
  for (const std::string& vset : data->vtList()) {
    offlineVSet(dg, vset, data);
  }
  return m_support.stopDCOVols(dg, data->vList());
}

int CQzVMEngine::runVSetCommand(const std::string& dg, const std::string& vset,
                                const char* action) {
  Names output;
  return m_cliTool.run(
      CQzVMCommandLine(m_cliPath.commandDir, "qzvset ").add(" -g ", dg, action, vset), output);
}

int CQzVMEngine::onlineVSet(const std::string& dg, const std::string& vset, CQzVMData* /*data*/) {
  QZ_ENGINE_ENTER("onlineVSet");
  bool on = false;
  if (int status = m_support.isVsetOn(dg, vset, on)) {
    return status;
  }
  if (!on && runVSetCommand(dg, vset, " start ") != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in taking VSet online");
    return 5;
  }
  return 0;
}

int CQzVMEngine::offlineVSet(const std::string& dg, const std::string& vset, CQzVMData* /*data*/) {
  QZ_ENGINE_ENTER("offlineVSet");
  bool on = false;
  if (int status = m_support.isVsetOn(dg, vset, on)) {
    return status;
  }
  if (on && runVSetCommand(dg, vset, " stop ") != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in offlining VSet");
    return 5;
  }
  return 0;
}

int CQzVMEngine::activeVolAndCreateObjid(const std::string& dg, const std::string& volume,
                                         CQzVMData* data, qzfi_objid** objid, bool raw) {
  QZ_ENGINE_ENTER("activeVolAndCreateObjid");
  if (activeVol(dg, volume, data) != 0) {
    return 6;
  }
  if (objid != nullptr) {
    *objid = nullptr;
    init_internal_objid(objid, dg, volume, raw);
  }
  if (objid == nullptr || *objid == nullptr) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMEngine::activeVolAndCreateObjid - unable to create internal object");
    return 1024;
  }
  return 0;
}

void CQzVMEngine::init_internal_objid(qzfi_objid** objid, const std::string& dg,
                                      const std::string& volume, bool raw) {
  QZ_ENGINE_ENTER("init_internal_objid");
  // A volume given as a path has no name of its own under the group.
  if (objid == nullptr || dg.empty() || volume.empty() || volume[0] == '/') {
    return;
  }
  char name[1024];
  snprintf(name, sizeof name, "%s/%s/%s", raw ? "/dev/qz/rdsk" : "/dev/qz/dsk", dg.c_str(),
           volume.c_str());
  *objid = qzfi_get_objid(name, static_cast<int>(strlen(name) + 1), 2);
}

// ===== recording at the source =====

int CQzVMEngine::setQzVMConfigInPD(const std::string& path, CQzVMData* data) {
  QZ_ENGINE_ENTER("setQzVMConfigInPD");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::setQzVMConfigInPD - no private data.");
    return 6;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  Names disks;
  if (m_support.getDisksForVolume(path, disks) != 0) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMEngine::setQzVMConfigInPD -  unable to get disk access (dmp) from object. "
             "object=%s",
             path.c_str());
    return 6;
  }
  Names dms;
  if (m_support.getDMsFromDG(dg, disks, dms) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::setQzVMConfigInPD - unable to get dm for disk name.");
    pushError("MSG_ERROR_UNABLE_TO_GET_DMNAME_FROM_DG", {}, kSource, __LINE__);
    return 6;
  }
  std::vector<Names> listings;
  if (m_support.getVolPrivInfoUnformatted(disks, listings) != 0) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMEngine::setQzVMConfigInPD - unable to get volumes private information.");
    return 6;
  }
  data->setVolPrivInfoInPD(disks, dms, listings);
  Names config;
  if (m_support.getDGConfigInVector(dg, config) != 0) {
    pushError("MSG_ERROR_UNABLE_TO_GET_CONFIGURATION_OF_DISKGROUP", {}, kSource, __LINE__);
    return 6;
  }
  data->setDGConfgiInPD(dg, config);
  return 0;
}

// ===== import and rebuild on the split disks =====

namespace {

// The rewrite of the configuration pairs each primary disk with the split
// disk at the same place, and gives the new group the disk-media names at
// that place: lists that cannot pair are refused before anything is done.
bool pairOneToOne(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
                  const Names& primaryDisks, const Names& splitDisks, const Names& dms) {
  if (primaryDisks.size() == splitDisks.size() &&
      (dms.empty() || dms.size() == primaryDisks.size())) {
    return true;
  }
  QZ_TRACE(log, 1,
           "CQzVMEngine::%s - the split disks [%s] do not pair with the primary disks [%s] and "
           "their disk-media names [%s].",
           operation, joinNames(splitDisks).c_str(), joinNames(primaryDisks).c_str(),
           joinNames(dms).c_str());
  pushError("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS",
            {operation, joinNames(splitDisks), joinNames(primaryDisks),
             "their disk-media names are [" + joinNames(dms) + "]"},
            kSource, __LINE__);
  return false;
}

// Refuses the pair of split disk and primary disk for why.
void refusePair(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
                const std::string& primary, const std::string& split, const std::string& why) {
  QZ_TRACE(log, 1,
           "CQzVMEngine::%s - the split disk [%s] does not pair with the primary disk [%s]: %s.",
           operation, split.c_str(), primary.c_str(), why.c_str());
  pushError("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS",
            {operation, split, primary, why}, kSource, __LINE__);
}

// The status of a build or import refused before any disk was changed.
const int kRefused = 3;

}  // namespace

void CQzVMEngine::cleanUp(const std::string& importedDG, const SplitDisks& disks) {
  QZ_TRACE(m_traceLog, 2, "Cleaning the new dg created and dmp nodes.");
  if (!importedDG.empty()) {
    m_support.deportDG(importedDG);
  }
  m_support.removeDisksFromQzVM(disks.dmpNodes);
  m_support.removeDevicesFromOSDeviceTree(disks.osHandles);
}

// A build stopped after it made the new group and before the volume was in
// it (its process killed) leaves that group imported on the split disks,
// which no later build can initialise. The split disks carry the source's
// group until a build makes another one on them; a group of another name,
// imported here on none but split disks and without the volume, is such a
// leftover, and goes.
bool CQzVMEngine::deportUnfinishedGroup(const std::string& foundDG, const std::string& sourceDG,
                                        const SplitDisks& disks) {
  if (foundDG.empty() || foundDG == sourceDG || !m_support.isDGPresent(foundDG)) {
    return false;
  }
  // Only split disks in it: the group is this copy's own, made on them.
  std::vector<std::string> members;
  if (m_support.getDisksForDG(foundDG.c_str(), members) != 0 || members.empty() ||
      !checkVectorMatch(members, disks.dmpNodes, false)) {
    return false;
  }
  QZ_TRACE(m_traceLog, 2,
           "CQzVMEngine::buildAltTree - the split disks hold the group '%s' without the volume, "
           "left by a build that stopped; deporting it to build again.",
           foundDG.c_str());
  return !m_support.deportDG(foundDG);
}

int CQzVMEngine::startExisting(const std::string& dg, const std::string& volume, CQzVMData* data,
                               qzfi_objid** objid, bool raw, const char* failure) {
  const std::string& tmpDG = dg;
  // clang-format off
  QZ_ASSERT(! tmpDG.empty(), kSource);
  // clang-format on
  if (activeVolAndCreateObjid(tmpDG, volume, data, objid, raw) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", failure);
    return 6;
  }
  return 0;
}

int CQzVMEngine::importQzVM(qzfi_objid** objid, const std::string& newDG, const Names& primaryDisks,
                            const Names& osDisks, const std::string& path, CQzVMData* data) {
  QZ_ENGINE_ENTER("importQzVM");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::importQzVM - no private data.");
    return 6;
  }
  const bool raw = m_support.isVolumeRaw(path);
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  m_support.qzvmScanDisks(osDisks);
  QZ_TRACE(m_traceLog, 6, "deviceList  = [%s]", joinNames(osDisks).c_str());
  SplitDisks disks;
  m_support.getQzVMDiskForOSDiskHandler_Waited(osDisks, disks.dmpNodes);
  QZ_TRACE(m_traceLog, 6, "QzVM disks for device list  = [%s]", joinNames(disks.dmpNodes).c_str());
  QZ_TRACE(m_traceLog, 6, "vecPriDisks = [%s]", joinNames(primaryDisks).c_str());
  std::vector<Names> listings;
  if (m_support.isDisksInQzVMDB(disks.dmpNodes, false, listings) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::importQzVM - snapshotted disks not yet seen by QzVM.");
    return 6;
  }
  if (m_support.getOSDiskHandleForQzVMDisk(disks.dmpNodes, disks.osHandles, true, true) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::importQzVM -  getOSDiskHandleForQzVMDisk failed");
    return 6;
  }
  std::string foundDG;
  bool found = false;
  if (m_support.checkForVolFromQzVMDiskIfRecreatedAndGetDG(disks.dmpNodes, volume, foundDG, found,
                                                           !data->vtList().empty()) != 0) {
    return 6;
  }
  if (found) {
    if (startExisting(foundDG, volume, data, objid, raw, "active vol failed.") != 0) {
      cleanUp("", disks);
      return 6;
    }
    return 0;
  }
  if (!splitDisksCarryGroup(primaryDisks, disks.dmpNodes, listings, data->getDGId())) {
    return kRefused;
  }
  return importById(objid, newDG, volume, data, raw, disks);
}

int CQzVMEngine::importById(qzfi_objid** objid, const std::string& newDG, const std::string& volume,
                            CQzVMData* data, bool raw, const SplitDisks& disks) {
  if (m_support.diskClearImport(disks.dmpNodes)) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::importQzVM - unable to clear import flag on the disk");
    pushError("MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS", {}, kSource, __LINE__);
    cleanUp("", disks);
    return 6;
  }
  std::string importedDG = newDG;
  m_nameChoices = 0;
  while (m_support.importDG(importedDG, data->getDGId())) {
    if (!chooseAgain(importedDG, disks.dmpNodes)) {
      cleanUp("", disks);
      return 6;
    }
  }
  if (activeVolAndCreateObjid(importedDG, volume, data, objid, raw) != 0) {
    cleanUp(importedDG, disks);
    return 6;
  }
  return 0;
}

int CQzVMEngine::buildAltTree(qzfi_objid** objid, const std::string& newDG, const Names& osDisks,
                              const std::string& path, CQzVMData* data, const Names& primaryDisks,
                              const Names& primaryDMs) {
  QZ_ENGINE_ENTER("buildAltTree");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::buildAltTree - no private data.");
    return 6;
  }
  if (!pairOneToOne(m_traceLog, "buildAltTree", primaryDisks, osDisks, primaryDMs)) {
    return kRefused;
  }
  const bool raw = m_support.isVolumeRaw(path);
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  if (m_support.qzvmScanDisks(osDisks) != 0) {
    QZ_TRACE(m_traceLog, 1, "scanning disks failed.");
    pushError("MSG_ERROR_QZVM_DISK_SCAN_FAILED", {}, kSource, __LINE__);
    return 6;
  }
  SplitDisks disks;
  if (m_support.getQzVMDiskForOSDiskHandler_Waited(osDisks, disks.dmpNodes) != 0) {
    QZ_TRACE(m_traceLog, 1, "getQzVMDiskForOSDiskHandler_Waited failed");
    return 6;
  }
  if (m_support.getOSDiskHandleForQzVMDisk(disks.dmpNodes, disks.osHandles, true, true) != 0) {
    QZ_TRACE(m_traceLog, 1, "getOSDiskHandleForQzVMDisk failed");
    return 6;
  }
  std::string foundDG;
  bool found = false;
  const int checked = m_support.checkForVolFromQzVMDiskIfRecreatedAndGetDG(
      disks.dmpNodes, volume, foundDG, found, !data->vtList().empty());
  // A group left without volumes cannot be looked into: it goes too.
  const bool leftover = !found && deportUnfinishedGroup(foundDG, dg, disks);
  if (checked != 0 && !leftover) {
    QZ_TRACE(m_traceLog, 1, "checkForVolFromQzVMDiskIfRecreatedAndGetDG failed");
    return 6;
  }
  if (found) {
    if (startExisting(foundDG, volume, data, objid, raw, "activeVolAndCreateObjid failed") != 0) {
      cleanUp("", disks);
      return 6;
    }
  } else {
    std::string createdDG;
    if (int status = buildOnSplitDisks(objid, newDG, disks.dmpNodes, path, data, primaryDisks,
                                       primaryDMs, createdDG)) {
      QZ_TRACE(m_traceLog, 1, "buildQzVM failed");
      // Refused before any disk was changed: the disks stay as they are, in
      // view, for the right list.
      if (status == kRefused) {
        return kRefused;
      }
      // Only a group this build made goes: the name may be another's.
      cleanUp(createdDG, disks);
      return 6;
    }
  }
  return takeNewGroupId(*objid, data, path);
}

// The group that now holds the copy is the one a later import goes by.
int CQzVMEngine::takeNewGroupId(const qzfi_objid* objid, CQzVMData* data, const std::string& path) {
  std::string dgid;
  if (m_support.getDGID(objid->name, dgid) != 0) {
    QZ_TRACE(m_traceLog, 1, "getDGID failed");
    QZ_TRACE(m_traceLog, 2, "Cleaning the new dg created and dmp nodes.");
    m_support.deportDGAndRemoveDisks(objid->name, true, false);
    return 6;
  }
  data->setDGId(dgid);
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(objid->name, dg, volume);
  m_builtGroups[dg] = path;
  return 0;
}

int CQzVMEngine::buildQzVM(qzfi_objid** objid, const std::string& newDG, const Names& splitDisks,
                           const std::string& path, CQzVMData* data, const Names& primaryDisks,
                           const Names& primaryDMs) {
  std::string createdDG;
  return buildOnSplitDisks(objid, newDG, splitDisks, path, data, primaryDisks, primaryDMs,
                           createdDG);
}

int CQzVMEngine::buildOnSplitDisks(qzfi_objid** objid, const std::string& newDG,
                                   const Names& splitDisks, const std::string& path,
                                   CQzVMData* data, const Names& primaryDisks,
                                   const Names& primaryDMs, std::string& createdDG) {
  QZ_ENGINE_ENTER("buildQzVM");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::buildQzVM - no private data.");
    return 6;
  }
  if (!pairOneToOne(m_traceLog, "buildQzVM", primaryDisks, splitDisks, primaryDMs)) {
    return kRefused;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  SourceRecords source{primaryDisks, splitDisks, primaryDMs, newDG, true};
  const int status = buildGroup(source, data, kBuildTexts, createdDG);
  if (status != 0) {
    return status == kRefused ? kRefused : 6;
  }
  if (activeVolAndCreateObjid(source.newDG, volume, data, objid, m_support.isVolumeRaw(path)) !=
      0) {
    QZ_TRACE(m_traceLog, 1, "activeVolAndCreateObjid() failed");
    return 6;
  }
  return 0;
}

// Earlier steps are not undone when a later one fails: every entry first
// looks for what an earlier call left behind.
int CQzVMEngine::buildGroup(SourceRecords& source, CQzVMData* data, const RebuildTexts& texts,
                            std::string& createdDG) {
  Names recordedDisks = source.primaryDisks;
  Names recordedDMs;
  std::vector<Names> listings;
  if (data->getVolPrivInfoFromPD(recordedDisks, recordedDMs, listings) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.records);
    return 6;
  }
  std::vector<vol_pvt_info> records(listings.size());
  for (size_t i = 0; i < listings.size(); ++i) {
    m_support.parseVolPrivInfo(listings[i], records[i]);
  }
  CFiMyTempFile files;
  const std::string sourceFile = files.getTmpFile();
  std::string sourceDG;
  Names config;
  if (data->getDGConfigFromPD(sourceDG, config) != 0 ||
      CQzVMSupport::putVectorInFile(config, sourceFile) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.config);
    return 6;
  }
  const std::string replayFile = files.getTmpFile();
  const Names& dms = source.dms.empty() ? recordedDMs : source.dms;
  std::string& newDG = source.newDG;
  if (m_support.defineDisksInQzVM(source.splitDisks, records) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.nopriv);
    return 6;
  }
  std::vector<Names> splitListings;
  if (m_support.isDisksInQzVMDB(source.splitDisks, false, splitListings) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.unseen);
    return 6;
  }
  if (source.splitCopies &&
      !splitDisksPairWithPrimaries(source.primaryDisks, source.splitDisks, splitListings, data)) {
    return kRefused;
  }
  if (m_support.initDisks(source.splitDisks, records, true) != 0) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.init);
    pushError("MSG_ERROR_UNABLE_TO_INITIALIZE_SPLITTED_DISK_WITH_PRIMARY_DISK_QZVM_PRIVDATA", {},
              kSource, __LINE__);
    return 6;
  }
  // The new group keeps the primary disk-media names.
  if (m_support.reconfig(sourceFile, sourceDG, newDG, source.primaryDisks, source.splitDisks, dms,
                         dms, replayFile) != 0) {
    QZ_TRACE(m_traceLog, 1, texts.reconfig, sourceFile.c_str(), replayFile.c_str());
    return 6;
  }
  bool made = false;
  if (createGroup(newDG, source.splitDisks, dms, m_support.isCDSDisk(records), source.splitCopies,
                  made) != 0) {
    if (made) {
      createdDG = newDG;
    }
    QZ_TRACE(m_traceLog, 1, texts.create, newDG.c_str());
    pushError("MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP", {}, kSource, __LINE__);
    return 6;
  }
  createdDG = newDG;
  if (m_support.applyVolConfig(newDG, replayFile) != 0) {
    QZ_TRACE(m_traceLog, 1, texts.apply, newDG.c_str(), replayFile.c_str());
    pushError("MSG_ERROR_UNABLE_TO_APPLY_CONFIGURATION_TO_DISKGROUP", {}, kSource, __LINE__);
    return 6;
  }
  return 0;
}

int CQzVMEngine::recreateDG(const std::string& path, const Names& osDisks, CQzVMData* data) {
  QZ_ENGINE_ENTER("recreateDG");
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMEngine::recreateDG - no private data.");
    return 6;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  if (m_support.qzvmScanDisks(osDisks) != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in scanning disks");
    return 6;
  }
  QZ_TRACE(m_traceLog, 6, "CQzVMEngine::recreateDG - Getting primary DMP information for [%s]",
           joinNames(osDisks).c_str());
  Names dmpDisks(osDisks.size());
  for (size_t i = 0; i < osDisks.size(); ++i) {
    data->getDiskDMPMap(osDisks[i], dmpDisks[i]);
  }
  QZ_TRACE(m_traceLog, 6, "CQzVMEngine::recreateDG - Got primary DMP information as [%s]",
           joinNames(dmpDisks).c_str());
  bool found = false;
  bool halfMade = false;
  if (m_support.checkForVolPathFromQzVMDiskIfRecreated(dmpDisks, dg, volume, found,
                                                       !data->vtList().empty(), &halfMade) != 0) {
    QZ_TRACE(m_traceLog, 1, "checkForVolPathFromQzVMDiskIfRecreated() failed");
    return 6;
  }
  // A re-creation stopped (its process killed) after it made the group and
  // before the volume was in it leaves the group imported on the disks,
  // where none can be made again: it goes, and is made anew.
  if (halfMade) {
    QZ_TRACE(m_traceLog, 2,
             "CQzVMEngine::recreateDG - the disks hold the dg '%s' without the volume, left by a "
             "re-creation that stopped; deporting it to make it again.",
             dg.c_str());
    if (m_support.deportDG(dg)) {
      return 6;
    }
  }
  if (found) {
    if (activeVol(dg, volume, data) != 0) {
      QZ_TRACE(m_traceLog, 1, "Failed to activate volume");
      return 6;
    }
    return 0;
  }
  // Same name, same disk-media names, same disks: only the group is new.
  SourceRecords same{dmpDisks, dmpDisks, Names(), dg, false};
  std::string createdDG;
  if (buildGroup(same, data, kRecreateTexts, createdDG) != 0) {
    return 6;
  }
  if (activeVol(dg, volume, data) != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in activating volume");
    return 6;
  }
  return 0;
}

// ===== the split disks paired with the primaries =====

namespace {

// The base a new name was made from: the name without its "_<number>".
std::string baseOfNewName(const std::string& name) {
  const size_t underscore = name.rfind('_');
  if (underscore == std::string::npos || underscore == 0 ||
      name.find_first_not_of("0123456789", underscore + 1) != std::string::npos) {
    return name;
  }
  return name.substr(0, underscore);
}

// A private region that an earlier attempt of this build wrote: an id that
// is no primary's, and no group or a group that the attempt made under a
// new name of the recorded group (left deported when the attempt failed).
bool leftByEarlierAttempt(const vol_pvt_info& onDisk, const std::string& carried,
                          const Names& recordedIds, const std::string& sourceDG) {
  if (carried.empty() || !isUniqueInVector(recordedIds, carried)) {
    return false;
  }
  return onDisk.vpi_dgid.empty() ||
         (onDisk.vpi_dgname != sourceDG && baseOfNewName(onDisk.vpi_dgname) == sourceDG);
}

}  // namespace

// The split disks are copies of the primaries, private regions included:
// before the first change to any of them, each must carry the disk id
// recorded for the primary it pairs with. A split disk that an earlier
// attempt of this build initialised already holds nothing of another disk,
// and passes.
bool CQzVMEngine::splitDisksPairWithPrimaries(const Names& primaryDisks, const Names& splitDisks,
                                              const std::vector<Names>& splitListings,
                                              CQzVMData* data) {
  std::string sourceDG;
  Names config;
  data->getDGConfigFromPD(sourceDG, config);
  Names recordedIds;
  for (const std::string& primary : primaryDisks) {
    Names recorded;
    data->getVolPrivInfoPerDiskFromFiid(primary, recorded);
    recordedIds.push_back(CQzVMSupport::diskIdOf(recorded));
  }
  for (size_t i = 0; i < splitDisks.size() && i < splitListings.size(); ++i) {
    const std::string carried = CQzVMSupport::diskIdOf(splitListings[i]);
    if (!carried.empty() && carried == recordedIds[i]) {
      continue;
    }
    vol_pvt_info onDisk;
    m_support.parseVolPrivInfo(splitListings[i], onDisk);
    if (!leftByEarlierAttempt(onDisk, carried, recordedIds, sourceDG)) {
      refusePair(m_traceLog, "buildQzVM", primaryDisks[i], splitDisks[i],
                 "the split disk carries the disk id [" + carried +
                     "], the primary disk's recorded id is [" + recordedIds[i] + "]");
      return false;
    }
  }
  return true;
}

// An intact group is imported by its id, whatever the order of its disks:
// each split disk must carry that group.
bool CQzVMEngine::splitDisksCarryGroup(const Names& primaryDisks, const Names& splitDisks,
                                       const std::vector<Names>& splitListings,
                                       const std::string& dgid) {
  for (size_t i = 0; i < splitDisks.size() && i < splitListings.size(); ++i) {
    vol_pvt_info onDisk;
    m_support.parseVolPrivInfo(splitListings[i], onDisk);
    if (onDisk.vpi_dgid != dgid) {
      refusePair(m_traceLog, "importQzVM", i < primaryDisks.size() ? primaryDisks[i] : "",
                 splitDisks[i],
                 "the split disk carries the group id [" + onDisk.vpi_dgid +
                     "], the recorded group id is [" + dgid + "]");
      return false;
    }
  }
  return true;
}

// ===== new group names chosen at the same time by two backups =====

namespace {

// How often a new name is chosen again before the build gives up.
const int kNameChoices = 8;

}  // namespace

// A name checked free when it was chosen may have been taken since by
// another backup on this host: when a group of that name now stands and
// the split disks do not carry it, a new name is chosen. False when the
// failure was another one, or no free name comes.
bool CQzVMEngine::chooseAgain(std::string& dg, const Names& splitDisks, bool* ours) {
  std::string carriedId;
  std::string carried;
  if (++m_nameChoices > kNameChoices || splitDisks.empty() || !m_support.isDGPresent(dg) ||
      m_support.dgIdNameOnDisk(splitDisks.front(), carriedId, carried) != 0) {
    return false;
  }
  if (carried == dg) {
    if (ours != nullptr) {
      *ours = true;
    }
    return false;
  }
  std::string chosen;
  m_support.getNewDGName(baseOfNewName(dg), chosen);
  if (chosen.empty() || chosen == dg) {
    return false;
  }
  QZ_TRACE(m_traceLog, 2,
           "CQzVMEngine - the new group name '%s' was taken meanwhile; '%s' is chosen.", dg.c_str(),
           chosen.c_str());
  dg = chosen;
  return true;
}

int CQzVMEngine::createGroup(std::string& dg, const Names& disks, const Names& dms, bool cds,
                             bool mayRename, bool& made) {
  m_nameChoices = 0;
  while (m_support.createDG(dg, disks, dms, cds) != 0) {
    if (!mayRename || !chooseAgain(dg, disks, &made)) {
      return 1;
    }
  }
  return 0;
}
