// Disk and multipath operations: rescans, DMP nodes and their OS paths,
// disk set-up, labels, removal, and whether a disk carries volume-manager
// data.
#include "support/qzvm_support.h"

#include "osutil.h"
#include "report.h"
#include "support/internal.h"

using qzvm_support_internal::contains;
using qzvm_support_internal::lineHolding;
using qzvmfi_report::joinLines;

int CQzVMSupport::qzvmScanDisks(bool newOnly) {
  CQzVMCommandLine command = tool("qzdisk  ");
  if (newOnly) {
    command.add(" -f ", " scandisks ", " new ");
  } else {
    command.add(" scandisks ");
  }
  std::vector<std::string> output;
  run(command, output);
  return 0;
}

// Every call scans the devices it is given, also those already in the map:
// a copy presented again under an old name must be seen afresh.
int CQzVMSupport::qzvmScanDisks(const std::vector<std::string>& devices) {
  trace(3, "Debug: qzvmscandisks -- initializing devices in map");
  CQzVMCommandLine command = tool("qzdisk  ", " scandisks ");
  for (size_t i = 0; i < devices.size(); ++i) {
    cacheEntry(m_scannedDevices, devices[i]) = devices[i];
    command.add(i == 0 ? " device=" : ",", devices[i]);
  }
  std::vector<std::string> output;
  int status = run(command, output);
  for (const std::string& device : devices) {
    cacheEntry(m_scannedDevices, device) = device;
  }
  return status;
}

// Runs a qzdmpadm listing: 0 with a header on line 0 and rows from line 2 on,
// 1 when the command failed (the caller traces it), 2 for unusable output
// (traced here).
int CQzVMSupport::dmpAdmRows(const CQzVMCommandLine& command, std::vector<std::string>& output) {
  if (run(command, output) != 0) {
    return 1;
  }
  if (output.size() < 2) {
    trace(2, "no output of command.");
    return 2;
  }
  if (lineHolding(output, "NAME") != 0) {
    trace(2, "no valid output of command.");
    return 2;
  }
  return 0;
}

int CQzVMSupport::getQzVMDiskForOSDiskHandler(const std::vector<std::string>& osDisks,
                                              std::vector<std::string>& dmpNodes) {
  dmpNodes.clear();
  if (!isQzDMPInstalled()) {
    trace(3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - no dmp support available");
    dmpNodes = osDisks;
    return 0;
  }
  for (const std::string& osDisk : osDisks) {
    trace(3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - getting dmp for os disk. os disk name=%s",
          osDisk.c_str());
    std::vector<std::string> output;
    int rows = dmpAdmRows(tool("qzdmpadm  ", " getdmpnode ", " nodename=", osDisk), output);
    if (rows == 1) {
      trace(2, "unable to get dmp node for disk '%s'", osDisk.c_str());
    }
    if (rows != 0) {
      return 1;
    }
    std::string node;
    std::string state;
    for (size_t i = 2; i < output.size() && node.empty(); ++i) {
      node = getToken(output[i], 0);
      state = getToken(output[i], 1);
    }
    if (!contains(state, "ENABLED")) {
      trace(2, "unable to get dmp node for disk '%s' as enabled", osDisk.c_str());
      return 1;
    }
    dmpNodes.push_back(node);
  }
  return 0;
}

int CQzVMSupport::getQzVMDiskForOSDiskHandler_Waited(const std::vector<std::string>& osDisks,
                                                     std::vector<std::string>& dmpNodes) {
  const int attempts = 4;
  int status = 0;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    dmpNodes.clear();
    status = getQzVMDiskForOSDiskHandler(osDisks, dmpNodes);
    if (status == 0) {
      return 0;
    }
    trace(6, "Obtaining dmp nodes failed. need to retry.");
    qzvmSleep(10);
    qzvmScanDisks(osDisks);
  }
  trace(2, "obtaining dmp nodes failed even after multiple retries.");
  return status;
}

// Resolves one node: 0 when at least one path was appended.
int CQzVMSupport::pathsOfNode(const std::string& node, std::vector<std::string>& osDisks,
                              bool allPaths) {
  trace(3, "CQzVMSupport::getOSDiskHandleForQzVMDisk - getting os device name for dmp  dmpname=%s",
        node.c_str());
  std::vector<std::string> output;
  int rows = dmpAdmRows(tool("qzdmpadm  ", " getsubpaths ", " dmpnodename=", node), output);
  if (rows == 1) {
    trace(2, "Unable to get os disk name for dmp node '%s'", node.c_str());
  }
  if (rows != 0) {
    return 1;
  }
  std::vector<std::string> taken;
  std::vector<std::string> enabled;
  std::vector<std::string> primary;
  for (size_t i = 2; i < output.size(); ++i) {
    std::string path = getToken(output[i], 0);
    std::string state = getToken(output[i], 1);
    if (contains(state, "ENABLED(A)")) {
      taken.push_back(path);
      if (!allPaths) {
        break;
      }
    } else if (contains(state, "ENABLED")) {
      enabled.push_back(path);
      if (contains(output[i], "PRIMARY")) {
        primary.push_back(path);
      }
    }
  }
  // A single path is the first active one, else the first enabled primary,
  // else the first enabled. allPaths appends the active, the primary and the
  // enabled paths one list after the other: an enabled primary path, which
  // is in both of the last two, comes twice.
  if (allPaths) {
    taken.insert(taken.end(), primary.begin(), primary.end());
    taken.insert(taken.end(), enabled.begin(), enabled.end());
  } else if (taken.empty() && !primary.empty()) {
    taken.push_back(primary.front());
  } else if (taken.empty() && !enabled.empty()) {
    taken.push_back(enabled.front());
  }
  if (taken.empty()) {
    trace(2, "Unable to get enabled disk path for dmp node '%s'", node.c_str());
    return 1;
  }
  // The cache keeps the preferred (first) path of the node.
  SDisksInfo& cached = cacheEntry(m_dmpPathInfo, node);
  cached.name = node;
  cached.osName = taken.front();
  osDisks.insert(osDisks.end(), taken.begin(), taken.end());
  return 0;
}

int CQzVMSupport::getOSDiskHandleForQzVMDisk(const std::vector<std::string>& dmpNodes,
                                             std::vector<std::string>& osDisks, bool allPaths,
                                             bool skipCache) {
  if (!isQzDMPInstalled()) {
    trace(3, "CQzVMSupport::getOSDiskHandleForQzVMDisk - no dmp support available");
    osDisks = dmpNodes;
    return 0;
  }
  for (const std::string& node : dmpNodes) {
    if (!skipCache) {
      auto cached = m_dmpPathInfo.find(node);
      if (cached != m_dmpPathInfo.end() && !cached->second.osName.empty()) {
        trace(3, "Debug : getOSDiskHandleForQzVMDisk returned value from map");
        osDisks.push_back(cached->second.osName);
        continue;
      }
    }
    if (pathsOfNode(node, osDisks, allPaths) != 0) {
      return 1;
    }
  }
  return 0;
}

int CQzVMSupport::enableOSDisk(const std::string& osDisk) {
  std::vector<std::string> output;
  int status = run(tool("qzdmpadm  ", " enable ", " path=", osDisk), output);
  if (status == 0) {
    trace(3, "Enable of os disk '%s' is successful.", osDisk.c_str());
  } else {
    trace(2, "Enable of os disk '%s' is failed.", osDisk.c_str());
  }
  return status;
}

int CQzVMSupport::disableOSDisk(const std::string& osDisk) {
  std::vector<std::string> output;
  int status = run(tool("qzdmpadm  ", " -f ", " disable ", " path=", osDisk), output);
  if (status == 0) {
    trace(3, "Disable of os disk '%s' is successful.", osDisk.c_str());
  } else {
    trace(2, "Disable of os disk '%s' is failed.", osDisk.c_str());
  }
  return status;
}

int CQzVMSupport::setDMPPaths(const std::string& node, bool enable) {
  std::vector<std::string> paths;
  if (getOSDiskHandleForQzVMDisk({node}, paths, true, false) != 0) {
    return 6;
  }
  for (const std::string& path : paths) {
    if (enable && enableOSDisk(path) != 0) {
      trace(2, " Error in disabling os disk '%s' for qzdmp '%s'.", path.c_str(), node.c_str());
    } else if (!enable && disableOSDisk(path) != 0) {
      trace(2, "Error in disabling os disk '%s' for qzdmp '%s'.", path.c_str(), node.c_str());
    }
  }
  return 0;
}

int CQzVMSupport::enableDMP(const std::string& node) {
  return setDMPPaths(node, true);
}

int CQzVMSupport::disableDMP(const std::string& node) {
  return setDMPPaths(node, false);
}

int CQzVMSupport::getDMPPathIfValid(const std::string& osDisk, std::string& dmpPath) {
  if (!isQzDMPInstalled()) {
    return 0;
  }
  std::vector<std::string> nodes;
  bool qzvmDisk = false;
  if (getQzVMDiskForOSDiskHandler({osDisk}, nodes) != 0 ||
      isQzVMDisk(osDisk, nodes.front(), qzvmDisk, false) != 0) {
    trace(2, "Failed to check existence of qzvm on disk '%s'.", osDisk.c_str());
    return 1;
  }
  if (qzvmDisk) {
    dmpPath = "/dev/qz/rdmp/" + nodes.front();
  }
  return 0;
}

int CQzVMSupport::qzDiskSetup(const std::vector<std::string>& disks) {
  for (const std::string& disk : disks) {
    std::vector<std::string> output;
    if (run(supportTool("qzdisksetup  ", " -i ", disk, "  format=simple"), output) != 0 &&
        run(supportTool("qzdisksetup  ", " -f ", " -i ", disk, "  format=simple"), output) != 0) {
      return 1;
    }
  }
  return 0;
}

bool CQzVMSupport::qzDiskUnsetup(const std::string& disk) {
  trace(3, "CQzVMSupport::qzDiskUnsetup - unset the disk to remove qzvm signature. disk='%s'",
        disk.c_str());
  std::vector<std::string> output;
  return run(supportTool("qzdiskunsetup  ", " -C ", disk), output) != 0;
}

bool CQzVMSupport::isCDSDisk(const std::vector<vol_pvt_info>& records) {
  for (const vol_pvt_info& record : records) {
    if (record.vpi_format == "cdsdisk") {
      trace(3, "CQzVMSupport::isCDSDisk - got cds disk.");
      return true;
    }
  }
  trace(3, "CQzVMSupport::isCDSDisk - No cds disk.");
  return false;
}

// A disk that cannot be labelled is only traced: the caller goes on.
int CQzVMSupport::createSUNLabel(const std::vector<std::string>& osDisks) {
  for (const std::string& disk : osDisks) {
    const CQzVMCommandLine command =
        CQzVMCommandLine("/sbin/", "parted -s ").add("/dev/", disk, " mklabel ", " sun ");
    trace(3, "calling command [%s].", command.text().c_str());
    std::vector<std::string> output;
    if (run(command, output) != 0) {
      trace(1, "Failed to label disk[%s] with message ==>%s.", disk.c_str(),
            joinLines(output).c_str());
    }
  }
  return 0;
}

int CQzVMSupport::removeDisksFromQzVM(const std::vector<std::string>& disks, bool disableDmp) {
  for (const std::string& disk : disks) {
    std::vector<std::string> output;
    if (run(tool("qzdisk  ", " rm ", disk), output) != 0) {
      trace(2, "removing disk from qzvm db is failed.");
    }
    if (disableDmp) {
      disableDMP(disk);
    }
  }
  return 0;
}

int CQzVMSupport::refreshDisks(const std::vector<std::string>& disks) {
  trace(3,
        "CQzVMSupport::refreshDisks - removing disks from qzvm view and rescanning. This need "
        "not to be successful. But useful if setup is unclean.");
  removeDisksFromQzVM(disks, false);
  qzvmScanDisks(false);
  return 0;
}

int CQzVMSupport::isDisksInQzVMDB(const std::vector<std::string>& disks, bool optimized) {
  std::vector<std::vector<std::string>> listings;
  return isDisksInQzVMDB(disks, optimized, listings);
}

int CQzVMSupport::isDisksInQzVMDB(const std::vector<std::string>& disks, bool optimized,
                                  std::vector<std::vector<std::string>>& listings) {
  listings.clear();
  const int maxRescans = 8;
  int rescans = 0;  // shared by all disks of the call
  for (const std::string& disk : disks) {
    std::vector<std::string> output;
    while (run(tool("qzdisk  ", " list ", disk), output) != 0) {
      if (optimized) {
        trace(2, "qzvm unable to see the snapshotted disks. optimized is set returning.");
        return 1;
      }
      if (rescans == maxRescans) {
        trace(2, "after 8 attempts of qzdisk scandisks, qzvm unable to see the snapshotted disks.");
        return 1;
      }
      if (rescans > 0) {
        qzvmSleep(10);
      }
      qzvmScanDisks(false);
      ++rescans;
    }
    listings.push_back(std::move(output));
  }
  return 0;
}

bool CQzVMSupport::isDiskShared(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    if (contains(line, "flags:") && contains(line, "shared")) {
      return true;
    }
  }
  return false;
}

int CQzVMSupport::checkQzVMDiskAgainstDG(const std::vector<std::string>& dgs,
                                         const std::vector<std::string>& disks, bool& belongs) {
  std::vector<std::string> groupDisks;
  if (dgs.empty() || getDisksForDG(dgs.front().c_str(), groupDisks) != 0) {
    return 6;
  }
  belongs = checkVectorMatch(disks, groupDisks, false);
  trace(3, belongs ? " disks belongs to dg." : " disks not belongs to dg.");
  return 0;
}

// The group and volume are found from the disk's own private region; a
// disk whose group holds no volume is not deleted (6).
int CQzVMSupport::deleteQzVMDisk(const std::string& disk) {
  std::vector<std::string> native;
  if (getOSDiskHandleForQzVMDisk({disk}, native, false, false) != 0 || native.empty()) {
    trace(1, "CQzVMSupport::deleteQzVMDisk -  unable to get native name");
    return 6;
  }
  std::string dgName;
  std::string volume;
  if (regenerateQzVMFromDisk({disk}, dgName, volume) != 0) {
    return 6;
  }
  QZ_ASSERT(dgName.size(), "qzvm_support");
  trace(3,
        "CQzVMSupport::deleteQzVMDisk - recreated qzvm dg and volume from given disk dgname='%s'.",
        dgName.c_str());
  if (destroyDG(dgName, false) != 0) {
    trace(2,
          "Info : - as destroy of dg '%s' failed, trying deporting. This is required if dg is "
          "dangling.",
          dgName.c_str());
    deportDG(dgName, false);
  }
  if (qzDiskUnsetup(disk)) {
    trace(1, "unable to unset or delete qzvm disk. disk='%s'", disk.c_str());
    return 6;
  }
  if (removeDisksFromQzVM({disk}, false) != 0) {
    trace(1, "unable to remove qzvm disk. disk='%s'", disk.c_str());
    return 6;
  }
  return 0;
}

// A disk carries volume-manager data when its private region names a disk
// group: that is what deleteQzVMDisk then needs to find.
int CQzVMSupport::isQzVMDisk(const std::string& osDisk, const std::string& node, bool& answer,
                             bool cleanFirst) {
  answer = false;
  std::vector<vol_pvt_info> records;
  if (getVolPrivInfo({node}, records) != 0) {
    trace(2, "CQzVMSupport::isQzVMDisk - failed to get volume private data from disks. disk='%s'",
          osDisk.c_str());
    return 1;
  }
  if (records.empty()) {
    trace(2, "CQzVMSupport::isQzVMDisk -  got no volume private data from disks. disk='%s'",
          osDisk.c_str());
    return 1;
  }
  if (cleanFirst && !records.front().vpi_dgname.empty()) {
    const vol_pvt_info& found = records.front();
    trace(3,
          "Cleaning up the qzvm setup to make sure that we dont see disk as qzvm disk just because "
          "qzvm has inconsistent information or dangling dg.");
    trace(3,
          "Deporting and importing dg on '%s' for making qzvm setup clean. Deport may fail if "
          "there is mounted fs on dg '%s'.",
          osDisk.c_str(), found.vpi_dgname.c_str());
    deportDG(found.vpi_dgname, false);
    importDG("", found.vpi_dgid);
    trace(3, "After cleaning up the setup, now check whether '%s' is a qzvm disk", osDisk.c_str());
    return isQzVMDisk(osDisk, node, answer, false);
  }
  answer = !records.front().vpi_dgid.empty();
  trace(3,
        answer ? "CQzVMSupport::isQzVMDisk - '%s' is a qzvm disk"
               : "CQzVMSupport::isQzVMDisk - '%s' is not a qzvm disk",
        osDisk.c_str());
  return 0;
}
