// A new group built on the split disks from the recorded private regions and
// configuration, under a new name.
#include "engine.h"

#include "engine/internal.h"

using namespace qzvm_engine_internal;
using qzvmfi_report::pushError;

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
  // A group left without volumes cannot be looked into: it goes too, once
  // proven this record's.
  const int leftover =
      found ? kNothingLeft : deportUnfinishedGroup(foundDG, dg, disks, primaryDisks, data);
  if (leftover == kRefused) {
    return kRefused;
  }
  // A group that could not be read, or not deported, is still on the split
  // disks: the build does not go on over it.
  if (leftover != 0 && leftover != kNothingLeft) {
    return 6;
  }
  if (checked != 0 && leftover != 0) {
    QZ_TRACE(m_traceLog, 1, "checkForVolFromQzVMDiskIfRecreatedAndGetDG failed");
    return 6;
  }
  if (found) {
    if (int proof =
            provenCopyOnSplitDisks("buildAltTree", foundDG, dg, disks, primaryDisks, data, false)) {
      return proof;
    }
    if (startExisting(foundDG, volume, data, objid, raw, "activeVolAndCreateObjid failed") != 0) {
      cleanUp("", disks);
      return 6;
    }
  } else {
    BuildLeft left;
    if (int status = buildOnSplitDisks(objid, newDG, disks.dmpNodes, path, data, primaryDisks,
                                       primaryDMs, left)) {
      QZ_TRACE(m_traceLog, 1, "buildQzVM failed");
      // Refused, or failed before the split disks were shown to be the
      // copies: nothing was changed, and disks that may be another's stay in
      // view, for the right list.
      if (status == kRefused || !left.disksShown) {
        return status == kRefused ? kRefused : 6;
      }
      // Only a group this build made goes: the name may be another's.
      cleanUp(left.createdDG, disks);
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

// A build stopped after it made the new group and before the volume was in
// it (its process killed) leaves that group imported on the split disks,
// which no later build can initialise. Such a group goes only when the
// evidence shows it is this record's copy; the source's group is never one.
int CQzVMEngine::deportUnfinishedGroup(const std::string& foundDG, const std::string& sourceDG,
                                       const SplitDisks& disks, const Names& primaryDisks,
                                       CQzVMData* data) {
  if (foundDG.empty() || foundDG == sourceDG || !m_support.isDGPresent(foundDG)) {
    return kNothingLeft;
  }
  if (int proof = provenCopyOnSplitDisks("buildAltTree", foundDG, sourceDG, disks, primaryDisks,
                                         data, false)) {
    return proof;
  }
  QZ_TRACE(m_traceLog, 2,
           "CQzVMEngine::buildAltTree - the split disks hold the group '%s' without the volume, "
           "left by a build that stopped; deporting it to build again.",
           foundDG.c_str());
  return m_support.deportDG(foundDG) ? 6 : 0;
}

int CQzVMEngine::buildQzVM(qzfi_objid** objid, const std::string& newDG, const Names& splitDisks,
                           const std::string& path, CQzVMData* data, const Names& primaryDisks,
                           const Names& primaryDMs) {
  BuildLeft left;
  return buildOnSplitDisks(objid, newDG, splitDisks, path, data, primaryDisks, primaryDMs, left);
}

int CQzVMEngine::buildOnSplitDisks(qzfi_objid** objid, const std::string& newDG,
                                   const Names& splitDisks, const std::string& path,
                                   CQzVMData* data, const Names& primaryDisks,
                                   const Names& primaryDMs, BuildLeft& left) {
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
  const int status = buildGroup(source, data, kBuildTexts, left);
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
                            BuildLeft& left) {
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
  if (source.splitCopies ? !splitDisksPairWithPrimaries(source.primaryDisks, source.splitDisks,
                                                        splitListings, data)
                         : !restoredDisksCarryRecord(newDG, source.splitDisks, splitListings)) {
    return kRefused;
  }
  left.disksShown = true;
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
      left.createdDG = newDG;
    }
    QZ_TRACE(m_traceLog, 1, texts.create, newDG.c_str());
    pushError("MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP", {}, kSource, __LINE__);
    return 6;
  }
  left.createdDG = newDG;
  if (m_support.applyVolConfig(newDG, replayFile) != 0) {
    QZ_TRACE(m_traceLog, 1, texts.apply, newDG.c_str(), replayFile.c_str());
    pushError("MSG_ERROR_UNABLE_TO_APPLY_CONFIGURATION_TO_DISKGROUP", {}, kSource, __LINE__);
    return 6;
  }
  return 0;
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
