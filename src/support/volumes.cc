// Volume and volume-set operations: start, stop, create and list volumes and
// volume sets, and check a started copy against its disks.
#include "support/qzvm_support.h"

#include <algorithm>
#include <string_view>

#include "osutil.h"
#include "report.h"
#include "support/internal.h"

using qzvm_support_internal::contains;
using qzvm_support_internal::isReplayedRecord;
using qzvm_support_internal::lineHolding;
using qzvm_support_internal::trimmed;
using qzvmfi_report::joinLines;

int CQzVMSupport::onlineVolume(const std::string& dg, const std::string& volume,
                               const std::string& useType) {
  CQzVMCommandLine command = tool("qzvol  ", " -g ", dg);
  if (!useType.empty()) {
    command.add(" -U ", useType);
  }
  std::vector<std::string> output;
  if (run(command.add(" start ", volume), output) != 0) {
    trace(2, " Unable to online dg '%s' and volume '%s'", dg.c_str(), volume.c_str());
    return 1;
  }
  return 0;
}

int CQzVMSupport::onOffVolume(const std::string& dg, const std::string& volume,
                              const std::string& operation) {
  std::vector<std::string> output;
  // The operation is the caller's own keyword, with its blanks.
  return run(tool("qzvol  ", " -g ", dg, operation.c_str(), volume), output) == 0 ? 0 : 1;
}

int CQzVMSupport::createVolume(const std::string& volume, const std::string& dg,
                               unsigned long long size) {
  std::vector<std::string> output;
  const CQzVMCommandLine command =
      tool("qzassist ", " -g ", dg, " ", " make ", " ", volume, " ", size);
  return run(command, output) == 0 ? 0 : 1;
}

int CQzVMSupport::offlineVolume(const std::string& dg, const std::string& volume,
                                void* /*unused*/) {
  const int busy = 31;
  const int busyRetries = 8;
  const CQzVMCommandLine command = tool("qzvol  ", " -g ", dg, " stop ", volume);
  std::vector<std::string> output;
  int status = run(command, output);
  if (status == 0) {
    return 0;
  }
  if (status == busy) {
    trace(2, "Retrying as the volume %s is busy.", volume.c_str());
    for (int attempt = 1; attempt <= busyRetries; ++attempt) {
      trace(2, "Offline retry [%d/%d]", attempt, busyRetries);
      qzvmSleep(1);
      if (run(command, output) == 0) {
        return 0;
      }
    }
    return 1;
  }
  std::string text = joinLines(output);
  if (!contains(text, "Configuration daemon error 441") && !contains(text, "Q-5-1-10128")) {
    return 1;
  }
  trace(2, "qzvol stop failed for [%s], trying dg flush", volume.c_str());
  flushDGConfig(dg);
  return run(command, output) == 0 ? 0 : 1;
}

bool CQzVMSupport::isVolStarted(const std::string& dg, const std::string& volume) {
  trace(3, "CQzVMSupport::isVolStarted - checking whether volume is started. dg=%s volume=%s",
        dg.c_str(), volume.c_str());
  std::vector<std::string> output;
  if (run(tool("qzinfo  ", " -g ", dg, " ", volume), output) != 0) {
    trace(2, "command failed. dg=%s volume=%s", dg.c_str(), volume.c_str());
    return false;
  }
  if (output.empty()) {
    trace(2, "command successful but no output. dg=%s volume=%s", dg.c_str(), volume.c_str());
    return false;
  }
  if (getToken(output[0], 2) != "Started") {
    return false;
  }
  trace(3, "CQzVMSupport::isVolStarted - volume is already started. dg=%s volume=%s", dg.c_str(),
        volume.c_str());
  return true;
}

bool CQzVMSupport::isVolume(const std::string& path) {
  std::string dg;
  std::string volume;
  extractDGAndVol(path, dg, volume);
  trace(3, "CQzVMSupport::isVolume - Checking for volume = %s", volume.c_str());
  std::vector<std::string> output;
  if (run(tool("qzinfo  ", " -g ", dg, " ", volume), output) == 0 && !output.empty() &&
      output[0].compare(0, volume.size(), volume) == 0) {
    trace(3, "CQzVMSupport::isVolume - Volume Exist");
    return true;
  }
  trace(2, "Volume does NOT Exist. volume=%s", volume.c_str());
  return false;
}

// Runs a qzprint listing: 0 with the "TY" header on the first line, 3 with no
// header at all, 1 when the command failed and 2 when there are fewer than
// two lines or the header stands elsewhere.
int CQzVMSupport::printRecordsOf(const CQzVMCommandLine& command,
                                 std::vector<std::string>& output) {
  if (run(command, output) != 0) {
    return 1;
  }
  if (output.size() < 2) {
    return 2;
  }
  int header = lineHolding(output, "TY");
  if (header < 0) {
    return 3;
  }
  return header == 0 ? 0 : 2;
}

bool CQzVMSupport::isVSet(const std::string& path) {
  std::string dg;
  std::string vset;
  extractDGAndVol(path, dg, vset);
  trace(3, "CQzVMSupport::isVSet - Checking for vset =%s", vset.c_str());
  std::vector<std::string> output;
  int listing = printRecordsOf(tool("qzprint  ", " -g ", dg), output);
  if (listing == 1) {
    trace(2, "vset does NOT Exist");
    return false;
  }
  if (listing == 2) {
    return false;
  }
  for (size_t i = 1; i < output.size(); ++i) {
    if (getToken(output[i], 0) == "vt" && getToken(output[i], 1) == vset) {
      return true;
    }
  }
  trace(3, "CQzVMSupport::isVSet - vset does NOT Exist");
  return false;
}

int CQzVMSupport::isVsetOn(const std::string& dg, const std::string& vset, bool& on) {
  on = false;
  trace(3, "Checking whether vset '%s' is on.", vset.c_str());
  const CQzVMCommandLine command = tool("qzprint  ", " -g ", dg, " ", vset);
  std::vector<std::string> output;
  bool failed = run(command, output) != 0;
  if (!failed && output.size() < 2) {
    trace(3, " Not valid format of command '%s'.", command.text().c_str());
    return 6;
  }
  if (!failed && lineHolding(output, "TY") >= 0) {
    for (size_t i = 1; i < output.size(); ++i) {
      if (getToken(output[i], 0) == "vt" && getToken(output[i], 1) == vset) {
        on = getToken(output[i], 3) == "ENABLED";
        trace(3, "found vset '%s' as '%s'.", vset.c_str(), on ? "ENABLED" : "DISABLED");
        return 0;
      }
    }
  }
  trace(2, "Unable to check state of vset '%s'.", vset.c_str());
  return 6;
}

int CQzVMSupport::getVolumesFromDG(const std::string& dg, std::vector<std::string>& names,
                                   bool vsets) {
  if (!isDGEnabled(dg) && enableDG(dg) != 0) {
    trace(2, "failed to enable diskgroup %s", dg.c_str());
    return 1;
  }
  std::vector<std::string> output;
  int listing =
      printRecordsOf(tool("qzprint  ", " -g ", dg, " ", (vsets ? " -x " : " -v ")), output);
  if (listing == 1) {
    trace(2, "unable to get volume/vset from dg '%s'", dg.c_str());
    return 1;
  }
  if (listing == 2) {
    trace(2, output.size() < 2 ? "no output of command." : "invalid output of command.");
    return 1;
  }
  for (size_t i = 1; listing == 0 && i < output.size(); ++i) {
    names.push_back(getToken(output[i], 1));
  }
  return 0;
}

int CQzVMSupport::checkVolumeInDG(const std::string& dg, const std::string& name, bool& found,
                                  bool vsets) {
  std::vector<std::string> names;
  if (getVolumesFromDG(dg, names, vsets) != 0) {
    return 6;
  }
  found = std::find(names.begin(), names.end(), name) != names.end();
  trace(3, "Check for volume/vset '%s' in dg '%s' is %s.", name.c_str(), dg.c_str(),
        found ? "successful" : "failed.");
  return 0;
}

int CQzVMSupport::getQzVMObjects(std::vector<std::string>& vsets, std::vector<std::string>& volumes,
                                 std::vector<std::string>& dcoVolumes, const std::string& dg,
                                 const std::string& volume, std::vector<std::string>* printed) {
  trace(3, "Getting qzvm vset, vol, dco for dg [%s] and volume [%s]", dg.c_str(), volume.c_str());
  CQzVMCommandLine command = tool("qzprint  ", " -g ", dg);
  if (!volume.empty()) {
    command.add("  ", volume);
  }
  std::vector<std::string> output;
  int listing = printRecordsOf(command, output);
  if (printed != nullptr) {
    *printed = output;
  }
  if (listing == 1) {
    trace(2, "unable to get qzvm objects: '%s'", joinLines(output).c_str());
  }
  if (listing == 1 || listing == 2) {
    return 1;
  }
  for (size_t i = 1; listing == 0 && i < output.size(); ++i) {
    std::string type(trimmed(getToken(output[i], 0)));
    std::string name(trimmed(getToken(output[i], 1)));
    std::string usage(trimmed(getToken(output[i], 2)));
    if (type == "v") {
      (usage == "gen" ? dcoVolumes : volumes).push_back(name);
    } else if (type == "vt") {
      vsets.push_back(name);
    }
  }
  return 0;
}

int CQzVMSupport::getDisksForVolume(const std::string& path, std::vector<std::string>& disks) {
  std::string dg;
  std::string volume;
  extractDGAndVol(path, dg, volume);
  if (dg.empty() || volume.empty()) {
    trace(1, "Unable to get diskgroup/volume information from: [%s]", path.c_str());
    return 6;
  }
  // The whole group's disks: a copy must carry every disk of the group.
  if (getDisksForDG(dg.c_str(), disks) != 0) {
    trace(2, "Unable to get disk access (dmp) from object. object=%s", path.c_str());
    return 6;
  }
  return 0;
}

void CQzVMSupport::extractDGAndVol(const std::string& path, std::string& dg, std::string& volume) {
  trace(6, "CQzVMSupport::extractDGAndVol DBG - DG Volume path string [%s]", path.c_str());
  // Empty pieces are dropped, but a path that ends in "/" names no volume.
  const std::string_view text = trimmed(path);
  std::vector<std::string> pieces;
  qzfi_pdk_4_4::CFiStringTool::tokenize(std::string(text), "/", pieces);
  if (pieces.size() != 5 || text.back() == '/') {
    trace(1, "CQzVMSupport::extractDGAndVol ERROR - invalid volume path [%s]", path.c_str());
    dg.clear();
    volume.clear();
    return;
  }
  dg = pieces[3];
  volume = pieces[4];
  trace(6, "CQzVMSupport::extractDGAndVol DBG - Extracted DG = [%s] Volume = [%s]", dg.c_str(),
        volume.c_str());
}

bool CQzVMSupport::isVolOrPlexOrSubdiskOrDCO(const std::string& line) {
  return isReplayedRecord(line);
}

int CQzVMSupport::stopDCOVols(const std::string& dg, const std::vector<std::string>& volumes) {
  for (const std::string& volume : volumes) {
    if (isVolStarted(dg, volume) && offlineVolume(dg, volume, nullptr) != 0) {
      trace(1, "CQzVMSupport::stopDCOVols - offline of volume failed.");
      return 6;
    }
  }
  return 0;
}

int CQzVMSupport::startDCOVols(const std::string& dg, const std::vector<std::string>& volumes,
                               const std::string& useType) {
  for (const std::string& volume : volumes) {
    if (!isVolStarted(dg, volume) && onlineVolume(dg, volume, useType) != 0) {
      trace(2, "failed to start volume.");
      return 6;
    }
  }
  return 0;
}

int CQzVMSupport::verifySubObjects(const std::string& dg, const std::string& volume,
                                   const std::vector<std::string>& osDisks, bool /*unused*/,
                                   bool& same) {
  std::string object = std::string("/dev/qz/dsk") + "/" + dg + "/" + volume;
  std::vector<std::string> dmpNames;
  if (getDisksForVolume(object, dmpNames) != 0) {
    trace(1,
          "CQzVMPlugin::verifySubObjects -  unable to get disk access (dmp) from object. object=%s",
          object.c_str());
    return 6;
  }
  std::vector<std::string> osNames;
  if (getOSDiskHandleForQzVMDisk(dmpNames, osNames, false, false) != 0) {
    trace(1,
          "CQzVMPlugin::verifySubObjects -   unable to convert dmp disk to os namespace. "
          "object=%s",
          object.c_str());
    return 6;
  }
  same = osDisks == osNames;
  trace(3, "CQzVMPlugin::verifySubObjects - successful.");
  return 0;
}

int CQzVMSupport::ssodOnlineVolume(const std::string& dg, const std::string& volume,
                                   const std::vector<std::string>& osDisks) {
  std::vector<std::string> dmpNames;
  if (getQzVMDiskForOSDiskHandler_Waited(osDisks, dmpNames) != 0) {
    trace(1, "CQzVMSupport::ssodOnlineVolume - unable to get dmp disk name for os disks.");
    return 6;
  }
  if (!isVolStarted(dg, volume)) {
    if (!isDGPresent(dg) && importDG(dg, dg)) {
      return 6;
    }
    if (startDCOVols(dg, {volume}, "") != 0) {
      trace(1, "CQzVMSupport::ssodOnlineVolume - unable to start volumes under dg '%s'.",
            dg.c_str());
      return 6;
    }
  }
  bool same = false;
  if (verifySubObjects(dg, volume, osDisks, false, same) != 0) {
    trace(1,
          "CQzVMSupport::ssodOnlineVolume -  verification of subobjects(  disks ) under volume "
          "'%s' and  dg '%s' failed.",
          volume.c_str(), dg.c_str());
    return 6;
  }
  if (!same) {
    trace(1,
          "CQzVMSupport::ssodOnlineVolume -  there is mismatch in disks under volume or dg. "
          "verification of subobjects(  disks ) under volume '%s' and  dg '%s' failed.",
          volume.c_str(), dg.c_str());
    return 3;
  }
  return 0;
}

int CQzVMSupport::createNewVolumeOnOSDisks(const std::string& dg, const std::string& volume,
                                           const std::vector<std::string>& osDisks) {
  std::vector<std::string> dmpNames;
  if (getQzVMDiskForOSDiskHandler_Waited(osDisks, dmpNames) != 0) {
    trace(1, "CQzVMSupport::createNewVolumeOnOSDisks - unable to get dmp disk name for os disks.");
    return 6;
  }
  removeDisksFromQzVM(dmpNames, false);
  std::vector<std::string> wholeDisks = osDisks;
  removePartitionSuffix(wholeDisks);
  createSUNLabel(wholeDisks);
  qzDiskSetup(dmpNames);
  if (createDG(dg, dmpNames, false) != 0) {
    trace(1, "CQzVMSupport::createNewVolumeOnOSDisks - creation of dg failed.");
    return 6;
  }
  unsigned long long size = 0;
  if (getDGSize(dg, size) != 0) {
    trace(1,
          "CQzVMSupport::createNewVolumeOnOSDisks - failed to get available dg space for dg '%s'.",
          dg.c_str());
    return 6;
  }
  if (createVolume(volume, dg, size) != 0) {
    trace(1, "CQzVMSupport::createNewVolumeOnOSDisks - creation of volume '%s' for dg '%s' failed.",
          volume.c_str(), dg.c_str());
    return 6;
  }
  return 0;
}

int CQzVMSupport::removeSnapshot(const std::string& path, bool destroy) {
  std::string dg;
  std::string volume;
  extractDGAndVol(path, dg, volume);
  if (destroy && !isDGPresent(dg)) {
    trace(3, " snapshot dg '%s' is already removed.", dg.c_str());
    return 0;
  }
  std::vector<std::string> dmpNames;
  std::vector<std::string> osNames;
  if (getDisksForDG(dg.c_str(), dmpNames) != 0 ||
      getOSDiskHandleForQzVMDisk(dmpNames, osNames, true, true) != 0 ||
      destroyDG(dg, destroy) != 0) {
    return 6;
  }
  if (removeDisksFromQzVM(dmpNames, false) != 0) {
    trace(2, "removal of disk from qzvm view failed. But it is not serious error.");
  }
  removeDevicesFromOSDeviceTree(osNames);
  return 0;
}

int CQzVMSupport::removeDisksLeftByDestroy(const std::vector<std::string>& recorded,
                                           std::string& inGroup, std::string& group) {
  std::map<std::string, std::string> groupOf;
  if (recorded.empty() || getGroupOfListedDisks(groupOf) != 0) {
    return 0;
  }
  for (const std::string& node : recorded) {
    const auto listed = groupOf.find(node);
    if (listed != groupOf.end() && listed->second != "-") {
      inGroup = node;
      group = listed->second;
      return 1;
    }
  }
  std::vector<std::string> inView;
  std::vector<std::string> osNames;
  for (const std::string& node : recorded) {
    if (groupOf.count(node) != 0) {
      inView.push_back(node);
    }
    // Multipathing knows the node's paths until they are deleted; a node
    // whose paths went has none left to delete.
    getOSDiskHandleForQzVMDisk({node}, osNames, true, true);
  }
  if (!inView.empty()) {
    trace(2, "%d disks of a destroyed snapshot dg are still in qzvm view: removing them.",
          static_cast<int>(inView.size()));
    removeDisksFromQzVM(inView, false);
  }
  removeDevicesFromOSDeviceTree(osNames);
  return 0;
}
