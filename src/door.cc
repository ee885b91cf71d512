#include "door.h"

#include <set>
#include <string_view>

#include "clitool.h"
#include "osutil.h"
#include "report.h"
#include "support/internal.h"
#include "support/qzvm_support.h"

using qzvm_support_internal::recordKind;
using qzvm_support_internal::trimmed;
using Names = std::vector<std::string>;

namespace qzvmfi_door {

namespace {

const char kSource[] = "door";

SRefusal nameRefusal(const std::string& where, std::string_view value, const char* fault) {
  if (fault == nullptr) {
    return SRefusal();
  }
  return SRefusal{where, std::string(value), fault, true};
}

std::string stateField(const char* record, const std::string& field) {
  return std::string("the provider state (record ") + record + ", field " + field + ")";
}

// Keeps the first refusal: true once there is one.
bool found(SRefusal& first, SRefusal next) {
  if (!first && next) {
    first = std::move(next);
  }
  return static_cast<bool>(first);
}

// The group and volume of a QzVM volume path, /dev/qz/dsk/DG/VOL or
// /dev/qz/rdsk/DG/VOL; false for any other path.
bool volumePathParts(const std::string& path, std::string& group, std::string& volume) {
  for (const std::string_view prefix : {"/dev/qz/dsk/", "/dev/qz/rdsk/"}) {
    if (path.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    const std::string rest = path.substr(prefix.size());
    const size_t slash = rest.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == rest.size() ||
        rest.find('/', slash + 1) != std::string::npos) {
      return false;
    }
    group = rest.substr(0, slash);
    volume = rest.substr(slash + 1);
    return true;
  }
  return false;
}

SRefusal checkNames(const char* record, const char* field, const Names& names) {
  SRefusal refusal;
  for (const std::string& name : names) {
    if (found(refusal, nameRefusal(stateField(record, field), name, qzvmNameFault(name)))) {
      break;
    }
  }
  return refusal;
}

// The reader of a listing stops the process at a value that begins with a
// comma, which the tools never print.
bool holdsValueBeginningWithComma(const std::string& line) {
  for (size_t equals = line.find('='); equals != std::string::npos;
       equals = line.find('=', equals + 1)) {
    const size_t value = line.find_first_not_of(" \t", equals + 1);
    if (value != std::string::npos && line[value] == ',') {
      return true;
    }
  }
  return false;
}

// The recorded "qzdisk list" lines of a disk: the fields that later go into
// the commands that initialise a split disk.
SRefusal checkListing(const std::string& disk, const Names& lines, CQzVMSupport& support) {
  const std::string where = "private region of " + disk;
  for (const std::string& line : lines) {
    if (holdsValueBeginningWithComma(line)) {
      return SRefusal{stateField("fiid_volpriv", where), line, "a value begins with a comma",
                      false};
    }
  }
  vol_pvt_info record;
  support.parseVolPrivInfo(lines, record);
  const std::pair<const char*, const std::string*> fields[] = {
      {"Device", &record.vpi_da},
      {"disk name", &record.vpi_dm},
      {"group name", &record.vpi_dgname},
      {"group id", &record.vpi_dgid},
      {"type", &record.vpi_da_type},
      {"format", &record.vpi_format},
      {"public slice", &record.vpi_pub_slice},
      {"public offset", &record.vpi_pub_offset},
      {"public length", &record.vpi_pub_len},
      {"private slice", &record.vpi_priv_slice},
      {"private offset", &record.vpi_priv_offset},
      {"private length", &record.vpi_priv_len},
      {"configuration length", &record.vpi_configlen},
      {"configuration copies", &record.vpi_nconfig},
      {"log length", &record.vpi_loglen},
      {"log copies", &record.vpi_nlogs},
  };
  SRefusal refusal;
  for (const auto& [label, value] : fields) {
    if (!value->empty() &&
        found(refusal, nameRefusal(stateField("fiid_volpriv", where + ", " + label), *value,
                                   qzvmNameFault(*value)))) {
      break;
    }
  }
  return refusal;
}

// The attributes of a configuration dump whose values are names.
bool isNameKey(std::string_view key) {
  static const std::string_view kKeys[] = {"dgid",       "diskid",  "da_name",  "dm_name", "plex",
                                           "parent_vol", "log_vol", "use_type", "vol"};
  for (std::string_view name : kKeys) {
    if (key == name) {
      return true;
    }
  }
  return false;
}

SRefusal checkAttribute(std::string_view line, const std::string& record) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    return SRefusal();
  }
  const std::string_view key = trimmed(line.substr(0, equals));
  const std::string_view value = trimmed(line.substr(equals + 1));
  const std::string where = stateField("fiid_dgconfig", std::string(key) + " of " + record);
  if (key == "path") {
    return nameRefusal(where, value, qzvmPathFault(value));
  }
  if (key == "vols") {
    for (size_t start = 0; start <= value.size();) {
      const size_t comma = std::min(value.find(',', start), value.size());
      const std::string_view name = value.substr(start, comma - start);
      if (const char* fault = qzvmNameFault(name)) {
        return nameRefusal(where, name, fault);
      }
      start = comma + 1;
    }
    return SRefusal();
  }
  return isNameKey(key) ? nameRefusal(where, value, qzvmNameFault(value)) : SRefusal();
}

// Record lines ("kind name") and the attribute lines under them.
SRefusal checkDump(const Names& lines) {
  std::string record = "the dump";
  SRefusal refusal;
  for (const std::string& text : lines) {
    const std::string_view line = text;
    if (trimmed(line).empty()) {
      continue;
    }
    if (line[0] == '\t' || line[0] == ' ') {
      if (found(refusal, checkAttribute(line, record))) {
        break;
      }
      continue;
    }
    const std::string_view kind = recordKind(line);
    const std::string_view name = trimmed(line.substr(kind.size()));
    record = std::string(kind) + " " + std::string(name);
    if (found(refusal,
              nameRefusal(stateField("fiid_dgconfig", "name of a " + std::string(kind) + " record"),
                          name, qzvmNameFault(name)))) {
      break;
    }
  }
  return refusal;
}

SRefusal checkDiskRecords(const CQzVMData& data, CQzVMSupport& support) {
  SRefusal refusal;
  for (const auto& [disk, dmp] : data.diskDMPPairs()) {
    if (found(refusal,
              nameRefusal(stateField("fiid_volpriv", "OS disk"), disk, qzvmNameFault(disk))) ||
        found(refusal, nameRefusal(stateField("fiid_volpriv", "multipath node of " + disk), dmp,
                                   qzvmNameFault(dmp)))) {
      return refusal;
    }
  }
  for (const auto& [disk, second] : data.secondNames()) {
    if (!second.empty() &&
        found(refusal, nameRefusal(stateField("fiid_volpriv", "disk-media name of " + disk), second,
                                   qzvmNameFault(second)))) {
      return refusal;
    }
  }
  for (const auto& [disk, lines] : data.privateRegions()) {
    if (found(refusal, checkListing(disk, lines, support))) {
      break;
    }
  }
  return refusal;
}

}  // namespace

SRefusal checkObjectPath(const char* where, const char* path) {
  if (path == nullptr) {
    return SRefusal();
  }
  return nameRefusal(where, path, qzvmObjectPathFault(path));
}

SRefusal checkDiskList(const char* where, const Names& disks) {
  if (disks.size() > kMaxGroupDisks) {
    return SRefusal{where, std::to_string(disks.size()) + " disks",
                    "a group holds at most " + std::to_string(kMaxGroupDisks) +
                        " disks: the command that clears the import locks of every disk "
                        "(qzdisk clearimport) must fit the " +
                        std::to_string(kMaxArgumentBytes) + " bytes of one argument",
                    false};
  }
  std::set<std::string> seen;
  for (std::string disk : disks) {
    CFiQzVMUtil::removeDevPrefix(disk);
    if (const char* fault = qzvmNameFault(disk)) {
      return nameRefusal(where, disk, fault);
    }
    if (!seen.insert(disk).second) {
      return SRefusal{where, disk, "the disk is named twice", false};
    }
  }
  return SRefusal();
}

SRefusal checkSameLength(const char* where, const Names& primary, const Names& secondary) {
  if (primary.size() == secondary.size()) {
    return SRefusal();
  }
  return SRefusal{where,
                  std::to_string(primary.size()) + " primary and " +
                      std::to_string(secondary.size()) + " secondary disks",
                  "each primary disk pairs with the secondary disk at its place", false};
}

SRefusal checkProviderState(const CQzVMData& data, CQzVMSupport& support, bool brokeOff) {
  SRefusal refusal;
  const SBlobShapeFault& shape = data.blobShapeFault();
  if (!shape.empty()) {
    return SRefusal{stateField(shape.record.c_str(), shape.field), shape.value, shape.why, false};
  }
  const std::string& altVol = data.getAltVol();
  const std::string& dgid = data.getDGId();
  const std::string& dg = data.getDGName();
  found(refusal, checkNames("fiid_vt", "volume set", data.vtList())) ||
      found(refusal, checkNames("fiid_v", "volume", data.vList())) ||
      (!altVol.empty() && found(refusal, nameRefusal(stateField("fiid_altvol", "volume path"),
                                                     altVol, qzvmObjectPathFault(altVol)))) ||
      (!dgid.empty() && found(refusal, nameRefusal(stateField("fiid_dgid", "group id"), dgid,
                                                   qzvmNameFault(dgid)))) ||
      found(refusal, checkDiskRecords(data, support)) ||
      (!dg.empty() &&
       found(refusal, nameRefusal(stateField("fiid_dgconfig", "group"), dg, qzvmNameFault(dg)))) ||
      (!brokeOff && found(refusal, checkDump(data.dgConfigLines())));
  return refusal;
}

SRefusal checkStateObject(const CQzVMData& data, const std::string& objectPath) {
  std::string group;
  std::string volume;
  if (!volumePathParts(objectPath, group, volume)) {
    return SRefusal();
  }
  const std::string lies = "its node's object " + objectPath + " lies in the group " + group;
  const std::string& dg = data.getDGName();
  if (!dg.empty() && dg != group) {
    return SRefusal{stateField("fiid_dgconfig", "group"), dg,
                    "the state records the group " + dg + ", but " + lies, false};
  }
  std::set<std::string> named(data.vList().begin(), data.vList().end());
  named.insert(data.vtList().begin(), data.vtList().end());
  bool hasVolumes = false;
  for (const std::string& text : data.dgConfigLines()) {
    const std::string_view line = text;
    if (line.empty() || line[0] == '\t' || line[0] == ' ') {
      continue;
    }
    const std::string_view kind = recordKind(line);
    const std::string name(trimmed(line.substr(kind.size())));
    if (kind == "dg" && name != group) {
      return SRefusal{stateField("fiid_dgconfig", "name of a dg record"), name,
                      "the dump is of the group " + name + ", but " + lies, false};
    }
    hasVolumes = hasVolumes || kind == "vol";
    named.insert(name);
  }
  if (hasVolumes && named.count(volume) == 0) {
    return SRefusal{
        stateField("fiid_dgconfig", "volumes"), volume,
        "the state names no volume " + volume + ", the volume of its node's object " + objectPath,
        false};
  }
  return SRefusal();
}

int refuse(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const char* operation,
           const SRefusal& refusal) {
  QZ_TRACE(log, 1, "%s - refused '%s' in %s: %s; nothing was run.", operation,
           refusal.value.c_str(), refusal.where.c_str(), refusal.why.c_str());
  if (refusal.name) {
    qzvmfi_report::pushError("MSG_ERROR_INVALID_NAME",
                             {operation, refusal.value, refusal.why, refusal.where}, kSource,
                             __LINE__);
  } else {
    qzvmfi_report::pushError("MSG_ERROR_INPUT_REFUSED",
                             {operation, refusal.where, refusal.value, refusal.why}, kSource,
                             __LINE__);
  }
  return 3;
}

}  // namespace qzvmfi_door
