// What the engine's files share: its trace source, how an operation
// announces itself, and the helpers of the import and rebuild.
#ifndef QZVMFI_ENGINE_INTERNAL_H
#define QZVMFI_ENGINE_INTERNAL_H

#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "engine.h"
#include "report.h"

namespace qzvm_engine_internal {

using Names = std::vector<std::string>;

// The file name that the engine's traces and messages give.
extern const char kSource[];

// The status of a build or import refused before any disk was changed.
const int kRefused = 3;

std::string joinNames(const Names& names);

// The base a new name was made from: the name without its "_<number>".
std::string baseOfNewName(const std::string& name);

// The rewrite of the configuration pairs each primary disk with the split
// disk at the same place, and gives the new group the disk-media names at
// that place: lists that cannot pair are refused before anything is done.
bool pairOneToOne(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
                  const Names& primaryDisks, const Names& splitDisks, const Names& dms);

// Refuses the pair of split disk and primary disk for why.
void refusePair(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
                const std::string& primary, const std::string& split, const std::string& why);

}  // namespace qzvm_engine_internal

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

// What a new group on split disks is made of: the primary disks' recorded
// private regions and configuration, replayed onto the split disks.
struct CQzVMEngine::SourceRecords {
  qzvm_engine_internal::Names primaryDisks;
  qzvm_engine_internal::Names splitDisks;
  qzvm_engine_internal::Names dms;  // disk-media names, kept by the new group; empty: as recorded
  std::string newDG;
  bool splitCopies;  // the split disks are copies of the primaries, not the primaries
};

// The engine's operations announce themselves with one line, without the
// closing line of a framework scope.
#define QZ_ENGINE_ENTER(name)                                              \
  QZ_TRACE(m_traceLog, 6, "Entering Function %s [%d, %s]", name, __LINE__, \
           qzvm_engine_internal::kSource)

#endif  // QZVMFI_ENGINE_INTERNAL_H
