// Installation probes and device names: which tools the host has, and the
// forms in which device names and dump lines are written.
#include "support/qzvm_support.h"

#include <unistd.h>

#include <cstdio>

#include "osutil.h"
#include "support/internal.h"

using qzvm_support_internal::contains;
using qzvm_support_internal::isDigitChar;
using qzvm_support_internal::isGuidLine;
using qzvm_support_internal::isRecordOf;
using qzvm_support_internal::trimmed;

bool CQzVMSupport::isInstalled() {
  return CFiQzVMUtil::isInstalled();
}

bool CQzVMSupport::isCommandAvailable(const std::string& directory, const std::string& tool) {
  // The tool names carry the blanks of the command lines; the trim drops them.
  std::string path(trimmed(directory + tool));
  return access(path.c_str(), X_OK) == 0;
}

bool CQzVMSupport::isQzDMPInstalled() {
  return isCommandAvailable(commandDir(), "qzdmpadm  ");
}

bool CQzVMSupport::isVSetAvailable() {
  return isCommandAvailable(commandDir(), "qzvset ");
}

bool CQzVMSupport::isCDSSupported() {
  return isCommandAvailable(supportToolDir(), "qzcdsconvert ");
}

int CQzVMSupport::cleanupOtherLVMOnDisk(const std::vector<std::string>& disks) {
  for (const std::string& disk : disks) {
    CFiQzVMUtil::cleanupOtherLVMOnDisk(disk);
  }
  return 0;
}

int CQzVMSupport::removePartitionSuffix(std::vector<std::string>& devices) {
  if (devices.empty()) {
    return 0;
  }
  trace(3, "removePartitionSuffix  First - deviceName = %s", devices[0].c_str());
  for (std::string& device : devices) {
    trace(3, "removePartitionSuffix - deviceName = %s", device.c_str());
    if (contains(device, "emcpower")) {
      while (!device.empty() && isDigitChar(device.back())) {
        device.pop_back();
      }
    } else if (contains(device, "sd")) {
      size_t start = device.size();
      while (start > 1 && isDigitChar(device[start - 1])) {
        trace(3, "found digit %c.", device[start - 1]);
        --start;
      }
      if (start < device.size()) {
        trace(3, "PartitionSuffix = %s.", device.substr(start).c_str());
        device.erase(start);
      }
    }
    trace(3, "removePartitionSuffix - After partition removal deviceName = %s", device.c_str());
  }
  return 0;
}

bool CQzVMSupport::isValidZOLKPath(const std::string& path) {
  return path.compare(0, 11, "/dev/qz/dsk") == 0 || path.compare(0, 12, "/dev/qz/rdsk") == 0;
}

bool CQzVMSupport::isVolumeRaw(const std::string& path) {
  return path.compare(0, 12, "/dev/qz/rdsk") == 0;
}

bool CQzVMSupport::isGuid(const std::string& line) {
  return isGuidLine(line);
}

bool CQzVMSupport::isRegion(const std::string& line, const std::string& tag) {
  return isRecordOf(line, tag);
}

bool CQzVMSupport::isDM(const std::string& line) {
  return isRegion(line, "dm");
}

bool CQzVMSupport::isDG(const std::string& line) {
  return isRegion(line, "dg");
}

void CQzVMSupport::removeDevicesFromOSDeviceTree(const std::vector<std::string>& devices) {
  for (const std::string& device : devices) {
    // The device names the folder written to: "../" must not reach another.
    if (const char* fault = qzvmNameFault(device)) {
      reportRefusedName(m_traceLog, device, fault, "/sys/block");
      return;
    }
    char path[256];
    std::snprintf(path, sizeof path, "/sys/block/%s/device/delete", device.c_str());
    FILE* control = std::fopen(qzvmSysPath(path).c_str(), "a");
    if (control == nullptr) {
      // Deliberately stops: the remaining devices are left alone.
      trace(2, "WARNING: removeDevicesFromOSDeviceTree failed to open %s", path);
      return;
    }
    trace(3, "INFO: removing: %s", path);
    std::fputs("1", control);
    std::fclose(control);
  }
}
