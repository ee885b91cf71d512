// The source's records, and the import of an intact split group by its id.
#include "engine.h"

#include "engine/internal.h"

using namespace qzvm_engine_internal;
using qzvmfi_report::pushError;

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

// ===== import of an intact split group =====

void CQzVMEngine::cleanUp(const std::string& importedDG, const SplitDisks& disks) {
  QZ_TRACE(m_traceLog, 2, "Cleaning the new dg created and dmp nodes.");
  if (!importedDG.empty()) {
    m_support.deportDG(importedDG);
  }
  m_support.removeDisksFromQzVM(disks.dmpNodes);
  m_support.removeDevicesFromOSDeviceTree(disks.osHandles);
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
    // A group of another backup, or the source itself, may hold a volume of
    // that name: only this record's copy is taken.
    if (int proof = provenCopyOnSplitDisks("importQzVM", foundDG, dg, disks, primaryDisks, data,
                                           true, &listings)) {
      return proof;
    }
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
