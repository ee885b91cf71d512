// Evidence read from the volume manager before a change: the split disks
// paired with the primaries they copy, and a group proven to be the copy
// that the record's flow made before it is adopted, deported, destroyed or
// made again.
#include "engine.h"

#include <ctype.h>
#include <stdio.h>

#include <algorithm>

#include "engine/internal.h"
#include "support/internal.h"

using qzvm_support_internal::recordKind;

using namespace qzvm_engine_internal;
using qzvmfi_report::pushError;

namespace qzvm_engine_internal {

const char kSource[] = "engine";

std::string joinNames(const Names& names) {
  std::string joined;
  for (const std::string& name : names) {
    joined += (joined.empty() ? "" : " ") + name;
  }
  return joined;
}

std::string baseOfNewName(const std::string& name) {
  const size_t underscore = name.rfind('_');
  if (underscore == std::string::npos || underscore == 0 ||
      name.find_first_not_of("0123456789", underscore + 1) != std::string::npos) {
    return name;
  }
  return name.substr(0, underscore);
}

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

void refusePair(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
                const std::string& primary, const std::string& split, const std::string& why) {
  QZ_TRACE(log, 1,
           "CQzVMEngine::%s - the split disk [%s] does not pair with the primary disk [%s]: %s.",
           operation, split.c_str(), primary.c_str(), why.c_str());
  pushError("MSG_ERROR_SPLIT_DISKS_DO_NOT_PAIR_WITH_PRIMARY_DISKS",
            {operation, split, primary, why}, kSource, __LINE__);
}

}  // namespace qzvm_engine_internal

// ===== the split disks paired with the primaries =====

namespace {

// A name that an import without a deported object's name makes up for the
// copy: "tpu_fi", six letters or digits, "_" and a number.
bool isGeneratedName(const std::string& name) {
  const std::string base = baseOfNewName(name);
  return base != name && base.size() == 12 && base.compare(0, 6, "tpu_fi") == 0 &&
         std::all_of(base.begin() + 6, base.end(), [](char c) { return isalnum(c) != 0; });
}

// A private region that an earlier attempt of this build wrote: an id that
// is no primary's, and no group or a group that the attempt made under a
// new name of the recorded group, or a made-up one (left deported when the
// attempt failed).
bool leftByEarlierAttempt(const vol_pvt_info& onDisk, const std::string& carried,
                          const Names& recordedIds, const std::string& sourceDG) {
  if (carried.empty() || !isUniqueInVector(recordedIds, carried)) {
    return false;
  }
  return onDisk.vpi_dgid.empty() ||
         (onDisk.vpi_dgname != sourceDG &&
          (baseOfNewName(onDisk.vpi_dgname) == sourceDG || isGeneratedName(onDisk.vpi_dgname)));
}

// Whether the update sequence number a ("major.minor", each a count) comes
// after b; false when either is not one.
bool isLaterUpdate(const std::string& a, const std::string& b) {
  unsigned long long aMajor = 0, aMinor = 0, bMajor = 0, bMinor = 0;
  char aEnd = 0;
  char bEnd = 0;
  if (sscanf(a.c_str(), "%llu.%llu%c", &aMajor, &aMinor, &aEnd) != 2 ||
      sscanf(b.c_str(), "%llu.%llu%c", &bMajor, &bMinor, &bEnd) != 2) {
    return false;
  }
  return aMajor != bMajor ? aMajor > bMajor : aMinor > bMinor;
}

}  // namespace

// The split disks are copies of the primaries, private regions included:
// before the first change to any of them, each must carry the disk id
// recorded for the primary it pairs with, on a LUN of its own (a disk that
// shows the primary's own unique disk id is the primary, not a copy). A
// split disk that an earlier attempt of this build initialised already
// holds nothing of another disk, and passes. The copies of one split show
// one configuration update (the sequence number the volume manager writes
// with each change of the group's configuration), no later than the
// record's: disks of two splits taken across a change do not.
bool CQzVMEngine::splitDisksPairWithPrimaries(const Names& primaryDisks, const Names& splitDisks,
                                              const std::vector<Names>& splitListings,
                                              CQzVMData* data) {
  std::string sourceDG;
  Names config;
  data->getDGConfigFromPD(sourceDG, config);
  std::vector<Names> recorded(primaryDisks.size());
  Names recordedIds;
  for (size_t i = 0; i < primaryDisks.size(); ++i) {
    data->getVolPrivInfoPerDiskFromFiid(primaryDisks[i], recorded[i]);
    recordedIds.push_back(CQzVMSupport::diskIdOf(recorded[i]));
  }
  std::string splitUpdate;  // of the first copy that the split left untouched
  size_t firstCopy = 0;
  for (size_t i = 0; i < splitDisks.size() && i < splitListings.size(); ++i) {
    const std::string carried = CQzVMSupport::diskIdOf(splitListings[i]);
    if (!carried.empty() && carried == recordedIds[i]) {
      const std::string udid = CQzVMSupport::udidOf(splitListings[i]);
      const std::string update = CQzVMSupport::seqnoOf(splitListings[i]);
      std::string why;
      if (!udid.empty() && udid == CQzVMSupport::udidOf(recorded[i])) {
        why = "the split disk is the primary disk itself (it shows the primary's unique disk id [" +
              udid + "]), not a copy of it";
      } else if (splitUpdate.empty()) {
        splitUpdate = update;
        firstCopy = i;
      } else if (update != splitUpdate) {
        why = "the split disk shows the configuration update [" + update + "], the split disk " +
              splitDisks[firstCopy] + " shows [" + splitUpdate +
              "]: they come from two splits; give the disks of one split";
      }
      const std::string recordedUpdate = CQzVMSupport::seqnoOf(recorded[i]);
      if (why.empty() && !update.empty() && !recordedUpdate.empty() &&
          isLaterUpdate(update, recordedUpdate)) {
        why = "the split disk shows the configuration update [" + update +
              "], later than the record's [" + recordedUpdate +
              "]: it was split after this backup was recorded";
      }
      if (why.empty()) {
        continue;
      }
      refusePair(m_traceLog, "buildQzVM", primaryDisks[i], splitDisks[i], why);
      return false;
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

// ===== the copy proven before it is changed =====

namespace {

// The source's group as the record names it: the group of its configuration
// dump, else pathDG, the group of the source's path.
std::string recordedSourceDG(CQzVMData* data, const std::string& pathDG) {
  std::string dg;
  Names config;
  if (data != nullptr && data->getDGConfigFromPD(dg, config) == 0 && !dg.empty()) {
    return dg;
  }
  return pathDG;
}

// The volumes and volume sets of the recorded configuration dump.
Names recordedVolumes(const CQzVMData& data) {
  Names names;
  for (const std::string& line : data.dgConfigLines()) {
    const std::string_view kind = recordKind(line);
    if (kind == "vol" || kind == "vset") {
      names.push_back(getToken(line, 1));
    }
  }
  return names;
}

bool sameSet(Names a, Names b) {
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  return a == b;
}

}  // namespace

bool CQzVMEngine::readGroup(const std::string& dg, GroupSeen& seen) {
  return m_support.getDisksAndDMsOfDG(dg, seen.disks, seen.dms) == 0 &&
         m_support.getVolumeNamesOfDG(dg, seen.volumes) == 0;
}

int CQzVMEngine::unreadable(const char* operation, const std::string& group,
                            const std::string& what) {
  QZ_TRACE(m_traceLog, 1,
           "CQzVMEngine::%s - %s of the disk group '%s': nothing is changed without them.",
           operation, what.c_str(), group.c_str());
  return 6;
}

int CQzVMEngine::refused(const char* operation, const std::string& group, const std::string& why) {
  notTheCopy(operation, group, why);
  return kRefused;
}

bool CQzVMEngine::notTheCopy(const char* operation, const std::string& group,
                             const std::string& why) {
  QZ_TRACE(m_traceLog, 1,
           "CQzVMEngine::%s - the disk group '%s' is not the copy that this backup made: %s. "
           "Nothing was changed.",
           operation, group.c_str(), why.c_str());
  pushError("MSG_ERROR_NOT_THE_COPY", {operation, group, why}, kSource, __LINE__);
  return false;
}

// What the record names of a group: its disks (the disk-media name of
// disks[i] is dms[i], when the record gives them) and its volumes. Empty
// when the group seen holds nothing else; with whole, it must hold every
// one of those disks too (a group that a stopped build or re-creation left
// may lack the disks it had not added yet).
std::string CQzVMEngine::differenceFromRecord(const GroupSeen& seen, const Names& disks,
                                              const Names& dms, const Names& volumes, bool whole) {
  if (whole && !sameSet(seen.disks, disks)) {
    return "it holds the disks [" + joinNames(seen.disks) + "], the record's are [" +
           joinNames(disks) + "]";
  }
  for (size_t i = 0; i < seen.disks.size(); ++i) {
    const auto at = std::find(disks.begin(), disks.end(), seen.disks[i]);
    if (at == disks.end()) {
      return "it holds the disk " + seen.disks[i] + ", which is not one of the record's [" +
             joinNames(disks) + "]";
    }
    const size_t place = at - disks.begin();
    if (place < dms.size() && seen.dms[i] != dms[place]) {
      return "its disk " + seen.disks[i] + " has the disk-media name " + seen.dms[i] +
             ", the record gives " + dms[place];
    }
  }
  for (const std::string& volume : seen.volumes) {
    if (!volumes.empty() && isUniqueInVector(volumes, volume)) {
      return "it holds the volume " + volume + ", which the record does not name";
    }
  }
  return std::string();
}

// A group found on the split disks holding the volume (or a group that a
// stopped build left without it) is this record's copy only when it is not
// the source's, stands on exactly the split disks with the recorded
// disk-media names and holds no volume that the record does not name, and
// each split disk's private region shows it: the recorded group id for an
// intact copy, or a region that a build of this record wrote.
int CQzVMEngine::provenCopyOnSplitDisks(const char* operation, const std::string& foundDG,
                                        const std::string& pathDG, const SplitDisks& disks,
                                        const Names& primaryDisks, CQzVMData* data, bool intact,
                                        const std::vector<Names>* listings) {
  const std::string sourceDG = recordedSourceDG(data, pathDG);
  if (foundDG == sourceDG) {
    return refused(operation, foundDG,
                   "it is the source's own group: the disks given [" + joinNames(disks.dmpNodes) +
                       "] are the source's, not split copies");
  }
  GroupSeen seen;
  if (!readGroup(foundDG, seen)) {
    return unreadable(operation, foundDG, "its disks and volumes could not be listed");
  }
  Names recordedDisks = primaryDisks;
  Names recordedDMs;
  std::vector<Names> recorded;
  data->getVolPrivInfoFromPD(recordedDisks, recordedDMs, recorded);
  const std::string differs =
      differenceFromRecord(seen, disks.dmpNodes, recordedDMs, recordedVolumes(*data), false);
  if (!differs.empty()) {
    return refused(operation, foundDG, differs);
  }
  std::vector<Names> read;
  if (listings == nullptr) {
    if (m_support.isDisksInQzVMDB(disks.dmpNodes, true, read) != 0) {
      return unreadable(operation, foundDG, "the private regions of its disks could not be read");
    }
    listings = &read;
  }
  Names recordedIds;
  for (const Names& listing : recorded) {
    recordedIds.push_back(CQzVMSupport::diskIdOf(listing));
  }
  for (size_t i = 0; i < listings->size(); ++i) {
    vol_pvt_info onDisk;
    m_support.parseVolPrivInfo((*listings)[i], onDisk);
    // A disk that a stopped build initialised but had not added yet carries
    // no group.
    const bool ours = intact
                          ? onDisk.vpi_dgid == data->getDGId()
                          : (onDisk.vpi_dgid.empty() || onDisk.vpi_dgname == foundDG) &&
                                leftByEarlierAttempt(onDisk, CQzVMSupport::diskIdOf((*listings)[i]),
                                                     recordedIds, sourceDG);
    if (!ours) {
      return refused(operation, foundDG,
                     "the split disk " + disks.dmpNodes[i] + " carries the group [" +
                         onDisk.vpi_dgname + "] id [" + onDisk.vpi_dgid + "] and the disk id [" +
                         CQzVMSupport::diskIdOf((*listings)[i]) + "], which no " +
                         (intact ? "import" : "build") + " of this record made");
    }
  }
  return kCopyProven;
}

// A group of the recorded name on the restored disks, made by a
// re-creation of this record (whole, or stopped before its volumes).
int CQzVMEngine::provenRecreation(const std::string& dg, const Names& disks, CQzVMData* data) {
  GroupSeen seen;
  if (!readGroup(dg, seen)) {
    return unreadable("recreateDG", dg, "its disks and volumes could not be listed");
  }
  Names recordedDisks = disks;
  Names recordedDMs;
  std::vector<Names> listings;
  data->getVolPrivInfoFromPD(recordedDisks, recordedDMs, listings);
  const std::string differs =
      differenceFromRecord(seen, disks, recordedDMs, recordedVolumes(*data), false);
  return differs.empty() ? kCopyProven : refused("recreateDG", dg, differs);
}

// Before the restored disks are initialised again: each carries no group,
// the recorded group, or a copy of it (restored from a split copy). A
// region of any other group is another's, and stays.
bool CQzVMEngine::restoredDisksCarryRecord(const std::string& dg, const Names& disks,
                                           const std::vector<Names>& listings) {
  for (size_t i = 0; i < disks.size() && i < listings.size(); ++i) {
    vol_pvt_info onDisk;
    m_support.parseVolPrivInfo(listings[i], onDisk);
    if (onDisk.vpi_dgid.empty() || onDisk.vpi_dgname == dg ||
        baseOfNewName(onDisk.vpi_dgname) == dg) {
      continue;
    }
    return notTheCopy("recreateDG", onDisk.vpi_dgname,
                      "the restored disk " + disks[i] + " carries it, not the group " + dg +
                          " that the record re-creates");
  }
  return true;
}

int CQzVMEngine::proveRecordedCopy(const char* operation, const std::string& copyPath,
                                   const std::string& sourcePath, CQzVMData* source,
                                   CQzVMData* copy, bool readHost) {
  if (isSourceGroup(copyPath, sourcePath, source)) {
    std::string dg;
    std::string volume;
    m_support.extractDGAndVol(copyPath, dg, volume);
    notTheCopy(operation, dg, "it is the source's own group (" + sourcePath + ")");
    return kRefused;
  }
  if (!readHost) {
    return kCopyProven;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(copyPath, dg, volume);
  if (!m_support.isDGPresent(dg)) {
    return kCopyAbsent;
  }
  GroupSeen seen;
  if (!readGroup(dg, seen)) {
    return unreadable(operation, dg, "its disks and volumes could not be listed");
  }
  const Names recordedDisks =
      copy != nullptr && copy->hasRecordedDisks() ? copy->recordedNodes() : seen.disks;
  const std::string differs = differenceFromRecord(
      seen, recordedDisks, Names(), source != nullptr ? recordedVolumes(*source) : Names(), true);
  if (!differs.empty()) {
    notTheCopy(operation, dg, differs);
    return kRefused;
  }
  std::string dgid;
  if (source == nullptr || source->getDGId().empty()) {
    return kCopyProven;
  }
  if (m_support.getDGID(copyPath, dgid) != 0) {
    return unreadable(operation, dg, "its group id could not be read");
  }
  if (dgid != source->getDGId()) {
    notTheCopy(operation, dg,
               "its group id is [" + dgid + "], the import recorded [" + source->getDGId() + "]");
    return kRefused;
  }
  return kCopyProven;
}

bool CQzVMEngine::isSourceGroup(const std::string& copyPath, const std::string& sourcePath,
                                CQzVMData* source) {
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(copyPath, dg, volume);
  std::string sourceDG;
  m_support.extractDGAndVol(sourcePath, sourceDG, volume);
  return dg.empty() || dg == recordedSourceDG(source, sourceDG);
}
