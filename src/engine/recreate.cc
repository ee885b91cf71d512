// A group taken away earlier made again on the same host, under its own
// name, from the same records.
#include "engine.h"

#include "engine/internal.h"

using namespace qzvm_engine_internal;
using qzvmfi_report::pushError;

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
  // A group of the recorded name that holds what the record does not (made
  // again by hand, say) is not one to start, nor to make anew.
  if (found || halfMade) {
    if (int proof = provenRecreation(dg, dmpDisks, data)) {
      return proof;
    }
  }
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
  BuildLeft left;
  if (int status = buildGroup(same, data, kRecreateTexts, left)) {
    return status == kRefused ? kRefused : 6;
  }
  if (activeVol(dg, volume, data) != 0) {
    QZ_TRACE(m_traceLog, 1, "Error in activating volume");
    return 6;
  }
  return 0;
}
