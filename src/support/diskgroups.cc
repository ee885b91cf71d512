// Disk-group operations: free names, create, import, deport, destroy and
// list the groups and their disks.
#include "support/qzvm_support.h"

#include <unistd.h>

#include <map>
#include <random>

#include "report.h"
#include "support/internal.h"

using qzfi_pdk_4_4::CFiStringTool;
using qzvm_support_internal::contains;
using qzvm_support_internal::lineHolding;
using qzvmfi_report::joinLines;

// Only the volume manager's "not found" (status 11) says that the group is
// not imported here. A listing that failed otherwise says nothing of it:
// taking the group for gone would skip its deport or destroy and then take
// its disks away under it (their device nodes deleted under an imported
// group), so it counts as present and the step that follows fails in the
// open.
bool CQzVMSupport::isDGPresent(const std::string& dg) {
  const int kNotFound = 11;
  std::vector<std::string> output;
  return run(tool("qzdg  ", " list ", dg), output) != kNotFound;
}

bool CQzVMSupport::isDGEnabled(const std::string& dg) {
  std::vector<std::string> output;
  if (run(tool("qzdg  ", " list "), output) != 0) {
    trace(5, "CQzVMSupport::isDGEnabled - CLI failed with output \n[---\n'%s'\n---].",
          joinLines(output).c_str());
    return false;
  }
  int header = lineHolding(output, "NAME");
  if (header < 0) {
    return false;
  }
  for (size_t i = header + 1; i < output.size(); ++i) {
    if (getToken(output[i], 0) != dg) {
      continue;
    }
    trace(3, "CQzVMSupport::isDGEnabled - Found dg online '%s'.", dg.c_str());
    std::string state = getToken(output[i], 1);
    trace(3, "CQzVMSupport::isDGEnabled - Found state [%s] for diskgroup '%s'.", state.c_str(),
          dg.c_str());
    if (contains(state, "enabled")) {
      trace(3, "CQzVMSupport::isDGEnabled - diskgroup '%s' is in enabled state.", dg.c_str());
      return true;
    }
    trace(3, "CQzVMSupport::isDGEnabled - diskgroup '%s' is in disabled state.", dg.c_str());
    return false;
  }
  return false;
}

int CQzVMSupport::getAllDGNames(std::vector<std::string>& names) {
  std::vector<std::string> output;
  int status = run(tool("qzdg  ", " list "), output);
  if (status != 0) {
    return status;
  }
  int header = lineHolding(output, "NAME");
  if (header < 0) {
    return 0;
  }
  for (size_t i = header + 1; i < output.size(); ++i) {
    names.push_back(getToken(output[i], 0));
  }
  return 0;
}

void CQzVMSupport::getNewDGName(const std::string& base, std::string& name) {
  std::vector<std::string> groups;
  getAllDGNames(groups);
  long pid = getpid();
  for (long i = 0; i < 1024; ++i) {
    std::string candidate = base + "_" + qzfi_pdk_4_4::CFiStringTool::int2str(pid + i);
    MAKE_NAME_RFIT(candidate);
    if (isUniqueInVector(groups, candidate)) {
      // No group holds the name now: what the cache says under it is of a
      // group that is gone (in a long-lived process the same name comes
      // back for the next copy).
      m_dgInfo.erase(candidate);
      name = candidate;
      trace(3, "CQzVMSupport::getNewDGName - created new unique dg name '%s'.", name.c_str());
      return;
    }
  }
  trace(1, "CQzVMSupport::getNewDGName - unable to create new unique dg name.");
}

namespace {

// "tpu_fi" and six letters or digits drawn from the kernel's random source,
// as a temporary file's name would have.
std::string randomGroupBase() {
  static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::random_device source;
  std::uniform_int_distribution<size_t> pick(0, sizeof kChars - 2);
  std::string base = "tpu_fi";
  for (int i = 0; i < 6; ++i) {
    base += kChars[pick(source)];
  }
  return base;
}

}  // namespace

int CQzVMSupport::getNewDGName(std::string& name) {
  getNewDGName(randomGroupBase(), name);
  trace(3, "CQzVMSupport::getNewDGName - created new dg name '%s'.", name.c_str());
  return 0;
}

bool CQzVMSupport::isDGExist(const std::string& dg) {
  std::string candidate;
  getNewDGName(dg, candidate);
  if (candidate == dg) {
    trace(3, "CQzVMSupport::isDGExist - dg '%s' doesnot exist.", dg.c_str());
    return false;
  }
  trace(3, "CQzVMSupport::isDGExist - dg '%s' exists.", dg.c_str());
  return true;
}

int CQzVMSupport::runOnce(const std::vector<CQzVMCommandLine>& commands) {
  for (const CQzVMCommandLine& command : commands) {
    std::vector<std::string> output;
    int status = run(command, output);
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

int CQzVMSupport::createDG(const std::string& dg, const std::vector<std::string>& disks, bool cds) {
  return createDG(dg, disks, std::vector<std::string>(), cds);
}

// Without media names the disks keep the names the volume manager gives them.
int CQzVMSupport::createDG(const std::string& dg, const std::vector<std::string>& disks,
                           const std::vector<std::string>& dms, bool cds) {
  if (!dms.empty() && dms.size() != disks.size()) {
    trace(1, "CQzVMSupport::createDG - %zu disk-media names for %zu disks.", dms.size(),
          disks.size());
    return 1;
  }
  std::vector<CQzVMCommandLine> commands;
  for (size_t i = 0; i < disks.size(); ++i) {
    CQzVMCommandLine command =
        i == 0 ? tool("qzdg  ", " init ", dg, " ") : tool("qzdg  ", " -g ", dg, " adddisk ");
    if (!dms.empty()) {
      command.add(i == 0 ? "" : " ", dms[i], "=");
    }
    command.add(disks[i]);
    if (i == 0 && isCDSSupported()) {
      command.add("  cds=", cds ? "on" : "off");
    }
    commands.push_back(command);
  }
  return runOnce(commands);
}

bool CQzVMSupport::importDG(const std::string& newName, const std::string& dg) {
  CQzVMCommandLine command = tool("qzdg  ", " -C ");
  if (!newName.empty()) {
    command.add(" -n ", newName);
  }
  std::vector<std::string> output;
  if (run(command.add(" import ", dg), output) != 0) {
    trace(2, "CQzVMSupport::importDG - unable to import '%s' as '%s'.", dg.c_str(),
          newName.c_str());
    return true;
  }
  return false;
}

bool CQzVMSupport::deportDG(const std::string& dg, bool /*flag*/) {
  if (!isDGPresent(dg)) {
    trace(3, "dg '%s' is already deported.", dg.c_str());
    return false;
  }
  return runDeport(dg);
}

bool CQzVMSupport::runDeport(const std::string& dg) {
  std::vector<std::string> output;
  return run(tool("qzdg  ", " deport ", dg), output) != 0;
}

int CQzVMSupport::destroyDG(const std::string& dg, bool checkFirst) {
  if (checkFirst && !isDGPresent(dg)) {
    trace(3, "dg '%s' is already destroyed.", dg.c_str());
    return 0;
  }
  trace(3, "CQzVMSupport::destroyDG - destroying dgname='%s'. This may or not may succeed",
        dg.c_str());
  std::vector<std::string> output;
  return run(tool("qzdg  ", " destroy ", dg), output);
}

bool CQzVMSupport::flushDGConfig(const std::string& dg) {
  std::vector<std::string> output;
  return run(tool("qzdg  ", " flush ", dg), output) != 0;
}

bool CQzVMSupport::onlineDG(const std::string& dg, bool start) {
  std::vector<std::string> output;
  return run(tool("qzvol  ", " -g ", dg, (start ? " startall " : " stopall ")), output) != 0;
}

int CQzVMSupport::enableDG(const std::string& dg) {
  if (deportDG(dg, false)) {
    return 6;
  }
  qzvmScanDisks(false);
  if (importDG("", dg) || !isDGEnabled(dg)) {
    return 6;
  }
  return 0;
}

bool CQzVMSupport::diskClearImport(const std::vector<std::string>& disks) {
  CQzVMCommandLine command = tool("qzdisk  ", " clearimport ");
  for (const std::string& disk : disks) {
    command.add(" ", disk);
  }
  std::vector<std::string> output;
  return run(command, output) != 0;
}

int CQzVMSupport::getDGID(const std::string& volumePath, std::string& dgid) {
  std::string dg;
  std::string volume;
  extractDGAndVol(volumePath, dg, volume);
  std::vector<std::string> output;
  int status = run(tool("qzdisk  ", " -s ", " -g ", dg, " list "), output);
  if (status != 0) {
    return status;
  }
  return getMetaValForkey(output, "dgid:", dgid);
}

int CQzVMSupport::getDGSize(const std::string& dg, unsigned long long& size) {
  std::vector<std::string> output;
  int status = run(tool("qzassist ", " -g ", dg, " ", " -p ", " maxsize "), output);
  if (status != 0) {
    return status;
  }
  if (output.empty()) {
    return 1;
  }
  size = qzfi_pdk_4_4::CFiStringTool::str2uint64(output[0]);
  return 0;
}

int CQzVMSupport::getDisksForDG(const char* dg, std::vector<std::string>& disks) {
  SDGInfo& info = cacheEntry(m_dgInfo, dg);
  info.name = dg;
  if (fromCache(info.disks, disks, "getDisksForDG")) {
    return 0;
  }
  trace(3, "CQzVMSupport::getDisksForDG - getting disks under this object. dg=%s", dg);
  std::vector<std::string> output;
  int status = run(tool("qzdisk  ", " -g ", std::string(dg), " ", " list "), output);
  if (status != 0) {
    return status;
  }
  if (output.empty()) {
    trace(2, "no output of command.");
    return 1;
  }
  int header = lineHolding(output, "DEVICE");
  if (header < 0) {
    trace(2, "no valid output of command.");
    return 1;
  }
  for (size_t i = header + 1; i < output.size(); ++i) {
    disks.push_back(getToken(output[i], 0));
  }
  info.disks = disks;
  return 0;
}

// Rows of "qzdisk list": device, type, disk-media name, group, status; the
// group of a deported group's disk is in brackets, a disk of no group has
// "-".
int CQzVMSupport::getGroupOfListedDisks(std::map<std::string, std::string>& groupOf) {
  std::vector<std::string> output;
  const int status = run(tool("qzdisk  ", " list "), output);
  if (status != 0) {
    return status;
  }
  const int header = lineHolding(output, "DEVICE");
  for (size_t i = header < 0 ? output.size() : header + 1; i < output.size(); ++i) {
    groupOf[getToken(output[i], 0)] = getToken(output[i], 3);
  }
  return 0;
}

int CQzVMSupport::getDisksOfDeportedDG(const std::string& dg, std::vector<std::string>& disks) {
  std::map<std::string, std::string> groupOf;
  const int status = getGroupOfListedDisks(groupOf);
  for (const auto& [disk, group] : groupOf) {
    if (group == "(" + dg + ")") {
      disks.push_back(disk);
    }
  }
  return status;
}

// Rows of "qzdisk -g DG list": device, type, disk-media name, group, status.
int CQzVMSupport::getDisksAndDMsOfDG(const std::string& dg, std::vector<std::string>& disks,
                                     std::vector<std::string>& dms) {
  std::vector<std::string> output;
  if (run(tool("qzdisk  ", " -g ", dg, " list "), output) != 0) {
    return 1;
  }
  const int header = lineHolding(output, "DEVICE");
  for (size_t i = header + 1; header >= 0 && i < output.size(); ++i) {
    disks.push_back(getToken(output[i], 0));
    dms.push_back(getToken(output[i], 2));
  }
  return 0;
}

int CQzVMSupport::getDMsFromDG(const std::string& dg, const std::vector<std::string>& disks,
                               std::vector<std::string>& dms) {
  std::vector<std::string> members;
  std::vector<std::string> memberDMs;
  if (getDisksAndDMsOfDG(dg, members, memberDMs) != 0) {
    trace(2, "error in getting DM names from dg.");
    return 1;
  }
  std::map<std::string, std::string> dmOfDevice;
  for (size_t i = 0; i < members.size(); ++i) {
    dmOfDevice[members[i]] = memberDMs[i];
  }
  for (const std::string& disk : disks) {
    auto found = dmOfDevice.find(disk);
    if (found == dmOfDevice.end() || found->second.empty()) {
      trace(2, "error in getting DM name from dg.");
      return 1;
    }
    dms.push_back(found->second);
  }
  return 0;
}

// Rows of "qzprint -g DG": kind, name, ...; volumes are "v", volume sets "vt".
// A group that is not enabled is listed as it is, never enabled for it.
int CQzVMSupport::getVolumeNamesOfDG(const std::string& dg, std::vector<std::string>& names) {
  std::vector<std::string> output;
  if (run(tool("qzprint  ", " -g ", dg), output) != 0) {
    return 1;
  }
  const int header = lineHolding(output, "TY");
  for (size_t i = header + 1; header >= 0 && i < output.size(); ++i) {
    const std::string kind = getToken(output[i], 0);
    if (kind == "v" || kind == "vt") {
      names.push_back(getToken(output[i], 1));
    }
  }
  return 0;
}

int CQzVMSupport::deportDGAndRemoveDisks(const std::string& object, bool removeDisks,
                                         bool disableDmp) {
  std::string dg;
  std::string volume;
  extractDGAndVol(object, dg, volume);
  if (!isDGPresent(dg)) {
    trace(3, "dg '%s' is already deported.", dg.c_str());
    // A deport that stopped before its disks left the view leaves them
    // listed under the deported group: they go now.
    std::vector<std::string> left;
    if (removeDisks && getDisksOfDeportedDG(dg, left) == 0 && !left.empty()) {
      removeDisksFromQzVM(left, disableDmp);
    }
    return 0;
  }
  std::vector<std::string> disks;
  if (getDisksForDG(dg.c_str(), disks) != 0) {
    trace(1,
          "CQzVMPlugin::deportDGAndRemoveDisks -  unable to get disk access (dmp) from object. "
          "object=%s",
          object.c_str());
    return 6;
  }
  // The group was found present just above: it is deported without asking
  // again.
  if (runDeport(dg)) {
    trace(1, "CQzVMPlugin::deportDGAndRemoveDisks deport of disk group failed.  object=%s",
          object.c_str());
    return 6;
  }
  if (removeDisks && removeDisksFromQzVM(disks, disableDmp) != 0) {
    trace(2, "removal of disk from qzvm view failed. But it is not serious error.");
  }
  return 0;
}
