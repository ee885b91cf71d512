// Evidence read from the volume manager before a change: the split disks
// paired with the primaries they copy.
#include "engine.h"

#include "engine/internal.h"

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
