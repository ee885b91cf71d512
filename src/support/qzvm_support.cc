#include "support/qzvm_support.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

#include "osutil.h"
#include "report.h"

using qzfi_pdk_4_4::CFiStringTool;
using qzvmfi_report::joinLines;
using qzvmfi_report::pluginTraceLog;

namespace {

const char kTrimSet[] = " \n\t\r";
const std::string::size_type kMaxNameLength = 31;
const int kUniqueNameTries = 1024;
const size_t kDumpBlockSize = 1 << 20;

// The white space that "%s" of sscanf stops at.
bool isScanSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kTrimSet);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kTrimSet) - first + 1);
}

// The kind of a record line of a configuration dump: its text up to the first
// blank or tab; empty when there is none. Tags hold neither, so a line is a
// record of kind tag exactly when its kind is tag.
std::string_view recordKind(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ' ' || line[i] == '\t') {
      return line.substr(0, i);
    }
  }
  return {};
}

bool isRecordOf(std::string_view line, std::string_view tag) {
  return recordKind(line) == tag;
}

// The records that the replay file keeps.
bool isReplayedKind(std::string_view kind) {
  return kind == "vol" || kind == "plex" || kind == "sd" || kind == "dco";
}

bool isReplayedRecord(std::string_view line) {
  return isReplayedKind(recordKind(line));
}

// Trailing white space cannot touch "guid=", so only the leading is skipped.
bool isGuidLine(std::string_view line) {
  const auto first = line.find_first_not_of(kTrimSet);
  return first != std::string_view::npos && line.compare(first, 5, "guid=") == 0;
}

// Index of the first line holding word, -1 when none.
int lineHolding(const std::vector<std::string>& lines, const std::string& word) {
  return qzfi_pdk_4_4::CFiStringTool::find(lines, word, 0, false);
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

std::string getToken(const std::string& line, int index) {
  // sscanf sees the line only up to its first zero byte.
  std::string_view rest(line.c_str());
  for (int i = 0; i <= index; ++i) {
    std::string::size_type start = 0;
    while (start < rest.size() && isScanSpace(rest[start])) {
      ++start;
    }
    std::string::size_type end = start;
    while (end < rest.size() && !isScanSpace(rest[end])) {
      ++end;
    }
    if (i == index) {
      return std::string(rest.substr(start, end - start));
    }
    rest.remove_prefix(end);
  }
  return std::string();
}

namespace {

// Where "key=" first occurs in text.
size_t findKeyWithEquals(std::string_view text, std::string_view key) {
  for (size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
    if (at + key.size() < text.size() && text[at + key.size()] == '=') {
      return at;
    }
  }
  return std::string_view::npos;
}

// getValForKey without copies, for the callers that only look at the value.
std::string_view valueForKey(std::string_view text, std::string_view key) {
  const auto found = findKeyWithEquals(text, key);
  if (found == std::string_view::npos) {
    return {};
  }
  std::string_view str = trimmed(text.substr(found + key.size() + 1));
  // The value's first character is read as std::string's operator[] would:
  // a zero character past the end of an empty value.
  const char first = str.empty() ? '\0' : str[0];
  if ((first == ' ') || (first == ',') || (first == '\t') || (first == '\n')) {
    qzvmfi_report::assertFailed(
        "! ( (str[0] == ' ') || (str[0] == ',') || (str[0] == '\\t') || (str[0] == '\\n') )",
        "qzvm_support", 4095, "std::string getValForKey(const std::string&, const std::string&)");
  }
  return trimmed(str.substr(0, str.find_first_of(" ,\t\n")));
}

}  // namespace

std::string getValForKey(const std::string& text, const std::string& key) {
  return std::string(valueForKey(text, key));
}

int getMetaValForkey(const std::vector<std::string>& lines, const std::string& key,
                     std::string& value) {
  const int index = CFiStringTool::find(lines, key, 0, false);
  if (index < 0) {
    return 1;
  }
  std::string line = lines[index];
  line.erase(line.find(key), key.size());
  value = std::string(trimmed(line));
  return 0;
}

bool hasVal(const std::string& text, const std::string& key) {
  return !valueForKey(text, key).empty();
}

bool hasDAName(const std::string& text) {
  return hasVal(text, "da_name");
}

bool hasDMName(const std::string& text) {
  return hasVal(text, "dm_name");
}

bool hasPathVal(const std::string& text) {
  return hasVal(text, "path");
}

int replaceString(std::string& text, std::string::size_type from, const std::string& what,
                  const std::string& with) {
  const auto found = text.find(what, from);
  if (found == std::string::npos) {
    return 1;
  }
  text.replace(found, what.size(), with);
  return 0;
}

bool checkVectorMatch(const std::vector<std::string>& wanted,
                      const std::vector<std::string>& present, bool sameSize) {
  if (sameSize && wanted.size() != present.size()) {
    return false;
  }
  for (const std::string& name : wanted) {
    if (isUniqueInVector(present, name)) {
      return false;
    }
  }
  return true;
}

bool isUniqueInVector(const std::vector<std::string>& names, const std::string& name) {
  for (const std::string& entry : names) {
    if (entry == name) {
      return false;
    }
  }
  return true;
}

void createUniqueInVector(const std::vector<std::string>& names, std::string& name) {
  for (int i = 0; i < kUniqueNameTries; ++i) {
    std::string candidate = name + "_" + CFiStringTool::int2str(i);
    MAKE_NAME_RFIT(candidate);
    if (isUniqueInVector(names, candidate)) {
      name = candidate;
      return;
    }
  }
  QZ_TRACE(pluginTraceLog(), 1,
           "CQzVMSupport::createUniqueInVector - unable to create unique name for dm/dg.");
  name.clear();
}

void MAKE_NAME_RFIT(std::string& name) {
  if (name.size() > kMaxNameLength) {
    name.erase(0, name.size() - kMaxNameLength);
  }
}

void multiLinesToVector(const std::string& text, std::vector<std::string>& lines) {
  std::string::size_type start = 0;
  while (start < text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    lines.emplace_back(text, start, end - start);
    start = end + 1;
  }
}

void printList4(const std::vector<std::string>& lines) {
  const auto log = pluginTraceLog();
  QZ_TRACE(log, 3, "%s", "");
  for (const std::string& line : lines) {
    QZ_TRACE(log, 3, "printList  %s", line.c_str());
  }
}

CQzVMSupport::CQzVMSupport() {
  registerTraceLog(pluginTraceLog());
  CQzVMConfiguration configuration;
  configuration.checkConfigFile(1);
  configuration.importCliPathInfo(m_cliPath);
}

CQzVMSupport::~CQzVMSupport() = default;

void CQzVMSupport::registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) {
  CFiTraceable::registerTraceLog(log);
  m_cliTool.registerTraceLog(log);
}

int CQzVMSupport::fgetline(std::string& line, FILE* stream) {
  line.clear();
  while (!feof(stream)) {
    char chunk[512] = {0};
    if (fgets(chunk, sizeof chunk, stream) == nullptr || chunk[0] == '\0') {
      break;
    }
    const size_t length = strlen(chunk);
    line.append(chunk, length);
    if (chunk[length - 1] == '\n') {
      break;
    }
  }
  return 0;
}

int CQzVMSupport::putVectorInFile(const std::vector<std::string>& lines, const std::string& path) {
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) {
    return 1;
  }
  // Opened first on purpose: an empty list leaves an empty file behind.
  int result = lines.empty() ? 1 : 0;
  for (const std::string& line : lines) {
    fwrite(line.data(), 1, line.size(), file);
  }
  fclose(file);
  return result;
}

// ===== installation probes and device names =====

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

namespace {

bool isDigitChar(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

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

// ===== disk groups =====

bool CQzVMSupport::isDGPresent(const std::string& dg) {
  std::vector<std::string> output;
  return run(commandDir() + "qzdg  " + " list " + dg, output) == 0;
}

bool CQzVMSupport::isDGEnabled(const std::string& dg) {
  std::vector<std::string> output;
  if (run(commandDir() + "qzdg  " + " list ", output) != 0) {
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
  int status = run(commandDir() + "qzdg  " + " list ", output);
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
      name = candidate;
      trace(3, "CQzVMSupport::getNewDGName - created new unique dg name '%s'.", name.c_str());
      return;
    }
  }
  trace(1, "CQzVMSupport::getNewDGName - unable to create new unique dg name.");
}

int CQzVMSupport::getNewDGName(std::string& name) {
  std::string base;
  char* generated = tempnam("/dev/qz/dsk", "tpu_fi");
  if (generated != nullptr) {
    base = generated;
    std::free(generated);
  } else {
    trace(2, "CQzVMSupport::getNewDGName - tempnam failed: %s",
          qzfi_pdk_4_4::CFiPlatformError::returnErrorMsg(errno).c_str());
  }
  size_t slash = base.rfind('/');
  if (slash != std::string::npos) {
    base.erase(0, slash + 1);
  }
  getNewDGName(base, name);
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

int CQzVMSupport::runOnce(const std::vector<std::string>& commands) {
  for (const std::string& command : commands) {
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
  std::vector<std::string> commands;
  for (size_t i = 0; i < disks.size(); ++i) {
    std::string disk = dms.empty() ? disks[i] : dms[i] + "=" + disks[i];
    if (i == 0) {
      std::string init = commandDir() + "qzdg  " + " init " + dg + " " + disk;
      if (isCDSSupported()) {
        init += std::string("  cds=") + (cds ? "on" : "off");
      }
      commands.push_back(init);
    } else {
      commands.push_back(commandDir() + "qzdg  " + " -g " + dg + " adddisk " +
                         (dms.empty() ? "" : " ") + disk);
    }
  }
  return runOnce(commands);
}

bool CQzVMSupport::importDG(const std::string& newName, const std::string& dg) {
  std::string rename = newName.empty() ? "" : " -n " + newName;
  std::vector<std::string> output;
  if (run(commandDir() + "qzdg  " + " -C " + rename + " import " + dg, output) != 0) {
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
  std::vector<std::string> output;
  return run(commandDir() + "qzdg  " + " deport " + dg, output) != 0;
}

int CQzVMSupport::destroyDG(const std::string& dg, bool checkFirst) {
  if (checkFirst && !isDGPresent(dg)) {
    trace(3, "dg '%s' is already destroyed.", dg.c_str());
    return 0;
  }
  trace(3, "CQzVMSupport::destroyDG - destroying dgname='%s'. This may or not may succeed",
        dg.c_str());
  std::vector<std::string> output;
  return run(commandDir() + "qzdg  " + " destroy " + dg, output);
}

bool CQzVMSupport::flushDGConfig(const std::string& dg) {
  std::vector<std::string> output;
  return run(commandDir() + "qzdg  " + " flush " + dg, output) != 0;
}

bool CQzVMSupport::onlineDG(const std::string& dg, bool start) {
  std::vector<std::string> output;
  return run(commandDir() + "qzvol  " + " -g " + dg + (start ? " startall " : " stopall "),
             output) != 0;
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
  std::string command = commandDir() + "qzdisk  " + " clearimport ";
  for (const std::string& disk : disks) {
    command += " " + disk;
  }
  std::vector<std::string> output;
  return run(command, output) != 0;
}

int CQzVMSupport::getDGID(const std::string& volumePath, std::string& dgid) {
  std::string dg;
  std::string volume;
  extractDGAndVol(volumePath, dg, volume);
  std::vector<std::string> output;
  int status = run(commandDir() + "qzdisk  " + " -s " + " -g " + dg + " list ", output);
  if (status != 0) {
    return status;
  }
  return getMetaValForkey(output, "dgid:", dgid);
}

int CQzVMSupport::getDGSize(const std::string& dg, unsigned long long& size) {
  std::vector<std::string> output;
  int status = run(commandDir() + "qzassist " + " -g " + dg + " " + " -p " + " maxsize ", output);
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
  SDGInfo& info = m_dgInfo[dg];
  info.name = dg;
  if (fromCache(info.disks, disks, "getDisksForDG")) {
    return 0;
  }
  trace(3, "CQzVMSupport::getDisksForDG - getting disks under this object. dg=%s", dg);
  std::vector<std::string> output;
  int status = run(commandDir() + "qzdisk  " + " -g " + dg + " " + " list ", output);
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

// Rows of "qzdisk -g DG list": device, type, disk-media name, group, status.
int CQzVMSupport::getDMsFromDG(const std::string& dg, const std::vector<std::string>& disks,
                               std::vector<std::string>& dms) {
  std::vector<std::string> output;
  if (run(commandDir() + "qzdisk  " + " -g " + dg + " list ", output) != 0) {
    trace(2, "error in getting DM names from dg.");
    return 1;
  }
  int header = lineHolding(output, "DEVICE");
  std::map<std::string, std::string> dmOfDevice;
  for (size_t i = header + 1; header >= 0 && i < output.size(); ++i) {
    dmOfDevice[getToken(output[i], 0)] = getToken(output[i], 2);
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

int CQzVMSupport::deportDGAndRemoveDisks(const std::string& object, bool removeDisks,
                                         bool disableDmp) {
  std::string dg;
  std::string volume;
  extractDGAndVol(object, dg, volume);
  if (!isDGPresent(dg)) {
    trace(3, "dg '%s' is already deported.", dg.c_str());
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
  if (deportDG(dg, false)) {
    trace(1, "CQzVMPlugin::deportDGAndRemoveDisks deport of disk group failed.  object=%s",
          object.c_str());
    return 6;
  }
  if (removeDisks && removeDisksFromQzVM(disks, disableDmp) != 0) {
    trace(2, "removal of disk from qzvm view failed. But it is not serious error.");
  }
  return 0;
}

// ===== disks and multipath nodes =====

int CQzVMSupport::qzvmScanDisks(bool newOnly) {
  std::string command = newOnly ? commandDir() + "qzdisk  " + " -f " + " scandisks " + " new "
                                : commandDir() + "qzdisk  " + " scandisks ";
  std::vector<std::string> output;
  run(command, output);
  return 0;
}

// Every call scans the devices it is given, also those already in the map:
// a copy presented again under an old name must be seen afresh.
int CQzVMSupport::qzvmScanDisks(const std::vector<std::string>& devices) {
  trace(3, "Debug: qzvmscandisks -- initializing devices in map");
  std::string joined;
  for (const std::string& device : devices) {
    m_scannedDevices[device] = device;
    joined += (joined.empty() ? "" : ",") + device;
  }
  std::string command = commandDir() + "qzdisk  " + " scandisks ";
  if (!joined.empty()) {
    command += " device=" + joined;
  }
  std::vector<std::string> output;
  int status = run(command, output);
  for (const std::string& device : devices) {
    m_scannedDevices[device] = device;
  }
  return status;
}

// Runs a qzdmpadm listing: 0 with a header on line 0 and rows from line 2 on,
// 1 when the command failed (the caller traces it), 2 for unusable output
// (traced here).
int CQzVMSupport::dmpAdmRows(const std::string& command, std::vector<std::string>& output) {
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
    int rows =
        dmpAdmRows(commandDir() + "qzdmpadm  " + " getdmpnode " + " nodename=" + osDisk, output);
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
  int rows =
      dmpAdmRows(commandDir() + "qzdmpadm  " + " getsubpaths " + " dmpnodename=" + node, output);
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
  // Preference for a single path: active, then enabled primary, then enabled.
  // With allPaths every usable path is listed once (a primary path is also in
  // the enabled list, and is not repeated).
  if (allPaths || taken.empty()) {
    for (const std::vector<std::string>* candidates : {&primary, &enabled}) {
      for (const std::string& path : *candidates) {
        if (!allPaths && !taken.empty()) {
          break;
        }
        if (std::find(taken.begin(), taken.end(), path) == taken.end()) {
          taken.push_back(path);
        }
      }
    }
  }
  if (taken.empty()) {
    trace(2, "Unable to get enabled disk path for dmp node '%s'", node.c_str());
    return 1;
  }
  // The cache keeps the preferred (first) path of the node.
  SDisksInfo& cached = m_dmpPathInfo[node];
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
  int status = run(commandDir() + "qzdmpadm  " + " enable " + " path=" + osDisk, output);
  if (status == 0) {
    trace(3, "Enable of os disk '%s' is successful.", osDisk.c_str());
  } else {
    trace(2, "Enable of os disk '%s' is failed.", osDisk.c_str());
  }
  return status;
}

int CQzVMSupport::disableOSDisk(const std::string& osDisk) {
  std::vector<std::string> output;
  int status = run(commandDir() + "qzdmpadm  " + " -f " + " disable " + " path=" + osDisk, output);
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
    std::string tool = supportToolDir() + "qzdisksetup  ";
    if (run(tool + " -i " + disk + "  format=simple", output) != 0 &&
        run(tool + " -f " + " -i " + disk + "  format=simple", output) != 0) {
      return 1;
    }
  }
  return 0;
}

bool CQzVMSupport::qzDiskUnsetup(const std::string& disk) {
  trace(3, "CQzVMSupport::qzDiskUnsetup - unset the disk to remove qzvm signature. disk='%s'",
        disk.c_str());
  std::vector<std::string> output;
  return run(supportToolDir() + "qzdiskunsetup  " + " -C " + disk, output) != 0;
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

int CQzVMSupport::createSUNLabel(const std::vector<std::string>& osDisks) {
  int result = 0;
  for (const std::string& disk : osDisks) {
    std::string command =
        std::string("/sbin/") + "parted -s " + "/dev/" + disk + " mklabel " + " sun ";
    trace(3, "calling command [%s].", command.c_str());
    std::vector<std::string> output;
    int status = run(command, output);
    if (status != 0) {
      trace(1, "Failed to label disk[%s] with message ==>%s.", disk.c_str(),
            joinLines(output).c_str());
      result = status;
    }
  }
  return result;
}

int CQzVMSupport::removeDisksFromQzVM(const std::vector<std::string>& disks, bool disableDmp) {
  for (const std::string& disk : disks) {
    std::vector<std::string> output;
    if (run(commandDir() + "qzdisk  " + " rm " + disk, output) != 0) {
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
  const int maxRescans = 8;
  int rescans = 0;  // shared by all disks of the call
  for (const std::string& disk : disks) {
    std::vector<std::string> output;
    while (run(commandDir() + "qzdisk  " + " list " + disk, output) != 0) {
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

// The group is found from the disk's private region (regenerateDGFromDisk):
// a disk whose group has no volume can be deleted as well.
int CQzVMSupport::deleteQzVMDisk(const std::string& disk) {
  std::vector<std::string> native;
  if (getOSDiskHandleForQzVMDisk({disk}, native, false, false) != 0 || native.empty()) {
    trace(1, "CQzVMSupport::deleteQzVMDisk -  unable to get native name");
    return 6;
  }
  std::string dgName;
  if (regenerateDGFromDisk({disk}, dgName) != 0) {
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

// ===== volumes and volume sets =====

int CQzVMSupport::onlineVolume(const std::string& dg, const std::string& volume,
                               const std::string& useType) {
  std::string use = useType.empty() ? "" : " -U " + useType;
  std::vector<std::string> output;
  if (run(commandDir() + "qzvol  " + " -g " + dg + use + " start " + volume, output) != 0) {
    trace(2, " Unable to online dg '%s' and volume '%s'", dg.c_str(), volume.c_str());
    return 1;
  }
  return 0;
}

int CQzVMSupport::onOffVolume(const std::string& dg, const std::string& volume,
                              const std::string& operation) {
  std::vector<std::string> output;
  return run(commandDir() + "qzvol  " + " -g " + dg + operation + volume, output) == 0 ? 0 : 1;
}

int CQzVMSupport::createVolume(const std::string& volume, const std::string& dg,
                               unsigned long long size) {
  std::vector<std::string> output;
  std::string command = commandDir() + "qzassist " + " -g " + dg + " " + " make " + " " + volume +
                        " " + std::to_string(size);
  return run(command, output) == 0 ? 0 : 1;
}

int CQzVMSupport::offlineVolume(const std::string& dg, const std::string& volume,
                                void* /*unused*/) {
  const int busy = 31;
  const int busyRetries = 8;
  const std::string command = commandDir() + "qzvol  " + " -g " + dg + " stop " + volume;
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
  if (run(commandDir() + "qzinfo  " + " -g " + dg + " " + volume, output) != 0) {
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
  if (run(commandDir() + "qzinfo  " + " -g " + dg + " " + volume, output) == 0 && !output.empty() &&
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
int CQzVMSupport::printRecordsOf(const std::string& command, std::vector<std::string>& output) {
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
  int listing = printRecordsOf(commandDir() + "qzprint  " + " -g " + dg, output);
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
  std::string command = commandDir() + "qzprint  " + " -g " + dg + " " + vset;
  std::vector<std::string> output;
  bool failed = run(command, output) != 0;
  if (!failed && output.size() < 2) {
    trace(3, " Not valid format of command '%s'.", command.c_str());
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
  int listing = printRecordsOf(
      commandDir() + "qzprint  " + " -g " + dg + " " + (vsets ? " -x " : " -v "), output);
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
                                 const std::string& volume) {
  trace(3, "Getting qzvm vset, vol, dco for dg [%s] and volume [%s]", dg.c_str(), volume.c_str());
  std::string command = commandDir() + "qzprint  " + " -g " + dg;
  if (!volume.empty()) {
    command += "  " + volume;
  }
  std::vector<std::string> output;
  int listing = printRecordsOf(command, output);
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
  std::vector<std::string> pieces;
  qzfi_pdk_4_4::CFiStringTool::tokenize(std::string(trimmed(path)), "/", pieces);
  if (pieces.size() != 5) {
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

// ===== private regions and configuration rewriting =====

namespace {

const char* const kListDisk = "qzdisk  ";

}  // namespace

int CQzVMSupport::getVolPrivInfoPerAltDisk(const std::string& disk,
                                           std::vector<std::string>& lines) {
  if (run(commandDir() + kListDisk + " list " + disk, lines) != 0) {
    trace(2, "unable get to qzvm private information for disk '%s'", disk.c_str());
    return 1;
  }
  return 0;
}

int CQzVMSupport::getVolPrivInfoPerDisk(const std::string& disk, std::vector<std::string>& lines) {
  SDisksInfo& cached = m_disksInfo[disk];
  cached.name = disk;
  if (fromCache(cached.listing, lines, "getVolPrivInfoPerDisk")) {
    return 0;
  }
  if (getVolPrivInfoPerAltDisk(disk, lines) != 0) {
    return 1;
  }
  cached.listing = lines;
  return 0;
}

int CQzVMSupport::getVolPrivInfo(const std::vector<std::string>& disks,
                                 std::vector<vol_pvt_info>& records) {
  for (const std::string& disk : disks) {
    vol_pvt_info record = vol_pvt_info();
    std::vector<std::string> lines;
    if (getVolPrivInfoPerAltDisk(disk, lines) != 0) {
      trace(2, "getting volume private data on disk failed.");
      return 1;
    }
    if (parseVolPrivInfo(lines, record) != 0) {
      trace(2, "parsing of volume private data on disk failed.");
      return 1;
    }
    records.push_back(record);
  }
  return 0;
}

int CQzVMSupport::getVolPrivInfoUnformatted(const std::vector<std::string>& disks,
                                            std::vector<std::vector<std::string>>& listings) {
  for (const std::string& disk : disks) {
    std::vector<std::string> lines;
    if (getVolPrivInfoPerDisk(disk, lines) != 0) {
      trace(2, "getting volume private data on disk failed.");
      return 1;
    }
    listings.push_back(lines);
  }
  return 0;
}

int CQzVMSupport::parseVolPrivInfo(const std::vector<std::string>& lines, vol_pvt_info& record) {
  struct Field {
    const char* key;
    const char* subKey;  // null: the whole value, trimmed
    std::string vol_pvt_info::*field;
  };
  static const Field fields[] = {
      {"Device:", nullptr, &vol_pvt_info::vpi_da},
      {"disk:", "name", &vol_pvt_info::vpi_dm},
      {"group:", "name", &vol_pvt_info::vpi_dgname},
      {"group:", "id", &vol_pvt_info::vpi_dgid},
      {"type:", nullptr, &vol_pvt_info::vpi_da_type},
      {"info:", "format", &vol_pvt_info::vpi_format},
      {"public:", "slice", &vol_pvt_info::vpi_pub_slice},
      {"public:", "len", &vol_pvt_info::vpi_pub_len},
      {"public:", "offset", &vol_pvt_info::vpi_pub_offset},
      {"private:", "slice", &vol_pvt_info::vpi_priv_slice},
      {"private:", "len", &vol_pvt_info::vpi_priv_len},
      {"private:", "offset", &vol_pvt_info::vpi_priv_offset},
      {"configs:", "len", &vol_pvt_info::vpi_configlen},
      {"configs:", "count", &vol_pvt_info::vpi_nconfig},
      {"logs:", "len", &vol_pvt_info::vpi_loglen},
      {"logs:", "count", &vol_pvt_info::vpi_nlogs},
  };
  for (const Field& entry : fields) {
    std::string value;
    if (getMetaValForkey(lines, entry.key, value) != 0) {
      continue;
    }
    record.*entry.field =
        entry.subKey == nullptr ? std::string(trimmed(value)) : getValForKey(value, entry.subKey);
  }
  std::string flags;
  record.vpi_error = getMetaValForkey(lines, "flags:", flags) == 0 && contains(flags, "error");
  return 0;
}

int CQzVMSupport::dgIdNameOnDisk(const std::string& disk, std::string& dgid, std::string& dgName) {
  std::vector<vol_pvt_info> records;
  if (getVolPrivInfo({disk}, records) != 0) {
    trace(1, "CQzVMSupport::dgIdNameOnDisk - failed to get volume private data from disks.");
    return 6;
  }
  if (records.empty()) {
    trace(1, "CQzVMSupport::dgIdNameOnDisk -  got no volume private data from disks.");
    return 6;
  }
  dgid = records.front().vpi_dgid;
  dgName = records.front().vpi_dgname;
  return 0;
}

int CQzVMSupport::defineDisksInQzVM(const std::vector<std::string>& disks,
                                    const std::vector<vol_pvt_info>& records) {
  for (size_t i = 0; i < disks.size() && i < records.size(); ++i) {
    if (records[i].vpi_da_type == "nopriv") {
      trace(3, "CQzVMSupport::defineDisksInQzVM - nopriv disk type is not supported.\n");
      return 1;
    }
  }
  return 0;
}

namespace {

void addOption(std::string& command, const char* option, const std::string& value) {
  if (!value.empty()) {
    command += option + value;
  }
}

// "qzdisk init" with the geometry of the source disk.
std::string initCommand(const std::string& dir, const std::string& disk,
                        const vol_pvt_info& record) {
  std::string command = dir + "qzdisk  " + " -f " + " init " + disk + " type=" + record.vpi_da_type;
  bool autoType = record.vpi_da_type == "auto";
  if (autoType) {
    command += " format=" + record.vpi_format;
  }
  addOption(command, " privoffset=", record.vpi_priv_offset);
  addOption(command, " privlen=", record.vpi_priv_len);
  addOption(command, " puboffset=", record.vpi_pub_offset);
  addOption(command, " publen=", record.vpi_pub_len);
  addOption(command, " configlen=", record.vpi_configlen);
  addOption(command, " loglen=", record.vpi_loglen);
  addOption(command, " nconfig=", record.vpi_nconfig);
  addOption(command, " nlog=", record.vpi_nlogs);
  if (record.vpi_da_type == "sliced" || (autoType && record.vpi_format == "sliced")) {
    // "9999" stands for a slice the disk does not have.
    if (record.vpi_priv_slice != "9999") {
      command += " privslice=" + record.vpi_priv_slice;
    }
    if (record.vpi_pub_slice != "9999") {
      command += " pubslice=" + record.vpi_pub_slice;
    }
  }
  return command;
}

}  // namespace

int CQzVMSupport::initDisks(const std::vector<std::string>& disks,
                            const std::vector<vol_pvt_info>& records, bool removeFirst) {
  if (removeFirst) {
    removeDisksFromQzVM(disks, false);
  }
  for (size_t i = 0; i < disks.size() && i < records.size(); ++i) {
    if (records[i].vpi_da_type == "nopriv") {
      continue;
    }
    std::vector<std::string> output;
    if (run(initCommand(commandDir(), disks[i], records[i]), output) != 0) {
      return 1;
    }
  }
  return 0;
}

int CQzVMSupport::getDGConfigInVector(const std::string& dg, std::vector<std::string>& lines) {
  SDGInfo& cached = m_dgInfo[dg];
  cached.name = dg;
  if (fromCache(cached.config, lines, "getDGConfiginVector")) {
    return 0;
  }
  std::string command = commandDir() + "qzprint  " + (isVSetAvailable() ? " -vxpsc " : " -vpsc ") +
                        " -g " + dg + " -m ";
  if (run(command, lines) != 0) {
    return 1;
  }
  cached.config = lines;
  return 0;
}

int CQzVMSupport::getDGConfig(const std::string& dg, const std::string& filePath) {
  std::vector<std::string> lines;
  if (getDGConfigInVector(dg, lines) != 0) {
    trace(1, "CQzVMSupport::getDGConfig - failed to get dg configuration in vector.");
    return 1;
  }
  if (putVectorInFile(lines, filePath) != 0) {
    trace(1,
          "CQzVMSupport::getDGConfig - failed to write dg configuration in vector into file '%s'.",
          filePath.c_str());
    return 1;
  }
  return 0;
}

namespace {

// Replaces, after position from, the first primary name that occurs by its
// alternate; list order decides which pair wins.
void replaceFirstPair(std::string& text, size_t from, const std::vector<std::string>& primary,
                      const std::vector<std::string>& alternate) {
  for (size_t i = 0; i < primary.size(); ++i) {
    if (replaceString(text, from, primary[i], alternate[i]) == 0) {
      return;
    }
  }
}

// Hands every line of a dump, line end kept, to take, split as fgetline
// splits them. The text is read in large blocks and the lines are views into
// them; fgetline treats a zero byte specially, so a block holding one sends
// the rest of the file through fgetline itself, from the line in hand on.
template <typename Take>
void forEachDumpLine(FILE* in, Take take) {
  std::vector<char> block(kDumpBlockSize);
  std::string pending;  // the start of a line that the block ended inside
  long lineStart = 0;   // file offset of the first line not yet taken
  for (size_t got; (got = std::fread(block.data(), 1, block.size(), in)) > 0;) {
    if (std::memchr(block.data(), '\0', got) != nullptr) {
      std::fseek(in, lineStart, SEEK_SET);
      for (std::string line; CQzVMSupport::fgetline(line, in), !line.empty();) {
        take(line);
      }
      return;
    }
    std::string_view text(block.data(), got);
    for (size_t end; (end = text.find('\n')) != std::string_view::npos;) {
      std::string_view line = text.substr(0, end + 1);
      if (pending.empty()) {
        take(line);
      } else {
        take(pending.append(line));
        pending.clear();
      }
      lineStart += static_cast<long>(line.size());
      text.remove_prefix(line.size());
    }
    pending.append(text);
  }
  if (!pending.empty()) {
    take(pending);
  }
}

// Only lines with "path=", "da_name=" or "dm_name=" can be rewritten; a look
// before each "=" keeps the others away from the value parsing.
bool mayBeRewritten(std::string_view line) {
  for (size_t equals = line.find('='); equals != std::string_view::npos;
       equals = line.find('=', equals + 1)) {
    if (equals >= 4 &&
        (line.compare(equals - 4, 4, "path") == 0 || line.compare(equals - 4, 4, "name") == 0)) {
      return true;
    }
  }
  return false;
}

}  // namespace

void CQzVMSupport::replacePattern(const std::string& line, const std::string& /*oldDG*/,
                                  const std::string& /*newDG*/,
                                  const std::vector<std::string>& vecPriDisks,
                                  const std::vector<std::string>& vecAltDisks,
                                  const std::vector<std::string>& vecPriDMs,
                                  const std::vector<std::string>& vecAltDMs, std::string& out) {
  QZ_ASSERT(vecPriDMs.size() == vecAltDMs.size(), "qzvm_support");
  QZ_ASSERT(vecPriDisks.size() == vecAltDisks.size(), "qzvm_support");
  out.assign(line);
  size_t equals = line.find('=');
  if (equals == std::string::npos) {
    return;
  }
  if (hasPathVal(line) || hasDAName(line)) {
    replaceFirstPair(out, equals + 1, vecPriDisks, vecAltDisks);
  } else if (hasDMName(line)) {
    replaceFirstPair(out, equals + 1, vecPriDMs, vecAltDMs);
  }
}

int CQzVMSupport::reconfig(const std::string& inFile, const std::string& oldDG,
                           const std::string& newDG, const std::vector<std::string>& vecPriDisks,
                           const std::vector<std::string>& vecAltDisks,
                           const std::vector<std::string>& vecPriDMs,
                           const std::vector<std::string>& vecAltDMs, const std::string& outFile) {
  FILE* in = std::fopen(inFile.c_str(), "r");
  FILE* out = std::fopen(outFile.c_str(), "w");
  if (in == nullptr || out == nullptr) {
    return 1;
  }
  trace(3, "Dumping volume descriptor data to be supplied to qzmake");
  bool insideDG = false;
  bool insideDM = false;
  std::string line;
  std::string rewritten;
  // Dumps run to millions of lines: the output is gathered and written in
  // large blocks.
  std::string kept;
  kept.reserve(2 * kDumpBlockSize);
  forEachDumpLine(in, [&](std::string_view text) {
    // Attribute lines are indented: only the others can open a record.
    const std::string_view kind =
        text[0] != '\t' && text[0] != ' ' ? recordKind(text) : std::string_view();
    if (kind == "dg" || kind == "dm") {
      insideDG = kind == "dg";
      insideDM = !insideDG;
      return;
    }
    if (isReplayedKind(kind)) {
      insideDG = false;
      insideDM = false;
    } else if (insideDG || insideDM || isGuidLine(text)) {
      return;
    }
    if (mayBeRewritten(text)) {
      line.assign(text);
      replacePattern(line, oldDG, newDG, vecPriDisks, vecAltDisks, vecPriDMs, vecAltDMs, rewritten);
      text = rewritten;
    }
    kept.append(text);
    if (kept.size() >= kDumpBlockSize) {
      std::fwrite(kept.data(), 1, kept.size(), out);
      kept.clear();
    }
    trace(3, "%.*s", static_cast<int>(text.size()), text.data());
  });
  std::fwrite(kept.data(), 1, kept.size(), out);
  std::fclose(in);
  std::fclose(out);
  trace(3, "Dumping  volume descriptor data to be supplied to qzmake is done");
  return 0;
}

int CQzVMSupport::applyVolConfig(const std::string& dg, const std::string& file) {
  std::vector<std::string> output;
  return run(commandDir() + "qzmake  " + " -g " + dg + " -d " + file, output) == 0 ? 0 : 1;
}

int CQzVMSupport::regenerateDGFromDisk(const std::vector<std::string>& disks, std::string& dgName) {
  static const char* const kNoDgid =
      "CQzVMSupport::regenerateDGFromDisk - failed to obtain dgid from disk's private data. dmp "
      "disk '%s'";
  static const char* const kEmptyDgid =
      "CQzVMSupport::regenerateDGFromDisk - got invalid(empty) dgid from disk's private data. dmp "
      "disk '%s'";
  trace(3, "CQzVMSupport::regenerateDGFromDisk - removes the disks from qzvm db.");
  const char* disk = disks.empty() ? "" : disks.front().c_str();
  std::string dgid;
  if (disks.empty() || dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    trace(1, kNoDgid, disk);
    return 6;
  }
  if (dgid.empty()) {
    trace(1, kEmptyDgid, disk);
    return 6;
  }
  if (dgName.empty() || !isDGExist(dgName)) {
    if (diskClearImport(disks)) {
      trace(1, "CQzVMSupport::regenerateDGFromDisk - unable to clear import flag on the disk");
      qzvmfi_report::pushError("MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS", {}, "qzvm_support",
                               __LINE__);
      return 6;
    }
    // By id, keeping the name recorded on the disks.
    if (importDG("", dgid)) {
      trace(1, kNoDgid, disk);
      return 6;
    }
  }
  if (!dgName.empty()) {
    return 0;
  }
  if (dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    trace(1, kNoDgid, disk);
    return 6;
  }
  if (dgName.empty()) {
    trace(1, kEmptyDgid, disk);
    return 6;
  }
  return 0;
}

int CQzVMSupport::regenerateQzVMFromDisk(const std::vector<std::string>& disks, std::string& dgName,
                                         std::string& volume) {
  if (regenerateDGFromDisk(disks, dgName) != 0) {
    trace(1,
          "CQzVMSupport::regenerateQzVMFromDisk - failed to obtain dgid from disk's private data. "
          "dmp disk '%s'",
          disks.empty() ? "" : disks.front().c_str());
    return 6;
  }
  QZ_ASSERT(dgName.size(), "qzvm_support");
  std::vector<std::string> volumes;
  if (getVolumesFromDG(dgName, volumes, false) != 0) {
    trace(1, "CQzVMSupport::regenerateQzVMFromDisk - unable to get volumes under dg '%s'.",
          dgName.c_str());
    return 6;
  }
  if (volumes.empty()) {
    trace(1, "CQzVMSupport::regenerateQzVMFromDisk -  found no volumes under dg '%s'.",
          dgName.c_str());
    return 6;
  }
  volume = volumes.front();
  return 0;
}

int CQzVMSupport::getDGFromQzVMDiskIfRecreated(const std::vector<std::string>& disks, bool& created,
                                               std::string& dgName) {
  created = false;
  std::string dgid;
  if (disks.empty() || dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    return 6;
  }
  if (dgName.empty() || !isDGPresent(dgName) || !isDGEnabled(dgName)) {
    trace(3, "dg '%s' is not created or is disabled.", dgName.c_str());
    created = false;
    return 0;
  }
  if (checkQzVMDiskAgainstDG({dgName}, disks, created) != 0) {
    return 6;
  }
  trace(3, created ? "dg '%s' is created." : "dg '%s' is not created.", dgName.c_str());
  return 0;
}

int CQzVMSupport::checkForVolFromQzVMDiskIfRecreatedAndGetDG(const std::vector<std::string>& disks,
                                                             const std::string& volume,
                                                             std::string& dgName, bool& found,
                                                             bool vsets) {
  found = false;
  bool created = false;
  if (getDGFromQzVMDiskIfRecreated(disks, created, dgName) != 0) {
    return 6;
  }
  if (created && checkVolumeInDG(dgName, volume, found, vsets) != 0) {
    return 6;
  }
  return 0;
}

int CQzVMSupport::checkForVolPathFromQzVMDiskIfRecreated(const std::vector<std::string>& disks,
                                                         const std::string& dg,
                                                         const std::string& volume, bool& found,
                                                         bool vsets) {
  std::string dgOnDisks;
  if (checkForVolFromQzVMDiskIfRecreatedAndGetDG(disks, volume, dgOnDisks, found, vsets) != 0) {
    return 6;
  }
  if (dgOnDisks != dg) {
    found = false;
  }
  return 0;
}

// ===== running the tools =====

const std::string& CQzVMSupport::commandDir() const {
  return m_cliPath.commandDir;
}

const std::string& CQzVMSupport::supportToolDir() const {
  return m_cliPath.supportDir;
}

int CQzVMSupport::run(const std::string& command, std::vector<std::string>& output) {
  return m_cliTool.executeCommand(command.c_str(), output);
}

void CQzVMSupport::trace(int level, const char* format, ...) {
  // The log would drop the line anyway; the formatting is spared.
  if (!m_traceLog || level > m_traceLog->getLevel()) {
    return;
  }
  va_list args;
  va_start(args, format);
  std::vector<char> text(1024);
  va_list again;
  va_copy(again, args);
  int needed = std::vsnprintf(text.data(), text.size(), format, args);
  if (needed >= static_cast<int>(text.size())) {
    text.resize(needed + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
  }
  va_end(again);
  va_end(args);
  m_traceLog->trace(level, "%s", text.data());
}

bool CQzVMSupport::fromCache(const std::vector<std::string>& cached,
                             std::vector<std::string>& lines, const char* operation) {
  // An empty entry counts as not cached: the command runs again.
  if (cached.empty()) {
    return false;
  }
  trace(3, "Debug: %s returned value from map", operation);
  lines = cached;
  return true;
}
