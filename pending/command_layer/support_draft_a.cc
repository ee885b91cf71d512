// ===== helpers shared by the command operations =====

namespace {

std::string joinLines(const std::vector<std::string>& lines) {
  std::string joined;
  for (const std::string& line : lines) {
    joined += line;
  }
  return joined;
}

// Index of the first line holding word, -1 when none.
int lineHolding(const std::vector<std::string>& lines, const std::string& word) {
  return qzfi_pdk_4_4::CFiStringTool::find(lines, word, 0, false);
}

bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

}  // namespace

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
  if (!m_traceLog) {
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
  return trimmed(line).compare(0, 5, "guid=") == 0;
}

bool CQzVMSupport::isRegion(const std::string& line, const std::string& tag) {
  if (line.size() <= tag.size() || line.compare(0, tag.size(), tag) != 0) {
    return false;
  }
  char next = line[tag.size()];
  return next == ' ' || next == '\t';
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
